// Byte-range locks: REQ_LOCK and REQ_UNLOCK. A conflict is refused at once;
// nothing is queued.
#include "lockservice/lock_manager_daemon.h"

namespace klv {

RecordLock LockManagerDaemon::LockCandidate(const LockRequest& request) {
  if (request.LockType() == kLockTypeUnimplemented) {
    TextBuilder message;
    message << "A call was made to an unimplemented function.\n"
               "A lock transaction has failed.Check the installation is not corrupted";
    log_.Error("locking/api/notimplemented", message, Severity::kRecoverable);
  }
  return {.offset = request.Offset(),
          .length = request.Length(),
          .clientfid = request.Clientfid(),
          .shared = request.LockType() & kLockSharedBit};
}

ReplyDue LockManagerDaemon::HandleLock(const LockRequest& request, OwedReply* owed) {
  // A lock may come before any open of the file.
  FileEntry* file = FindOrAddFile(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  RecordLock candidate = LockCandidate(request);
  if (file->ranges.Conflicts(candidate)) {
    owed->reply.SetStatus(ReplyStatus::kConflict);
    return ReplyDue::kNow;
  }
  candidate.holder = holders_.Acquire(ClientKey::Of(owed->to, request.Session()));
  file->ranges.Append(candidate);
  return ReplyDue::kNow;
}

ReplyDue LockManagerDaemon::HandleUnlock(const LockRequest& request, OwedReply* owed) {
  FileEntry* file = files_.Find(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  if (file == nullptr) {
    owed->reply.SetStatus(ReplyStatus::kNotFound);
    return ReplyDue::kNow;
  }
  // Only the exact range of one held lock matches; the shared mark is not compared.
  const uint32_t holder = holders_.Find(ClientKey::Of(owed->to, request.Session()));
  if (holder == HolderTable::kNone || !file->ranges.RemoveFirst({.offset = request.Offset(),
                                                                 .length = request.Length(),
                                                                 .clientfid = request.Clientfid(),
                                                                 .holder = holder})) {
    owed->reply.SetStatus(ReplyStatus::kNotFound);
    return ReplyDue::kNow;
  }
  holders_.Release(holder);
  return ReplyDue::kNow;
}

}  // namespace klv
