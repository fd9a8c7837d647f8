#ifndef KLV_BENCH_SOAK_SOAK_CLIENT_H_
#define KLV_BENCH_SOAK_SOAK_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/support/udp_client.h"

namespace klv::soak {

using Clock = std::chrono::steady_clock;

// What the daemon has granted one session, as the session itself saw it.
struct HeldOpen {
  uint32_t file, fid, mode;
};
struct HeldRange {
  uint32_t file, fid, offset, length, shared;
};
struct HeldOplock {
  uint32_t file, fid;
};
// An open that was told to wait: retried with its id once the daemon says so.
struct Wait {
  uint32_t id, file, fid, mode;
  bool notified = false;
};

enum class Kind { kOpen, kClose, kLock, kUnlock, kOplockRelease, kClientEnd, kNoop };

// The one request a session has outstanding.
struct Request {
  Kind kind = Kind::kNoop;
  uint32_t tag = 0;
  uint32_t file = 0, fid = 0, mode = 0, oplock = 0, waitid = 0;
  uint32_t offset = 0, length = 0, shared = 0;
  Clock::time_point sent;
};

// One simulated file-server session: a UDP socket on 127.0.0.1, a session
// id and a model of its holdings. A release leaves the model when it is
// sent, a grant enters it when its reply comes, so that whatever two
// sessions hold in their models at once the daemon held at once too.
class SoakClient {
 public:
  SoakClient(uint16_t daemon_port, uint32_t session, uint32_t files, uint32_t seed);

  UdpClient& Udp() { return udp_; }
  bool Busy() const { return busy_; }
  const Request& Outstanding() const { return request_; }
  const std::vector<HeldOpen>& Opens() const { return opens_; }
  const std::vector<HeldRange>& Ranges() const { return ranges_; }
  const std::vector<HeldOplock>& Oplocks() const { return oplocks_; }
  // True when a retry or an oplock release is due.
  bool HasDueWork() const;

  // Sends the next request: a due retry or release first, else (when
  // `random_work`) a random one. False when nothing was sent.
  bool SendNext(bool random_work);
  // Handles one datagram from the daemon: answers a probe, notes a break or
  // a retry notice, or takes the reply to the outstanding request. Returns
  // the reply's request when it was one (the caller checks grants), else
  // nullptr; `status` and `oplock_granted` describe it.
  const Request* Take(const std::string& datagram, uint32_t* status, uint32_t* oplock_granted);
  // Forgets the outstanding request after its reply did not come.
  void Abandon() { busy_ = false; }
  // Records the grant of the request that Take returned.
  void Grant(const Request& request, uint32_t oplock_granted);

 private:
  void Send(const Request& request, const std::string& bytes);
  void SendRandom();
  void SendOpen(uint32_t file, uint32_t fid, uint32_t mode, uint32_t oplock, uint32_t waitid);
  void SendClose(uint32_t file, uint32_t fid);
  void SendLock();
  void SendUnlock(size_t index);
  void SendClientEnd();
  uint32_t Pick(uint32_t count) {
    return std::uniform_int_distribution<uint32_t>(0, count - 1)(random_);
  }

  UdpClient udp_;
  uint32_t session_;
  uint32_t files_;
  std::mt19937 random_;
  uint32_t next_fid_ = 1;
  uint32_t next_tag_ = 1;
  bool busy_ = false;
  Request request_;
  std::vector<HeldOpen> opens_;
  std::vector<HeldRange> ranges_;
  std::vector<HeldOplock> oplocks_;
  std::vector<uint32_t> breaks_;  // clientfids whose oplock the daemon asked back
  std::vector<Wait> waits_;
};

}  // namespace klv::soak

#endif  // KLV_BENCH_SOAK_SOAK_CLIENT_H_
