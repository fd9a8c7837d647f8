#ifndef KLV_TOOLS_LOCKINFO_REPORT_WRITERS_H_
#define KLV_TOOLS_LOCKINFO_REPORT_WRITERS_H_

#include <string>
#include <string_view>

#include "tools/lockinfo/report_parser.h"

namespace klv {

// The report as one JSON object, ending with a newline:
//   {"time": ..., "version": ..., "clients": [{"name", "state", "session", "address",
//    "port"}...], "files": [{"key_hi", "key_lo", "path", "opens": [{"holder", "clientfid",
//    "mode"}...], "oplocks": [{"holder", "clientfid", "type"}...], "record_locks":
//    [{"holder", "clientfid", "type", "offset", "length"}...]}...], "totals": {"files",
//    "used", "open_locks", "record_locks", "oplocks"}}
// Bytes of names and paths are read as ISO 8859-1, as the daemon reads them.
// An ambiguous stretch adds "ambiguous": [{"first_line", "last_line", "text"}].
std::string ReportJson(const StatusReport& report);

// The report in the daemon's own layout, with every control character, C1
// control and backslash of a name or path escaped (\n, \t, \\, \xHH), so
// that no name or path can pass for a line of its own. A report without such
// bytes comes out as the daemon sent it. Each line of an ambiguous stretch is
// written after "? ", escaped likewise.
std::string ReportText(const StatusReport& report);

// The client counts and the totals in the Prometheus text exposition format,
// with klvlockd_up 1.
std::string ReportMetrics(const StatusReport& report);

// What the metrics say when no report could be had: klvlockd_up 0.
std::string UnreachableMetrics();

// Appends a JSON string: quotes, backslashes and control characters escaped,
// and each byte above 0x7E written as the character of the same value.
void AppendQuoted(std::string* out, const std::string& bytes);

// Appends `bytes` with control characters, C1 controls and backslashes
// escaped (\n, \t, \\, \xHH).
void AppendEscaped(std::string* out, std::string_view bytes);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_REPORT_WRITERS_H_
