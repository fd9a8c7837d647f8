// The converters: round trips, every malformed UTF-8 shape, the byte orders
// of 16-bit Unicode, the code pages through the C library, and unknown ids.

#include "charset/charset.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace klv {

using charset::Decode;
using charset::Encode;

// Text from unit values, so that lone surrogates can be written too.
std::u16string Units(std::vector<int> values) { return {values.begin(), values.end()}; }

TEST(Charset, ByteEncodingsAndByteOrders) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  EXPECT_EQ(Encode(charset::kIso8859_1, Decode(charset::kIso8859_1, all)), all);
  EXPECT_EQ(Encode(charset::kCodePage437, Decode(charset::kCodePage437, all)), all);
  EXPECT_EQ(Encode(charset::kIso8859_1, u"\u00FF\u0100"), "\xFF?");
  EXPECT_EQ(Decode(charset::kAscii, "A\x7F\x80"), u"A\u007F\uFFFD");
  EXPECT_EQ(Encode(charset::kAscii, u"A\u007F\u0080"), "A\x7F?");
  EXPECT_EQ(Decode(charset::kUnicodeMsb, "\x12\x34\xD8\x3D\x56"), Units({0x1234, 0xD83D}));
  EXPECT_EQ(Decode(charset::kUnicodeLsb, "\x12\x34\xD8\x3D\x56"), Units({0x3412, 0x3DD8}));
  EXPECT_EQ(Encode(charset::kUnicodeMsb, Units({0x1234, 0xD83D})), "\x12\x34\xD8\x3D");
  EXPECT_EQ(Encode(charset::kUnicodeLsb, Units({0x3412, 0x3DD8})), "\x12\x34\xD8\x3D");
  for (const int id : {-1, 30, 31, 1000}) {  // unknown ids convert nothing
    EXPECT_TRUE(Decode(id, "abc").empty() && Encode(id, u"abc").empty()) << id;
  }
}

// A byte that does not begin a well-formed sequence is the unit of its value.
TEST(Charset, Utf8WellAndMalformed) {
  const std::pair<std::string, std::vector<int>> kCases[] = {
      {"A\xC2\x80\xDF\xBF", {0x41, 0x80, 0x7FF}},
      {"\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF", {0x800, 0x20AC, 0xFFFF}},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", {0xD800, 0xDC00, 0xDBFF, 0xDFFF}},
      {"\x80\xBF\xF5\x80\xFF", {0x80, 0xBF, 0xF5, 0x80, 0xFF}},  // no lead
      {"\xC0\x80\xC1\xBF", {0xC0, 0x80, 0xC1, 0xBF}},            // overlong
      {"\xE0\x9F\xBF\xF0\x8F\xBF\xBF", {0xE0, 0x9F, 0xBF, 0xF0, 0x8F, 0xBF, 0xBF}},
      {"\xED\xA0\x80\xF4\x90\x80\x80", {0xED, 0xA0, 0x80, 0xF4, 0x90, 0x80, 0x80}},
      {"\xED\xBF\xBF", {0xED, 0xBF, 0xBF}},  // the last surrogate
      {"\xC2\x41\xE2\x82\xF0\x9F\x98", {0xC2, 0x41, 0xE2, 0x82, 0xF0, 0x9F, 0x98}},  // cut short
  };
  for (const auto& [bytes, units] : kCases) EXPECT_EQ(Decode(charset::kUtf8, bytes), Units(units));
  for (int index = 0; index < 3; ++index) {
    EXPECT_EQ(Encode(charset::kUtf8, Units(kCases[index].second)), kCases[index].first);
  }
  EXPECT_EQ(Encode(charset::kUtf8, Units({0xD83D, 'a', 0xDE00, 0xDE00, 0xD83D})), "?a???");
  const std::u16string pair = Units({0xD83D, 0xDE00});  // cut before its low half
  EXPECT_EQ(Encode(charset::kUtf8, std::u16string_view(pair).substr(0, 1)), "?");
}

TEST(Charset, CodePages) {
  const std::tuple<int, std::string, std::u16string> kSamples[] = {
      {charset::kCodePage437, "\x80\x82\xE1", u"\u00C7\u00E9\u00DF"},
      {charset::kCodePage850, "\x9B", u"\u00F8"},
      {charset::kCodePage1251, "\xC0", u"\u0410"},
      {charset::kCodePage1252, "\x80\x8A", u"\u20AC\u0160"},
      {charset::kCodePage874, "\xA1", u"\u0E01"},
      {charset::kCodePage1258, "Ha", u"Ha"},  // a letter that may take an accent
      {charset::kCodePage437, std::string(5000, '\x80'), std::u16string(5000, u'\u00C7')}};
  for (const auto& [id, bytes, text] : kSamples) {
    EXPECT_EQ(Decode(id, bytes), text) << id;
    EXPECT_EQ(Encode(id, text), bytes) << id;
  }
  EXPECT_EQ(Decode(charset::kCodePage1252, "\x81"), u"\uFFFD");  // no character
  // One '?' a character: a lone surrogate is one, a pair (last here) is one.
  EXPECT_EQ(Encode(charset::kCodePage437,
                   Units({'A', 0x20AC, 0xD83D, 'b', 0xDE00, 0xDE00, 'c', 0xD83D, 0xDE00})),
            "A??b??c?");
  // A code page is served only when iconv knows it.
  EXPECT_TRUE(charset::CodePageAvailable("CP437"));
  EXPECT_FALSE(charset::CodePageAvailable("NO-SUCH-CODE-PAGE"));
}

}  // namespace klv
