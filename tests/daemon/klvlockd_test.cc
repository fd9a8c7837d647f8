// The klvlockd binary as a whole: its command line, the start-up handshake,
// the status probe, how it ends on each signal, and what its logs hold.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/daemon_process.h"

namespace klv {

namespace {

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

TEST(Startup, StatusLineNamesBothPortsAndTheRunningDaemon) {
  DaemonProcess daemon;
  // The timeout is read with atoi and never used: a word will do.
  ASSERT_TRUE(daemon.Launch({"soon", daemon.LogDirectory()})) << daemon.LastError();
  ASSERT_TRUE(daemon.StillAnswers());
  EXPECT_EQ(daemon.StatusLine(), "_klvlockd_port=" + std::to_string(daemon.UdpPort()) +
                                     " ; _klvlockd_pid=" + std::to_string(daemon.Pid()) +
                                     " ; _klvlockd_status=" + std::to_string(daemon.TcpPort()) +
                                     "; export _klvlockd_port _klvlockd_pid _klvlockd_status\n");
  EXPECT_NE(daemon.UdpPort(), daemon.TcpPort());
  std::string report;
  EXPECT_TRUE(daemon.ReadStatusReport(&report));
  EXPECT_EQ(daemon.StderrText(), "");
  EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));  // the pid is the daemon's
}

// The probe copies the report; a number followed by letters counts as the
// number; a port where nothing listens (any more) refuses the connection.
TEST(StatusProbe, CopiesTheReportOrExitsTenOrTwelve) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  std::string report;
  ASSERT_TRUE(daemon.ReadStatusReport(&report));
  const std::string port = std::to_string(daemon.TcpPort());
  for (const std::string& argument : {port, port + "xyz"}) {
    const ProgramRun run = RunKlvlockd({argument});
    EXPECT_EQ(run.end, ProcessEnd::Exited(0));
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(WithoutTimeStamps(run.out), WithoutTimeStamps(report));
  }
  ASSERT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  const ProgramRun refused = RunKlvlockd({port});
  EXPECT_EQ(refused.end, ProcessEnd::Exited(12));
  EXPECT_TRUE(
      std::regex_match(refused.err, std::regex("LOCKDSTATUS: Unable to contact lockd "
                                               "daemon: connect\\(\\d+,127\\.0\\.0\\.1:" +
                                               port + "\\): \\(111\\) Connection refused\n")))
      << refused.err;
  for (const std::string argument : {"0", "status", "", "70000", "-5"}) {
    const ProgramRun run = RunKlvlockd({argument});
    EXPECT_EQ(run.end, ProcessEnd::Exited(10));
    EXPECT_EQ(run.err, "\"" + argument + "\" is not a valid port number\n");
    EXPECT_EQ(run.out + refused.out, "");
  }
}

const std::string kStartLine = "<time>\tlocking/process/start\tOstrand Kelvane Lock Daemon(2.01)\n";
const std::string kStopLine = "<time>\tlocking/process/stop\tOstrand Kelvane Lock Daemon(2.01)\n";

TEST(Signals, EachSignalEndsTheDaemonItsOwnWay) {
  const std::string fatal =
      " has had a fatal signal - SIGSEGV or SIGBUS\nThe Kelvane server will fail.\n"
      "Stop, then restart the server from the command line.\n";
  const struct {
    int signal_number;
    ProcessEnd end;
    std::string events;
    bool fault;
  } kCases[] = {{SIGTERM, ProcessEnd::Exited(0), kStopLine, false},
                {SIGINT, ProcessEnd::Exited(0), kStopLine, false},
                {SIGABRT, ProcessEnd::Exited(0), kStopLine, false},
                {SIGSEGV, ProcessEnd::Exited(99), "", true},
                {SIGBUS, ProcessEnd::Exited(99), "", true},
                {SIGHUP, ProcessEnd::Signalled(SIGHUP), "", false}};  // not caught
  for (const auto& c : kCases) {
    SCOPED_TRACE(strsignal(c.signal_number));
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.LastError();
    const OutputMark mark = daemon.Mark();
    // The idle wait lasts up to a minute: only a prompt end comes within the bound.
    EXPECT_EQ(daemon.Stop(c.signal_number, 2000), c.end);
    EXPECT_EQ(WithoutTimeStamps(daemon.EventLogText(mark)), c.events);
    const std::string message =
        "\n[unknown time]\tprocess/error\tOstrand Kelvane Lock "
        "Daemon(2.01)\nProcess " +
        std::to_string(daemon.Pid()) + fatal;
    EXPECT_EQ(daemon.StderrText(mark), c.fault ? message : "");
    EXPECT_EQ(daemon.ErrorLogText(mark), c.fault ? message : "");
  }
}

// Traffic and a second stop signal are harmless; a restart appends to the logs.
TEST(EventLog, StopAndRestartAppendToTheLogs) {
  DaemonProcess daemon;
  for (int run = 0; run < 2; ++run) {
    ASSERT_TRUE(daemon.Start()) << daemon.LastError();
    for (int request = 0; request < 20; ++request) ASSERT_TRUE(daemon.StillAnswers());
    kill(daemon.Pid(), SIGTERM);
    EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  }
  EXPECT_EQ(WithoutTimeStamps(daemon.EventLogText()),
            kStartLine + kStopLine + kStartLine + kStopLine);
  EXPECT_EQ(daemon.ErrorLogText(), "");
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
    EXPECT_TRUE(daemon.WaitForStderr("log file", {}));
    EXPECT_NE(daemon.WaitForExit(), ProcessEnd::StillRunning());
    EXPECT_EQ(WithoutTimeStamps(daemon.StderrText()), record);
    EXPECT_EQ(WithoutTimeStamps(daemon.ErrorLogText()), error_log ? "" : record);
  }
}

}  // namespace

}  // namespace klv
