#ifndef KLV_TOOLS_LOCKINFO_REPORT_FETCH_H_
#define KLV_TOOLS_LOCKINFO_REPORT_FETCH_H_

#include <csignal>
#include <cstdint>
#include <string>

namespace klv {

// How a fetch ended; the values are lockinfo's exit statuses.
enum class FetchStatus {
  kDone = 0,
  kNoLocalSocket = 11,
  kNoContact = 12,
  kReadFailed = 13,  // a failed read, a time-out, or more bytes than allowed
  kInterrupted = 130,
};

struct FetchLimits {
  int timeout_ms = 30000;         // the longest wait to connect and for each further byte
  uint64_t max_bytes = 1u << 30;  // the most that is read
};

// Connects to the status port `port` on 127.0.0.1 and reads what the daemon
// sends until it closes the connection into `text`. On a failure, `failure`
// says what failed. A signal that sets *stop ends the fetch as kInterrupted.
FetchStatus FetchReport(uint16_t port, const FetchLimits& limits, const volatile sig_atomic_t* stop,
                        std::string* text, std::string* failure);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_REPORT_FETCH_H_
