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

struct StatusReport {
  std::string time;     // "2024/05/17 14:03:07.412"
  std::string version;  // "2.01.905"
  std::vector<ReportClient> clients;
  std::vector<ReportFile> files;  // only the files that hold a lock
  ReportTotals totals;
};

// Reads the whole `text` as one status report into `report`. False when the
// text is not such a report, with "line N: expected ..." in `error`. A path
// that holds a newline cannot be told from the lines that follow it.
bool ParseStatusReport(std::string_view text, StatusReport* report, std::string* error);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_REPORT_PARSER_H_
