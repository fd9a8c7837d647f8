#ifndef KLV_TOOLS_KLVLOCKCTL_OPTIONS_H_
#define KLV_TOOLS_KLVLOCKCTL_OPTIONS_H_

#include <cstdint>
#include <string>

namespace klv {

// klvlockctl's command line.
struct Options {
  uint16_t port = 0;      // the daemon's UDP port
  uint32_t session = 0;   // the session id
  std::string name;       // the client name sent with every open
  int timeout_ms = 2000;  // how long a request waits for its reply
  bool strict = false;
  bool keep_session = false;  // no client end when the input ends
};

// kNoPort: neither --port nor $_klvlockd_port.
enum class OptionsOutcome { kRun, kHelp, kVersion, kBad, kNoPort };

// Reads the options; `environment_port` is the value of _klvlockd_port or
// null, `pid` the default session id. On kBad, *error says why.
OptionsOutcome ParseOptions(int argc, char** argv, const char* environment_port, uint32_t pid,
                            Options* options, std::string* error);

// The text of --help, request syntax included.
std::string HelpText();

}  // namespace klv

#endif  // KLV_TOOLS_KLVLOCKCTL_OPTIONS_H_
