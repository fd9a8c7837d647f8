// One daemon in cluster mode on a real etcd (with_etcd.sh): a node that was
// stopped past its lease, or that loses the store, exits with status 20 after
// its error record; while the store is silent, held requests are answered.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/support/daemon_process.h"
#include "tests/support/wire_bytes.h"

namespace klv {
namespace {

constexpr uint32_t kReadDenyNone = 0x40;

class FencingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int nodes = 0;
    const std::string setting = daemon_.LogDirectory() + "/../cluster.conf";
    std::ofstream(setting) << "endpoints = " << getenv("KLV_ETCD_ENDPOINT") << "\ncluster = f"
                           << getpid() << "\nnode = n" << ++nodes
                           << "\nlease_ttl = 2\nfence_delay = 1\ndefer_ms = 300\n";
    setenv("KLVLOCKD_CLUSTER", setting.c_str(), 1);
    ASSERT_TRUE(daemon_.Start()) << daemon_.LastError();
  }
  // The reply to `request`, or empty when none comes within `timeout_ms`.
  std::string Ask(const std::string& request, int timeout_ms) {
    std::string reply;
    daemon_.Client().Send(request);
    daemon_.Client().Receive(&reply, timeout_ms);
    return reply;
  }
  void ExpectFenced() {
    EXPECT_EQ(daemon_.WaitForExit(), ProcessEnd::Exited(20));
    EXPECT_NE(daemon_.ErrorLogText().find("locking/cluster/fenced"), std::string::npos);
  }
  DaemonProcess daemon_;
};

TEST_F(FencingTest, StoppedPastItsLeaseItExitsWithStatus20AndGrantsNothing) {
  kill(daemon_.Pid(), SIGSTOP);
  sleep(3);
  daemon_.Client().Send(wire::OpenBytes({.tag = 1, .session = 1, .filekey_lo = 1}, kReadDenyNone,
                                        0, "n", "/a"));
  kill(daemon_.Pid(), SIGCONT);
  std::string reply;
  daemon_.Client().Receive(&reply, 2000);
  EXPECT_TRUE(reply.empty() || wire::WordAt(reply, 8) != wire::kDone) << wire::Hex(reply);
  ExpectFenced();
}

TEST_F(FencingTest, WhileTheStoreIsSilentAnOpenWaitsForItAndALockIsRefusedThenTheNodeFences) {
  const pid_t etcd = atoi(getenv("KLV_ETCD_PID"));
  kill(etcd, SIGSTOP);
  const std::string open =
      wire::OpenBytes({.tag = 2, .session = 1, .filekey_lo = 2}, kReadDenyNone, 0, "n", "/b");
  const std::string wait = Ask(open, 1000);
  ASSERT_EQ(wire::WordAt(wait, 8), wire::kWait) << wire::Hex(wait);
  EXPECT_EQ(wire::WordAt(Ask(wire::LockBytes({.tag = 3, .filekey_lo = 2}, 0, 1, 0), 1000), 8),
            wire::kConflict);
  kill(etcd, SIGCONT);
  std::string retry;
  daemon_.Client().Receive(&retry, 3000);
  EXPECT_EQ(retry, wire::Words({wire::kOpenRetry, 0, 0, wire::WordAt(wait, 12), 1}));
  std::string again = open;
  again.replace(24, 4, wire::Word(wire::WordAt(wait, 12)));
  EXPECT_EQ(wire::WordAt(Ask(again, 3000), 8), wire::kDone);
  kill(etcd, SIGSTOP);
  ExpectFenced();
  kill(etcd, SIGCONT);
}

}  // namespace
}  // namespace klv
