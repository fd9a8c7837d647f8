// Share modes on the running daemon: every cell of the compatibility table,
// the access and deny values that act as others, opens that meet several
// held opens, and what a close leaves behind.

#include <utility>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

using wire::kConflict;
using wire::kDone;

// Every mode with the index of the table row and column it shares as: the
// named ones in table order (access read, write, read-write, each with deny
// compatibility, none, read, write, read-write), then unnamed values: access
// 3 to 14 share as read and 15 as read-write, deny 0x50 to 0x70 as deny none,
// and the bits above the deny bits are ignored.
constexpr std::pair<uint32_t, int> kModes[] = {
    {0x00, 0},  {0x40, 1},  {0x30, 2},   {0x20, 3},        {0x10, 4},      {0x01, 5},
    {0x41, 6},  {0x31, 7},  {0x21, 8},   {0x11, 9},        {0x02, 10},     {0x42, 11},
    {0x32, 12}, {0x22, 13}, {0x12, 14},  {0x43, 1},        {0x37, 2},      {0x2E, 3},
    {0x14, 4},  {0x0F, 10}, {0x3F, 12},  {0x51, 6},        {0x62, 11},     {0x70, 1},
    {0xA1, 8},  {0x9F, 14}, {0x8800, 0}, {0xFFFFFF82, 10}, {0xFFFF0F43, 1}};

// Row: the open already held; column: the new open; 1 where both may stand.
constexpr const char* kShareTable[15] = {
    // R: M N DR DW DRW, W: M N DR DW DRW, RW: M N DR DW DRW
    "11010 10000 10000",  // R M
    "11010 11010 11010",  // R N
    "00000 01010 00000",  // R DR
    "11010 00000 00000",  // R DW
    "00000 00000 00000",  // R DRW
    "11000 10000 10000",  // W M
    "01100 01100 01100",  // W N
    "00000 01100 00000",  // W DR
    "01100 00000 00000",  // W DW
    "00000 00000 00000",  // W DRW
    "11000 10000 10000",  // RW M
    "01000 01000 01000",  // RW N
    "00000 01000 00000",  // RW DR
    "01000 00000 00000",  // RW DW
    "00000 00000 00000",  // RW DRW
};

class ShareModesEndToEnd : public LockServiceTest {
 protected:
  // The holder opens a fresh file with `held_mode`, then the newcomer opens
  // it with `new_mode`: the newcomer's status.
  uint32_t Meet(uint32_t held_mode, uint32_t new_mode) {
    const FileKey file = FreshFile();
    EXPECT_EQ(holder_.OpenStatus(file, 1, held_mode), kDone);
    return newcomer_.OpenStatus(file, 2, new_mode);
  }

  ServerProcess holder_ = NewProcess(1, "holder");
  ServerProcess newcomer_ = NewProcess(2, "newcomer");
};

TEST_F(ShareModesEndToEnd, EveryPairOfModes) {
  for (const auto& [held, row] : kModes) {
    for (const auto& [incoming, column] : kModes) {
      EXPECT_EQ(Meet(held, incoming),
                kShareTable[row][column + column / 5] == '1' ? kDone : kConflict)
          << std::hex << "held 0x" << held << ", new 0x" << incoming;
    }
  }
}

// A new open meets every held open, its own client's too; a refused one
// leaves nothing; a close ends the opens of its client and clientfid only.
TEST_F(ShareModesEndToEnd, HeldOpensAndCloses) {
  const FileKey file = FreshFile();
  EXPECT_EQ(holder_.OpenStatus(file, 1, kRead | kDenyNone), kDone);
  EXPECT_EQ(holder_.OpenStatus(file, 2, kRead | kDenyNone), kDone);
  EXPECT_EQ(holder_.OpenStatus(file, 1, kReadWrite | kDenyNone), kDone);
  EXPECT_EQ(newcomer_.OpenStatus(file, 3, kRead | kDenyWrite), kConflict);  // RW N refuses it
  EXPECT_EQ(holder_.OpenStatus(file, 4, kWrite | kDenyRead), kConflict);    // R N refuses it
  // Closes by another session at the same address, by the same session at
  // another address, by the client whose open was refused, and of an unknown
  // file (which is not added) change nothing: each is answered status 0.
  for (ServerProcess process : {holder_.AnotherSession(7, "x"), NewProcess(1, "x"), newcomer_}) {
    EXPECT_EQ(process.Close(file, 1) + process.Close(file, 3) + holder_.Close(FreshFile(), 1),
              kDone);
  }
  EXPECT_EQ(holder_.Close(file, 1), kDone);  // both opens of clientfid 1
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
  EXPECT_EQ(newcomer_.OpenStatus(file, 3, kRead | kDenyWrite), kDone);
}

}  // namespace klv
