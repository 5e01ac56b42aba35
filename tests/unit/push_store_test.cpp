#include "push_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "client_fixture.h"
#include "fake_time.h"

namespace {

class PushStoreTest : public FakeClientTest {
 protected:
  // A client whose configuration adds extra; its callbacks recorded.
  void Remake(const std::string& extra) {
    DAXO_DeleteClient(client);
    FakeMqtt::Reset();
    conf = dir.Write("client.conf", ValidConfig(dir) + extra);
    DAXO_Error err;
    client = NewClientInternal(conf.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    ASSERT_NE(client, nullptr) << DAXO_ErrorName(err);
    DAXO_LogCallbackSet(client, CaptureLog);
    DAXO_RECORD(DAXO_PushMetricValuesCallbackSet, "answer",
                (DAXO_Client*, void* self, const char* id, DAXO_ApiError e), e, id);
    DAXO_RECORD(DAXO_PushDroppedCallbackSet, "dropped",
                (DAXO_Client*, void* self, const char* id, int n, DAXO_PushDropReason why), why,
                Str(id) + "x" + std::to_string(n));
    DAXO_RECORD_CODE(DAXO_CheckConnectionCallbackSet, "check", DAXO_ApiError);
  }
  void SetUp() override {
    FakeClientTest::SetUp();
    Remake("PushStore memory\n");
  }

  // Pushes value to sensor; the store's verdict.
  DAXO_Error Push(const std::string& sensor, int value) {
    DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
    DAXO_AddIntegerMetricValue(values, value, "m");
    DAXO_Error err = DAXO_PushMetricValues(client, sensor.c_str(), values);
    DAXO_DestroyMetricValueContainer(values);
    return err;
  }
  // "sensor=value" of each push published since from, and the ping checks as "check".
  std::string Sent(const FakeMqtt& fake, size_t from = 0) {
    std::string got;
    for (size_t i = from; i < fake.publishes.size(); ++i) {
      const FakePublish& p = fake.publishes[i];
      EXPECT_EQ(p.qos, 0) << p.topic;
      size_t at = p.topic.find("/sensor/");
      if (at == std::string::npos) {
        got += p.topic == "/v1.0/client-1/ping" ? "check " : "? ";
        continue;
      }
      size_t v = p.payload.find("\"value\":") + 8;
      std::string value = p.payload.substr(v, p.payload.find('}', v) - v);
      std::erase(value, ' ');
      got += p.topic.substr(at + 8) + "=" + value + " ";
    }
    return got;
  }
  void Answer(FakeMqtt& fake, const std::string& sensor, int error = 0) {
    std::string topic =
        "/v1.0/client-1/sensor/" + sensor + (error ? "/error/inbox" : "/info/inbox");
    fake.Deliver(topic, error ? "{\"errorcode\":" + std::to_string(error) + "}" : "{}");
  }
  void AnswerCheck(FakeMqtt& fake) { fake.Deliver("/v1.0/client-1/ping/info/inbox", "{}"); }
  size_t Waiting() {
    size_t n = 99;
    EXPECT_EQ(DAXO_GetWaitingPushCount(client, &n), DAXO_Error_Success);
    return n;
  }
  std::string Calls() {
    std::string got;
    for (const Call& c : calls)
      got += c.name + ":" + c.text + ":" +
             (c.code == DAXO_ApiError_NoError ? "ok" : std::to_string(c.code)) + " ";
    calls.clear();
    return got;
  }
};

// The agent hears nothing before it has answered a check; a batch goes with
// a check behind it, and its answers count, in order per sensor, once that
// check is answered. An error answer ends a push too.
TEST_F(PushStoreTest, PushesGoOnceTheAgentAnswersAndEndWithTheirAnswer) {
  Provisioned();
  EXPECT_EQ(Push("s1", 1), DAXO_Error_NoConnectionToServer) << "the store opens with DAXO_Connect";
  FakeMqtt& fake = Connected();
  EXPECT_EQ(Sent(fake), "check ");
  for (auto [sensor, value] : {std::pair{"s1", 1}, {"s2", 2}, {"s1", 3}})
    ASSERT_EQ(Push(sensor, value), DAXO_Error_Success);
  EXPECT_EQ(Sent(fake), "check ");
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "") << "the library's check is its own";
  ASSERT_EQ(Push("s2", 4), DAXO_Error_Success);
  EXPECT_EQ(Sent(fake), "check s1=1 s2=2 s1=3 check ") << "s2=4 waits for the next batch";
  Answer(fake, "s1", 23);
  Answer(fake, "s2");
  Answer(fake, "s1");
  EXPECT_EQ(Calls(), "");
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "answer:s1:23 answer:s2:ok answer:s1:ok ");
  EXPECT_EQ(Waiting(), 1u);
  // The connection goes with s2=4 unanswered: it is sent again, only after a new check.
  fake.FireDisconnect(MOSQ_ERR_CONN_LOST);
  ASSERT_EQ(Push("s2", 5), DAXO_Error_Success);
  size_t before = fake.publishes.size();
  fake.FireConnect(0);
  fake.FireSubscribe(fake.subscribes.back().mid);
  EXPECT_EQ(Sent(fake, before), "check ");
  Answer(fake, "s2");  // from the last connection: it proves nothing
  AnswerCheck(fake);
  EXPECT_EQ(Sent(fake, before), "check s2=4 s2=5 check ");
  for (int i = 0; i < 2; ++i) Answer(fake, "s2");
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "answer:s2:ok answer:s2:ok ");
  EXPECT_EQ(Waiting(), 0u);
  // Ids the answers could not name, or the transport would refuse, are not kept.
  for (const char* id : {"a/b", "a+", "#"})
    EXPECT_EQ(Push(id, 5), DAXO_Error_InvalidArguments) << id;
  EXPECT_EQ(Waiting(), 0u);
}

// Answers prove a push only with the check sent after it: a sensor with
// fewer answers than pushes in the batch has its pushes sent again (the
// answers cannot tell which one was lost), one with as many is delivered.
TEST_F(PushStoreTest, ABatchCountsOnlyOnceItsCheckIsAnswered) {
  const struct {
    const char* pushes;
    const char* answers;
    std::string calls, again;
  } cases[] = {
      {"aba", "aba", "answer:a:ok answer:b:ok answer:a:ok ", ""},
      {"aba", "ba", "answer:b:ok ", "a=0 a=2 check "},
      {"aa", "", "", "a=0 a=1 check "},  // the agent restarted: nobody heard them
      {"a", "aa", "answer:a:ok ", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.pushes) + "/" + c.answers);
    Remake("PushStore memory\n");
    FakeMqtt& fake = Connected();
    for (int i = 0; c.pushes[i] != '\0'; ++i)
      ASSERT_EQ(Push(std::string(1, c.pushes[i]), i), DAXO_Error_Success);
    AnswerCheck(fake);
    for (const char* a = c.answers; *a != '\0'; ++a) Answer(fake, std::string(1, *a));
    size_t before = fake.publishes.size();
    AnswerCheck(fake);
    EXPECT_EQ(Calls(), c.calls);
    EXPECT_EQ(Sent(fake, before), c.again);
  }
}

// Answers to checks carry no owner: they go to the library's and the
// application's checks in the order those were sent.
TEST_F(PushStoreTest, EachCheckAnswerGoesToWhoeverSentThatCheck) {
  FakeMqtt& fake = Connected();
  ASSERT_EQ(DAXO_CheckConnection(client), DAXO_Error_Success);
  ASSERT_EQ(Push("s", 1), DAXO_Error_Success);
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "");
  EXPECT_EQ(Sent(fake), "check check s=1 check ");
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "check::ok ");
  Answer(fake, "s");
  ASSERT_EQ(DAXO_CheckConnection(client), DAXO_Error_Success);
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "answer:s:ok ");
  AnswerCheck(fake);
  EXPECT_EQ(Calls(), "check::ok ");
}

// A long backlog goes a batch at a time, each behind the last one's check.
TEST_F(PushStoreTest, ABacklogIsPacedByItsAnswers) {
  FakeMqtt& fake = Connected();
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Push("s", i), DAXO_Error_Success);
  AnswerCheck(fake);
  EXPECT_EQ(fake.publishes.size(), 1u + 64 + 1);
  for (int i = 0; i < 64; ++i) Answer(fake, "s");
  AnswerCheck(fake);
  ASSERT_EQ(fake.publishes.size(), 66u + 36 + 1);
  EXPECT_EQ(Sent(fake, 66).substr(0, 5), "s=64 ");
  EXPECT_EQ(Waiting(), 36u);
}

// An agent that stops answering: after 10 s a check, repeated every 2 s, and
// once one is answered the unproven batch goes again, in order.
TEST_F(PushStoreTest, AQuietAgentIsCheckedAndItsUnansweredPushesResent) {
  FakeMqtt& fake = Connected();
  AnswerCheck(fake);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Push("s", i), DAXO_Error_Success);
  Answer(fake, "s");
  size_t before = fake.publishes.size();
  fake_time::AdvanceBootClock(9000);
  Settle();
  EXPECT_EQ(Sent(fake, before), "");
  fake_time::AdvanceBootClock(10000);
  Settle();
  ASSERT_EQ(Push("s", 3), DAXO_Error_Success);
  EXPECT_EQ(Sent(fake, before), "check ") << "nothing new goes while the check is out";
  fake_time::AdvanceBootClock(12000);
  Settle();
  EXPECT_EQ(Sent(fake, before), "check check ") << "an unanswered check is repeated";
  AnswerCheck(fake);
  fake_time::AdvanceBootClock(0);
  EXPECT_EQ(Sent(fake, before), "check check s=0 s=1 s=2 s=3 check ");
  EXPECT_EQ(Calls(), "") << "s=0's answer was not proven";
}

// A full store drops the oldest or refuses the new push; every drop is
// reported, and a dropped push's answer is not taken for a later one's.
TEST_F(PushStoreTest, AFullStoreFollowsItsPolicy) {
  const struct {
    const char* policy;
    DAXO_Error overflow;
    std::string calls, sent;
  } cases[] = {
      {"drop-oldest", DAXO_Error_Success, "dropped:ax1:1 dropped:ax1:1 dropped:bx1:1 ",
       "check a=0 check a=3 b=4 a=5 check "},
      {"refuse", DAXO_Error_PushStoreFull, "answer:a:ok ", "check a=0 check a=1 b=2 check "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.policy);
    Remake(std::string("PushStore memory\nPushStorePolicy ") + c.policy + "\n");
    client->pushStoreMaxBytes = 500;  // three of these pushes, below the configurable least
    FakeMqtt& fake = Connected();
    AnswerCheck(fake);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(Push(i == 2 ? "b" : "a", i), DAXO_Error_Success);
    fake.publishResult = MOSQ_ERR_NO_CONN;  // the next ones wait
    for (int i = 3; i < 6; ++i) EXPECT_EQ(Push(i == 4 ? "b" : "a", i), c.overflow) << i;
    fake.publishResult.reset();
    EXPECT_EQ(Waiting(), 3u);
    Answer(fake, "a");
    AnswerCheck(fake);
    EXPECT_EQ(Calls(), c.calls);
    EXPECT_EQ(Sent(fake), c.sent);
  }
  EXPECT_EQ(Push(std::string(600, 'x'), 0), DAXO_Error_PushStoreFull) << "larger than the store";
  // A file kept under a larger bound meets the policy when it opens.
  for (auto [policy, waiting, calls] :
       {std::tuple{"drop-oldest", 3u, "dropped:ax1:1 "}, {"refuse", 4u, ""}}) {
    SCOPED_TRACE(policy);
    std::string db = dir / (std::string(policy) + ".db");
    Remake("PushStore " + db + "\n");
    Connected();
    for (int i = 0; i < 4; ++i) ASSERT_EQ(Push("a", i), DAXO_Error_Success);
    Remake("PushStore " + db + "\nPushStorePolicy " + policy + "\n");
    client->pushStoreMaxBytes = 500;
    Provisioned();
    ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
    EXPECT_EQ(Waiting(), waiting);
    EXPECT_EQ(Calls(), calls);
  }
}

// A file that cannot take the new push (full disk, I/O error) after the
// drops that made room for it: the push is refused and nothing is dropped,
// in the file or in memory.
TEST_F(PushStoreTest, AFailedWriteDropsNothing) {
  std::string db = dir / "pushes.db";
  Remake("PushStore " + db + "\n");
  client->pushStoreMaxBytes = 500;  // three of these pushes
  Connected();
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Push("a", i), DAXO_Error_Success);
  ASSERT_EQ(sqlite3_exec(client->pushStore->db.get(),
                         "CREATE TEMP TRIGGER full BEFORE INSERT ON pushes"
                         " BEGIN SELECT RAISE(ABORT, 'disk full'); END",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_EQ(Push("a", 3), DAXO_Error_PushStoreUnusable);
  EXPECT_EQ(Waiting(), 3u);
  EXPECT_EQ(Calls(), "");
  DAXO_DeleteClient(client);
  client = nullptr;
  Remake("PushStore " + db + "\n");
  Connected();
  EXPECT_EQ(Waiting(), 3u) << "the rows the insert would have replaced are still there";
}

// A memory store ends with its client; a file keeps what it holds for the
// next start, and sends it once the agent answers.
TEST_F(PushStoreTest, AMemoryStoreDropsAtDeletionAFileKeeps) {
  Connected();
  for (auto [sensor, value] : {std::pair{"a", 1}, {"a", 2}, {"b", 3}}) Push(sensor, value);
  DAXO_DeleteClient(client);
  client = nullptr;
  EXPECT_EQ(Calls(), "dropped:ax2:2 dropped:bx1:2 ");

  std::string db = dir / "pushes.db";
  Remake("PushStore " + db + "\nPushStoreSync normal\n");
  FakeMqtt& first = Connected();
  for (int i = 0; i < 2; ++i) ASSERT_EQ(Push("s", i), DAXO_Error_Success);
  AnswerCheck(first);
  ASSERT_EQ(Push("s", 2), DAXO_Error_Success);
  for (int i = 0; i < 2; ++i) Answer(first, "s");
  AnswerCheck(first);
  EXPECT_EQ(Calls(), "answer:s:ok answer:s:ok ");
  DAXO_DeleteClient(client);
  client = nullptr;
  Remake("PushStore " + db + "\nPushStoreSync full\n");
  Connected();
  ASSERT_EQ(Push("s", 3), DAXO_Error_Success);
  DAXO_DeleteClient(client);
  client = nullptr;
  EXPECT_EQ(Calls(), "") << "nothing dropped";
  Remake("PushStore " + db + "\n");
  FakeMqtt& fake = Connected();
  EXPECT_EQ(Waiting(), 2u);
  AnswerCheck(fake);
  EXPECT_EQ(Sent(fake), "check s=2 s=3 check ");
  // A new identity, in the same process too, does not send the old one's pushes.
  Provisioned("client-2");
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  EXPECT_EQ(Waiting(), 0u);
  EXPECT_EQ(Calls(), "dropped:nullx2:4 ");
}

// A store that cannot be used: DAXO_Connect says so and the log says why; a
// corrupt file is moved aside and a new store started.
TEST_F(PushStoreTest, ACorruptOrUnwritableStoreIsReportedByConnect) {
  std::filesystem::create_directory(dir / "ro");
  chmod((dir / "ro").c_str(), 0500);
  std::string corrupt = dir.Write("corrupt.db", std::string(8192, 'x'));
  std::string held = dir / "held.db";  // as by a second process pushing with the same file
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(held.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "PRAGMA locking_mode=EXCLUSIVE; CREATE TABLE t(x)", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  const struct {
    std::string path;
    DAXO_Error err;
    std::string log, calls;
  } cases[] = {
      {dir / "ro/pushes.db", DAXO_Error_PushStoreUnusable, "unable to open database file", ""},
      {dir / "absent/pushes.db", DAXO_Error_PushStoreUnusable, "unable to open database file", ""},
      {corrupt, DAXO_Error_Success, "the file was corrupt; moved to " + corrupt + ".corrupt-",
       "dropped:nullx0:3 "},
      {held, DAXO_Error_PushStoreUnusable, "in use by another process", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    if (geteuid() == 0 && c.path.find("/ro/") != std::string::npos) continue;  // root writes anyway
    Remake("PushStore " + c.path + "\n");
    Provisioned();
    logs.clear();
    EXPECT_EQ(DAXO_Connect(client), c.err);
    std::string all;
    for (const std::string& line : logs) all += line + "\n";
    EXPECT_NE(all.find(c.log), std::string::npos) << all;
    EXPECT_EQ(Calls(), c.calls);
  }
  sqlite3_close(holder);
}

// Out of memory while keeping a push: the push is kept whole or refused
// with nothing kept or sent.
TEST_F(PushStoreTest, EveryFailedAllocationKeepsThePushWholeOrNotAtAll) {
  for (std::string store : {std::string("memory"), dir / "pushes.db"}) {
    SCOPED_TRACE(store);
    Remake("PushStore " + store + "\n");
    FakeMqtt& fake = Connected();
    AnswerCheck(fake);
    DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
    DAXO_AddIntegerMetricValue(values, 7, "m");
    size_t kept = 0;
    auto pushesSent = [&] {
      return std::ranges::count_if(fake.publishes, [](const FakePublish& p) {
        return p.topic.find("/sensor/") != std::string::npos;
      });
    };
    alloc_failure::ForEachAllocationFailure(
        [&] { return DAXO_PushMetricValues(client, "s", values); },
        [&](DAXO_Error err, long n, bool fired) {
          size_t now = Waiting();
          EXPECT_EQ(now, kept + (err == DAXO_Error_Success)) << n;
          EXPECT_LE(pushesSent(), static_cast<long>(now)) << n;
          bool refused = err == DAXO_Error_NoMemory || err == DAXO_Error_ComposeJson;
          EXPECT_TRUE(err == DAXO_Error_Success || (fired && refused)) << n << " " << err;
          kept = now;
        });
    EXPECT_EQ(pushesSent(), 1) << "the rest wait for the first one's check";
    DAXO_DestroyMetricValueContainer(values);
  }
}

// Out of memory while DAXO_Connect opens a file holding pushes: the store
// opens whole or not at all, and a later DAXO_Connect opens it.
TEST_F(PushStoreTest, AStoreThatCannotBeReadForLackOfMemoryIsNotOpened) {
  std::string store = "PushStore " + (dir / "pushes.db") + "\n";
  Remake(store);
  Connected();
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Push("s", i), DAXO_Error_Success);
  alloc_failure::ForEachAllocationFailure(
      [&] {
        Remake(store);
        Provisioned();
      },
      [&] { return DAXO_Connect(client); },
      [&](DAXO_Error err, long n, bool fired) {
        if (err == DAXO_Error_Success) {
          EXPECT_EQ(Waiting(), 3u) << n;
        } else {
          EXPECT_TRUE(fired && (err == DAXO_Error_NoMemory || err == DAXO_Error_PushStoreUnusable))
              << n << " " << DAXO_ErrorName(err);
          size_t kept = Waiting();  // the connection may fail once the store is open
          EXPECT_TRUE(kept == 0 || kept == 3) << n << " " << kept;
          EXPECT_EQ(DAXO_Connect(client), DAXO_Error_Success) << n;
          EXPECT_EQ(Waiting(), 3u) << n;
        }
      });
}

}  // namespace
