// The status report of the running daemon, read over TCP and compared
// character for character after its banner line.

#include <cstdint>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::Hex;
using wire::kDone;
using wire::Words;

class StatusReportEndToEnd : public LockServiceTest {};

TEST_F(StatusReportEndToEnd, EmptyTablesAndIdleFiles) {
  const std::string empty_files = "\n== File lock information\n\nFiles: ";
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + empty_files +
                                     "0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
  // Files that held locks once count as files, but not as used.
  ServerProcess pc = NewProcess(1, "pc");
  EXPECT_EQ(pc.OpenStatus({5, 6}, 1, kRead | kDenyNone), kDone);
  EXPECT_EQ(pc.Close({5, 6}, 1), kDone);
  EXPECT_EQ(pc.Lock({7, 7}, 1, 0, 10, 0), kDone);
  EXPECT_EQ(pc.Unlock({7, 7}, 1, 0, 10), kDone);
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("pc             ", kOk, "1", pc) + empty_files +
                                     "2 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, RowsOfEveryKindOfLock) {
  ServerProcess alpha = NewProcess(2, "alpha");
  // The last granted open with a path names the file.
  EXPECT_EQ(Hex(alpha.Open({2, 0}, 7, kReadWrite | kDenyWrite, {.path = "/srv/a.dat"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(Hex(alpha.Open({2, 0}, 8, kRead | kDenyNone, {.path = "/srv/A.DAT"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(alpha.OpenStatus({2, 0}, 9, kRead | kDenyNone), kDone);  // no path: the name stays
  // The oplock keeps its type as asked: 3.
  EXPECT_EQ(Hex(alpha.Open({6, 4}, 1, kRead, {.oplockwanted = 3, .path = "/srv/\xE9"})),
            Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(alpha.Lock({6, 4}, 4, 100, 50, 1), kDone);
  EXPECT_EQ(alpha.Lock({6, 4}, 9, 0, 10, 2), kDone);
  // A client without an entry (only an open makes one) has a blank name.
  EXPECT_EQ(NewProcess(5, "stranger").Lock({6, 4}, 3, 0xFFFFFFFF, 1, 0), kDone);
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("alpha          ", kOk, "2", alpha) +
                                     "\n== File lock information\n"
                                     "[2,0] /srv/A.DAT\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    alpha           7 OPEN_READWRITE|DENY_WRITE\n"
                                     "    alpha           8 OPEN_READ|DENY_NONE\n"
                                     "    alpha           9 OPEN_READ|DENY_NONE\n"
                                     "\n"
                                     "[6,4] /srv/\xE9\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    alpha           1 OPEN_READ|DENY_MSDOS\n"
                                     "  Op locks: [clientfid type]\n"
                                     "    alpha           1 3\n"
                                     "  Record locks: [clientfid type offset length]\n"
                                     "    alpha           4 1 100 50\n"
                                     "    alpha           9 0 0 10\n"
                                     "                    3 0 4294967295 1\n"
                                     "\n"
                                     "\nFiles: 2 Used: 2 OpenLocks: 4 RecordLocks: 3 OpLocks: 1\n");
}

// Names are cut or padded to 15 characters (a request's name field holds 16
// bytes, so only "TWENTY-CHARACTER" arrives) and pass byte for byte.
TEST_F(StatusReportEndToEnd, ClientRowsAndOpenModeTexts) {
  const char* const kNames[][2] = {{"pc3", "pc3            "},
                                   {"FIFTEEN-CHARS-X", "FIFTEEN-CHARS-X"},
                                   {"SIXTEEN-BYTES-XY", "SIXTEEN-BYTES-X"},
                                   {"TWENTY-CHARACTERS-AB", "TWENTY-CHARACTE"},
                                   {"m\xC3\xBCller", "m\xC3\xBCller        "}};
  const std::pair<uint32_t, std::string> kModes[] = {
      {0x11, "OPEN_WRITE|DENY_READWRITE"},        {0x33, "OPEN_EXECUTE(=READ)|DENY_READ"},
      {0x4F, "OPEN_MSDOS(=READWRITE)|DENY_NONE"}, {0x57, "7(=READ)80(=DENY_NONE)"},
      {0x6E, "14(=READ)96(=DENY_NONE)"},          {0xF0, "OPEN_READ|112(=DENY_NONE)"}};
  std::vector<std::string> lines;
  for (uint32_t index = 0; index < 5; ++index) {
    ServerProcess process = NewProcess(index, kNames[index][0]);
    EXPECT_EQ(process.OpenStatus(FreshFile(), 1, kModes[index].first), kDone);
    lines.push_back(ClientRow(kNames[index][1], kOk, std::to_string(index), process));
    lines.push_back("    " + std::string(kNames[index][1]) + " 1 " + kModes[index].second + "\n");
  }
  // An oplock's grant probes the new client, which stays in WAIT until it answers.
  ServerProcess slow = NewProcess(8, "slow");
  std::string probe;
  ASSERT_TRUE(slow.Send(slow.OpenRequest({8, 8}, 1, kModes[5].first, {.oplockwanted = 1})));
  ASSERT_TRUE(slow.Udp().Receive(&probe));
  EXPECT_EQ(Hex(slow.Next()), Hex(Words({1, kTag, 0, 0, 1})));
  lines.push_back(ClientRow("slow           ", kWaiting, "8", slow));
  lines.push_back("    slow            1 " + kModes[5].second + "\n");
  const std::string report = ReportAfterBanner();
  for (const std::string& line : lines) EXPECT_NE(report.find(line), std::string::npos) << line;
  probe.replace(32, 4, wire::Word(0));  // the late answer
  ASSERT_TRUE(slow.Send(probe));
  EXPECT_NE(ReportAfterBanner().find(ClientRow("slow           ", kOk, "8", slow)),
            std::string::npos);
}

}  // namespace

}  // namespace klv
