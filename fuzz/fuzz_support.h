// What the fuzz targets share: reading every string of a delivered record,
// and a client over the fake transport that lives as long as the process.
#ifndef DAXO_FUZZ_SUPPORT_H
#define DAXO_FUZZ_SUPPORT_H

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "daxo_internal.h"
#include "fake_mqtt.h"

namespace fuzz {

// Reading every byte of every string and array element lets the sanitizer
// see a dangling, unterminated or miscounted field, not only a bad free.
inline void Touch(const char* s) {
  static volatile size_t sink;
  if (s != nullptr) sink = sink + strlen(s);
}

inline void Touch(const DAXO_SensorMetadata& s) {
  for (const char* text : {s.name, s.sensorId, s.pluginName, s.pluginDownloadUrl,
                           s.monitoringService})
    Touch(text);
  for (int i = 0; i < s.pluginParametersCount; ++i) {
    Touch(s.pluginParameters[i].parameterName);
    Touch(s.pluginParameters[i].parameterValue);
  }
  for (int i = 0; i < s.metricsCount; ++i) Touch(s.metrics[i].metricId);
}

inline void Touch(const DAXO_SensorsInfo& l) {
  for (int i = 0; i < l.sensorsCount; ++i) Touch(l.sensors[i]);
}

inline void Touch(const DAXO_CreatedMetrics& c) {
  Touch(c.sensorId);
  for (int i = 0; i < c.metricsCount; ++i) {
    Touch(c.metrics[i].metricId);
    Touch(c.metrics[i].matchingId);
  }
}

inline void Touch(const DAXO_MetricMetadata& m) {
  for (const char* text : {m.id, m.valueAnnotation, m.value, m.name}) Touch(text);
}

// Parses the input as a reply with parse and reads and releases what it
// returns.
template <class Record, class Parse>
int ParseRecord(const uint8_t* data, size_t size, Parse parse, void (*destroy)(Record*)) {
  std::string message(reinterpret_cast<const char*>(data), size);
  Record* record = parse(message.c_str());
  if (record != nullptr) Touch(*record);
  destroy(record);
  return 0;
}

// The text before the first newline, and the text after it (empty when
// there is no newline).
inline std::pair<std::string, std::string> SplitAtNewline(const uint8_t* data, size_t size) {
  std::string_view all(reinterpret_cast<const char*>(data), size);
  size_t newline = all.find('\n');
  if (newline == std::string_view::npos) return {std::string(all), std::string()};
  return {std::string(all.substr(0, newline)), std::string(all.substr(newline + 1))};
}

// A folder for this process's files, on tmpfs when there is one, removed
// when the fuzzer exits normally.
inline const std::string& ScratchDir() {
  static const std::string dir = [] {
    std::string pattern =
        std::filesystem::is_directory("/dev/shm") && access("/dev/shm", W_OK) == 0
            ? "/dev/shm/daxo-fuzz-XXXXXX"
            : (std::filesystem::temp_directory_path() / "daxo-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) abort();
    return pattern;
  }();
  static const int removal = atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(ScratchDir(), ignored);
  });
  (void)removal;
  return dir;
}

// A client configured under ScratchDir(), without its watch thread, so that
// everything it does happens on the fuzzer's thread and in input order.
inline DAXO_Client* NewClient() {
  std::string conf = ScratchDir() + "/client.conf";
  FILE* file = fopen(conf.c_str(), "w");
  if (file == nullptr) abort();
  fprintf(file, "MqttHost localhost\nMqttPort 8883\nMqttProvisionPort 8884\nCaFile %s/ca.crt\n"
                "CertFolder %s/certs\n", ScratchDir().c_str(), ScratchDir().c_str());
  fclose(file);
  DAXO_Error err;
  DAXO_Client* client =
      NewClientInternal(conf.c_str(), nullptr, &err, FakeMqtt::Create, FakeMqtt::Destroy);
  if (client == nullptr) abort();
  StopCertificateCheckingThread(client);
  return client;
}

// The client, known as id, connected and subscribed to its tree.
inline FakeMqtt& Connect(DAXO_Client* client, const char* id) {
  free(client->clientId);
  client->clientId = strdup(id);
  if (DAXO_Connect(client) != DAXO_Error_Success) abort();
  FakeMqtt& fake = *FakeMqtt::Last();
  fake.FireConnect(0);
  fake.FireSubscribe(fake.subscribes.back().mid);
  return fake;
}

// Renewal answers hand work to the watch thread; this lets them do so
// without one, and TakeRenewalTask below plays its part synchronously.
inline void StandInForWatchThread(DAXO_Client* client) {
  pthread_mutex_init(&client->certCheckThreadMutex, nullptr);
  pthread_cond_init(&client->certCheckThreadCondition, nullptr);
  client->certCheckThreadStarted = 1;
}

inline void TakeRenewalTask(DAXO_Client* client) {
  free(std::exchange(client->renewalContent, nullptr));
  client->renewalTask = RenewalTaskNone;
}

// A renewal already under way: the expiring-certificate answer resends its
// request instead of making a key, which would take most of each run.
inline void PendingRenewal(DAXO_Client* client) {
  if (client->newKeyContent == nullptr) client->newKeyContent = strdup("key");
  if (client->provisionCert == nullptr) {
    client->provisionCert = strdup("request");
    client->provisionCertLen = 7;
  }
}

}  // namespace fuzz

#endif
