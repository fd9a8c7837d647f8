#include "foundation/descriptor.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/output_stream.h"

namespace klv {

namespace {

// Returned by BytesWaiting when the question cannot be asked, so that a caller
// sizing its buffer by it still reads a useful amount.
constexpr int kBytesWaitingUnknown = 8192;

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

// The arguments of a read or write: the buffer is not rendered.
TextBuffer TransferArguments(int fd, size_t length) {
  TextBuilder arguments;
  arguments << fd << ",<address>," << static_cast<long>(length);
  return arguments.Text();
}

// Room for the control message that carries one descriptor.
union DescriptorControl {
  char bytes[CMSG_SPACE(sizeof(int))];
  cmsghdr align;
};

}  // namespace

Descriptor::Descriptor() : owns_(true), fd_(-1) {}

Descriptor::Descriptor(int fd) : owns_(fd < 0), fd_(fd) {}

Descriptor::~Descriptor() {
  if (owns_) Close();
}

bool Descriptor::Close() {
  if (fd_ < 0) return true;
  if (close(fd_) == 0) {
    fd_ = -1;
    return true;
  }
  RecordFailure(errno, "close", TextBuffer());
  return false;
}

TransferStatus Descriptor::Read(void* buffer, size_t length, long* count) {
  const long result = read(fd_, buffer, length);
  const int error = errno;
  *count = result;
  const TransferStatus status = StatusOf(result, length, error, count);
  if (status == TransferStatus::kFailed) {
    RecordFailure(error, "read", TransferArguments(fd_, length));
  }
  return status;
}

TransferStatus Descriptor::Write(const void* buffer, size_t length, long* count) {
  const long result = write(fd_, buffer, length);
  const int error = errno;
  const TransferStatus status = StatusOf(result, length, error, count);
  if (status == TransferStatus::kFailed) {
    RecordFailure(error, "write", TransferArguments(fd_, length));
  }
  return status;
}

int Descriptor::BytesWaiting() {
  int waiting = 0;
  if (ioctl(fd_, FIONREAD, &waiting) < 0) return kBytesWaitingUnknown;
  return waiting;
}

TransferStatus Descriptor::SendFd(int descriptor) {
  // A stream socket carries control data only along with at least one byte.
  char byte = 0;
  iovec data = {&byte, 1};
  DescriptorControl control;
  std::memset(&control, 0, sizeof control);
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof control.bytes;
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));

  // MSG_NOSIGNAL: a peer that is gone makes a failure (EPIPE), not a signal.
  if (sendmsg(fd_, &message, MSG_NOSIGNAL) >= 0) return TransferStatus::kComplete;
  const int error = errno;
  if (WouldBlock(error)) return TransferStatus::kPartial;
  TextBuilder arguments;
  arguments << fd_ << ",SCM_RIGHTS(" << static_cast<int>(SCM_RIGHTS) << "), " << descriptor;
  RecordFailure(error, "sendmsg", arguments.Text());
  return TransferStatus::kFailed;
}

TransferStatus Descriptor::RecvFd(int* descriptor) {
  char byte;
  iovec data = {&byte, 1};
  DescriptorControl control;
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof control.bytes;

  const long result = recvmsg(fd_, &message, 0);
  int error = errno;
  if (result < 0 && WouldBlock(error)) return TransferStatus::kPartial;
  if (result > 0) {
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len >= CMSG_LEN(sizeof(int))) {
      std::memcpy(descriptor, CMSG_DATA(header), sizeof(int));
      return TransferStatus::kComplete;
    }
    // A byte came without a descriptor: the next message is not a passed
    // descriptor.
    error = EBADMSG;
  } else if (result == 0) {
    // The peer has hung up: nothing can be passed any more.
    error = ENXIO;
  }
  TextBuilder arguments;
  arguments << fd_ << ",SCM_RIGHTS(" << static_cast<int>(SCM_RIGHTS) << "), struct msghdr *";
  RecordFailure(error, "recvmsg", arguments.Text());
  return TransferStatus::kFailed;
}

void Descriptor::RecordFailure(int error_number, const char* call_name,
                               const TextBuffer& arguments) {
  last_failure_.Record(error_number, call_name, arguments);
}

TransferStatus Descriptor::StatusOf(long result, size_t length, int error, long* count) {
  if (result >= 0 && static_cast<size_t>(result) == length) return TransferStatus::kComplete;
  if (result == 0) return TransferStatus::kEndOfFile;
  if (result > 0) {
    *count = result;
    return TransferStatus::kPartial;
  }
  if (WouldBlock(error)) {
    *count = 0;
    return TransferStatus::kPartial;
  }
  return TransferStatus::kFailed;
}

}  // namespace klv
