// Share-mode locks: REQ_OPEN and REQ_CLOSE.
#include "lockservice/lock_manager_daemon.h"
#include "lockservice/serial_ids.h"
#include "lockservice/share_modes.h"

namespace klv {

FileEntry* LockManagerDaemon::FindOrAddFile(const FileKey& key) {
  FileEntry* file = files_.Find(key);
  if (file == nullptr) {
    file = new FileEntry(key);
    files_.Insert(file);
  }
  return file;
}

ReplyDue LockManagerDaemon::HandleOpen(const LockRequest& request, OwedReply* owed) {
  LockReply* reply = &owed->reply;
  const ClientKey requester = ClientKey::Of(owed->to, request.Session());
  RegisterClient(requester, request.ClientName());
  FileEntry* file = FindOrAddFile(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  const OpenLock candidate{requester, request.OpenMode(), request.Clientfid()};
  reply->SetOplockGranted(0);
  // A nonzero wait id makes this the retry of an open that had to wait.
  if (request.WaitId() != 0) WithdrawWait(request.WaitId());

  uint32_t wait_id = 0;
  if (SendBreaksAndWait(request, requester, file, &wait_id)) {
    reply->SetStatus(ReplyStatus::kWait);
    reply->SetValue(wait_id);
    SendProbeIfSilent(requester);
    return ReplyDue::kNow;
  }
  if (!AgreesWithOpens(*file, candidate)) {
    reply->SetStatus(ReplyStatus::kConflict);
    return ReplyDue::kNow;
  }
  if (OplockGrantable(request, *file)) {
    // Waits find their holders among the file's oplocks by id.
    const uint32_t id = NextFreeId(&last_oplock_id_, [file](uint32_t taken) {
      for (uint32_t slot = 0; slot < file->oplocks.Count(); ++slot) {
        if (file->oplocks[slot].id == taken) return true;
      }
      return false;
    });
    file->oplocks.Append(OpLock{requester, request.OplockWanted(), request.Clientfid(), {}, id});
    reply->SetOplockGranted(1);
    SendProbeIfSilent(requester);
  }
  GrantOpen(file, candidate, request.Path());
  return ReplyDue::kNow;
}

// The same path again leaves the entry's string as it is, and so does an
// open without a path.
void LockManagerDaemon::GrantOpen(FileEntry* file, const OpenLock& open, std::string_view path) {
  file->opens.Append(open);
  if (!path.empty() && !file->path.Equals(path)) file->path = RefString(path);
}

ReplyDue LockManagerDaemon::HandleClose(const LockRequest& request, OwedReply* owed) {
  FileEntry* file = files_.Find(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  if (file == nullptr) return ReplyDue::kNow;
  const ClientKey client = ClientKey::Of(owed->to, request.Session());
  const uint32_t clientfid = request.Clientfid();
  const uint32_t holder = holders_.Find(client);
  if (holder != HolderTable::kNone) {
    holders_.Release(holder, file->ranges.RemoveWhere([&](const RecordLock& lock) {
      return lock.holder == holder && lock.clientfid == clientfid;
    }));
  }
  ReleaseOplocksAndSendRetries(file, client, clientfid);
  file->opens.RemoveWhere(
      [&](const OpenLock& open) { return open.client == client && open.clientfid == clientfid; });
  return ReplyDue::kNow;
}

}  // namespace klv
