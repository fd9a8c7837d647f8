// lockinfo's reading of the status report, and what it makes of it: on a
// report written by hand, and on the report of the real daemon.

#include "tools/lockinfo/report_parser.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/end_to_end/lock_service_fixture.h"
#include "tools/lockinfo/report_writers.h"

namespace klv {

namespace {

constexpr char kReport[] =
    "2024/05/17 14:03:07.412 Ostrand Kelvane Lock Daemon 2.01.905\n"
    "\n"
    "== Client information\n"
    "  Name            State SessionId   Address\n"
    "  FIFTEEN-CHARS-X   OK     4    127.0.0.1:40001\n"
    "  my \"pc\"\xE9         WAIT    7    *:40002\n"
    "\n"
    "== File lock information\n"
    "[10,20] /srv/a b.txt\n"
    "  Open locks: [clientfid type]\n"
    "    FIFTEEN-CHARS-X 3 OPEN_READWRITE|DENY_WRITE\n"
    "    my \"pc\"\xE9        5 7(=READ)DENY_NONE\n"
    "  Op locks: [clientfid type]\n"
    "    my \"pc\"\xE9        5 1\n"
    "\n"
    "[4294967295,0] /srv/b\n"
    "  Record locks: [clientfid type offset length]\n"
    "                    9 0 100 4294967295\n"
    "\n"
    "\n"
    "Files: 3 Used: 2 OpenLocks: 2 RecordLocks: 1 OpLocks: 1\n";

TEST(ReportParser, ReadsEveryRowOfAWrittenReport) {
  StatusReport report;
  std::string error;
  ASSERT_EQ(ParseStatusReport(kReport, ReportScope::kWhole, &report, &error), ReportReading::kWhole) << error;
  EXPECT_EQ(report.time, "2024/05/17 14:03:07.412");
  EXPECT_EQ(report.version, "2.01.905");
  ASSERT_EQ(report.clients.size(), 2u);
  EXPECT_EQ(report.clients[1].name, "my \"pc\"\xE9");
  EXPECT_EQ(report.clients[1].state, "WAIT");
  EXPECT_EQ(report.clients[1].session, 7u);
  EXPECT_EQ(report.clients[1].address, "*");
  EXPECT_EQ(report.clients[1].port, 40002u);
  ASSERT_EQ(report.files.size(), 2u);
  const ReportFile& first = report.files[0];
  EXPECT_EQ(first.path, "/srv/a b.txt");
  ASSERT_EQ(first.opens.size(), 2u);
  EXPECT_EQ(first.opens[0].holder, "FIFTEEN-CHARS-X");
  EXPECT_EQ(first.opens[1].mode, "7(=READ)DENY_NONE");
  ASSERT_EQ(first.oplocks.size(), 1u);
  EXPECT_EQ(first.oplocks[0].type, 1u);
  EXPECT_TRUE(first.record_locks.empty());
  const ReportFile& second = report.files[1];
  EXPECT_EQ(second.key_hi, 4294967295u);
  ASSERT_EQ(second.record_locks.size(), 1u);
  EXPECT_EQ(second.record_locks[0].holder, "");  // a holder no longer in the client table
  EXPECT_EQ(second.record_locks[0].length, 4294967295u);
  EXPECT_EQ(report.totals.files, 3u);
  EXPECT_EQ(report.totals.used, 2u);
  EXPECT_EQ(report.totals.oplocks, 1u);
}

TEST(ReportParser, EveryCutOrChangedReportIsRefused) {
  const std::string whole = kReport;
  StatusReport report;
  std::string error;
  for (size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(ParseStatusReport(whole.substr(0, length), ReportScope::kUnforgeable, &report, &error), ReportReading::kNotAReport) << length;
  }
  const std::pair<std::string, std::string> kChanges[] = {{"  OK  ", "  ok  "},
                                                          {"[10,20]", "[10;20]"},
                                                          {"0 100", "0 x100"},
                                                          {"Files: 3", "Files: 4294967296"}};
  for (const auto& [from, to] : kChanges) {
    std::string changed = whole;
    changed.replace(changed.find(from), from.size(), to);
    EXPECT_EQ(ParseStatusReport(changed, ReportScope::kWhole, &report, &error), ReportReading::kNotAReport) << to;
  }
  EXPECT_EQ(error, "line 21: expected a number below 2^32");
}

TEST(ReportParser, JsonKeepsTheRowsAndEscapesNames) {
  StatusReport report;
  std::string error;
  ASSERT_EQ(ParseStatusReport(kReport, ReportScope::kWhole, &report, &error), ReportReading::kWhole) << error;
  report.clients.resize(1);
  report.files.resize(1);
  EXPECT_EQ(ReportJson(report),
            R"({"time": "2024/05/17 14:03:07.412", "version": "2.01.905",
  "clients": [
    {"name": "FIFTEEN-CHARS-X", "state": "OK", "session": 4, "address": "127.0.0.1", "port": 40001}
  ],
  "files": [
    {"key_hi": 10, "key_lo": 20, "path": "/srv/a b.txt",
      "opens": [
        {"holder": "FIFTEEN-CHARS-X", "clientfid": 3, "mode": "OPEN_READWRITE|DENY_WRITE"},
        {"holder": "my \"pc\"\u00e9", "clientfid": 5, "mode": "7(=READ)DENY_NONE"}
      ],
      "oplocks": [
        {"holder": "my \"pc\"\u00e9", "clientfid": 5, "type": 1}
      ],
      "record_locks": []}
  ],
  "totals": {"files": 3, "used": 2, "open_locks": 2, "record_locks": 1, "oplocks": 1}}
)");
}

class ReportParserOnDaemon : public LockServiceTest {};

TEST_F(ReportParserOnDaemon, ReadsTheReportOfARunningDaemon) {
  ServerProcess alpha = NewProcess(2, "alpha");
  ServerProcess beta = NewProcess(4, "beta");
  const FileKey file = FreshFile();
  EXPECT_EQ(alpha.OpenStatus(file, 1, kReadWrite | kDenyWrite), wire::kDone);
  EXPECT_EQ(beta.OpenStatus(file, 2, kRead | kDenyNone), wire::kDone);
  EXPECT_EQ(alpha.Lock(file, 1, 100, 50, 0), wire::kDone);
  ReportAfterBanner();  // every request above is served
  std::string text;
  ASSERT_TRUE(daemon_.ReadStatusReport(&text));
  StatusReport report;
  std::string error;
  ASSERT_EQ(ParseStatusReport(text, ReportScope::kWhole, &report, &error), ReportReading::kWhole) << error << "\n" << text;
  ASSERT_EQ(report.clients.size(), 2u);
  for (const ReportClient& client : report.clients) {
    const bool is_alpha = client.name == "alpha";
    EXPECT_EQ(client.session, is_alpha ? 2u : 4u) << client.name;
    EXPECT_EQ(client.address, "127.0.0.1");
    EXPECT_EQ(client.port, is_alpha ? alpha.Port() : beta.Port());
  }
  ASSERT_EQ(report.files.size(), 1u);
  EXPECT_EQ(report.files[0].key_lo, file.lo);
  ASSERT_EQ(report.files[0].opens.size(), 2u);
  EXPECT_EQ(report.files[0].opens[0].mode, "OPEN_READWRITE|DENY_WRITE");
  ASSERT_EQ(report.files[0].record_locks.size(), 1u);
  EXPECT_EQ(report.files[0].record_locks[0].offset, 100u);
  const std::string metrics = ReportMetrics(report);
  EXPECT_NE(metrics.find("\nklvlockd_clients{state=\"ok\"} 2\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("\nklvlockd_open_locks 2\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("\nklvlockd_record_locks 1\n"), std::string::npos) << metrics;
}

}  // namespace

}  // namespace klv
