#ifndef KLV_TESTS_SUPPORT_UDP_CLIENT_H_
#define KLV_TESTS_SUPPORT_UDP_CLIENT_H_

#include <cstdint>
#include <string>

namespace klv {

// One client of the daemon, as a file-server process would be: a UDP socket
// bound to 127.0.0.1 at a port of its own, talking to the daemon's port on
// 127.0.0.1. Several clients make several client addresses. Every wait is
// bounded.
class UdpClient {
 public:
  static constexpr int kWaitMs = 2000;

  explicit UdpClient(uint16_t daemon_port);
  ~UdpClient();
  UdpClient(const UdpClient&) = delete;
  UdpClient& operator=(const UdpClient&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  int Fd() const { return fd_; }  // for polling many clients at once
  uint16_t Port() const { return port_; }  // the client's own port
  uint16_t DaemonPort() const { return daemon_port_; }

  // Sends `bytes` as one datagram to the daemon; false when sendto fails.
  bool Send(const std::string& bytes) { return SendTo(daemon_port_, bytes); }
  // Sends `bytes` to another port on 127.0.0.1, as when this socket stands in
  // for the daemon.
  bool SendTo(uint16_t port, const std::string& bytes);
  // Waits up to `timeout_ms` for the next datagram from anyone; false when
  // none came.
  bool Receive(std::string* datagram, int timeout_ms = kWaitMs);
  // Like Receive, but answers the daemon's liveness probes on the way (code
  // 1000 with wantreply 1 gets back the same 36 bytes with wantreply 0) and
  // returns the next message that is not such a probe.
  bool ReceiveAnsweringProbes(std::string* datagram, int timeout_ms = kWaitMs);
  // True when no datagram arrives within `timeout_ms`.
  bool ReceivesNothing(int timeout_ms);
  // Sends `request` and receives the next datagram.
  bool Exchange(const std::string& request, std::string* reply, int timeout_ms = kWaitMs);
  // Probes answered so far by ReceiveAnsweringProbes.
  int ProbesAnswered() const { return probes_answered_; }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
  uint16_t daemon_port_;
  int probes_answered_ = 0;
};

}  // namespace klv

#endif  // KLV_TESTS_SUPPORT_UDP_CLIENT_H_
