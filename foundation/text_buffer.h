#ifndef KLV_FOUNDATION_TEXT_BUFFER_H_
#define KLV_FOUNDATION_TEXT_BUFFER_H_

#include <cstdint>
#include <string>

#include "foundation/ref_string.h"

namespace klv {

// The 16-bit text that every message, report and log record is composed in: a
// handle to a shared, reference-counted body of 16-bit character units with
// copy-on-write; a null handle is the empty text. Lengths and capacities are
// counted in bytes (two per character). Text enters from bytes and leaves as
// bytes through a character-set id (charset/charset.h). Not thread-safe.
class TextBuffer {
 public:
  TextBuffer() = default;
  TextBuffer(const TextBuffer& other);
  TextBuffer(TextBuffer&& other) noexcept;
  TextBuffer& operator=(const TextBuffer& other);
  TextBuffer& operator=(TextBuffer&& other) noexcept;
  ~TextBuffer();

  // Builds a text from `count` bytes through converter `charset_id`.
  static TextBuffer Decode(const char* bytes, uint32_t count, int charset_id);
  // A NUL-terminated literal, decoded as UTF-8 (id 29).
  static TextBuffer FromLiteral(const char* literal);
  // The bytes of a byte string, one character per byte (id 26), so that
  // encoding with id 26 gives the same bytes back.
  static TextBuffer FromBytes(const RefString& bytes);

  // The text as bytes through converter `charset_id`.
  std::string Encode(int charset_id) const;
  // The text as a byte string through ISO 8859-1 (id 26).
  RefString ToRefString() const;

  uint32_t Length() const { return body_ ? body_->length : 0; }  // bytes
  bool IsEmpty() const { return Length() == 0; }
  std::u16string ToU16String() const;

  void Append(const TextBuffer& other);

 private:
  struct Body {
    uint32_t references;
    uint32_t length;
    uint32_t capacity;
    char* data;  // malloc/realloc
  };

  void Release();
  void MakeUnique();
  // Sets the length in bytes; when it is not below the capacity, grows to
  // (n + n / 6 + 16) rounded down to a multiple of 16.
  void SetLength(uint32_t bytes);
  // Appends raw content bytes.
  void AppendBytes(const char* bytes, uint32_t count);

  Body* body_ = nullptr;
};

}  // namespace klv

#endif  // KLV_FOUNDATION_TEXT_BUFFER_H_
