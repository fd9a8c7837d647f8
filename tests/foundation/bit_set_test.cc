#include "foundation/bit_set.h"

#include <gtest/gtest.h>

namespace klv {

namespace {

// True when words `from` to WordCount() - 1 are all zero.
bool ZeroFrom(const BitSet& bits, uint32_t from) {
  for (uint32_t word = from; word < bits.WordCount(); ++word) {
    if (bits.Words()[word] != 0) return false;
  }
  return true;
}

TEST(BitSet, SizeAtConstruction) {
  struct Case {
    uint32_t bits;
    uint32_t words;  // (bits + 32) / 32 + 1
  };
  const Case cases[] = {{0, 2}, {31, 2}, {32, 3}, {63, 3}, {64, 4}, {256, 10}, {1000, 33}};
  for (const Case& c : cases) {
    const BitSet bits(c.bits);
    EXPECT_EQ(bits.WordCount(), c.words) << "built for " << c.bits;
    EXPECT_TRUE(ZeroFrom(bits, 0)) << "built for " << c.bits;
  }
}

TEST(BitSet, BitsLiveLeastSignificantFirst) {
  BitSet bits(256);
  bits.Set(0);
  bits.Set(31);
  bits.Set(33);
  bits.Set(255);
  EXPECT_EQ(bits.Words()[0], 0x80000001u);
  EXPECT_EQ(bits.Words()[1], 0x00000002u);
  EXPECT_EQ(bits.Words()[7], 0x80000000u);
  EXPECT_TRUE(bits.Test(31));
  EXPECT_FALSE(bits.Test(30));
  EXPECT_FALSE(bits.Test(32));

  bits.Clear(31);
  bits.Clear(30);  // already clear
  EXPECT_EQ(bits.Words()[0], 0x00000001u);
  EXPECT_EQ(bits.WordCount(), 10u);
}

TEST(BitSet, SetBeyondLastWordGrowsByThreeSpareWords) {
  BitSet bits(256);
  bits.Set(5);
  bits.Set(319);  // word 9: the last one, no growth
  ASSERT_EQ(bits.WordCount(), 10u);

  bits.Set(320);  // word 10: (320 + 32) / 32 + 3 = 14 words
  EXPECT_EQ(bits.WordCount(), 14u);
  EXPECT_EQ(bits.Words()[0], 0x20u);
  EXPECT_EQ(bits.Words()[9], 0x80000000u);
  EXPECT_EQ(bits.Words()[10], 0x1u);
  EXPECT_TRUE(ZeroFrom(bits, 11));

  bits.Set(447);  // word 13: still inside
  EXPECT_EQ(bits.WordCount(), 14u);
  bits.Set(448);  // word 14: (448 + 32) / 32 + 3 = 18
  EXPECT_EQ(bits.WordCount(), 18u);
  EXPECT_EQ(bits.Words()[13], 0x80000000u);
  EXPECT_EQ(bits.Words()[14], 0x1u);
  EXPECT_TRUE(ZeroFrom(bits, 15));
}

TEST(BitSet, ClearBeyondLastWordGrowsToo) {
  BitSet bits(0);
  bits.Set(1);
  bits.Clear(1000);  // (1000 + 32) / 32 + 3 = 35 words, all zero but word 0
  EXPECT_EQ(bits.WordCount(), 35u);
  EXPECT_EQ(bits.Words()[0], 0x2u);
  EXPECT_TRUE(ZeroFrom(bits, 1));
  EXPECT_FALSE(bits.Test(1000));
}

TEST(BitSet, TestBeyondLastWordIsFalseAndDoesNotGrow) {
  const BitSet bits(256);
  EXPECT_FALSE(bits.Test(320));
  EXPECT_FALSE(bits.Test(0xffffffffu));
  EXPECT_EQ(bits.WordCount(), 10u);
}

TEST(BitSet, GrowthKeepsEveryBitAlreadySet) {
  BitSet bits(0);
  // Every third bit up to 2000, set in rising order so that the set grows
  // many times on the way.
  for (uint32_t bit = 0; bit < 2000; bit += 3) bits.Set(bit);
  // The last growth is for bit 1986, the first set in word 62: (1986 + 32) / 32 + 3.
  EXPECT_EQ(bits.WordCount(), 66u);
  for (uint32_t bit = 0; bit < 2100; ++bit) {
    ASSERT_EQ(bits.Test(bit), bit % 3 == 0 && bit < 2000) << "bit " << bit;
  }
}

}  // namespace

}  // namespace klv
