// Oplocks on the running daemon: grants, breaks to every holder, waits,
// releases and the retry notices that end a wait.

#include <cstdint>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::Hex;
using wire::kDone;
using wire::Words;

constexpr FileKey kFile = {0x1234, 0x5678};
constexpr FileKey kOtherFile = {0x1234, 0x9999};

class OplocksEndToEnd : public LockServiceTest {
 protected:
  // The holder opens kFile under clientfid 11 and is granted the oplock.
  void HolderTakesTheOplock() {
    ASSERT_EQ(Hex(holder_.Open(kFile, 11, kRead | kDenyNone, {.oplockwanted = 1})),
              Hex(Words({1, kTag, 0, 0, 1})));
  }

  ServerProcess holder_ = NewProcess(0xA0, "holder");
  ServerProcess second_ = NewProcess(0xB0, "second");
  ServerProcess third_ = NewProcess(0xC0, "third");
};

TEST_F(OplocksEndToEnd, GrantProbesANewClientFirst) {
  std::string datagram;
  ASSERT_TRUE(holder_.Send(holder_.OpenRequest(kFile, 11, kRead | kDenyNone, {.oplockwanted = 1})));
  ASSERT_TRUE(holder_.Udp().Receive(&datagram));
  // code, tag, session, clientfid, filekey_hi, filekey_lo, waitid, version, wantreply
  EXPECT_EQ(Hex(datagram), Hex(Words({1000, 0xBEEFCAFE, 0xA0, 0, 0, 0, 0, 201905, 1})));
  ASSERT_TRUE(holder_.Send(Words({1000, 0xBEEFCAFE, 0xA0, 0, 0, 0, 0, 201905, 0})));
  ASSERT_TRUE(holder_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");

  // Heard from since: the next grant comes without a probe.
  ASSERT_TRUE(holder_.Send(holder_.OpenRequest(kOtherFile, 12, kRead, {.oplockwanted = 1})));
  ASSERT_TRUE(holder_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({1, kTag, 0, 0, 1})));
}

TEST_F(OplocksEndToEnd, BreakWaitReleaseAndRetry) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 5, 1, 0})));
  // code 8, tag, status, value, filekey_hi, filekey_lo, holder's clientfid and session
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");

  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Hex(Words({9, 0, 0, 1, 0xB0})));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");

  // A retried open never gets an oplock, though it asks for one.
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1, .waitid = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0");
  holder_.ExpectNoMessage();
  second_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, RetryGetsNoOplockEvenWhenNobodyHasTheFileOpen) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Hex(Words({9, 0, 0, 1, 0xB0})));
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);  // nothing left to release
  EXPECT_EQ(holder_.Close(kFile, 11), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");

  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1, .waitid = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
}

TEST_F(OplocksEndToEnd, EarlyRetryWithdrawsTheOldWaitAndWaitsAnew) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
  // Retried before the release: the oplock still stands, so a new wait begins.
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 1})),
            Hex(Words({1, kTag, 5, 2, 0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));

  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Hex(Words({9, 0, 0, 2, 0xB0})));
  second_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, OpenUnderAnotherClientfidBreaksTheOwnOplock) {
  HolderTakesTheOplock();
  ASSERT_TRUE(holder_.Send(holder_.OpenRequest(kFile, 12, kRead | kDenyNone)));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({1, kTag, 5, 1, 0})));

  ASSERT_TRUE(holder_.Send(wire::BareBytes(wire::kOplockRelease, holder_.Head(kFile, 11))));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({9, 0, 0, 1, 0xA0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({7, kTag, 0, 0})));
  EXPECT_EQ(Hex(holder_.Open(kFile, 12, kRead | kDenyNone, {.waitid = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
}

TEST_F(OplocksEndToEnd, EachWaiterGetsItsOwnRetry) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 2, 0})));
  // A break for each open that met the oplock.
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));

  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Hex(Words({9, 0, 0, 1, 0xB0})));
  EXPECT_EQ(Hex(third_.Next()), Hex(Words({9, 0, 0, 2, 0xC0})));
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone, {.waitid = 2})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
}

TEST_F(OplocksEndToEnd, CloseReleasesTheOplockAndRetryMayWaitAgain) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
  EXPECT_EQ(holder_.Close(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Hex(Words({9, 0, 0, 1, 0xB0})));
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");

  // The file is free again: a third process takes a new oplock before the
  // waiter retries, and the retry meets it.
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 1})),
            Hex(Words({1, kTag, 5, 2, 0})));
  EXPECT_EQ(Hex(third_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 31, 0xC0})));
  holder_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, ReleaseOfUnknownFileIsAnsweredFour) {
  EXPECT_EQ(Hex(holder_.Ask(wire::BareBytes(wire::kOplockRelease, holder_.Head(kFile, 11)))),
            Hex(Words({7, kTag, 4, 0})));
}

TEST_F(OplocksEndToEnd, ReleaseUnderAnotherClientfidOrAddressKeepsTheOplock) {
  HolderTakesTheOplock();
  ServerProcess same_session_elsewhere = NewProcess(0xA0, "holder");
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 12), kDone);
  EXPECT_EQ(same_session_elsewhere.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0})));
}

TEST_F(OplocksEndToEnd, ReleaseOfAnOplockNotHeldIsDoneAndKeepsTheOpen) {
  EXPECT_EQ(holder_.OpenStatus(kFile, 11, kRead | kDenyReadWrite), kDone);
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 99), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
}

TEST_F(OplocksEndToEnd, FileWithAnOpenIsGrantedWithoutOplock) {
  EXPECT_EQ(holder_.OpenStatus(kFile, 11, kRead | kDenyNone), kDone);
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
  holder_.ExpectNoMessage();
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0");
}

}  // namespace

}  // namespace klv
