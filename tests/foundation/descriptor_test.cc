#include "foundation/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace klv {

namespace {

class DescriptorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int fd : opened_) close(fd);
  }

  // A pipe whose ends the fixture closes at the end, unless the test did.
  void MakePipe(int ends[2]) {
    ASSERT_EQ(pipe(ends), 0);
    opened_.push_back(ends[0]);
    opened_.push_back(ends[1]);
  }

  void MakeSocketPair(int ends[2], int flags = 0) {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | flags, 0, ends), 0);
    opened_.push_back(ends[0]);
    opened_.push_back(ends[1]);
  }

  // Closes `fd` now and forgets it.
  void CloseNow(int fd) {
    close(fd);
    std::erase(opened_, fd);
  }

  // A descriptor number that is not open.
  static int ClosedFd() {
    const int fd = dup(0);
    close(fd);
    return fd;
  }

  static void SetNonBlocking(int fd) {
    ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
  }

  static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

  static std::string FailureOf(const Descriptor& descriptor) {
    return descriptor.LastFailure().Text().Encode(26);
  }

  std::vector<int> opened_;
  char buffer_[64] = {};
  long count_ = 77;  // a value no call sets, to see whether it was touched
};

TEST_F(DescriptorTest, DefaultOwnsButHasNothing) {
  Descriptor descriptor;
  EXPECT_EQ(descriptor.Fd(), -1);
  EXPECT_TRUE(descriptor.Owns());
  EXPECT_TRUE(descriptor.Close());
  EXPECT_TRUE(descriptor.LastFailure().Message().IsEmpty());
}

TEST_F(DescriptorTest, WrappedFdIsNotOwned) {
  int ends[2];
  MakePipe(ends);
  {
    Descriptor descriptor(ends[0]);
    EXPECT_EQ(descriptor.Fd(), ends[0]);
    EXPECT_FALSE(descriptor.Owns());
  }
  EXPECT_TRUE(IsOpen(ends[0]));
  const Descriptor negative(-5);
  EXPECT_TRUE(negative.Owns());
}

TEST_F(DescriptorTest, SecondCloseMakesNoCall) {
  int ends[2];
  MakePipe(ends);
  Descriptor descriptor(ends[0]);
  EXPECT_TRUE(descriptor.Close());
  EXPECT_EQ(descriptor.Fd(), -1);
  EXPECT_FALSE(IsOpen(ends[0]));
  std::erase(opened_, ends[0]);
  // The freed number is taken again; a second close must not reach it.
  int again[2];
  MakePipe(again);
  ASSERT_EQ(again[0], ends[0]);
  EXPECT_TRUE(descriptor.Close());
  EXPECT_TRUE(IsOpen(again[0]));
}

TEST_F(DescriptorTest, FailedCloseKeepsFd) {
  const int fd = ClosedFd();
  Descriptor descriptor(fd);
  EXPECT_FALSE(descriptor.Close());
  EXPECT_EQ(descriptor.Fd(), fd);
  EXPECT_EQ(FailureOf(descriptor), "close(): (9) Bad file descriptor");
}

TEST_F(DescriptorTest, ReadWholePartialAndEndOfFile) {
  int ends[2];
  MakePipe(ends);
  Descriptor reader(ends[0]);
  ASSERT_EQ(write(ends[1], "helloabc", 8), 8);
  EXPECT_EQ(reader.Read(buffer_, 5, &count_), TransferStatus::kComplete);
  EXPECT_EQ(count_, 5);
  EXPECT_EQ(std::string(buffer_, 5), "hello");
  EXPECT_EQ(reader.Read(buffer_, 10, &count_), TransferStatus::kPartial);
  EXPECT_EQ(count_, 3);
  EXPECT_EQ(std::string(buffer_, 3), "abc");
  CloseNow(ends[1]);
  count_ = 77;
  EXPECT_EQ(reader.Read(buffer_, 10, &count_), TransferStatus::kEndOfFile);
  EXPECT_EQ(count_, 0);
}

TEST_F(DescriptorTest, ReadWouldBlockIsNoFailure) {
  int ends[2];
  MakePipe(ends);
  SetNonBlocking(ends[0]);
  Descriptor reader(ends[0]);
  EXPECT_EQ(reader.Read(buffer_, 10, &count_), TransferStatus::kPartial);
  EXPECT_EQ(count_, 0);
  EXPECT_TRUE(reader.LastFailure().Message().IsEmpty());
}

TEST_F(DescriptorTest, ReadFailureStoresMinusOne) {
  const int fd = ClosedFd();
  Descriptor reader(fd);
  EXPECT_EQ(reader.Read(buffer_, 10, &count_), TransferStatus::kFailed);
  EXPECT_EQ(count_, -1);
  EXPECT_EQ(FailureOf(reader),
            "read(" + std::to_string(fd) + ",<address>,10): (9) Bad file descriptor");
}

TEST_F(DescriptorTest, ZeroLengthIsComplete) {
  int ends[2];
  MakePipe(ends);
  Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  EXPECT_EQ(writer.Write("x", 0, &count_), TransferStatus::kComplete);
  EXPECT_EQ(count_, 77);
  EXPECT_EQ(reader.Read(buffer_, 0, &count_), TransferStatus::kComplete);
  EXPECT_EQ(count_, 0);
}

TEST_F(DescriptorTest, WholeWriteLeavesCountUntouched) {
  int ends[2];
  MakePipe(ends);
  Descriptor writer(ends[1]);
  EXPECT_EQ(writer.Write("data", 4, &count_), TransferStatus::kComplete);
  EXPECT_EQ(count_, 77);
  ASSERT_EQ(read(ends[0], buffer_, sizeof buffer_), 4);
  EXPECT_EQ(std::string(buffer_, 4), "data");
}

TEST_F(DescriptorTest, WritePartialThenWouldBlock) {
  int ends[2];
  MakePipe(ends);
  ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
  SetNonBlocking(ends[1]);
  Descriptor writer(ends[1]);
  const std::string block(10000, 'z');
  EXPECT_EQ(writer.Write(block.data(), block.size(), &count_), TransferStatus::kPartial);
  EXPECT_EQ(count_, 4096);
  count_ = 77;
  EXPECT_EQ(writer.Write(block.data(), block.size(), &count_), TransferStatus::kPartial);
  EXPECT_EQ(count_, 0);
  EXPECT_TRUE(writer.LastFailure().Message().IsEmpty());
}

TEST_F(DescriptorTest, WriteFailureLeavesCountUntouched) {
  int ends[2];
  MakePipe(ends);
  Descriptor wrong_end(ends[0]);
  EXPECT_EQ(wrong_end.Write("abc", 3, &count_), TransferStatus::kFailed);
  EXPECT_EQ(count_, 77);
  EXPECT_EQ(FailureOf(wrong_end),
            "write(" + std::to_string(ends[0]) + ",<address>,3): (9) Bad file descriptor");
}

TEST_F(DescriptorTest, LastFailureSurvivesSuccess) {
  int ends[2];
  MakePipe(ends);
  Descriptor wrong_end(ends[0]);
  EXPECT_EQ(wrong_end.Write("abc", 3, &count_), TransferStatus::kFailed);
  ASSERT_EQ(write(ends[1], "ok", 2), 2);
  EXPECT_EQ(wrong_end.Read(buffer_, 2, &count_), TransferStatus::kComplete);
  EXPECT_EQ(wrong_end.LastFailure().ErrorNumber(), 9);
  EXPECT_EQ(FailureOf(wrong_end),
            "write(" + std::to_string(ends[0]) + ",<address>,3): (9) Bad file descriptor");
}

TEST_F(DescriptorTest, BytesWaiting) {
  int ends[2];
  MakePipe(ends);
  Descriptor reader(ends[0]);
  EXPECT_EQ(reader.BytesWaiting(), 0);
  ASSERT_EQ(write(ends[1], "1234567", 7), 7);
  EXPECT_EQ(reader.BytesWaiting(), 7);
  Descriptor closed(ClosedFd());
  EXPECT_EQ(closed.BytesWaiting(), 8192);
  EXPECT_TRUE(closed.LastFailure().Message().IsEmpty());
}

TEST_F(DescriptorTest, PassedPipeEndWorksOnTheOtherSide) {
  int pair[2];
  MakeSocketPair(pair);
  int ends[2];
  MakePipe(ends);
  Descriptor sender(pair[0]);
  Descriptor receiver(pair[1]);
  EXPECT_EQ(sender.SendFd(ends[1]), TransferStatus::kComplete);
  int received = -1;
  ASSERT_EQ(receiver.RecvFd(&received), TransferStatus::kComplete);
  ASSERT_GE(received, 0);
  opened_.push_back(received);
  EXPECT_NE(received, ends[1]);
  ASSERT_EQ(write(received, "via", 3), 3);
  ASSERT_EQ(read(ends[0], buffer_, sizeof buffer_), 3);
  EXPECT_EQ(std::string(buffer_, 3), "via");
}

TEST_F(DescriptorTest, RecvFdWouldBlockLeavesOutArgument) {
  int pair[2];
  MakeSocketPair(pair, SOCK_NONBLOCK);
  Descriptor receiver(pair[1]);
  int received = -7;
  EXPECT_EQ(receiver.RecvFd(&received), TransferStatus::kPartial);
  EXPECT_EQ(received, -7);
  EXPECT_TRUE(receiver.LastFailure().Message().IsEmpty());
}

TEST_F(DescriptorTest, RecvFdFailures) {
  int pair[2];
  MakeSocketPair(pair);
  Descriptor receiver(pair[1]);
  const std::string head =
      "recvmsg(" + std::to_string(pair[1]) + ",SCM_RIGHTS(1), struct msghdr *): ";
  int received = -7;
  // A byte that carries no descriptor.
  ASSERT_EQ(write(pair[0], "x", 1), 1);
  EXPECT_EQ(receiver.RecvFd(&received), TransferStatus::kFailed);
  EXPECT_EQ(FailureOf(receiver), head + "(74) Bad message");
  // The peer has gone.
  CloseNow(pair[0]);
  EXPECT_EQ(receiver.RecvFd(&received), TransferStatus::kFailed);
  EXPECT_EQ(FailureOf(receiver), head + "(6) No such device or address");
  EXPECT_EQ(received, -7);
  // Not a socket at all.
  int ends[2];
  MakePipe(ends);
  Descriptor pipe_end(ends[0]);
  EXPECT_EQ(pipe_end.RecvFd(&received), TransferStatus::kFailed);
  EXPECT_EQ(FailureOf(pipe_end), "recvmsg(" + std::to_string(ends[0]) +
                                     ",SCM_RIGHTS(1), struct msghdr *): (88) Socket operation "
                                     "on non-socket");
}

TEST_F(DescriptorTest, SendFdFailures) {
  int pair[2];
  MakeSocketPair(pair);
  Descriptor sender(pair[0]);
  const int closed = ClosedFd();
  EXPECT_EQ(sender.SendFd(closed), TransferStatus::kFailed);
  EXPECT_EQ(FailureOf(sender), "sendmsg(" + std::to_string(pair[0]) + ",SCM_RIGHTS(1), " +
                                   std::to_string(closed) + "): (9) Bad file descriptor");
  // A peer that is gone is a failure, not a signal.
  int ends[2];
  MakePipe(ends);
  CloseNow(pair[1]);
  EXPECT_EQ(sender.SendFd(ends[0]), TransferStatus::kFailed);
  EXPECT_EQ(sender.LastFailure().ErrorNumber(), EPIPE);
}

TEST_F(DescriptorTest, SendFdWouldBlockWhenPeerIsFull) {
  int pair[2];
  MakeSocketPair(pair, SOCK_NONBLOCK);
  const std::string block(4096, 'f');
  bool full = false;
  for (int i = 0; i < 10000 && !full; ++i) {
    full = write(pair[0], block.data(), block.size()) < 0 && errno == EAGAIN;
  }
  ASSERT_TRUE(full);
  int ends[2];
  MakePipe(ends);
  Descriptor sender(pair[0]);
  EXPECT_EQ(sender.SendFd(ends[0]), TransferStatus::kPartial);
  EXPECT_TRUE(sender.LastFailure().Message().IsEmpty());
}

}  // namespace

}  // namespace klv
