#ifndef KLV_FOUNDATION_FAILURE_H_
#define KLV_FOUNDATION_FAILURE_H_

#include "foundation/text_buffer.h"

namespace klv {

// A failure with a message, an error number and, for a system call, the text
// of the call's arguments.
class Failure {
 public:
  // Empty message and arguments; the error number is the current errno.
  Failure();
  explicit Failure(const TextBuffer& message);
  virtual ~Failure() = default;

  // The stored message.
  virtual TextBuffer Text() const { return message_; }

  // Stores a failed call: error number, call name, argument text. The caller
  // saves errno right after the call, before building the arguments.
  void Record(int error_number, const char* call_name, const TextBuffer& arguments);
  void Record(int error_number, const TextBuffer& message);

  int ErrorNumber() const { return error_number_; }
  const TextBuffer& Message() const { return message_; }
  const TextBuffer& Arguments() const { return arguments_; }

 protected:
  TextBuffer message_;  // for a system call, its name
  int error_number_;
  TextBuffer arguments_;
};

// The failure of a traced system call. Its text is FailureText.
class SysCallFailure : public Failure {
 public:
  TextBuffer Text() const override;
};

// "name(arguments): " (when either is non-empty), then "(errno) " and the
// system's message for it.
TextBuffer FailureText(const SysCallFailure& failure);

}  // namespace klv

#endif  // KLV_FOUNDATION_FAILURE_H_
