// Requests to the agent. Each builds its body, then hands it to Request,
// the one path that formats the topic under the client's tree, renders the
// body and sends it.
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace {

using daxo::JsonPtr;

JsonPtr NameBody(const char* name, DAXO_Error* err) noexcept {
  JsonPtr body = daxo::NewObject(err);
  if (body && (*err = daxo::AddMember(body.get(), "name", json_object_new_string(name))) !=
                  DAXO_Error_Success)
    body.reset();
  return body;
}

}  // namespace

namespace daxo {

JsonPtr NewObject(DAXO_Error* err) noexcept {
  JsonPtr object(json_object_new_object());
  *err = object ? DAXO_Error_Success : DAXO_Error_NoMemory;
  return object;
}

DAXO_Error AddMember(json_object* parent, const char* key, json_object* value) noexcept {
  JsonPtr owned(value);
  if (!owned) return DAXO_Error_NoMemory;
  if (json_object_object_add(parent, key, owned.get()) != 0) return DAXO_Error_ComposeJson;
  owned.release();
  return DAXO_Error_Success;
}

JsonPtr MetricsBody(json_object** metrics, DAXO_Error* err) noexcept {
  JsonPtr body = NewObject(err);
  if (!body) return body;
  json_object* array = json_object_new_array();
  if ((*err = AddMember(body.get(), "metrics", array)) != DAXO_Error_Success) return nullptr;
  *metrics = array;
  return body;
}

const char* Render(const json_object* body, DAXO_Error* err) noexcept {
  // json-c drops what it cannot append when memory runs out and still
  // returns the text; the realloc that failed leaves ENOMEM behind.
  errno = 0;
  const char* text = json_object_to_json_string(const_cast<json_object*>(body));
  if (text == nullptr || errno == ENOMEM) {
    *err = errno == ENOMEM ? DAXO_Error_NoMemory : DAXO_Error_ComposeJson;
    return nullptr;
  }
  return text;
}

DAXO_Error Request(DAXO_Client* client, const json_object* body, const char* levels,
                   ...) noexcept {
  va_list args;
  va_start(args, levels);
  DAXO_Error err = RequestV(client, body, levels, args);
  va_end(args);
  return err;
}

DAXO_Error RequestV(DAXO_Client* client, const json_object* body, const char* levels,
                    va_list args) noexcept {
  char* formatted = nullptr;
  if (vasprintf(&formatted, levels, args) < 0) return DAXO_Error_NoMemory;
  CStr ownedLevels(formatted);
  CStr topic = Format("/%s/%s/%s", kApiVersion, client->clientId, formatted);
  if (!topic) return DAXO_Error_NoMemory;
  DAXO_Error err = DAXO_Error_Success;
  const char* text = body != nullptr ? Render(body, &err) : "{}";
  if (text == nullptr) return err;
  return SendMessageToAgent(client, topic.get(), text, static_cast<int>(strlen(text)), nullptr);
}

DAXO_Error CreateSensor(DAXO_Client* client, const char* name) noexcept {
  DAXO_Error err;
  JsonPtr body = NameBody(name, &err);
  if (!body) return err;
  return Request(client, body.get(), "sensor/create");
}

DAXO_Error UpdateSensor(DAXO_Client* client, const char* sensorId,
                        const char* sensorName) noexcept {
  DAXO_Error err;
  JsonPtr body = NameBody(sensorName, &err);
  if (!body) return err;
  return Request(client, body.get(), "sensor/%s/update", sensorId);
}

DAXO_Error DeleteSensor(DAXO_Client* client, const char* sensorId) noexcept {
  return Request(client, nullptr, "sensor/%s/delete", sensorId);
}

DAXO_Error ListSensors(DAXO_Client* client) noexcept {
  return Request(client, nullptr, "inventory");
}

DAXO_Error DescribeMetric(DAXO_Client* client, const char* sensorId,
                          const char* metricId) noexcept {
  return Request(client, nullptr, "sensor/%s/metric/%s/inventory", sensorId, metricId);
}

}  // namespace daxo
