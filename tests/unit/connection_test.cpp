#include <gtest/gtest.h>

#include <cerrno>

#include "client_fixture.h"

namespace {

TEST_F(FakeClientTest, ConnectSetsUpTheMainInstanceAndReportsOnlyOnceSubscribed) {
  EXPECT_EQ(DAXO_Connect(client), DAXO_Error_InvalidArguments) << "not provisioned";
  Provisioned();
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  std::string certs = client->certFolder;
  EXPECT_EQ(fake.id + " " + fake.connects.at(0), "client-1 localhost:8883:60");
  EXPECT_EQ(fake.reconnectDelay, (std::vector<unsigned>{1, 1, 0}));
  EXPECT_EQ(fake.tls, client->caFile + (" " + certs + "/cert.crt " + certs + "/priv_key.key"));
  // Refusals and disconnections reach the application; acceptance subscribes first.
  for (int rc : {1, 2, 3, 5, 0}) fake.FireConnect(rc);
  for (int rc : {0, 7}) fake.FireDisconnect(rc);  // 7: connection lost
  EXPECT_EQ(fake.subscribes.at(0).filter, "/v1.0/client-1/#");
  fake.FireSubscribe(fake.subscribes[0].mid);
  std::string got;
  for (const Call& c : calls) got += c.name + " " + DAXO_ErrorName(DAXO_Error(c.code)) + "\n";
  EXPECT_EQ(got,
            "OnConnect DAXO_Error_WrongProtocol\nOnConnect DAXO_Error_WrongIdentifier\n"
            "OnConnect DAXO_Error_ServerUnavailable\nOnConnect DAXO_Error_Unknown\n"
            "OnDisconnect DAXO_Error_Success\nOnDisconnect DAXO_Error_UnexpectedDisconnect\n"
            "OnConnect DAXO_Error_Success\n");
  ASSERT_EQ(DAXO_CheckConnection(client), DAXO_Error_Success);
  EXPECT_EQ(fake.publishes.at(0).topic, "/v1.0/client-1/ping");
  EXPECT_EQ(fake.publishes[0].payload, R"({"request":"CheckProvisioning"})") << "without its NUL";
}

// Without its subscription the client would hear nothing from the agent.
TEST_F(FakeClientTest, ARefusedSubscriptionIsAFailedConnection) {
  const struct {
    const char* refusal;
    int subscribeResult, grantedQos;
  } cases[] = {
      {"subscribe call fails", MOSQ_ERR_NOMEM, 2},
      {"no connection to subscribe on", MOSQ_ERR_NO_CONN, 2},
      {"broker refuses", MOSQ_ERR_SUCCESS, 0x80},
  };
  Provisioned();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.refusal);
    calls.clear();
    ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
    FakeMqtt& fake = *FakeMqtt::Last();
    fake.subscribeResult = c.subscribeResult;
    fake.FireConnect(0);
    if (!fake.subscribes.empty()) fake.FireSubscribe(fake.subscribes[0].mid, {c.grantedQos});
    std::string got;
    for (const Call& call : calls)
      got += call.name + " " + DAXO_ErrorName(DAXO_Error(call.code)) + ";";
    EXPECT_EQ(got, "OnConnect DAXO_Error_ConnectionFailed;");
  }
}

TEST_F(FakeClientTest, ConnectMapsEachStepsFailureAndReleasesEarlierInstances) {
  const struct {
    void (*configure)(FakeMqtt&);
    DAXO_Error err;
    int createErrno = 0;
  } cases[] = {
      {nullptr, DAXO_Error_NoMemory, ENOMEM},
      {nullptr, DAXO_Error_InvalidArguments, EINVAL},
      {[](FakeMqtt& f) { f.tlsSetResult = MOSQ_ERR_INVAL; }, DAXO_Error_TlsSetFailed},
      {[](FakeMqtt& f) { f.connectResult = MOSQ_ERR_INVAL; }, DAXO_Error_InvalidArguments},
      {[](FakeMqtt& f) { f.connectResult = MOSQ_ERR_TLS; }, DAXO_Error_TlsConnection},
      {[](FakeMqtt& f) { f.connectResult = MOSQ_ERR_ERRNO; }, DAXO_Error_Errno},
      {[](FakeMqtt& f) { f.connectResult = MOSQ_ERR_NO_CONN; }, DAXO_Error_Unknown},
      {[](FakeMqtt& f) { f.loopStartResult = MOSQ_ERR_NOT_SUPPORTED; }, DAXO_Error_NoThreadSupport},
      {nullptr, DAXO_Error_Success},
  };
  Provisioned();
  client->mosqProvision = FakeMqtt::Create(nullptr, "myid", 1, client);
  daxo::Store(client->provisionLoopStarted, 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    FakeMqtt::FailNextCreate(c.createErrno);
    FakeMqtt::OnCreate(c.configure);
    EXPECT_EQ(DAXO_Connect(client), c.err);
  }
  FakeMqtt& unconnected = *FakeMqtt::Last();
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  for (FakeMqtt* f : FakeMqtt::Instances()) EXPECT_EQ(f->destroyed, f != FakeMqtt::Last());
  EXPECT_EQ(unconnected.loopStops, std::vector<int>{1}) << "it never connected: stopped by force";
}

TEST_F(FakeClientTest, SendMapsThePublishResult) {
  EXPECT_EQ(SendMessageToAgent(client, "/t", "{}", 2, nullptr), DAXO_Error_NoConnectionToServer);
  FakeMqtt& fake = Connected();
  const std::pair<int, DAXO_Error> cases[] = {
      {MOSQ_ERR_SUCCESS, DAXO_Error_Success},
      {MOSQ_ERR_NOMEM, DAXO_Error_NoMemory},
      {MOSQ_ERR_PROTOCOL, DAXO_Error_WrongProtocol},
      {MOSQ_ERR_INVAL, DAXO_Error_InvalidArguments},
      {MOSQ_ERR_NO_CONN, DAXO_Error_NoConnectionToServer},
      {MOSQ_ERR_PAYLOAD_SIZE, DAXO_Error_PayloadSize},
      {MOSQ_ERR_TLS, DAXO_Error_Unknown},
  };
  for (auto [rc, err] : cases) {
    fake.publishResult = rc;
    logs.clear();
    EXPECT_EQ(SendMessageToAgent(client, "/v1.0/client-1/ping", "{}", 2, nullptr), err) << rc;
    EXPECT_EQ(logs, std::vector<std::string>{"SendMessage: {}"}) << "logged whatever the result";
  }
}

}  // namespace
