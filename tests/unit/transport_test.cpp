#include <gtest/gtest.h>

#include <cstdlib>

#include "mosquitto_interface.h"

namespace {

class TransportTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { MosquittoLibInit(); }
  static void TearDownTestSuite() { MosquittoLibCleanup(); }
};

void ExpectAllEntriesFilled(const MosquittoInterface& mi) {
  void* const entries[] = {
      reinterpret_cast<void*>(mi.mosquittoLoopStartFunction),
      reinterpret_cast<void*>(mi.mosquittoLoopStopFunction),
      reinterpret_cast<void*>(mi.mosquittoTlsSetFunction),
      reinterpret_cast<void*>(mi.mosquittoTlsInsecureSetFunction),
      reinterpret_cast<void*>(mi.mosquittoConnectAsyncFunction),
      reinterpret_cast<void*>(mi.mosquittoDisconnectFunction),
      reinterpret_cast<void*>(mi.mosquittoSubscribeFunction),
      reinterpret_cast<void*>(mi.mosquittoPublishFunction),
      reinterpret_cast<void*>(mi.mosquittoReconnectDelaySetFunction),
      reinterpret_cast<void*>(mi.mosquittoLogCallbackSetFunction),
      reinterpret_cast<void*>(mi.mosquittoConnectCallbackSetFunction),
      reinterpret_cast<void*>(mi.mosquittoDisconnectConnectCallbackSetFunction),
      reinterpret_cast<void*>(mi.mosquittMessageCallbackSetFunction),
      reinterpret_cast<void*>(mi.mosquittoSubscribeCallbackSetFunction),
      reinterpret_cast<void*>(mi.mosquittoPublishCallbackSetFunction),
  };
  for (size_t i = 0; i < std::size(entries); ++i) EXPECT_NE(entries[i], nullptr) << i;
}

TEST_F(TransportTest, FactoryMakesARecordOverAFreshHandle) {
  MosquittoInterface* mi = CreateMosquittoClient(nullptr, "factory-test", 1, nullptr);
  ASSERT_NE(mi, nullptr);
  ASSERT_NE(mi->mosq, nullptr);
  ExpectAllEntriesFilled(*mi);
  // The entries reach this handle: libmosquitto validates what they pass.
  EXPECT_EQ(mi->mosquittoReconnectDelaySetFunction(mi, 1, 1, 0), MOSQ_ERR_SUCCESS);
  EXPECT_EQ(mi->mosquittoTlsSetFunction(mi, "/nonexistent/ca.crt", nullptr, nullptr, nullptr,
                                        nullptr),
            MOSQ_ERR_INVAL);
  EXPECT_EQ(mi->mosquittoPublishFunction(mi, nullptr, "a/+", 0, nullptr, 2, 5), MOSQ_ERR_INVAL);
  EXPECT_EQ(mi->mosquittoSubscribeFunction(mi, nullptr, "a/#", 2), MOSQ_ERR_NO_CONN);
  EXPECT_EQ(mi->mosquittoDisconnectFunction(mi), MOSQ_ERR_NO_CONN);
  DestroyMosquittoClient(mi);
}

TEST_F(TransportTest, FactoryRefillsACallersRecordAndKeepsItsHandle) {
  auto* mi = static_cast<MosquittoInterface*>(calloc(1, sizeof(MosquittoInterface)));
  int sentinel = 0;
  mi->mosq = &sentinel;
  EXPECT_EQ(CreateMosquittoClient(mi, "ignored", 1, nullptr), mi);
  EXPECT_EQ(mi->mosq, &sentinel);
  ExpectAllEntriesFilled(*mi);
  mi->mosq = nullptr;  // not a libmosquitto handle: release the record alone
  DestroyMosquittoClient(mi);
  DestroyMosquittoClient(nullptr);
}

TEST_F(TransportTest, FactoryReportsTheReasonOfARefusedHandle) {
  // libmosquitto refuses an empty identifier with a clean session off.
  errno = 0;
  EXPECT_EQ(CreateMosquittoClient(nullptr, nullptr, 0, nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace

#include "fake_mqtt.h"

namespace {

TEST_F(TransportTest, FakeRefusesTheTopicsLibmosquittoRefuses) {
  MosquittoInterface* real = CreateMosquittoClient(nullptr, "conformance", 1, nullptr);
  MosquittoInterface* fake = FakeMqtt::Create(nullptr, "conformance", 1, nullptr);
  ASSERT_NE(real, nullptr);
  ASSERT_NE(fake, nullptr);
  const char* topics[] = {"/v1.0/c/sensor/create", "a/b", "", "a/+", "#", "a/#/b", "a/b+",
                          "/v1.0/c/sensor/s#/update", "a//b"};
  for (const char* topic : topics) {
    SCOPED_TRACE(topic);
    int realRc = real->mosquittoPublishFunction(real, nullptr, topic, 2, "{}", 2, 0);
    int fakeRc = fake->mosquittoPublishFunction(fake, nullptr, topic, 2, "{}", 2, 0);
    EXPECT_EQ(realRc == MOSQ_ERR_INVAL, fakeRc == MOSQ_ERR_INVAL);
    for (const char* filter : {topic, "/v1.0/c/#", "a/#/b", "a/b+"}) {
      bool realOk = mosquitto_sub_topic_check(filter) == MOSQ_ERR_SUCCESS;
      int fakeRc2 = fake->mosquittoSubscribeFunction(fake, nullptr, filter, 2);
      EXPECT_EQ(realOk, fakeRc2 != MOSQ_ERR_INVAL) << filter;
    }
  }
  DestroyMosquittoClient(real);
  FakeMqtt::Destroy(fake);
  FakeMqtt::Reset();
}

}  // namespace
