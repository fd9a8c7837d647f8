#include "daemon/udp_reply_sink.h"

namespace klv {

void UdpReplySink::SendReply(const SocketAddress& to, std::string_view datagram) {
  SendDatagram(to, datagram, "locking/socket/writeeof", "locking/socket/writeerror");
}

void UdpReplySink::SendAsync(const SocketAddress& to, std::string_view datagram) {
  SendDatagram(to, datagram, "locking/socket/asyncwriteeof", "locking/socket/asyncwriteerror");
}

// A server process that can no longer be told of its locks leaves the daemon
// with a wrong view: a send that returns 0 ends the daemon. Any other failure
// loses this one transaction, whose effect on the tables stays.
void UdpReplySink::SendDatagram(const SocketAddress& to, std::string_view datagram,
                                const char* eof_event, const char* error_event) {
  long count = 0;
  const TransferStatus status = udp_->SendTo(datagram.data(), datagram.size(), &count, to);
  if (status == TransferStatus::kEndOfFile) {
    TextBuilder message;
    message << "There was an EOF while writing to a socket. The locking has failed.\nThe "
            << "Kelvane"
            << "server will fail\nStop then restart the server.";
    log_->Error(eof_event, message, Severity::kFatal);
  } else if (status == TransferStatus::kFailed) {
    TextBuilder message;
    message << "There was an error while writing to a socket: " << udp_->LastFailure().Text()
            << "\nA locking transaction has failed.\nIf this is a repeat, try restarting the "
               "server.";
    log_->Error(error_event, message, Severity::kRecoverable);
  }
}

}  // namespace klv
