// Whether the broker verifies client certificates with the authority the
// agent issues from. When it does not, every client the agent provisions is
// refused at its first connection, and all the client sees is a closed
// socket; the agent is the one place that can tell why, before it starts.
#ifndef DAXO_AGENT_BROKER_TRUST_H
#define DAXO_AGENT_BROKER_TRUST_H

#include <string>

#include "certificate_authority.h"

namespace daxo_agent {

// The cafile of the listener on port in a mosquitto configuration, read
// with the files of its include_dir; empty when that listener names only a
// capath, which the agent does not read. A relative path is taken from the
// folder of the file that names it.
// Throws std::runtime_error when the file cannot be read, has no listener on
// port, or that listener names no authority for client certificates.
std::string ClientCaFileOf(const std::string& brokerConfig, int port);

// Throws std::runtime_error, naming both files and what to do, when caFile
// holds no certificate of ca (same subject and key). source says where
// caFile came from.
void RequireTrust(const CertificateAuthority& ca, const std::string& caFile,
                  const std::string& source);

}  // namespace daxo_agent

#endif
