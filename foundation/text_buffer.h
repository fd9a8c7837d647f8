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
  uint32_t Characters() const { return Length() / 2; }
  uint32_t Capacity() const { return body_ ? body_->capacity : 0; }
  uint32_t References() const { return body_ ? body_->references : 0; }
  bool IsEmpty() const { return Length() == 0; }
  // Character `index`, which must be below Characters().
  char16_t At(uint32_t index) const;
  std::u16string ToU16String() const;

  // Sets the length in bytes; when it is not below the capacity, grows to
  // (n + n / 6 + 16) rounded down to a multiple of 16. Shrinking keeps the
  // capacity.
  void SetLength(uint32_t bytes);
  // Sets the length to `characters` 16-bit units.
  void Resize(uint32_t characters);
  void Append(const TextBuffer& other);
  // Inserts raw content bytes at byte `position`, shifting the tail up.
  void Insert(uint32_t position, const char* bytes, uint32_t count);
  // Erases `count` content bytes at byte `position`, shifting the tail down.
  void Erase(uint32_t position, uint32_t count);
  void AppendByte(uint8_t byte);

  // h = h + 8h + byte over the content bytes, 32-bit wrap.
  uint32_t Hash() const;
  // Compares over the length of this text only: an empty text equals anything.
  bool Equals(const TextBuffer& other) const;

 private:
  struct Body {
    uint32_t references;
    uint32_t length;
    uint32_t capacity;
    char* data;  // malloc/realloc
  };

  void Release();
  void MakeUnique();

  Body* body_ = nullptr;
};

}  // namespace klv

#endif  // KLV_FOUNDATION_TEXT_BUFFER_H_
