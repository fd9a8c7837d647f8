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
  const RecordLock candidate{ClientKey::Of(sender, request.Session()), request.Offset(),
                             request.Length(), request.Clientfid(), request.LockType() & 1};
  if (request.LockType() == kUnimplementedLockType) {
    TextBuilder message;
    message << "A call was made to an unimplemented function.\n"
               "A lock transaction has failed.Check the installation is not corrupted";
    log_.Error("locking/api/notimplemented", message, Severity::kRecoverable);
  }
  for (uint32_t slot = 0; slot < file->ranges.Count(); ++slot) {
    if (RangesConflict(candidate, file->ranges[slot])) {
      reply->SetStatus(ReplyStatus::kConflict);
      return true;
    }
  }
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
  const ClientKey client = ClientKey::Of(sender, request.Session());
  for (uint32_t slot = 0; slot < file->ranges.Count(); ++slot) {
    const RecordLock& held = file->ranges[slot];
    if (held.offset == request.Offset() && held.length == request.Length() &&
        held.client == client && held.clientfid == request.Clientfid()) {
      file->ranges.RemoveAt(slot);
      return true;
    }
  }
  reply->SetStatus(ReplyStatus::kNotFound);
  return true;
}

}  // namespace klv
