#include "foundation/descriptor_set.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

namespace klv {

namespace {

constexpr uint32_t kWordBits = 32;

// select reads its sets as arrays of longs: an odd word count still gets the
// whole last long, kept zero.
size_t AllocatedWords(uint32_t word_count) { return (word_count + 1) / 2 * 2; }

uint32_t WordOf(int fd) { return static_cast<uint32_t>(fd) / kWordBits; }
uint32_t MaskOf(int fd) { return uint32_t{1} << (static_cast<uint32_t>(fd) % kWordBits); }

}  // namespace

DescriptorSet::DescriptorSet(uint32_t capacity) {
  word_count_ = (capacity + kWordBits) / kWordBits + 1;
  words_ = static_cast<uint32_t*>(std::calloc(AllocatedWords(word_count_), sizeof(uint32_t)));
}

DescriptorSet::~DescriptorSet() { std::free(words_); }

void DescriptorSet::Set(int fd) {
  assert(fd >= 0);
  if (WordOf(fd) >= word_count_) Resize((static_cast<uint32_t>(fd) + kWordBits) / kWordBits + 3);
  words_[WordOf(fd)] |= MaskOf(fd);
}

void DescriptorSet::Clear(int fd) {
  assert(fd >= 0);
  if (WordOf(fd) < word_count_) words_[WordOf(fd)] &= ~MaskOf(fd);
}

bool DescriptorSet::IsSet(int fd) const {
  if (fd < 0 || WordOf(fd) >= word_count_) return false;
  return (words_[WordOf(fd)] & MaskOf(fd)) != 0;
}

void DescriptorSet::CopyFrom(const DescriptorSet& other) {
  if (word_count_ < other.word_count_) Resize(other.word_count_);
  std::memcpy(words_, other.words_, other.word_count_ * sizeof(uint32_t));
  // A larger target keeps its size; its words past the copy must not keep
  // descriptors of its own.
  std::memset(words_ + other.word_count_, 0, (word_count_ - other.word_count_) * sizeof(uint32_t));
}

void DescriptorSet::Resize(uint32_t word_count) {
  const size_t old_allocated = AllocatedWords(word_count_);
  const size_t allocated = AllocatedWords(word_count);
  words_ = static_cast<uint32_t*>(std::realloc(words_, allocated * sizeof(uint32_t)));
  if (allocated > old_allocated) {
    std::memset(words_ + old_allocated, 0, (allocated - old_allocated) * sizeof(uint32_t));
  }
  word_count_ = word_count;
}

}  // namespace klv
