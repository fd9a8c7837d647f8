#include "foundation/descriptor.h"

#include <sys/ioctl.h>
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
