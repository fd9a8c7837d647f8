// The klvlockd binary as a whole: its command line, the start-up handshake,
// the status probe, how it ends on each signal, and what its logs hold.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"

namespace klv {

const std::string kWillNotStart =
    "\n<time>\tlockd/init/failed\tOstrand Kelvane Lock Daemon(2.01)\n\n"
    "FATAL ERROR: The Kelvane server will not start.\n";
const std::string kUsage = "Usage: klvlockd <timeout> <logdir> | klvlockd <status port>\n";

TEST(Startup, ArgumentsThatCannotStartTheDaemonExitOne) {
  DaemonProcess scratch;  // lends its directory
  const std::string missing = scratch.LogDirectory() + "/absent";
  const std::string plain = scratch.LogDirectory() + "/plain";
  std::ofstream(plain) << "not a directory\n";
  const struct {
    std::vector<std::string> arguments;
    std::string message;
  } kCases[] = {
      {{}, "Bad argument list:\n" + kUsage},
      {{"30", "/tmp", "extra words"}, "Bad argument list: 30 /tmp extra words\n" + kUsage},
      {{"a", "", "c", "d"}, "Bad argument list: a  c d\n" + kUsage},
      {{"30", missing}, "None existent logdir: " + missing + "\n"},
      {{"30", plain}, "logdir is not a directory: " + plain + "\n"},
  };
  for (const auto& c : kCases) {
    const ProgramRun run = RunKlvlockd(c.arguments);
    EXPECT_EQ(run.end, ProcessEnd::Exited(1));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(WithoutTimeStamps(run.err), kWillNotStart + c.message);
  }
}

// The status line names both ports and the daemon's pid (the timeout is read
// with atoi and never used: a word will do). The probe copies the report; a
// number followed by letters counts as the number; a port where nothing
// listens (any more) refuses the connection.
TEST(Startup, StatusLineAndProbe) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Launch({"soon", daemon.LogDirectory()})) << daemon.LastError();
  ASSERT_TRUE(daemon.StillAnswers());
  const std::string port = std::to_string(daemon.TcpPort());
  EXPECT_EQ(daemon.StatusLine(), "_klvlockd_port=" + std::to_string(daemon.UdpPort()) +
                                     " ; _klvlockd_pid=" + std::to_string(daemon.Pid()) +
                                     " ; _klvlockd_status=" + port +
                                     "; export _klvlockd_port _klvlockd_pid _klvlockd_status\n");
  for (const std::string& argument : {port, port + "xyz"}) {
    const ProgramRun run = RunKlvlockd({argument});
    EXPECT_EQ(run.end, ProcessEnd::Exited(0));
    EXPECT_EQ(
        WithoutTimeStamps(run.out + run.err),
        "<time> Ostrand Kelvane Lock Daemon 2.01.905\n\n== Client information\n\n"
        "== File lock information\n\nFiles: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
  }
  EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  const ProgramRun refused = RunKlvlockd({port});
  EXPECT_EQ(refused.end, ProcessEnd::Exited(12));
  EXPECT_TRUE(
      std::regex_match(refused.err, std::regex("LOCKDSTATUS: Unable to contact lockd "
                                               "daemon: connect\\(\\d+,127\\.0\\.0\\.1:" +
                                               port + "\\): \\(111\\) Connection refused\n")))
      << refused.err;
  // A connection reset before the report's end is a read failure.
  uint16_t silent_port = 0;
  const int listener = ListenOnLoopback(&silent_port);
  ASSERT_GE(listener, 0);
  std::jthread resetter([listener] {
    const int connection = accept(listener, nullptr, nullptr);
    const linger reset = {1, 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(connection);
  });
  const ProgramRun cut = RunKlvlockd({std::to_string(silent_port)});
  shutdown(listener, SHUT_RDWR);  // ends the accept, should the probe not have come
  resetter.join();
  close(listener);
  EXPECT_EQ(cut.end, ProcessEnd::Exited(13));
  EXPECT_EQ(cut.out, "");
  EXPECT_TRUE(std::regex_match(cut.err, std::regex("LOCKDSTATUS: I/O error from lockd daemon: "
                                                   "read\\(\\d+,<address>,8192\\): \\(104\\) "
                                                   "Connection reset by peer\n")))
      << cut.err;
  for (const std::string argument : {"0", "status", "", "70000", "-5"}) {
    const ProgramRun run = RunKlvlockd({argument});
    EXPECT_EQ(run.end, ProcessEnd::Exited(10));
    EXPECT_EQ(run.err, "\"" + argument + "\" is not a valid port number\n");
    EXPECT_EQ(run.out + refused.out + daemon.StderrText(), "");
  }
}

const std::string kStartLine = "<time>\tlocking/process/start\tOstrand Kelvane Lock Daemon(2.01)\n";
const std::string kStopLine = "<time>\tlocking/process/stop\tOstrand Kelvane Lock Daemon(2.01)\n";

// The stop signals end the daemon with its stop line; SIGSEGV and SIGBUS with
// the prepared message, on standard error and in the error log; SIGHUP is not
// caught. The idle wait lasts a minute: only a prompt end comes within 2 s.
TEST(Signals, EachSignalEndsTheDaemonItsOwnWay) {
  const std::pair<int, ProcessEnd> kCases[] = {
      {SIGTERM, ProcessEnd::Exited(0)}, {SIGINT, ProcessEnd::Exited(0)},
      {SIGABRT, ProcessEnd::Exited(0)}, {SIGSEGV, ProcessEnd::Exited(99)},
      {SIGBUS, ProcessEnd::Exited(99)}, {SIGHUP, ProcessEnd::Signalled(SIGHUP)}};
  for (const auto& [signal_number, end] : kCases) {
    SCOPED_TRACE(strsignal(signal_number));
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.LastError();
    EXPECT_TRUE(daemon.Stop(signal_number, 2000) == end);
    EXPECT_EQ(WithoutTimeStamps(daemon.EventLogText()),
              kStartLine + (end == ProcessEnd::Exited(0) ? kStopLine : ""));
    const std::string fault =
        end != ProcessEnd::Exited(99)
            ? ""
            : "\n[unknown time]\tprocess/error\tOstrand Kelvane Lock Daemon(2.01)\nProcess " +
                  std::to_string(daemon.Pid()) +
                  " has had a fatal signal - SIGSEGV or SIGBUS\nThe Kelvane server will fail.\n"
                  "Stop, then restart the server from the command line.\n";
    EXPECT_EQ(daemon.StderrText() + "|" + daemon.ErrorLogText(), fault + "|" + fault);
  }
}

// A log that cannot be opened ends the daemon; a directory in its place
// stands in the way.
TEST(EventLog, LogsThatCannotBeOpenedEndTheDaemon) {
  for (const bool error_log : {true, false}) {
    DaemonProcess daemon;
    const std::string path = error_log ? daemon.ErrorLogPath() : daemon.EventLogPath();
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    ASSERT_TRUE(daemon.Launch({"30", daemon.LogDirectory()})) << daemon.LastError();
    const std::string record = std::string("\n<time>\tlocking/open/") +
                               (error_log ? "errorlog" : "eventlog") +
                               "\tOstrand Kelvane Lock Daemon(2.01)\n\nFailed to open " +
                               (error_log ? "error" : "event") + " log file: " + path + "\n";
    EXPECT_NE(daemon.WaitForExit(), ProcessEnd::StillRunning());
    EXPECT_EQ(WithoutTimeStamps(daemon.StderrText() + "|" + daemon.ErrorLogText()),
              record + "|" + (error_log ? "" : record));
  }
}

}  // namespace klv
