#ifndef KLV_BENCH_SERVER_PROCESS_H_
#define KLV_BENCH_SERVER_PROCESS_H_

#include <sys/types.h>

#include <cstdint>

namespace klv::bench {

// What /proc tells about a server process under load. A pid of 0 (no server
// named) reads as zeros.
class ServerProcess {
 public:
  explicit ServerProcess(pid_t pid) : pid_(pid) {}

  pid_t Pid() const { return pid_; }
  // User plus system time in seconds, from /proc/PID/stat (clock ticks).
  double CpuSeconds() const;
  // Resident size in bytes, from /proc/PID/statm.
  uint64_t ResidentBytes() const;

 private:
  pid_t pid_;
};

}  // namespace klv::bench

#endif  // KLV_BENCH_SERVER_PROCESS_H_
