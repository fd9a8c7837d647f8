// One daemon in cluster mode on a real etcd (with_etcd.sh) whose store falls
// silent: a held open is told to wait and gets its retry notice once the
// store answers again, a held lock is refused, and once the silence outlasts
// the node's deadline the daemon exits with status 20 after its error record.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/wire_bytes.h"

namespace klv {
namespace {

TEST(FencingTest, WhileTheStoreIsSilentAnOpenWaitsForItAndALockIsRefusedThenTheNodeFences) {
  DaemonProcess daemon;
  const std::string setting = daemon.LogDirectory() + "/../cluster.conf";
  std::ofstream(setting) << "endpoints = " << getenv("KLV_ETCD_ENDPOINT")
                         << "\ncluster = f\nlease_ttl = 3\nfence_delay = 1\ndefer_ms = 300\n";
  setenv("KLVLOCKD_CLUSTER", setting.c_str(), 1);
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
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
