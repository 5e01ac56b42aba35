// The configuration file reader, its explanations, and the whole-file reader.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
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

// The range a number must fall in; 0 may stand outside it, to turn a
// setting off.
struct Range {
  int min, max;
  bool zeroAllowed;
};

constexpr Range kPortRange{1, 65535, false};
// MQTT carries the keep-alive in 16 bits, and libmosquitto refuses periods
// under 5 s other than 0 (off).
constexpr Range kKeepAliveRange{5, 65535, true};

// The pushed values kept for the agent: from a few pushes to what a small
// device can spare.
constexpr Range kStoreBytesRange{4096, INT_MAX, false};

// A keyword setting stores the position of its word in the list.
constexpr std::string_view kPolicyWords[] = {"drop-oldest", "refuse"};
constexpr std::string_view kSyncWords[] = {"normal", "full"};

struct Setting {
  std::string_view key;
  char* DAXO_Client::*text;  // exactly one of text and number is set
  int DAXO_Client::*number;
  Range range;
  bool required;
  std::span<const std::string_view> words;  // a number given as one of these words
};

constexpr Setting kSettings[] = {
    {"MqttHost", &DAXO_Client::mqttHost, nullptr, {}, true, {}},
    {"MqttPort", nullptr, &DAXO_Client::mqttPort, kPortRange, true, {}},
    {"MqttProvisionPort", nullptr, &DAXO_Client::mqttProvisionPort, kPortRange, true, {}},
    {"MqttKeepAlive", nullptr, &DAXO_Client::mqttKeepAlive, kKeepAliveRange, false, {}},
    {"CaFile", &DAXO_Client::caFile, nullptr, {}, true, {}},
    {"CertFolder", &DAXO_Client::certFolder, nullptr, {}, true, {}},
    {"ClientName", &DAXO_Client::clientName, nullptr, {}, false, {}},
    {"PushStore", &DAXO_Client::pushStorePath, nullptr, {}, false, {}},
    {"PushStoreMaxBytes", nullptr, &DAXO_Client::pushStoreMaxBytes, kStoreBytesRange, false, {}},
    {"PushStorePolicy", nullptr, &DAXO_Client::pushStorePolicy, {}, false, kPolicyWords},
    {"PushStoreSync", nullptr, &DAXO_Client::pushStoreSync, {}, false, kSyncWords},
};

// Without keep-alive a broker that stopped without closing its sockets is
// never noticed; 60 s lets libmosquitto notice within about 90 s. An
// explicit 0 still turns keep-alive off.
constexpr int kDefaultKeepAliveSeconds = 60;

constexpr int kDefaultStoreBytes = 8 * 1024 * 1024;

// Decimal digits only: a sign, a unit or any other trailing text would
// otherwise name another number ("38x83" is not port 38).
std::optional<int> ToNumber(std::string_view value, const Range& range) noexcept {
  if (value.empty()) return std::nullopt;
  long v = 0;
  for (char c : value) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + (c - '0');
    if (v > range.max) return std::nullopt;
  }
  if (v == 0 && range.zeroAllowed) return 0;
  if (v < range.min) return std::nullopt;
  return static_cast<int>(v);
}

struct Line {
  std::string_view key;
  std::string_view value;
};

// Splits one line (without its newline) into key and value; false for
// comments, blank and malformed lines, and keys without a value.
bool SplitLine(std::string_view text, Line* out) noexcept {
  if (!text.empty() && text[0] == '#') return false;
  size_t p = 0;
  while (p < text.size() && IsSpace(text[p])) ++p;
  size_t key = p;
  while (p < text.size() && IsAlnum(text[p])) ++p;
  if (p == key) return false;
  size_t keyEnd = p;
  while (p < text.size() && IsBlank(text[p])) ++p;
  if (p == text.size()) return false;
  size_t value = p;
  size_t end = text.size();
  // Trailing blanks and the CR of a CRLF file are not part of the value.
  while (end > value && IsSpace(text[end - 1])) --end;
  out->key = text.substr(key, keyEnd - key);
  out->value = text.substr(value, end - value);
  return true;
}

std::optional<int> ToWord(std::string_view value,
                          std::span<const std::string_view> words) noexcept {
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] == value) return static_cast<int>(i);
  }
  return std::nullopt;
}

void NoteValue(daxo::ConfigProblem* problem, const Setting& s, std::string_view value) noexcept {
  problem->what = s.words.empty() ? daxo::ConfigProblem::kBadNumber : daxo::ConfigProblem::kBadWord;
  problem->words = s.words.empty() ? nullptr : s.words.data();
  problem->wordCount = s.words.size();
  problem->key = s.key.data();
  problem->min = s.range.min;
  problem->max = s.range.max;
  problem->zeroAllowed = s.range.zeroAllowed;
  size_t n = value.copy(problem->value, sizeof problem->value - 1);
  problem->value[n] = '\0';
}

DAXO_Error Store(DAXO_Client* client, const Line& line, daxo::ConfigProblem* problem) noexcept {
  for (const Setting& s : kSettings) {
    if (s.key != line.key) continue;
    if (s.number != nullptr) {
      std::optional<int> number =
          s.words.empty() ? ToNumber(line.value, s.range) : ToWord(line.value, s.words);
      if (!number) {
        NoteValue(problem, s, line.value);
        return DAXO_Error_WrongConfigParams;
      }
      client->*s.number = *number;
      return DAXO_Error_Success;
    }
    char* copy = StrnDup(line.value.data(), line.value.size());
    if (copy == nullptr) return DAXO_Error_NoMemory;
    daxo::Reset(&(client->*s.text), copy);
    return DAXO_Error_Success;
  }
  return DAXO_Error_Success;  // unknown keys are ignored
}

DAXO_Error CheckRequired(const DAXO_Client* client, daxo::ConfigProblem* problem) noexcept {
  for (const Setting& s : kSettings) {
    bool absent = s.text != nullptr ? client->*s.text == nullptr : client->*s.number == 0;
    if (!s.required || !absent) continue;
    problem->what = daxo::ConfigProblem::kMissing;
    problem->key = s.key.data();
    return DAXO_Error_WrongConfigParams;
  }
  return DAXO_Error_Success;
}

enum class LineRead { kLine, kEnd, kTooLong, kError };

// One line without its newline; a last line may lack it.
template <size_t N>
LineRead ReadLine(FILE* file, char (&buffer)[N], size_t* length) noexcept {
  size_t n = 0;
  for (int c; (c = getc_unlocked(file)) != EOF;) {
    if (c == '\n') {
      *length = n;
      return LineRead::kLine;
    }
    if (n == N) return LineRead::kTooLong;
    buffer[n++] = static_cast<char>(c);
  }
  if (ferror(file)) return LineRead::kError;
  *length = n;
  return n > 0 ? LineRead::kLine : LineRead::kEnd;
}

// O_NONBLOCK: opening a FIFO would otherwise wait for a writer for ever.
// What is not a regular file (a folder, a FIFO, a device) is refused
// before anything is read from it.
DAXO_Error OpenConfig(const char* path, FilePtr* file, daxo::ConfigProblem* problem) noexcept {
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) {
    problem->what = daxo::ConfigProblem::kOpen;
    problem->errnum = errno;
    if (fd >= 0) close(fd);
    return DAXO_Error_ConfigReadFailed;
  }
  if (!S_ISREG(st.st_mode)) {
    close(fd);
    problem->what = daxo::ConfigProblem::kNotRegular;
    return DAXO_Error_WrongConfigParams;
  }
  file->reset(fdopen(fd, "r"));
  if (!*file) {
    problem->what = daxo::ConfigProblem::kNoMemory;
    close(fd);
    return DAXO_Error_NoMemory;
  }
  return DAXO_Error_Success;
}

DAXO_Error ReadLines(DAXO_Client* client, FILE* file, daxo::ConfigProblem* problem) noexcept {
  char buffer[daxo::kConfigLineMax];
  size_t length = 0;
  for (problem->line = 1;; ++problem->line) {
    switch (ReadLine(file, buffer, &length)) {
      case LineRead::kEnd:
        problem->line = 0;
        return DAXO_Error_Success;
      case LineRead::kTooLong:
        problem->what = daxo::ConfigProblem::kTooLong;
        return DAXO_Error_WrongConfigParams;
      case LineRead::kError:
        problem->what = daxo::ConfigProblem::kRead;
        problem->errnum = errno;
        return DAXO_Error_ConfigReadFailed;
      case LineRead::kLine:
        break;
    }
    Line line;
    if (!SplitLine(std::string_view(buffer, length), &line)) continue;
    if (DAXO_Error err = Store(client, line, problem); err != DAXO_Error_Success) {
      if (err == DAXO_Error_NoMemory) problem->what = daxo::ConfigProblem::kNoMemory;
      return err;
    }
  }
}

}  // namespace

namespace daxo {

DAXO_Error ReadConfig(DAXO_Client* client, const char* confFile, ConfigProblem* problem) noexcept {
  *problem = ConfigProblem{};
  if (confFile == nullptr || confFile[0] == '\0') return DAXO_Error_WrongConfigName;
  FilePtr file;
  if (DAXO_Error err = OpenConfig(confFile, &file, problem); err != DAXO_Error_Success) return err;
  client->mqttKeepAlive = kDefaultKeepAliveSeconds;
  client->pushStoreMaxBytes = kDefaultStoreBytes;
  if (DAXO_Error err = ReadLines(client, file.get(), problem); err != DAXO_Error_Success)
    return err;
  return CheckRequired(client, problem);
}

}  // namespace daxo

namespace {

void Explain(const daxo::ConfigProblem& p, DAXO_Error err, const char* path, char* out,
             size_t size) noexcept {
  using P = daxo::ConfigProblem;
  char errText[128];
  switch (p.what) {
    case P::kOpen:
    case P::kRead:
      snprintf(out, size, "%s: cannot %s it: %s (errno %d)", path,
               p.what == P::kOpen ? "open" : "read", strerror_r(p.errnum, errText, sizeof errText),
               p.errnum);
      return;
    case P::kNotRegular:
      snprintf(out, size, "%s: not a regular file (a folder, FIFO or device is not read)", path);
      return;
    case P::kTooLong:
      snprintf(out, size, "%s line %d: longer than %zu characters", path, p.line,
               daxo::kConfigLineMax);
      return;
    case P::kBadNumber:
      snprintf(out, size, "%s line %d: %s \"%s\" is not %sa whole number from %d to %d", path,
               p.line, p.key, p.value, p.zeroAllowed ? "0 (off) or " : "", p.min, p.max);
      return;
    case P::kBadWord: {
      int n =
          snprintf(out, size, "%s line %d: %s \"%s\" is not one of", path, p.line, p.key, p.value);
      for (size_t i = 0; i < p.wordCount && n >= 0 && static_cast<size_t>(n) < size; ++i)
        n += snprintf(out + n, size - n, " %.*s", static_cast<int>(p.words[i].size()),
                      p.words[i].data());
      return;
    }
    case P::kMissing:
      snprintf(out, size, "%s: %s is missing, and it is required", path, p.key);
      return;
    case P::kNoMemory:
      snprintf(out, size, "%s: not enough memory to read it", path);
      return;
    case P::kNone:
      break;
  }
  if (err == DAXO_Error_WrongConfigName)
    snprintf(out, size, "the path of the configuration file is empty");
  else
    snprintf(out, size, "%s: no problem found", path);
}

void FreeSettings(DAXO_Client* client) noexcept {
  for (char* text : {client->mqttHost, client->caFile, client->certFolder, client->clientName,
                     client->pushStorePath})
    free(text);
}

}  // namespace

namespace daxo {

DAXO_Error ExplainConfig(const char* confFile, char* buffer, size_t size) noexcept {
  char none[1];
  if (size == 0) buffer = none, size = 1;
  auto* scratch = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
  ConfigProblem problem{};
  DAXO_Error err = DAXO_Error_NoMemory;
  if (scratch == nullptr)
    problem.what = ConfigProblem::kNoMemory;
  else
    err = ReadConfig(scratch, confFile, &problem);
  if (scratch != nullptr) FreeSettings(scratch);
  free(scratch);
  Explain(problem, err, confFile, buffer, size);
  return err;
}

}  // namespace daxo

extern "C" DAXO_Error LoadConfig(DAXO_Client* client, const char* confFile) noexcept {
  daxo::ConfigProblem problem;
  return daxo::ReadConfig(client, confFile, &problem);
}

extern "C" char* GetFileContent(const char* fileName) noexcept {
  if (fileName == nullptr) return nullptr;
  // A FIFO or device named by the configuration would block the read for ever.
  int fd = open(fileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return nullptr;
  }
  daxo::CStr content;
  size_t size = 0;
  char chunk[1024];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {  // half a key or certificate must not pass for the whole
      close(fd);
      return nullptr;
    }
    if (n == 0) break;
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
