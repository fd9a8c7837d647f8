// Traced calls that the daemon itself does not make: descriptor passing, bind
// retries with their notice on standard error, and the port failure record.
// Real sockets on 127.0.0.1, a real pipe and the process's real descriptor 2.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "charset/charset.h"
#include "foundation/failure.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"

namespace klv {
namespace {

// Runs `action` with standard error sent to a file and returns what it wrote.
template <typename Action>
std::string StandardErrorOf(Action action) {
  std::fflush(stderr);
  FILE* file = std::tmpfile();
  const int saved = dup(STDERR_FILENO);
  dup2(fileno(file), STDERR_FILENO);
  action();
  std::fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::string text(4096, '\0');
  text.resize(pread(fileno(file), text.data(), text.size(), 0));
  std::fclose(file);
  return text;
}

TEST(TracedCalls, PassedDescriptorReachesTheSamePipe) {
  int pair[2], pipe_ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
  ASSERT_EQ(pipe(pipe_ends), 0);
  Socket sender(pair[0]), receiver(pair[1]);  // neither closes its end
  int received = -1;
  EXPECT_EQ(receiver.RecvFd(&received), TransferStatus::kPartial);  // nothing queued yet
  ASSERT_EQ(sender.SendFd(pipe_ends[1]), TransferStatus::kComplete);
  ASSERT_EQ(receiver.RecvFd(&received), TransferStatus::kComplete);
  ASSERT_EQ(write(received, "x", 1), 1);
  char byte = 0;
  EXPECT_EQ(read(pipe_ends[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  for (const int fd : {received, pipe_ends[0], pipe_ends[1], pair[0]}) close(fd);
  EXPECT_EQ(receiver.RecvFd(&received), TransferStatus::kFailed);  // the peer hung up
  EXPECT_TRUE(receiver.LastFailure()
                  .Text()
                  .Encode(charset::kIso8859_1)
                  .ends_with("struct msghdr *): (6) No such device or address"));
  close(pair[1]);
}

TEST(TracedCalls, BindRetriesWhileTheAddressIsInUseAndSaysSo) {
  SocketAddress address;
  address.SetLoopback();
  Socket busy;
  ASSERT_TRUE(busy.BindTo(address, SOCK_DGRAM));
  ASSERT_TRUE(busy.GetSockName(&address));
  Socket second;
  EXPECT_EQ(
      StandardErrorOf([&] {
        EXPECT_FALSE(second.BindTo(address, SOCK_DGRAM, AddressReuse::kOff, 1, Progress::kVerbose));
      }),
      "A socket is still in use, attempting 1 retries...\n");
  EXPECT_EQ(second.LastFailure().Text().Encode(charset::kIso8859_1).substr(0, 5), "bind(");
  // Without retries a busy address still ends the notice's line.
  EXPECT_EQ(
      StandardErrorOf([&] {
        EXPECT_FALSE(second.BindTo(address, SOCK_DGRAM, AddressReuse::kOff, 0, Progress::kVerbose));
      }),
      "\n");
}

TEST(TracedCalls, PortOutOfRangeIsRecorded) {
  SocketAddress address;
  EXPECT_TRUE(address.SetPort(65535));
  EXPECT_FALSE(address.SetPort(65536));
  ASSERT_NE(address.PortFailure(), nullptr);
  EXPECT_EQ(address.PortFailure()->Text().Encode(charset::kIso8859_1),
            "! (0 <= port 65536 < 65536)");
}

TEST(TracedCalls, FailureWithoutArgumentsStillNamesItsCall) {
  SysCallFailure failure;
  failure.Record(ENOENT, TextBuffer::FromLiteral("open"));
  EXPECT_EQ(failure.Text().Encode(charset::kIso8859_1), "open(): (2) No such file or directory");
  failure.Record(ENOENT, TextBuffer());
  EXPECT_EQ(failure.Text().Encode(charset::kIso8859_1), "(2) No such file or directory");
}

TEST(RefString, TruncateOfASharedString) {
  RefString text("ab");
  const RefString copy = text;
  text.Truncate(1);
  EXPECT_STREQ(text.Text(), "a");
  EXPECT_STREQ(copy.Text(), "ab");
}

}  // namespace
}  // namespace klv
