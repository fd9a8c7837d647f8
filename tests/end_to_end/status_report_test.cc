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

constexpr char kEmptyTables[] =
    "\n== Client information\n"
    "\n== File lock information\n"
    "\nFiles: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n";
class StatusReportEndToEnd : public LockServiceTest {};

TEST_F(StatusReportEndToEnd, EmptyTables) { EXPECT_EQ(ReportAfterBanner(), kEmptyTables); }

TEST_F(StatusReportEndToEnd, IdleFilesAreCountedOnlyAsFiles) {
  ServerProcess pc = NewProcess(1, "pc");
  EXPECT_EQ(pc.OpenStatus({5, 6}, 1, kRead | kDenyNone), kDone);
  EXPECT_EQ(pc.Close({5, 6}, 1), kDone);
  EXPECT_EQ(pc.Lock({7, 7}, 1, 0, 10, 0), kDone);
  EXPECT_EQ(pc.Unlock({7, 7}, 1, 0, 10), kDone);
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("pc             ", kOk, "1", pc) +
                                     "\n== File lock information\n"
                                     "\nFiles: 2 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, ClientNamesFillAFieldOfFifteen) {
  // The client table hashes by session into four buckets with mask 2: 4 and
  // 1 go to bucket 0, 3 and 2 to bucket 2, each bucket in the order of the
  // first open. So the rows read 4, 1, 3, 2 although the opens came 3, 4, 2, 1.
  ServerProcess short_name = NewProcess(3, "pc3");
  ServerProcess fifteen = NewProcess(4, "FIFTEEN-CHARS-X");
  ServerProcess sixteen = NewProcess(2, "SIXTEEN-BYTES-XY");
  // The name field of a request holds 16 bytes, so only "TWENTY-CHARACTER"
  // of this name reaches the daemon.
  ServerProcess twenty = NewProcess(1, "TWENTY-CHARACTERS-AB");
  for (ServerProcess* process : {&short_name, &fifteen, &sixteen, &twenty}) {
    EXPECT_EQ(process->OpenStatus({9, 9}, process->Session(), kRead | kDenyNone), kDone);
    EXPECT_EQ(process->Close({9, 9}, process->Session()), kDone);
  }
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("FIFTEEN-CHARS-X", kOk, "4", fifteen) +
                                     ClientRow("TWENTY-CHARACTE", kOk, "1", twenty) +
                                     ClientRow("pc3            ", kOk, "3", short_name) +
                                     ClientRow("SIXTEEN-BYTES-X", kOk, "2", sixteen) +
                                     "\n== File lock information\n"
                                     "\nFiles: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, RowsOfEveryKindOfLock) {
  // Sessions 2 (bucket 2) and 4 (bucket 0): beta is listed first although
  // alpha opened first. Files [2,0], [4,0] and [1,1] hash (hi XOR lo) to 2,
  // 4 and 0, so bucket 0 holds [4,0] then [1,1] and bucket 2 holds [2,0]:
  // the reverse of the order in which they were made, apart from [1,1].
  ServerProcess alpha = NewProcess(2, "alpha");
  ServerProcess beta = NewProcess(4, "beta");
  // The oplock keeps its type as asked: 3.
  EXPECT_EQ(Hex(alpha.Open({2, 0}, 7, kReadWrite | kDenyWrite,
                           {.oplockwanted = 3, .path = "/srv/share/a.dat"})),
            Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(Hex(beta.Open({4, 0}, 3, 5 | kDenyNone, {.path = "/srv/share/b.dat"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(alpha.OpenStatus({4, 0}, 8, kRead | kDenyNone), kDone);
  // The last granted open with a path names the file.
  EXPECT_EQ(Hex(alpha.Open({4, 0}, 10, kMsdos | 0x50, {.path = "/srv/share/B.DAT"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(beta.Lock({1, 1}, 4, 100, 50, 1), kDone);
  EXPECT_EQ(alpha.Lock({1, 1}, 9, 0, 10, 2), kDone);
  EXPECT_EQ(alpha.Lock({2, 0}, 7, 200, 10, 1), kDone);

  EXPECT_EQ(ReportAfterBanner(),
            "\n== Client information\n" + std::string(kClientHeading) +
                ClientRow("beta           ", kOk, "4", beta) +
                ClientRow("alpha          ", kOk, "2", alpha) +
                "\n== File lock information\n"
                "[4,0] /srv/share/B.DAT\n"
                "  Open locks: [clientfid type]\n"
                "    beta            3 5(=READ)DENY_NONE\n"
                "    alpha           8 OPEN_READ|DENY_NONE\n"
                "    alpha           10 OPEN_MSDOS(=READWRITE)|80(=DENY_NONE)\n"
                "\n"
                "[1,1] \n"
                "  Record locks: [clientfid type offset length]\n"
                "    beta            4 1 100 50\n"
                "    alpha           9 0 0 10\n"
                "\n"
                "[2,0] /srv/share/a.dat\n"
                "  Open locks: [clientfid type]\n"
                "    alpha           7 OPEN_READWRITE|DENY_WRITE\n"
                "  Op locks: [clientfid type]\n"
                "    alpha           7 3\n"
                "  Record locks: [clientfid type offset length]\n"
                "    alpha           7 1 200 10\n"
                "\n"
                "\nFiles: 3 Used: 3 OpenLocks: 4 RecordLocks: 3 OpLocks: 1\n");
}

TEST_F(StatusReportEndToEnd, OpenModeTexts) {
  // Files [8,0], [16,0], [32,0] and [64,0] all hash to bucket 0, where they
  // are listed in the order they were made.
  ServerProcess pc = NewProcess(1, "pc");
  for (const uint32_t mode : {0x03u, 0x01u, 0x0Fu, 0x02u, 0x07u, 0x60u}) {
    EXPECT_EQ(pc.OpenStatus({8, 0}, mode, mode), kDone) << "mode " << mode;
  }
  EXPECT_EQ(pc.OpenStatus({16, 0}, 1, kRead | kDenyRead), kDone);
  EXPECT_EQ(pc.OpenStatus({16, 0}, 2, kWrite | kDenyWrite), kDone);
  EXPECT_EQ(pc.OpenStatus({32, 0}, 1, kReadWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(pc.OpenStatus({64, 0}, 1, 0x7E), kDone);

  EXPECT_EQ(ReportAfterBanner(),
            "\n== Client information\n" + std::string(kClientHeading) +
                ClientRow("pc             ", kOk, "1", pc) +
                "\n== File lock information\n"
                "[8,0] \n"
                "  Open locks: [clientfid type]\n"
                "    pc              3 OPEN_EXECUTE(=READ)|DENY_MSDOS\n"
                "    pc              1 OPEN_WRITE|DENY_MSDOS\n"
                "    pc              15 OPEN_MSDOS(=READWRITE)|DENY_MSDOS\n"
                "    pc              2 OPEN_READWRITE|DENY_MSDOS\n"
                "    pc              7 7(=READ)DENY_MSDOS\n"
                "    pc              96 OPEN_READ|96(=DENY_NONE)\n"
                "\n"
                "[16,0] \n"
                "  Open locks: [clientfid type]\n"
                "    pc              1 OPEN_READ|DENY_READ\n"
                "    pc              2 OPEN_WRITE|DENY_WRITE\n"
                "\n"
                "[32,0] \n"
                "  Open locks: [clientfid type]\n"
                "    pc              1 OPEN_READWRITE|DENY_READWRITE\n"
                "\n"
                "[64,0] \n"
                "  Open locks: [clientfid type]\n"
                "    pc              1 14(=READ)112(=DENY_NONE)\n"
                "\n"
                "\nFiles: 4 Used: 4 OpenLocks: 10 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, OpenModeTextsWithDenyNone) {
  ServerProcess pc = NewProcess(1, "pc");
  uint32_t clientfid = 1;
  for (const uint32_t mode : {0x47u, 0x4Fu, 0x50u, 0x43u}) {
    EXPECT_EQ(pc.OpenStatus({8, 0}, clientfid++, mode), kDone) << "mode " << mode;
  }
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("pc             ", kOk, "1", pc) +
                                     "\n== File lock information\n"
                                     "[8,0] \n"
                                     "  Open locks: [clientfid type]\n"
                                     "    pc              1 7(=READ)DENY_NONE\n"
                                     "    pc              2 OPEN_MSDOS(=READWRITE)|DENY_NONE\n"
                                     "    pc              3 OPEN_READ|80(=DENY_NONE)\n"
                                     "    pc              4 OPEN_EXECUTE(=READ)|DENY_NONE\n"
                                     "\n"
                                     "\nFiles: 1 Used: 1 OpenLocks: 4 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, OpenWithoutAPathKeepsTheNameAndANewPathReplacesIt) {
  ServerProcess pc = NewProcess(1, "pc");
  EXPECT_EQ(Hex(pc.Open({3, 4}, 1, kRead | kDenyNone, {.path = "/first"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(pc.OpenStatus({3, 4}, 2, kRead | kDenyNone), kDone);  // an empty path
  const std::string clients = "\n== Client information\n" + std::string(kClientHeading) +
                              ClientRow("pc             ", kOk, "1", pc) +
                              "\n== File lock information\n";
  const std::string opens =
      "  Open locks: [clientfid type]\n"
      "    pc              1 OPEN_READ|DENY_NONE\n"
      "    pc              2 OPEN_READ|DENY_NONE\n";
  EXPECT_EQ(ReportAfterBanner(),
            clients + "[3,4] /first\n" + opens +
                "\n\nFiles: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0\n");

  EXPECT_EQ(Hex(pc.Open({3, 4}, 3, kRead | kDenyNone, {.path = "/second"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(ReportAfterBanner(),
            clients + "[3,4] /second\n" + opens +
                "    pc              3 OPEN_READ|DENY_NONE\n"
                "\n\nFiles: 1 Used: 1 OpenLocks: 3 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, LockOfAClientWithoutEntryHasABlankName) {
  ServerProcess stranger = NewProcess(5, "stranger");
  EXPECT_EQ(stranger.Lock({0xFFFFFFFF, 0x80000000}, 3, 0, 10, 0), kDone);
  EXPECT_EQ(ReportAfterBanner(),
            "\n== Client information\n"
            "\n== File lock information\n"
            "[4294967295,2147483648] \n"
            "  Record locks: [clientfid type offset length]\n"
            "                    3 0 0 10\n"
            "\n"
            "\nFiles: 1 Used: 1 OpenLocks: 0 RecordLocks: 1 OpLocks: 0\n");
}

TEST_F(StatusReportEndToEnd, ClientAwaitingAProbeAnswerIsInWait) {
  ServerProcess slow = NewProcess(6, "slow");
  std::string probe;
  std::string reply;
  ASSERT_TRUE(slow.Send(slow.OpenRequest({3, 0}, 1, kRead, {.oplockwanted = 1})));
  ASSERT_TRUE(slow.Udp().Receive(&probe));
  ASSERT_TRUE(slow.Udp().Receive(&reply));
  EXPECT_EQ(Hex(reply), Hex(Words({1, kTag, 0, 0, 1})));
  const std::string files =
      "\n== File lock information\n"
      "[3,0] \n"
      "  Open locks: [clientfid type]\n"
      "    slow            1 OPEN_READ|DENY_MSDOS\n"
      "  Op locks: [clientfid type]\n"
      "    slow            1 1\n"
      "\n"
      "\nFiles: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1\n";
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("slow           ", kWaiting, "6", slow) + files);

  probe.replace(32, 4, wire::Word(0));  // the late answer
  ASSERT_TRUE(slow.Send(probe));
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("slow           ", kOk, "6", slow) + files);
}

TEST_F(StatusReportEndToEnd, NamesAndPathsPassThroughByteForByte) {
  // Seven bytes of UTF-8 padded with eight blanks, and a path in ISO 8859-1.
  ServerProcess pc = NewProcess(1, "m\xC3\xBCller");
  EXPECT_EQ(Hex(pc.Open({8, 0}, 1, kRead | kDenyNone, {.path = "/srv/\xE9t\xE9.txt"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("m\xC3\xBCller        ", kOk, "1", pc) +
                                     "\n== File lock information\n"
                                     "[8,0] /srv/\xE9t\xE9.txt\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    m\xC3\xBCller         1 OPEN_READ|DENY_NONE\n"
                                     "\n"
                                     "\nFiles: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
}

}  // namespace

}  // namespace klv
