// The running daemon under faults and abuse: floods, stuck status readers,
// closed standard descriptors, descriptor exhaustion, sudden death.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/log_records.h"
#include "tests/support/process_tools.h"
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

  // Puts `count` files into the file table, each open under a path of
  // `path_length` bytes.
  void FillFileTable(uint32_t count, size_t path_length = 1) {
    const std::string path(path_length, 'p');
    const uint32_t batch = path_length > 1000 ? 1 : 100;  // what the daemon's buffer holds
    std::string reply;
    for (uint32_t file = 0; file < count; file += batch) {
      for (uint32_t i = file; i < file + batch; ++i) {
        daemon_.SendDatagram(wire::OpenBytes({.session = 1, .filekey_hi = i}, 0x40, 0, "f", path));
      }
      for (uint32_t i = 0; i < batch; ++i) ASSERT_TRUE(daemon_.ReceiveDatagram(&reply));
    }
  }

  // A connection to the status port that is never read; -1 when it failed.
  int ConnectToStatusPort() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;  // so that a report fills the connection soon
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(daemon_.TcpPort());
    connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return fd;
  }

  // The daemon's child processes.
  std::vector<pid_t> Children() const {
    const std::string pid = std::to_string(daemon_.Pid());
    std::ifstream list("/proc/" + pid + "/task/" + pid + "/children");
    std::vector<pid_t> children;
    for (pid_t child = 0; list >> child;) children.push_back(child);
    return children;
  }

  // The daemon's processor time so far, in clock ticks.
  long CpuTicks() const {
    std::ifstream stat("/proc/" + std::to_string(daemon_.Pid()) + "/stat");
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 1; i < 14 && stat >> field; ++i) {
    }
    stat >> utime >> stime;
    return utime + stime;
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

TEST_F(Robustness, StatusChildrenTakeTheStopSignalAndEndWithTheDaemon) {
  FillFileTable(100, 60000);
  const int first = ConnectToStatusPort();
  const int second = ConnectToStatusPort();
  for (int i = 0; i < 100 && Children().size() < 2; ++i)
    std::this_thread::sleep_for(milliseconds(20));
  const std::vector<pid_t> children = Children();
  ASSERT_EQ(children.size(), 2u);
  kill(children[0], SIGTERM);
  EXPECT_NE(process_tools::WaitForEnd(children[0], 2000), ProcessEnd::StillRunning());
  EXPECT_EQ(daemon_.Stop(SIGTERM), ProcessEnd::Exited(0));
  EXPECT_NE(process_tools::WaitForEnd(children[1], 2000), ProcessEnd::StillRunning());
  close(first);
  close(second);
}

TEST_F(Robustness, DescriptorExhaustionNeitherSpinsNorFloodsTheLog) {
  const std::string proc = "/proc/" + std::to_string(daemon_.Pid());
  std::set<rlim_t> open;
  for (const auto& fd : std::filesystem::directory_iterator(proc + "/fd")) {
    open.insert(std::stoul(fd.path().filename()));
  }
  rlimit limit = {0, 0};  // below the lowest free descriptor: no new one may be opened
  while (open.count(limit.rlim_cur) > 0) limit.rlim_max = ++limit.rlim_cur;
  ASSERT_EQ(prlimit(daemon_.Pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  const OutputMark mark = daemon_.Mark();
  const long cpu_before = CpuTicks();
  std::vector<int> connections;
  for (int i = 0; i < 5; ++i) connections.push_back(ConnectToStatusPort());
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_LT(CpuTicks() - cpu_before, 30);  // of 100 in the second
  EXPECT_TRUE(daemon_.StillAnswers());
  const auto records = log_records::ParseErrorRecords(daemon_.ErrorLogText(mark));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].id, "locking/client/failure");
  EXPECT_NE(records[0].message.find("(24) Too many open files"), std::string::npos);
  for (const int fd : connections) close(fd);
}

TEST(RobustStart, ClosedStandardErrorIsNotTakenByASocket) {
  DaemonProcess daemon;
  // A directory where its standard-error file should be: it starts with none.
  std::filesystem::create_directory(daemon.StderrPath());
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const std::string fd_path = "/proc/" + std::to_string(daemon.Pid()) + "/fd/";
  EXPECT_EQ(std::filesystem::read_symlink(fd_path + "2"), "/dev/null");
}

TEST_F(Robustness, StuckStatusReadersLeaveServiceAndEndInTime) {
  FillFileTable(100, 60000);  // a report larger than the connection's buffers
  std::vector<int> connections;
  for (int i = 0; i < 100; ++i) {
    std::this_thread::sleep_for(milliseconds(5));  // a full backlog would drop the connect
    connections.push_back(ConnectToStatusPort());
    if (i % 10 == 0) close(connections.back());  // closed before the report is through
  }
  EXPECT_TRUE(daemon_.StillAnswers());
  EXPECT_LE(Children().size(), 16u);
  const auto started = Clock::now();
  while (!Children().empty() && Clock::now() - started < std::chrono::seconds(15)) {
    std::this_thread::sleep_for(milliseconds(100));
  }
  EXPECT_EQ(Children().size(), 0u);
  for (int i = 0; i < 100; ++i) {
    if (i % 10 != 0) close(connections[i]);
  }
}

}  // namespace

}  // namespace klv
