// Oplocks on the running daemon: grants, breaks to every holder, waits,
// releases and the retry notices that end a wait; and the end of a client,
// which releases everything that its client key holds.

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

using wire::Hex;
using wire::kConflict;
using wire::kDone;
using wire::Words;

constexpr FileKey kFile = {0x1234, 0x5678};
constexpr FileKey kOther = {0x1234, 1};
constexpr FileKey kThird = {0x1234, 2};

// The replies to an open: granted with or without oplock, or told to wait;
// the break of kFile's oplock of `fid` and `session`; the retry notice of
// wait `wait_id` for `session`.
std::string Granted(uint32_t oplock) { return Hex(Words({1, kTag, 0, 0, oplock})); }
std::string Wait(uint32_t wait_id) { return Hex(Words({1, kTag, 5, wait_id, 0})); }
std::string Break(uint32_t fid, uint32_t session) {
  return Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, fid, session}));
}
std::string Retry(uint32_t wait_id, uint32_t session) {
  return Hex(Words({9, 0, 0, wait_id, session}));
}

class OplocksEndToEnd : public LockServiceTest {
 protected:
  void HolderTakesTheOplock() {
    ASSERT_EQ(Hex(holder_.Open(kFile, 11, kRead | kDenyNone, {.oplockwanted = 1})), Granted(1));
  }

  ServerProcess holder_ = NewProcess(0xA0, "holder");
  ServerProcess second_ = NewProcess(0xB0, "second");
  ServerProcess third_ = NewProcess(0xC0, "third");
};

TEST_F(OplocksEndToEnd, GrantBreakWaitReleaseAndRetry) {
  // A new client is probed before its oplock is granted.
  std::string probe;
  ASSERT_TRUE(holder_.Send(holder_.OpenRequest(kFile, 11, kRead | kDenyNone, {.oplockwanted = 1})));
  ASSERT_TRUE(holder_.Udp().Receive(&probe));
  EXPECT_EQ(Hex(probe), Hex(Words({1000, 0xBEEFCAFE, 0xA0, 0, 0, 0, 0, 201905, 1})));
  EXPECT_EQ(Hex(holder_.Ask(Words({1000, 0xBEEFCAFE, 0xA0, 0, 0, 0, 0, 201905, 0}))), Granted(1));
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1})), Wait(1));
  EXPECT_EQ(Hex(holder_.Next()), Break(11, 0xA0));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(1, 0xB0));
  // A retried open never gets an oplock, though it asks for one; nor does
  // an open of a file that somebody has open.
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1, .waitid = 1})),
            Granted(0));
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone, {.oplockwanted = 1})), Granted(0));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 3 RecordLocks: 0 OpLocks: 0");
  holder_.ExpectNoMessage();
  second_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, EveryWaiterGetsItsOwnRetryAndARetryMayWaitAgain) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone)), Wait(1));
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone)), Wait(2));
  EXPECT_EQ(Hex(holder_.Next()) + Hex(holder_.Next()), Break(11, 0xA0) + Break(11, 0xA0));
  EXPECT_EQ(holder_.Close(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(1, 0xB0));
  EXPECT_EQ(Hex(third_.Next()), Retry(2, 0xC0));
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");
  // A new oplock taken before the retry makes the retry wait anew, and an
  // early retry withdraws its old wait: the release answers only the new one.
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone, {.oplockwanted = 1})), Granted(1));
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 1})), Wait(3));
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 3})), Wait(4));
  EXPECT_EQ(Hex(third_.Next()) + Hex(third_.Next()), Break(31, 0xC0) + Break(31, 0xC0));
  EXPECT_EQ(third_.ReleaseOplock(kFile, 31), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(4, 0xB0));
  second_.ExpectNoMessage();
  holder_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, ReleaseNeedsTheHoldersClientAndClientfid) {
  HolderTakesTheOplock();
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 12), kDone);
  EXPECT_EQ(holder_.AnotherSession(0xA1, "holder").ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(NewProcess(0xA0, "holder").ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);  // nothing left: done all the same
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
}

// The end withdraws the client's waits and leaves its entry, in state OK, and
// the other session at the same address untouched.
TEST_F(OplocksEndToEnd, ClientEndReleasesEverythingOfItsClientKeyOnly) {
  ServerProcess neighbour = holder_.AnotherSession(0xA1, "neighbour");
  HolderTakesTheOplock();
  EXPECT_EQ(holder_.OpenStatus(kOther, 12, kWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(holder_.Lock(kOther, 12, 0, 100, 0), kDone);
  EXPECT_EQ(neighbour.OpenStatus(kThird, 1, kRead | kDenyReadWrite), kDone);
  EXPECT_EQ(neighbour.Lock(kThird, 1, 0, 100, 0), kDone);
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyReadWrite)), Wait(1));
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone)), Wait(2));
  EXPECT_EQ(Hex(holder_.Next()) + Hex(holder_.Next()), Break(11, 0xA0) + Break(11, 0xA0));
  EXPECT_EQ(third_.End(), kDone);  // its wait is withdrawn: no retry comes
  EXPECT_EQ(holder_.End(), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(1, 0xB0));
  third_.ExpectNoMessage();
  EXPECT_EQ(Totals(), "Files: 3 Used: 1 OpenLocks: 1 RecordLocks: 1 OpLocks: 0");
  EXPECT_NE(ReportAfterBanner().find(ClientRow("holder         ", kOk, "160", holder_)),
            std::string::npos);
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyReadWrite, {.waitid = 1})), Granted(0));
  EXPECT_EQ(second_.OpenStatus(kOther, 22, kWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(second_.Lock(kOther, 22, 0, 100, 0), kDone);
  EXPECT_EQ(second_.OpenStatus(kThird, 23, kRead), kConflict);
  EXPECT_EQ(holder_.OpenStatus(kFile, 13, kRead | kDenyNone), kConflict);  // it may open again
}

}  // namespace klv
