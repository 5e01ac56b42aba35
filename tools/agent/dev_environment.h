// `daxo-agent init DIR`: the broker, agent and client files of a development
// environment on this machine, all from one authority, so that what the
// broker trusts and what the agent issues cannot drift apart.
//
//   DIR/agent-state/     the agent's authority (kept when it exists, so that
//                        clients provisioned before stay valid)
//   DIR/ca.crt           its certificate: the broker's and the clients' cafile
//   DIR/broker.crt,.key  the broker's (localhost, 127.0.0.1)
//   DIR/agent.crt,.key   the agent's broker user, "daxo-agent"
//   DIR/mosquitto.conf   both listeners on 127.0.0.1, with main.acl and
//                        provisioning.acl
//   DIR/client.conf      for applications; their identity goes to
//                        DIR/client-certs
#ifndef DAXO_AGENT_DEV_ENVIRONMENT_H
#define DAXO_AGENT_DEV_ENVIRONMENT_H

#include <string>

namespace daxo_agent {

struct DevEnvironment {
  std::string dir;
  int mainPort = 8883;
  int provisionPort = 8884;
};

// Writes the files, then prints the two command lines that start the broker
// and the agent. Throws std::runtime_error naming the step that failed.
void WriteDevEnvironment(const DevEnvironment& environment);

}  // namespace daxo_agent

#endif
