#ifndef KLV_LOCKSERVICE_REPLY_SINK_H_
#define KLV_LOCKSERVICE_REPLY_SINK_H_

#include <string_view>

#include "foundation/socket.h"
#include "lockservice/lock_request.h"

namespace klv {

// Where the lock service's datagrams go. The handlers decide what to send and
// hand it here; the event loop owns the sink that writes to the UDP socket,
// and a test or a fuzzer hands the daemon one that records. The two writers
// differ only in the failure events of the UDP sink.
class ReplySink {
 public:
  virtual ~ReplySink() = default;

  // The synchronous writer: a request's reply, the answer to a probe, or the
  // daemon's own probe, sent to `to`.
  virtual void SendReply(const SocketAddress& to, std::string_view datagram) = 0;
  // The asynchronous writer: a break or a retry notice, which no request of
  // the client at `to` asked for.
  virtual void SendAsync(const SocketAddress& to, std::string_view datagram) = 0;
};

// The reply that a request is owed: where it goes and what it says. A plain
// value, so that a handler may keep it past the handling of its request and
// have it sent later with LockManagerDaemon::SendOwedReply.
struct OwedReply {
  SocketAddress to;
  LockReply reply;
};

// What a handler did about its request's reply.
enum class ReplyDue {
  kNow,       // send the owed reply as the handler left it
  kNone,      // the request gets no reply
  kDeferred,  // the handler kept a copy of the owed reply and sends it later
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_REPLY_SINK_H_
