#include "foundation/text_buffer.h"

#include <cstring>

#include "charset/charset.h"

namespace klv {

TextBuffer TextBuffer::Decode(const char* bytes, uint32_t count, int charset_id) {
  const std::u16string units = charset::Decode(charset_id, std::string_view(bytes, count));
  TextBuffer text;
  text.units_.Append(reinterpret_cast<const char*>(units.data()),
                     static_cast<uint32_t>(units.size() * sizeof(char16_t)));
  return text;
}

TextBuffer TextBuffer::FromLiteral(const char* literal) {
  return Decode(literal, static_cast<uint32_t>(std::strlen(literal)), charset::kUtf8);
}

TextBuffer TextBuffer::FromBytes(const RefString& bytes) {
  return Decode(bytes.Text(), bytes.Length(), charset::kIso8859_1);
}

std::string TextBuffer::Encode(int charset_id) const {
  if (IsEmpty()) return std::string();
  return charset::Encode(charset_id, ToU16String());
}

RefString TextBuffer::ToRefString() const {
  const std::string bytes = Encode(charset::kIso8859_1);
  return RefString(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::u16string TextBuffer::ToU16String() const {
  std::u16string units(Length() / sizeof(char16_t), u'\0');
  if (!units.empty()) std::memcpy(units.data(), units_.Text(), units.size() * sizeof(char16_t));
  return units;
}

}  // namespace klv
