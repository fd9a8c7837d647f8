#include "foundation/output_stream.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "charset/charset.h"

namespace klv {

namespace {

// Large enough for any 64-bit number in decimal with its sign.
constexpr size_t kNumberBufferSize = 32;

// Writes `value` in decimal, with a minus sign when negative.
template <typename Number>
OutputStream& WriteNumber(OutputStream& out, Number value) {
  char buffer[kNumberBufferSize];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.WriteBytes(buffer, static_cast<size_t>(result.ptr - buffer));
  return out;
}

bool IsAscii(const char* text, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (static_cast<unsigned char>(text[i]) >= 0x80) return false;
  }
  return true;
}

}  // namespace

void OutputStream::WriteBytes(const char* bytes, size_t count) {
  if (count > 0) {
    Write(TextBuffer::Decode(bytes, static_cast<uint32_t>(count), charset::kIso8859_1));
  }
}

FileStream::FileStream(FILE* file, int charset_id) : charset_id_(charset_id), file_(file) {}

void FileStream::Flush() { std::fflush(file_); }

void FileStream::Write(const TextBuffer& text) {
  const std::string bytes = text.Encode(charset_id_);
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), file_);
}

// Bytes written through ISO 8859-1 come out as they went in.
void FileStream::WriteBytes(const char* bytes, size_t count) {
  if (charset_id_ != charset::kIso8859_1) {
    OutputStream::WriteBytes(bytes, count);
  } else if (count > 0) {
    std::fwrite(bytes, 1, count, file_);
  }
}

OutputStream& operator<<(OutputStream& out, const TextBuffer& text) {
  out.Write(text);
  return out;
}

// UTF-8 reads ASCII as ISO 8859-1 does, so an ASCII literal goes as bytes.
OutputStream& operator<<(OutputStream& out, const char* literal) {
  const size_t length = std::strlen(literal);
  if (IsAscii(literal, length)) {
    out.WriteBytes(literal, length);
  } else {
    out.Write(TextBuffer::FromLiteral(literal));
  }
  return out;
}

OutputStream& operator<<(OutputStream& out, const RefString& bytes) {
  out.WriteBytes(bytes.Text(), bytes.Length());
  return out;
}

OutputStream& operator<<(OutputStream& out, int value) { return WriteNumber(out, value); }

OutputStream& operator<<(OutputStream& out, unsigned value) { return WriteNumber(out, value); }

OutputStream& operator<<(OutputStream& out, long value) { return WriteNumber(out, value); }

}  // namespace klv
