#ifndef KLV_DAEMON_UDP_REPLY_SINK_H_
#define KLV_DAEMON_UDP_REPLY_SINK_H_

#include <string_view>

#include "daemon/event_log.h"
#include "foundation/socket.h"
#include "lockservice/reply_sink.h"

namespace klv {

// Sends the lock service's datagrams on the daemon's UDP socket with sendto.
// A partial send or a would-block loses the datagram without a word; a send
// that returns 0 is a fatal error; any other failure is logged and the
// datagram dropped. The two writers raise events of their own.
class UdpReplySink : public ReplySink {
 public:
  // The caller keeps the socket and the log alive as long as the sink.
  UdpReplySink(Socket* udp, EventLog* log) : udp_(udp), log_(log) {}

  // Failure events "locking/socket/writeeof" and "locking/socket/writeerror".
  void SendReply(const SocketAddress& to, std::string_view datagram) override;
  // Failure events "locking/socket/asyncwriteeof" and
  // "locking/socket/asyncwriteerror".
  void SendAsync(const SocketAddress& to, std::string_view datagram) override;

 private:
  void SendDatagram(const SocketAddress& to, std::string_view datagram, const char* eof_event,
                    const char* error_event);

  Socket* udp_;
  EventLog* log_;
};

}  // namespace klv

#endif  // KLV_DAEMON_UDP_REPLY_SINK_H_
