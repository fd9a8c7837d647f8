#ifndef KLV_LOCKSERVICE_RECORD_LOCK_H_
#define KLV_LOCKSERVICE_RECORD_LOCK_H_

#include <cstdint>

namespace klv {

// A locked byte range [offset, offset + length), the end wrapping modulo 2^32.
// The client that holds it is named by its number in the HolderTable.
struct RecordLock {
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t clientfid = 0;
  uint32_t holder : 31 = 0;
  uint32_t shared : 1 = 0;  // 1 for a shared (read) lock, 0 for an exclusive one
};

// True when the two ranges share a byte: with low the larger offset and high
// the smaller end, both in wrapping 32-bit arithmetic, when high > low. A
// range whose end wraps past zero therefore overlaps nothing.
inline bool RangesOverlap(const RecordLock& candidate, const RecordLock& held) {
  const uint32_t low = candidate.offset > held.offset ? candidate.offset : held.offset;
  const uint32_t candidate_end = candidate.offset + candidate.length;
  const uint32_t held_end = held.offset + held.length;
  const uint32_t high = candidate_end < held_end ? candidate_end : held_end;
  return high > low;
}

// True when `candidate` may not be granted beside `held`: their ranges
// overlap and they are not both shared. A client's own locks count too.
inline bool RangesConflict(const RecordLock& candidate, const RecordLock& held) {
  return RangesOverlap(candidate, held) && !(candidate.shared && held.shared);
}

// The end of the range when it lies above the offset, else 0. Two ranges
// overlap exactly when each one's offset lies below the other's reach, since
// a range that reaches 0 (a zero length, or an end that wraps) overlaps
// nothing.
inline uint32_t ReachOf(const RecordLock& lock) {
  const uint32_t end = lock.offset + lock.length;
  return end > lock.offset ? end : 0;
}

}  // namespace klv

#endif  // KLV_LOCKSERVICE_RECORD_LOCK_H_
