#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/lockservice/daemon_fixture.h"

namespace {

using bytes::Range;
using bytes::Words;

constexpr uint32_t kShared = 1;
constexpr uint32_t kExclusive = 0;

// All ranges are on file (1, 2) unless a test says otherwise.
class RecordLocksTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    a_ = &AddClient();
    b_ = &AddClient();
  }

  uint32_t Lock(TestClient& client, uint32_t offset, uint32_t length, uint32_t locktype,
                uint32_t session = 1, uint32_t clientfid = 1) {
    return Status(client, bytes::LockBytes({session, clientfid, 1, 2, offset, length, locktype}));
  }

  uint32_t Unlock(TestClient& client, uint32_t offset, uint32_t length, uint32_t session = 1,
                  uint32_t clientfid = 1) {
    return Status(client, bytes::UnlockBytes({session, clientfid, 1, 2, offset, length}));
  }

  uint32_t Status(TestClient& client, const std::string& request) {
    const std::string reply = Exchange(client, request);
    EXPECT_EQ(reply.size(), 16u);
    return bytes::WordAt(reply, 8);
  }

  TestClient* a_ = nullptr;
  TestClient* b_ = nullptr;
};

TEST_F(RecordLocksTest, AdjacentRangesDoNotConflict) {
  EXPECT_EQ(Lock(*a_, 100, 50, kExclusive), 0u);
  EXPECT_EQ(Lock(*b_, 150, 10, kExclusive), 0u);
  EXPECT_EQ(Lock(*b_, 90, 10, kExclusive), 0u);
  EXPECT_EQ(Lock(*b_, 149, 1, kExclusive), 1u);
  EXPECT_EQ(Lock(*b_, 99, 2, kShared), 1u);
}

TEST_F(RecordLocksTest, ZeroLengthNeverConflictsAndIsRecorded) {
  EXPECT_EQ(Lock(*a_, 100, 50, kExclusive), 0u);
  EXPECT_EQ(Lock(*b_, 120, 0, kExclusive), 0u);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 2 OpLocks: 0\n");
  EXPECT_EQ(Unlock(*b_, 120, 0), 0u);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 1 OpLocks: 0\n");
}

TEST_F(RecordLocksTest, SharedLocksShareAndExclusiveOnesDoNot) {
  EXPECT_EQ(Lock(*a_, 0, 10, kShared), 0u);
  EXPECT_EQ(Lock(*b_, 0, 10, kShared), 0u);
  EXPECT_EQ(Lock(*b_, 5, 10, 3), 0u);  // bit 0 set: shared
  EXPECT_EQ(Lock(*b_, 5, 1, kExclusive), 1u);
  EXPECT_EQ(Lock(*a_, 0, 1, 2), 1u);  // bit 0 clear: exclusive, own locks count too
}

TEST_F(RecordLocksTest, OwnExclusiveLockIsInTheWay) {
  EXPECT_EQ(Lock(*a_, 10, 10, kExclusive), 0u);
  EXPECT_EQ(Lock(*a_, 15, 1, kShared), 1u);
  EXPECT_EQ(Lock(*a_, 15, 1, kExclusive, 1, 2), 1u);
}

TEST_F(RecordLocksTest, RangeWrappingPastZeroConflictsWithNothing) {
  EXPECT_EQ(Lock(*a_, 0, 0x20, kExclusive), 0u);
  EXPECT_EQ(Lock(*a_, 0xFFFFFFE0, 0x18, kExclusive), 0u);
  EXPECT_EQ(Lock(*b_, 0xFFFFFFF0, 0x20, kExclusive), 0u);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 3 OpLocks: 0\n");
}

TEST_F(RecordLocksTest, UnlockMatchesOnlyTheExactRangeOfItsHolder) {
  EXPECT_EQ(Lock(*a_, 100, 50, kShared), 0u);
  EXPECT_EQ(Unlock(*a_, 100, 25), 2u);
  EXPECT_EQ(Unlock(*a_, 100, 50, 1, 2), 2u);  // another clientfid
  EXPECT_EQ(Unlock(*a_, 100, 50, 2, 1), 2u);  // another session
  EXPECT_EQ(Unlock(*b_, 100, 50), 2u);        // another address
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 1 OpLocks: 0\n");
  EXPECT_EQ(Unlock(*a_, 100, 50), 0u);
  EXPECT_EQ(Unlock(*a_, 100, 50), 2u);
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(RecordLocksTest, UnlockSpanningTwoLocksMatchesNothing) {
  EXPECT_EQ(Lock(*a_, 0, 10, kExclusive), 0u);
  EXPECT_EQ(Lock(*a_, 10, 10, kExclusive), 0u);
  EXPECT_EQ(Unlock(*a_, 0, 20), 2u);
}

TEST_F(RecordLocksTest, UnlockOfAnUnknownFileIsNotFound) {
  EXPECT_EQ(Status(*a_, bytes::UnlockBytes({1, 1, 7, 7, 0, 10})), 2u);
  EXPECT_EQ(Totals(), "Files: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(RecordLocksTest, LockTypeFourIsReportedAndLocksExclusively) {
  daemon_->Log().OpenLogs();
  StderrCapture capture;
  EXPECT_EQ(Lock(*a_, 0, 10, 4), 0u);
  const std::string record = capture.Text();
  const std::regex expected(
      "\n[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"
      "\tlocking/api/notimplemented\tOstrand Kelvane Lock Daemon\\(2\\.01\\)\n\n"
      "A call was made to an unimplemented function\\.\n"
      "A lock transaction has failed\\.Check the installation is not corrupted\n");
  EXPECT_TRUE(std::regex_match(record, expected)) << record;
  EXPECT_TRUE(std::regex_match(ErrorLog(), expected)) << ErrorLog();
  EXPECT_EQ(Lock(*b_, 5, 1, kShared), 1u);
}

TEST_F(RecordLocksTest, CloseDropsTheRangesOfItsClientfid) {
  EXPECT_EQ(Lock(*a_, 0, 10, kExclusive, 1, 1), 0u);
  EXPECT_EQ(Lock(*a_, 10, 10, kExclusive, 1, 2), 0u);
  EXPECT_EQ(Lock(*a_, 20, 10, kExclusive, 1, 1), 0u);
  EXPECT_EQ(Status(*a_, bytes::HeadBytes({6, 0, 1, 1, 1, 2, 0})), 0u);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 0 RecordLocks: 1 OpLocks: 0\n");
  EXPECT_EQ(Lock(*b_, 0, 10, kExclusive), 0u);
  EXPECT_EQ(Lock(*b_, 10, 1, kExclusive), 1u);
}

TEST_F(RecordLocksTest, ClientEndDropsItsRangesOnEveryFile) {
  EXPECT_EQ(Lock(*a_, 0, 10, kExclusive), 0u);
  EXPECT_EQ(Status(*a_, bytes::LockBytes({1, 1, 3, 4, 0, 10, kExclusive})), 0u);
  EXPECT_EQ(Lock(*a_, 50, 10, kExclusive, 2, 1), 0u);  // another session of the same address
  EXPECT_EQ(Status(*a_, bytes::HeadBytes({4, 0, 1, 0, 0, 0, 0})), 0u);
  EXPECT_EQ(Totals(), "Files: 2 Used: 1 OpenLocks: 0 RecordLocks: 1 OpLocks: 0\n");
  EXPECT_EQ(Lock(*b_, 0, 10, kExclusive), 0u);
}

}  // namespace
