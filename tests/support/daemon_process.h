#ifndef KLV_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define KLV_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <signal.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/udp_client.h"

namespace klv {

// The real klvlockd binary run as a process, for end-to-end tests. Every wait
// is bounded; a daemon that a test started is always stopped by its pid, even
// when the test fails.
//
//   DaemonProcess daemon;
//   ASSERT_TRUE(daemon.Start()) << daemon.LastError();
//   std::string reply;
//   ASSERT_TRUE(daemon.Client().Exchange(wire::BareBytes(wire::kNoop, {.tag = 7}), &reply));
//   const OutputMark mark = daemon.Mark();
//   EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
//   EXPECT_EQ(WithoutTimeStamps(daemon.EventLogText(mark)), "<time>\tlocking/process/stop...");

// How a process ended.
struct ProcessEnd {
  enum class Kind { kExited, kSignalled, kStillRunning, kUnknown };
  Kind kind = Kind::kUnknown;
  int value = 0;  // exit status or signal number

  static ProcessEnd Exited(int status) { return {Kind::kExited, status}; }
  static ProcessEnd Signalled(int signal_number) { return {Kind::kSignalled, signal_number}; }
  static ProcessEnd StillRunning() { return {Kind::kStillRunning, 0}; }
  bool operator==(const ProcessEnd& other) const = default;
};

// A run of the program that ends by itself: the probe form, or a start that
// fails before the fork. Standard input is /dev/null.
struct ProgramRun {
  ProcessEnd end;
  std::string out, err;  // standard output and standard error
};
// Runs klvlockd with `arguments` (those after the program name) and waits up
// to `timeout_ms` for it to end; a run that takes longer is killed.
ProgramRun RunKlvlockd(const std::vector<std::string>& arguments, int timeout_ms = 5000);
// The same for any program, as the tools.
ProgramRun RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                      int timeout_ms = 5000);

// The file's bytes from `offset` on; empty when it does not exist.
std::string ReadFileFrom(const std::string& path, size_t offset = 0);
// True once `done` holds, checked every 10 ms for up to `timeout_ms`.
bool WaitFor(const std::function<bool()>& done, int timeout_ms);
// A TCP socket that listens on a free port of 127.0.0.1, given in `port`,
// to stand in for a status port; -1 when it cannot be made.
int ListenOnLoopback(uint16_t* port);

// `text` with every time stamp of the logs ("2001/05/17 14:03:07.412")
// replaced by "<time>", so that whole records can be compared.
std::string WithoutTimeStamps(const std::string& text);

// Where the daemon's outputs stood at one moment. Take a mark before an
// action and read only what was written after it.
struct OutputMark {
  size_t event_log = 0, error_log = 0, stderr_text = 0;
};

class DaemonProcess {
 public:
  static constexpr int kWaitMs = 5000;

  // Makes a fresh temporary directory with an empty log directory in it. The
  // daemon is not started yet.
  DaemonProcess();
  // Kills the daemon if it still runs and removes the temporary directory.
  ~DaemonProcess();

  // Starts the daemon with a timeout argument and LogDirectory(), and returns
  // once it answers a REQ_NOOP (so its start line is written). False on any
  // failure, with the reason in LastError(). A stopped daemon may be started
  // again: it appends to the same logs and standard-error file.
  bool Start();
  // Runs klvlockd with `arguments`, waits for the starting process to exit
  // and reads its status line. True when the line was parsed; the daemon may
  // not serve yet (see StillAnswers).
  bool Launch(const std::vector<std::string>& arguments);
  const std::string& LastError() const { return last_error_; }

  // What the starting process wrote to standard output.
  const std::string& StatusLine() const { return status_line_; }
  // The values of the status line.
  uint16_t UdpPort() const { return udp_port_; }
  pid_t Pid() const { return pid_; }
  uint16_t TcpPort() const { return tcp_port_; }

  // The log directory given to Start(), in a temporary directory of its own;
  // put files into it before the start to stand in the logs' way.
  std::string LogDirectory() const { return directory_ + "/logs"; }
  std::string EventLogPath() const { return LogDirectory() + "/journal.log"; }
  std::string ErrorLogPath() const { return LogDirectory() + "/errlock.log"; }
  // The daemon's standard error (and the starting process's).
  std::string StderrPath() const { return directory_ + "/stderr.txt"; }

  // The fixture's own client, made for the daemon that Launch started.
  UdpClient& Client() { return *client_; }
  // True when a REQ_NOOP from Client() gets its exact 16-byte reply within
  // `timeout_ms`. The daemon serves datagrams one at a time and in order, so
  // every datagram sent before has been handled by then.
  bool StillAnswers(int timeout_ms = kWaitMs);

  // The status report, read over the status port until the daemon closes.
  bool ReadStatusReport(std::string* report, int timeout_ms = kWaitMs) const;

  OutputMark Mark() const;
  std::string EventLogText(const OutputMark& since = {}) const {
    return ReadFileFrom(EventLogPath(), since.event_log);
  }
  std::string ErrorLogText(const OutputMark& since = {}) const {
    return ReadFileFrom(ErrorLogPath(), since.error_log);
  }
  std::string StderrText(const OutputMark& since = {}) const {
    return ReadFileFrom(StderrPath(), since.stderr_text);
  }
  // True once the standard error written after `since` contains `text`.
  bool WaitForStderr(const std::string& text, const OutputMark& since,
                     int timeout_ms = kWaitMs) const;

  // Sends `signal_number` and waits up to `timeout_ms` for the daemon to end.
  ProcessEnd Stop(int signal_number = SIGTERM, int timeout_ms = kWaitMs);
  // Waits up to `timeout_ms` for the daemon to end by itself.
  ProcessEnd WaitForExit(int timeout_ms = kWaitMs);

 private:
  // Ends the daemon whatever it does: SIGTERM, then SIGKILL after a bounded
  // wait. Does nothing when none runs.
  void Kill();

  std::string directory_, last_error_, status_line_;
  pid_t pid_ = -1;
  ProcessEnd daemon_end_;  // kStillRunning while a started daemon has not been reaped
  uint16_t udp_port_ = 0, tcp_port_ = 0;
  std::unique_ptr<UdpClient> client_;
};

}  // namespace klv

#endif  // KLV_TESTS_SUPPORT_DAEMON_PROCESS_H_
