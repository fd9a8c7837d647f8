#ifndef KLV_FOUNDATION_TEXT_BUFFER_H_
#define KLV_FOUNDATION_TEXT_BUFFER_H_

#include <cstdint>
#include <string>

#include "foundation/ref_string.h"

namespace klv {

// The 16-bit text that every message, report and log record is composed in:
// its 16-bit character units held in a RefString, so that copies share them
// and a change copies them first. Lengths are counted in bytes (two per
// character). Text enters from bytes and leaves as bytes through a
// character-set id (charset/charset.h).
class TextBuffer {
 public:
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

  uint32_t Length() const { return units_.Length(); }  // bytes
  bool IsEmpty() const { return units_.IsEmpty(); }
  std::u16string ToU16String() const;

  void Append(const TextBuffer& other) { units_.Append(other.units_.Text(), other.Length()); }

 private:
  RefString units_;  // the units in host byte order
};

}  // namespace klv

#endif  // KLV_FOUNDATION_TEXT_BUFFER_H_
