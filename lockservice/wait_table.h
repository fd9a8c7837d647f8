#ifndef KLV_LOCKSERVICE_WAIT_TABLE_H_
#define KLV_LOCKSERVICE_WAIT_TABLE_H_

#include <cstdint>
#include <vector>

#include "foundation/hash_set.h"
#include "lockservice/client_table.h"
#include "lockservice/file_entry.h"

namespace klv {

// One open that met oplocks and was told to wait. It names its file by key,
// not by pointer, because the sweep may delete an idle file entry while the
// wait is still listed, and its holders by oplock id, because oplock records
// move when their list is packed. The wait table owns the entry.
struct WaitEntry {
  uint32_t id = 0;
  ClientKey client;               // the waiting requester
  FileKey file;                   // the file of its open
  std::vector<uint32_t> holders;  // ids of the oplocks it still waits for
};

// Keyed and bucketed by the wait id itself.
struct WaitTraits {
  using Key = uint32_t;
  static Key KeyOf(const WaitEntry& entry) { return entry.id; }
  static uint32_t Hash(Key id) { return id; }
  static bool Equal(Key a, Key b) { return a == b; }
};

using WaitTable = HashSet<WaitEntry, WaitTraits>;

}  // namespace klv

#endif  // KLV_LOCKSERVICE_WAIT_TABLE_H_
