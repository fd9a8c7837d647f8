#ifndef KLV_TESTS_SUPPORT_LOG_RECORDS_H_
#define KLV_TESTS_SUPPORT_LOG_RECORDS_H_

#include <string>
#include <vector>

namespace klv {

// The daemon's log texts taken apart, so that a test can compare everything
// but the time stamps exactly.
namespace log_records {

constexpr const char kBanner[] = "Ostrand Kelvane Lock Daemon(2.01)";
// yyyy/mm/dd hh:mm:ss.mmm, as a regular expression.
constexpr const char kTimeStampPattern[] = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})";

bool IsTimeStamp(const std::string& text);

// One event line: stamp, "\t", id, "\t", message.
struct EventLine {
  std::string stamp;
  std::string id;
  std::string message;
};
// False when `line` is not of that shape or its stamp is not a time stamp.
bool ParseEventLine(const std::string& line, EventLine* event);

// One error record: "\n", stamp, "\t", id, "\t", banner, "\n\n", message, "\n".
struct ErrorRecord {
  std::string stamp;
  std::string id;
  std::string banner;
  std::string message;
};
// The records of `text` in order. Each record's message runs up to the next
// record's head; text before the first head is not a record and is dropped,
// so compare with RecordText to be exact.
std::vector<ErrorRecord> ParseErrorRecords(const std::string& text);
// The text of `record` as the daemon writes it.
std::string RecordText(const ErrorRecord& record);

}  // namespace log_records

}  // namespace klv

#endif  // KLV_TESTS_SUPPORT_LOG_RECORDS_H_
