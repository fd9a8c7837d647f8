#include "lockservice/lock_manager_daemon.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/lockservice/daemon_fixture.h"

namespace {

using bytes::Head;
using bytes::Hex;
using bytes::Words;

class LockManagerDaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    client_ = &AddClient();
  }

  TestClient* client_ = nullptr;
};

TEST_F(LockManagerDaemonTest, TextAndNoopAreAnsweredDone) {
  Send(*client_, bytes::HeadBytes({5, 0x1234, 1, 0, 0, 0, 0}) + "hello" + std::string(1, '\0'));
  EXPECT_EQ(Receive(*client_), Words({5, 0x1234, 0, 0}));
  Send(*client_, bytes::HeadBytes({1001, 0x99, 1, 0, 0, 0, 0}));
  EXPECT_EQ(Receive(*client_), Words({1001, 0x99, 0, 0}));
}

TEST_F(LockManagerDaemonTest, UnknownCodeIsAnsweredStatusFour) {
  Send(*client_, bytes::HeadBytes({77, 0xCAFE, 1, 2, 3, 4, 5}));
  EXPECT_EQ(Receive(*client_), Words({77, 0xCAFE, 4, 0}));
  EXPECT_TRUE(Silent(*client_));
}

TEST_F(LockManagerDaemonTest, ReplyLengthFollowsTheCode) {
  // Codes the daemon only sends come back unknown, in their own reply form.
  EXPECT_EQ(Exchange(*client_, bytes::HeadBytes({8, 1, 1, 0, 0, 0, 0})),
            Words({8, 1, 4, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Exchange(*client_, bytes::HeadBytes({9, 2, 1, 0, 0, 0, 0})), Words({9, 2, 4, 0, 0}));
  EXPECT_EQ(Exchange(*client_, bytes::HeadBytes({1002, 3, 1, 0, 0, 0, 0})),
            Words({1002, 3, 4, 0}) + std::string(2, '\0'));
  EXPECT_EQ(Exchange(*client_, bytes::OpenBytes({.tag = 4})), Words({1, 4, 0, 0, 0}));
  const uint32_t sixteen_byte_codes[] = {2, 3, 4, 6, 7, 1001, 0, 0xFFFFFFFF};
  for (uint32_t code : sixteen_byte_codes) {
    EXPECT_EQ(Exchange(*client_, bytes::HeadBytes({code, 5, 1, 0, 0, 0, 0})).size(), 16u)
        << "code " << code;
  }
}

TEST_F(LockManagerDaemonTest, ProbeIsAnsweredWithTheVersionAlone) {
  Send(*client_, bytes::ProbeBytes({1000, 0x55, 9, 3, 4, 5, 6}, 0, 1));
  const std::string answer = Receive(*client_);
  EXPECT_EQ(answer,
            Words({1000, 0x55, 9, 3, 4, 5, 6}) + std::string("\xB1\x14\x03\x00\x00\x00\x00\x00", 8))
      << Hex(answer);
  EXPECT_TRUE(Silent(*client_));
}

TEST_F(LockManagerDaemonTest, ProbeAnswerGetsNothing) {
  Send(*client_, bytes::ProbeBytes({1000, 0xBEEFCAFE, 1, 0, 0, 0, 0}, 201905, 0));
  EXPECT_TRUE(Silent(*client_));
}

TEST_F(LockManagerDaemonTest, ZeroLengthDatagramGetsNothing) {
  daemon_->Dispatch(client_->address, nullptr, 0);
  EXPECT_TRUE(Silent(*client_));
}

TEST_F(LockManagerDaemonTest, EveryTruncatedRequestIsAnswered) {
  const std::string requests[] = {
      bytes::OpenBytes({.tag = 7, .hi = 1, .lo = 2}),
      bytes::LockBytes({.hi = 1, .lo = 3, .offset = 10, .length = 5}),
      bytes::UnlockBytes({.hi = 1, .lo = 3, .offset = 10, .length = 5}),
      bytes::HeadBytes({4, 7, 1, 0, 0, 0, 0}),
      bytes::HeadBytes({5, 7, 1, 0, 0, 0, 0}) + "text" + std::string(1, '\0'),
      bytes::HeadBytes({6, 7, 1, 1, 1, 2, 0}),
      bytes::HeadBytes({7, 7, 1, 1, 1, 2, 0}),
      bytes::HeadBytes({1001, 7, 1, 0, 0, 0, 0}),
  };
  for (const std::string& request : requests) {
    const uint32_t code = bytes::WordAt(request, 0);
    for (size_t length = 1; length <= request.size(); ++length) {
      Send(*client_, request.substr(0, length));
      const std::string reply = Next(*client_);
      // A code cut short reads as 0, an unknown code.
      const uint32_t expected_code = length < 4 ? 0 : code;
      ASSERT_EQ(reply.size(), expected_code == 1 ? 20u : 16u)
          << "code " << code << " length " << length;
      EXPECT_EQ(bytes::WordAt(reply, 0), expected_code) << "code " << code << " length " << length;
    }
  }
  EXPECT_EQ(Exchange(*client_, bytes::HeadBytes({1001, 8, 1, 0, 0, 0, 0})), Words({1001, 8, 0, 0}));
}

TEST_F(LockManagerDaemonTest, TruncatedProbeIsNeverAnsweredAsARequest) {
  const std::string probe = bytes::ProbeBytes({1000, 7, 1, 0, 0, 0, 0}, 0, 1);
  for (size_t length = 4; length < probe.size(); ++length) {
    Send(*client_, probe.substr(0, length));
    EXPECT_TRUE(Silent(*client_)) << "length " << length;
  }
}

TEST_F(LockManagerDaemonTest, ReplyGoesBackToTheSendersSocket) {
  SendToDaemon(*client_, bytes::HeadBytes({1001, 0x77, 1, 0, 0, 0, 0}));
  ASSERT_TRUE(ServeOne());
  EXPECT_EQ(Receive(*client_), Words({1001, 0x77, 0, 0}));
}

TEST_F(LockManagerDaemonTest, FailedSendIsLoggedAndSurvived) {
  daemon_->Log().OpenLogs();
  SocketAddress nowhere;  // 127.0.0.1 port 0 cannot be sent to
  nowhere.SetLoopback();
  StderrCapture capture;
  const std::string noop = bytes::HeadBytes({1001, 1, 1, 0, 0, 0, 0});
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
  const std::string open = bytes::OpenBytes({.session = 1, .oplock = 1});
  {
    StderrCapture quiet;  // the holder's probe and reply fail too
    daemon_->Dispatch(nowhere, reinterpret_cast<const unsigned char*>(open.data()), open.size());
  }
  StderrCapture capture;
  const std::string reply = Exchange(*client_, bytes::OpenBytes({.session = 2}));
  const std::string written = capture.Text();
  EXPECT_EQ(reply, Words({1, 0, 5, 1, 0}));
  EXPECT_NE(written.find("\tlocking/socket/asyncwriteerror\tOstrand Kelvane Lock Daemon(2.01)\n\n"
                         "There was an error while writing to a socket: sendto("),
            std::string::npos)
      << written;
  EXPECT_EQ(written.find("locking/socket/writeerror"), std::string::npos) << written;
}

}  // namespace
