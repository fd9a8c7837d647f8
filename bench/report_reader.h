#ifndef KLV_BENCH_REPORT_READER_H_
#define KLV_BENCH_REPORT_READER_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace klv::bench {

// One status report read whole from the daemon's TCP port.
struct ReportRead {
  bool ok = false;
  uint64_t bytes = 0;
  double seconds = 0;  // from connect to the daemon closing the connection
};

// Connects to the status port on 127.0.0.1, reads until the daemon closes,
// and keeps the bytes in `text` when it is given.
ReportRead ReadReport(uint16_t port, std::string* text = nullptr);

// Reads reports back to back on a thread of its own, until Stop or until
// `limit` reports were read.
class ReportLoop {
 public:
  ReportLoop(uint16_t port, int limit) : port_(port), limit_(limit) {}
  ~ReportLoop() { Stop(); }

  void Start();
  void Stop();
  // reports=, report_mb=, report_s_mean= and report_s_max= (no newline).
  std::string Summary() const;

 private:
  void Run();

  uint16_t port_;
  int limit_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::vector<ReportRead> reads_;
};

}  // namespace klv::bench

#endif  // KLV_BENCH_REPORT_READER_H_
