#include "charset/charset.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace klv {

namespace {

using charset::Decode;
using charset::Encode;
using namespace std::string_literals;

// Text from unit values, so that lone surrogates can be written too.
std::u16string Units(std::initializer_list<int> values) {
  std::u16string text;
  for (const int value : values) text.push_back(static_cast<char16_t>(value));
  return text;
}

std::string AllByteValues() {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes.push_back(static_cast<char>(value));
  return bytes;
}

TEST(Charset, NamesOfAllIds) {
  const char* const kNames[] = {"ASCII",        "CodePage1250", "CodePage1251", "CodePage1252",
                                "CodePage1253", "CodePage1254", "CodePage1255", "CodePage1256",
                                "CodePage1257", "CodePage1258", "CodePage437",  "CodePage737",
                                "CodePage775",  "CodePage850",  "CodePage852",  "CodePage855",
                                "CodePage857",  "CodePage860",  "CodePage861",  "CodePage862",
                                "CodePage863",  "CodePage864",  "CodePage865",  "CodePage866",
                                "CodePage869",  "CodePage874",  "ISO 8859-1",   "UNICODE MSB",
                                "UNICODE LSB",  "UTF-8",        "NONE"};
  for (int id = 0; id <= 30; ++id) {
    EXPECT_EQ(charset::Find(id).id, id);
    EXPECT_STREQ(charset::Find(id).name, kNames[id]) << "id " << id;
  }
}

TEST(Charset, UnknownIdsFindTheEmptyConverter) {
  for (const int id : {-1, 31, 32, 1000, INT_MIN, INT_MAX}) {
    EXPECT_EQ(&charset::Find(id), &charset::Find(charset::kNoConversion)) << "id " << id;
    EXPECT_EQ(Decode(id, "ABC"), u"") << "id " << id;
    EXPECT_EQ(Encode(id, u"ABC"), "") << "id " << id;
  }
  EXPECT_EQ(Decode(charset::kNoConversion, AllByteValues()), u"");
  EXPECT_EQ(Encode(charset::kNoConversion, u"\u00E9t\u00E9"), "");
}

TEST(Charset, AsciiKeepsSevenBitBytesOnly) {
  const std::string seven_bit = AllByteValues().substr(0, 0x80);
  EXPECT_EQ(Encode(charset::kAscii, Decode(charset::kAscii, seven_bit)), seven_bit);
  EXPECT_EQ(Decode(charset::kAscii, "a\x80z\xFF"), u"a\uFFFDz\uFFFD");
  EXPECT_EQ(Encode(charset::kAscii, u"a\u0080\u00E9\u20ACz"), "a???z");
}

TEST(Charset, Iso8859_1CarriesAllByteValues) {
  const std::string bytes = AllByteValues();
  const std::u16string text = Decode(charset::kIso8859_1, bytes);
  ASSERT_EQ(text.size(), 256u);
  for (int value = 0; value < 256; ++value) EXPECT_EQ(text[value], value);
  EXPECT_EQ(Encode(charset::kIso8859_1, text), bytes);
  EXPECT_EQ(Decode(charset::kIso8859_1, "caf\xE9"), u"caf\u00E9");
}

TEST(Charset, Iso8859_1EncodesWiderUnitsAsQuestionMarks) {
  EXPECT_EQ(Encode(charset::kIso8859_1, u"\u00FF\u0100\u20AC"), "\xFF??");
  EXPECT_EQ(Encode(charset::kIso8859_1, Units({'a', 0xD83D, 0xDE00})), "a??");
}

TEST(Charset, UnicodeByteOrders) {
  const std::string bytes = "\x12\x34\xD8\x3D\x00\x41"s;
  EXPECT_EQ(Decode(charset::kUnicodeMsb, bytes), Units({0x1234, 0xD83D, 0x0041}));
  EXPECT_EQ(Decode(charset::kUnicodeLsb, bytes), Units({0x3412, 0x3DD8, 0x4100}));
  EXPECT_EQ(Encode(charset::kUnicodeMsb, Units({0x1234, 0x00E9})), "\x12\x34\x00\xE9"s);
  EXPECT_EQ(Encode(charset::kUnicodeLsb, Units({0x1234, 0x00E9})), "\x34\x12\xE9\x00"s);
  EXPECT_EQ(Encode(charset::kUnicodeMsb, Decode(charset::kUnicodeMsb, bytes)), bytes);
  EXPECT_EQ(Encode(charset::kUnicodeLsb, Decode(charset::kUnicodeLsb, bytes)), bytes);
}

TEST(Charset, UnicodeDropsAnOddTrailingByte) {
  EXPECT_EQ(Decode(charset::kUnicodeMsb, "\x00\x41\x42"s), u"A");
  EXPECT_EQ(Decode(charset::kUnicodeLsb, "\x41\x00\x42"s), u"A");
  EXPECT_EQ(Decode(charset::kUnicodeMsb, "\x42"), u"");
  EXPECT_EQ(Decode(charset::kUnicodeLsb, ""), u"");
}

TEST(Charset, Utf8KeepsAsciiUnchanged) {
  const std::string ascii = AllByteValues().substr(0, 0x80);
  const std::u16string text = Decode(charset::kUtf8, ascii);
  ASSERT_EQ(text.size(), ascii.size());
  for (size_t i = 0; i < ascii.size(); ++i) EXPECT_EQ(text[i], static_cast<char16_t>(ascii[i]));
  EXPECT_EQ(Encode(charset::kUtf8, text), ascii);
}

TEST(Charset, Utf8MultiByteSequences) {
  EXPECT_EQ(Decode(charset::kUtf8, "\xC2\x80|\xDF\xBF"), u"\u0080|\u07FF");
  EXPECT_EQ(Decode(charset::kUtf8, "\xE0\xA0\x80|\xE2\x82\xAC|\xEF\xBF\xBF"),
            u"\u0800|\u20AC|\uFFFF");
  EXPECT_EQ(Encode(charset::kUtf8, u"\u007F\u0080\u00E9\u07FF\u0800\u20AC\uFFFF"),
            "\x7F\xC2\x80\xC3\xA9\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF");
}

TEST(Charset, Utf8FourByteSequencesAreSurrogatePairs) {
  EXPECT_EQ(Decode(charset::kUtf8, "\xF0\x90\x80\x80"), Units({0xD800, 0xDC00}));
  EXPECT_EQ(Decode(charset::kUtf8, "\xF0\x9F\x98\x80"), Units({0xD83D, 0xDE00}));
  EXPECT_EQ(Decode(charset::kUtf8, "\xF4\x8F\xBF\xBF"), Units({0xDBFF, 0xDFFF}));
  EXPECT_EQ(Encode(charset::kUtf8, Units({'a', 0xD83D, 0xDE00, 'b'})),
            "a\xF0\x9F\x98\x80"
            "b");
  EXPECT_EQ(Encode(charset::kUtf8, Units({0xDBFF, 0xDFFF})), "\xF4\x8F\xBF\xBF");
}

TEST(Charset, Utf8InvalidBytesBecomeUnitsOfTheSameValue) {
  // A stray continuation byte, bytes that never lead a sequence, overlong
  // forms, an encoded surrogate and a value beyond U+10FFFF.
  EXPECT_EQ(Decode(charset::kUtf8, "a\x80z"), u"a\u0080z");
  EXPECT_EQ(Decode(charset::kUtf8, "\xFE\xFF\xF5\x80"), u"\u00FE\u00FF\u00F5\u0080");
  EXPECT_EQ(Decode(charset::kUtf8, "\xC0\xAF\xC1\xBF"), u"\u00C0\u00AF\u00C1\u00BF");
  EXPECT_EQ(Decode(charset::kUtf8, "\xE0\x80\xAF"), u"\u00E0\u0080\u00AF");
  EXPECT_EQ(Decode(charset::kUtf8, "\xF0\x8F\xBF\xBF"), u"\u00F0\u008F\u00BF\u00BF");
  EXPECT_EQ(Decode(charset::kUtf8, "\xED\xA0\x80"), u"\u00ED\u00A0\u0080");
  EXPECT_EQ(Decode(charset::kUtf8, "\xF4\x90\x80\x80"), u"\u00F4\u0090\u0080\u0080");
  // A lead byte followed by something other than a continuation byte.
  EXPECT_EQ(Decode(charset::kUtf8, "\xC3(\xE2\x82("), u"\u00C3(\u00E2\u0082(");
}

TEST(Charset, Utf8TruncatedSequences) {
  EXPECT_EQ(Decode(charset::kUtf8, "\xC3"), u"\u00C3");
  EXPECT_EQ(Decode(charset::kUtf8, "\xE2\x82"), u"\u00E2\u0082");
  EXPECT_EQ(Decode(charset::kUtf8, "x\xF0\x9F\x98"), u"x\u00F0\u009F\u0098");
  const std::string euro = "\xE2\x82\xAC";
  for (size_t length = 1; length < euro.size(); ++length) {
    const std::u16string text = Decode(charset::kUtf8, euro.substr(0, length) + "A");
    ASSERT_EQ(text.size(), length + 1) << "length " << length;
    EXPECT_EQ(text.back(), u'A') << "length " << length;
  }
}

TEST(Charset, Utf8EncodesLoneSurrogatesAsQuestionMarks) {
  EXPECT_EQ(Encode(charset::kUtf8, Units({0xD800})), "?");
  EXPECT_EQ(Encode(charset::kUtf8, Units({'a', 0xDC00, 'b'})), "a?b");
  EXPECT_EQ(Encode(charset::kUtf8, Units({0xD83D, 'A'})), "?A");
  EXPECT_EQ(Encode(charset::kUtf8, Units({0xDE00, 0xD83D})), "??");
  EXPECT_EQ(Encode(charset::kUtf8, Units({0xD83D, 0xD83D, 0xDE00})), "?\xF0\x9F\x98\x80");
}

// One published character of each code page, as byte and unit.
struct CodePageSample {
  int id;
  char byte;
  char16_t unit;
};

TEST(Charset, CodePageSamples) {
  const CodePageSample kSamples[] = {
      {1, '\x8A', u'\u0160'},  {2, '\xC0', u'\u0410'},  {3, '\x80', u'\u20AC'},
      {4, '\xC1', u'\u0391'},  {5, '\xD0', u'\u011E'},  {6, '\xE0', u'\u05D0'},
      {7, '\xC7', u'\u0627'},  {8, '\xC0', u'\u0104'},  {9, '\xC3', u'\u0102'},
      {10, '\x80', u'\u00C7'}, {11, '\x80', u'\u0391'}, {12, '\x80', u'\u0106'},
      {13, '\x9B', u'\u00F8'}, {14, '\xA5', u'\u0105'}, {15, '\x80', u'\u0452'},
      {16, '\x98', u'\u0130'}, {17, '\x84', u'\u00E3'}, {18, '\x8C', u'\u00F0'},
      {19, '\x80', u'\u05D0'}, {20, '\x86', u'\u00B6'}, {21, '\xB0', u'\u0660'},
      {22, '\x9B', u'\u00F8'}, {23, '\x80', u'\u0410'}, {24, '\xA4', u'\u0391'},
      {25, '\xA1', u'\u0E01'}};
  for (const CodePageSample& sample : kSamples) {
    const std::string bytes = {'<', sample.byte, '>'};
    const std::u16string text = {u'<', sample.unit, u'>'};
    EXPECT_EQ(Decode(sample.id, bytes), text) << "id " << sample.id;
    EXPECT_EQ(Encode(sample.id, text), bytes) << "id " << sample.id;
  }
}

// The bytes each code page leaves without a character.
struct CodePageHoles {
  int id;
  std::vector<int> undefined;
};

const std::vector<CodePageHoles>& AllCodePageHoles() {
  static const std::vector<CodePageHoles> kHoles = {
      {1, {0x81, 0x83, 0x88, 0x90, 0x98}},
      {2, {0x98}},
      {3, {0x81, 0x8D, 0x8F, 0x90, 0x9D}},
      {4,
       {0x81, 0x88, 0x8A, 0x8C, 0x8D, 0x8E, 0x8F, 0x90, 0x98, 0x9A, 0x9C, 0x9D, 0x9E, 0x9F, 0xAA,
        0xD2, 0xFF}},
      {5, {0x81, 0x8D, 0x8E, 0x8F, 0x90, 0x9D, 0x9E}},
      {6, {0x81, 0x8A, 0x8C, 0x8D, 0x8E, 0x8F, 0x90, 0x9A, 0x9C, 0x9D, 0x9E, 0x9F,
           0xCA, 0xD9, 0xDA, 0xDB, 0xDC, 0xDD, 0xDE, 0xDF, 0xFB, 0xFC, 0xFF}},
      {7, {}},
      {8, {0x81, 0x83, 0x88, 0x8A, 0x8C, 0x90, 0x98, 0x9A, 0x9C, 0x9F, 0xA1, 0xA5}},
      {9, {0x81, 0x8A, 0x8D, 0x8E, 0x8F, 0x90, 0x9A, 0x9D, 0x9E}},
      {10, {}},
      {11, {}},
      {12, {}},
      {13, {}},
      {14, {}},
      {15, {}},
      {16, {0xD5, 0xE7, 0xF2}},
      {17, {}},
      {18, {}},
      {19, {}},
      {20, {}},
      {21, {0x9B, 0x9C, 0x9F, 0xA6, 0xA7, 0xFF}},
      {22, {}},
      {23, {}},
      {24, {0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x87, 0x93, 0x94}},
      {25, {0x81, 0x82, 0x83, 0x84, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x8B, 0x8C,
            0x8D, 0x8E, 0x8F, 0x90, 0x98, 0x99, 0x9A, 0x9B, 0x9C, 0x9D, 0x9E,
            0x9F, 0xDB, 0xDC, 0xDD, 0xDE, 0xFC, 0xFD, 0xFE, 0xFF}}};
  return kHoles;
}

bool Contains(const std::vector<int>& values, int value) {
  for (const int candidate : values) {
    if (candidate == value) return true;
  }
  return false;
}

TEST(Charset, CodePagesRoundTripEveryDefinedByte) {
  for (const CodePageHoles& page : AllCodePageHoles()) {
    std::string defined;
    for (int value = 0; value < 256; ++value) {
      if (Contains(page.undefined, value)) continue;
      const std::string byte(1, static_cast<char>(value));
      const std::u16string text = Decode(page.id, byte);
      EXPECT_TRUE(text.size() == 1 && text[0] != u'\uFFFD')
          << "id " << page.id << " byte " << value;
      EXPECT_EQ(Encode(page.id, text), byte) << "id " << page.id << " byte " << value;
      defined += byte;
    }
    EXPECT_EQ(Encode(page.id, Decode(page.id, defined)), defined) << "id " << page.id;
  }
}

TEST(Charset, CodePageUndefinedBytesDecodeToReplacementCharacter) {
  for (const CodePageHoles& page : AllCodePageHoles()) {
    for (const int value : page.undefined) {
      const std::string bytes = std::string("a") + static_cast<char>(value) + "b";
      EXPECT_EQ(Decode(page.id, bytes), u"a\uFFFDb") << "id " << page.id << " byte " << value;
    }
  }
  EXPECT_EQ(Decode(charset::kCodePage1252, std::string(3000, '\x81')),
            std::u16string(3000, u'\uFFFD'));
}

TEST(Charset, CodePageEncodesWhatItCannotHoldAsQuestionMarks) {
  EXPECT_EQ(Encode(charset::kCodePage437, u"A\u20ACB\u0416C"), "A?B?C");
  EXPECT_EQ(Encode(charset::kCodePage437, Units({'A', 0xD83D, 0xDE00, 'B'})), "A?B");
  EXPECT_EQ(Encode(charset::kCodePage437, Units({'A', 0xDE00, 'B', 0xD83D})), "A?B?");
  EXPECT_EQ(Encode(charset::kCodePage1251, u"\u00C7\u0416"), "?\xC6");
}

TEST(Charset, CodePageKeepsAFinalLetterThatCouldTakeAnAccent) {
  EXPECT_EQ(Decode(charset::kCodePage1258, "Ha"), u"Ha");
  EXPECT_EQ(Decode(charset::kCodePage1255, "\xE0"), u"\u05D0");
  EXPECT_EQ(Decode(charset::kCodePage1258,
                   "a\x81"
                   "e"),
            u"a\uFFFDe");
}

TEST(Charset, CodePageTextLongerThanOneConversionBuffer) {
  const std::string bytes(5000, '\x80');
  const std::u16string text(5000, u'\u00C7');
  EXPECT_EQ(Decode(charset::kCodePage437, bytes), text);
  EXPECT_EQ(Encode(charset::kCodePage437, text), bytes);
}

// Deterministic pseudo-random bytes, so a failure repeats.
std::string ScrambledBytes(uint32_t* seed, size_t length) {
  std::string bytes;
  for (size_t i = 0; i < length; ++i) {
    *seed = *seed * 1103515245u + 12345u;
    bytes.push_back(static_cast<char>(*seed >> 16));
  }
  return bytes;
}

TEST(Charset, ArbitraryInputIsAcceptedEverywhere) {
  uint32_t seed = 1;
  for (int round = 0; round < 40; ++round) {
    const std::string bytes = ScrambledBytes(&seed, 1 + round * 7);
    const std::u16string units = Decode(charset::kUnicodeLsb, bytes);
    for (int id = 0; id <= 30; ++id) {
      EXPECT_LE(Decode(id, bytes).size(), bytes.size()) << "id " << id;
      EXPECT_LE(Encode(id, units).size(), units.size() * 4) << "id " << id;
    }
    EXPECT_EQ(Encode(charset::kIso8859_1, Decode(charset::kIso8859_1, bytes)), bytes);
  }
}

TEST(Charset, EmptyInputGivesEmptyOutput) {
  for (int id = 0; id <= 30; ++id) {
    EXPECT_EQ(Decode(id, ""), u"") << "id " << id;
    EXPECT_EQ(Encode(id, u""), "") << "id " << id;
  }
}

}  // namespace

}  // namespace klv
