#ifndef KLV_FOUNDATION_BIT_SET_H_
#define KLV_FOUNDATION_BIT_SET_H_

#include <cstdint>

namespace klv {

// A growable set of bits in 32-bit words: bit i lives in word i / 32 at
// position i % 32, least significant bit first. Built for n bits it holds
// ((n + 32) / 32) + 1 zero words; setting or clearing a bit beyond the last
// word grows it to ((i + 32) / 32) + 3 words, the new ones zero.
class BitSet {
 public:
  explicit BitSet(uint32_t bits);
  ~BitSet();
  BitSet(const BitSet&) = delete;
  BitSet& operator=(const BitSet&) = delete;

  void Set(uint32_t bit);
  void Clear(uint32_t bit);
  // False for a bit beyond the last word.
  bool Test(uint32_t bit) const;
  uint32_t WordCount() const { return word_count_; }
  const uint32_t* Words() const { return words_; }

 private:
  void GrowFor(uint32_t bit);

  uint32_t word_count_;
  uint32_t* words_;  // calloc, grown with realloc
};

}  // namespace klv

#endif  // KLV_FOUNDATION_BIT_SET_H_
