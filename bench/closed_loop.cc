#include "bench/closed_loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

namespace klv::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaxEvents = 256;
constexpr int kWaitMs = 20;
constexpr double kDrainSeconds = 3;

double SecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// The run's phases: replies count only while measuring; draining lets each
// session finish its cycle.
enum class Phase { kWarmup, kMeasure, kDrain };

class Driver {
 public:
  Driver(const std::vector<std::unique_ptr<Session>>& sessions, const RunLimits& limits,
         const RunHooks& hooks)
      : sessions_(sessions),
        limits_(limits),
        hooks_(hooks),
        sent_at_(sessions.size()),
        in_flight_(sessions.size(), false) {}

  RunResult Run();

 private:
  void Send(size_t index);
  void HandleReadable(size_t index);
  void ResendOverdue();
  void AdvancePhase();
  bool AnyInFlight() const {
    return std::find(in_flight_.begin(), in_flight_.end(), true) != in_flight_.end();
  }

  const std::vector<std::unique_ptr<Session>>& sessions_;
  const RunLimits& limits_;
  const RunHooks& hooks_;
  std::vector<Clock::time_point> sent_at_;
  std::vector<bool> in_flight_;
  Phase phase_ = Phase::kWarmup;
  Clock::time_point begin_ = Clock::now();
  Clock::time_point now_ = begin_;
  Clock::time_point measure_start_ = begin_;
  Clock::time_point drain_start_ = begin_;
  Clock::time_point last_timeout_scan_ = begin_;
  RunResult result_;
};

RunResult Driver::Run() {
  const int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  for (size_t index = 0; index < sessions_.size(); ++index) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = index;
    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, sessions_[index]->Fd(), &event);
  }
  result_.latency_ns.reserve(1 << 20);
  AdvancePhase();
  for (size_t index = 0; index < sessions_.size(); ++index) Send(index);
  epoll_event events[kMaxEvents];
  while (AnyInFlight()) {
    const int ready = epoll_wait(epoll_fd, events, kMaxEvents, kWaitMs);
    now_ = Clock::now();
    for (int i = 0; i < ready; ++i) HandleReadable(events[i].data.u64);
    ResendOverdue();
    AdvancePhase();
    if (SecondsBetween(begin_, now_) > limits_.max_seconds) {
      result_.finished = false;
      break;
    }
  }
  if (phase_ != Phase::kDrain) {  // a finite plan ended, or the hard bound hit
    result_.seconds = SecondsBetween(measure_start_, now_);
    hooks_.on_end();
  }
  close(epoll_fd);
  return result_;
}

void Driver::Send(size_t index) {
  Session& session = *sessions_[index];
  if (phase_ == Phase::kDrain && session.AtRest()) return;
  if (!session.SendNext()) return;
  in_flight_[index] = true;
  sent_at_[index] = Clock::now();
}

void Driver::HandleReadable(size_t index) {
  const Session::Read read = sessions_[index]->OnReadable(&result_.errors);
  if (read == Session::Read::kNothing) return;
  in_flight_[index] = false;
  if (read == Session::Read::kClosed) {
    ++result_.errors.status;
    return;
  }
  if (phase_ == Phase::kMeasure) {
    ++result_.requests;
    const auto latency =
        std::chrono::duration_cast<std::chrono::nanoseconds>(now_ - sent_at_[index]);
    const auto nanoseconds = static_cast<uint32_t>(std::min<int64_t>(latency.count(), UINT32_MAX));
    result_.latency_ns.push_back(nanoseconds);
    const uint32_t kind = sessions_[index]->Kind();
    if (kind != 0) result_.latency_ns_by_kind[kind].push_back(nanoseconds);
  }
  Send(index);
}

void Driver::ResendOverdue() {
  if (SecondsBetween(last_timeout_scan_, now_) < 0.1) return;
  last_timeout_scan_ = now_;
  for (size_t index = 0; index < sessions_.size(); ++index) {
    if (!in_flight_[index] || SecondsBetween(sent_at_[index], now_) < limits_.timeout_seconds) {
      continue;
    }
    ++result_.errors.timeouts;
    sessions_[index]->Resend();
    sent_at_[index] = now_;
  }
}

void Driver::AdvancePhase() {
  if (phase_ == Phase::kWarmup && SecondsBetween(begin_, now_) >= limits_.warmup_seconds) {
    phase_ = Phase::kMeasure;
    measure_start_ = Clock::now();
    hooks_.on_start();
  }
  if (phase_ == Phase::kMeasure && limits_.seconds > 0 &&
      SecondsBetween(measure_start_, now_) >= limits_.seconds) {
    phase_ = Phase::kDrain;
    drain_start_ = now_;
    result_.seconds = SecondsBetween(measure_start_, now_);
    hooks_.on_end();
  }
  if (phase_ == Phase::kDrain && SecondsBetween(drain_start_, now_) > kDrainSeconds) {
    std::fill(in_flight_.begin(), in_flight_.end(), false);
  }
}

// The value at fraction `rank` of the sorted samples, in microseconds.
double Percentile(std::vector<uint32_t>* samples, double rank) {
  if (samples->empty()) return 0;
  const size_t position =
      std::min(samples->size() - 1, static_cast<size_t>(rank * samples->size()));
  std::nth_element(samples->begin(), samples->begin() + position, samples->end());
  return (*samples)[position] / 1000.0;
}

}  // namespace

RunResult RunClosedLoop(const std::vector<std::unique_ptr<Session>>& sessions,
                        const RunLimits& limits, const RunHooks& hooks) {
  Driver driver(sessions, limits, hooks);
  return driver.Run();
}

std::string Summary(const RunResult& result) {
  std::vector<uint32_t> samples = result.latency_ns;
  const double rate = result.seconds > 0 ? result.requests / result.seconds : 0;
  char line[512];
  snprintf(line, sizeof line,
           "requests=%llu seconds=%.3f rps=%.0f p50_us=%.1f p99_us=%.1f p999_us=%.1f errors=%llu "
           "tag_errors=%llu status_errors=%llu timeouts=%llu probes=%llu",
           static_cast<unsigned long long>(result.requests), result.seconds, rate,
           Percentile(&samples, 0.50), Percentile(&samples, 0.99), Percentile(&samples, 0.999),
           static_cast<unsigned long long>(result.errors.Total()),
           static_cast<unsigned long long>(result.errors.tag),
           static_cast<unsigned long long>(result.errors.status),
           static_cast<unsigned long long>(result.errors.timeouts),
           static_cast<unsigned long long>(result.errors.probes));
  return line;
}

std::string KindSummary(const RunResult& result,
                        const std::function<std::string(uint32_t)>& name_of) {
  std::string line;
  for (const auto& [kind, latencies] : result.latency_ns_by_kind) {
    std::vector<uint32_t> samples = latencies;
    char pair[128];
    snprintf(pair, sizeof pair, " p50_us_%s=%.1f p99_us_%s=%.1f", name_of(kind).c_str(),
             Percentile(&samples, 0.50), name_of(kind).c_str(), Percentile(&samples, 0.99));
    line += pair;
  }
  return line;
}

}  // namespace klv::bench
