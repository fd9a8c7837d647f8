#include "foundation/text_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace klv {

namespace {

// The text's characters as ISO 8859-1 bytes.
std::string Latin1(const TextBuffer& text) { return text.Encode(26); }

TEST(TextBuffer, EmptyHandleHasNoBody) {
  const TextBuffer empty;
  EXPECT_EQ(empty.Length(), 0u);
  EXPECT_EQ(empty.Capacity(), 0u);
  EXPECT_EQ(empty.References(), 0u);
  EXPECT_TRUE(empty.IsEmpty());
  EXPECT_EQ(empty.Hash(), 0u);
  EXPECT_EQ(Latin1(empty), "");
  EXPECT_TRUE(empty.ToU16String().empty());
}

TEST(TextBuffer, LengthCountsBytesOfSixteenBitUnits) {
  const TextBuffer text = TextBuffer::FromLiteral("abc");
  EXPECT_EQ(text.Length(), 6u);
  EXPECT_EQ(text.Characters(), 3u);
  EXPECT_EQ(text.At(0), u'a');
  EXPECT_EQ(text.At(2), u'c');
  EXPECT_EQ(text.ToU16String(), u"abc");
}

TEST(TextBuffer, GrowthRuleRoundsDownToSixteen) {
  TextBuffer text;
  text.SetLength(0);  // 0 + 0 + 16
  EXPECT_EQ(text.Capacity(), 16u);
  text.SetLength(15);  // below the capacity: kept
  EXPECT_EQ(text.Capacity(), 16u);
  text.SetLength(16);  // 16 + 2 + 16 = 34 -> 32
  EXPECT_EQ(text.Capacity(), 32u);
  text.SetLength(100);  // 100 + 16 + 16 = 132 -> 128
  EXPECT_EQ(text.Capacity(), 128u);
  text.SetLength(1000);  // 1000 + 166 + 16 = 1182 -> 1168
  EXPECT_EQ(text.Capacity(), 1168u);
  EXPECT_EQ(text.Length(), 1000u);
}

TEST(TextBuffer, ShrinkingKeepsCapacity) {
  TextBuffer text;
  text.SetLength(100);
  text.SetLength(2);
  EXPECT_EQ(text.Length(), 2u);
  EXPECT_EQ(text.Capacity(), 128u);
  text.Resize(40);  // 80 bytes: still below 128
  EXPECT_EQ(text.Length(), 80u);
  EXPECT_EQ(text.Capacity(), 128u);
  text.Resize(64);  // 128 bytes: 128 + 21 + 16 = 165 -> 160
  EXPECT_EQ(text.Capacity(), 160u);
}

TEST(TextBuffer, CopySharesBodyUntilChanged) {
  TextBuffer first = TextBuffer::FromLiteral("shared");
  TextBuffer second = first;
  EXPECT_EQ(first.References(), 2u);
  second.Append(TextBuffer::FromLiteral("!"));
  EXPECT_EQ(first.References(), 1u);
  EXPECT_EQ(second.References(), 1u);
  EXPECT_EQ(Latin1(first), "shared");
  EXPECT_EQ(Latin1(second), "shared!");
}

TEST(TextBuffer, MakeUniqueCopyTakesCapacityByGrowthRule) {
  TextBuffer first;
  first.SetLength(200);  // capacity 200 + 33 + 16 = 249 -> 240
  first.SetLength(20);
  ASSERT_EQ(first.Capacity(), 240u);
  TextBuffer second = first;
  second.AppendByte('x');  // the copy: 20 + 3 + 16 = 39 -> 32, then 21 bytes fit
  EXPECT_EQ(second.Capacity(), 32u);
  EXPECT_EQ(second.Length(), 21u);
  EXPECT_EQ(first.Capacity(), 240u);
  EXPECT_EQ(first.Length(), 20u);
}

TEST(TextBuffer, AssignmentAndMoveKeepCounts) {
  TextBuffer first = TextBuffer::FromLiteral("one");
  TextBuffer& alias = first;
  first = alias;
  EXPECT_EQ(first.References(), 1u);
  EXPECT_EQ(Latin1(first), "one");
  TextBuffer second = TextBuffer::FromLiteral("two");
  second = first;
  EXPECT_EQ(first.References(), 2u);
  TextBuffer third = std::move(second);
  EXPECT_EQ(first.References(), 2u);
  EXPECT_EQ(Latin1(third), "one");
  third = TextBuffer();
  EXPECT_EQ(first.References(), 1u);
}

TEST(TextBuffer, InsertAndEraseShiftTheTail) {
  TextBuffer text = TextBuffer::FromLiteral("ac");
  const char b[2] = {'b', '\0'};  // one little-endian unit
  text.Insert(2, b, 2);
  EXPECT_EQ(Latin1(text), "abc");
  text.Insert(0, "_\0", 2);
  EXPECT_EQ(Latin1(text), "_abc");
  text.Insert(8, "!\0", 2);
  EXPECT_EQ(Latin1(text), "_abc!");
  text.Erase(2, 4);
  EXPECT_EQ(Latin1(text), "_c!");
  text.Erase(4, 2);
  EXPECT_EQ(Latin1(text), "_c");
  text.Erase(0, 4);
  EXPECT_EQ(text.Length(), 0u);
}

TEST(TextBuffer, AppendByteAddsRawContent) {
  TextBuffer text;
  text.AppendByte('Z');
  text.AppendByte(0x01);
  EXPECT_EQ(text.Length(), 2u);
  EXPECT_EQ(text.At(0), char16_t{0x015A});
}

TEST(TextBuffer, AppendToItself) {
  TextBuffer text = TextBuffer::FromLiteral("ab");
  text.Append(text);
  EXPECT_EQ(Latin1(text), "abab");
  TextBuffer copy = text;
  copy.Append(copy);
  EXPECT_EQ(Latin1(copy), "abababab");
  EXPECT_EQ(Latin1(text), "abab");
}

TEST(TextBuffer, HashRunsOverContentBytes) {
  // "AB" is the bytes 41 00 42 00: 65, 585, 5331, 47979.
  EXPECT_EQ(TextBuffer::FromLiteral("AB").Hash(), 47979u);
  EXPECT_EQ(TextBuffer::FromLiteral("A").Hash(), 585u);
  EXPECT_EQ(TextBuffer::FromLiteral("abcdefghijklmnop").Hash(), 3292122952u);  // wraps
}

TEST(TextBuffer, EqualsComparesOverFirstLengthOnly) {
  const TextBuffer abc = TextBuffer::FromLiteral("abc");
  const TextBuffer abcdef = TextBuffer::FromLiteral("abcdef");
  const TextBuffer abd = TextBuffer::FromLiteral("abd");
  EXPECT_TRUE(abc.Equals(abcdef));
  EXPECT_FALSE(abcdef.Equals(abc));
  EXPECT_FALSE(abc.Equals(abd));
  EXPECT_TRUE(abc.Equals(TextBuffer::FromLiteral("abc")));
  EXPECT_TRUE(TextBuffer().Equals(abc));
  EXPECT_TRUE(TextBuffer().Equals(TextBuffer()));
  EXPECT_FALSE(abc.Equals(TextBuffer()));
}

TEST(TextBuffer, FromBytesKeepsEveryByte) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  const RefString bytes(all.data(), static_cast<uint32_t>(all.size()));
  const TextBuffer text = TextBuffer::FromBytes(bytes);
  ASSERT_EQ(text.Characters(), 256u);
  EXPECT_EQ(text.At(0), char16_t{0});
  EXPECT_EQ(text.At(0xE9), char16_t{0xE9});
  EXPECT_EQ(text.At(0xFF), char16_t{0xFF});
  const RefString back = text.ToRefString();
  ASSERT_EQ(back.Length(), 256u);
  EXPECT_EQ(std::string(back.Text(), back.Length()), all);
}

TEST(TextBuffer, LiteralsDecodeAsUtf8) {
  const TextBuffer text = TextBuffer::FromLiteral("caf\xC3\xA9");
  ASSERT_EQ(text.Characters(), 4u);
  EXPECT_EQ(text.At(3), char16_t{0xE9});
  EXPECT_EQ(text.Encode(29), "caf\xC3\xA9");
  EXPECT_EQ(text.Encode(26), "caf\xE9");
}

TEST(TextBuffer, DecodeCountsBytesNotNul) {
  const TextBuffer text = TextBuffer::Decode("a\0b", 3, 26);
  ASSERT_EQ(text.Characters(), 3u);
  EXPECT_EQ(text.At(1), char16_t{0});
  EXPECT_EQ(text.Capacity(), 16u);  // 6 + 1 + 16 = 23 -> 16
  EXPECT_TRUE(TextBuffer::Decode("", 0, 29).IsEmpty());
}

}  // namespace

}  // namespace klv
