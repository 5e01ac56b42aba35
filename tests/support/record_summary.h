// Every field of a parsed record in one line, so that a stray or missing
// one shows in a comparison.
#ifndef DAXO_TEST_RECORD_SUMMARY_H
#define DAXO_TEST_RECORD_SUMMARY_H

#include <string>

#include "daxo_client.h"

inline std::string S(const char* s) { return s != nullptr ? s : "-"; }

inline std::string Sum(const DAXO_SensorMetadata& s) {
  std::string out = S(s.name) + " " + S(s.sensorId) + " f" + std::to_string(s.frequency) + " t" +
                    std::to_string(s.sensorType) + " " + S(s.pluginName) + "@" +
                    S(s.pluginDownloadUrl) + " " + S(s.monitoringService) + " {";
  for (int i = 0; i < s.pluginParametersCount; ++i)
    out += S(s.pluginParameters[i].parameterName) + "=" + S(s.pluginParameters[i].parameterValue) +
           ";";
  out += "} [";
  for (int i = 0; i < s.metricsCount; ++i) out += S(s.metrics[i].metricId) + ";";
  return out + "]";
}
inline std::string Sum(const DAXO_SensorsInfo& l) {
  std::string out;
  for (int i = 0; i < l.sensorsCount; ++i) out += "(" + Sum(l.sensors[i]) + ")";
  return out;
}
inline std::string Sum(const DAXO_CreatedMetrics& c) {
  std::string out = S(c.sensorId) + ":";
  for (int i = 0; i < c.metricsCount; ++i)
    out += " " + S(c.metrics[i].metricId) + "<-" + S(c.metrics[i].matchingId);
  return out;
}
inline std::string Sum(const DAXO_MetricMetadata& m) {
  return S(m.id) + " u" + std::to_string(m.valueUnit) + " t" + std::to_string(m.valueType) + " " +
         S(m.valueAnnotation) + " @" + std::to_string(m.lastUpdated) + " " + S(m.value) + " " +
         S(m.name);
}

#endif
