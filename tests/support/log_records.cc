#include "tests/support/log_records.h"

#include <regex>

namespace klv {

namespace log_records {

bool IsTimeStamp(const std::string& text) {
  static const std::regex stamp(kTimeStampPattern);
  return std::regex_match(text, stamp);
}

bool ParseEventLine(const std::string& line, EventLine* event) {
  const size_t first_tab = line.find('\t');
  if (first_tab == std::string::npos) return false;
  const size_t second_tab = line.find('\t', first_tab + 1);
  if (second_tab == std::string::npos) return false;
  event->stamp = line.substr(0, first_tab);
  event->id = line.substr(first_tab + 1, second_tab - first_tab - 1);
  event->message = line.substr(second_tab + 1);
  return IsTimeStamp(event->stamp);
}

std::vector<ErrorRecord> ParseErrorRecords(const std::string& text) {
  static const std::regex head(std::string(R"(\n()") + kTimeStampPattern +
                               R"()\t([^\t\n]*)\t([^\n]*)\n\n)");
  std::vector<ErrorRecord> records;
  size_t message_start = 0;
  for (auto match = std::sregex_iterator(text.begin(), text.end(), head);
       match != std::sregex_iterator(); ++match) {
    const size_t head_start = static_cast<size_t>(match->position(0));
    if (!records.empty())
      records.back().message = text.substr(message_start, head_start - message_start);
    records.push_back(ErrorRecord{(*match)[1], (*match)[2], (*match)[3], ""});
    message_start = head_start + static_cast<size_t>(match->length(0));
  }
  if (!records.empty()) records.back().message = text.substr(message_start);
  for (ErrorRecord& record : records) {
    if (!record.message.empty() && record.message.back() == '\n') record.message.pop_back();
  }
  return records;
}

std::string RecordText(const ErrorRecord& record) {
  return "\n" + record.stamp + "\t" + record.id + "\t" + record.banner + "\n\n" + record.message +
         "\n";
}

}  // namespace log_records

}  // namespace klv
