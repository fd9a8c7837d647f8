#ifndef KLV_CHARSET_CHARSET_H_
#define KLV_CHARSET_CHARSET_H_

#include <string>
#include <string_view>

// Converters between byte texts and 16-bit Unicode text, looked up by a small
// integer id. The registry is filled on first use from a constant table read
// in order up to id 30; then one more converter, named "NONE", is added under
// id 30 whose decode and encode both yield an empty result. An unknown id, or
// an id that the C library's iconv cannot serve on this machine, finds the id
// 30 converter.
namespace klv::charset {

enum CharsetId : int {
  kAscii = 0,
  kCodePage1250 = 1,
  kCodePage1251 = 2,
  kCodePage1252 = 3,
  kCodePage1253 = 4,
  kCodePage1254 = 5,
  kCodePage1255 = 6,
  kCodePage1256 = 7,
  kCodePage1257 = 8,
  kCodePage1258 = 9,
  kCodePage437 = 10,
  kCodePage737 = 11,
  kCodePage775 = 12,
  kCodePage850 = 13,
  kCodePage852 = 14,
  kCodePage855 = 15,
  kCodePage857 = 16,
  kCodePage860 = 17,
  kCodePage861 = 18,
  kCodePage862 = 19,
  kCodePage863 = 20,
  kCodePage864 = 21,
  kCodePage865 = 22,
  kCodePage866 = 23,
  kCodePage869 = 24,
  kCodePage874 = 25,
  kIso8859_1 = 26,
  kUnicodeMsb = 27,
  kUnicodeLsb = 28,
  kUtf8 = 29,
  kNoConversion = 30,
};

using DecodeFunction = std::u16string (*)(std::string_view bytes);
using EncodeFunction = std::string (*)(std::u16string_view text);

struct Converter {
  int id;
  const char* name;  // "ASCII", "CodePage437", "ISO 8859-1", "UTF-8", ...
  DecodeFunction decode;
  EncodeFunction encode;
};

// The converter registered under `id`, or the id 30 converter.
const Converter& Find(int id);

inline std::u16string Decode(int id, std::string_view bytes) { return Find(id).decode(bytes); }
inline std::string Encode(int id, std::u16string_view text) { return Find(id).encode(text); }

// The PC code pages, converted by the C library's iconv under the names it
// knows them by ("CP437", "CP1252"). A byte the page leaves undefined decodes
// to U+FFFD; a character the page cannot hold encodes as one '?'. Any input
// is accepted. Decoding and encoding yield empty results when iconv cannot
// open `iconv_name`.
bool CodePageAvailable(const char* iconv_name);
std::u16string DecodeCodePage(const char* iconv_name, std::string_view bytes);
std::string EncodeCodePage(const char* iconv_name, std::u16string_view text);

}  // namespace klv::charset

#endif  // KLV_CHARSET_CHARSET_H_
