// Share modes on the running daemon: every cell of the compatibility table,
// the access and deny values that act as others, opens that meet several
// held opens, and what a close leaves behind.

#include <cstdint>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::kConflict;
using wire::kDone;

// The modes in table order: access class read, write, read-write, each with
// deny class compatibility (M), none (N), read (DR), write (DW), read-write (DRW).
constexpr uint32_t kDenies[5] = {kDenyMsdos, kDenyNone, kDenyRead, kDenyWrite, kDenyReadWrite};
constexpr uint32_t kModes[15] = {
    kRead | kDenyMsdos,      kRead | kDenyNone,       kRead | kDenyRead,
    kRead | kDenyWrite,      kRead | kDenyReadWrite,  kWrite | kDenyMsdos,
    kWrite | kDenyNone,      kWrite | kDenyRead,      kWrite | kDenyWrite,
    kWrite | kDenyReadWrite, kReadWrite | kDenyMsdos, kReadWrite | kDenyNone,
    kReadWrite | kDenyRead,  kReadWrite | kDenyWrite, kReadWrite | kDenyReadWrite};
constexpr const char* kModeNames[15] = {"R M",  "R N",  "R DR",  "R DW",  "R DRW",
                                        "W M",  "W N",  "W DR",  "W DW",  "W DRW",
                                        "RW M", "RW N", "RW DR", "RW DW", "RW DRW"};

// Row: the open already held; column: the new open; 1 where they may coexist.
constexpr int kShareTable[15][15] = {
    // R: M  N DR DW DRW  W: M  N DR DW DRW  RW: M  N DR DW DRW
    {1, 1, 0, 1, 0, /**/ 1, 0, 0, 0, 0, /**/ 1, 0, 0, 0, 0},  // R M
    {1, 1, 0, 1, 0, /**/ 1, 1, 0, 1, 0, /**/ 1, 1, 0, 1, 0},  // R N
    {0, 0, 0, 0, 0, /**/ 0, 1, 0, 1, 0, /**/ 0, 0, 0, 0, 0},  // R DR
    {1, 1, 0, 1, 0, /**/ 0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // R DW
    {0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // R DRW
    {1, 1, 0, 0, 0, /**/ 1, 0, 0, 0, 0, /**/ 1, 0, 0, 0, 0},  // W M
    {0, 1, 1, 0, 0, /**/ 0, 1, 1, 0, 0, /**/ 0, 1, 1, 0, 0},  // W N
    {0, 0, 0, 0, 0, /**/ 0, 1, 1, 0, 0, /**/ 0, 0, 0, 0, 0},  // W DR
    {0, 1, 1, 0, 0, /**/ 0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // W DW
    {0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // W DRW
    {1, 1, 0, 0, 0, /**/ 1, 0, 0, 0, 0, /**/ 1, 0, 0, 0, 0},  // RW M
    {0, 1, 0, 0, 0, /**/ 0, 1, 0, 0, 0, /**/ 0, 1, 0, 0, 0},  // RW N
    {0, 0, 0, 0, 0, /**/ 0, 1, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // RW DR
    {0, 1, 0, 0, 0, /**/ 0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // RW DW
    {0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0},  // RW DRW
};

uint32_t Expected(int held, int incoming) {
  return kShareTable[held][incoming] ? kDone : kConflict;
}

class ShareModesEndToEnd : public LockServiceTest {
 protected:
  // The holder opens a fresh file with `held_mode`, then the newcomer opens
  // it with `new_mode`: the newcomer's status.
  uint32_t Meet(uint32_t held_mode, uint32_t new_mode) {
    const FileKey file = FreshFile();
    EXPECT_EQ(holder_.OpenStatus(file, 1, held_mode), kDone);
    return newcomer_.OpenStatus(file, 2, new_mode);
  }

  // `mode` must meet every mode of the table as the mode of table index `as` does.
  void ExpectActsAs(uint32_t mode, int as) {
    for (int other = 0; other < 15; ++other) {
      EXPECT_EQ(Meet(mode, kModes[other]), Expected(as, other))
          << "held 0x" << std::hex << mode << ", new " << kModeNames[other];
      EXPECT_EQ(Meet(kModes[other], mode), Expected(other, as))
          << "held " << kModeNames[other] << ", new 0x" << std::hex << mode;
    }
  }

  ServerProcess holder_ = NewProcess(1, "holder");
  ServerProcess newcomer_ = NewProcess(2, "newcomer");
};

TEST_F(ShareModesEndToEnd, EveryCellOfTheTable) {
  for (int held = 0; held < 15; ++held) {
    for (int incoming = 0; incoming < 15; ++incoming) {
      EXPECT_EQ(Meet(kModes[held], kModes[incoming]), Expected(held, incoming))
          << "held " << kModeNames[held] << ", new " << kModeNames[incoming];
    }
  }
}

TEST_F(ShareModesEndToEnd, AccessValuesWithoutClassActAsReadOrReadWrite) {
  // Access 3 (execute) and 4 to 14 are read; 15 is read-write.
  for (uint32_t access = 3; access <= 15; ++access) {
    const int access_class = access == kMsdos ? 2 : 0;
    for (int deny = 0; deny < 5; ++deny)
      ExpectActsAs(access | kDenies[deny], access_class * 5 + deny);
  }
}

TEST_F(ShareModesEndToEnd, DenyValuesWithoutClassActAsDenyNone) {
  for (const uint32_t deny : {0x50u, 0x60u, 0x70u}) {
    for (int access_class = 0; access_class < 3; ++access_class) {
      ExpectActsAs(static_cast<uint32_t>(access_class) | deny, access_class * 5 + 1);
    }
  }
}

TEST_F(ShareModesEndToEnd, BitsAboveTheDenyBitsAreIgnored) {
  for (int index = 0; index < 15; ++index) {
    ExpectActsAs(kModes[index] | 0x80, index);
    ExpectActsAs(kModes[index] | 0xFFFFFF80, index);
    ExpectActsAs(kModes[index] | 0xFFFF0F00, index);  // bit 7 clear, higher bits set
  }
}

TEST_F(ShareModesEndToEnd, NewOpenMeetsEveryHeldOpen) {
  ServerProcess third = NewProcess(3, "third");
  const FileKey file = FreshFile();
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyNone), kDone);
  EXPECT_EQ(newcomer_.OpenStatus(file, 2, kReadWrite | kDenyNone), kDone);  // R N / RW N
  EXPECT_EQ(third.OpenStatus(file, 3, kWrite | kDenyRead), kConflict);      // R N / W DR
  // R N admits R DW, but the second held open, RW N, does not.
  EXPECT_EQ(third.OpenStatus(file, 4, kRead | kDenyWrite), kConflict);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0");
}

TEST_F(ShareModesEndToEnd, SameClientMeetsItsOwnOpens) {
  const FileKey file = FreshFile();
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyReadWrite), kDone);
  EXPECT_EQ(holder_.OpenStatus(file, 2, kRead | kDenyReadWrite), kConflict);
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyReadWrite), kConflict);
}

TEST_F(ShareModesEndToEnd, RefusedOpenLeavesNoOpenLock) {
  const FileKey file = FreshFile();
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyReadWrite), kDone);
  EXPECT_EQ(newcomer_.OpenStatus(file, 2, kRead | kDenyNone), kConflict);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
  EXPECT_EQ(newcomer_.Close(file, 2), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
  // The holder's open is still in the way.
  EXPECT_EQ(newcomer_.OpenStatus(file, 3, kRead | kDenyNone), kConflict);
  EXPECT_EQ(holder_.Close(file, 1), kDone);
  EXPECT_EQ(newcomer_.OpenStatus(file, 2, kRead | kDenyReadWrite), kDone);
}

TEST_F(ShareModesEndToEnd, CloseLeavesTheClientsOtherClientfids) {
  const FileKey file = {3, 4};
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyNone), kDone);
  EXPECT_EQ(holder_.OpenStatus(file, 2, kRead | kDenyNone), kDone);
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyNone), kDone);
  // One close ends both opens of clientfid 1.
  EXPECT_EQ(holder_.Close(file, 1), kDone);
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("holder         ", kOk, "1", holder_) +
                                     "\n== File lock information\n"
                                     "[3,4] \n"
                                     "  Open locks: [clientfid type]\n"
                                     "    holder          2 OPEN_READ|DENY_NONE\n"
                                     "\n"
                                     "\nFiles: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
  EXPECT_EQ(newcomer_.OpenStatus(file, 3, kWrite | kDenyRead), kConflict);
  EXPECT_EQ(holder_.Close(file, 2), kDone);
  EXPECT_EQ(newcomer_.OpenStatus(file, 3, kWrite | kDenyRead), kDone);
}

TEST_F(ShareModesEndToEnd, CloseFromAnotherSessionOrAddressLeavesTheOpen) {
  ServerProcess other_session_here = holder_.AnotherSession(2, "holder");
  ServerProcess same_session_elsewhere = NewProcess(1, "holder");
  const FileKey file = FreshFile();
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyNone), kDone);
  EXPECT_EQ(other_session_here.Close(file, 1), kDone);
  EXPECT_EQ(same_session_elsewhere.Close(file, 1), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
  EXPECT_EQ(newcomer_.OpenStatus(file, 3, kWrite | kDenyRead), kConflict);
}

TEST_F(ShareModesEndToEnd, CloseOfUnknownFileIsDoneAndAddsNothing) {
  EXPECT_EQ(holder_.Close(FreshFile(), 1), kDone);
  EXPECT_EQ(Totals(), "Files: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");
}

}  // namespace

}  // namespace klv
