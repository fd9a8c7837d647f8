// The event and error logs: the class itself, and the logs of the running
// daemon.

#include "daemon/event_log.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "tests/support/daemon_process.h"
#include "tests/support/log_records.h"
#include "tests/support/process_tools.h"

namespace klv {

namespace {

using log_records::ErrorRecord;
using log_records::EventLine;
using log_records::kBanner;

// A fresh directory for the logs (DaemonProcess only lends its directory;
// no daemon is started).
class EventLogTest : public ::testing::Test {
 protected:
  std::string Read(const char* name) const {
    return process_tools::ReadFileFrom(scratch_.LogDirectory() + name, 0);
  }
  std::vector<EventLine> Events() const {
    std::vector<EventLine> events;
    for (const std::string& line : scratch_.EventLogLines()) {
      EventLine event;
      EXPECT_TRUE(log_records::ParseEventLine(line, &event)) << line;
      events.push_back(event);
    }
    return events;
  }

  DaemonProcess scratch_;  // never started: it lends its temporary directory
  EventLog log_{RefString(scratch_.LogDirectory().c_str())};
};

// The record that `text` holds, which must be exactly one with `id`.
std::string OnlyMessage(const std::string& text, const std::string& id) {
  const std::vector<ErrorRecord> records = log_records::ParseErrorRecords(text);
  if (records.size() != 1) return "not one record: " + text;
  ErrorRecord expected{records[0].stamp, id, kBanner, records[0].message};
  if (log_records::RecordText(expected) != text) return "not a " + id + " record: " + text;
  return records[0].message;
}

TEST_F(EventLogTest, ErrorHeaderIsTimeStampIdAndBanner) {
  const RefString head = EventLog::ErrorHeader("lockd/init/failed");
  const std::vector<ErrorRecord> records =
      log_records::ParseErrorRecords(std::string(head.Text(), head.Length()) + "\n");
  ASSERT_EQ(records.size(), 1u) << head.Text();
  EXPECT_EQ(records[0].id, "lockd/init/failed");
  EXPECT_EQ(records[0].banner, kBanner);
  EXPECT_EQ(records[0].message, "");
}

TEST_F(EventLogTest, OpenLogsWritesTheStartLine) {
  log_.OpenLogs();
  const std::vector<EventLine> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "locking/process/start");
  EXPECT_EQ(events[0].message, kBanner);
  EXPECT_EQ(Read("/errlock.log"), "");
}

TEST_F(EventLogTest, EventIsOneFlushedLine) {
  log_.OpenLogs();
  log_.Event(RefString("area/object/condition"), RefString("a message"));
  const std::vector<EventLine> events = Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1].id, "area/object/condition");
  EXPECT_EQ(events[1].message, "a message");
}

TEST_F(EventLogTest, EventOnClosedLogIsDropped) {
  log_.Event(RefString("area/object/condition"), RefString("lost"));
  log_.OpenLogs();
  log_.CloseLogs();
  log_.Event(RefString("area/object/condition"), RefString("lost too"));
  EXPECT_EQ(Events().size(), 1u);
  EXPECT_EQ(log_.ErrorLogFd(), -1);
}

TEST_F(EventLogTest, ErrorGoesToStandardErrorAndErrorLog) {
  log_.OpenLogs();
  TextBuilder message;
  message << "first line\nsecond line";
  ::testing::internal::CaptureStderr();
  log_.Error("locking/client/failure", message, Severity::kRecoverable);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(OnlyMessage(err, "locking/client/failure"), "first line\nsecond line");
  EXPECT_EQ(OnlyMessage(Read("/errlock.log"), "locking/client/failure"), "first line\nsecond line");
  EXPECT_GE(log_.ErrorLogFd(), 0);
}

TEST_F(EventLogTest, ErrorBeforeOpenReachesStandardErrorOnly) {
  TextBuilder message;
  message << "early";
  ::testing::internal::CaptureStderr();
  log_.Error("locking/client/failure", message, Severity::kRecoverable);
  EXPECT_EQ(OnlyMessage(::testing::internal::GetCapturedStderr(), "locking/client/failure"),
            "early");
  struct stat status;
  EXPECT_NE(stat(scratch_.ErrorLogPath().c_str(), &status), 0);
}

TEST_F(EventLogTest, FatalErrorLogsStopsAndExitsOne) {
  EXPECT_EXIT(
      {
        log_.OpenLogs();
        TextBuilder message;
        message << "the end";
        log_.Error("locking/socket/readerror", message, Severity::kFatal);
      },
      ::testing::ExitedWithCode(1), "locking/socket/readerror");
  EXPECT_EQ(OnlyMessage(Read("/errlock.log"), "locking/socket/readerror"), "the end");
  const std::vector<EventLine> events = Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].id, "locking/process/start");
  EXPECT_EQ(events[1].id, "locking/process/stop");
  EXPECT_EQ(events[1].message, kBanner);
}

TEST_F(EventLogTest, ReopeningKeepsEarlierRecords) {
  log_.OpenLogs();
  log_.OpenLogs();
  EventLog again{RefString(scratch_.LogDirectory().c_str())};
  again.OpenLogs();
  EXPECT_EQ(Events().size(), 3u);
}

TEST(EventLog, DaemonWritesStartAndStopLines) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const std::string stamp = log_records::kTimeStampPattern;
  const std::regex start(stamp +
                         R"(\tlocking/process/start\tOstrand Kelvane Lock Daemon\(2\.01\))");
  const std::regex stop(stamp + R"(\tlocking/process/stop\tOstrand Kelvane Lock Daemon\(2\.01\))");
  std::vector<std::string> lines = daemon.EventLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(lines[0], start)) << lines[0];

  const OutputMark mark = daemon.Mark();
  EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  lines = daemon.EventLogLines(mark);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(lines[0], stop)) << lines[0];
  EXPECT_EQ(daemon.ErrorLogText(), "");
}

TEST(EventLog, RestartAppendsToTheLogs) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  ASSERT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  const OutputMark mark = daemon.Mark();
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  ASSERT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));

  std::vector<std::string> ids;
  for (const std::string& line : daemon.EventLogLines()) {
    EventLine event;
    ASSERT_TRUE(log_records::ParseEventLine(line, &event)) << line;
    ids.push_back(event.id);
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"locking/process/start", "locking/process/stop",
                                           "locking/process/start", "locking/process/stop"}));
  EXPECT_EQ(daemon.EventLogLines(mark).size(), 2u);
}

// These daemons end at once, so they run without forking: the starting
// process itself goes on as the daemon and its exit status can be read.
TEST(EventLog, ErrorLogThatCannotBeOpenedEndsTheDaemon) {
  DaemonProcess daemon;
  ASSERT_EQ(mkdir(daemon.ErrorLogPath().c_str(), 0755), 0);  // stands in the way
  ASSERT_TRUE(daemon.LaunchWithoutFork({"30", daemon.LogDirectory()})) << daemon.LastError();
  EXPECT_EQ(daemon.WaitForExit(), ProcessEnd::Exited(1));
  EXPECT_EQ(OnlyMessage(daemon.StderrText(), "locking/open/errorlog"),
            "Failed to open error log file: " + daemon.ErrorLogPath());
  struct stat status;
  EXPECT_NE(stat(daemon.EventLogPath().c_str(), &status), 0);  // never created
}

TEST(EventLog, EventLogThatCannotBeOpenedIsRecordedInTheErrorLog) {
  DaemonProcess daemon;
  ASSERT_EQ(mkdir(daemon.EventLogPath().c_str(), 0755), 0);
  ASSERT_TRUE(daemon.LaunchWithoutFork({"30", daemon.LogDirectory()})) << daemon.LastError();
  EXPECT_EQ(daemon.WaitForExit(), ProcessEnd::Exited(1));
  const std::string message = "Failed to open event log file: " + daemon.EventLogPath();
  EXPECT_EQ(OnlyMessage(daemon.StderrText(), "locking/open/eventlog"), message);
  EXPECT_EQ(OnlyMessage(daemon.ErrorLogText(), "locking/open/eventlog"), message);
}

}  // namespace

}  // namespace klv
