// The build passes the project's version, so the library, its pkg-config file
// and its CMake package cannot name different ones.
#include "daxo_client.h"

#ifndef DAXO_VERSION
#error "DAXO_VERSION must be defined by the build"
#endif

extern "C" const char* DAXO_GetVersion(void) noexcept { return DAXO_VERSION; }
