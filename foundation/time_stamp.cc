#include "foundation/time_stamp.h"

#include <sys/time.h>

#include <cstdio>
#include <ctime>

namespace klv {

namespace {

constexpr uint32_t kMicrosecondsPerSecond = 1000000;
constexpr size_t kDateBufferSize = 100;

// The last second formatted and its text. Records written within one second
// share it, so they cost one localtime and one strftime. Single-threaded use
// only, like the rest of the daemon.
struct FormattedSecond {
  bool valid = false;
  uint32_t seconds = 0;
  char text[kDateBufferSize] = {};
};

FormattedSecond formatted_second;

const char* FormatSecond(uint32_t seconds) {
  if (formatted_second.valid && formatted_second.seconds == seconds) return formatted_second.text;
  formatted_second.valid = true;
  formatted_second.seconds = seconds;
  const time_t when = seconds;
  struct tm local;
  if (localtime_r(&when, &local) == nullptr ||
      std::strftime(formatted_second.text, kDateBufferSize, "%Y/%m/%d %H:%M:%S", &local) == 0) {
    formatted_second.text[0] = '\0';
  }
  return formatted_second.text;
}

}  // namespace

TimeStamp TimeStamp::Now() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  TimeStamp stamp;
  stamp.seconds = static_cast<uint32_t>(now.tv_sec);
  stamp.microseconds = static_cast<uint32_t>(now.tv_usec);
  while (stamp.microseconds > kMicrosecondsPerSecond - 1) {
    stamp.microseconds -= kMicrosecondsPerSecond;
    ++stamp.seconds;
  }
  return stamp;
}

OutputStream& FormatTimeStamp(OutputStream& out, const TimeStamp& stamp) {
  const uint32_t seconds = stamp.seconds + stamp.microseconds / kMicrosecondsPerSecond;
  const unsigned milliseconds = (stamp.microseconds % kMicrosecondsPerSecond) / 1000;
  char buffer[kDateBufferSize + 16];
  std::snprintf(buffer, sizeof buffer, "%s.%03u", FormatSecond(seconds), milliseconds);
  return out << buffer;
}

}  // namespace klv
