#ifndef KLV_TOOLS_KLVLOCKCTL_REQUEST_RUNNER_H_
#define KLV_TOOLS_KLVLOCKCTL_REQUEST_RUNNER_H_

#include <array>
#include <cstdio>
#include <set>
#include <string>

#include "client/klvlock.hpp"
#include "tools/klvlockctl/request_line.h"

namespace klv {

// klvlockctl's exit statuses.
enum ExitStatus {
  kExitOk = 0,
  kExitRefused = 1,  // under --strict: the daemon refused a request
  kExitUsage = 2,    // bad options, or a syntax error in a request line
  kExitNoReply = 3,  // no reply, or the daemon could not be reached
  kExitFailure = 4,  // the client library or a system call failed on this side
};

// The exit status for a klvlock error code other than KLVLOCK_OK.
ExitStatus ExitStatusOf(int error);

// Carries out request lines on one session and prints one line for each reply
// and for each event (break, retry notice, probe answered) on `out`, and the
// syntax errors on `err`.
class RequestRunner {
 public:
  struct Settings {
    int timeout_ms = klvlock::Session::kDefaultTimeoutMs;
    bool strict = false;  // stop at the first refusal, syntax error or lost reply
  };

  // Sets the session's event handler; the session must outlive the runner.
  RequestRunner(klvlock::Session* session, Settings settings, FILE* out, FILE* err);

  // Runs one input line (line numbers count from 1). False when klvlockctl
  // must stop: under --strict, after a refusal, a syntax error or a lost reply.
  bool RunLine(const std::string& line, int line_number);
  // Reads what has arrived on the session without blocking.
  void ReadSession();
  // Sends a client end when a request went out since the last one, so the
  // session leaves nothing held; prints its reply line.
  void EndSession();
  // The exit status so far: a lost reply outweighs a syntax error; refusals
  // count only under --strict.
  ExitStatus Status() const { return status_; }

 private:
  bool Call(const Command& command, int line_number);
  // Warns on `err` when a lock or unlock names a fid that no granted open of
  // this session holds: such locks outlive a dead session.
  void WarnIfNotOpen(const Command& command, int line_number);
  // Keeps the opened fids up to date with a reply of status done.
  void NoteDone(const klvlock_request& request);
  void Wait(int wait_ms);
  void PrintEvent(const klvlock_event& event);
  void PrintLine(const std::string& line);
  // Records `status`; false when klvlockctl must stop.
  bool Note(ExitStatus status);

  klvlock::Session* session_;
  Settings settings_;
  FILE* out_;
  FILE* err_;
  ExitStatus status_ = kExitOk;
  bool sent_since_end_ = false;
  std::set<std::array<uint32_t, 3>> open_fids_;  // file hi, file lo, clientfid
};

}  // namespace klv

#endif  // KLV_TOOLS_KLVLOCKCTL_REQUEST_RUNNER_H_
