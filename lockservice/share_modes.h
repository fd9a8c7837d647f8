#ifndef KLV_LOCKSERVICE_SHARE_MODES_H_
#define KLV_LOCKSERVICE_SHARE_MODES_H_

#include <cstdint>

#include "foundation/output_stream.h"
#include "lockservice/file_entry.h"

namespace klv {

// The open-mode word of REQ_OPEN: access in bits 0-3, deny in bits 4-6; the
// higher bits are ignored.
constexpr uint32_t kAccessBits = 0x0F;
constexpr uint32_t kDenyBits = 0x70;

// One enum, so that an access and a deny value combine with "|".
enum OpenModeBits : uint32_t {
  // Access.
  OPEN_READ = 0,
  OPEN_WRITE = 1,
  OPEN_READWRITE = 2,
  OPEN_EXECUTE = 3,  // shares like OPEN_READ, as do the unnamed values 4 to 14
  OPEN_MSDOS = 15,   // shares like OPEN_READWRITE
  // Deny.
  DENY_MSDOS = 0x00,
  DENY_READWRITE = 0x10,
  DENY_WRITE = 0x20,
  DENY_READ = 0x30,
  DENY_NONE = 0x40,  // so do the unnamed values 0x50, 0x60 and 0x70
};

// True when `new_open` may be granted beside `held`: the share table's cell
// at row index(held), column index(new), where a mode's index is its access
// class (read 0, write 5, read-write 10) plus its deny class (DENY_MSDOS 0,
// DENY_NONE 1, DENY_READ 2, DENY_WRITE 3, DENY_READWRITE 4).
bool ShareModesAgree(const OpenLock& new_open, const OpenLock& held);

// Writes the mode as the status report shows it: the access text (which ends
// in "|" for the named values only) directly followed by the deny text, as in
// "OPEN_READWRITE|DENY_WRITE" or "7(=READ)DENY_NONE".
void WriteOpenMode(OutputStream& out, uint32_t openmode);

}  // namespace klv

#endif  // KLV_LOCKSERVICE_SHARE_MODES_H_
