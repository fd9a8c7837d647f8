// One daemon in cluster mode on a real etcd (with_etcd.sh). A burst of
// requests is answered whole, those on one file in the order sent. When the
// store falls silent, a held open is told to wait and gets its retry notice
// once the store answers again, a held lock is refused, and once the silence
// outlasts the node's deadline the daemon exits with status 20 after its
// error record.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <utility>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/wire_bytes.h"

namespace klv {
namespace {

bool StartNode(DaemonProcess* daemon, const std::string& setting_lines) {
  const std::string setting = daemon->LogDirectory() + "/../cluster.conf";
  std::ofstream(setting) << "endpoints = " << getenv("KLV_ETCD_ENDPOINT") << "\n" << setting_lines;
  setenv("KLVLOCKD_CLUSTER", setting.c_str(), 1);
  return daemon->Start();
}

// More requests than the daemon reads at one wake-up, sent at once: the
// first open of a class, the last close of one, the open behind it and each
// granted lock wait for the store, and the requests behind them on the file
// wait their turn, also behind a lock refused here.
TEST(ClusterDaemon, EveryRequestOfABurstIsAnsweredAndThoseOnOneFileInOrder) {
  DaemonProcess daemon;
  // A request held for want of the store is answered after defer_ms: longer
  // than the waits below, so that every reply here is the decided one.
  ASSERT_TRUE(StartNode(&daemon, "cluster = burst\ndefer_ms = 5000\n")) << daemon.LastError();
  auto on_file = [](uint32_t tag, uint32_t fid) {
    return wire::RequestHead{.tag = tag, .session = 1, .clientfid = fid, .filekey_lo = 5};
  };
  std::vector<std::string> burst = {
      wire::OpenBytes(on_file(1, 1), 0x20, 0, "n", "/f"),  // read, deny write
      wire::OpenBytes(on_file(2, 2), 0x41, 0, "n", "/f"),  // write, deny none: refused
      wire::BareBytes(wire::kClose, on_file(3, 1)),
      wire::OpenBytes(on_file(4, 2), 0x41, 0, "n", "/f"),
      wire::OpenBytes(on_file(5, 3), 0x41, 0, "n", "/f"),
      wire::BareBytes(wire::kClose, on_file(6, 3)),
      wire::LockBytes(on_file(7, 2), 0, 10, 0),
      wire::LockBytes({.tag = 8, .session = 3, .filekey_lo = 5}, 5, 10, 0),  // refused
      wire::LockBytes(on_file(9, 2), 20, 10, 0)};
  for (uint32_t tag = 10; tag < 80; ++tag)
    burst.push_back(wire::BareBytes(wire::kNoop, {.tag = tag}));
  burst.push_back(wire::BareBytes(wire::kClientEnd, {.tag = 90, .session = 2}));  // holds nothing
  for (const std::string& request : burst) daemon.Client().Send(request);
  using Replies = std::vector<std::pair<uint32_t, uint32_t>>;  // tag, status
  Replies file_replies, end_replies;
  std::vector<uint32_t> noop_tags, expected_noop_tags;
  std::string reply;
  for (size_t i = 0; i < burst.size() && daemon.Client().Receive(&reply, 3000); ++i) {
    const uint32_t code = wire::WordAt(reply, 0);
    if (code == wire::kNoop) noop_tags.push_back(wire::WordAt(reply, 4));
    auto& replies = code == wire::kClientEnd ? end_replies : file_replies;
    if (code != wire::kNoop) replies.emplace_back(wire::WordAt(reply, 4), wire::WordAt(reply, 8));
  }
  using wire::kConflict, wire::kDone;
  const Replies in_order = {{1, kDone}, {2, kConflict}, {3, kDone},     {4, kDone}, {5, kDone},
                            {6, kDone}, {7, kDone},     {8, kConflict}, {9, kDone}};
  EXPECT_EQ(file_replies, in_order);
  EXPECT_EQ(end_replies, (Replies{{90, kDone}}));
  for (uint32_t tag = 10; tag < 80; ++tag) expected_noop_tags.push_back(tag);
  EXPECT_EQ(noop_tags, expected_noop_tags);
}

TEST(FencingTest, WhileTheStoreIsSilentAnOpenWaitsForItAndALockIsRefusedThenTheNodeFences) {
  DaemonProcess daemon;
  ASSERT_TRUE(StartNode(&daemon, "cluster = f\nlease_ttl = 3\nfence_delay = 1\ndefer_ms = 300\n"))
      << daemon.LastError();
  auto ask = [&](const std::string& request) {
    std::string reply;
    daemon.Client().Send(request);
    daemon.Client().Receive(&reply, 3000);
    return reply;
  };
  const pid_t etcd = atoi(getenv("KLV_ETCD_PID"));
  kill(etcd, SIGSTOP);
  const std::string open =
      wire::OpenBytes({.tag = 2, .session = 1, .filekey_lo = 2}, 0x40, 0, "n", "");
  const std::string wait = ask(open);
  ASSERT_EQ(wire::WordAt(wait, 8), wire::kWait) << wire::Hex(wait);
  EXPECT_EQ(wire::WordAt(ask(wire::LockBytes({.tag = 3, .filekey_lo = 2}, 0, 1, 0)), 8),
            wire::kConflict);
  kill(etcd, SIGCONT);
  // An empty datagram gets no answer: this waits for the notice.
  EXPECT_EQ(ask(""), wire::Words({wire::kOpenRetry, 0, 0, wire::WordAt(wait, 12), 1}));
  EXPECT_EQ(wire::WordAt(
                ask(open.substr(0, 24) + wire::Word(wire::WordAt(wait, 12)) + open.substr(28)), 8),
            wire::kDone);
  kill(etcd, SIGSTOP);
  EXPECT_EQ(daemon.WaitForExit(), ProcessEnd::Exited(20));
  EXPECT_NE(daemon.ErrorLogText().find("locking/cluster/fenced"), std::string::npos);
  kill(etcd, SIGCONT);
}

}  // namespace
}  // namespace klv
