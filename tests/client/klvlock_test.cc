// libklvlock against the real daemon, and against a socket that stands in for
// the daemon where the daemon cannot be made to lose or garble a reply.

#include "client/klvlock.hpp"

#include <gtest/gtest.h>
#include <poll.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/udp_client.h"
#include "tests/support/wire_bytes.h"

namespace klv {
namespace {

using wire::Hex;
using wire::Words;

constexpr klvlock_file kFile = {10, 20};
constexpr uint32_t kReadDenyNone = KLVLOCK_OPEN_READ | KLVLOCK_DENY_NONE;

// Polls the session's descriptor and processes what arrives, as a program
// with its own event loop does, until `count` events came or 2 s passed.
std::vector<klvlock_event> PollEvents(klvlock::Session& session, size_t count) {
  std::vector<klvlock_event> events;
  session.SetEventHandler([&](const klvlock_event& event) { events.push_back(event); });
  for (int round = 0; round < 20 && events.size() < count; ++round) {
    pollfd readable = {session.Fd(), POLLIN, 0};
    if (poll(&readable, 1, 100) == 1) {
      EXPECT_GE(session.Process(), 0);
    }
  }
  session.SetEventHandler(nullptr);
  return events;
}

class ClientLibrary : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.Start()) << daemon_.LastError(); }

  klvlock::Session NewSession(uint32_t session_id, const std::string& name) {
    klvlock::Session session(daemon_.UdpPort(), session_id, name);
    EXPECT_EQ(session.Error(), KLVLOCK_OK);
    return session;
  }

  DaemonProcess daemon_;
};

TEST_F(ClientLibrary, TwoSessionsConflictOnAnOpenAndARange) {
  // The same session id from two sockets: two clients.
  klvlock::Session alpha = NewSession(1, "alpha");
  klvlock::Session beta = NewSession(1, "beta");
  EXPECT_TRUE(alpha.Open(kFile, 1, KLVLOCK_OPEN_READ | KLVLOCK_DENY_WRITE).Done());
  const klvlock::Result refused = beta.Open(kFile, 2, KLVLOCK_OPEN_WRITE | KLVLOCK_DENY_NONE);
  ASSERT_TRUE(refused.Ok()) << refused.ErrorText();
  EXPECT_EQ(refused.reply.code, uint32_t{KLVLOCK_REQ_OPEN});
  EXPECT_EQ(refused.reply.status, uint32_t{KLVLOCK_STATUS_CONFLICT});
  EXPECT_TRUE(beta.Open(kFile, 2, kReadDenyNone).Done());

  EXPECT_TRUE(alpha.Lock(kFile, 1, 100, 50).Done());
  EXPECT_EQ(beta.Lock(kFile, 2, 149, 1).reply.status, uint32_t{KLVLOCK_STATUS_CONFLICT});
  EXPECT_TRUE(beta.Lock(kFile, 2, 150, 10, KLVLOCK_LOCK_SHARED).Done());
  EXPECT_EQ(alpha.Unlock(kFile, 1, 100, 25).reply.status, uint32_t{KLVLOCK_STATUS_NOT_FOUND});
  EXPECT_TRUE(alpha.ClientEnd().Done());
  EXPECT_TRUE(beta.Lock(kFile, 2, 100, 50).Done());  // the end released alpha's range
  EXPECT_EQ(alpha.Version().reply.version, 201905u);
  EXPECT_TRUE(alpha.Text("carried and dropped").Done());
}

TEST_F(ClientLibrary, BreakReachesTheHolderAndRetryNoticeTheWaiter) {
  klvlock::Session holder = NewSession(0xA0, "holder");
  klvlock::Session waiter = NewSession(0xB0, "waiter");
  std::vector<klvlock_event> held;
  holder.SetEventHandler([&](const klvlock_event& event) { held.push_back(event); });
  const klvlock::Result granted = holder.Open(kFile, 11, kReadDenyNone, {.oplock = true});
  ASSERT_TRUE(granted.Done());
  EXPECT_EQ(granted.reply.oplock_granted, 1u);
  // The daemon probes a new client before its first oplock: answered inside the call.
  ASSERT_EQ(held.size(), 1u);
  EXPECT_EQ(held[0].kind, KLVLOCK_EVENT_PROBE);

  const klvlock::Result waits = waiter.Open(kFile, 21, kReadDenyNone, {.oplock = true});
  EXPECT_EQ(waits.reply.status, uint32_t{KLVLOCK_STATUS_WAIT});
  EXPECT_EQ(waits.reply.value, 1u);
  ASSERT_EQ(holder.Wait(2000), KLVLOCK_OK);
  ASSERT_EQ(held.size(), 2u);
  EXPECT_EQ(held[1].kind, KLVLOCK_EVENT_OPLOCK_BREAK);
  EXPECT_EQ(
      std::vector<uint32_t>({held[1].file.hi, held[1].file.lo, held[1].clientfid, held[1].session}),
      std::vector<uint32_t>({10, 20, 11, 0xA0}));

  EXPECT_TRUE(holder.ReleaseOplock(kFile, 11).Done());
  ASSERT_EQ(waiter.Wait(2000), KLVLOCK_OK);
  // No handler on the waiter: its probe (it had to wait) and the notice are queued.
  klvlock_event event;
  ASSERT_TRUE(waiter.NextEvent(&event));
  EXPECT_EQ(event.kind, KLVLOCK_EVENT_PROBE);
  ASSERT_TRUE(waiter.NextEvent(&event));
  EXPECT_EQ(event.kind, KLVLOCK_EVENT_OPEN_RETRY);
  EXPECT_EQ(event.waitid, 1u);
  EXPECT_EQ(event.session, 0xB0u);
  EXPECT_FALSE(waiter.NextEvent(&event));
  const klvlock::Result retried = waiter.Open(kFile, 21, kReadDenyNone, {.waitid = 1});
  EXPECT_TRUE(retried.Done());
  EXPECT_EQ(retried.reply.oplock_granted, 0u);
}

TEST_F(ClientLibrary, ProbeIsAnsweredOnTheNonBlockingPath) {
  klvlock::Session session = NewSession(7, "polled");
  klvlock_request open = {};
  open.code = KLVLOCK_REQ_OPEN;
  open.file = kFile;
  open.clientfid = 1;
  open.oplock = 1;
  uint32_t tag = 0;
  ASSERT_EQ(session.Submit(open, &tag), KLVLOCK_OK);
  const std::vector<klvlock_event> events = PollEvents(session, 2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].kind, KLVLOCK_EVENT_PROBE);
  EXPECT_EQ(events[1].kind, KLVLOCK_EVENT_REPLY);
  EXPECT_EQ(events[1].reply.tag, tag);
  EXPECT_EQ(events[1].reply.oplock_granted, 1u);

  // Answered, the client is OK; unanswered it would still be waiting.
  ASSERT_TRUE(daemon_.StillAnswers());
  std::string report;
  ASSERT_TRUE(daemon_.ReadStatusReport(&report));
  const std::string row = "polled +OK +7 +127\\.0\\.0\\.1:" + std::to_string(session.LocalPort());
  EXPECT_TRUE(std::regex_search(report, std::regex(row))) << report;
}

TEST(ClientLibraryAlone, LostStaleAndGarbledRepliesAndAProbe) {
  UdpClient daemon(0);  // receives the requests and answers by hand
  klvlock::Session session(daemon.Port(), 5, "alone");
  ASSERT_EQ(session.Error(), KLVLOCK_OK);
  EXPECT_EQ(session.Lock(kFile, 1, 0, 10, KLVLOCK_LOCK_EXCLUSIVE, 200).error, KLVLOCK_ETIMEDOUT);
  std::string lock;
  ASSERT_TRUE(daemon.Receive(&lock));
  EXPECT_TRUE(daemon.ReceivesNothing(100)) << "a lock must not be resent";
  EXPECT_EQ(session.Noop(600).error, KLVLOCK_ETIMEDOUT);
  std::string noop;
  int copies = 0;
  while (copies < 10 && daemon.Receive(&noop, 100)) ++copies;
  EXPECT_GE(copies, 2) << "a no-op may be resent";

  klvlock_request request = {};
  request.code = KLVLOCK_REQ_NOOP;
  uint32_t tag = 0;
  ASSERT_EQ(session.Submit(request, &tag), KLVLOCK_OK);
  ASSERT_TRUE(daemon.Receive(&noop));
  EXPECT_EQ(wire::WordAt(noop, 4), tag);
  const uint16_t port = session.LocalPort();
  daemon.SendTo(port, Words({2, wire::WordAt(lock, 4), 1, 0}));  // the lock's late reply
  daemon.SendTo(port, Words({1001, tag, 0, 0}) + "x");           // 17 bytes: no reply's shape
  daemon.SendTo(port, Words({1001, tag, 0}));                    // cut short
  daemon.SendTo(port, wire::ProbeBytes({.tag = 0xBEEFCAFE, .session = 5}, 201905, 1));
  daemon.SendTo(port, Words({1001, tag, 0, 0}));
  const std::vector<klvlock_event> events = PollEvents(session, 3);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].kind, KLVLOCK_EVENT_PROBE);
  EXPECT_EQ(events[1].kind, KLVLOCK_EVENT_REPLY);
  EXPECT_EQ(events[1].reply.tag, tag);
  std::string answer;
  ASSERT_TRUE(daemon.Receive(&answer));
  EXPECT_EQ(Hex(answer), Hex(Words({1000, 0xBEEFCAFE, 5, 0, 0, 0, 0, 201905, 0})));

  ASSERT_EQ(session.Submit(request, &tag, /*timeout_ms=*/50), KLVLOCK_OK);
  ASSERT_EQ(session.Wait(2000), KLVLOCK_OK);
  klvlock_event lost;
  ASSERT_TRUE(session.NextEvent(&lost));
  EXPECT_EQ(lost.kind, KLVLOCK_EVENT_LOST);
  EXPECT_EQ(lost.reply.tag, tag);
}

}  // namespace

}  // namespace klv
