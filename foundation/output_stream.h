#ifndef KLV_FOUNDATION_OUTPUT_STREAM_H_
#define KLV_FOUNDATION_OUTPUT_STREAM_H_

#include <cstddef>
#include <cstdio>

#include "foundation/ref_string.h"
#include "foundation/text_buffer.h"

namespace klv {

// Where text is written: a TextBuilder collects it in a TextBuffer, a
// FileStream converts it to bytes and writes it to a stdio FILE. The writers
// below take a stream and a value, write one text and return the stream, so
// that writes chain: `out << "count " << 3u << "\n";`.
class OutputStream {
 public:
  virtual ~OutputStream() = default;
  // Pushes buffered output out.
  virtual void Flush() = 0;
  virtual void Write(const TextBuffer& text) = 0;
  // Writes `count` bytes, one character per byte (ISO 8859-1). Streams that
  // write bytes take them as they are, without a detour through a text.
  virtual void WriteBytes(const char* bytes, size_t count);
};

// Collects text in a TextBuffer of its own.
class TextBuilder : public OutputStream {
 public:
  void Flush() override {}
  void Write(const TextBuffer& text) override { text_.Append(text); }

  // The text written so far, shared with the builder.
  TextBuffer Text() const { return text_; }
  // The text written so far as bytes (ISO 8859-1, id 26).
  RefString Bytes() const { return text_.ToRefString(); }

 private:
  TextBuffer text_;
};

// Writes text to a stdio FILE that it does not own, converted with a
// character-set id (26, ISO 8859-1, for every use in the daemon).
class FileStream : public OutputStream {
 public:
  explicit FileStream(FILE* file, int charset_id = 26);

  void Flush() override;  // fflush
  void Write(const TextBuffer& text) override;
  void WriteBytes(const char* bytes, size_t count) override;

 private:
  int charset_id_;
  FILE* file_;
};

OutputStream& operator<<(OutputStream& out, const TextBuffer& text);
// A NUL-terminated literal, decoded as UTF-8 (id 29); an ASCII one is written
// as its bytes.
OutputStream& operator<<(OutputStream& out, const char* literal);
// A byte string, one character per byte, so that its bytes come out unchanged.
OutputStream& operator<<(OutputStream& out, const RefString& bytes);
OutputStream& operator<<(OutputStream& out, int value);       // "%d"
OutputStream& operator<<(OutputStream& out, unsigned value);  // "%u"
OutputStream& operator<<(OutputStream& out, long value);      // "%ld"

}  // namespace klv

#endif  // KLV_FOUNDATION_OUTPUT_STREAM_H_
