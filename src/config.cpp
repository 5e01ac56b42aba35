// The configuration file reader and the whole-file reader.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace {

using daxo::FilePtr;

// Keys are ASCII: classify without the process locale, which could make
// other bytes letters.
constexpr bool IsSpace(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
constexpr bool IsBlank(char c) noexcept { return IsSpace(c) && c != '\n'; }
constexpr bool IsAlnum(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

struct Setting {
  std::string_view key;
  char* DAXO_Client::*text;  // exactly one of text and number is set
  int DAXO_Client::*number;
};

constexpr Setting kSettings[] = {
    {"MqttHost", &DAXO_Client::mqttHost, nullptr},
    {"MqttPort", nullptr, &DAXO_Client::mqttPort},
    {"MqttProvisionPort", nullptr, &DAXO_Client::mqttProvisionPort},
    {"MqttKeepAlive", nullptr, &DAXO_Client::mqttKeepAlive},
    {"CaFile", &DAXO_Client::caFile, nullptr},
    {"CertFolder", &DAXO_Client::certFolder, nullptr},
    {"ClientName", &DAXO_Client::clientName, nullptr},
};

// Without keep-alive a broker that stopped without closing its sockets is
// never noticed; 60 s lets libmosquitto notice within about 90 s. An
// explicit 0 still turns keep-alive off.
constexpr int kDefaultKeepAliveSeconds = 60;

// Decimal with optional sign; trailing text ignored, no digits give 0, and
// values beyond int saturate rather than wrap into another number.
int ToInt(std::string_view value) noexcept {
  char digits[32];
  size_t n = value.copy(digits, sizeof digits - 1);
  digits[n] = '\0';
  long v = strtol(digits, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

struct Line {
  std::string_view key;
  std::string_view value;
};

// Splits one read of the file into key and value; false for comments,
// blank and malformed lines, and keys without a value.
bool SplitLine(const char* text, Line* out) noexcept {
  if (text[0] == '#') return false;
  const char* p = text;
  while (IsSpace(*p)) ++p;
  if (!IsAlnum(*p)) return false;
  const char* key = p;
  while (IsAlnum(*p)) ++p;
  const char* keyEnd = p;
  while (IsBlank(*p)) ++p;
  if (*p == '\n' || *p == '\0') return false;
  const char* value = p;
  while (*p != '\n' && *p != '\0') ++p;
  // Trailing blanks and the CR of a CRLF file are not part of the value.
  while (p > value && IsSpace(p[-1])) --p;
  out->key = std::string_view(key, keyEnd - key);
  out->value = std::string_view(value, p - value);
  return true;
}

DAXO_Error Store(DAXO_Client* client, const Line& line) noexcept {
  for (const Setting& s : kSettings) {
    if (s.key != line.key) continue;
    if (s.number != nullptr) {
      client->*s.number = ToInt(line.value);
      return DAXO_Error_Success;
    }
    char* copy = StrnDup(line.value.data(), line.value.size());
    if (copy == nullptr) return DAXO_Error_NoMemory;
    daxo::Reset(&(client->*s.text), copy);
    return DAXO_Error_Success;
  }
  return DAXO_Error_Success;  // unknown keys are ignored
}

DAXO_Error CheckRequired(const DAXO_Client* client) noexcept {
  bool complete = client->mqttHost != nullptr && client->mqttProvisionPort != 0 &&
                  client->mqttPort != 0 && client->caFile != nullptr &&
                  client->certFolder != nullptr;
  return complete ? DAXO_Error_Success : DAXO_Error_WrongConfigParams;
}

}  // namespace

extern "C" DAXO_Error LoadConfig(DAXO_Client* client, const char* confFile) noexcept {
  if (confFile == nullptr || confFile[0] == '\0') return DAXO_Error_WrongConfigName;
  FilePtr file(fopen(confFile, "re"));
  if (!file) return DAXO_Error_ConfigReadFailed;
  client->mqttKeepAlive = kDefaultKeepAliveSeconds;
  char buffer[1024];
  // A line longer than the buffer arrives in pieces, each read as a line.
  while (fgets(buffer, sizeof buffer, file.get()) != nullptr) {
    Line line;
    if (!SplitLine(buffer, &line)) continue;
    if (DAXO_Error err = Store(client, line); err != DAXO_Error_Success) return err;
  }
  return CheckRequired(client);
}

extern "C" char* GetFileContent(const char* fileName) noexcept {
  if (fileName == nullptr) return nullptr;
  int fd = open(fileName, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  daxo::CStr content;
  size_t size = 0;
  char chunk[1024];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // end of file, or a read error that ends the reading
    auto* grown = static_cast<char*>(realloc(content.get(), size + n + 1));
    if (grown == nullptr) {
      close(fd);
      return nullptr;
    }
    content.release();
    content.reset(grown);
    memcpy(grown + size, chunk, n);
    size += n;
  }
  close(fd);
  if (content) content.get()[size] = '\0';
  return content.release();
}
