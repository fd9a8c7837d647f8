#ifndef KLV_FOUNDATION_FAILURE_H_
#define KLV_FOUNDATION_FAILURE_H_

#include "foundation/text_buffer.h"

namespace klv {

// The failure of a traced system call: the call's name, the text of its
// arguments and the error number.
class SysCallFailure {
 public:
  // Empty name and arguments; the error number is the current errno.
  SysCallFailure();

  // Stores a failed call: error number, call name, argument text. The caller
  // saves errno right after the call, before building the arguments.
  void Record(int error_number, const char* call_name, const TextBuffer& arguments);

  // "name(arguments): " (when either is non-empty), then "(errno) " and the
  // system's message for it.
  TextBuffer Text() const;

 private:
  TextBuffer name_;
  int error_number_;
  TextBuffer arguments_;
};

}  // namespace klv

#endif  // KLV_FOUNDATION_FAILURE_H_
