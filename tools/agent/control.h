// The agent's control commands, by which a developer or a test makes the
// agent act on its own: send sensor jobs to a client, or show the registry.
// One command is one line of text; its answer is one line of JSON, an object
// whose "ok" member says whether the command was carried out and whose
// "error" member, on failure, says why.
//
//   job-create CLIENT_ID DEFINITION   creates the sensor and sends its
//       description on /v1.0/CLIENT_ID/sensor/job/create; DEFINITION is a
//       one-line JSON sensor definition without ids, e.g.
//       {"name":"hall","frequency":30,"monitoringService":"climate",
//        "metrics":[{"name":"t","valueUnit":"SI.Temperature.CELSIUS"}]}
//       Answer: {"ok":true,"sensor":DESCRIPTION} with the assigned ids.
//   job-delete CLIENT_ID SENSOR_ID    removes the sensor and sends "{}" on
//       /v1.0/CLIENT_ID/sensor/SENSOR_ID/job/delete. Answer: {"ok":true}.
//   dump                              Answer: {"ok":true,"clients":[...]},
//       the registry with every client's sensors, metrics and last values,
//       and the error reports it sent.
#ifndef DAXO_AGENT_CONTROL_H
#define DAXO_AGENT_CONTROL_H

#include <string>
#include <string_view>

#include "agent.h"
#include "store.h"

namespace daxo_agent {

class Control {
 public:
  Control(Store& store, Outbox& out) : store_(store), out_(out) {}

  // Carries out one command line; returns the answer without a newline.
  std::string Execute(std::string_view line);

 private:
  struct Command;
  static const Command kCommands[];

  JsonPtr JobCreate(std::string_view arguments);
  JsonPtr JobDelete(std::string_view arguments);
  JsonPtr Dump(std::string_view arguments);

  Store& store_;
  Outbox& out_;
};

}  // namespace daxo_agent

#endif
