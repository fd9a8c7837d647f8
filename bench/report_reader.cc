#include "bench/report_reader.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "bench/loopback.h"

namespace klv::bench {

namespace {

constexpr size_t kChunk = 1 << 16;

}  // namespace

ReportRead ReadReport(uint16_t port, std::string* text) {
  ReportRead read;
  const auto start = std::chrono::steady_clock::now();
  const int fd = ConnectLoopback(SOCK_STREAM, port);
  if (fd >= 0) {
    // A report that stalls for a minute is abandoned.
    const timeval stall = {60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &stall, sizeof stall);
    static thread_local char buffer[kChunk];
    ssize_t count = 0;
    while ((count = recv(fd, buffer, sizeof buffer, 0)) > 0) {
      read.bytes += static_cast<uint64_t>(count);
      if (text != nullptr) text->append(buffer, static_cast<size_t>(count));
    }
    read.ok = count == 0;
    close(fd);
  }
  read.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return read;
}

void ReportLoop::Start() {
  thread_ = std::thread([this] { Run(); });
}

void ReportLoop::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void ReportLoop::Run() {
  for (int count = 0; count < limit_ && !stop_; ++count) {
    reads_.push_back(ReadReport(port_));
    if (!reads_.back().ok) break;
  }
}

std::string ReportLoop::Summary() const {
  double total = 0;
  double longest = 0;
  uint64_t bytes = 0;
  int failed = 0;
  for (const ReportRead& read : reads_) {
    total += read.seconds;
    longest = std::max(longest, read.seconds);
    bytes += read.bytes;
    if (!read.ok) ++failed;
  }
  const double count = reads_.empty() ? 1 : static_cast<double>(reads_.size());
  char line[256];
  snprintf(line, sizeof line,
           "reports=%zu report_failures=%d report_mb=%.1f report_s_mean=%.3f "
           "report_s_max=%.3f",
           reads_.size(), failed, bytes / count / 1e6, total / count, longest);
  return line;
}

}  // namespace klv::bench
