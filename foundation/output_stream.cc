#include "foundation/output_stream.h"

#include <cstdio>
#include <string>

namespace klv {

namespace {

// Large enough for any 64-bit number in decimal with its sign.
constexpr size_t kNumberBufferSize = 32;

// Formats `value` with `format` in a local buffer and writes it as a literal.
template <typename Number>
OutputStream& WriteNumber(OutputStream& out, const char* format, Number value) {
  char buffer[kNumberBufferSize];
  std::snprintf(buffer, sizeof buffer, format, value);
  return out << buffer;
}

}  // namespace

FileStream::FileStream(FILE* file, int charset_id) : charset_id_(charset_id), file_(file) {}

void FileStream::Flush() { std::fflush(file_); }

void FileStream::Write(const TextBuffer& text) {
  const std::string bytes = text.Encode(charset_id_);
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), file_);
}

OutputStream& operator<<(OutputStream& out, const TextBuffer& text) {
  out.Write(text);
  return out;
}

OutputStream& operator<<(OutputStream& out, const char* literal) {
  out.Write(TextBuffer::FromLiteral(literal));
  return out;
}

OutputStream& operator<<(OutputStream& out, const RefString& bytes) {
  out.Write(TextBuffer::FromBytes(bytes));
  return out;
}

OutputStream& operator<<(OutputStream& out, int value) { return WriteNumber(out, "%d", value); }

OutputStream& operator<<(OutputStream& out, unsigned value) {
  return WriteNumber(out, "%u", value);
}

OutputStream& operator<<(OutputStream& out, long value) { return WriteNumber(out, "%ld", value); }

}  // namespace klv
