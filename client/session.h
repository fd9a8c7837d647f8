#ifndef KLV_CLIENT_SESSION_H_
#define KLV_CLIENT_SESSION_H_

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "klvlock.h"

namespace klv {

// What stands behind a klvlock_session handle: one connected UDP socket, the
// session id and name, the tags of requests still waiting for their replies
// and the events not yet taken. Every operation answers KLVLOCK_OK or a
// KLVLOCK_E* code; nothing throws on purpose (the C boundary still catches
// what the standard library might throw).
class ClientSession {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t kQueueLimit = 1024;

  // Makes the socket (127.0.0.1 port 0, connected to 127.0.0.1
  // `daemon_port`) and the session.
  static int Create(uint16_t daemon_port, uint32_t session_id, const char* name,
                    std::unique_ptr<ClientSession>* session);
  ~ClientSession();
  ClientSession(const ClientSession&) = delete;
  ClientSession& operator=(const ClientSession&) = delete;

  int Fd() const { return fd_; }
  uint16_t LocalPort() const { return local_port_; }
  // True while an event handler runs: calls that read the socket are refused.
  bool InCallback() const { return in_callback_; }
  void SetCallback(klvlock_event_fn fn, void* user);

  // Sends `request` and waits for its reply (see klvlock_call).
  int Call(const klvlock_request& request, int timeout_ms, klvlock_reply* reply);
  // Sends `request`; its reply comes as an event (see klvlock_submit).
  int Submit(const klvlock_request& request, int timeout_ms, uint32_t* tag);
  // Reads what has arrived without blocking; the count of events delivered.
  int Process();
  // Reads until an event was delivered or `timeout_ms` passed.
  int Wait(int timeout_ms);
  int NextTimeout() const;
  int NextEvent(klvlock_event* event);

 private:
  // A request sent whose reply is still expected.
  struct Pending {
    uint32_t tag;
    uint32_t code;
    Clock::time_point deadline;
  };

  struct Awaited;

  ClientSession(int fd, uint16_t local_port, uint32_t session_id, std::string name);
  // Encodes `request` under a fresh tag and sends it.
  int Send(const klvlock_request& request, uint32_t* tag, std::string* datagram);
  int SendBytes(const std::string& datagram);
  // Reads datagrams until none is left (or a batch is done). The reply to
  // `awaited`, the blocking call's own request when there is one, is stored
  // there; every other datagram is answered, delivered or dropped.
  int ReadAll(Awaited* awaited);
  void Handle(const unsigned char* data, size_t size, Awaited* awaited);
  void HandleReply(const klvlock_reply& decoded, Awaited* awaited);
  // Reports each submitted request whose deadline has passed as lost.
  void ExpireSubmitted(Clock::time_point now);
  // Hands `event` to the callback, or queues it.
  void Deliver(const klvlock_event& event);
  // Waits up to `deadline` for the socket to become readable.
  int WaitReadable(Clock::time_point deadline);

  int fd_;
  uint16_t local_port_;
  uint32_t session_id_;
  std::string name_;
  uint32_t last_tag_ = 0;
  klvlock_event_fn callback_ = nullptr;
  void* user_ = nullptr;
  bool in_callback_ = false;
  int delivered_ = 0;  // events delivered since the current call began
  std::vector<Pending> submitted_;
  std::deque<klvlock_event> queue_;
};

}  // namespace klv

#endif  // KLV_CLIENT_SESSION_H_
