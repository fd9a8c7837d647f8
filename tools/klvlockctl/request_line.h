#ifndef KLV_TOOLS_KLVLOCKCTL_REQUEST_LINE_H_
#define KLV_TOOLS_KLVLOCKCTL_REQUEST_LINE_H_

#include <cstdint>
#include <string>

#include "client/klvlock.h"

namespace klv {

// One line of klvlockctl's input: a verb and named flags.
//
//   open fid=1 file=10:20 access=read deny=write oplock path=/share/a.txt
//   lock fid=1 file=10:20 offset=0 length=100 shared
//   wait 2.5
//
// Blank lines and lines that start with '#' are no command.
enum class Verb {
  kNone,  // blank line or comment
  kOpen,
  kLock,
  kUnlock,
  kClose,
  kRelease,  // oplock release
  kEnd,      // client end
  kNoop,
  kText,
  kVersion,
  kWait,  // receive events for a while
};

struct Command {
  Verb verb = Verb::kNone;
  // The request of every verb but kNone and kWait. Its path and text
  // pointers are left null: they belong to the strings below.
  klvlock_request request = {};
  std::string path;
  std::string text;
  int wait_ms = 0;  // kWait
};

// Parses `line`. False on a syntax error, with a message in *error that names
// the offending word.
bool ParseRequestLine(const std::string& line, Command* command, std::string* error);

// The verb as written in the input ("open", "release", ...).
const char* VerbName(Verb verb);

// The syntax of every verb, one per line, for --help.
const char* RequestSyntax();

}  // namespace klv

#endif  // KLV_TOOLS_KLVLOCKCTL_REQUEST_LINE_H_
