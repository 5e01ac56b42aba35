#include "store.h"

#include "openssl_handles.h"

namespace daxo_agent {
namespace {

std::string IsoTime(std::time_t t) {
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

void AddString(json_object* object, const char* key, const std::string& value) {
  json_object_object_add(object, key,
                         json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

json_object* ClientJson(const ClientRecord& record) {
  json_object* client = json_object_new_object();
  AddString(client, "id", record.id);
  AddString(client, "requestedName", record.requestedName);
  AddString(client, "organisation", record.organisation);
  AddString(client, "serial", record.serial);
  AddString(client, "issuedAt", IsoTime(record.issuedAt));
  AddString(client, "notAfter", IsoTime(record.notAfter));
  return client;
}

}  // namespace

void Store::AddClient(ClientRecord record) {
  std::string id = record.id;
  clients_.insert_or_assign(std::move(id), std::move(record));
}

bool Store::RemoveClient(const std::string& id) { return clients_.erase(id) != 0; }

std::string Store::ToJson() const {
  JsonPtr root(json_object_new_object());
  json_object* clients = json_object_new_array();
  for (const auto& [id, record] : clients_) json_object_array_add(clients, ClientJson(record));
  json_object_object_add(root.get(), "clients", clients);
  return json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace daxo_agent
