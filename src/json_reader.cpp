// The reader for every JSON message the agent sends. json-c's own tokener
// is not used on them: when an allocation fails inside it, it may crash (an
// unchecked copy of a member name), drop a member (leaking its value),
// shorten a string, or hand back an inner part of the document as if it
// were the whole. Here every allocation is checked, so a parse gives the
// complete document or nothing.
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "daxo_internal.h"
#include "string_utils.h"

namespace {

using daxo::JsonPtr;

constexpr int kMaxDepth = 32;  // json-c's default nesting limit

// Appends code point cp as UTF-8; lone surrogates become U+FFFD.
char* PutUtf8(char* out, unsigned cp) noexcept {
  if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xFFFD;
  if (cp < 0x80) {
    *out++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out++ = static_cast<char>(0xC0 | cp >> 6);
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out++ = static_cast<char>(0xE0 | cp >> 12);
    *out++ = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out++ = static_cast<char>(0xF0 | cp >> 18);
    *out++ = static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return out;
}

bool Hex4(const char* p, unsigned* value) noexcept {
  *value = 0;
  for (int i = 0; i < 4; ++i) {
    char c = p[i];
    unsigned digit = c >= '0' && c <= '9'   ? c - '0'
                     : c >= 'a' && c <= 'f' ? c - 'a' + 10
                     : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                            : 16;
    if (digit == 16) return false;
    *value = *value << 4 | digit;
  }
  return true;
}

// Parses successively; p stays at the first character not consumed.
struct Reader {
  const char* p;
  char* keys;  // where the next member name goes
  int depth = 0;

  void SkipSpace() noexcept {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') ++p;
  }

  bool Literal(const char* word) noexcept {
    size_t n = strlen(word);
    if (strncmp(p, word, n) != 0) return false;
    p += n;
    return true;
  }

  // The closing quote of the string that starts at p, or null.
  const char* StringEnd() const noexcept {
    const char* end = p + 1;
    while (*end != '"') {
      if (*end == '\0') return nullptr;
      end += *end == '\\' && end[1] != '\0' ? 2 : 1;
    }
    return end;
  }

  // Decodes the string up to end into out, which needs end - p bytes:
  // escapes only ever shorten a string.
  bool Decode(const char* end, char* out, size_t* length) noexcept {
    char* start = out;
    for (++p; p < end;) {
      if (*p != '\\') {
        *out++ = *p++;
      } else if (!Escape(&out)) {
        return false;
      }
    }
    ++p;
    *out = '\0';
    *length = static_cast<size_t>(out - start);
    return true;
  }

  bool Escape(char** out) noexcept {
    static constexpr char kFrom[] = "\"\\/bfnrt", kTo[] = "\"\\/\b\f\n\r\t";
    char c = p[1];
    if (const char* known = c != '\0' ? strchr(kFrom, c) : nullptr) {
      *(*out)++ = kTo[known - kFrom];
      p += 2;
      return true;
    }
    unsigned cp, low;
    if (c != 'u' || !Hex4(p + 2, &cp)) return false;
    p += 6;
    if (cp >= 0xD800 && cp < 0xDC00 && p[0] == '\\' && p[1] == 'u' && Hex4(p + 2, &low) &&
        low >= 0xDC00 && low <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
      p += 6;
    }
    *out = PutUtf8(*out, cp);
    return true;
  }

  // Numbers are typed as json-c types them; a fraction keeps its text so
  // that it reads back as it was written.
  bool Number(JsonPtr* value) noexcept {
    const char* start = p;
    if (*p == '-') ++p;
    if (*p < '0' || *p > '9') return false;
    while (*p >= '0' && *p <= '9') ++p;
    bool integer = *p != '.' && *p != 'e' && *p != 'E';
    if (*p == '.' && !Digits(1)) return false;
    if ((*p == 'e' || *p == 'E') && !Digits(*++p == '+' || *p == '-' ? 1 : 0)) return false;
    daxo::CStr text(StrnDup(start, static_cast<size_t>(p - start)));
    if (!text) return false;
    if (integer && *start == '-') {
      value->reset(json_object_new_int64(strtoll(text.get(), nullptr, 10)));
    } else if (integer) {
      uint64_t n = strtoull(text.get(), nullptr, 10);
      value->reset(n <= INT64_MAX ? json_object_new_int64(static_cast<int64_t>(n))
                                  : json_object_new_uint64(n));
    } else {
      static const locale_t c = newlocale(LC_NUMERIC_MASK, "C", static_cast<locale_t>(0));
      double d = c != static_cast<locale_t>(0) ? strtod_l(text.get(), nullptr, c)
                                               : strtod(text.get(), nullptr);
      value->reset(json_object_new_double_s(d, text.get()));
    }
    return *value != nullptr;
  }

  // Skips `skip` characters, then needs at least one digit.
  bool Digits(int skip) noexcept {
    p += skip;
    if (*p < '0' || *p > '9') return false;
    while (*p >= '0' && *p <= '9') ++p;
    return true;
  }

  bool String(JsonPtr* value) noexcept {
    const char* end = StringEnd();
    if (end == nullptr) return false;
    daxo::CStr text(static_cast<char*>(malloc(static_cast<size_t>(end - p))));
    size_t length;
    if (!text || !Decode(end, text.get(), &length) || length > INT32_MAX) return false;
    value->reset(json_object_new_string_len(text.get(), static_cast<int>(length)));
    return *value != nullptr;
  }

  bool Array(JsonPtr* value) noexcept {
    value->reset(json_object_new_array());
    if (!*value) return false;
    ++p;
    SkipSpace();
    if (*p == ']') return ++p, true;
    for (;;) {
      JsonPtr element;
      if (!Value(&element) || json_object_array_add(value->get(), element.get()) != 0)
        return false;
      element.release();
      SkipSpace();
      if (*p == ']') return ++p, true;
      if (*p++ != ',') return false;
    }
  }

  bool Object(JsonPtr* value) noexcept {
    value->reset(json_object_new_object());
    if (!*value) return false;
    ++p;
    SkipSpace();
    if (*p == '}') return ++p, true;
    for (;;) {
      const char* end = *p == '"' ? StringEnd() : nullptr;
      char* key = keys;
      size_t length;
      if (end == nullptr || !Decode(end, key, &length)) return false;
      keys += length + 1;
      SkipSpace();
      if (*p++ != ':') return false;
      JsonPtr member;
      if (!Value(&member) || json_object_object_add_ex(value->get(), key, member.get(),
                                                       JSON_C_OBJECT_ADD_CONSTANT_KEY) != 0)
        return false;
      member.release();
      SkipSpace();
      if (*p == '}') return ++p, true;
      if (*p++ != ',') return false;
      SkipSpace();
    }
  }

  // JSON null is a null json_object, as json-c has it.
  bool Value(JsonPtr* value) noexcept {
    SkipSpace();
    switch (*p) {
      case '{':
      case '[': {
        if (++depth > kMaxDepth) return false;
        bool ok = *p == '{' ? Object(value) : Array(value);
        --depth;
        return ok;
      }
      case '"':
        return String(value);
      case 't':
      case 'f': {
        bool truth = *p == 't';
        if (!Literal(truth ? "true" : "false")) return false;
        value->reset(json_object_new_boolean(truth));
        return *value != nullptr;
      }
      case 'n':
        return Literal("null");
      default:
        return Number(value);
    }
  }
};

void FreeNames(json_object*, void* names) noexcept { free(names); }

}  // namespace

namespace daxo {

JsonPtr ParseJson(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  // Member names live in one block owned by the document: json-c's own copy
  // of a name leaks when the object's table then fails to grow.
  CStr names(static_cast<char*>(malloc(strlen(text) + 1)));
  if (!names) return nullptr;
  Reader reader{text, names.get()};
  JsonPtr document;
  if (!reader.Value(&document)) return nullptr;
  reader.SkipSpace();
  if (*reader.p != '\0') return nullptr;
  if (json_object_is_type(document.get(), json_type_object) ||
      json_object_is_type(document.get(), json_type_array))
    json_object_set_userdata(document.get(), names.release(), FreeNames);
  return document;
}

}  // namespace daxo
