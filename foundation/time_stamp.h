#ifndef KLV_FOUNDATION_TIME_STAMP_H_
#define KLV_FOUNDATION_TIME_STAMP_H_

#include <cstdint>

#include "foundation/output_stream.h"

namespace klv {

// Seconds since the epoch and microseconds, normally with microseconds at
// most 999999.
struct TimeStamp {
  uint32_t seconds = 0;
  uint32_t microseconds = 0;

  // gettimeofday, normalised.
  static TimeStamp Now();
};

// Writes the local date and time of `stamp` as "%Y/%m/%d %H:%M:%S" followed by
// "." and three digits of milliseconds, truncated. Seconds are taken as
// seconds + microseconds / 1000000. A process-wide one-entry cache keeps the
// last formatted second, so records within one second cost one localtime.
OutputStream& FormatTimeStamp(OutputStream& out, const TimeStamp& stamp);
inline OutputStream& operator<<(OutputStream& out, const TimeStamp& stamp) {
  return FormatTimeStamp(out, stamp);
}

}  // namespace klv

#endif  // KLV_FOUNDATION_TIME_STAMP_H_
