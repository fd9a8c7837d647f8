#ifndef KLV_LOCKSERVICE_RANGE_LIST_H_
#define KLV_LOCKSERVICE_RANGE_LIST_H_

#include <cstdint>
#include <memory>

#include "foundation/slot_vector.h"
#include "lockservice/range_index.h"
#include "lockservice/record_lock.h"

namespace klv {

// The byte-range locks of one file in the order of their grants. A short list
// is walked; once a file holds many ranges the list keeps a RangeIndex beside
// it, so that neither the conflict check nor an unlock walks them all. While
// indexed, an unlock leaves a gap (its slot marked removed) rather than moving
// every later lock; the gaps are closed once they outnumber the locks.
class RangeList {
 public:
  RangeList() = default;
  RangeList(const RangeList&) = delete;
  RangeList& operator=(const RangeList&) = delete;

  uint32_t Count() const { return locks_.Count() - removed_; }
  bool IsEmpty() const { return Count() == 0; }

  // True when `candidate` conflicts with a held lock (RangesConflict).
  bool Conflicts(const RecordLock& candidate) const;
  // Adds a granted lock behind the others.
  void Append(const RecordLock& lock);
  // Removes the first lock, in grant order, with the offset, length, holder
  // and clientfid of `wanted` (the shared mark is not compared). False when
  // there is none.
  bool RemoveFirst(const RecordLock& wanted);
  // Removes every lock for which `matches` holds; the others keep their
  // order. Returns how many went.
  template <typename Predicate>
  uint32_t RemoveWhere(Predicate matches);
  // Calls `visit` with each lock in grant order.
  template <typename Visitor>
  void ForEach(Visitor visit) const;

 private:
  // The holder number that marks a removed slot.
  static constexpr uint32_t kRemoved = (1u << 31) - 1;

  static bool IsRemoved(const RecordLock& lock) { return lock.holder == kRemoved; }
  // Closes the gaps, then indexes the list when it is long, or drops the
  // index when it is short.
  void Reorganize();

  SlotVector<RecordLock> locks_;
  std::unique_ptr<RangeIndex> index_;  // only for a long list
  uint32_t removed_ = 0;               // gaps, only while indexed
};

template <typename Predicate>
uint32_t RangeList::RemoveWhere(Predicate matches) {
  const uint32_t before = Count();
  const uint32_t gone = locks_.RemoveWhere(
      [&matches](const RecordLock& lock) { return IsRemoved(lock) || matches(lock); });
  removed_ = 0;
  if (index_ != nullptr && gone > 0) Reorganize();
  return before - locks_.Count();
}

template <typename Visitor>
void RangeList::ForEach(Visitor visit) const {
  for (const RecordLock& lock : locks_) {
    if (!IsRemoved(lock)) visit(lock);
  }
}

}  // namespace klv

#endif  // KLV_LOCKSERVICE_RANGE_LIST_H_
