#include "lockservice/range_list.h"

namespace klv {

namespace {

// A list longer than this is indexed; one that falls to half of it is walked
// again.
constexpr uint32_t kIndexFrom = 64;

}  // namespace

bool RangeList::Conflicts(const RecordLock& candidate) const {
  if (index_ != nullptr) return index_->Conflicts(candidate);
  for (const RecordLock& held : locks_) {
    if (RangesConflict(candidate, held)) return true;
  }
  return false;
}

void RangeList::Append(const RecordLock& lock) {
  locks_.Append(lock);
  if (index_ != nullptr) {
    index_->Insert(locks_.Count() - 1);
  } else if (locks_.Count() > kIndexFrom) {
    Reorganize();
  }
}

bool RangeList::RemoveFirst(const RecordLock& wanted) {
  const auto same = [&wanted](const RecordLock& lock) {
    return lock.offset == wanted.offset && lock.length == wanted.length &&
           lock.holder == wanted.holder && lock.clientfid == wanted.clientfid;
  };
  if (index_ == nullptr) {
    for (uint32_t slot = 0; slot < locks_.Count(); ++slot) {
      if (!same(locks_[slot])) continue;
      locks_.RemoveAt(slot);
      return true;
    }
    return false;
  }
  // Slots are in grant order, so the smallest matching slot is the first.
  const uint32_t slot = index_->FindAt(wanted.offset, same);
  if (slot == RangeIndex::kNone) return false;
  index_->Erase(slot);
  locks_[slot].holder = kRemoved;
  ++removed_;
  if (removed_ > Count() || Count() <= kIndexFrom / 4) Reorganize();
  return true;
}

void RangeList::Reorganize() {
  if (removed_ > 0) locks_.RemoveWhere(IsRemoved);
  removed_ = 0;
  index_.reset();
  if (locks_.Count() <= kIndexFrom / 2) return;
  index_ = std::make_unique<RangeIndex>(&locks_);
  for (uint32_t slot = 0; slot < locks_.Count(); ++slot) index_->Insert(slot);
}

}  // namespace klv
