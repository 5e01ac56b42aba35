// The agent holds its C objects in the library's own owning handles.
#ifndef DAXO_AGENT_OPENSSL_HANDLES_H
#define DAXO_AGENT_OPENSSL_HANDLES_H

#include "c_handles.h"

namespace daxo_agent {

using daxo::BioPtr;
using daxo::BignumPtr;
using daxo::CFree;
using daxo::EvpPkeyPtr;
using daxo::FilePtr;
using daxo::JsonPtr;
using daxo::MosquittoPtr;
using daxo::X509ExtensionPtr;
using daxo::X509Ptr;
using daxo::X509ReqPtr;

}  // namespace daxo_agent

#endif
