#ifndef KLV_FOUNDATION_BIT_SET_H_
#define KLV_FOUNDATION_BIT_SET_H_

#include <sys/select.h>

#include <cstdint>

namespace klv {

// A growable set of bits laid out as the word array that select takes:
// 32-bit words, bit i in word i / 32 at position i % 32, least significant
// bit first. Built for n bits it holds ((n + 32) / 32) + 1 zero words; setting
// or clearing a bit beyond the last word grows it to ((i + 32) / 32) + 3
// words, the new ones zero. The slot vectors mark their used slots in one, the
// event loop its descriptors.
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
  // Copies `other` into this set, growing only when this one is smaller; a
  // larger set keeps its size, its words past those of `other` cleared.
  void CopyFrom(const BitSet& other);

  uint32_t WordCount() const { return word_count_; }
  // The words as select's set argument, WordCount() * 32 bits of it.
  fd_set* AsFdSet() { return reinterpret_cast<fd_set*>(words_); }

 private:
  void Resize(uint32_t word_count);

  uint32_t word_count_ = 0;
  uint32_t* words_ = nullptr;  // calloc, grown with realloc
};

}  // namespace klv

#endif  // KLV_FOUNDATION_BIT_SET_H_
