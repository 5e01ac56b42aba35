#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>
#include <functional>

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
  for (int rc : {int{MOSQ_ERR_KEEPALIVE}, 0}) fake.FireDisconnect(rc);  // lost, then asked for
  EXPECT_EQ(fake.subscribes.at(0).filter, "/v1.0/client-1/#");
  fake.FireSubscribe(fake.subscribes[0].mid);
  std::string got;
  for (const Call& c : calls) got += c.name + " " + DAXO_ErrorName(DAXO_Error(c.code)) + "\n";
  EXPECT_EQ(got,
            "OnConnect DAXO_Error_WrongProtocol\nOnConnect DAXO_Error_WrongIdentifier\n"
            "OnConnect DAXO_Error_ServerUnavailable\nOnConnect DAXO_Error_Unknown\n"
            "OnDisconnect DAXO_Error_UnexpectedDisconnect\nOnDisconnect DAXO_Error_Success\n"
            "OnConnect DAXO_Error_Success\n");
  EXPECT_EQ(logs.at(1),
            "Connection to localhost:8883 failed: refused by the broker with CONNACK 1: "
            "Connection Refused: unacceptable protocol version. (DAXO_Error_WrongProtocol)");
  EXPECT_EQ(logs.at(5), "Connection to localhost:8883 lost: no answer within the keep-alive");
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

// Each way a connection fails reaches one callback with its own code, and
// one line names the host, port and reason, once an outage.
TEST_F(FakeClientTest, EachConnectionFailureIsNamedWithItsCode) {
  const std::string verifyFailed =
      "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed";
  const struct {
    const char* failure;
    std::function<void(FakeMqtt&)> before;  // set on the instance before it connects
    std::function<void(FakeMqtt&)> happen;  // the attempt fails: the watch thread reports
    std::string call, line;
  } cases[] = {
      {"the broker refuses", nullptr,
       [](FakeMqtt& f) {
         f.FireConnect(5);
         f.FireDisconnect(MOSQ_ERR_CONN_REFUSED);
       },
       "OnConnect DAXO_Error_Unknown",
       "refused by the broker with CONNACK 5: Connection Refused: not authorised. "
       "(DAXO_Error_Unknown)"},
      {"the client refuses the broker's certificate", nullptr,
       [&](FakeMqtt& f) { f.FireLog(verifyFailed.c_str()); },
       "OnDisconnect DAXO_Error_BrokerCertificateRefused",
       "the client refused the broker's certificate: certificate verify failed "
       "(DAXO_Error_BrokerCertificateRefused)"},
      {"the broker ends the session after the handshake", nullptr,
       [](FakeMqtt& f) {
         errno = EPROTO;
         f.FireDisconnect(MOSQ_ERR_CONN_LOST);
       },
       "OnDisconnect DAXO_Error_ClientCertificateRefused",
       "the broker ended the TLS session after the handshake: it refused the client's "
       "certificate (DAXO_Error_ClientCertificateRefused)"},
      {"the broker's alert is read", nullptr,
       [](FakeMqtt& f) {
         f.FireLog(
             "OpenSSL Error[0]: error:0A000415:SSL routines::sslv3 alert certificate expired");
         errno = EPROTO;
         f.FireDisconnect(MOSQ_ERR_ERRNO);
       },
       "OnDisconnect DAXO_Error_ClientCertificateRefused",
       "the broker refused the client's certificate: sslv3 alert certificate expired "
       "(DAXO_Error_ClientCertificateRefused)"},
      {"another TLS failure", nullptr,
       [](FakeMqtt& f) {
         f.FireLog("OpenSSL Error[0]: error:0A00010B:SSL routines::wrong version number");
       },
       "OnDisconnect DAXO_Error_TlsConnection",
       "TLS failure: wrong version number (DAXO_Error_TlsConnection)"},
      {"no answer", nullptr, [](FakeMqtt&) {}, "OnDisconnect DAXO_Error_ConnectionTimeout",
       "no answer within 2 s (DAXO_Error_ConnectionTimeout)"},
      // Failures found while DAXO_Connect connects are its result.
      {"the name cannot be resolved",
       [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_EAI, f.connectErrno = EAI_NONAME; }, nullptr,
       "DAXO_Connect DAXO_Error_HostNotFound",
       "the host name cannot be resolved: Name or service not known (DAXO_Error_HostNotFound)"},
      {"refused at once",
       [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_ERRNO, f.connectErrno = ECONNREFUSED; },
       nullptr, "DAXO_Connect DAXO_Error_ConnectionRefused",
       "no connection: Connection refused (DAXO_Error_ConnectionRefused)"},
      {"the broker ends the session at once",
       [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_ERRNO, f.connectErrno = EPROTO; }, nullptr,
       "DAXO_Connect DAXO_Error_ClientCertificateRefused",
       "it refused the client's certificate (DAXO_Error_ClientCertificateRefused)"},
      {"the handshake fails at once",
       [&](FakeMqtt& f) { f.connectLine = verifyFailed, f.connectResult = MOSQ_ERR_TLS; }, nullptr,
       "DAXO_Connect DAXO_Error_BrokerCertificateRefused",
       "certificate verify failed (DAXO_Error_BrokerCertificateRefused)"},
  };
  Provisioned();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failure);
    FakeMqtt::OnCreate(c.before);
    {
      std::lock_guard lock(logsMutex);
      calls.clear(), logs.clear();
    }
    DAXO_Error connected = DAXO_Connect(client);
    if (c.happen) {
      ASSERT_EQ(connected, DAXO_Error_Success);
      for (int twice = 0; twice < 2; ++twice) c.happen(*FakeMqtt::Last());
      // Down for 2 s by the frozen clock.
      timespec now{};
      clock_gettime(CLOCK_BOOTTIME, &now);
      __atomic_store_n(&client->mainWatch.downSinceMs, now.tv_sec * 1000LL - 2000,
                       __ATOMIC_RELEASE);
      Settle();
    } else {
      calls.push_back({"DAXO_Connect", connected, ""});
    }
    std::string got;
    for (const Call& call : calls)
      got += call.name + " " + DAXO_ErrorName(DAXO_Error(call.code)) + ";";
    EXPECT_EQ(got, c.call + (c.call.starts_with("OnConnect") ? ";" + c.call + ";" : ";"));
    std::lock_guard lock(logsMutex);
    std::vector<std::string> named;
    for (const std::string& line : logs)
      if (line.starts_with("Connection to localhost:8883 failed: ")) named.push_back(line);
    ASSERT_EQ(named.size(), 1u) << "once an outage: " << testing::PrintToString(logs);
    EXPECT_TRUE(named[0].ends_with(c.line)) << named[0];
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
