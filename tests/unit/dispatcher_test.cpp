#include <gtest/gtest.h>

#include "client_fixture.h"

namespace {

using DispatcherTest = FakeClientTest;

struct Route {
  const char* topic;
  const char* payload;
  std::vector<int> checks;  // codes OnCheckConnection receives
  std::vector<std::string> extraLogs;
};

TEST_F(DispatcherTest, RoutesConnectionCheckReplies) {
  const std::string parseError = "Failed to parse API error: topic - /v1.0/client-1/ping/error/inbox";
  const Route routes[] = {
      {"/v1.0/client-1/ping/info/inbox", "{}", {DAXO_ApiError_NoError}, {}},
      {"/v1.0/client-1/ping/info/inbox", "anything", {DAXO_ApiError_NoError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":15})", {DAXO_ApiError_UnknownSensorId}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":99})", {DAXO_ApiError_UnknownError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":0})", {DAXO_ApiError_UnknownError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":null})", {DAXO_ApiError_UnknownError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorMessage":"x"})", {},
       {parseError + R"(, errMessage - {"errorMessage":"x"})"}},
      {"/v1.0/client-1/ping/error/inbox", "not json", {}, {parseError + ", errMessage - not json"}},
      {"/v1.0/client-1/ping/info/inbox/more", "{}", {}, {}},
      {"/v1.0/client-1/ping/info", "{}", {}, {}},
      {"/v1.0/client-1/ping/other/inbox", "{}", {}, {}},
      {"/v1.0/client-1/ping", R"({"request":"CheckProvisioning"})", {}, {}},
      {"/v1.0/client-2/ping/info/inbox", "{}", {}, {}},
      {"/v2.0/client-1/ping/info/inbox", "{}", {}, {}},
      {"/v1.0/client-1", "{}", {}, {}},
      {"/v1.0/client-1//info/inbox", "{}", {}, {}},
      {"v1.0/client-1/ping/info/inbox", "{}", {}, {}},
      {"/v1.0/Client-1/ping/info/inbox", "{}", {}, {}},
  };
  FakeMqtt& fake = Connected();
  for (const Route& r : routes) {
    SCOPED_TRACE(std::string(r.topic) + " " + r.payload);
    calls.clear();
    logs.clear();
    ASSERT_TRUE(fake.Deliver(r.topic, r.payload));
    std::vector<int> checks;
    for (const Call& c : calls) {
      EXPECT_EQ(c.name, "OnCheckConnection");
      checks.push_back(c.code);
    }
    EXPECT_EQ(checks, r.checks);
    std::vector<std::string> want = {std::string("DispatchResponse: ") + r.topic + "\n" + r.payload};
    want.insert(want.end(), r.extraLogs.begin(), r.extraLogs.end());
    EXPECT_EQ(logs, want);
  }
}

TEST_F(DispatcherTest, DropsEmptyPayloadsWithoutALine) {
  FakeMqtt& fake = Connected();
  fake.Deliver("/v1.0/client-1/ping/info/inbox", "");
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(logs.empty());
}

TEST_F(DispatcherTest, WorksWithoutOnLogAndWithoutCallbacks) {
  FakeMqtt& fake = Connected();
  DAXO_LogCallbackSet(client, nullptr);
  fake.Deliver("/v1.0/client-1/ping/info/inbox", "{}");
  ASSERT_EQ(calls.size(), 1u);
  DAXO_CheckConnectionCallbackSet(client, nullptr);
  DAXO_LogCallbackSet(client, CaptureLog);
  logs.clear();
  fake.Deliver("/v1.0/client-1/ping/error/inbox", "not json");
  EXPECT_EQ(logs.size(), 1u) << "an error reply nobody waits for is not parsed";
}

TEST_F(DispatcherTest, IgnoresEverythingWithoutAnIdentifier) {
  EXPECT_EQ(DispatchResponse(client, "/v1.0/client-1/ping/info/inbox", "{}"),
            DAXO_Error_InvalidArguments);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(DispatchResponse(nullptr, "/t", "{}"), DAXO_Error_InvalidArguments);
  MessageCallback(nullptr, client, nullptr);
  MessageCallback(nullptr, nullptr, nullptr);
}

}  // namespace
