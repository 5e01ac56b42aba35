#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <set>

#include "alloc_failure.h"
#include "client_fixture.h"

namespace {

TEST_F(FakeClientTest, DisconnectAndDeletionStopTheNetworkThreads) {
  const struct {
    int rc;
    DAXO_Error err;
    std::vector<int> loopStops;  // forced when there is no connection left to close
  } cases[] = {
      {MOSQ_ERR_SUCCESS, DAXO_Error_Success, {0}},
      {MOSQ_ERR_NO_CONN, DAXO_Error_Success, {1}},
      {MOSQ_ERR_INVAL, DAXO_Error_InvalidArguments, {}},
      {MOSQ_ERR_NOT_SUPPORTED, DAXO_Error_NoThreadSupport, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rc);
    FakeMqtt& fake = Connected();
    fake.disconnectResult = c.rc;
    EXPECT_EQ(DAXO_Disconnect(client), c.err);
    EXPECT_EQ(fake.loopStops, c.loopStops);
    EXPECT_EQ(DAXO_Disconnect(client), DAXO_Error_Success);
    EXPECT_EQ(fake.disconnects, 1) << "a second disconnect does nothing";
  }
  FakeMqtt& main = Connected();
  client->mosqProvision = FakeMqtt::Create(nullptr, "myid", 1, client);
  daxo::Store(client->provisionLoopStarted, 1);
  // Accepted, as a running exchange's connection is: the watch thread would
  // otherwise restart an attempt that seems stalled.
  daxo::Store(client->provisionWatch.connected, 1);
  FakeMqtt::Last()->disconnectResult = MOSQ_ERR_NO_CONN;
  EXPECT_EQ(DAXO_DeleteClient(std::exchange(client, nullptr)), DAXO_Error_Success);
  EXPECT_EQ(main.loopStops, std::vector<int>{0});
  EXPECT_EQ(FakeMqtt::Last()->loopStops, std::vector<int>{1});
  EXPECT_TRUE(main.destroyed && FakeMqtt::Last()->destroyed);
}

TEST(ClientLifecycle, DeletedAtOnceManyTimesAndUnderEveryAllocationFailure) {
  TempDir dir;
  std::string conf = dir.Write("client.conf", ValidConfig(dir) + "ClientName kitchen\n");
  DAXO_Error err;
  // The watch thread waits for a day; a deletion that waited for it would hang.
  auto deletion = std::async(std::launch::async, DAXO_DeleteClient,
                             DAXO_NewClient(conf.c_str(), nullptr, &err));
  ASSERT_EQ(deletion.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(deletion.get(), DAXO_Error_Success);
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(DAXO_DeleteClient(DAXO_NewClient(conf.c_str(), nullptr, &err)), DAXO_Error_Success);
  std::set<DAXO_Error> seen;
  long allocations = alloc_failure::ForEachAllocationFailure(
      [&] { return DAXO_NewClient(conf.c_str(), nullptr, &err); },
      [&](DAXO_Client* client, long n, bool fired) {
        // stdio absorbs a failed buffer allocation by reading unbuffered.
        EXPECT_STREQ(client != nullptr ? client->clientName : "kitchen", "kitchen") << n;
        EXPECT_EQ(err == DAXO_Error_Success, client != nullptr) << n;
        if (client == nullptr) seen.insert(err);
        EXPECT_TRUE(fired || client != nullptr) << n;
        DAXO_DeleteClient(client);
      });
  EXPECT_GT(allocations, 5);
  // The stream's own allocation included: no read of the file has failed.
  EXPECT_EQ(seen, std::set<DAXO_Error>{DAXO_Error_NoMemory});
}

}  // namespace
