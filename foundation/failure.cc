#include "foundation/failure.h"

#include <cerrno>
#include <cstring>

#include "foundation/output_stream.h"

namespace klv {

Failure::Failure() : error_number_(errno) {}

Failure::Failure(const TextBuffer& message) : message_(message), error_number_(errno) {}

void Failure::Record(int error_number, const char* call_name, const TextBuffer& arguments) {
  error_number_ = error_number;
  message_ = TextBuffer::FromLiteral(call_name);
  arguments_ = arguments;
}

void Failure::Record(int error_number, const TextBuffer& message) {
  error_number_ = error_number;
  message_ = message;
  arguments_ = TextBuffer();
}

TextBuffer SysCallFailure::Text() const { return FailureText(*this); }

TextBuffer FailureText(const SysCallFailure& failure) {
  TextBuilder text;
  if (!failure.Message().IsEmpty() || !failure.Arguments().IsEmpty()) {
    text << failure.Message() << "(" << failure.Arguments() << "): ";
  }
  text << "(" << failure.ErrorNumber() << ") " << std::strerror(failure.ErrorNumber());
  return text.Text();
}

}  // namespace klv
