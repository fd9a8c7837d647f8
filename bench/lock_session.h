#ifndef KLV_BENCH_LOCK_SESSION_H_
#define KLV_BENCH_LOCK_SESSION_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/closed_loop.h"

namespace klv::bench {

// What a session of the lock protocol sends.
//   kNoop     REQ_NOOP, forever
//   kLock     REQ_LOCK then REQ_UNLOCK of the session's own range, forever
//   kOpen     REQ_OPEN (read, deny none, no oplock) then REQ_CLOSE, forever
//   kTouch    REQ_LOCK then REQ_UNLOCK once on each of its share of the files,
//             which leaves them in the table with nothing held
//   kPreload  REQ_LOCK of its share of `count` ranges spread over the files
//   kRelease  REQ_UNLOCK of the same ranges (from the same session)
//   kHold     REQ_OPEN (read, deny none) once on each of its share of the
//             files, left open: in cluster mode the node has then published
//             that class on every file, and kOpen needs no store
// Endless plans visit file (session + cycle * sessions) % files on each cycle;
// finite ones take every sessions-th item from the session's index on.
enum class Workload { kNoop, kLock, kOpen, kTouch, kPreload, kRelease, kHold };

struct LockPlan {
  Workload workload = Workload::kNoop;
  uint32_t files = 1;
  uint64_t count = 0;       // ranges of kPreload and kRelease
  uint32_t first_file = 0;  // file n of the plan is file first_file + n of the keys
};

// A UDP socket on 127.0.0.1 talking to the daemon's port (or an echo server's)
// with one request in flight. Every reply's code, tag and status are checked;
// the daemon's liveness probes are answered on the way.
class LockSession : public Session {
 public:
  // `index` and `sessions` place the session in its plan; `session_base`
  // keeps the session ids of different runs apart.
  LockSession(uint16_t port, const LockPlan& plan, uint32_t index, uint32_t sessions,
              uint32_t session_base);
  ~LockSession() override;

  bool IsOpen() const { return fd_ >= 0; }
  int Fd() const override { return fd_; }
  bool SendNext() override;
  void Resend() override;
  Read OnReadable(ErrorCounts* errors) override;
  bool AtRest() const override { return step_ % StepsPerCycle() == 0; }
  uint32_t Kind() const override { return expected_code_; }
  // Starts `plan` from its first step, on the same socket (so as the same
  // client): kRelease after kPreload unlocks what the preload locked.
  void Restart(const LockPlan& plan) {
    plan_ = plan;
    step_ = 0;
  }

 private:
  uint32_t StepsPerCycle() const;
  // The request of step `step_`, or false when the plan is done.
  bool BuildRequest();
  void Transmit(const std::string& bytes);
  void AnswerProbe(const unsigned char* data, size_t size);

  int fd_ = -1;
  LockPlan plan_;
  uint32_t index_;
  uint32_t sessions_;
  uint32_t session_id_;
  uint32_t tag_;
  uint64_t step_ = 0;  // requests sent
  std::string request_;
  uint32_t expected_code_ = 0;
};

// Sessions 0 to `count` - 1 of one plan.
std::vector<std::unique_ptr<Session>> MakeLockSessions(uint16_t port, const LockPlan& plan,
                                                       uint32_t count);

// The file keys every plan uses: file n is (0x0801, first_file + n + 1).
constexpr uint32_t kFileKeyHi = 0x0801;

}  // namespace klv::bench

#endif  // KLV_BENCH_LOCK_SESSION_H_
