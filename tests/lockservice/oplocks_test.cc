#include <gtest/gtest.h>

#include <string>

#include "tests/lockservice/daemon_fixture.h"

namespace {

using bytes::Hex;
using bytes::OpenBytes;
using bytes::Words;

// File F is (5, 6); client A is session 1, B session 2, C session 3.
class OplocksTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    a_ = &AddClient();
    b_ = &AddClient();
    c_ = &AddClient();
  }

  std::string OpenF(TestClient& client, uint32_t session, uint32_t clientfid, uint32_t oplock,
                    uint32_t waitid = 0) {
    return Exchange(client, OpenBytes({.tag = 0x70 + clientfid,
                                       .session = session,
                                       .clientfid = clientfid,
                                       .hi = 5,
                                       .lo = 6,
                                       .waitid = waitid,
                                       .oplock = oplock}));
  }

  std::string ReleaseF(TestClient& client, uint32_t session, uint32_t clientfid) {
    return Exchange(client, bytes::HeadBytes({7, 0x33, session, clientfid, 5, 6, 0}));
  }

  // A holds an oplock on F under clientfid 1.
  void AHoldsTheOplock() { ASSERT_EQ(OpenF(*a_, 1, 1, 1), Words({1, 0x71, 0, 0, 1})); }

  // `client` opens F, meets A's oplock and is given `wait_id`; A gets its break.
  void OpenWaits(TestClient& client, uint32_t session, uint32_t clientfid, uint32_t wait_id,
                 uint32_t oplock = 0, uint32_t waitid = 0) {
    ASSERT_EQ(OpenF(client, session, clientfid, oplock, waitid),
              Words({1, 0x70 + clientfid, 5, wait_id, 0}));
    ASSERT_EQ(Next(*a_), Words({8, 0, 0, 0, 5, 6, 1, 1}));
  }

  TestClient* a_ = nullptr;
  TestClient* b_ = nullptr;
  TestClient* c_ = nullptr;
};

TEST_F(OplocksTest, FirstOpenIsGrantedTheOplock) {
  AHoldsTheOplock();
  EXPECT_EQ(a_->probes_answered, 1);  // a granted oplock checks that its holder lives
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1\n");
}

TEST_F(OplocksTest, OpenOfAFileAlreadyOpenGetsNoOplock) {
  ASSERT_EQ(OpenF(*a_, 1, 1, 0), Words({1, 0x71, 0, 0, 0}));
  EXPECT_EQ(OpenF(*b_, 2, 2, 1), Words({1, 0x72, 0, 0, 0}));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(OplocksTest, OpenMeetingAnOplockBreaksItAndWaits) {
  AHoldsTheOplock();
  EXPECT_EQ(OpenF(*b_, 2, 7, 0), Words({1, 0x77, 5, 1, 0}));
  const std::string notice = Next(*a_);
  EXPECT_EQ(notice, Words({8, 0, 0, 0, 5, 6, 1, 1})) << Hex(notice);
  EXPECT_TRUE(Silent(*a_));
  // Nothing of B's open is recorded while it waits.
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1\n");
}

TEST_F(OplocksTest, ReleaseSendsTheWaiterItsRetry) {
  AHoldsTheOplock();
  OpenWaits(*b_, 2, 7, 1);
  EXPECT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 0, 0}));
  EXPECT_EQ(Next(*b_), Words({9, 0, 0, 1, 2}));
  // A's open stays.
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(OplocksTest, RetriedOpenGetsNoOplock) {
  AHoldsTheOplock();
  OpenWaits(*b_, 2, 7, 1, /*oplock=*/1);
  ASSERT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 0, 0}));
  ASSERT_EQ(Next(*b_), Words({9, 0, 0, 1, 2}));
  ASSERT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 0, 0}));  // nothing left to release
  ASSERT_EQ(Exchange(*a_, bytes::HeadBytes({6, 0, 1, 1, 5, 6, 0})), Words({6, 0, 0, 0}));
  // Nobody has F open any more, yet the retry does not get the oplock it asks for.
  EXPECT_EQ(OpenF(*b_, 2, 7, 1, /*waitid=*/1), Words({1, 0x77, 0, 0, 0}));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(OplocksTest, HoldersOwnSecondOpenBreaksItsOplock) {
  AHoldsTheOplock();
  Send(*a_, OpenBytes({.tag = 0x72, .session = 1, .clientfid = 2, .hi = 5, .lo = 6}));
  EXPECT_EQ(Next(*a_), Words({8, 0, 0, 0, 5, 6, 1, 1}));
  EXPECT_EQ(Next(*a_), Words({1, 0x72, 5, 1, 0}));
}

TEST_F(OplocksTest, EachLaterOpenBreaksAgain) {
  AHoldsTheOplock();
  ASSERT_EQ(OpenF(*b_, 2, 7, 0), Words({1, 0x77, 5, 1, 0}));
  EXPECT_EQ(OpenF(*c_, 3, 8, 0), Words({1, 0x78, 5, 2, 0}));
  EXPECT_EQ(Next(*a_), Words({8, 0, 0, 0, 5, 6, 1, 1}));
  EXPECT_EQ(Next(*a_), Words({8, 0, 0, 0, 5, 6, 1, 1}));
}

TEST_F(OplocksTest, TwoWaitersEachGetTheirOwnRetry) {
  AHoldsTheOplock();
  OpenWaits(*b_, 2, 7, 1);
  OpenWaits(*c_, 3, 8, 2);
  ASSERT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 0, 0}));
  EXPECT_EQ(Next(*b_), Words({9, 0, 0, 1, 2}));
  EXPECT_EQ(Next(*c_), Words({9, 0, 0, 2, 3}));
  EXPECT_TRUE(Silent(*b_));
  EXPECT_TRUE(Silent(*c_));
}

TEST_F(OplocksTest, EarlyRetryWithdrawsTheOldWaitAndWaitsAnew) {
  AHoldsTheOplock();
  OpenWaits(*b_, 2, 7, 1);
  OpenWaits(*b_, 2, 7, 2, /*oplock=*/0, /*waitid=*/1);
  ASSERT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 0, 0}));
  EXPECT_EQ(Next(*b_), Words({9, 0, 0, 2, 2}));
  EXPECT_TRUE(Silent(*b_));
}

TEST_F(OplocksTest, CloseReleasesTheOplockAndResumesTheWaiter) {
  AHoldsTheOplock();
  OpenWaits(*b_, 2, 7, 1);
  EXPECT_EQ(Exchange(*a_, bytes::HeadBytes({6, 0, 1, 1, 5, 6, 0})), Words({6, 0, 0, 0}));
  EXPECT_EQ(Next(*b_), Words({9, 0, 0, 1, 2}));
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(OplocksTest, EndedWaiterIsNotSentARetry) {
  AHoldsTheOplock();
  OpenWaits(*b_, 2, 7, 1);
  ASSERT_EQ(Exchange(*b_, bytes::HeadBytes({4, 0, 2, 0, 0, 0, 0})), Words({4, 0, 0, 0}));
  ASSERT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 0, 0}));
  EXPECT_TRUE(Silent(*b_));
}

TEST_F(OplocksTest, ReleaseOfAnUnknownFileIsStatusFour) {
  EXPECT_EQ(ReleaseF(*a_, 1, 1), Words({7, 0x33, 4, 0}));
}

TEST_F(OplocksTest, ReleaseByAnotherClientfidKeepsTheOplock) {
  AHoldsTheOplock();
  EXPECT_EQ(ReleaseF(*a_, 1, 2), Words({7, 0x33, 0, 0}));
  EXPECT_EQ(ReleaseF(*b_, 1, 1), Words({7, 0x33, 0, 0}));  // same session, other address
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1\n");
}

}  // namespace
