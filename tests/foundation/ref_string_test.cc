#include "foundation/ref_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace klv {

namespace {

// A string of `length` copies of `byte`, built from bytes (capacity length + 7).
RefString Filled(uint32_t length, char byte) {
  const std::string bytes(length, byte);
  return RefString(bytes.data(), length);
}

TEST(RefString, EmptyHandleOwnsNoBody) {
  const RefString empty;
  EXPECT_EQ(empty.Length(), 0u);
  EXPECT_EQ(empty.Capacity(), 0u);
  EXPECT_EQ(empty.References(), 0u);
  EXPECT_TRUE(empty.IsEmpty());
  ASSERT_NE(empty.Text(), nullptr);
  EXPECT_STREQ(empty.Text(), "");
  EXPECT_EQ(empty.Hash(), 0u);

  const RefString copy = empty;
  EXPECT_EQ(copy.References(), 0u);
  EXPECT_TRUE(copy == empty);
}

TEST(RefString, BytesGetSevenBytesOfRoom) {
  const RefString hello("hello", 5);
  EXPECT_EQ(hello.Length(), 5u);
  EXPECT_EQ(hello.Capacity(), 12u);
  EXPECT_EQ(hello.References(), 1u);
  EXPECT_STREQ(hello.Text(), "hello");

  const RefString text("abc");
  EXPECT_EQ(text.Length(), 3u);
  EXPECT_EQ(text.Capacity(), 10u);

  const RefString none("", 0);
  EXPECT_EQ(none.Length(), 0u);
  EXPECT_EQ(none.Capacity(), 7u);
  EXPECT_STREQ(none.Text(), "");
}

TEST(RefString, EmbeddedNulIsKept) {
  const RefString bytes("a\0b", 3);
  EXPECT_EQ(bytes.Length(), 3u);
  EXPECT_EQ(std::memcmp(bytes.Text(), "a\0b\0", 4), 0);
}

TEST(RefString, CopiesShareOneBody) {
  const RefString original("shared", 6);
  {
    const RefString copy = original;
    RefString assigned;
    assigned = original;
    EXPECT_EQ(original.References(), 3u);
    EXPECT_EQ(copy.Text(), original.Text());
    EXPECT_EQ(assigned.Text(), original.Text());
  }
  EXPECT_EQ(original.References(), 1u);
}

TEST(RefString, AssignmentReleasesTheOldBody) {
  const RefString first("first", 5);
  RefString holder = first;
  const RefString second("second", 6);
  holder = second;
  EXPECT_EQ(first.References(), 1u);
  EXPECT_EQ(second.References(), 2u);
  EXPECT_STREQ(holder.Text(), "second");

  holder = holder;
  EXPECT_EQ(second.References(), 2u);
  EXPECT_STREQ(holder.Text(), "second");
}

TEST(RefString, MoveLeavesTheSourceEmpty) {
  RefString source("moved", 5);
  const char* text = source.Text();
  RefString target = std::move(source);
  EXPECT_EQ(target.Text(), text);
  EXPECT_EQ(target.References(), 1u);
  EXPECT_EQ(source.References(), 0u);  // NOLINT(bugprone-use-after-move)
  EXPECT_STREQ(source.Text(), "");     // NOLINT(bugprone-use-after-move)

  RefString other("other", 5);
  other = std::move(target);
  EXPECT_STREQ(other.Text(), "moved");
  EXPECT_EQ(other.References(), 1u);
}

TEST(RefString, FirstChangeOfEmptyHandleBuildsCapacitySeven) {
  RefString appended;
  appended.Append("", 0);
  EXPECT_EQ(appended.Capacity(), 7u);
  EXPECT_EQ(appended.Length(), 0u);

  RefString truncated;
  truncated.Truncate(0);
  EXPECT_EQ(truncated.Capacity(), 7u);
  EXPECT_EQ(truncated.References(), 1u);

  RefString grown;
  grown.Append("abcdef", 6);  // 7 > 0 + 6: fits the fresh body
  EXPECT_EQ(grown.Capacity(), 7u);
  EXPECT_STREQ(grown.Text(), "abcdef");
}

TEST(RefString, AppendToSharedBodyLeavesOtherHoldersUnchanged) {
  const RefString original("hello", 5);
  RefString changed = original;
  changed.Append("!", 1);
  EXPECT_STREQ(original.Text(), "hello");
  EXPECT_EQ(original.References(), 1u);
  EXPECT_EQ(original.Capacity(), 12u);
  EXPECT_STREQ(changed.Text(), "hello!");
  EXPECT_EQ(changed.References(), 1u);
  EXPECT_EQ(changed.Capacity(), 12u);  // private copy: 5 + 7, then 12 > 6 fits

  // A long body, once grown, is copied back to length + 7.
  RefString grown = Filled(100, 'x');
  grown.Append("yyyyyyy", 7);  // 107 > 107 fails; t = 117: 117 + 14 * 14
  ASSERT_EQ(grown.Capacity(), 313u);
  RefString copy = grown;
  copy.Truncate(1);
  EXPECT_EQ(copy.Capacity(), 114u);  // 107 + 7
  EXPECT_EQ(grown.Length(), 107u);
  EXPECT_EQ(grown.Capacity(), 313u);
}

TEST(RefString, AppendFitsOnlyWhileCapacityExceedsNeed) {
  RefString text("hello", 5);
  const char* buffer = text.Text();
  text.Append("abcdef", 6);  // 12 > 11
  EXPECT_EQ(text.Capacity(), 12u);
  EXPECT_EQ(text.Text(), buffer);
  text.Append("g", 1);  // 12 > 12 fails: t = 12 + 10 = 22, 22 + 2 * 2 = 26
  EXPECT_EQ(text.Capacity(), 26u);
  EXPECT_EQ(text.Length(), 12u);
  EXPECT_STREQ(text.Text(), "helloabcdefg");

  RefString at_once("hello", 5);
  at_once.Append("abcdefg", 7);  // t = 5 + 7 + 10 = 22
  EXPECT_EQ(at_once.Capacity(), 26u);
  EXPECT_STREQ(at_once.Text(), "helloabcdefg");
}

TEST(RefString, GrowthSquaresAnEighth) {
  struct Case {
    uint32_t length;  // of a string built from bytes: capacity length + 7
    uint32_t count;   // appended at once
    uint32_t capacity;
  };
  const Case cases[] = {
      {80, 10, 244},     // 87 > 90 fails; t = 100: 100 + 12 * 12
      {900, 90, 16625},  // t = 1000: 1000 + 125 * 125
      {0, 7, 21},        // 7 > 7 fails; t = 17: 17 + 2 * 2
      {0, 6, 7},         // 7 > 6 fits
      {1, 7, 22},        // 8 > 8 fails; t = 18: 18 + 2 * 2
      {10, 50, 134},     // t = 70: 70 + 8 * 8
  };
  for (const Case& c : cases) {
    RefString text = Filled(c.length, 'a');
    text.Append(std::string(c.count, 'b').data(), c.count);
    EXPECT_EQ(text.Capacity(), c.capacity) << "length " << c.length << " count " << c.count;
    EXPECT_EQ(text.Length(), c.length + c.count);
    EXPECT_EQ(text.Text()[text.Length()], '\0');
  }
}

TEST(RefString, GrowthSquareWrapsInThirtyTwoBits) {
  // t = 524270 + 8 + 10 = 524288; (t / 8)^2 = 65536^2 = 2^32, which wraps to 0.
  RefString text = Filled(524270, 'w');
  text.Append("01234567", 8);
  EXPECT_EQ(text.Capacity(), 524288u);
  EXPECT_EQ(text.Length(), 524278u);
  EXPECT_EQ(std::memcmp(text.Text() + 524270, "01234567", 9), 0);
}

TEST(RefString, TruncateKeepsCapacity) {
  RefString text("hello", 5);
  text.Append("abcdefg", 7);
  ASSERT_EQ(text.Capacity(), 26u);
  text.Truncate(2);
  EXPECT_EQ(text.Length(), 2u);
  EXPECT_EQ(text.Capacity(), 26u);
  EXPECT_STREQ(text.Text(), "he");
  const char* buffer = text.Text();
  text.Append("0123456789012345678901", 22);  // 26 > 24 fits
  EXPECT_EQ(text.Capacity(), 26u);
  EXPECT_EQ(text.Text(), buffer);

  const RefString original("hello", 5);
  RefString cut = original;
  cut.Truncate(1);
  EXPECT_STREQ(original.Text(), "hello");
  EXPECT_STREQ(cut.Text(), "h");
  EXPECT_EQ(cut.Capacity(), 12u);
}

TEST(RefString, AppendOfItself) {
  RefString grows("abcdef", 6);  // capacity 13
  grows.Append(grows);           // 13 > 12 fits
  EXPECT_EQ(grows.Capacity(), 13u);
  grows.Append(grows);  // 13 > 24 fails; t = 34: 34 + 4 * 4
  EXPECT_EQ(grows.Capacity(), 50u);
  EXPECT_STREQ(grows.Text(), "abcdefabcdefabcdefabcdef");

  RefString roomy("hello", 5);
  roomy.Append("abcdefg", 7);
  roomy.Truncate(2);
  roomy.Append(roomy);
  EXPECT_STREQ(roomy.Text(), "hehe");
  EXPECT_EQ(roomy.Capacity(), 26u);

  const RefString other = roomy;
  roomy.Append(roomy);
  EXPECT_STREQ(roomy.Text(), "hehehehe");
  EXPECT_STREQ(other.Text(), "hehe");

  RefString text("x", 1);
  text.Append("yz");
  text.Append(RefString("!", 1));
  text.Append(RefString());
  EXPECT_STREQ(text.Text(), "xyz!");
}

TEST(RefString, Equality) {
  const RefString abc("abc", 3);
  const RefString same_body = abc;
  EXPECT_TRUE(abc == same_body);
  EXPECT_TRUE(abc == RefString("abc", 3));
  EXPECT_FALSE(abc == RefString("abd", 3));
  EXPECT_FALSE(abc == RefString("ab", 2));
  EXPECT_FALSE(abc == RefString("abcd", 4));
  EXPECT_FALSE(abc == RefString());

  EXPECT_TRUE(RefString() == RefString());
  EXPECT_TRUE(RefString() == RefString("", 0));

  // Bytes after an embedded NUL still count; so does the length.
  EXPECT_TRUE(RefString("a\0b", 3) == RefString("a\0b", 3));
  EXPECT_FALSE(RefString("a\0b", 3) == RefString("a\0c", 3));
  EXPECT_FALSE(RefString("a\0b", 3) == RefString("a", 1));
}

TEST(RefString, HashMultipliesByNine) {
  EXPECT_EQ(RefString("", 0).Hash(), 0u);
  EXPECT_EQ(RefString("a", 1).Hash(), 97u);
  EXPECT_EQ(RefString("ab", 2).Hash(), 971u);     // 97 * 9 + 98
  EXPECT_EQ(RefString("abc", 3).Hash(), 8838u);   // 971 * 9 + 99
  EXPECT_EQ(RefString("a\0b", 3).Hash(), 7955u);  // (97 * 9 + 0) * 9 + 98
  // Bytes count as unsigned.
  EXPECT_EQ(RefString("\xff", 1).Hash(), 255u);
  EXPECT_EQ(RefString("\xff\xff", 2).Hash(), 2550u);  // 255 * 9 + 255
  // Eleven 0xff bytes: 255 * (9^11 - 1) / 8 = 1000271275005, modulo 2^32.
  EXPECT_EQ(Filled(11, '\xff').Hash(), 3838862333u);
}

}  // namespace

}  // namespace klv
