#ifndef KLV_LOCKSERVICE_RANGE_INDEX_H_
#define KLV_LOCKSERVICE_RANGE_INDEX_H_

#include <cstdint>
#include <vector>

#include "foundation/slot_vector.h"
#include "lockservice/record_lock.h"

namespace klv {

// An ordered index over the byte-range locks of one file: a treap of their
// slots, ordered by (offset, slot), in which every node keeps the largest end
// below it, of all ranges and of the exclusive ones alone. A conflict check
// then follows one path from the root instead of walking every range, and an
// unlock finds the ranges at its offset directly.
//
// A range whose end does not lie above its offset (a zero length, or an end
// that wraps past 2^32) overlaps nothing and counts with an end of 0.
class RangeIndex {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  // Indexes slots of `locks`, which must outlive the index; the caller adds
  // the slots with Insert.
  explicit RangeIndex(const SlotVector<RecordLock>* locks) : locks_(locks) {}
  RangeIndex(const RangeIndex&) = delete;
  RangeIndex& operator=(const RangeIndex&) = delete;

  // Adds the lock in `slot`; its offset and kind must not change while it is
  // indexed.
  void Insert(uint32_t slot);
  // Takes the lock in `slot` out of the index.
  void Erase(uint32_t slot);
  // True when an indexed lock conflicts with `candidate` (RangesConflict).
  bool Conflicts(const RecordLock& candidate) const;
  // The smallest indexed slot whose lock starts at `offset` and satisfies
  // `matches`; kNone when there is none.
  template <typename Predicate>
  uint32_t FindAt(uint32_t offset, Predicate matches) const {
    return FindAt(root_, offset, matches);
  }

 private:
  struct Node {
    uint32_t left = kNone;
    uint32_t right = kNone;
    uint32_t max_end = 0;            // of every range in the subtree
    uint32_t max_exclusive_end = 0;  // of the exclusive ranges in the subtree
  };

  const RecordLock& Lock(uint32_t slot) const { return (*locks_)[slot]; }
  // Ordered by offset, then by slot.
  bool Before(uint32_t a, uint32_t b) const;
  // Recomputes the node's maxima from its own range and its children.
  void Update(uint32_t slot);
  // Splits `tree` into the nodes before `slot` and the others.
  void Split(uint32_t tree, uint32_t slot, uint32_t* before, uint32_t* after);
  // Joins two trees whose every node of `before` comes before those of `after`.
  uint32_t Merge(uint32_t before, uint32_t after);
  uint32_t Insert(uint32_t tree, uint32_t slot);
  uint32_t Erase(uint32_t tree, uint32_t slot);
  template <typename Predicate>
  uint32_t FindAt(uint32_t tree, uint32_t offset, Predicate& matches) const;

  const SlotVector<RecordLock>* locks_;
  std::vector<Node> nodes_;  // nodes_[slot] for the lock in that slot
  uint32_t root_ = kNone;
};

template <typename Predicate>
uint32_t RangeIndex::FindAt(uint32_t tree, uint32_t offset, Predicate& matches) const {
  if (tree == kNone) return kNone;
  const uint32_t start = Lock(tree).offset;
  if (start > offset) return FindAt(nodes_[tree].left, offset, matches);
  if (start < offset) return FindAt(nodes_[tree].right, offset, matches);
  const uint32_t earlier = FindAt(nodes_[tree].left, offset, matches);
  if (earlier != kNone) return earlier;
  if (matches(Lock(tree))) return tree;
  return FindAt(nodes_[tree].right, offset, matches);
}

}  // namespace klv

#endif  // KLV_LOCKSERVICE_RANGE_INDEX_H_
