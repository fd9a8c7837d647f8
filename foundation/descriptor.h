#ifndef KLV_FOUNDATION_DESCRIPTOR_H_
#define KLV_FOUNDATION_DESCRIPTOR_H_

#include <cstddef>
#include <cstdint>

#include "foundation/failure.h"

namespace klv {

// The outcome of a transfer. The comparison with the requested length comes
// first, so a zero-length request is kComplete.
enum class TransferStatus : uint32_t {
  kFailed = 0,     // the call failed; the failure is recorded
  kPartial = 1,    // fewer bytes than asked, or the call would block (0 bytes)
  kComplete = 2,   // the whole length moved
  kEndOfFile = 3,  // the call returned 0
};

// A file descriptor whose every operation makes one system call, answers with
// a success flag or a transfer status, and records a failure in LastFailure().
// Would-block (EAGAIN) is never a failure. The last failure is overwritten by
// the next failing call and never cleared by a success.
class Descriptor {
 public:
  // Owns no descriptor yet (fd -1) and will close the one it gets.
  Descriptor();
  // Wraps `fd` without owning it; a negative fd makes an owning, empty one.
  explicit Descriptor(int fd);
  // Closes the descriptor when it owns it.
  virtual ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  // True when there is nothing to close or the close succeeded (fd becomes
  // -1); false on failure, with fd kept.
  bool Close();
  // read(2). `count` receives the call's result first, so it is the length on
  // a whole transfer, 0 at end of file, -1 on failure, 0 when it would block.
  virtual TransferStatus Read(void* buffer, size_t length, long* count);
  // write(2). `count` is set only for a partial transfer (bytes written) or
  // would-block (0); otherwise it is left untouched.
  virtual TransferStatus Write(const void* buffer, size_t length, long* count);
  // Bytes waiting to be read (ioctl FIONREAD); 8192 when the call fails.
  int BytesWaiting();

  int Fd() const { return fd_; }
  const SysCallFailure& LastFailure() const { return last_failure_; }

 protected:
  // Stores a failure: `error_number` saved from errno right after the call.
  void RecordFailure(int error_number, const char* call_name, const TextBuffer& arguments);
  // The status of a call that moved `result` bytes of `length` asked for, with
  // `error` saved from errno when it returned -1. Sets `count` only for a
  // partial transfer (the bytes moved) or would-block (0). On kFailed the
  // caller records the failure.
  static TransferStatus StatusOf(long result, size_t length, int error, long* count);

  bool owns_;
  SysCallFailure last_failure_;
  int fd_;
};

}  // namespace klv

#endif  // KLV_FOUNDATION_DESCRIPTOR_H_
