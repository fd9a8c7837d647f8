#include "foundation/bit_set.h"

#include <cstdlib>
#include <cstring>

namespace klv {

namespace {

constexpr uint32_t kWordBits = 32;

// select reads its sets as arrays of longs: an odd word count still gets the
// whole last long, kept zero.
size_t AllocatedWords(uint32_t word_count) { return (word_count + 1) / 2 * 2; }

uint32_t WordOf(uint32_t bit) { return bit / kWordBits; }
uint32_t MaskOf(uint32_t bit) { return uint32_t{1} << (bit % kWordBits); }

}  // namespace

BitSet::BitSet(uint32_t bits) { Resize((bits + kWordBits) / kWordBits + 1); }

BitSet::~BitSet() { std::free(words_); }

void BitSet::Set(uint32_t bit) {
  if (WordOf(bit) >= word_count_) Resize((bit + kWordBits) / kWordBits + 3);
  words_[WordOf(bit)] |= MaskOf(bit);
}

void BitSet::Clear(uint32_t bit) {
  if (WordOf(bit) >= word_count_) Resize((bit + kWordBits) / kWordBits + 3);
  words_[WordOf(bit)] &= ~MaskOf(bit);
}

bool BitSet::Test(uint32_t bit) const {
  if (WordOf(bit) >= word_count_) return false;
  return (words_[WordOf(bit)] & MaskOf(bit)) != 0;
}

void BitSet::CopyFrom(const BitSet& other) {
  if (word_count_ < other.word_count_) Resize(other.word_count_);
  std::memcpy(words_, other.words_, other.word_count_ * sizeof(uint32_t));
  if (word_count_ == other.word_count_) return;
  std::memset(words_ + other.word_count_, 0, (word_count_ - other.word_count_) * sizeof(uint32_t));
}

// The new words, and the spare half of the last long, start zero.
void BitSet::Resize(uint32_t word_count) {
  const size_t old_allocated = words_ == nullptr ? 0 : AllocatedWords(word_count_);
  const size_t allocated = AllocatedWords(word_count);
  words_ = static_cast<uint32_t*>(std::realloc(words_, allocated * sizeof(uint32_t)));
  std::memset(words_ + old_allocated, 0, (allocated - old_allocated) * sizeof(uint32_t));
  word_count_ = word_count;
}

}  // namespace klv
