#ifndef KLV_PROTOCOL_REPORT_LAYOUT_H_
#define KLV_PROTOCOL_REPORT_LAYOUT_H_

// The status report that the daemon writes on its TCP port and closes the
// connection after, in this order:
//   time stamp (23 characters) " " kDaemonName " " kFullVersion "\n\n"
//   kClientSection
//   kClientHeading and one line per client, neither when there is no client:
//     kIndent, name field, " ", state text, session, kAddressGap, address ":" port
//   kFileSection
//   per file that holds a lock: "[" hi "," lo "] " path "\n", then for each
//     non-empty list its heading and one row per lock (kRowIndent, name
//     field, " ", clientfid, " ", the list's fields), then "\n"
//   the totals: kFilesLabel files kUsedLabel used kOpenLocksLabel opens
//     kRecordLocksLabel ranges kOplocksLabel oplocks "\n"
// A name field is the holder's name cut or padded with blanks to kNameWidth.
// Numbers are unsigned decimals without padding.

#include <cstddef>
#include <cstdint>

#include "protocol/open_modes.h"

namespace klv::report {

constexpr size_t kTimeStampWidth = 23;  // "2024/05/17 14:03:07.412"
constexpr size_t kNameWidth = 15;
inline constexpr char kIndent[] = "  ";
inline constexpr char kRowIndent[] = "    ";
inline constexpr char kClientSection[] = "== Client information\n";
inline constexpr char kClientHeading[] = "  Name            State SessionId   Address\n";
// Both exactly 9 characters.
inline constexpr char kStateOk[] = "  OK     ";
inline constexpr char kStateWait[] = " WAIT    ";
inline constexpr char kAddressGap[] = "    ";
inline constexpr char kFileSection[] = "\n== File lock information\n";
// Rows: clientfid, open mode as text.
inline constexpr char kOpenLocksHeading[] = "  Open locks: [clientfid type]\n";
// Rows: clientfid, type.
inline constexpr char kOplocksHeading[] = "  Op locks: [clientfid type]\n";
// Rows: clientfid, type (1 shared, 0 exclusive), offset, length.
inline constexpr char kRecordLocksHeading[] = "  Record locks: [clientfid type offset length]\n";
inline constexpr char kFilesLabel[] = "\nFiles: ";
inline constexpr char kUsedLabel[] = " Used: ";
inline constexpr char kOpenLocksLabel[] = " OpenLocks: ";
inline constexpr char kRecordLocksLabel[] = " RecordLocks: ";
inline constexpr char kOplocksLabel[] = " OpLocks: ";

// An open mode reads as its access text directly followed by its deny text,
// as in "OPEN_READWRITE|DENY_WRITE". Values without a name read as the
// number followed by kUnnamedAccess (with no "|") or kUnnamedDeny.
inline constexpr char kUnnamedAccess[] = "(=READ)";
inline constexpr char kUnnamedDeny[] = "(=DENY_NONE)";

// The text of the access value `access` (mode & kAccessBits), or nullptr when
// it has no name.
constexpr const char* AccessText(uint32_t access) {
  switch (access) {
    case OPEN_READ:
      return "OPEN_READ|";
    case OPEN_WRITE:
      return "OPEN_WRITE|";
    case OPEN_READWRITE:
      return "OPEN_READWRITE|";
    case OPEN_EXECUTE:
      return "OPEN_EXECUTE(=READ)|";
    case OPEN_MSDOS:
      return "OPEN_MSDOS(=READWRITE)|";
    default:
      return nullptr;
  }
}

// The text of the deny value `deny` (mode & kDenyBits), or nullptr when it
// has no name.
constexpr const char* DenyText(uint32_t deny) {
  switch (deny) {
    case DENY_MSDOS:
      return "DENY_MSDOS";
    case DENY_READWRITE:
      return "DENY_READWRITE";
    case DENY_WRITE:
      return "DENY_WRITE";
    case DENY_READ:
      return "DENY_READ";
    case DENY_NONE:
      return "DENY_NONE";
    default:
      return nullptr;
  }
}

}  // namespace klv::report

#endif  // KLV_PROTOCOL_REPORT_LAYOUT_H_
