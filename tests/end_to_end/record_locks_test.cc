// Byte-range locks on the running daemon: overlap, shared and exclusive
// locks, the 32-bit range end, exact unlocks, the unimplemented lock type,
// and the ranges that a close or a client end drops.

#include <cstdint>
#include <string>
#include <vector>

#include "tests/end_to_end/lock_service_fixture.h"
#include "tests/support/log_records.h"

namespace klv {

namespace {

using wire::kConflict;
using wire::kDone;
using wire::kNotFound;

constexpr FileKey kFile = {0x2000, 0x0001};
constexpr FileKey kOtherFile = {0x2000, 0x0002};
constexpr uint32_t kExclusive = 0;
constexpr uint32_t kShared = 1;

class RecordLocksEndToEnd : public LockServiceTest {
 protected:
  ServerProcess first_ = NewProcess(1, "first");
  ServerProcess second_ = NewProcess(2, "second");
};

TEST_F(RecordLocksEndToEnd, AdjacentRangesDoNotOverlap) {
  EXPECT_EQ(first_.Lock(kFile, 1, 100, 50, kExclusive), kDone);  // [100, 150)
  EXPECT_EQ(second_.Lock(kFile, 2, 150, 10, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kFile, 2, 90, 10, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kFile, 3, 149, 1, kExclusive), kConflict);
  EXPECT_EQ(second_.Lock(kFile, 3, 99, 2, kExclusive), kConflict);
  EXPECT_EQ(second_.Lock(kFile, 3, 99, 2, kShared), kConflict);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 3 OpLocks: 0");
}

TEST_F(RecordLocksEndToEnd, ZeroLengthNeverConflictsAndIsRecorded) {
  EXPECT_EQ(first_.Lock(kFile, 1, 100, 50, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kFile, 2, 120, 0, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kFile, 1, 120, 0, kExclusive), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 3 OpLocks: 0");
  EXPECT_EQ(second_.Unlock(kFile, 2, 120, 0), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 2 OpLocks: 0");
  EXPECT_EQ(second_.Unlock(kFile, 2, 120, 0), kNotFound);
}

TEST_F(RecordLocksEndToEnd, SharedLocksShareAndRefuseExclusiveOnes) {
  ServerProcess third = NewProcess(3, "third");
  EXPECT_EQ(first_.Lock(kFile, 1, 100, 50, kShared), kDone);
  EXPECT_EQ(second_.Lock(kFile, 2, 100, 50, 3), kDone);  // bit 0 set: shared
  EXPECT_EQ(third.Lock(kFile, 3, 120, 10, kExclusive), kConflict);
  EXPECT_EQ(third.Lock(kFile, 3, 140, 20, 2), kConflict);  // bit 0 clear: exclusive
  // No exemption for the holder's own shared lock.
  EXPECT_EQ(first_.Lock(kFile, 1, 100, 50, kExclusive), kConflict);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 2 OpLocks: 0");
}

TEST_F(RecordLocksEndToEnd, OwnExclusiveLockIsNotExempt) {
  EXPECT_EQ(first_.Lock(kFile, 1, 0, 10, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kFile, 1, 5, 1, kShared), kConflict);
  EXPECT_EQ(first_.Lock(kFile, 2, 9, 5, kExclusive), kConflict);
}

TEST_F(RecordLocksEndToEnd, RangeEndWrapsAtThirtyTwoBits) {
  EXPECT_EQ(first_.Lock(kFile, 1, 0xFFFFFFF0, 0x20, kExclusive), kDone);
  // [0xFFFFFFF8, 0xFFFFFFFC) lies inside the first lock, but that lock's end
  // wrapped to 0x10, so the two never overlap.
  EXPECT_EQ(second_.Lock(kFile, 2, 0xFFFFFFF8, 4, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kFile, 2, 0, 0x100, kExclusive), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 3 OpLocks: 0");
  EXPECT_EQ(first_.Unlock(kFile, 1, 0xFFFFFFF0, 0x20), kDone);

  // The other way round: the wrapping range comes last and meets neither
  // [0, 0x20) nor [0xFFFFFFE0, 0xFFFFFFF8).
  EXPECT_EQ(first_.Lock(kOtherFile, 1, 0, 0x20, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kOtherFile, 1, 0xFFFFFFE0, 0x18, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kOtherFile, 2, 0xFFFFFFF0, 0x20, kExclusive), kDone);
  EXPECT_EQ(Totals(), "Files: 2 Used: 2 OpenLocks: 0 RecordLocks: 5 OpLocks: 0");
}

TEST_F(RecordLocksEndToEnd, UnlockNeedsTheExactRangeClientAndClientfid) {
  ServerProcess same_session_elsewhere = NewProcess(1, "first");
  ServerProcess other_session_here = first_.AnotherSession(7, "first");
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 50), kNotFound);  // unknown file
  EXPECT_EQ(Totals(), "Files: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");
  EXPECT_EQ(first_.Lock(kFile, 1, 100, 50, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kFile, 1, 150, 50, kExclusive), kDone);
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 25), kNotFound);   // a part
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 100), kNotFound);  // both
  EXPECT_EQ(first_.Unlock(kFile, 2, 100, 50), kNotFound);   // another clientfid
  EXPECT_EQ(same_session_elsewhere.Unlock(kFile, 1, 100, 50), kNotFound);
  EXPECT_EQ(other_session_here.Unlock(kFile, 1, 100, 50), kNotFound);
  EXPECT_EQ(second_.Lock(kFile, 2, 100, 1, kExclusive), kConflict);  // still held

  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 50), kDone);
  EXPECT_EQ(first_.Unlock(kFile, 1, 100, 50), kNotFound);
  EXPECT_EQ(second_.Lock(kFile, 2, 100, 50, kExclusive), kDone);
  // The shared mark is not compared.
  EXPECT_EQ(first_.Lock(kFile, 1, 300, 10, kShared), kDone);
  EXPECT_EQ(first_.Unlock(kFile, 1, 300, 10), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 2 OpLocks: 0");
}

TEST_F(RecordLocksEndToEnd, LockTypeFourIsReportedAndLocksExclusively) {
  EXPECT_EQ(first_.Lock(kFile, 1, 0, 10, 4), kDone);
  const std::string message =
      "A call was made to an unimplemented function.\n"
      "A lock transaction has failed.Check the installation is not corrupted";
  for (const std::string& text : {daemon_.ErrorLogText(mark_), daemon_.StderrText(mark_)}) {
    const std::vector<log_records::ErrorRecord> records = log_records::ParseErrorRecords(text);
    ASSERT_EQ(records.size(), 1u) << text;
    EXPECT_EQ(records[0].id, "locking/api/notimplemented");
    EXPECT_EQ(records[0].banner, log_records::kBanner);
    EXPECT_EQ(records[0].message, message);
    EXPECT_EQ(log_records::RecordText(records[0]), text);
  }
  mark_ = daemon_.Mark();
  EXPECT_EQ(second_.Lock(kFile, 2, 5, 1, kShared), kConflict);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 1 OpLocks: 0");
}

TEST_F(RecordLocksEndToEnd, CloseDropsTheRangesOfItsClientfid) {
  EXPECT_EQ(first_.Lock(kFile, 1, 0, 10, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kFile, 1, 40, 10, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kFile, 2, 10, 10, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kFile, 1, 20, 10, kExclusive), kDone);
  EXPECT_EQ(first_.Close(kFile, 1), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 2 OpLocks: 0");

  ServerProcess third = NewProcess(3, "third");
  EXPECT_EQ(third.Lock(kFile, 3, 0, 10, kExclusive), kDone);
  EXPECT_EQ(third.Lock(kFile, 3, 40, 10, kExclusive), kDone);
  EXPECT_EQ(third.Lock(kFile, 3, 10, 10, kExclusive), kConflict);  // another clientfid
  EXPECT_EQ(third.Lock(kFile, 3, 20, 10, kExclusive), kConflict);  // another client
}

TEST_F(RecordLocksEndToEnd, ClientEndDropsTheRangesOfItsClientOnEveryFile) {
  ServerProcess neighbour = first_.AnotherSession(8, "neighbour");
  EXPECT_EQ(first_.Lock(kFile, 1, 0, 10, kExclusive), kDone);
  EXPECT_EQ(first_.Lock(kOtherFile, 2, 0, 10, kShared), kDone);
  EXPECT_EQ(neighbour.Lock(kFile, 1, 10, 10, kExclusive), kDone);
  EXPECT_EQ(first_.End(), kDone);

  EXPECT_EQ(second_.Lock(kFile, 2, 0, 10, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kOtherFile, 2, 0, 10, kExclusive), kDone);
  EXPECT_EQ(second_.Lock(kFile, 2, 10, 10, kExclusive), kConflict);
  EXPECT_EQ(Totals(), "Files: 2 Used: 2 OpenLocks: 0 RecordLocks: 3 OpLocks: 0");
}

}  // namespace

}  // namespace klv
