// Sensors end to end: the library's requests, the development agent's
// answers and the dispatcher's callbacks, over the real broker.
#include <gtest/gtest.h>

#include "environment.h"
#include "library_client.h"

namespace daxo_test {
namespace {

class LibrarySensorsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { DAXO_LibInit(); }
  static void TearDownTestSuite() { DAXO_LibCleanup(); }

  void SetUp() override { ASSERT_TRUE(c.ProvisionAndConnect()); }

  // Creates a sensor and returns its id.
  std::string Created(const std::string& name) {
    EXPECT_EQ(DAXO_CreateSensor(c.Get(), name.c_str()), DAXO_Error_Success);
    auto reply = c.NextEvent("createSensor");
    EXPECT_TRUE(reply);
    if (!reply) return "";
    EXPECT_EQ(reply->code, DAXO_ApiError_NoError);
    EXPECT_EQ(reply->text.rfind(name + "|", 0), 0u) << reply->text;
    return reply->text.substr(name.size() + 1);
  }

  TestEnvironment env;
  LibraryClient c{env};
};

TEST_F(LibrarySensorsTest, CreatesRenamesListsAndDeletes) {
  std::string kitchen = Created("kitchen");
  std::string hall = Created("hall");
  ASSERT_NE(kitchen, hall);

  ASSERT_EQ(DAXO_UpdateSensor(c.Get(), kitchen.c_str(), "cellar"), DAXO_Error_Success);
  auto renamed = c.NextEvent("updateSensor");
  ASSERT_TRUE(renamed);
  EXPECT_EQ(renamed->code, DAXO_ApiError_NoError);
  EXPECT_EQ(renamed->text, kitchen);

  ASSERT_EQ(DAXO_ListSensors(c.Get()), DAXO_Error_Success);
  auto list = c.NextEvent("listSensors");
  ASSERT_TRUE(list);
  EXPECT_EQ(list->code, DAXO_ApiError_NoError);
  EXPECT_EQ(list->text, "cellar|" + kitchen + ";hall|" + hall);

  ASSERT_EQ(DAXO_DeleteSensor(c.Get(), kitchen.c_str()), DAXO_Error_Success);
  auto deleted = c.NextEvent("deleteSensor");
  ASSERT_TRUE(deleted);
  EXPECT_EQ(deleted->code, DAXO_ApiError_NoError);
  ASSERT_EQ(DAXO_ListSensors(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.NextEvent("listSensors")->text, "hall|" + hall);
}

TEST_F(LibrarySensorsTest, TheAgentsErrorsReachTheCallbacks) {
  std::string sensor = Created("kitchen");
  ASSERT_EQ(DAXO_UpdateSensor(c.Get(), "no-such-sensor", "x"), DAXO_Error_Success);
  auto renamed = c.NextEvent("updateSensor");
  ASSERT_TRUE(renamed);
  EXPECT_EQ(renamed->code, DAXO_ApiError_UnknownSensorId);
  EXPECT_EQ(renamed->text, "no-such-sensor");

  ASSERT_EQ(DAXO_DescribeMetric(c.Get(), sensor.c_str(), "no-such-metric"), DAXO_Error_Success);
  auto described = c.NextEvent("describeMetric");
  ASSERT_TRUE(described);
  EXPECT_EQ(described->code, DAXO_ApiError_UnknownMetricId);
  EXPECT_EQ(described->text, sensor) << "the sensor id of the topic, no record";
}

TEST_F(LibrarySensorsTest, SensorJobsFromTheAgentReachTheApplication) {
  std::string answer = env.AgentControl(
      "job-create " + c.Id() +
      R"( {"name":"disk","monitoringService":"system","metrics":[]})");
  auto job = c.NextEvent("createSensorJob");
  ASSERT_TRUE(job) << answer;
  ASSERT_EQ(job->text.rfind("disk|", 0), 0u) << job->text;
  std::string sensorId = job->text.substr(5);

  env.AgentControl("job-delete " + c.Id() + " " + sensorId);
  auto removal = c.NextEvent("deleteSensorJob");
  ASSERT_TRUE(removal);
  EXPECT_EQ(removal->text, sensorId);
}

}  // namespace
}  // namespace daxo_test
