#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "foundation/output_stream.h"
#include "tests/lockservice/daemon_fixture.h"

namespace {

using bytes::OpenBytes;
using bytes::Words;

const std::string kNoName(15, ' ');

class StatusReportTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    a_ = &AddClient();
    b_ = &AddClient();
  }

  // The whole report, banner included.
  std::string FullReport() {
    TextBuilder builder;
    daemon_->WriteStatusReport(builder);
    const RefString text = builder.Bytes();
    return std::string(text.Text(), text.Length());
  }

  TestClient* a_ = nullptr;
  TestClient* b_ = nullptr;
};

TEST_F(StatusReportTest, BannerCarriesTheTimeAndTheVersion) {
  const std::string report = FullReport();
  const std::string banner = report.substr(0, report.find('\n') + 1);
  EXPECT_TRUE(std::regex_match(banner, std::regex("[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:"
                                                  "[0-9]{2}\\.[0-9]{3} Ostrand Kelvane Lock "
                                                  "Daemon 2\\.01\\.905\n")))
      << banner;
}

TEST_F(StatusReportTest, EmptyTablesGiveTheHeadingsAlone) {
  EXPECT_EQ(Report(),
            "\n== Client information\n"
            "\n== File lock information\n"
            "\nFiles: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportTest, IdleFileIsCountedInFilesOnly) {
  ASSERT_EQ(Exchange(*a_, bytes::LockBytes({1, 1, 4, 0, 0, 10, 0})), Words({2, 0, 0, 0}));
  ASSERT_EQ(Exchange(*a_, bytes::UnlockBytes({1, 1, 4, 0, 0, 10})), Words({3, 0, 0, 0}));
  EXPECT_EQ(Report(),
            "\n== Client information\n"
            "\n== File lock information\n"
            "\nFiles: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(StatusReportTest, NamesAreCutOrPaddedToFifteenBytes) {
  ASSERT_EQ(Exchange(*a_, OpenBytes({.session = 1, .name = "FIFTEEN-BYTES15"})),
            Words({1, 0, 0, 0, 0}));
  ASSERT_EQ(Exchange(*b_, OpenBytes({.session = 2, .name = "TWENTY-BYTES-NAME-20"})),
            Words({1, 0, 0, 0, 0}));
  const std::string report = Report();
  const std::string clients = report.substr(0, report.find("\n== File"));
  EXPECT_EQ(clients,
            "\n== Client information\n"
            "  Name            State SessionId   Address\n" +
                ClientRow("FIFTEEN-BYTES15", "  OK     ", 1, *a_) +
                ClientRow("TWENTY-BYTES-NA", "  OK     ", 2, *b_));
}

TEST_F(StatusReportTest, EveryKindOfLockHasItsRows) {
  ASSERT_EQ(Exchange(*a_, OpenBytes({.session = 1,
                                     .clientfid = 3,
                                     .hi = 1,
                                     .openmode = 0x22,
                                     .oplock = 7,
                                     .name = "ALPHA",
                                     .path = "/docs/a.txt"})),
            Words({1, 0, 0, 0, 1}));
  ASSERT_EQ(Exchange(*a_, bytes::LockBytes({1, 3, 1, 0, 100, 50, 1})), Words({2, 0, 0, 0}));
  ASSERT_EQ(Exchange(*a_, bytes::LockBytes({1, 3, 1, 0, 200, 10, 2})), Words({2, 0, 0, 0}));
  // A range alone makes no client entry: its holder has no name.
  ASSERT_EQ(Exchange(*b_, bytes::LockBytes({2, 4, 2, 0, 0, 5, 0})), Words({2, 0, 0, 0}));
  EXPECT_EQ(Report(),
            "\n== Client information\n"
            "  Name            State SessionId   Address\n" +
                ClientRow("ALPHA          ", "  OK     ", 1, *a_) +
                "\n== File lock information\n"
                "[1,0] /docs/a.txt\n"
                "  Open locks: [clientfid type]\n"
                "    ALPHA           3 OPEN_READWRITE|DENY_WRITE\n"
                "  Op locks: [clientfid type]\n"
                "    ALPHA           3 7\n"
                "  Record locks: [clientfid type offset length]\n"
                "    ALPHA           3 1 100 50\n"
                "    ALPHA           3 0 200 10\n"
                "\n"
                "[2,0] \n"
                "  Record locks: [clientfid type offset length]\n"
                "    " +
                kNoName +
                " 4 0 0 5\n"
                "\n"
                "\nFiles: 2 Used: 2 OpenLocks: 1 RecordLocks: 3 OpLocks: 1\n");
}

TEST_F(StatusReportTest, OpenRowsShowTheModeAsText) {
  const uint32_t modes[] = {0x47, 0x4F, 0x50, 0x43};
  uint32_t clientfid = 1;
  for (uint32_t mode : modes) {
    ASSERT_EQ(Exchange(*a_, OpenBytes({.clientfid = clientfid++, .openmode = mode})),
              Words({1, 0, 0, 0, 0}))
        << "mode " << mode;
  }
  const std::string report = Report();
  EXPECT_NE(report.find("  Open locks: [clientfid type]\n"
                        "    PC1             1 7(=READ)DENY_NONE\n"
                        "    PC1             2 OPEN_MSDOS(=READWRITE)|DENY_NONE\n"
                        "    PC1             3 OPEN_READ|80(=DENY_NONE)\n"
                        "    PC1             4 OPEN_EXECUTE(=READ)|DENY_NONE\n"
                        "\n"),
            std::string::npos)
      << report;
}

TEST_F(StatusReportTest, NamesAndPathsPassByteForByte) {
  ASSERT_EQ(Exchange(*a_, OpenBytes({.name = "CAF\xC9", .path = "/d\xE9j\xE0"})),
            Words({1, 0, 0, 0, 0}));
  const std::string report = Report();
  EXPECT_NE(report.find("  CAF\xC9" + std::string(11, ' ') + " "), std::string::npos) << report;
  EXPECT_NE(report.find("[0,0] /d\xE9j\xE0\n"), std::string::npos) << report;
}

}  // namespace
