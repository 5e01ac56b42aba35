// The configuration reader on a file holding the input.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "daxo_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An in-memory file, reopened by path as the reader does with a real one.
  static const int fd = memfd_create("client.conf", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || ftruncate(fd, 0) != 0 ||
      pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
    abort();
  auto* client = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
  pthread_mutex_init(&client->instanceMutex, nullptr);
  if (LoadConfig(client, path.c_str()) == DAXO_Error_Success &&
      (client->mqttHost == nullptr || client->caFile == nullptr || client->certFolder == nullptr))
    abort();  // a complete configuration has every required text
  DAXO_DeleteClient(client);
  return 0;
}
