// lockinfo's reading of the status report, and what it makes of it: on a
// report written by hand, and on the report of the real daemon.

#include "tools/lockinfo/report_parser.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>

#include "tests/end_to_end/lock_service_fixture.h"
#include "tools/lockinfo/reading_search.h"
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

std::string last_error;  // what the last reading said on failure

ReportReading Read(std::string_view text, StatusReport* report,
                   ReportScope scope = ReportScope::kWhole) {
  return ParseStatusReport(text, scope, report, &last_error);
}

TEST(ReportParser, ReadsEveryRowOfAWrittenReport) {
  StatusReport report;
  ASSERT_EQ(Read(kReport, &report), ReportReading::kWhole) << last_error;
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
  for (size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(Read(whole.substr(0, length), &report, ReportScope::kUnforgeable),
              ReportReading::kNotAReport)
        << length;
  }
  struct Change {
    std::string from, to, error;
  } const kChanges[] = {
      {"  OK  ", "  ok  ", "line 5: expected \" WAIT    \""},
      {"[10,20]", "[10;20]", "lines 9 to 21: the files listed do not add up to the totals line"},
      {"0 100", "0 x100", "lines 9 to 21: the files listed do not add up to the totals line"},
      {"Files: 3", "Files: 4294967296", "line 21: expected a number below 2^32"},
      {"Used: 2", "Used: 3", "lines 9 to 21: the files listed do not add up to the totals line"}};
  for (const auto& [from, to, error] : kChanges) {
    std::string changed = whole;
    changed.replace(changed.find(from), from.size(), to);
    EXPECT_EQ(Read(changed, &report), ReportReading::kNotAReport) << to;
    EXPECT_EQ(last_error, error);
  }
}

TEST(ReportParser, JsonKeepsTheRowsAndEscapesNames) {
  StatusReport report;
  ASSERT_EQ(Read(kReport, &report), ReportReading::kWhole) << last_error;
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

// Two clients, each with one open; mallory's path is `path`.
std::string TwoFiles(const std::string& path) {
  return "2024/05/17 14:03:07.412 Ostrand Kelvane Lock Daemon 2.01.905\n\n"
         "== Client information\n  Name            State SessionId   Address\n"
         "  alice             OK     1    127.0.0.1:1\n  mallory           OK     5    *:2\n"
         "\n== File lock information\n[10,20] /real\n  Open locks: [clientfid type]\n"
         "    alice           1 OPEN_READ|DENY_NONE\n\n[30,40] " +
         path +
         "\n  Open locks: [clientfid type]\n    mallory         2 OPEN_READ|DENY_NONE\n\n"
         "\nFiles: 2 Used: 2 OpenLocks: 2 RecordLocks: 0 OpLocks: 0\n";
}

TEST(ReportParser, PathsWithLineBreaksAreReadByTheTotalsOrCalledAmbiguous) {
  const auto forged = [](const std::string& holder) {
    return "/v\n  Open locks: [clientfid type]\n    " + holder +
           " 9 OPEN_READ|DENY_NONE\n\n[1,2] /f";
  };
  struct Case {
    std::string path;
    ReportReading reading;
    size_t files;
  } const kCases[] = {{"a\nb\\c", ReportReading::kWhole, 2},
                      {forged("nobody         "), ReportReading::kWhole, 2},  // not a client
                      {forged("alice          "), ReportReading::kAmbiguous, 0}};
  for (const Case& c : kCases) {
    const std::string text = TwoFiles(c.path);
    StatusReport report;
    ASSERT_EQ(Read(text, &report), c.reading) << c.path;
    ASSERT_EQ(report.files.size(), c.files) << c.path;
    EXPECT_EQ(Read(text, &report, ReportScope::kUnforgeable), ReportReading::kWhole);
    EXPECT_EQ(report.totals.open_locks, 2u);
  }
  StatusReport report;
  Read(TwoFiles(kCases[0].path), &report);
  EXPECT_EQ(report.files[1].path, "a\nb\\c");
  EXPECT_EQ(ReportText(report), TwoFiles("a\\nb\\\\c"));
  Read(TwoFiles(kCases[2].path), &report);
  ASSERT_EQ(report.ambiguous.size(), 1u);
  EXPECT_EQ(report.ambiguous[0].first_line, 9u);
  EXPECT_EQ(report.ambiguous[0].last_line, 20u);
  const std::string text = ReportText(report);
  EXPECT_NE(text.find("\n? [1,2] /f\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("\n[1,2]"), std::string::npos) << text;
}

// Forty files, each of which could close with an open row or with an oplock
// row, against totals that ask for 21 of each: there is no reading, and only
// the bound on the search ends it before its 2^40 paths.
TEST(ReadingSearch, AnUnreachableTotalEndsTheSearchAtItsBound) {
  constexpr size_t kFiles = 40;
  std::vector<ListsCandidate> candidates;
  for (size_t head = 0; head < 10 * kFiles; head += 10) {
    candidates.push_back({head + 2, head + 10, {1, 0, 0}});
    candidates.push_back({head + 3, head + 10, {0, 1, 0}});
  }
  const std::function<size_t(size_t)> path_start = [](size_t position) {
    return position % 10 == 0 && position < 10 * kFiles ? position + 1 : SIZE_MAX;
  };
  std::vector<Reading> readings;
  EXPECT_EQ(
      FindReadings(0, 10 * kFiles, candidates, path_start, {kFiles, 21, 21, 0}, 10, &readings),
      SearchResult::kTooMany);
  EXPECT_TRUE(readings.empty());
}

// lockinfo against a status port that accepts one connection and then sends
// `sends` and closes, keeps the connection open in silence, or sends for ever.
TEST(Lockinfo, BadServersAreErrors) {
  enum class Then { kClose, kSilence, kFlood };
  struct Server {
    std::string sends;
    Then then;
    const char* says;
  } const kServers[] = {
      {"", Then::kClose, "closed the connection without a report"},
      {"", Then::kSilence, "nothing came for 0.3 seconds (--timeout)"},
      {std::string(kReport).substr(0, 500), Then::kClose, "expected \"\\nFiles: \""},
      {"", Then::kFlood, "more than 100000 bytes (--max-bytes)"}};
  for (const Server& server : kServers) {
    uint16_t port = 0;
    const int listener = ListenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    std::thread serve([&] {
      pollfd watched = {listener, POLLIN, 0};
      if (poll(&watched, 1, 5000) != 1) return;
      const int connection = accept(listener, nullptr, nullptr);
      send(connection, server.sends.data(), server.sends.size(), MSG_NOSIGNAL);
      const std::string piece(65536, 'x');
      pollfd peer = {connection, POLLIN, 0};  // lockinfo closes: readable at its end
      for (int round = 0; server.then != Then::kClose && round < 500 && poll(&peer, 1, 10) == 0;
           ++round) {
        if (server.then == Then::kFlood) send(connection, piece.data(), piece.size(), MSG_NOSIGNAL);
      }
      close(connection);
    });
    const ProgramRun run =
        RunProgram(LOCKINFO_PATH, {"--timeout=0.3", "--max-bytes", "100000", std::to_string(port)});
    serve.join();
    close(listener);
    EXPECT_EQ(run.end, ProcessEnd::Exited(13)) << server.says;
    EXPECT_NE(run.err.find(server.says), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
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
  ASSERT_EQ(Read(text, &report), ReportReading::kWhole) << last_error << "\n" << text;
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
}

}  // namespace

}  // namespace klv
