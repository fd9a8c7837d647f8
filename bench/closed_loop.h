#ifndef KLV_BENCH_CLOSED_LOOP_H_
#define KLV_BENCH_CLOSED_LOOP_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace klv::bench {

// What went wrong with replies, counted over a run.
struct ErrorCounts {
  uint64_t tag = 0;       // a reply with the wrong code or tag
  uint64_t status = 0;    // a reply with an unexpected status or body
  uint64_t timeouts = 0;  // no reply within the time-out: the request was sent again
  uint64_t probes = 0;    // liveness probes answered (not errors)

  uint64_t Total() const { return tag + status + timeouts; }
};

// One client connection with at most one request in flight.
class Session {
 public:
  enum class Read { kNothing, kReply, kClosed };

  virtual ~Session() = default;
  virtual int Fd() const = 0;
  // Sends the next request of the session's plan; false when the plan is done.
  virtual bool SendNext() = 0;
  // Sends the request in flight again (after a time-out).
  virtual void Resend() = 0;
  // Reads what the socket holds. kReply once the reply to the request in
  // flight is complete; its check is counted in `errors`.
  virtual Read OnReadable(ErrorCounts* errors) = 0;
  // True between whole cycles of the plan (a lock and its unlock, an open and
  // its close), when stopping leaves nothing held.
  virtual bool AtRest() const = 0;
  // What the request in flight is (the lock protocol's request code), so
  // that latencies can be told apart by kind; 0 when it does not matter.
  virtual uint32_t Kind() const { return 0; }
};

struct RunLimits {
  double warmup_seconds = 0;   // replies before this are not counted
  double seconds = 1;          // the measured window; 0 runs until every plan is done
  double timeout_seconds = 1;  // a request unanswered this long is sent again
  double max_seconds = 900;    // a hard bound on the whole run
};

struct RunResult {
  uint64_t requests = 0;  // replies in the measured window
  double seconds = 0;     // length of the measured window
  std::vector<uint32_t> latency_ns;
  std::map<uint32_t, std::vector<uint32_t>> latency_ns_by_kind;  // for kinds other than 0
  ErrorCounts errors;
  bool finished = true;  // false when max_seconds cut the run short
};

// Called when the measured window opens and when it closes.
struct RunHooks {
  std::function<void()> on_start = [] {};
  std::function<void()> on_end = [] {};
};

// Drives every session closed loop (one request in flight each) until the
// window closes, then lets each session finish its cycle so that nothing it
// took stays held.
RunResult RunClosedLoop(const std::vector<std::unique_ptr<Session>>& sessions,
                        const RunLimits& limits, const RunHooks& hooks = RunHooks());

// Requests per second, latency percentiles in microseconds and error counts as
// one line of key=value pairs (without a newline).
std::string Summary(const RunResult& result);

// The latency p50 and p99 in microseconds of each kind of request, named by
// `name_of(kind)`, as " p50_us_NAME=... p99_us_NAME=..." pairs.
std::string KindSummary(const RunResult& result,
                        const std::function<std::string(uint32_t)>& name_of);

}  // namespace klv::bench

#endif  // KLV_BENCH_CLOSED_LOOP_H_
