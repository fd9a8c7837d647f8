#ifndef KLV_LOCKSERVICE_SHARE_MODES_H_
#define KLV_LOCKSERVICE_SHARE_MODES_H_

#include <cstdint>

#include "foundation/output_stream.h"
#include "lockservice/file_entry.h"
#include "protocol/open_modes.h"

namespace klv {

// True when `new_open` may be granted beside `held`: the share table's cell
// at row ShareIndex(held), column ShareIndex(new).
bool ShareModesAgree(const OpenLock& new_open, const OpenLock& held);

// The same for two share classes (ShareIndex values).
bool ShareClassesAgree(int held_class, int new_class);

// True when `candidate` agrees with every open of the file, checked in list
// order; the requester's own opens are checked like any other.
bool AgreesWithOpens(const FileEntry& file, const OpenLock& candidate);

// Writes the mode as the status report shows it: the access text (which ends
// in "|" for the named values only) directly followed by the deny text, as in
// "OPEN_READWRITE|DENY_WRITE" or "7(=READ)DENY_NONE".
void WriteOpenMode(OutputStream& out, uint32_t openmode);

}  // namespace klv

#endif  // KLV_LOCKSERVICE_SHARE_MODES_H_
