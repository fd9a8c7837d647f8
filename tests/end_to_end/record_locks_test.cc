// Byte-range locks on the running daemon: overlap, shared and exclusive
// locks, the 32-bit range end, exact unlocks, the unimplemented lock type,
// and the ranges that a close or a client end drops.

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

using wire::kConflict;
using wire::kDone;
using wire::kNotFound;

constexpr FileKey kFile = {0x2000, 1};
constexpr FileKey kOtherFile = {0x2000, 2};

class RecordLocksEndToEnd : public LockServiceTest {
 protected:
  ServerProcess first_ = NewProcess(1, "first");
  ServerProcess second_ = NewProcess(2, "second");
};

// A held lock and a new one, by another client and by the holder itself: the
// new one conflicts when the ranges share a byte, the end of each (offset +
// length) taken modulo 2^32, unless both are shared (lock type bit 0).
TEST_F(RecordLocksEndToEnd, OverlapTable) {
  const struct {
    uint32_t held_offset, held_length, held_type, offset, length, type, status;
  } kCases[] = {
      {100, 50, 0, 150, 10, 0, kDone},  // adjacent after
      {100, 50, 0, 90, 10, 0, kDone},   // adjacent before
      {100, 50, 0, 149, 1, 0, kConflict},
      {100, 50, 0, 99, 2, 1, kConflict},
      {100, 50, 0, 0, 1000, 0, kConflict},
      {100, 50, 0, 120, 0, 0, kDone},  // zero length
      {100, 50, 1, 100, 50, 3, kDone},
      {100, 50, 3, 120, 10, 2, kConflict},
      {0xFFFFFFF0, 0x20, 0, 0xFFFFFFF8, 4, 0, kDone},  // the held end wraps
      {0xFFFFFFF0, 0x20, 0, 0, 0x100, 0, kDone},
      {0, 0x20, 0, 0xFFFFFFF0, 0x20, 0, kDone},  // the new end wraps
      {0xFFFFFFE0, 0x18, 0, 0xFFFFFFF0, 0x20, 0, kDone},
      {0xFFFFFF00, 0x80, 0, 0xFFFFFF40, 0x10, 0, kConflict},
  };
  for (const auto& c : kCases) {
    for (ServerProcess* newcomer : {&second_, &first_}) {
      const FileKey file = FreshFile();
      const uint32_t clientfid = newcomer == &first_ ? 1 : 2;
      ASSERT_EQ(first_.Lock(file, 1, c.held_offset, c.held_length, c.held_type), kDone);
      EXPECT_EQ(newcomer->Lock(file, clientfid, c.offset, c.length, c.type), c.status)
          << c.held_offset << "+" << c.held_length << " and " << c.offset << "+" << c.length;
      EXPECT_EQ(newcomer->Unlock(file, clientfid, c.offset, c.length),
                c.status == kDone ? kDone : kNotFound);
    }
  }
}

TEST_F(RecordLocksEndToEnd, UnlockNeedsTheExactRangeClientAndClientfid) {
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 50), kNotFound);  // an unknown file is not added
  EXPECT_EQ(first_.Lock(kFile, 1, 100, 50, 0), kDone);
  EXPECT_EQ(first_.Lock(kFile, 1, 150, 50, 1), kDone);
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 25), kNotFound);   // a part
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 100), kNotFound);  // both
  EXPECT_EQ(first_.Unlock(kFile, 2, 100, 50), kNotFound);   // another clientfid
  EXPECT_EQ(NewProcess(1, "first").Unlock(kFile, 1, 100, 50), kNotFound);
  EXPECT_EQ(first_.AnotherSession(7, "first").Unlock(kFile, 1, 100, 50), kNotFound);
  EXPECT_EQ(second_.Lock(kFile, 2, 100, 1, 0), kConflict);  // still held
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 50), kDone);
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 50), kNotFound);
  EXPECT_EQ(first_.Unlock(kFile, 1, 150, 50), kDone);  // the shared mark is not compared
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");
}

// Thousands of sessions that each take and release one lock come and go while
// one lock stays held: the standing lock stays its holder's to release.
TEST_F(RecordLocksEndToEnd, PassingHoldersLeaveTheStandingLockItsOwn) {
  ASSERT_EQ(first_.Lock(kFile, 1, 0, 10, 0), kDone);
  for (uint32_t session = 100; session < 5100; ++session) {
    ServerProcess passing = second_.AnotherSession(session, "passing");
    ASSERT_EQ(passing.Lock(kOtherFile, 1, 0, 10, 0), kDone);
    ASSERT_EQ(passing.Unlock(kOtherFile, 1, 0, 10), kDone);
  }
  EXPECT_EQ(second_.Lock(kFile, 2, 5, 1, 0), kConflict);
  EXPECT_EQ(first_.Unlock(kFile, 1, 0, 10), kDone);
}

TEST_F(RecordLocksEndToEnd, LockTypeFourIsReportedAndLocksExclusively) {
  EXPECT_EQ(first_.Lock(kFile, 1, 0, 10, 4), kDone);
  const std::string record =
      "\n<time>\tlocking/api/notimplemented\tOstrand Kelvane Lock Daemon(2.01)\n\n"
      "A call was made to an unimplemented function.\n"
      "A lock transaction has failed.Check the installation is not corrupted\n";
  EXPECT_EQ(WithoutTimeStamps(daemon_.ErrorLogText(mark_)), record);
  EXPECT_EQ(WithoutTimeStamps(daemon_.StderrText(mark_)), record);
  mark_ = daemon_.Mark();
  EXPECT_EQ(second_.Lock(kFile, 2, 5, 1, 1), kConflict);
}

// A close drops the ranges of its client and clientfid; a client end those of
// its client key on every file.
TEST_F(RecordLocksEndToEnd, CloseAndClientEndDropTheirRanges) {
  for (const uint32_t offset : {0, 40}) EXPECT_EQ(first_.Lock(kFile, 1, offset, 10, 0), kDone);
  EXPECT_EQ(first_.Lock(kFile, 2, 10, 10, 0), kDone);
  EXPECT_EQ(second_.Lock(kFile, 1, 20, 10, 0), kDone);
  EXPECT_EQ(first_.Close(kFile, 1), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 2 OpLocks: 0");
  EXPECT_EQ(second_.Lock(kFile, 2, 40, 10, 0), kDone);
  EXPECT_EQ(first_.End(), kDone);
  EXPECT_EQ(second_.Lock(kFile, 2, 10, 10, 0), kDone);
}

}  // namespace klv
