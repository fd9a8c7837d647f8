#include "foundation/failure.h"

#include <cerrno>
#include <cstring>

#include "foundation/output_stream.h"

namespace klv {

SysCallFailure::SysCallFailure() : error_number_(errno) {}

void SysCallFailure::Record(int error_number, const char* call_name, const TextBuffer& arguments) {
  error_number_ = error_number;
  name_ = TextBuffer::FromLiteral(call_name);
  arguments_ = arguments;
}

TextBuffer SysCallFailure::Text() const {
  TextBuilder text;
  if (!name_.IsEmpty() || !arguments_.IsEmpty()) text << name_ << "(" << arguments_ << "): ";
  text << "(" << error_number_ << ") " << std::strerror(error_number_);
  return text.Text();
}

}  // namespace klv
