// What the agent knows about its clients. Everything lives in memory: a
// restarted agent starts empty, while the certificates it issued stay valid.
#ifndef DAXO_AGENT_STORE_H
#define DAXO_AGENT_STORE_H

#include <ctime>
#include <map>
#include <string>

namespace daxo_agent {

struct ClientRecord {
  std::string id;  // the issued common name, also the client's topic level
  std::string requestedName;
  std::string organisation;
  std::string serial;  // hexadecimal
  std::time_t issuedAt = 0;
  std::time_t notAfter = 0;
};

class Store {
 public:
  bool HasClient(const std::string& id) const { return clients_.count(id) != 0; }
  void AddClient(ClientRecord record);
  // False when the id was not known.
  bool RemoveClient(const std::string& id);

  // The whole registry as one line of JSON, for demos and debugging.
  std::string ToJson() const;

 private:
  std::map<std::string, ClientRecord> clients_;
};

}  // namespace daxo_agent

#endif
