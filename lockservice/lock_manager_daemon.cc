#include "lockservice/lock_manager_daemon.h"

#include <malloc.h>

#include <cassert>

#include "lockservice/status_report.h"

namespace klv {

namespace {

// Every table starts with 4 buckets; only the sweep sets a purge limit.
constexpr uint32_t kInitialBuckets = 4;
// Releases of fewer byte-range locks than this leave the heap as it is.
constexpr uint64_t kLocksWorthReturning = 65536;

}  // namespace

LockManagerDaemon::LockManagerDaemon(const RefString& log_directory)
    : log_(log_directory),
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
  if (cluster_ != nullptr && DispatchClustered(sender, data, size)) return;
  LockRequest request;
  // A string without its NUL reads as empty; the request is handled anyway.
  request.Decode(data, size);
  OwedReply owed{sender, LockReply(request.Code(), request.Tag())};
  ReplyDue due = ReplyDue::kNow;
  switch (request.Code()) {
    case REQ_OPEN:
      due = HandleOpen(request, &owed);
      break;
    case REQ_LOCK:
      due = HandleLock(request, &owed);
      break;
    case REQ_UNLOCK:
      due = HandleUnlock(request, &owed);
      break;
    case REQ_CLIENT_END:
      due = HandleClientEnd(request, &owed);
      break;
    case REQ_TEXT:  // the text is carried and dropped
      break;
    case REQ_CLOSE:
      due = HandleClose(request, &owed);
      break;
    case REQ_OPLOCK_RELEASE:
      due = HandleOplockRelease(request, &owed);
      break;
    case REQ_PROBE:
      due = HandleProbe(request, owed);
      break;
    case REQ_NOOP:
      break;
    default:
      owed.reply.SetStatus(ReplyStatus::kUnknown);
      break;
  }
  if (due == ReplyDue::kNow) SendOwedReply(&owed);
}

void LockManagerDaemon::WriteStatusReport(OutputStream& out) const {
  StatusReport(clients_, files_, holders_).Write(out);
}

// The report goes out as it is written, a chunk at a time; the rest of it is
// lost without a word when the peer fails or goes.
void LockManagerDaemon::SendStatusReport(Descriptor* connection,
                                         DescriptorStream::ProgressHook on_progress) const {
  DescriptorStream out(connection, on_progress);
  WriteStatusReport(out);
}

void LockManagerDaemon::SendOwedReply(OwedReply* owed) {
  assert(sink_ != nullptr);
  sink_->SendReply(owed->to, owed->reply.Bytes());
}

// The answer is the probe's own head with version and wantreply set.
ReplyDue LockManagerDaemon::HandleProbe(const LockRequest& request, const OwedReply& owed) {
  if (request.WantReply() == 0) {
    MarkAlive(ClientKey::Of(owed.to, request.Session()));
    return ReplyDue::kNone;
  }
  LockRequest answer = request;
  answer.SetVersion(kProtocolVersion);
  answer.SetWantReply(0);
  sink_->SendReply(owed.to, answer.Bytes());
  return ReplyDue::kNone;
}

bool LockManagerDaemon::HasMemoryToReturn() const {
  return holders_.Peak() - holders_.Held() >= kLocksWorthReturning;
}

void LockManagerDaemon::ReturnMemory() {
  malloc_trim(0);
  holders_.ResetPeak();
}

}  // namespace klv
