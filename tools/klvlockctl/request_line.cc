#include "tools/klvlockctl/request_line.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "protocol/open_modes.h"

namespace klv {

namespace {

// The shape of each verb: the keys it takes and those it needs, each list
// written with a blank before and after every key.
struct VerbForm {
  const char* name;
  Verb verb;
  uint32_t code;
  const char* allowed;
  const char* required;
};

constexpr VerbForm kForms[] = {
    {"open", Verb::kOpen, KLVLOCK_REQ_OPEN, " fid file access deny oplock wait path ",
     " fid file "},
    {"lock", Verb::kLock, KLVLOCK_REQ_LOCK, " fid file offset length shared ",
     " fid file offset length "},
    {"unlock", Verb::kUnlock, KLVLOCK_REQ_UNLOCK, " fid file offset length ",
     " fid file offset length "},
    {"close", Verb::kClose, KLVLOCK_REQ_CLOSE, " fid file ", " fid file "},
    {"release", Verb::kRelease, KLVLOCK_REQ_OPLOCK_RELEASE, " fid file ", " fid file "},
    {"end", Verb::kEnd, KLVLOCK_REQ_CLIENT_END, " ", " "},
    {"noop", Verb::kNoop, KLVLOCK_REQ_NOOP, " ", " "},
    {"text", Verb::kText, KLVLOCK_REQ_TEXT, " ", " "},
    {"version", Verb::kVersion, KLVLOCK_REQ_VERSION, " ", " "},
    {"wait", Verb::kWait, 0, " ", " "},
};

enum class ValueKind { kBare, kNumber, kFile, kAccess, kDeny, kPath };

// One key=value flag, or a bare word that sets `field` to `bare_value`.
struct Key {
  const char* name;
  ValueKind kind;
  uint32_t klvlock_request::*field;
  uint32_t bare_value;
};

constexpr Key kKeys[] = {
    {"fid", ValueKind::kNumber, &klvlock_request::clientfid, 0},
    {"file", ValueKind::kFile, nullptr, 0},
    {"offset", ValueKind::kNumber, &klvlock_request::offset, 0},
    {"length", ValueKind::kNumber, &klvlock_request::length, 0},
    {"wait", ValueKind::kNumber, &klvlock_request::waitid, 0},
    {"access", ValueKind::kAccess, nullptr, 0},
    {"deny", ValueKind::kDeny, nullptr, 0},
    {"path", ValueKind::kPath, nullptr, 0},
    {"oplock", ValueKind::kBare, &klvlock_request::oplock, 1},
    {"shared", ValueKind::kBare, &klvlock_request::locktype, KLVLOCK_LOCK_SHARED},
};

// Access and deny names and their open-mode bits.
struct ModeName {
  const char* name;
  uint32_t bits;
};
constexpr ModeName kAccessNames[] = {{"read", KLVLOCK_OPEN_READ},
                                     {"write", KLVLOCK_OPEN_WRITE},
                                     {"readwrite", KLVLOCK_OPEN_READWRITE},
                                     {"execute", KLVLOCK_OPEN_EXECUTE},
                                     {"msdos", KLVLOCK_OPEN_MSDOS}};
constexpr ModeName kDenyNames[] = {{"none", KLVLOCK_DENY_NONE},
                                   {"read", KLVLOCK_DENY_READ},
                                   {"write", KLVLOCK_DENY_WRITE},
                                   {"readwrite", KLVLOCK_DENY_READWRITE},
                                   {"msdos", KLVLOCK_DENY_MSDOS}};

constexpr int kLongestWaitSeconds = 86400;

bool Fail(std::string* error, const std::string& message) {
  *error = message;
  return false;
}

bool Lists(const char* list, const std::string& key) {
  return std::string(list).find(" " + key + " ") != std::string::npos;
}

// A 32-bit unsigned number in decimal, or in hexadecimal after "0x".
bool ParseNumber(const std::string& text, uint32_t* number) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const std::string digits = hex ? text.substr(2) : text;
  if (digits.empty() || !isxdigit(static_cast<unsigned char>(digits[0]))) return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(digits.c_str(), &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0' || value > UINT32_MAX) return false;
  *number = static_cast<uint32_t>(value);
  return true;
}

template <size_t kCount>
bool ParseModeName(const ModeName (&names)[kCount], const std::string& text, uint32_t* bits) {
  for (const ModeName& mode : names) {
    if (text == mode.name) {
      *bits = mode.bits;
      return true;
    }
  }
  return false;
}

bool SetValue(const Key& key, const std::string& value, Command* command) {
  klvlock_request& request = command->request;
  uint32_t bits = 0;
  switch (key.kind) {
    case ValueKind::kNumber:
      return ParseNumber(value, &(request.*key.field));
    case ValueKind::kFile: {
      const size_t colon = value.find(':');
      return colon != std::string::npos && ParseNumber(value.substr(0, colon), &request.file.hi) &&
             ParseNumber(value.substr(colon + 1), &request.file.lo);
    }
    case ValueKind::kAccess:
      if (!ParseModeName(kAccessNames, value, &bits)) return false;
      request.openmode = (request.openmode & ~kAccessBits) | bits;
      return true;
    case ValueKind::kDeny:
      if (!ParseModeName(kDenyNames, value, &bits)) return false;
      request.openmode = (request.openmode & ~kDenyBits) | bits;
      return true;
    case ValueKind::kPath:
      command->path = value;
      return !value.empty() && value.size() <= KLVLOCK_MAX_STRING;
    case ValueKind::kBare:
      break;
  }
  request.*key.field = key.bare_value;
  return true;
}

// One word of a request line: a known key of the verb, with a value when it
// takes one, and not given before (a bit of *seen per key).
bool ParseWord(const VerbForm& form, const std::string& word, uint32_t* seen, Command* command,
               std::string* error) {
  const size_t equals = word.find('=');
  const std::string name = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
  for (const Key& key : kKeys) {
    if (name != key.name) continue;
    const auto index = &key - kKeys;
    if (!Lists(form.allowed, name)) break;
    if ((*seen >> index & 1) != 0) return Fail(error, "\"" + name + "\" given twice");
    *seen |= 1u << index;
    const bool bare = key.kind == ValueKind::kBare;
    if (bare != (equals == std::string::npos)) {
      return Fail(error,
                  bare ? "\"" + name + "\" takes no value" : "\"" + name + "\" needs a value");
    }
    if (SetValue(key, value, command)) return true;
    if (key.kind == ValueKind::kPath && value.size() > KLVLOCK_MAX_STRING) {
      return Fail(error, "path longer than " + std::to_string(KLVLOCK_MAX_STRING) + " bytes");
    }
    return Fail(error, "bad value in \"" + word + "\"");
  }
  return Fail(error, "\"" + name + "\" is not a flag of " + form.name);
}

// The text after the verb and the blanks that follow it.
std::string RestOfLine(const std::string& line, const std::string& verb) {
  const size_t start = line.find_first_not_of(" \t", line.find(verb) + verb.size());
  return start == std::string::npos ? "" : line.substr(start);
}

bool ParseWait(std::istringstream* words, Command* command, std::string* error) {
  std::string seconds, extra;
  if (!(*words >> seconds) || (*words >> extra)) return Fail(error, "wait takes one number");
  char* end = nullptr;
  const double value = strtod(seconds.c_str(), &end);
  if (*end != '\0' || !(value >= 0 && value <= kLongestWaitSeconds)) {
    return Fail(error, "bad number of seconds \"" + seconds + "\"");
  }
  command->wait_ms = static_cast<int>(value * 1000);
  return true;
}

const VerbForm* FindForm(const std::string& name) {
  for (const VerbForm& form : kForms) {
    if (name == form.name) return &form;
  }
  return nullptr;
}

// True when the key `name` has its bit in `seen`.
bool Seen(uint32_t seen, const std::string& name) {
  for (const Key& key : kKeys) {
    if (name == key.name) return (seen >> (&key - kKeys) & 1) != 0;
  }
  return false;
}

}  // namespace

bool ParseRequestLine(const std::string& line, Command* command, std::string* error) {
  *command = Command();
  // A NUL would cut a path or a text short without a word.
  const size_t nul = line.find('\0');
  if (nul != std::string::npos) {
    return Fail(error, "NUL byte at column " + std::to_string(nul + 1));
  }
  std::istringstream words(line);
  std::string verb;
  if (!(words >> verb) || verb[0] == '#') return true;
  const VerbForm* form = FindForm(verb);
  if (form == nullptr) return Fail(error, "unknown request \"" + verb + "\"");
  command->verb = form->verb;
  command->request.code = form->code;
  command->request.openmode = KLVLOCK_OPEN_READ | KLVLOCK_DENY_NONE;
  if (form->verb == Verb::kText) {
    command->text = RestOfLine(line, verb);
    if (command->text.size() <= KLVLOCK_MAX_STRING) return true;
    return Fail(error, "text longer than " + std::to_string(KLVLOCK_MAX_STRING) + " bytes");
  }
  if (form->verb == Verb::kWait) return ParseWait(&words, command, error);
  uint32_t seen = 0;
  for (std::string word; words >> word;) {
    if (!ParseWord(*form, word, &seen, command, error)) return false;
  }
  std::istringstream required(form->required);
  for (std::string key; required >> key;) {
    if (!Seen(seen, key)) return Fail(error, form->name + std::string(" needs ") + key + "=");
  }
  return true;
}

const char* VerbName(Verb verb) {
  for (const VerbForm& form : kForms) {
    if (form.verb == verb) return form.name;
  }
  return "";
}

const char* RequestSyntax() {
  return "Requests, one per line (numbers in decimal or 0x hex, a file as HI:LO):\n"
         "  open fid=N file=HI:LO [access=read|write|readwrite|execute|msdos]\n"
         "       [deny=none|read|write|readwrite|msdos] [oplock] [wait=ID] [path=PATH]\n"
         "  lock fid=N file=HI:LO offset=N length=N [shared]\n"
         "  unlock fid=N file=HI:LO offset=N length=N\n"
         "  close fid=N file=HI:LO\n"
         "  release fid=N file=HI:LO     give up the oplock of fid\n"
         "  end                          end the client: release everything it holds\n"
         "  noop\n"
         "  text WORDS...\n"
         "  version\n"
         "  wait SECONDS                 receive breaks, retry notices and probes\n"
         "  # comment\n"
         "An open without access= and deny= is access=read deny=none; wait=ID repeats\n"
         "an open that had to wait, with the id of its \"wait id=ID\" reply.\n";
}

}  // namespace klv
