// The one-argument form of the program, against a running daemon.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "tests/support/daemon_process.h"

namespace klv {

namespace {

// A port on 127.0.0.1 that refuses connections while the returned socket,
// bound there but not listening, stays open.
int RefusingPort(int* fd) {
  *fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(*fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 0;
  getsockname(*fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

TEST(StatusProbe, CopiesTheReportOfARunningDaemon) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const ProgramRun run = RunKlvlockd({std::to_string(daemon.TcpPort())});
  EXPECT_EQ(run.end, ProcessEnd::Exited(0));
  EXPECT_EQ(run.err, "");
  const std::regex empty_tables(
      R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} Ostrand Kelvane Lock Daemon 2\.01\.905\n\n)"
      R"(== Client information\n\n== File lock information\n\n)"
      R"(Files: \d+ Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n)");
  EXPECT_TRUE(std::regex_match(run.out, empty_tables)) << run.out;
  EXPECT_TRUE(daemon.StillAnswers());
}

TEST(StatusProbe, PortArgumentsThatAreNoPortExitTen) {
  for (const std::string argument : {"0", "status", "", "70000", "-5"}) {
    SCOPED_TRACE(argument);
    const ProgramRun run = RunKlvlockd({argument});
    EXPECT_EQ(run.end, ProcessEnd::Exited(10));
    EXPECT_EQ(run.err, "\"" + argument + "\" is not a valid port number\n");
    EXPECT_EQ(run.out, "");
  }
}

TEST(StatusProbe, NumberFollowedByLettersCountsAsTheNumber) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.LastError();
  const ProgramRun run = RunKlvlockd({std::to_string(daemon.TcpPort()) + "xyz"});
  EXPECT_EQ(run.end, ProcessEnd::Exited(0));
  EXPECT_NE(run.out.find("== Client information\n"), std::string::npos) << run.out;
}

TEST(StatusProbe, PortWhereNothingListensExitsTwelve) {
  int fd = -1;
  const int port = RefusingPort(&fd);
  ASSERT_NE(port, 0);
  const ProgramRun run = RunKlvlockd({std::to_string(port)});
  close(fd);
  EXPECT_EQ(run.end, ProcessEnd::Exited(12));
  EXPECT_EQ(run.out, "");
  const std::regex refused(
      "LOCKDSTATUS: Unable to contact lockd daemon: connect\\(\\d+,127\\.0\\.0\\.1:" +
      std::to_string(port) + "\\): \\(111\\) Connection refused\n");
  EXPECT_TRUE(std::regex_match(run.err, refused)) << run.err;
}

}  // namespace

}  // namespace klv
