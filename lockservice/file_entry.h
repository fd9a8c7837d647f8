#ifndef KLV_LOCKSERVICE_FILE_ENTRY_H_
#define KLV_LOCKSERVICE_FILE_ENTRY_H_

#include <cstdint>
#include <vector>

#include "foundation/hash_set.h"
#include "foundation/ref_string.h"
#include "foundation/slot_vector.h"
#include "lockservice/client_table.h"

namespace klv {

// A file's identity as the server process sends it: two words that the daemon
// never interprets.
struct FileKey {
  uint32_t hi = 0;
  uint32_t lo = 0;

  bool operator==(const FileKey& other) const { return hi == other.hi && lo == other.lo; }
};

// One granted open: who holds it, in which access and deny mode, under which
// clientfid.
struct OpenLock {
  ClientKey client;
  uint32_t openmode = 0;  // the request's word as sent
  uint32_t clientfid = 0;
};

// An opportunistic lock. The list is packed on removal, so waits name an
// oplock by its id, a serial number the daemon gives at the grant.
struct OpLock {
  ClientKey client;
  uint32_t type = 0;  // the request's oplockwanted word as sent
  uint32_t clientfid = 0;
  std::vector<uint32_t> waits;  // ids of the waits this oplock's break holds up
  uint32_t id = 0;
};

// A locked byte range [offset, offset + length), the end wrapping modulo 2^32.
struct RecordLock {
  ClientKey client;
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t clientfid = 0;
  uint32_t shared = 0;  // 1 for a shared (read) lock, 0 for an exclusive one
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

// Everything the daemon holds about one file. The file table owns the entry;
// the entry owns its three lock lists, each in the order of its grants.
struct FileEntry {
  explicit FileEntry(const FileKey& file_key) : key(file_key) {}
  FileEntry(const FileEntry&) = delete;
  FileEntry& operator=(const FileEntry&) = delete;

  // No open, no oplock and no byte range: the sweep may delete the entry.
  bool IsIdle() const { return opens.IsEmpty() && oplocks.IsEmpty() && ranges.IsEmpty(); }

  FileKey key;
  RefString path;  // from the last granted open that carried one
  SlotVector<OpLock> oplocks;
  SlotVector<OpenLock> opens;
  SlotVector<RecordLock> ranges;
};

// Bucket by the XOR of the two words.
struct FileTraits {
  using Key = FileKey;
  static Key KeyOf(const FileEntry& entry) { return entry.key; }
  static uint32_t Hash(const Key& key) { return key.hi ^ key.lo; }
  static bool Equal(const Key& a, const Key& b) { return a == b; }
  static bool IsIdle(const FileEntry& entry) { return entry.IsIdle(); }
};

using FileTable = HashSet<FileEntry, FileTraits>;

// Removes every record of `list` for which `matches` holds; the others keep
// their order.
template <typename Lock, typename Predicate>
void RemoveMatching(SlotVector<Lock>* list, Predicate matches) {
  uint32_t slot = 0;
  while (slot < list->Count()) {
    if (matches((*list)[slot])) {
      list->RemoveAt(slot);
    } else {
      ++slot;
    }
  }
}

}  // namespace klv

#endif  // KLV_LOCKSERVICE_FILE_ENTRY_H_
