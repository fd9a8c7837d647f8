// The running daemon under faults and abuse: floods, stuck status readers,
// closed standard descriptors, descriptor exhaustion, sudden death.

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/udp_client.h"
#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Sends REQ_NOOPs from one socket as fast as it can, until destroyed or for
// `seconds` at most.
class Flood {
 public:
  Flood(uint16_t port, const std::string& request, int seconds)
      : thread_([=, this] { Run(port, request, seconds); }) {}
  ~Flood() {
    done_ = true;
    thread_.join();
  }

 private:
  void Run(uint16_t port, const std::string& request, int seconds) {
    UdpClient client(port);
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (!done_ && Clock::now() < end) client.Send(request);
  }

  std::atomic<bool> done_{false};
  std::thread thread_;
};

class Robustness : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.Start()) << daemon_.LastError(); }

  // Puts `count` files into the file table, each with one byte-range lock.
  void FillFileTable(uint32_t count) {
    std::string reply;
    for (uint32_t file = 0; file < count; file += 100) {
      for (uint32_t i = file; i < file + 100; ++i) {
        daemon_.SendDatagram(wire::LockBytes({.session = 1, .filekey_hi = i}, 0, 1, 0));
      }
      for (int i = 0; i < 100; ++i) ASSERT_TRUE(daemon_.ReceiveDatagram(&reply));
    }
  }

  DaemonProcess daemon_;
};

TEST_F(Robustness, StopEndsTheDaemonDuringAFlood) {
  // Each REQ_CLIENT_END walks the whole file table, so the daemon always
  // finds the next one waiting.
  FillFileTable(20000);
  Flood flood(daemon_.UdpPort(), wire::BareBytes(wire::kClientEnd, {.session = 9}), 15);
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_EQ(daemon_.Stop(SIGTERM, 3000), ProcessEnd::Exited(0));
}

TEST(RobustStart, ClosedStandardErrorIsNotTakenByASocket) {
  DaemonProcess daemon;
  // A directory where its standard-error file should be: it starts with none.
  std::filesystem::create_directory(daemon.StderrPath());
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const std::string fd_path = "/proc/" + std::to_string(daemon.Pid()) + "/fd/";
  EXPECT_EQ(std::filesystem::read_symlink(fd_path + "2"), "/dev/null");
}

}  // namespace

}  // namespace klv
