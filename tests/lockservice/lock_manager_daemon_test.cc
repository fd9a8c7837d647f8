// The paths of LockManagerDaemon that no datagram from outside can reach: a
// datagram of length zero (the event loop drops it before Dispatch) and
// replies that cannot be sent.

#include "lockservice/lock_manager_daemon.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/lockservice/daemon_fixture.h"

namespace klv {

namespace {

using wire::Words;

class LockManagerDaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    client_ = &AddClient();
  }

  TestClient* client_ = nullptr;
};

TEST_F(LockManagerDaemonTest, ZeroLengthDatagramGetsNothing) {
  daemon_->Dispatch(client_->address, nullptr, 0);
  EXPECT_TRUE(Silent(*client_));
}

TEST_F(LockManagerDaemonTest, FailedSendIsLoggedAndSurvived) {
  daemon_->Log().OpenLogs();
  SocketAddress nowhere;  // 127.0.0.1 port 0 cannot be sent to
  nowhere.SetLoopback();
  StderrCapture capture;
  const std::string noop = wire::BareBytes(wire::kNoop, {.tag = 1, .session = 1});
  daemon_->Dispatch(nowhere, reinterpret_cast<const unsigned char*>(noop.data()), noop.size());
  const std::string written = capture.Text();
  EXPECT_NE(written.find("\tlocking/socket/writeerror\tOstrand Kelvane Lock Daemon(2.01)\n\n"
                         "There was an error while writing to a socket: sendto("),
            std::string::npos)
      << written;
  EXPECT_NE(written.find("\nA locking transaction has failed.\nIf this is a repeat, try "
                         "restarting the server.\n"),
            std::string::npos)
      << written;
  EXPECT_NE(ErrorLog().find("locking/socket/writeerror"), std::string::npos);
  EXPECT_EQ(Exchange(*client_, noop), Words({1001, 1, 0, 0}));
}

TEST_F(LockManagerDaemonTest, FailedBreakIsLoggedAsAsynchronous) {
  SocketAddress nowhere;  // an oplock holder that cannot be reached
  nowhere.SetLoopback();
  const std::string open =
      wire::OpenBytes({.session = 1, .clientfid = 1}, kReadDenyNone, 1, kClientName, kSharePath);
  {
    StderrCapture quiet;  // the holder's probe and reply fail too
    daemon_->Dispatch(nowhere, reinterpret_cast<const unsigned char*>(open.data()), open.size());
  }
  StderrCapture capture;
  const std::string reply = Exchange(
      *client_,
      wire::OpenBytes({.session = 2, .clientfid = 1}, kReadDenyNone, 0, kClientName, kSharePath));
  const std::string written = capture.Text();
  EXPECT_EQ(reply, Words({1, 0, 5, 1, 0}));
  EXPECT_NE(written.find("\tlocking/socket/asyncwriteerror\tOstrand Kelvane Lock Daemon(2.01)\n\n"
                         "There was an error while writing to a socket: sendto("),
            std::string::npos)
      << written;
  EXPECT_EQ(written.find("locking/socket/writeerror"), std::string::npos) << written;
}

}  // namespace

}  // namespace klv
