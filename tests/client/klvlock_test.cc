// libklvlock against the real daemon, and against a socket that stands in for
// the daemon where the daemon cannot be made to lose or garble a reply.

#include "client/klvlock.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
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

TEST_F(ClientLibrary, BreakReachesTheHolderAndRetryNoticeTheWaiter) {
  klvlock::Session holder = NewSession(0xA0, "holder");
  klvlock::Session waiter = NewSession(0xB0, "waiter");
  std::vector<klvlock_event> held;
  holder.SetEventHandler([&](const klvlock_event& event) { held.push_back(event); });
  ASSERT_TRUE(holder.Open(kFile, 11, kReadDenyNone, {.oplock = true}).Done());
  // The daemon probes a new client before its first oplock: answered inside the call.
  ASSERT_EQ(held.size(), 1u);
  EXPECT_EQ(held[0].kind, KLVLOCK_EVENT_PROBE);

  const klvlock::Result waits = waiter.Open(kFile, 21, kReadDenyNone, {.oplock = true});
  EXPECT_EQ(waits.reply.status, uint32_t{KLVLOCK_STATUS_WAIT});
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
  EXPECT_TRUE(waiter.Open(kFile, 21, kReadDenyNone, {.waitid = 1}).Done());
}

TEST_F(ClientLibrary, ProbeIsAnsweredOnTheNonBlockingPath) {
  klvlock::Session session = NewSession(7, "polled");
  const klvlock_request open = {
      .code = KLVLOCK_REQ_OPEN, .clientfid = 1, .file = kFile, .oplock = 1};
  uint32_t tag = 0;
  ASSERT_EQ(session.Submit(open, &tag), KLVLOCK_OK);
  std::vector<klvlock_event> events;
  session.SetEventHandler([&](const klvlock_event& event) { events.push_back(event); });
  for (int round = 0; round < 2 && events.size() < 2; ++round) session.Wait(2000);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].kind, KLVLOCK_EVENT_PROBE);
  EXPECT_EQ(events[1].kind, KLVLOCK_EVENT_REPLY);
  EXPECT_EQ(events[1].reply.tag, tag);
  EXPECT_EQ(events[1].reply.oplock_granted, 1u);

  // Answered, the client is OK; unanswered it would still be waiting.
  EXPECT_EQ(session.Version().reply.version, 201905u);
  std::string report;
  ASSERT_TRUE(daemon_.ReadStatusReport(&report));
  const std::string row = "polled +OK +7 +127\\.0\\.0\\.1:" + std::to_string(session.LocalPort());
  EXPECT_TRUE(std::regex_search(report, std::regex(row))) << report;
}

// Each request as the daemon receives it, and which are sent again while no
// reply comes: only the harmless ones, even when stray datagrams wake the
// wait. Waiting sleeps: the calls take little processor time.
TEST(ClientLibraryAlone, RequestBytesAndResends) {
  UdpClient daemon(0);  // receives the requests and never answers them
  klvlock::Session session(daemon.Port(), 5, "sixteen-byte-nam");
  std::jthread strays([&daemon, port = session.LocalPort()](std::stop_token stop) {
    for (int sent = 0; sent < 1000 && !stop.stop_requested(); ++sent) {
      daemon.SendTo(port, Words({1001, 0, 0, 0}) + "x");  // no reply's shape
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  const std::string text(KLVLOCK_MAX_STRING, 't');
  const auto head = [](uint32_t code, uint32_t tag, uint32_t waitid = 0) {
    return Words({code, tag, 5, 3, 10, 20, waitid});
  };
  const struct {
    klvlock_request request;  // of clientfid 3 and kFile
    std::string bytes;
    bool resent;
  } kCases[] = {
      {{.code = 1, .waitid = 7, .openmode = 0x41, .oplock = 9, .path = "p/q"},
       head(1, 1, 7) + Words({0x41, 1}) + "sixteen-byte-namp/q" + std::string(1, '\0'),
       false},
      {{.code = 2, .waitid = 7, .offset = 100, .length = 50, .locktype = 1},
       head(2, 2) + Words({100, 50, 1}),
       false},
      {{.code = 3, .offset = 100, .length = 50}, head(3, 3) + Words({100, 50}), false},
      {{.code = 4}, head(4, 4), false},
      {{.code = 5, .text = text.c_str()}, head(5, 5) + text + std::string(1, '\0'), true},
      {{.code = 6}, head(6, 6), false},
      {{.code = 7}, head(7, 7), false},
      {{.code = 1000}, head(1000, 8) + Words({201905, 1}), true},
      {{.code = 1001}, head(1001, 9), true},
  };
  timespec before, after;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
  for (auto c : kCases) {
    SCOPED_TRACE(c.request.code);
    c.request.clientfid = 3;
    c.request.file = kFile;
    EXPECT_EQ(session.Call(c.request, 300).error, KLVLOCK_ETIMEDOUT);
    int copies = 0;
    for (std::string datagram; copies < 10 && daemon.Receive(&datagram, 50); ++copies) {
      EXPECT_EQ(Hex(datagram), Hex(c.bytes));
    }
    EXPECT_EQ(copies > 1, c.resent) << copies;
  }
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
  EXPECT_LT((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000,
            250);
}

// A signal does not end a call's wait; late, stale, garbled and empty
// datagrams are dropped, a probe is answered, and one Process call takes all
// that has arrived.
TEST(ClientLibraryAlone, RepliesProbesAndLosses) {
  UdpClient daemon(0);  // answers by hand
  klvlock::Session session(daemon.Port(), 5, "alone");
  ASSERT_EQ(session.Error(), KLVLOCK_OK);
  signal(SIGALRM, [](int) {});  // interrupts the wait of the call, which goes on
  ualarm(20000, 0);
  EXPECT_EQ(session.Noop(100).error, KLVLOCK_ETIMEDOUT);
  std::string noop;
  while (daemon.Receive(&noop, 100)) continue;
  const klvlock_request request = {.code = KLVLOCK_REQ_NOOP};
  uint32_t tag = 0;
  ASSERT_EQ(session.Submit(request, &tag), KLVLOCK_OK);
  ASSERT_TRUE(daemon.Receive(&noop));
  EXPECT_EQ(wire::WordAt(noop, 4), tag);
  EXPECT_GT(session.NextTimeout(), 1000);
  const uint16_t port = session.LocalPort();
  daemon.SendTo(port, Words({1001, tag - 1, 0, 0}));    // the timed-out call's late reply
  daemon.SendTo(port, Words({2, tag, 0, 0}));           // another code's
  daemon.SendTo(port, Words({1001, tag, 0, 0}) + "x");  // 17 bytes: no reply's shape
  daemon.SendTo(port, Words({1001, tag, 0}));           // cut short
  daemon.SendTo(port, "");
  daemon.SendTo(port, wire::ProbeBytes({.tag = 0xBEEFCAFE, .session = 5}, 201905, 1));
  daemon.SendTo(port, Words({1001, tag, 0, 0}));
  std::vector<klvlock_event> events;
  session.SetEventHandler([&](const klvlock_event& event) { events.push_back(event); });
  pollfd readable = {session.Fd(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 2000), 1);
  EXPECT_EQ(session.Process(), 2);
  session.SetEventHandler(nullptr);
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

// Refused arguments never reach the socket; a port where no daemon listens
// is told apart from a daemon that does not answer.
TEST(ClientLibraryAlone, RefusedArgumentsAndAnUnreachableDaemon) {
  const uint16_t nobody = UdpClient(0).Port();  // free again once the line ends
  klvlock::Session session(nobody, 5, "alone");
  ASSERT_EQ(session.Error(), KLVLOCK_OK);
  klvlock_session* const s = session.Handle();
  klvlock_session* other = nullptr;
  const klvlock_request noop = {.code = KLVLOCK_REQ_NOOP}, unknown = {.code = 77};
  const std::string too_long(KLVLOCK_MAX_STRING + 1, 't');
  klvlock_reply reply;
  uint32_t tag;
  const std::pair<int, int> kCases[] = {
      {klvlock_create(nobody, 5, "seventeen-bytes-n", &other), KLVLOCK_EINVAL},
      {klvlock_destroy(nullptr), KLVLOCK_OK},
      {klvlock_call(s, &unknown, 100, &reply), KLVLOCK_EINVAL},
      {klvlock_call(s, &noop, 0, &reply), KLVLOCK_EINVAL},
      {klvlock_text(s, too_long.c_str(), 100, &reply), KLVLOCK_EINVAL},
      {klvlock_submit(nullptr, &noop, 100, &tag), KLVLOCK_EINVAL},
      {klvlock_wait(s, 0), KLVLOCK_ETIMEDOUT},
      // The first datagram to the empty port brings back its refusal.
      {klvlock_submit(s, &noop, 1, &tag), KLVLOCK_OK},
      {klvlock_submit(s, &noop, 1, &tag), KLVLOCK_EUNREACHABLE},
      {klvlock_call(s, &noop, 1, &reply), KLVLOCK_EUNREACHABLE},
  };
  for (size_t index = 0; index < std::size(kCases); ++index) {
    EXPECT_EQ(kCases[index].first, kCases[index].second) << "case " << index;
  }
}

}  // namespace

}  // namespace klv
