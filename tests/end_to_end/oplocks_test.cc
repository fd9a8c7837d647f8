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
// The break that kFile's holder 0xA0 gets for its clientfid 11: code 8, tag,
// status and value 0, the file key, the holder's clientfid and session.
const std::string kBreak = Words({8, 0, 0, 0, 0x1234, 0x5678, 11, 0xA0});

// The reply to an open: granted (status 0) with or without oplock, or wait.
std::string Granted(uint32_t oplock) { return Hex(Words({1, kTag, 0, 0, oplock})); }
std::string Wait(uint32_t wait_id) { return Hex(Words({1, kTag, 5, wait_id, 0})); }
// The retry notice for wait `wait_id` of session `session`.
std::string Retry(uint32_t wait_id, uint32_t session) {
  return Hex(Words({9, 0, 0, wait_id, session}));
}

class OplocksEndToEnd : public LockServiceTest {
 protected:
  // The holder opens kFile under clientfid 11 and is granted the oplock.
  void HolderTakesTheOplock() {
    ASSERT_EQ(Hex(holder_.Open(kFile, 11, kRead | kDenyNone, {.oplockwanted = 1})), Granted(1));
  }

  ServerProcess holder_ = NewProcess(0xA0, "holder");
  ServerProcess second_ = NewProcess(0xB0, "second");
  ServerProcess third_ = NewProcess(0xC0, "third");
};

TEST_F(OplocksEndToEnd, GrantBreakWaitReleaseAndRetry) {
  // A new client is probed before its oplock is granted.
  std::string datagram;
  ASSERT_TRUE(holder_.Send(holder_.OpenRequest(kFile, 11, kRead | kDenyNone, {.oplockwanted = 1})));
  ASSERT_TRUE(holder_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({1000, 0xBEEFCAFE, 0xA0, 0, 0, 0, 0, 201905, 1})));
  ASSERT_TRUE(holder_.Send(Words({1000, 0xBEEFCAFE, 0xA0, 0, 0, 0, 0, 201905, 0})));
  ASSERT_TRUE(holder_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Granted(1));

  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1})), Wait(1));
  EXPECT_EQ(Hex(holder_.Next()), Hex(kBreak));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(1, 0xB0));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
  // A retried open never gets an oplock, though it asks for one.
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1, .waitid = 1})),
            Granted(0));
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0");
  holder_.ExpectNoMessage();
  second_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, OpenUnderAnotherClientfidBreaksTheOwnOplock) {
  HolderTakesTheOplock();
  ASSERT_TRUE(holder_.Send(holder_.OpenRequest(kFile, 12, kRead | kDenyNone)));
  EXPECT_EQ(Hex(holder_.Next()), Hex(kBreak));
  EXPECT_EQ(Hex(holder_.Next()), Wait(1));
  ASSERT_TRUE(holder_.Send(wire::BareBytes(wire::kOplockRelease, holder_.Head(kFile, 11))));
  EXPECT_EQ(Hex(holder_.Next()), Retry(1, 0xA0));
  EXPECT_EQ(Hex(holder_.Next()), Hex(Words({7, kTag, 0, 0})));
  EXPECT_EQ(Hex(holder_.Open(kFile, 12, kRead | kDenyNone, {.waitid = 1})), Granted(0));
}

TEST_F(OplocksEndToEnd, EveryWaiterGetsItsOwnRetryAndARetryMayWaitAgain) {
  HolderTakesTheOplock();
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone)), Wait(1));
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone)), Wait(2));
  EXPECT_EQ(Hex(holder_.Next()), Hex(kBreak));  // a break for each open
  EXPECT_EQ(Hex(holder_.Next()), Hex(kBreak));
  EXPECT_EQ(holder_.Close(kFile, 11), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(1, 0xB0));
  EXPECT_EQ(Hex(third_.Next()), Retry(2, 0xC0));
  EXPECT_EQ(Totals(), "Files: 1 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0");

  // A new oplock taken before the retry makes the retry wait anew.
  EXPECT_EQ(Hex(third_.Open(kFile, 31, kRead | kDenyNone, {.oplockwanted = 1})), Granted(1));
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 1})), Wait(3));
  EXPECT_EQ(Hex(third_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 31, 0xC0})));
  // An early retry withdraws its old wait: the release answers only the new one.
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.waitid = 3})), Wait(4));
  EXPECT_EQ(Hex(third_.Next()), Hex(Words({8, 0, 0, 0, 0x1234, 0x5678, 31, 0xC0})));
  EXPECT_EQ(third_.ReleaseOplock(kFile, 31), kDone);
  EXPECT_EQ(Hex(second_.Next()), Retry(4, 0xB0));
  second_.ExpectNoMessage();
  holder_.ExpectNoMessage();
}

TEST_F(OplocksEndToEnd, ReleaseNeedsTheHoldersFileClientAndClientfid) {
  EXPECT_EQ(Hex(holder_.Ask(wire::BareBytes(wire::kOplockRelease, holder_.Head(kFile, 11)))),
            Hex(Words({7, kTag, 4, 0})));  // an unknown file
  HolderTakesTheOplock();
  ServerProcess same_session_elsewhere = NewProcess(0xA0, "holder");
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 12), kDone);
  EXPECT_EQ(holder_.AnotherSession(0xA1, "holder").ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(same_session_elsewhere.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 1");
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);
  EXPECT_EQ(holder_.ReleaseOplock(kFile, 11), kDone);  // nothing left: done all the same
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0");
}

TEST_F(OplocksEndToEnd, FileThatIsOpenGivesNoOplock) {
  EXPECT_EQ(holder_.OpenStatus(kFile, 11, kRead | kDenyNone), kDone);
  EXPECT_EQ(Hex(second_.Open(kFile, 21, kRead | kDenyNone, {.oplockwanted = 1})), Granted(0));
  holder_.ExpectNoMessage();
  EXPECT_EQ(Totals(), "Files: 1 Used: 1 OpenLocks: 2 RecordLocks: 0 OpLocks: 0");
}

}  // namespace

}  // namespace klv
