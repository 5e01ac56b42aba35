// Pushes that carry their own sequence number, so that the agent's push log
// tells which of them arrived, and how often.
#ifndef DAXO_TEST_SEQUENCE_PUSHES_H
#define DAXO_TEST_SEQUENCE_PUSHES_H

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "daxo_client.h"
#include "environment.h"
#include "library_client.h"

namespace daxo_test {

struct SequenceMetric {
  std::string sensorId, metricId;
};

// Asks for the one integer metric "seq" on the sensor.
inline DAXO_Error DefineSequenceMetric(DAXO_Client* c, const std::string& sensorId) {
  DAXO_MetricSchemaContainer* schemas = DAXO_CreateMetricSchemaContainer();
  DAXO_AddCustomMetricSchema(schemas, "seq", "seq", DAXO_ValueType_Integer, "push number");
  DAXO_Error err = DAXO_CreateMetrics(c, sensorId.c_str(), schemas);
  DAXO_DestroyMetricSchemaContainer(schemas);
  return err;
}

// A sensor with one integer metric for the sequence numbers; empty ids when
// the agent did not answer.
inline SequenceMetric CreateSequenceMetric(LibraryClient& c) {
  SequenceMetric m;
  if (DAXO_CreateSensor(c, "counter") != DAXO_Error_Success) return m;
  m.sensorId = c.Next("createSensor").text;
  if (DefineSequenceMetric(c, m.sensorId) == DAXO_Error_Success)
    m.metricId = c.Next("createMetrics").text;
  return m;
}

inline DAXO_Error PushSequence(DAXO_Client* c, const SequenceMetric& m, int64_t seq) {
  DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
  DAXO_AddIntegerMetricValue(values, seq, m.metricId.c_str());
  DAXO_AddEpochTimeStamp(values, 1700000000000ull + uint64_t(seq));
  DAXO_Error err = DAXO_PushMetricValues(c, m.sensorId.c_str(), values);
  DAXO_DestroyMetricValueContainer(values);
  return err;
}

// How often the agent stored each sequence number of the sensor.
inline std::map<int64_t, int> Delivered(const TestEnvironment& env, const SequenceMetric& m) {
  std::map<int64_t, int> times;
  const std::string key = "\"value\":";
  for (const std::string& line : env.AgentPushes()) {
    std::size_t at = line.find(key);
    if (line.find(" " + m.sensorId + " ") != std::string::npos && at != std::string::npos)
      ++times[std::atoll(line.c_str() + at + key.size())];
  }
  return times;
}

}  // namespace daxo_test

#endif
