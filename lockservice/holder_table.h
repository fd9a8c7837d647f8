#ifndef KLV_LOCKSERVICE_HOLDER_TABLE_H_
#define KLV_LOCKSERVICE_HOLDER_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "lockservice/client_table.h"

namespace klv {

// Numbers the client keys that hold byte-range locks, so that a lock names its
// holder in a few bytes instead of the twenty of a client key. A number counts
// the locks that name it; once none does, it may be given to another key.
class HolderTable {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;
  // Numbers stay below this, so that a lock can keep one in 31 bits with a
  // value to spare.
  static constexpr uint32_t kLimit = (1u << 31) - 1;

  HolderTable() = default;
  HolderTable(const HolderTable&) = delete;
  HolderTable& operator=(const HolderTable&) = delete;

  // The number of `key`, new if no lock names it yet; counts one more lock.
  uint32_t Acquire(const ClientKey& key);
  // `count` locks naming holder `id` are gone.
  void Release(uint32_t id, uint32_t count = 1);
  // The number of `key`, or kNone when no lock names it.
  uint32_t Find(const ClientKey& key) const;
  const ClientKey& KeyOf(uint32_t id) const { return holders_[id].key; }
  // The locks counted for holder `id`.
  uint32_t LocksOf(uint32_t id) const { return holders_[id].locks; }
  // One past the largest number given so far.
  uint32_t End() const { return static_cast<uint32_t>(holders_.size()); }
  // Locks counted now, and at most since the last ResetPeak.
  uint64_t Held() const { return held_; }
  uint64_t Peak() const { return peak_; }
  void ResetPeak() { peak_ = held_; }

 private:
  struct Holder {
    ClientKey key;
    uint32_t locks = 0;
  };
  struct KeyHash {
    size_t operator()(const ClientKey& key) const;
  };

  // Frees the numbers of keys whose locks are all gone.
  void DropIdle();

  std::vector<Holder> holders_;
  std::vector<uint32_t> free_ids_;
  std::unordered_map<ClientKey, uint32_t, KeyHash> ids_;
  // Keys that hold no lock keep their number for a while, so that a client
  // taking and releasing one lock at a time does not renumber on every lock.
  uint32_t idle_ = 0;
  uint64_t held_ = 0;
  uint64_t peak_ = 0;
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_HOLDER_TABLE_H_
