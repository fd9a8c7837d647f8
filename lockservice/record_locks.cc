// Byte-range locks: REQ_LOCK and REQ_UNLOCK. A conflict is refused at once;
// nothing is queued.
#include "lockservice/lock_manager_daemon.h"

namespace klv {

namespace {

// The lock type that the daemon does not implement; it still locks exclusively.
constexpr uint32_t kUnimplementedLockType = 4;

}  // namespace

bool LockManagerDaemon::HandleLock(const SocketAddress& sender, const LockRequest& request,
                                   LockReply* reply) {
  // A lock may come before any open of the file.
  FileEntry* file = FindOrAddFile(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  RecordLock candidate{.offset = request.Offset(),
                       .length = request.Length(),
                       .clientfid = request.Clientfid(),
                       .shared = request.LockType() & 1};
  if (request.LockType() == kUnimplementedLockType) {
    TextBuilder message;
    message << "A call was made to an unimplemented function.\n"
               "A lock transaction has failed.Check the installation is not corrupted";
    log_.Error("locking/api/notimplemented", message, Severity::kRecoverable);
  }
  if (file->ranges.Conflicts(candidate)) {
    reply->SetStatus(ReplyStatus::kConflict);
    return true;
  }
  candidate.holder = holders_.Acquire(ClientKey::Of(sender, request.Session()));
  file->ranges.Append(candidate);
  return true;
}

bool LockManagerDaemon::HandleUnlock(const SocketAddress& sender, const LockRequest& request,
                                     LockReply* reply) {
  FileEntry* file = files_.Find(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  if (file == nullptr) {
    reply->SetStatus(ReplyStatus::kNotFound);
    return true;
  }
  // Only the exact range of one held lock matches; the shared mark is not compared.
  const uint32_t holder = holders_.Find(ClientKey::Of(sender, request.Session()));
  if (holder == HolderTable::kNone ||
      !file->ranges.RemoveFirst({.offset = request.Offset(),
                                 .length = request.Length(),
                                 .clientfid = request.Clientfid(),
                                 .holder = holder})) {
    reply->SetStatus(ReplyStatus::kNotFound);
    return true;
  }
  holders_.Release(holder);
  return true;
}

}  // namespace klv
