#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

namespace {

TEST(GetApiErrorCode, KeepsTheAgentsNumbersAndFoldsTheRest) {
  struct {
    int in;
    DAXO_ApiError out;
  } cases[] = {
      {-1, DAXO_ApiError_UnknownError}, {0, DAXO_ApiError_UnknownError},
      {1, DAXO_ApiError_NoBackendConnection}, {15, DAXO_ApiError_UnknownSensorId},
      {18, DAXO_ApiError_ForbiddendAccess}, {27, DAXO_ApiError_PushValuesFailed},
      {28, DAXO_ApiError_UnknownError}, {INT32_MIN, DAXO_ApiError_UnknownError},
  };
  for (const auto& c : cases) EXPECT_EQ(GetApiErrorCode(c.in), c.out) << c.in;
}

TEST(ConvertApiError, MapsProvisioningRefusals) {
  struct {
    int in;
    DAXO_Error out;
  } cases[] = {
      {1, DAXO_Error_NoBackendConnection}, {20, DAXO_Error_CertificateRequest},
      {21, DAXO_Error_CertificateRequest}, {22, DAXO_Error_CertificateRequest},
      {25, DAXO_Error_CertificateRequest}, {23, DAXO_Error_Unknown},
      {24, DAXO_Error_Unknown}, {0, DAXO_Error_Unknown}, {-1, DAXO_Error_Unknown},
  };
  for (const auto& c : cases) EXPECT_EQ(ConvertApiError(c.in), c.out) << c.in;
}

TEST(ConvertConnackCode, MapsBrokerRefusals) {
  struct {
    int in;
    DAXO_Error out;
  } cases[] = {
      {1, DAXO_Error_WrongProtocol}, {2, DAXO_Error_WrongIdentifier},
      {3, DAXO_Error_ServerUnavailable}, {4, DAXO_Error_Unknown},
      {5, DAXO_Error_Unknown}, {135, DAXO_Error_Unknown},
  };
  for (const auto& c : cases) EXPECT_EQ(ConvertConnackCode(c.in), c.out) << c.in;
}

TEST(ParseErrorMessage, ReadsCodeAndText) {
  struct {
    const char* payload;
    int ok;
    int code;  // checked when asked for the code alone
  } cases[] = {
      {R"({"errorcode":15})", 1, 15},
      {R"({"errorcode":15,"errorMessage":"unknown sensor"})", 1, 15},
      {R"({"errorcode":null})", 1, 0},
      {R"({"errorcode":"16"})", 1, 16},
      {R"({"errorMessage":"no code"})", 0, 0},
      {"{}", 0, 0},
      {"[15]", 0, 0},
      {"not json", 0, -7},
      {"", 0, -7},
      {nullptr, 0, -7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.payload != nullptr ? c.payload : "null");
    int code = -7;
    EXPECT_EQ(ParseErrorMessage(c.payload, &code, nullptr), c.ok);
    EXPECT_EQ(code, c.code);
  }
}

TEST(ParseErrorMessage, CopiesTheTextOnlyWhenAskedFor) {
  int code = 0;
  char* text = nullptr;
  ASSERT_EQ(ParseErrorMessage(R"({"errorcode":4,"errorMessage":"bad json"})", &code, &text), 1);
  EXPECT_EQ(code, 4);
  EXPECT_STREQ(text, "bad json");
  free(text);

  text = reinterpret_cast<char*>(1);
  EXPECT_EQ(ParseErrorMessage(R"({"errorcode":4})", &code, &text), 0);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(ParseErrorMessage(R"({"errorcode":4,"errorMessage":null})", nullptr, &text), 0);
  EXPECT_EQ(ParseErrorMessage(R"({"errorMessage":"only text"})", nullptr, &text), 1);
  EXPECT_STREQ(text, "only text");
  free(text);
  EXPECT_EQ(ParseErrorMessage("{}", nullptr, nullptr), 1);
}

class LogTest : public ::testing::Test {
 protected:
  struct Line {
    DAXO_Client* client;
    std::string text;
    void* param;
  };
  static inline std::vector<Line> lines;

  static void Capture(DAXO_Client* client, const char* line, void* param) {
    lines.push_back({client, line, param});
  }

  void SetUp() override {
    lines.clear();
    std::string conf = dir_.Write("client.conf", ValidConfig(dir_));
    DAXO_Error err;
    client_ = NewClientInternal(conf.c_str(), &marker_, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override { DAXO_DeleteClient(client_); }

  TempDir dir_;
  int marker_ = 0;
  DAXO_Client* client_ = nullptr;
};

TEST_F(LogTest, NothingIsLoggedWithoutOnLog) {
  LogMessage(client_, "x");
  LogCallback(nullptr, client_, MOSQ_LOG_ERR, "x");
  LogParseErrorMessage(client_, "/t", "p");
  LogMessage(nullptr, "x");
  EXPECT_TRUE(lines.empty());
}

TEST_F(LogTest, LinesReachOnLogWithTheCallbackParameter) {
  DAXO_LogCallbackSet(client_, Capture);
  LogMessage(client_, "plain line");
  LogCallback(nullptr, client_, MOSQ_LOG_DEBUG, "debug from the transport");
  LogCallback(nullptr, client_, MOSQ_LOG_ERR, "error from the transport");
  LogCallback(nullptr, client_, MOSQ_LOG_ERR, nullptr);
  LogCallback(nullptr, nullptr, MOSQ_LOG_ERR, "no client");
  LogParseErrorMessage(client_, "/v1.0/c/ping/error/inbox", nullptr);
  LogParseErrorMessage(client_, "/v1.0/c/ping/error/inbox", "{oops");
  std::vector<std::string> want = {
      "plain line",
      "debug from the transport",
      "error from the transport",
      "Failed to parse API error: topic - /v1.0/c/ping/error/inbox, errMessage - N/A",
      "Failed to parse API error: topic - /v1.0/c/ping/error/inbox, errMessage - {oops",
  };
  ASSERT_EQ(lines.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(lines[i].text, want[i]);
    EXPECT_EQ(lines[i].client, client_);
    EXPECT_EQ(lines[i].param, &marker_);
  }
}

}  // namespace

namespace {

TEST(ErrorNames, NameEveryCodeAndOnlyThose) {
  EXPECT_STREQ(DAXO_ErrorName(DAXO_Error_NoMemory), "DAXO_Error_NoMemory");
  EXPECT_STREQ(DAXO_ErrorName(DAXO_Error_CertifcateFolderPath), "DAXO_Error_CertifcateFolderPath");
  EXPECT_STREQ(DAXO_ErrorName(DAXO_Error_Unknown), "DAXO_Error_Unknown");
  EXPECT_STREQ(DAXO_ErrorName(static_cast<DAXO_Error>(40)), "DAXO_Error_(unknown)");
  EXPECT_STREQ(DAXO_ApiErrorName(DAXO_ApiError_NoError), "DAXO_ApiError_NoError");
  EXPECT_STREQ(DAXO_ApiErrorName(DAXO_ApiError_ForbiddendAccess), "DAXO_ApiError_ForbiddendAccess");
  EXPECT_STREQ(DAXO_ApiErrorName(static_cast<DAXO_ApiError>(2)), "DAXO_ApiError_(unknown)");
  for (int code = -1; code <= 39; ++code) {
    std::string name = DAXO_ErrorName(static_cast<DAXO_Error>(code));
    EXPECT_EQ(name.find("(unknown)"), std::string::npos) << code;
  }
}

}  // namespace
