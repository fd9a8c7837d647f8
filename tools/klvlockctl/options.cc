#include "tools/klvlockctl/options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/klvlockctl/request_line.h"

namespace klv {

namespace {

constexpr char kDefaultName[] = "klvlockctl";
constexpr size_t kLongestName = 16;

// A decimal number from `low` to `high`, the whole text.
bool ParseBounded(const char* text, unsigned long low, unsigned long high, unsigned long* value) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  errno = 0;
  *value = strtoul(text, &end, 10);
  return errno == 0 && *end == '\0' && *value >= low && *value <= high;
}

// Splits "--name=value" and "--name value"; advances *index past the value.
bool TakeValue(int argc, char** argv, int* index, const char* name, const char** value) {
  const char* argument = argv[*index];
  const size_t length = strlen(name);
  if (strncmp(argument, name, length) != 0) return false;
  if (argument[length] == '=') {
    *value = argument + length + 1;
    return true;
  }
  if (argument[length] != '\0') return false;
  *value = *index + 1 < argc ? argv[++*index] : nullptr;
  return true;
}

// One option that takes a value; false with *error set when it is bad.
bool SetValueOption(const char* name, const char* value, Options* options, std::string* error) {
  unsigned long number = 0;
  bool good = false;
  if (strcmp(name, "--port") == 0) {
    good = ParseBounded(value, 1, 65535, &number);
    options->port = static_cast<uint16_t>(number);
  } else if (strcmp(name, "--session") == 0) {
    good = ParseBounded(value, 0, UINT32_MAX, &number);
    options->session = static_cast<uint32_t>(number);
  } else if (strcmp(name, "--timeout") == 0) {
    good = ParseBounded(value, 1, 3'600'000, &number);
    options->timeout_ms = static_cast<int>(number);
  } else {
    good = value != nullptr && strlen(value) <= kLongestName;
    if (good) options->name = value;
  }
  if (!good)
    *error = std::string("bad value for ") + name + (value ? std::string(": ") + value : "");
  return good;
}

}  // namespace

OptionsOutcome ParseOptions(int argc, char** argv, const char* environment_port, uint32_t pid,
                            Options* options, std::string* error) {
  options->session = pid;
  options->name = kDefaultName;
  bool have_port = environment_port != nullptr && *environment_port != '\0' &&
                   SetValueOption("--port", environment_port, options, error);
  for (int index = 1; index < argc; ++index) {
    const char* argument = argv[index];
    if (strcmp(argument, "--help") == 0) return OptionsOutcome::kHelp;
    if (strcmp(argument, "--version") == 0) return OptionsOutcome::kVersion;
    if (strcmp(argument, "--strict") == 0) {
      options->strict = true;
      continue;
    }
    if (strcmp(argument, "--keep-session") == 0) {
      options->keep_session = true;
      continue;
    }
    const char* value = nullptr;
    bool known = false;
    for (const char* name : {"--port", "--session", "--name", "--timeout"}) {
      if (!TakeValue(argc, argv, &index, name, &value)) continue;
      if (!SetValueOption(name, value, options, error)) return OptionsOutcome::kBad;
      have_port = have_port || strcmp(name, "--port") == 0;
      known = true;
      break;
    }
    if (!known) {
      *error = std::string("unknown option ") + argument;
      return OptionsOutcome::kBad;
    }
  }
  if (!have_port) return OptionsOutcome::kNoPort;
  return OptionsOutcome::kRun;
}

std::string HelpText() {
  return std::string(
             "Usage: klvlockctl [--port N] [--session N] [--name NAME] [--timeout MS] [--strict]\n"
             "                  [--keep-session]\n"
             "       klvlockctl --help | --version\n"
             "Opens one session with klvlockd on 127.0.0.1 and sends one request per line\n"
             "read from standard input, printing one line per reply and per event.\n"
             "  --port N      the daemon's UDP port (default: $_klvlockd_port)\n"
             "  --session N   the session id (default: the process id)\n"
             "  --name NAME   the client name, at most 16 bytes (default: klvlockctl)\n"
             "  --timeout MS  how long to wait for each reply (default: 2000)\n"
             "  --strict      stop at the first refusal, syntax error or lost reply\n"
             "  --keep-session  at the end of input, keep what the session holds (no end)\n"
             "Exit status: 0 ok, 1 a request refused (--strict), 2 bad usage or request\n"
             "syntax, 3 no reply or daemon unreachable, 4 a failure on this side.\n\n") +
         RequestSyntax() +
         "\nExample:\n"
         "  eval \"$(klvlockd 30 /var/log/klvlock)\"\n"
         "  printf 'open fid=1 file=10:20 access=read deny=write oplock\\nwait 5\\n' | klvlockctl\n"
         "  probe answered\n"
         "  open fid=1: granted oplock=1\n"
         "  end: done\n";
}

}  // namespace klv
