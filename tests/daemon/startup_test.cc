// The command line and the start-up handshake, against the real binary.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/log_records.h"

namespace klv {

namespace {

const std::string kWillNotStart = "FATAL ERROR: The Kelvane server will not start.\n";
const std::string kUsage = "Usage: klvlockd <timeout> <logdir> | klvlockd <status port>\n";

// A fatal start-up message is one error record of "lockd/init/failed" on
// standard error; answers its message.
std::string StartFailureMessage(const std::string& err) {
  const auto records = log_records::ParseErrorRecords(err);
  if (records.size() != 1) return "not one record: " + err;
  log_records::ErrorRecord expected = records[0];
  expected.id = "lockd/init/failed";
  expected.banner = log_records::kBanner;
  if (log_records::RecordText(expected) != err) return "not a lockd/init/failed record: " + err;
  return records[0].message + "\n";
}

TEST(Startup, NoArgumentsIsABadArgumentList) {
  const ProgramRun run = RunKlvlockd({});
  EXPECT_EQ(run.end, ProcessEnd::Exited(1));
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(StartFailureMessage(run.err), kWillNotStart + "Bad argument list:\n" + kUsage);
}

TEST(Startup, ThreeArgumentsAreListedEachAfterOneBlank) {
  const ProgramRun run = RunKlvlockd({"30", "/tmp", "extra words"});
  EXPECT_EQ(run.end, ProcessEnd::Exited(1));
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(StartFailureMessage(run.err),
            kWillNotStart + "Bad argument list: 30 /tmp extra words\n" + kUsage);
}

TEST(Startup, MissingLogDirectoryIsNamed) {
  DaemonProcess daemon;
  const std::string missing = daemon.Directory() + "/absent";
  const ProgramRun run = RunKlvlockd({"30", missing});
  EXPECT_EQ(run.end, ProcessEnd::Exited(1));
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(StartFailureMessage(run.err),
            kWillNotStart + "None existent logdir: " + missing + "\n");
}

TEST(Startup, PlainFileAsLogDirectoryIsRefused) {
  DaemonProcess daemon;
  const std::string plain = daemon.Directory() + "/plain";
  std::ofstream(plain) << "not a directory\n";
  const ProgramRun run = RunKlvlockd({"30", plain});
  EXPECT_EQ(run.end, ProcessEnd::Exited(1));
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(StartFailureMessage(run.err),
            kWillNotStart + "logdir is not a directory: " + plain + "\n");
}

TEST(Startup, StatusLineNamesBothPortsAndTheRunningDaemon) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const std::regex line(R"(_klvlockd_port=(\d+) ; _klvlockd_pid=(\d+) ; _klvlockd_status=(\d+); )"
                        R"(export _klvlockd_port _klvlockd_pid _klvlockd_status\n)");
  std::smatch values;
  ASSERT_TRUE(std::regex_match(daemon.StatusLine(), values, line)) << daemon.StatusLine();
  EXPECT_EQ(daemon.LauncherEnd(), ProcessEnd::Exited(0));
  EXPECT_EQ(std::stoi(values[1]), daemon.UdpPort());
  EXPECT_EQ(std::stoi(values[2]), daemon.Pid());
  EXPECT_EQ(std::stoi(values[3]), daemon.TcpPort());
  EXPECT_NE(daemon.UdpPort(), 0);
  EXPECT_NE(daemon.TcpPort(), 0);
  EXPECT_EQ(kill(daemon.Pid(), 0), 0);
  EXPECT_TRUE(daemon.IsRunning());
  EXPECT_TRUE(daemon.StillAnswers());  // the UDP port of the line serves requests
  std::string report;
  EXPECT_TRUE(daemon.ReadStatusReport(&report));  // and the TCP port reports
  EXPECT_EQ(daemon.StderrText(), "");
}

TEST(Startup, TimeoutThatIsAWordStillStarts) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Launch({"soon", daemon.LogDirectory()})) << daemon.LastError();
  EXPECT_TRUE(daemon.WaitUntilServing());
}

TEST(Startup, FailedForkLeavesTheStartingProcessRunningAsTheDaemon) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.LaunchWithoutFork({"30", daemon.LogDirectory()})) << daemon.LastError();
  EXPECT_EQ(daemon.StatusLine(), "");
  // Its ports are not told; its start line shows that it serves.
  for (int tries = 0; tries < 500 && daemon.EventLogLines().empty(); ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(daemon.EventLogLines().size(), 1u);
  EXPECT_TRUE(daemon.IsRunning());
  EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  EXPECT_EQ(daemon.EventLogLines().size(), 2u);
}

TEST(Startup, TwoDaemonsRunSideBySide) {
  DaemonProcess first;
  DaemonProcess second;
  ASSERT_TRUE(first.Start()) << first.LastError();
  ASSERT_TRUE(second.Start()) << second.LastError();
  EXPECT_NE(first.Pid(), second.Pid());
  EXPECT_NE(first.UdpPort(), second.UdpPort());
  EXPECT_NE(first.TcpPort(), second.TcpPort());
  EXPECT_TRUE(first.StillAnswers());
  EXPECT_TRUE(second.StillAnswers());
  EXPECT_EQ(first.Stop(SIGTERM), ProcessEnd::Exited(0));
  EXPECT_TRUE(second.StillAnswers());
}

}  // namespace

}  // namespace klv
