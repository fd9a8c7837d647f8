#include <errno.h>
#include <iconv.h>

#include <algorithm>
#include <cstddef>

#include "charset/charset.h"

namespace klv::charset {
namespace {

// The 16-bit side of every conversion: units as little-endian byte pairs,
// which the "UNICODE LSB" converter turns into text and back.
constexpr char kUnits[] = "UTF-16LE";

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);
const size_t kIconvFailed = static_cast<size_t>(-1);

// The input that replaces what iconv cannot convert: how many bytes of `rest`
// to skip, and what to write instead.
struct Substitute {
  size_t (*skip)(std::string_view rest);
  std::string_view output;
};

// A byte the code page leaves undefined stands for one unknown character.
size_t SkipOneByte(std::string_view) { return 1; }

// A unit the code page cannot hold is skipped alone, or with its partner when
// it opens a surrogate pair, so one character becomes one '?'.
size_t SkipOneCharacter(std::string_view rest) {
  if (rest.size() < 4) return 2;
  const unsigned first = static_cast<unsigned char>(rest[1]);
  const unsigned second = static_cast<unsigned char>(rest[3]);
  const bool pair = (first & 0xFC) == 0xD8 && (second & 0xFC) == 0xDC;
  return pair ? 4 : 2;
}

// Appends what `descriptor` still holds back and returns it to its initial
// state. Code pages with combining accents keep a base letter until they know
// whether an accent follows.
void Flush(iconv_t descriptor, std::string* output) {
  char buffer[64];
  char* out = buffer;
  size_t out_left = sizeof buffer;
  iconv(descriptor, nullptr, nullptr, &out, &out_left);
  output->append(buffer, out - buffer);
}

// Converts the whole of `input`. Where iconv stops at input it cannot
// convert (EILSEQ, or EINVAL for a sequence cut off at the end), the held-back
// output is flushed first, then the substitute is written and the offending
// input skipped. Every pass consumes input or produces output, so the loop
// ends.
std::string Convert(iconv_t descriptor, std::string_view input, const Substitute& substitute) {
  std::string output;
  output.reserve(input.size() * 2);
  char buffer[1024];
  char* in = const_cast<char*>(input.data());
  size_t in_left = input.size();
  while (in_left > 0) {
    char* out = buffer;
    size_t out_left = sizeof buffer;
    const size_t result = iconv(descriptor, &in, &in_left, &out, &out_left);
    const int error = errno;
    output.append(buffer, out - buffer);
    if (result != kIconvFailed || (error == E2BIG && out != buffer)) continue;
    Flush(descriptor, &output);
    const size_t skipped = std::min(in_left, substitute.skip(std::string_view(in, in_left)));
    in += skipped;
    in_left -= skipped;
    output.append(substitute.output);
  }
  Flush(descriptor, &output);
  return output;
}

std::string ConvertWith(const char* to, const char* from, std::string_view input,
                        const Substitute& substitute) {
  const iconv_t descriptor = iconv_open(to, from);
  if (descriptor == kNoDescriptor) return {};
  std::string output = Convert(descriptor, input, substitute);
  iconv_close(descriptor);
  return output;
}

}  // namespace

bool CodePageAvailable(const char* iconv_name) {
  const iconv_t decoder = iconv_open(kUnits, iconv_name);
  if (decoder == kNoDescriptor) return false;
  iconv_close(decoder);
  const iconv_t encoder = iconv_open(iconv_name, kUnits);
  if (encoder == kNoDescriptor) return false;
  iconv_close(encoder);
  return true;
}

std::u16string DecodeCodePage(const char* iconv_name, std::string_view bytes) {
  // U+FFFD as a little-endian pair.
  static constexpr char kReplacement[] = {'\xFD', '\xFF'};
  const Substitute substitute = {SkipOneByte, std::string_view(kReplacement, 2)};
  return Decode(kUnicodeLsb, ConvertWith(kUnits, iconv_name, bytes, substitute));
}

std::string EncodeCodePage(const char* iconv_name, std::u16string_view text) {
  const Substitute substitute = {SkipOneCharacter, "?"};
  return ConvertWith(iconv_name, kUnits, Encode(kUnicodeLsb, text), substitute);
}

}  // namespace klv::charset
