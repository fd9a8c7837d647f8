#include <gtest/gtest.h>

#include <string>

#include "tests/lockservice/daemon_fixture.h"

namespace {

using bytes::OpenBytes;
using bytes::Words;

// The sharing rules as the file server gives them; row = the open held,
// column = the new open. R, W, RW = read, write, read-write access; M, N, DR,
// DW, DRW = DENY_MSDOS, DENY_NONE, DENY_READ, DENY_WRITE, DENY_READWRITE.
constexpr int kAgree[15][15] = {
    //         R: M  N DR DW DRW  W: M  N DR DW DRW RW: M  N DR DW DRW
    /* R M    */ {1, 1, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},
    /* R N    */ {1, 1, 0, 1, 0, 1, 1, 0, 1, 0, 1, 1, 0, 1, 0},
    /* R DR   */ {0, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0},
    /* R DW   */ {1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    /* R DRW  */ {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    /* W M    */ {1, 1, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},
    /* W N    */ {0, 1, 1, 0, 0, 0, 1, 1, 0, 0, 0, 1, 1, 0, 0},
    /* W DR   */ {0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0},
    /* W DW   */ {0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    /* W DRW  */ {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    /* RW M   */ {1, 1, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},
    /* RW N   */ {0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0},
    /* RW DR  */ {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0},
    /* RW DW  */ {0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
    /* RW DRW */ {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
};

// The open-mode word of each row: access 0, 1, 2 with deny 0x00, 0x40, 0x30,
// 0x20, 0x10.
uint32_t ModeOfRow(int row) {
  static const uint32_t kDeny[] = {0x00, 0x40, 0x30, 0x20, 0x10};
  return static_cast<uint32_t>(row / 5) | kDeny[row % 5];
}

class OpensTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    a_ = &AddClient();
    b_ = &AddClient();
  }

  // Status of an open of file (hi, lo) by `client`.
  uint32_t OpenStatus(TestClient& client, bytes::Open open) {
    const std::string reply = Exchange(client, OpenBytes(open));
    EXPECT_EQ(reply.size(), 20u);
    return bytes::WordAt(reply, 8);
  }

  // Status of a new open with `fresh` on a file that `held` is open with.
  uint32_t Meet(uint32_t held, uint32_t fresh, uint32_t file) {
    EXPECT_EQ(OpenStatus(*a_, {.session = 1, .hi = file, .openmode = held}), 0u);
    return OpenStatus(*b_, {.session = 2, .hi = file, .openmode = fresh});
  }

  TestClient* a_ = nullptr;
  TestClient* b_ = nullptr;
  uint32_t next_file_ = 1;
};

TEST_F(OpensTest, EveryCellOfTheShareTable) {
  for (int held = 0; held < 15; ++held) {
    for (int fresh = 0; fresh < 15; ++fresh) {
      const uint32_t expected = kAgree[held][fresh] ? 0 : 1;
      EXPECT_EQ(Meet(ModeOfRow(held), ModeOfRow(fresh), next_file_++), expected)
          << "held row " << held << " new column " << fresh;
    }
  }
}

TEST_F(OpensTest, AliasesShareLikeTheNamedModes) {
  struct Alias {
    uint32_t mode;
    int row;
  };
  const Alias aliases[] = {{0x03 | 0x30, 2},        {0x0F | 0x20, 13},
                           {0x04 | 0x00, 0},        {0x0E | 0x10, 4},
                           {0x09 | 0x40, 1},        {0x01 | 0x50, 6},
                           {0x02 | 0x60, 11},       {0x00 | 0x70, 1},
                           {0x80 | 0x01 | 0x20, 8}, {0xFFFF0F00 | 0x02 | 0x10, 14}};
  for (const Alias& alias : aliases) {
    for (int other = 0; other < 15; ++other) {
      EXPECT_EQ(Meet(alias.mode, ModeOfRow(other), next_file_++),
                kAgree[alias.row][other] ? 0u : 1u)
          << "held mode " << alias.mode << " new row " << other;
      EXPECT_EQ(Meet(ModeOfRow(other), alias.mode, next_file_++),
                kAgree[other][alias.row] ? 0u : 1u)
          << "held row " << other << " new mode " << alias.mode;
    }
  }
}

TEST_F(OpensTest, ModesAgreeWithEveryOpenInTurn) {
  EXPECT_EQ(OpenStatus(*a_, {.session = 1, .openmode = 0x40}), 0u);                  // R N
  EXPECT_EQ(OpenStatus(*b_, {.session = 2, .openmode = 0x42}), 0u);                  // RW N
  EXPECT_EQ(OpenStatus(*b_, {.session = 3, .clientfid = 2, .openmode = 0x31}), 1u);  // W DR
}

TEST_F(OpensTest, SameClientTwiceDenyingAllIsRefused) {
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 1, .openmode = 0x10}), 0u);
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 2, .openmode = 0x10}), 1u);
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 1, .openmode = 0x10}), 1u);
}

TEST_F(OpensTest, RefusedOpenLeavesNothing) {
  EXPECT_EQ(OpenStatus(*a_, {.session = 1, .clientfid = 1, .openmode = 0x10}), 0u);
  EXPECT_EQ(OpenStatus(*b_, {.session = 2, .clientfid = 5, .openmode = 0x40}), 1u);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
  EXPECT_EQ(Exchange(*b_, bytes::HeadBytes({6, 3, 2, 5, 0, 0, 0})), Words({6, 3, 0, 0}));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
  // The open that was refused is still in the way.
  EXPECT_EQ(OpenStatus(*b_, {.session = 2, .clientfid = 6, .openmode = 0x40}), 1u);
}

TEST_F(OpensTest, CloseOfOneClientfidLeavesTheOthers) {
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 1, .openmode = 0x40}), 0u);
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 2, .openmode = 0x40}), 0u);
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 1, .openmode = 0x40}), 0u);
  EXPECT_EQ(Exchange(*a_, bytes::HeadBytes({6, 9, 1, 1, 0, 0, 0})), Words({6, 9, 0, 0}));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
  EXPECT_NE(Report().find("    PC1" + std::string(12, ' ') + " 2 OPEN_READ|DENY_NONE\n"),
            std::string::npos);
}

TEST_F(OpensTest, CloseOfAnotherSessionOrAddressChangesNothing) {
  EXPECT_EQ(OpenStatus(*a_, {.session = 1, .clientfid = 1}), 0u);
  EXPECT_EQ(Exchange(*a_, bytes::HeadBytes({6, 0, 2, 1, 0, 0, 0})), Words({6, 0, 0, 0}));
  EXPECT_EQ(Exchange(*b_, bytes::HeadBytes({6, 0, 1, 1, 0, 0, 0})), Words({6, 0, 0, 0}));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(OpensTest, CloseOfAnUnknownFileIsDone) {
  EXPECT_EQ(Exchange(*a_, bytes::HeadBytes({6, 1, 1, 1, 8, 9, 0})), Words({6, 1, 0, 0}));
  EXPECT_EQ(Totals(), "Files: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(OpensTest, GrantedOpenWithAPathNamesTheFile) {
  EXPECT_EQ(OpenStatus(*a_, {.hi = 3, .lo = 4, .path = "/first"}), 0u);
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 2, .hi = 3, .lo = 4, .path = ""}), 0u);
  EXPECT_NE(Report().find("[3,4] /first\n"), std::string::npos);
  EXPECT_EQ(OpenStatus(*a_, {.clientfid = 3, .hi = 3, .lo = 4, .path = "/second"}), 0u);
  EXPECT_NE(Report().find("[3,4] /second\n"), std::string::npos);
}

}  // namespace
