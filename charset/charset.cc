#include "charset/charset.h"

#include <array>
#include <cstddef>

namespace klv::charset {
namespace {

// What a byte that a text cannot hold decodes to, and what a unit that a byte
// encoding cannot hold encodes to.
constexpr char16_t kReplacementCharacter = 0xFFFD;
constexpr char kUnknownByte = '?';

bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// ASCII: bytes 0x00 to 0x7F are their own units. A byte from 0x80 up is no
// ASCII character at all, so it decodes to U+FFFD rather than to a guess.
std::u16string DecodeAscii(std::string_view bytes) {
  std::u16string text;
  text.reserve(bytes.size());
  for (const unsigned char byte : bytes) text.push_back(byte < 0x80 ? byte : kReplacementCharacter);
  return text;
}

std::string EncodeAscii(std::u16string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (const char16_t unit : text)
    bytes.push_back(unit < 0x80 ? static_cast<char>(unit) : kUnknownByte);
  return bytes;
}

// ISO 8859-1: every byte is the unit of the same value, so any byte string
// survives a decode and an encode unchanged.
std::u16string DecodeLatin1(std::string_view bytes) {
  std::u16string text;
  text.reserve(bytes.size());
  for (const unsigned char byte : bytes) text.push_back(byte);
  return text;
}

std::string EncodeLatin1(std::u16string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (const char16_t unit : text)
    bytes.push_back(unit <= 0xFF ? static_cast<char>(unit) : kUnknownByte);
  return bytes;
}

// 16-bit Unicode, two bytes per unit without a byte-order mark. An odd byte
// at the end is half a unit and is dropped.
template <bool kMostSignificantFirst>
std::u16string DecodeUnicode(std::string_view bytes) {
  std::u16string text;
  text.reserve(bytes.size() / 2);
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const unsigned char first = bytes[i];
    const unsigned char second = bytes[i + 1];
    text.push_back(kMostSignificantFirst ? (first << 8 | second) : (second << 8 | first));
  }
  return text;
}

template <bool kMostSignificantFirst>
std::string EncodeUnicode(std::u16string_view text) {
  std::string bytes;
  bytes.reserve(text.size() * 2);
  for (const char16_t unit : text) {
    const char high = static_cast<char>(unit >> 8);
    const char low = static_cast<char>(unit & 0xFF);
    bytes.push_back(kMostSignificantFirst ? high : low);
    bytes.push_back(kMostSignificantFirst ? low : high);
  }
  return bytes;
}

// What the lead byte of a UTF-8 sequence says: the sequence length (0 when
// the byte cannot lead one), its payload bits, and the smallest code point
// that needs this length (anything below is an overlong form).
struct Utf8Lead {
  size_t length;
  char32_t value;
  char32_t smallest;
};

Utf8Lead ReadLead(unsigned char lead) {
  if (lead < 0x80) return {1, lead, 0};
  if (lead >= 0xC2 && lead <= 0xDF) return {2, lead & 0x1Fu, 0x80};
  if (lead >= 0xE0 && lead <= 0xEF) return {3, lead & 0x0Fu, 0x800};
  if (lead >= 0xF0 && lead <= 0xF4) return {4, lead & 0x07u, 0x10000};
  return {0, 0, 0};
}

// Reads one well-formed UTF-8 sequence at `bytes[at]` into `code_point` and
// returns its length, or 0 when the bytes there are no such sequence (a stray
// continuation byte, an overlong form, a surrogate, a value above U+10FFFF or
// a sequence cut short).
size_t ReadUtf8Sequence(std::string_view bytes, size_t at, char32_t* code_point) {
  Utf8Lead lead = ReadLead(static_cast<unsigned char>(bytes[at]));
  if (lead.length == 0 || bytes.size() - at < lead.length) return 0;
  for (size_t i = 1; i < lead.length; ++i) {
    const unsigned char next = bytes[at + i];
    if ((next & 0xC0) != 0x80) return 0;
    lead.value = lead.value << 6 | (next & 0x3F);
  }
  const char32_t value = lead.value;
  if (value < lead.smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  *code_point = value;
  return lead.length;
}

// A byte that does not begin a well-formed sequence becomes the unit of the
// same value, so nothing is lost and text in another 8-bit encoding still
// comes through readable.
std::u16string DecodeUtf8(std::string_view bytes) {
  std::u16string text;
  text.reserve(bytes.size());
  for (size_t at = 0; at < bytes.size();) {
    char32_t code_point = 0;
    const size_t length = ReadUtf8Sequence(bytes, at, &code_point);
    if (length == 0) {
      text.push_back(static_cast<unsigned char>(bytes[at++]));
    } else if (code_point >= 0x10000) {
      text.push_back(0xD800 + ((code_point - 0x10000) >> 10));
      text.push_back(0xDC00 + ((code_point - 0x10000) & 0x3FF));
    } else {
      text.push_back(code_point);
    }
    at += length;
  }
  return text;
}

void AppendUtf8(char32_t code_point, std::string* bytes) {
  if (code_point < 0x80) {
    bytes->push_back(static_cast<char>(code_point));
  } else if (code_point < 0x800) {
    bytes->push_back(static_cast<char>(0xC0 | code_point >> 6));
    bytes->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else if (code_point < 0x10000) {
    bytes->push_back(static_cast<char>(0xE0 | code_point >> 12));
    bytes->push_back(static_cast<char>(0x80 | (code_point >> 6 & 0x3F)));
    bytes->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else {
    bytes->push_back(static_cast<char>(0xF0 | code_point >> 18));
    bytes->push_back(static_cast<char>(0x80 | (code_point >> 12 & 0x3F)));
    bytes->push_back(static_cast<char>(0x80 | (code_point >> 6 & 0x3F)));
    bytes->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  }
}

// A surrogate pair becomes one four-byte sequence; a surrogate without its
// partner names no character and becomes '?'.
std::string EncodeUtf8(std::u16string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    const char32_t unit = text[at];
    if (IsHighSurrogate(unit) && at + 1 < text.size() && IsLowSurrogate(text[at + 1])) {
      AppendUtf8(0x10000 + ((unit - 0xD800) << 10) + (text[++at] - 0xDC00), &bytes);
    } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
      bytes.push_back(kUnknownByte);
    } else {
      AppendUtf8(unit, &bytes);
    }
  }
  return bytes;
}

// The converter under id 30: it converts nothing.
std::u16string DecodeNothing(std::string_view) { return {}; }
std::string EncodeNothing(std::u16string_view) { return {}; }

// The names iconv knows the PC code pages by, indexed by id.
constexpr std::array<const char*, kIso8859_1> kCodePageNames = {
    nullptr,  "CP1250", "CP1251", "CP1252", "CP1253", "CP1254", "CP1255", "CP1256", "CP1257",
    "CP1258", "CP437",  "CP737",  "CP775",  "CP850",  "CP852",  "CP855",  "CP857",  "CP860",
    "CP861",  "CP862",  "CP863",  "CP864",  "CP865",  "CP866",  "CP869",  "CP874"};

template <int kId>
std::u16string DecodePage(std::string_view bytes) {
  return DecodeCodePage(kCodePageNames[kId], bytes);
}

template <int kId>
std::string EncodePage(std::u16string_view text) {
  return EncodeCodePage(kCodePageNames[kId], text);
}

#define KLV_CODE_PAGE(id, name) \
  { id, name, DecodePage<id>, EncodePage<id> }

// The registry is filled from this table in order, up to the record of id 30.
constexpr Converter kConverters[] = {
    {kAscii, "ASCII", DecodeAscii, EncodeAscii},
    KLV_CODE_PAGE(kCodePage1250, "CodePage1250"),
    KLV_CODE_PAGE(kCodePage1251, "CodePage1251"),
    KLV_CODE_PAGE(kCodePage1252, "CodePage1252"),
    KLV_CODE_PAGE(kCodePage1253, "CodePage1253"),
    KLV_CODE_PAGE(kCodePage1254, "CodePage1254"),
    KLV_CODE_PAGE(kCodePage1255, "CodePage1255"),
    KLV_CODE_PAGE(kCodePage1256, "CodePage1256"),
    KLV_CODE_PAGE(kCodePage1257, "CodePage1257"),
    KLV_CODE_PAGE(kCodePage1258, "CodePage1258"),
    KLV_CODE_PAGE(kCodePage437, "CodePage437"),
    KLV_CODE_PAGE(kCodePage737, "CodePage737"),
    KLV_CODE_PAGE(kCodePage775, "CodePage775"),
    KLV_CODE_PAGE(kCodePage850, "CodePage850"),
    KLV_CODE_PAGE(kCodePage852, "CodePage852"),
    KLV_CODE_PAGE(kCodePage855, "CodePage855"),
    KLV_CODE_PAGE(kCodePage857, "CodePage857"),
    KLV_CODE_PAGE(kCodePage860, "CodePage860"),
    KLV_CODE_PAGE(kCodePage861, "CodePage861"),
    KLV_CODE_PAGE(kCodePage862, "CodePage862"),
    KLV_CODE_PAGE(kCodePage863, "CodePage863"),
    KLV_CODE_PAGE(kCodePage864, "CodePage864"),
    KLV_CODE_PAGE(kCodePage865, "CodePage865"),
    KLV_CODE_PAGE(kCodePage866, "CodePage866"),
    KLV_CODE_PAGE(kCodePage869, "CodePage869"),
    KLV_CODE_PAGE(kCodePage874, "CodePage874"),
    {kIso8859_1, "ISO 8859-1", DecodeLatin1, EncodeLatin1},
    {kUnicodeMsb, "UNICODE MSB", DecodeUnicode<true>, EncodeUnicode<true>},
    {kUnicodeLsb, "UNICODE LSB", DecodeUnicode<false>, EncodeUnicode<false>},
    {kUtf8, "UTF-8", DecodeUtf8, EncodeUtf8},
    {kNoConversion, nullptr, nullptr, nullptr},
};

#undef KLV_CODE_PAGE

constexpr Converter kNothing = {kNoConversion, "NONE", DecodeNothing, EncodeNothing};

// A code page is served only when this machine's iconv knows it both ways.
bool CanServe(const Converter& converter) {
  if (converter.id <= kAscii || converter.id >= kIso8859_1) return true;
  return CodePageAvailable(kCodePageNames[converter.id]);
}

// Converters by id; a slot left empty finds the id 30 converter.
class Registry {
 public:
  Registry() {
    for (const Converter* record = kConverters; record->id != kNoConversion; ++record) {
      if (CanServe(*record)) slots_[record->id] = record;
    }
    slots_[kNoConversion] = &kNothing;
  }

  const Converter& Find(int id) const {
    const bool known = id >= 0 && id < static_cast<int>(slots_.size()) && slots_[id] != nullptr;
    return known ? *slots_[id] : *slots_[kNoConversion];
  }

 private:
  std::array<const Converter*, kNoConversion + 1> slots_{};
};

}  // namespace

const Converter& Find(int id) {
  static const Registry registry;
  return registry.Find(id);
}

}  // namespace klv::charset
