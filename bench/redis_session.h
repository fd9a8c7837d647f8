#ifndef KLV_BENCH_REDIS_SESSION_H_
#define KLV_BENCH_REDIS_SESSION_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/closed_loop.h"

namespace klv::bench {

// A TCP connection to a Redis server on 127.0.0.1 taking and dropping a lock
// the usual way, spoken in RESP: "SET key owner NX PX 60000" (expects +OK)
// then "DEL key" (expects :1). Each session has its own key per file, so
// every SET finds the key free.
class RedisSession : public Session {
 public:
  RedisSession(uint16_t port, uint32_t files, uint32_t index, uint32_t sessions);
  ~RedisSession() override;

  bool IsOpen() const { return fd_ >= 0; }
  int Fd() const override { return fd_; }
  bool SendNext() override;
  void Resend() override;
  Read OnReadable(ErrorCounts* errors) override;
  bool AtRest() const override { return step_ % 2 == 0; }

 private:
  int fd_ = -1;
  uint32_t files_;
  uint32_t index_;
  uint32_t sessions_;
  uint64_t step_ = 0;
  std::string request_;
  std::string expected_;
  std::string received_;
};

std::vector<std::unique_ptr<Session>> MakeRedisSessions(uint16_t port, uint32_t files,
                                                        uint32_t count);

}  // namespace klv::bench

#endif  // KLV_BENCH_REDIS_SESSION_H_
