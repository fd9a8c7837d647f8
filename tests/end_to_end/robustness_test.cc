// The running daemon under faults and abuse: floods, stuck status readers,
// closed standard descriptors, descriptor exhaustion, sudden death, full logs.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/udp_client.h"
#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// True once process `pid` has ended within `timeout_ms`. A child that outlives
// the daemon is handed to this process, the reaper of the daemon's orphans.
bool Ended(pid_t pid, int timeout_ms) {
  return WaitFor([pid] { return waitpid(pid, nullptr, WNOHANG) == pid || kill(pid, 0) != 0; },
                 timeout_ms);
}

// How often `text` holds `word`.
size_t Count(const std::string& text, const std::string& word) {
  size_t count = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++count;
  return count;
}

// The local address, in the hex of /proc/net, of the socket in `table` whose
// local port is `port`.
std::string BoundAddress(const std::string& table, uint16_t port) {
  std::ifstream in("/proc/net/" + table);
  char suffix[8];
  snprintf(suffix, sizeof suffix, ":%04X", port);
  for (std::string line, slot, local; std::getline(in, line);) {
    std::istringstream(line) >> slot >> local;
    if (local.ends_with(suffix)) return local.substr(0, local.size() - 5);
  }
  return "";
}

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
        daemon_.Client().Send(wire::OpenBytes({.session = 1, .filekey_hi = i}, 0x40, 0, "f", path));
      }
      for (uint32_t i = 0; i < batch; ++i) ASSERT_TRUE(daemon_.Client().Receive(&reply));
    }
  }

  // A connection to the status port that is never read.
  int ConnectToStatusPort() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;  // so that a report fills the connection soon
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(daemon_.TcpPort())};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return fd;
  }

  std::string Proc() const { return "/proc/" + std::to_string(daemon_.Pid()); }

  std::vector<pid_t> Children() const {
    std::ifstream list(Proc() + "/task/" + std::to_string(daemon_.Pid()) + "/children");
    return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
  }

  // The daemon's processor time so far, in clock ticks: fields 14 and 15.
  long CpuTicks() const {
    std::ifstream stat(Proc() + "/stat");
    std::string field;
    for (int i = 1; i < 14;) i += (stat >> field) ? 1 : 14;
    long user = 0, system = 0;
    stat >> user >> system;
    return user + system;
  }

  DaemonProcess daemon_;
};

TEST_F(Robustness, StopEndsTheDaemonDuringAFlood) {
  // Each REQ_CLIENT_END walks the whole file table, so the daemon always
  // finds the next one waiting.
  FillFileTable(20000);
  std::jthread flood([port = daemon_.UdpPort()](std::stop_token stop) {
    UdpClient client(port);
    const auto end = Clock::now() + std::chrono::seconds(15);
    while (!stop.stop_requested() && Clock::now() < end) {
      client.Send(wire::BareBytes(wire::kClientEnd, {.session = 9}));
    }
  });
  std::this_thread::sleep_for(milliseconds(500));
  for (const int other : {SIGINT, SIGABRT}) kill(daemon_.Pid(), other);  // all three pending
  EXPECT_EQ(daemon_.Stop(SIGTERM, 3000), ProcessEnd::Exited(0));
}

TEST_F(Robustness, StuckStatusReadersLeaveServiceAndEndInTime) {
  FillFileTable(100, 60000);  // a report larger than the connection's buffers
  std::vector<int> stuck;
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(milliseconds(5));  // a full backlog would drop the connect
    stuck.push_back(ConnectToStatusPort());
    if (i % 10 == 0) shutdown(stuck.back(), SHUT_RDWR);  // gone before its report ends
  }
  EXPECT_TRUE(daemon_.StillAnswers());
  EXPECT_LE(Children().size(), 16u);
  EXPECT_TRUE(WaitFor([this] { return Children().empty(); }, 15000));  // 10 s each
  for (const int fd : stuck) close(fd);
}

// A reader that hangs up ends its child at once; the others end on a stop
// signal of their own or with the daemon.
TEST_F(Robustness, StatusChildrenEndWithTheirReaderOrTheDaemon) {
  FillFileTable(100, 60000);
  const int gone = ConnectToStatusPort();
  ASSERT_TRUE(WaitFor([this] { return Children().size() == 1; }, 2000));
  const pid_t abandoned = Children()[0];
  close(gone);
  EXPECT_TRUE(Ended(abandoned, 2000));
  const int first = ConnectToStatusPort();
  const int second = ConnectToStatusPort();
  ASSERT_TRUE(WaitFor([this] { return Children().size() == 2; }, 2000));
  const std::vector<pid_t> children = Children();
  kill(children[0], SIGTERM);
  EXPECT_TRUE(Ended(children[0], 2000));
  EXPECT_EQ(daemon_.Stop(SIGTERM), ProcessEnd::Exited(0));
  EXPECT_TRUE(Ended(children[1], 2000));
  close(first);
  close(second);
}

TEST_F(Robustness, DescriptorExhaustionNeitherSpinsNorFloodsTheLog) {
#ifdef __SANITIZE_ADDRESS__  // the sanitizers' own checks need descriptors (a pipe)
  GTEST_SKIP() << "a sanitized daemon cannot run out of descriptors";
#endif
  std::set<rlim_t> open;
  for (const auto& fd : std::filesystem::directory_iterator(Proc() + "/fd")) {
    open.insert(std::stoul(fd.path().filename()));
  }
  rlimit limit = {0, 0};  // the lowest free descriptor: no new one may be opened
  while (open.count(limit.rlim_cur) > 0) limit.rlim_max = ++limit.rlim_cur;
  ASSERT_EQ(prlimit(daemon_.Pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  const OutputMark mark = daemon_.Mark();
  const long cpu_before = CpuTicks();
  std::vector<int> connections;
  for (int i = 0; i < 5; ++i) connections.push_back(ConnectToStatusPort());
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_LT(CpuTicks() - cpu_before, 30);  // of 100 in the second
  EXPECT_TRUE(daemon_.StillAnswers());
  const std::string errors = daemon_.ErrorLogText(mark);
  EXPECT_EQ(Count(errors, "\tlocking/"), 1u) << errors;
  EXPECT_EQ(Count(errors, "\tlocking/client/failure\t"), 1u) << errors;
  EXPECT_NE(errors.find("(24) Too many open files"), std::string::npos) << errors;
  for (const int fd : connections) close(fd);
}

TEST_F(Robustness, SigkillLeavesBothLogsCompleteAndSocketsAreOnLoopbackOnly) {
  EXPECT_EQ(BoundAddress("udp", daemon_.UdpPort()), "0100007F");  // 127.0.0.1
  EXPECT_EQ(BoundAddress("tcp", daemon_.TcpPort()), "0100007F");
  std::string reply;
  for (uint32_t i = 0; i < 50; ++i) {  // lock type 4: one error record each
    ASSERT_TRUE(daemon_.Client().Exchange(wire::LockBytes({.filekey_hi = i}, 0, 1, 4), &reply));
  }
  EXPECT_EQ(daemon_.Stop(SIGKILL), ProcessEnd::Signalled(SIGKILL));
  const std::string errors = daemon_.ErrorLogText();
  EXPECT_EQ(Count(errors, "\tlocking/api/notimplemented\t"), 50u);
  EXPECT_TRUE(errors.ends_with("Check the installation is not corrupted\n"));
  EXPECT_TRUE(daemon_.EventLogText().ends_with("(2.01)\n"));
}

TEST(RobustStart, ClosedStandardErrorIsNotTakenByASocket) {
  DaemonProcess daemon;
  // A directory where its standard-error file should be: it starts with none.
  std::filesystem::create_directory(daemon.StderrPath());
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon.Pid()) + "/fd/2"),
            "/dev/null");
}

TEST(RobustLogs, LogsThatCannotBeWrittenDoNotStopTheService) {
  DaemonProcess daemon;
  // One page of tmpfs, which the start event takes; where mounting is not
  // allowed, both logs on /dev/full.
  const std::string logs = daemon.LogDirectory();
  if (mount("klvlogs", logs.c_str(), "tmpfs", 0, "size=4k") != 0) {
    for (const char* name : {"/journal.log", "/errlock.log"})
      symlink("/dev/full", (logs + name).c_str());
  }
  EXPECT_TRUE(daemon.Start()) << daemon.LastError();
  std::string reply;
  for (uint32_t i = 0; i < 50; ++i) {
    EXPECT_TRUE(daemon.Client().Exchange(wire::LockBytes({.filekey_hi = i}, 0, 1, 4), &reply));
  }
  EXPECT_EQ(Count(daemon.StderrText(), "\tlocking/api/notimplemented\t"), 50u);
  EXPECT_EQ(daemon.Stop(SIGTERM), ProcessEnd::Exited(0));
  umount2(logs.c_str(), MNT_DETACH);
}

}  // namespace

}  // namespace klv
