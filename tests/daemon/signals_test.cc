// How the running daemon ends on each signal.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/log_records.h"

namespace klv {

namespace {

// The ids of the event lines written after `mark`.
std::vector<std::string> EventIds(const DaemonProcess& daemon, const OutputMark& mark) {
  std::vector<std::string> ids;
  for (const std::string& line : daemon.EventLogLines(mark)) {
    log_records::EventLine event;
    if (!log_records::ParseEventLine(line, &event)) return {"malformed: " + line};
    ids.push_back(event.id);
  }
  return ids;
}

const std::vector<std::string> kStopLine = {"locking/process/stop"};

TEST(Signals, StopSignalsDuringTheIdleWaitEndWithStatusZero) {
  for (const int signal_number : {SIGTERM, SIGINT, SIGABRT}) {
    SCOPED_TRACE(strsignal(signal_number));
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.LastError();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // well inside its wait
    const OutputMark mark = daemon.Mark();
    // The wait lasts up to a minute: only a prompt stop ends within the bound.
    EXPECT_EQ(daemon.Stop(signal_number, 2000), ProcessEnd::Exited(0));
    EXPECT_EQ(EventIds(daemon, mark), kStopLine);
    EXPECT_EQ(daemon.ErrorLogText(), "");
  }
}

TEST(Signals, SecondStopSignalIsHarmless) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const OutputMark mark = daemon.Mark();
  kill(daemon.Pid(), SIGTERM);
  kill(daemon.Pid(), SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(), ProcessEnd::Exited(0));
  EXPECT_EQ(EventIds(daemon, mark), kStopLine);
}

TEST(Signals, StopSignalAmidTrafficEndsWithStatusZero) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const OutputMark mark = daemon.Mark();
  for (int request = 0; request < 50; ++request) ASSERT_TRUE(daemon.StillAnswers());
  EXPECT_EQ(daemon.Stop(SIGINT), ProcessEnd::Exited(0));
  EXPECT_EQ(EventIds(daemon, mark), kStopLine);
}

TEST(Signals, FaultSignalsWriteThePreparedMessageAndExitNinetyNine) {
  for (const int signal_number : {SIGSEGV, SIGBUS}) {
    SCOPED_TRACE(strsignal(signal_number));
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.LastError();
    const OutputMark mark = daemon.Mark();
    const std::string pid = std::to_string(daemon.Pid());
    const std::string message =
        "\n[unknown time]\tprocess/error\tOstrand Kelvane Lock Daemon(2.01)\nProcess " + pid +
        " has had a fatal signal - SIGSEGV or SIGBUS\nThe Kelvane server will fail.\n"
        "Stop, then restart the server from the command line.\n";
    EXPECT_EQ(daemon.Stop(signal_number), ProcessEnd::Exited(99));
    EXPECT_EQ(daemon.StderrText(mark), message);
    EXPECT_EQ(daemon.ErrorLogText(mark), message);
    EXPECT_EQ(EventIds(daemon, mark), std::vector<std::string>{});  // no stop line
  }
}

TEST(Signals, HangupEndsTheDaemonWithoutAStopLine) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const OutputMark mark = daemon.Mark();
  EXPECT_EQ(daemon.Stop(SIGHUP), ProcessEnd::Signalled(SIGHUP));
  EXPECT_EQ(EventIds(daemon, mark), std::vector<std::string>{});
}

}  // namespace

}  // namespace klv
