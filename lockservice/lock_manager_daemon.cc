#include "lockservice/lock_manager_daemon.h"

#include <malloc.h>

#include <cassert>

namespace klv {

namespace {

// Every table starts with 4 buckets; only the sweep sets a purge limit.
constexpr uint32_t kInitialBuckets = 4;
// Releases of fewer byte-range locks than this leave the heap as it is.
constexpr uint64_t kLocksWorthReturning = 65536;

}  // namespace

LockManagerDaemon::LockManagerDaemon(int timeout, const RefString& log_directory)
    : log_(log_directory),
      timeout_(timeout),
      clients_(kInitialBuckets, 0),
      files_(kInitialBuckets, 0),
      waits_(kInitialBuckets, 0) {}

LockManagerDaemon::~LockManagerDaemon() {
  waits_.DeleteAll();
  files_.DeleteAll();
  clients_.DeleteAll();
}

void LockManagerDaemon::Dispatch(const SocketAddress& sender, const unsigned char* data,
                                 size_t size) {
  if (size == 0) return;
  LockRequest request;
  // A string without its NUL reads as empty; the request is handled anyway.
  request.Decode(data, size);
  LockReply reply(request.Code(), request.Tag());
  bool reply_due = true;
  switch (request.Code()) {
    case REQ_OPEN:
      reply_due = HandleOpen(sender, request, &reply);
      break;
    case REQ_LOCK:
      reply_due = HandleLock(sender, request, &reply);
      break;
    case REQ_UNLOCK:
      reply_due = HandleUnlock(sender, request, &reply);
      break;
    case REQ_CLIENT_END:
      reply_due = HandleClientEnd(sender, request, &reply);
      break;
    case REQ_TEXT:  // the text is carried and dropped
      break;
    case REQ_CLOSE:
      reply_due = HandleClose(sender, request, &reply);
      break;
    case REQ_OPLOCK_RELEASE:
      reply_due = HandleOplockRelease(sender, request, &reply);
      break;
    case REQ_PROBE:
      reply_due = HandleProbe(sender, request);
      break;
    case REQ_NOOP:
      break;
    default:
      reply.SetStatus(ReplyStatus::kUnknown);
      break;
  }
  if (reply_due) SendReply(sender, &reply);
}

bool LockManagerDaemon::HandleProbe(const SocketAddress& sender, const LockRequest& request) {
  if (request.WantReply() == 0) {
    MarkAlive(ClientKey::Of(sender, request.Session()));
    return false;
  }
  LockRequest answer = request;
  answer.SetVersion(kProtocolVersion);
  answer.SetWantReply(0);
  SendReply(sender, &answer);
  return false;
}

bool LockManagerDaemon::HasMemoryToReturn() const {
  return holders_.Peak() - holders_.Held() >= kLocksWorthReturning;
}

void LockManagerDaemon::ReturnMemory() {
  malloc_trim(0);
  holders_.ResetPeak();
}

void LockManagerDaemon::SendReply(const SocketAddress& to, LockReply* reply) {
  SendDatagram(to, reply->Bytes(), Writer::kSynchronous);
}

void LockManagerDaemon::SendReply(const SocketAddress& to, LockRequest* message) {
  SendDatagram(to, message->Bytes(), Writer::kSynchronous);
}

void LockManagerDaemon::SendAsync(const SocketAddress& to, LockReply* message) {
  SendDatagram(to, message->Bytes(), Writer::kAsynchronous);
}

void LockManagerDaemon::SendDatagram(const SocketAddress& to, std::string_view bytes,
                                     Writer writer) {
  assert(udp_ != nullptr);
  long count = 0;
  const TransferStatus status = udp_->SendTo(bytes.data(), bytes.size(), &count, to);
  const bool synchronous = writer == Writer::kSynchronous;
  if (status == TransferStatus::kEndOfFile) {
    TextBuilder message;
    message << "There was an EOF while writing to a socket. The locking has failed.\nThe "
            << "Kelvane"
            << "server will fail\nStop then restart the server.";
    log_.Error(synchronous ? "locking/socket/writeeof" : "locking/socket/asyncwriteeof", message,
               Severity::kFatal);
  } else if (status == TransferStatus::kFailed) {
    TextBuilder message;
    message << "There was an error while writing to a socket: " << udp_->LastFailure().Text()
            << "\nA locking transaction has failed.\nIf this is a repeat, try restarting the "
               "server.";
    log_.Error(synchronous ? "locking/socket/writeerror" : "locking/socket/asyncwriteerror",
               message, Severity::kRecoverable);
  }
  // A partial send or a would-block loses the datagram; there is no retry.
}

}  // namespace klv
