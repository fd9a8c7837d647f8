#ifndef KLV_TOOLS_LOCKINFO_REPORT_PARSER_H_
#define KLV_TOOLS_LOCKINFO_REPORT_PARSER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace klv {

// The daemon's status report read back into its parts. Names are the report's
// 15-character name fields without their padding blanks; every number is an
// unsigned 32-bit value as the report writes it.

struct ReportClient {
  std::string name;
  std::string state;  // "OK" or "WAIT"
  uint32_t session = 0;
  std::string address;  // "a.b.c.d", or "*" for 0.0.0.0
  uint32_t port = 0;
};

// One row of a file's lock lists. `mode` belongs to opens ("OPEN_READ|DENY_NONE"),
// `type` to oplocks and record locks, `offset` and `length` to record locks.
struct ReportLock {
  std::string holder;
  uint32_t clientfid = 0;
  std::string mode;
  uint32_t type = 0;
  uint32_t offset = 0;
  uint32_t length = 0;
};

struct ReportFile {
  uint32_t key_hi = 0;
  uint32_t key_lo = 0;
  std::string path;
  std::vector<ReportLock> opens;
  std::vector<ReportLock> oplocks;
  std::vector<ReportLock> record_locks;
};

// The closing line: files in the file table (idle ones included), files that
// hold a lock, and the lock counts over all files.
struct ReportTotals {
  uint32_t files = 0;
  uint32_t used = 0;
  uint32_t open_locks = 0;
  uint32_t record_locks = 0;
  uint32_t oplocks = 0;
};

// A stretch of the file section that can be read in more than one way: the
// daemon writes paths as the clients sent them, so a path that holds a line
// break may pass for lock rows or for further files. It lies between
// files[at - 1] and files[at]; `text` is its bytes, lines counted from 1.
struct AmbiguousStretch {
  size_t at = 0;
  size_t first_line = 0;
  size_t last_line = 0;
  std::string text;
};

struct StatusReport {
  std::string time;     // "2024/05/17 14:03:07.412"
  std::string version;  // "2.01.905"
  std::vector<ReportClient> clients;
  std::vector<ReportFile> files;  // the files that hold a lock, each read for certain
  ReportTotals totals;
  std::vector<AmbiguousStretch> ambiguous;  // none, or one
};

enum class ReportReading {
  kWhole,      // every part read, in the one way the totals allow
  kAmbiguous,  // `ambiguous` holds what could not be told apart
  kNotAReport,
};

// What to read: the whole report, or only the parts that no client can forge
// (banner, client table and totals), which the metrics need.
enum class ReportScope { kWhole, kUnforgeable };

// Reads the whole `text` as one status report into `report`. Client rows are
// read by their fixed widths, so names cannot forge them; the totals line is
// read from the end. The file section is read in every way that its grammar
// allows and only the readings whose counts match the totals are kept. On
// kNotAReport, *error says "line N: expected ..." or why the files do not add up.
ReportReading ParseStatusReport(std::string_view text, ReportScope scope, StatusReport* report,
                                std::string* error);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_REPORT_PARSER_H_
