#ifndef KLV_FOUNDATION_DESCRIPTOR_SET_H_
#define KLV_FOUNDATION_DESCRIPTOR_SET_H_

#include <sys/select.h>

#include <cstdint>

namespace klv {

// A growable set of descriptors laid out as the bit array that select takes:
// 32-bit words, descriptor d in word d / 32 at bit d % 32. Built for a
// capacity n it has ((n + 32) / 32) + 1 words; setting a descriptor beyond the
// last word grows it to ((d + 32) / 32) + 3 words, the new ones zero. The
// allocation is rounded up to whole 64-bit words so that select, which reads
// the array as longs, never reads past it.
class DescriptorSet {
 public:
  explicit DescriptorSet(uint32_t capacity);
  ~DescriptorSet();
  DescriptorSet(const DescriptorSet&) = delete;
  DescriptorSet& operator=(const DescriptorSet&) = delete;

  void Set(int fd);
  void Clear(int fd);
  // False for a descriptor beyond the set's size.
  bool IsSet(int fd) const;
  // Copies `other` into this set, reallocating only when this one is smaller.
  // A larger set keeps its size, its words past those of `other` cleared.
  void CopyFrom(const DescriptorSet& other);

  uint32_t WordCount() const { return word_count_; }
  // The words, WordCount() of them.
  const uint32_t* Words() const { return words_; }
  // The first argument of select: WordCount() * 32.
  int SelectCount() const { return static_cast<int>(word_count_ * 32); }
  // The words as select's set argument.
  fd_set* AsFdSet() { return reinterpret_cast<fd_set*>(words_); }

 private:
  void Resize(uint32_t word_count);

  uint32_t word_count_ = 0;
  uint32_t* words_ = nullptr;  // calloc, grown with realloc
};

}  // namespace klv

#endif  // KLV_FOUNDATION_DESCRIPTOR_SET_H_
