#ifndef KLV_LOCKSERVICE_FILE_ENTRY_H_
#define KLV_LOCKSERVICE_FILE_ENTRY_H_

#include <cstdint>
#include <vector>

#include "foundation/hash_set.h"
#include "foundation/ref_string.h"
#include "foundation/slot_vector.h"
#include "lockservice/client_table.h"
#include "lockservice/range_list.h"

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
  RangeList ranges;
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

}  // namespace klv

#endif  // KLV_LOCKSERVICE_FILE_ENTRY_H_
