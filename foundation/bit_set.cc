#include "foundation/bit_set.h"

#include <cstdlib>
#include <cstring>

namespace klv {

namespace {

constexpr uint32_t kWordBits = 32;

uint32_t WordOf(uint32_t bit) { return bit / kWordBits; }
uint32_t MaskOf(uint32_t bit) { return uint32_t{1} << (bit % kWordBits); }

}  // namespace

BitSet::BitSet(uint32_t bits)
    : word_count_((bits + kWordBits) / kWordBits + 1),
      words_(static_cast<uint32_t*>(std::calloc(word_count_, sizeof(uint32_t)))) {}

BitSet::~BitSet() { std::free(words_); }

void BitSet::Set(uint32_t bit) {
  if (WordOf(bit) >= word_count_) GrowFor(bit);
  words_[WordOf(bit)] |= MaskOf(bit);
}

void BitSet::Clear(uint32_t bit) {
  if (WordOf(bit) >= word_count_) GrowFor(bit);
  words_[WordOf(bit)] &= ~MaskOf(bit);
}

bool BitSet::Test(uint32_t bit) const {
  if (WordOf(bit) >= word_count_) return false;
  return (words_[WordOf(bit)] & MaskOf(bit)) != 0;
}

void BitSet::GrowFor(uint32_t bit) {
  // Three spare words past the one needed leave room for about a hundred more
  // bits before the next realloc.
  const uint32_t new_count = (bit + kWordBits) / kWordBits + 3;
  words_ = static_cast<uint32_t*>(std::realloc(words_, new_count * sizeof(uint32_t)));
  std::memset(words_ + word_count_, 0, (new_count - word_count_) * sizeof(uint32_t));
  word_count_ = new_count;
}

}  // namespace klv
