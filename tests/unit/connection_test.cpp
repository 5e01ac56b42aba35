#include <gtest/gtest.h>

#include <cerrno>

#include "client_fixture.h"

namespace {

using ConnectionTest = FakeClientTest;

TEST_F(ConnectionTest, ConnectRefusesClientsWithoutIdentity) {
  EXPECT_EQ(DAXO_Connect(nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_Connect(client), DAXO_Error_InvalidArguments) << "not provisioned";
  EXPECT_EQ(DAXO_CheckConnection(nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_CheckConnection(client), DAXO_Error_InvalidArguments);
  EXPECT_TRUE(FakeMqtt::Instances().empty());
}

TEST_F(ConnectionTest, ConnectReportsAFactoryFailureByItsErrno) {
  Provisioned();
  FakeMqtt::FailNextCreate(ENOMEM);
  EXPECT_EQ(DAXO_Connect(client), DAXO_Error_NoMemory);
  FakeMqtt::FailNextCreate(EINVAL);
  EXPECT_EQ(DAXO_Connect(client), DAXO_Error_InvalidArguments);
  EXPECT_EQ(client->mosq, nullptr);
}

TEST_F(ConnectionTest, ConnectSetsUpTheMainInstance) {
  Provisioned();
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  EXPECT_EQ(fake.id, kClientId);
  EXPECT_EQ(fake.cleanSession, 1);
  EXPECT_EQ(fake.obj, client);
  ASSERT_TRUE(fake.reconnectDelay);
  EXPECT_EQ(fake.reconnectDelay->delay, 1u);
  EXPECT_EQ(fake.reconnectDelay->delayMax, 1u);
  EXPECT_FALSE(fake.reconnectDelay->backoff);
  EXPECT_NE(fake.onLog, nullptr);
  EXPECT_NE(fake.onConnect, nullptr);
  EXPECT_NE(fake.onDisconnect, nullptr);
  EXPECT_NE(fake.onMessage, nullptr);
  EXPECT_NE(fake.onSubscribe, nullptr);
  EXPECT_EQ(fake.onPublish, nullptr) << "no deprovision callback";
  ASSERT_TRUE(fake.tls);
  EXPECT_EQ(fake.tls->caFile, client->caFile);
  EXPECT_EQ(fake.tls->caPath, "");
  EXPECT_EQ(fake.tls->certFile, std::string(client->certFolder) + "/cert.crt");
  EXPECT_EQ(fake.tls->keyFile, std::string(client->certFolder) + "/priv_key.key");
  EXPECT_FALSE(fake.tls->hasPasswordCallback);
  EXPECT_FALSE(fake.tlsInsecure);
  ASSERT_EQ(fake.connects.size(), 1u);
  EXPECT_EQ(fake.connects[0].host, "localhost");
  EXPECT_EQ(fake.connects[0].port, 8883);
  EXPECT_EQ(fake.connects[0].keepAlive, 0);
  EXPECT_TRUE(fake.loopRunning);
  EXPECT_EQ(client->polling, 1);
  EXPECT_EQ(logs, std::vector<std::string>{"Connecting: host - localhost, port - 8883, keep_alive - 0"});
}

TEST_F(ConnectionTest, ConnectMapsEachStepsFailure) {
  struct {
    const char* name;
    void (*configure)(FakeMqtt&);
    DAXO_Error err;
  } cases[] = {
      {"tls", [](FakeMqtt& f) { f.tlsSetResult = MOSQ_ERR_INVAL; }, DAXO_Error_TlsSetFailed},
      {"connect inval", [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_INVAL; },
       DAXO_Error_InvalidArguments},
      {"connect tls", [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_TLS; },
       DAXO_Error_TlsConnection},
      {"connect errno", [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_ERRNO; }, DAXO_Error_Errno},
      {"connect other", [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_NO_CONN; },
       DAXO_Error_Unknown},
      {"loop inval", [](FakeMqtt& f) { f.loopStartResult = MOSQ_ERR_INVAL; },
       DAXO_Error_InvalidArguments},
      {"loop unsupported", [](FakeMqtt& f) { f.loopStartResult = MOSQ_ERR_NOT_SUPPORTED; },
       DAXO_Error_NoThreadSupport},
      {"loop other", [](FakeMqtt& f) { f.loopStartResult = MOSQ_ERR_NOMEM; }, DAXO_Error_Unknown},
  };
  Provisioned();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeMqtt::OnCreate(c.configure);
    EXPECT_EQ(DAXO_Connect(client), c.err);
    EXPECT_EQ(client->polling, 0);
    EXPECT_NE(client->mosq, nullptr) << "kept until the next connect or the deletion";
  }
}

TEST_F(ConnectionTest, ReconnectingReleasesTheEarlierInstancesFirst) {
  Provisioned();
  client->mosqProvision = FakeMqtt::Create(nullptr, "myid", 1, client);
  daxo::Store(client->provisionLoopStarted, 1);
  FakeMqtt& provisioning = *FakeMqtt::Last();
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  FakeMqtt& first = *FakeMqtt::Last();
  EXPECT_TRUE(provisioning.destroyed);
  EXPECT_EQ(provisioning.disconnects, 1);
  EXPECT_EQ(client->mosqProvision, nullptr);
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  EXPECT_EQ(first.disconnects, 1);
  EXPECT_EQ(first.loopStops, std::vector<int>{1}) << "it never connected: stopped by force";
  EXPECT_TRUE(first.destroyed);
  EXPECT_FALSE(FakeMqtt::Last()->destroyed);
}

TEST_F(ConnectionTest, OnConnectWaitsForTheSubscription) {
  Provisioned();
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  ASSERT_TRUE(fake.FireConnect(0));
  ASSERT_EQ(fake.subscribes.size(), 1u);
  EXPECT_EQ(fake.subscribes[0].filter, "/v1.0/client-1/#");
  EXPECT_EQ(fake.subscribes[0].qos, 2);
  EXPECT_TRUE(calls.empty());
  fake.FireSubscribe(fake.subscribes[0].mid);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].name, "OnConnect");
  EXPECT_EQ(calls[0].code, DAXO_Error_Success);
}

TEST_F(ConnectionTest, BrokerRefusalsAndDisconnectionsReachTheApplication) {
  FakeMqtt& fake = Connected();
  struct {
    void (*fire)(FakeMqtt&);
    const char* callback;
    DAXO_Error err;
  } cases[] = {
      {[](FakeMqtt& f) { f.FireConnect(1); }, "OnConnect", DAXO_Error_WrongProtocol},
      {[](FakeMqtt& f) { f.FireConnect(2); }, "OnConnect", DAXO_Error_WrongIdentifier},
      {[](FakeMqtt& f) { f.FireConnect(3); }, "OnConnect", DAXO_Error_ServerUnavailable},
      {[](FakeMqtt& f) { f.FireConnect(4); }, "OnConnect", DAXO_Error_Unknown},
      {[](FakeMqtt& f) { f.FireConnect(5); }, "OnConnect", DAXO_Error_Unknown},
      {[](FakeMqtt& f) { f.FireDisconnect(0); }, "OnDisconnect", DAXO_Error_Success},
      {[](FakeMqtt& f) { f.FireDisconnect(MOSQ_ERR_CONN_LOST); }, "OnDisconnect",
       DAXO_Error_UnexpectedDisconnect},
  };
  for (const auto& c : cases) {
    calls.clear();
    c.fire(fake);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].name, c.callback);
    EXPECT_EQ(calls[0].code, c.err);
  }
  EXPECT_EQ(fake.subscribes.size(), 1u) << "a refusal subscribes nothing";
}

TEST_F(ConnectionTest, SendMapsThePublishResult) {
  FakeMqtt& fake = Connected();
  struct {
    int rc;
    DAXO_Error err;
  } cases[] = {
      {MOSQ_ERR_SUCCESS, DAXO_Error_Success},
      {MOSQ_ERR_NOMEM, DAXO_Error_NoMemory},
      {MOSQ_ERR_PROTOCOL, DAXO_Error_WrongProtocol},
      {MOSQ_ERR_INVAL, DAXO_Error_InvalidArguments},
      {MOSQ_ERR_NO_CONN, DAXO_Error_NoConnectionToServer},
      {MOSQ_ERR_CONN_REFUSED, DAXO_Error_Unknown},
      {MOSQ_ERR_NOT_FOUND, DAXO_Error_Unknown},
      {MOSQ_ERR_CONN_LOST, DAXO_Error_Unknown},
      {MOSQ_ERR_TLS, DAXO_Error_Unknown},
      {MOSQ_ERR_PAYLOAD_SIZE, DAXO_Error_PayloadSize},
      {MOSQ_ERR_NOT_SUPPORTED, DAXO_Error_Unknown},
      {-1, DAXO_Error_Unknown},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rc);
    fake.publishResult = c.rc;
    logs.clear();
    EXPECT_EQ(SendMessageToAgent(client, "/v1.0/client-1/ping", "{}", 2, nullptr), c.err);
    EXPECT_EQ(logs, std::vector<std::string>{"SendMessage: {}"}) << "logged whatever the result";
  }
}

TEST_F(ConnectionTest, SendRefusesMissingArgumentsAndMissingTransport) {
  EXPECT_EQ(SendMessageToAgent(client, "/t", "{}", 2, nullptr), DAXO_Error_NoConnectionToServer);
  FakeMqtt& fake = Connected();
  EXPECT_EQ(SendMessageToAgent(nullptr, "/t", "{}", 2, nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(SendMessageToAgent(client, nullptr, "{}", 2, nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(SendMessageToAgent(client, "/t", nullptr, 2, nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(SendMessageToAgent(client, "/v1.0/+/ping", "{}", 2, nullptr),
            DAXO_Error_InvalidArguments);
  EXPECT_TRUE(fake.publishes.empty());
  EXPECT_TRUE(logs == std::vector<std::string>{"SendMessage: {}"}) << "only the refused topic";
}

TEST_F(ConnectionTest, SendUsesTheProvisioningInstanceWithoutLogging) {
  client->mosqProvision = FakeMqtt::Create(nullptr, "myid", 1, client);
  FakeMqtt& provisioning = *FakeMqtt::Last();
  int mid = 0;
  EXPECT_EQ(SendMessageToAgent(client, "/createConnector", "pem", 3, &mid), DAXO_Error_Success);
  ASSERT_EQ(provisioning.publishes.size(), 1u);
  EXPECT_EQ(mid, provisioning.publishes[0].mid);
  EXPECT_TRUE(logs.empty());
}

TEST_F(ConnectionTest, CheckConnectionPublishesTheCheckRequest) {
  FakeMqtt& fake = Connected();
  ASSERT_EQ(DAXO_CheckConnection(client), DAXO_Error_Success);
  ASSERT_EQ(fake.publishes.size(), 1u);
  const FakePublish& p = fake.publishes[0];
  EXPECT_EQ(p.topic, "/v1.0/client-1/ping");
  EXPECT_EQ(p.payload, R"({"request":"CheckProvisioning"})");
  EXPECT_EQ(p.payload.size(), 31u);
  EXPECT_EQ(p.qos, 2);
  EXPECT_FALSE(p.retain);
}

TEST_F(ConnectionTest, ADeprovisionCallbackSetBeforeConnectingIsInstalled) {
  Provisioned();
  DAXO_DeprovisionClientCallbackSet(client, [](DAXO_Client*, void*) {});
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  EXPECT_NE(FakeMqtt::Last()->onPublish, nullptr);
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  EXPECT_NE(FakeMqtt::Last()->onPublish, nullptr) << "on every main instance";
}

}  // namespace
