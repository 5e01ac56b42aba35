// A client over the fake transport, with every callback recorded.
#ifndef DAXO_TEST_CLIENT_FIXTURE_H
#define DAXO_TEST_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

class FakeClientTest : public ::testing::Test {
 public:
  static constexpr const char* kClientId = "client-1";

  // One recorded callback: its name and the arguments that matter.
  struct Call {
    std::string name;
    int code;
    std::string text;
  };

  void SetUp() override {
    FakeMqtt::Reset();
    calls.clear();
    logs.clear();
    conf = dir.Write("client.conf", ValidConfig(dir));
    DAXO_Error err;
    client = NewClientInternal(conf.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    ASSERT_NE(client, nullptr);
    DAXO_LogCallbackSet(client, CaptureLog);
    DAXO_ConnectCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"OnConnect", err, ""});
    });
    DAXO_DisconnectCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"OnDisconnect", err, ""});
    });
    DAXO_CheckConnectionCallbackSet(client, [](DAXO_Client*, void* self, DAXO_ApiError err) {
      Self(self).calls.push_back({"OnCheckConnection", err, ""});
    });
  }

  void TearDown() override {
    DAXO_DeleteClient(client);
    FakeMqtt::Reset();
  }

  static FakeClientTest& Self(void* p) { return *static_cast<FakeClientTest*>(p); }
  static void CaptureLog(DAXO_Client*, const char* line, void* self) {
    Self(self).logs.push_back(line);
  }

  // Gives the client its identifier as provisioning would.
  void Provisioned(const char* id = kClientId) {
    free(client->clientId);
    client->clientId = strdup(id);
  }

  // Provisioned, connected, subscribed; returns the main instance.
  FakeMqtt& Connected() {
    Provisioned();
    EXPECT_EQ(DAXO_Connect(client), DAXO_Error_Success);
    FakeMqtt& fake = *FakeMqtt::Last();
    fake.FireConnect(0);
    fake.FireSubscribe(fake.subscribes.back().mid);
    calls.clear();
    logs.clear();
    return fake;
  }

  TempDir dir;
  std::string conf;
  DAXO_Client* client = nullptr;
  std::vector<Call> calls;
  std::vector<std::string> logs;
};

#endif
