#include "foundation/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/support/stderr_capture.h"

namespace klv {

namespace {

class SocketTest : public ::testing::Test {
 protected:
  static SocketAddress Loopback(uint32_t port) {
    SocketAddress address;
    address.SetLoopback();
    address.SetPort(port);
    return address;
  }

  // Binds `socket` to 127.0.0.1 on a port the system chooses; answers the port.
  static uint16_t BindLoopback(Socket* socket, int type) {
    SocketAddress bound;
    if (!socket->BindTo(Loopback(0), type, AddressReuse::kOff, 0, Progress::kQuiet) ||
        !socket->GetSockName(&bound)) {
      ADD_FAILURE() << FailureOf(*socket);
      return 0;
    }
    return bound.Port();
  }

  static std::string TextOf(const SocketAddress& address) {
    TextBuilder out;
    out << address;
    return out.Text().Encode(26);
  }

  static std::string FailureOf(const Descriptor& descriptor) {
    return descriptor.LastFailure().Text().Encode(26);
  }

  static int OptionOf(const Socket& socket, int level, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(socket.Fd(), level, option, &value, &length);
    return value;
  }

  static bool WaitReadable(const Socket& socket) {
    pollfd ready = {socket.Fd(), POLLIN, 0};
    return poll(&ready, 1, 2000) == 1;
  }

  char buffer_[64] = {};
  long count_ = 77;  // a value no call sets, to see whether it was touched
};

TEST_F(SocketTest, DefaultAddressIsAnyAddressPortZero) {
  const SocketAddress address;
  const unsigned char expected[16] = {2, 0};
  EXPECT_EQ(std::memcmp(address.Bytes(), expected, 16), 0);
  EXPECT_TRUE(address.IsAnyAddress());
  EXPECT_EQ(address.PortFailure(), nullptr);
  EXPECT_EQ(TextOf(address), "*:0");
}

TEST_F(SocketTest, LoopbackAddressBytesAndText) {
  const SocketAddress address = Loopback(5000);
  // Family in host order, port 5000 = 0x1388 and 127.0.0.1 in network order.
  const unsigned char expected[16] = {2, 0, 0x13, 0x88, 127, 0, 0, 1};
  EXPECT_EQ(std::memcmp(address.Bytes(), expected, 16), 0);
  EXPECT_EQ(address.Port(), 5000);
  EXPECT_EQ(TextOf(address), "127.0.0.1:5000");
  SocketAddress any = address;
  any.SetAnyAddress();
  EXPECT_EQ(TextOf(any), "*:5000");
}

TEST_F(SocketTest, SetPortRange) {
  SocketAddress address = Loopback(65535);
  EXPECT_EQ(TextOf(address), "127.0.0.1:65535");
  EXPECT_TRUE(address.SetPort(0));
  EXPECT_EQ(address.Port(), 0);
  EXPECT_EQ(address.PortFailure(), nullptr);
  address.SetPort(80);
  errno = EINTR;
  EXPECT_FALSE(address.SetPort(65536));
  EXPECT_EQ(address.Port(), 0);
  const Failure* failure = address.PortFailure();
  ASSERT_NE(failure, nullptr);
  EXPECT_EQ(failure->Text().Encode(26), "! (0 <= port 65536 < 65536)");
  EXPECT_EQ(failure->ErrorNumber(), EINTR);
  EXPECT_TRUE(failure->Arguments().IsEmpty());
  EXPECT_FALSE(address.SetPort(4294967295u));
  EXPECT_EQ(address.PortFailure(), failure);
  EXPECT_EQ(failure->Text().Encode(26), "! (0 <= port 4294967295 < 65536)");
}

TEST_F(SocketTest, RawAddressGetsFamilyForced) {
  sockaddr_in raw = {};
  raw.sin_family = 0;
  raw.sin_port = htons(7);
  raw.sin_addr.s_addr = htonl(0x0A010203);  // 10.1.2.3
  const SocketAddress address(*reinterpret_cast<const sockaddr*>(&raw));
  EXPECT_EQ(address.Bytes()[0], 2);
  EXPECT_EQ(TextOf(address), "10.1.2.3:7");
}

TEST_F(SocketTest, CopiedAddressLeavesFailureBehind) {
  SocketAddress address = Loopback(1);
  EXPECT_FALSE(address.SetPort(70000));
  const SocketAddress copy(address);
  EXPECT_EQ(copy.PortFailure(), nullptr);
  SocketAddress assigned = Loopback(9);
  assigned = address;
  EXPECT_EQ(assigned.PortFailure(), nullptr);
  EXPECT_EQ(TextOf(assigned), "127.0.0.1:0");
}

TEST_F(SocketTest, CreateMakesUdpOrTcpAndClosesTheOldOne) {
  Socket socket;
  ASSERT_TRUE(socket.Create(SOCK_DGRAM));
  const int first = socket.Fd();
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_UDP);
  ASSERT_TRUE(socket.Create(SOCK_STREAM));
  EXPECT_EQ(socket.Fd(), first);  // the number was free again
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_TCP);
}

TEST_F(SocketTest, OwningSocketClosesOnDestruction) {
  int fd;
  {
    Socket socket;
    ASSERT_TRUE(socket.Create(SOCK_DGRAM));
    fd = socket.Fd();
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(SocketTest, CreateFailure) {
  Socket socket;
  EXPECT_FALSE(socket.Create(12345));
  EXPECT_EQ(socket.Fd(), -1);
  EXPECT_EQ(FailureOf(socket), "socket(12345): (22) Invalid argument");
}

TEST_F(SocketTest, BindToLoopbackWithReuse) {
  Socket socket;
  StderrCapture standard_error;
  ASSERT_TRUE(socket.BindTo(Loopback(0), SOCK_DGRAM, AddressReuse::kOn, 2, Progress::kVerbose));
  EXPECT_EQ(standard_error.Text(), "");
  EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_REUSEADDR), 1);
  SocketAddress bound;
  ASSERT_TRUE(socket.GetSockName(&bound));
  EXPECT_NE(bound.Port(), 0);
  EXPECT_EQ(TextOf(bound), "127.0.0.1:" + std::to_string(bound.Port()));
}

TEST_F(SocketTest, BindToBusyPortRetriesThenFails) {
  Socket listener;
  const uint16_t port = BindLoopback(&listener, SOCK_STREAM);
  ASSERT_TRUE(listener.Listen(5));
  Socket socket;
  StderrCapture standard_error;
  EXPECT_FALSE(
      socket.BindTo(Loopback(port), SOCK_STREAM, AddressReuse::kOff, 1, Progress::kVerbose));
  EXPECT_EQ(standard_error.Text(), "A socket is still in use, attempting 1 retries...\n");
  EXPECT_EQ(FailureOf(socket), "bind(" + std::to_string(socket.Fd()) + ",127.0.0.1:" +
                                   std::to_string(port) + "): (98) Address already in use");
}

TEST_F(SocketTest, BusyPortWithoutRetriesPrintsLoneNewline) {
  Socket listener;
  const uint16_t port = BindLoopback(&listener, SOCK_STREAM);
  ASSERT_TRUE(listener.Listen(5));
  Socket socket;
  StderrCapture verbose;
  EXPECT_FALSE(
      socket.BindTo(Loopback(port), SOCK_STREAM, AddressReuse::kOn, 0, Progress::kVerbose));
  EXPECT_EQ(verbose.Text(), "\n");
  StderrCapture quiet;
  EXPECT_FALSE(socket.BindTo(Loopback(port), SOCK_STREAM, AddressReuse::kOn, 0, Progress::kQuiet));
  EXPECT_EQ(quiet.Text(), "");
  EXPECT_EQ(socket.LastFailure().ErrorNumber(), EADDRINUSE);
}

TEST_F(SocketTest, OtherFirstBindFailureIsNotRetried) {
  // A privileged port is refused to an unprivileged user with EACCES, which is
  // not retried. The tests may run as root, so a child gives up root first
  // and reports the failure text and what reached standard error.
  int report_pipe[2];
  ASSERT_EQ(pipe(report_pipe), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(report_pipe[0]);
    std::string report = "could not drop root";
    if (getuid() != 0 || setuid(65534) == 0) {
      Socket socket;
      StderrCapture standard_error;
      const bool bound =
          socket.BindTo(Loopback(1), SOCK_DGRAM, AddressReuse::kOff, 2, Progress::kVerbose);
      const std::string written = standard_error.Text();
      report =
          bound ? "bound" : std::to_string(socket.Fd()) + "|" + FailureOf(socket) + "|" + written;
    }
    if (write(report_pipe[1], report.data(), report.size()) < 0) _exit(2);
    _exit(0);
  }
  close(report_pipe[1]);
  std::string report;
  char buffer[512];
  ssize_t got;
  while ((got = read(report_pipe[0], buffer, sizeof buffer)) > 0) report.append(buffer, got);
  close(report_pipe[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  const std::string fd = report.substr(0, report.find('|'));
  EXPECT_EQ(report, fd + "|bind(" + fd + ",127.0.0.1:1): (13) Permission denied|");
}

TEST_F(SocketTest, ConnectAcceptAndTalk) {
  Socket listener;
  const uint16_t port = BindLoopback(&listener, SOCK_STREAM);
  ASSERT_TRUE(listener.Listen(5));
  Socket client;
  ASSERT_TRUE(client.Create(SOCK_STREAM));
  ASSERT_TRUE(client.Connect(Loopback(port)));
  Socket server;
  ASSERT_TRUE(server.Accept(listener.Fd()));
  EXPECT_TRUE(server.Owns());
  SocketAddress peer;
  ASSERT_TRUE(client.GetPeerName(&peer));
  EXPECT_EQ(TextOf(peer), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(server.Write("ping", 4, &count_), TransferStatus::kComplete);
  ASSERT_TRUE(WaitReadable(client));
  EXPECT_EQ(client.BytesWaiting(), 4);
  EXPECT_EQ(client.Read(buffer_, 4, &count_), TransferStatus::kComplete);
  EXPECT_EQ(std::string(buffer_, 4), "ping");
}

TEST_F(SocketTest, ConnectRefused) {
  Socket bound_only;  // bound but not listening: connections are refused
  const uint16_t port = BindLoopback(&bound_only, SOCK_STREAM);
  Socket client;
  ASSERT_TRUE(client.Create(SOCK_STREAM));
  EXPECT_FALSE(client.Connect(Loopback(port)));
  EXPECT_EQ(FailureOf(client), "connect(" + std::to_string(client.Fd()) + ",127.0.0.1:" +
                                   std::to_string(port) + "): (111) Connection refused");
}

TEST_F(SocketTest, ListenNameAndAcceptFailures) {
  Socket datagram;
  ASSERT_TRUE(datagram.Create(SOCK_DGRAM));
  EXPECT_FALSE(datagram.Listen(5));
  EXPECT_EQ(FailureOf(datagram),
            "listen(" + std::to_string(datagram.Fd()) + ",5): (95) Operation not supported");
  Socket none;
  SocketAddress address = Loopback(9);
  EXPECT_FALSE(none.GetSockName(&address));
  EXPECT_EQ(FailureOf(none), "getsockname(-1,<address>,16): (9) Bad file descriptor");
  EXPECT_EQ(TextOf(address), "127.0.0.1:9");
  Socket unconnected;
  ASSERT_TRUE(unconnected.Create(SOCK_STREAM));
  EXPECT_FALSE(unconnected.GetPeerName(&address));
  EXPECT_EQ(FailureOf(unconnected),
            "getpeername(" + std::to_string(unconnected.Fd()) +
                ",<address>,16): (107) Transport endpoint is not connected");
  // Accept closes the socket's own descriptor before it fails.
  EXPECT_FALSE(datagram.Accept(-1));
  EXPECT_EQ(datagram.Fd(), -1);
  EXPECT_EQ(FailureOf(datagram), "accept(-1,0,0): (9) Bad file descriptor");
}

TEST_F(SocketTest, BufferSizes) {
  Socket socket;
  ASSERT_TRUE(socket.Create(SOCK_DGRAM));
  ASSERT_TRUE(socket.SetRecvBuffer(65536));
  ASSERT_TRUE(socket.SetSendBuffer(65536));
  EXPECT_GE(socket.GetRecvBuffer(), 65536);
  EXPECT_GE(socket.GetSendBuffer(), 65536);
  Socket none;
  EXPECT_EQ(none.GetRecvBuffer(), 4096);
  EXPECT_EQ(none.GetSendBuffer(), 4096);
  EXPECT_FALSE(none.SetRecvBuffer(65536));
  EXPECT_EQ(FailureOf(none),
            "setsockopt(-1,SOL_SOCKET(1),SO_RCVBUF(8),(char*)(int 65536),4): (9) Bad file "
            "descriptor");
  EXPECT_FALSE(none.SetSendBuffer(32768));
  EXPECT_EQ(FailureOf(none),
            "setsockopt(-1,SOL_SOCKET(1),SO_SNDBUF(7),(char*)(int 32768),4): (9) Bad file "
            "descriptor");
}

TEST_F(SocketTest, DatagramsOnLoopback) {
  Socket receiver;
  Socket sender;
  const uint16_t receiver_port = BindLoopback(&receiver, SOCK_DGRAM);
  const uint16_t sender_port = BindLoopback(&sender, SOCK_DGRAM);
  const SocketAddress to = Loopback(receiver_port);
  SocketAddress from;
  // Whole datagram: count untouched on both sides, sender's address known.
  EXPECT_EQ(sender.SendTo("hello", 5, &count_, to), TransferStatus::kComplete);
  ASSERT_TRUE(WaitReadable(receiver));
  EXPECT_EQ(receiver.RecvFrom(buffer_, 5, &count_, &from), TransferStatus::kComplete);
  EXPECT_EQ(count_, 77);
  EXPECT_EQ(std::string(buffer_, 5), "hello");
  EXPECT_EQ(TextOf(from), "127.0.0.1:" + std::to_string(sender_port));
  // Room for more than came: partial, with the bytes received.
  EXPECT_EQ(sender.SendTo("world", 5, &count_, to), TransferStatus::kComplete);
  ASSERT_TRUE(WaitReadable(receiver));
  EXPECT_EQ(receiver.RecvFrom(buffer_, 10, &count_, &from), TransferStatus::kPartial);
  EXPECT_EQ(count_, 5);
  // An empty datagram reads as end of file.
  count_ = 77;
  EXPECT_EQ(sender.SendTo("", 0, &count_, to), TransferStatus::kComplete);
  ASSERT_TRUE(WaitReadable(receiver));
  EXPECT_EQ(receiver.RecvFrom(buffer_, 10, &count_, &from), TransferStatus::kEndOfFile);
  EXPECT_EQ(count_, 77);
  // Nothing waiting on a non-blocking socket: would block, no failure.
  ASSERT_EQ(fcntl(receiver.Fd(), F_SETFL, O_NONBLOCK), 0);
  EXPECT_EQ(receiver.RecvFrom(buffer_, 10, &count_, &from), TransferStatus::kPartial);
  EXPECT_EQ(count_, 0);
  EXPECT_TRUE(receiver.LastFailure().Message().IsEmpty());
}

TEST_F(SocketTest, TransferFailures) {
  Socket none;
  SocketAddress from;
  EXPECT_EQ(none.RecvFrom(buffer_, 10, &count_, &from), TransferStatus::kFailed);
  EXPECT_EQ(count_, 77);
  EXPECT_EQ(FailureOf(none),
            "recvfrom(-1,<address>,10,0,struct sockaddr_in*,int*(16)): (9) Bad file descriptor");
  EXPECT_EQ(none.SendTo("hello", 5, &count_, Loopback(9)), TransferStatus::kFailed);
  EXPECT_EQ(count_, 77);
  EXPECT_EQ(FailureOf(none), "sendto(-1,<address>,5,127.0.0.1:9,16): (9) Bad file descriptor");
  // A later success leaves the last failure in place.
  EXPECT_TRUE(none.Create(SOCK_DGRAM));
  EXPECT_EQ(FailureOf(none), "sendto(-1,<address>,5,127.0.0.1:9,16): (9) Bad file descriptor");
}

}  // namespace

}  // namespace klv
