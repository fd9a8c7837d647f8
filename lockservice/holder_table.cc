#include "lockservice/holder_table.h"

#include <cassert>
#include <cstring>

namespace klv {

namespace {

// Idle numbers are freed once there are this many and more than in use.
constexpr uint32_t kIdleLimit = 4096;

}  // namespace

// The address as two words and the session, mixed by multiplication.
size_t HolderTable::KeyHash::operator()(const ClientKey& key) const {
  uint64_t words[2];
  static_assert(sizeof words == kAddressSize);
  memcpy(words, key.address, sizeof words);
  const uint64_t hash = (words[0] * 0x9E3779B97F4A7C15ull) ^ (words[1] * 0xC2B2AE3D27D4EB4Full) ^
                        (uint64_t{key.session} * 0x165667B19E3779F9ull);
  return static_cast<size_t>(hash ^ (hash >> 29));
}

uint32_t HolderTable::Acquire(const ClientKey& key) {
  if (++held_ > peak_) peak_ = held_;
  const auto [found, added] = ids_.try_emplace(key, kNone);
  if (!added) {
    Holder& holder = holders_[found->second];
    if (holder.locks++ == 0) --idle_;
    return found->second;
  }
  uint32_t id = static_cast<uint32_t>(holders_.size());
  if (free_ids_.empty()) {
    holders_.push_back(Holder{key, 1});
  } else {
    id = free_ids_.back();
    free_ids_.pop_back();
    holders_[id] = Holder{key, 1};
  }
  assert(id < kLimit);
  found->second = id;
  return id;
}

void HolderTable::Release(uint32_t id, uint32_t count) {
  if (count == 0) return;
  Holder& holder = holders_[id];
  assert(holder.locks >= count);
  holder.locks -= count;
  held_ -= count;
  if (holder.locks > 0) return;
  ++idle_;
  if (idle_ >= kIdleLimit && idle_ > ids_.size() - idle_) DropIdle();
}

uint32_t HolderTable::Find(const ClientKey& key) const {
  const auto found = ids_.find(key);
  if (found == ids_.end() || holders_[found->second].locks == 0) return kNone;
  return found->second;
}

void HolderTable::DropIdle() {
  for (auto it = ids_.begin(); it != ids_.end();) {
    if (holders_[it->second].locks == 0) {
      free_ids_.push_back(it->second);
      it = ids_.erase(it);
    } else {
      ++it;
    }
  }
  idle_ = 0;
}

}  // namespace klv
