// Opportunistic locks: the decision an open takes first, the breaks sent to
// holders, the waits they hold up and the retry notices sent on release.
#include <algorithm>
#include <cassert>

#include "lockservice/lock_manager_daemon.h"
#include "lockservice/serial_ids.h"

namespace klv {

bool LockManagerDaemon::SendBreaksAndWait(const LockRequest& request, const ClientKey& requester,
                                          FileEntry* file, uint32_t* wait_id) {
  WaitEntry* wait = nullptr;
  // Every oplock is broken, the requester's own under other clientfids too.
  for (uint32_t slot = 0; slot < file->oplocks.Count(); ++slot) {
    OpLock& holder = file->oplocks[slot];
    LockReply message(MSG_OPLOCK_BREAK, 0);
    message.SetBreak(request.FilekeyHi(), request.FilekeyLo(), holder.clientfid,
                     holder.client.session);
    SendProbeIfSilent(holder.client);
    sink_->SendAsync(holder.client.Address(), message.Bytes());
    if (wait == nullptr) {
      const uint32_t id = NextFreeId(
          &last_wait_id_, [this](uint32_t taken) { return waits_.Find(taken) != nullptr; });
      wait = new WaitEntry{id, requester, file->key, {}};
    }
    holder.waits.push_back(wait->id);
    wait->holders.push_back(holder.id);
  }
  if (wait == nullptr) return false;
  [[maybe_unused]] const InsertResult inserted = waits_.Insert(wait);
  assert(inserted == InsertResult::kInserted);  // the id was free
  *wait_id = wait->id;
  return true;
}

// A retried open never gets an oplock, nor does one that finds the file open.
bool LockManagerDaemon::OplockGrantable(const LockRequest& request, const FileEntry& file) {
  return request.OplockWanted() != 0 && request.WaitId() == 0 && file.opens.IsEmpty();
}

void LockManagerDaemon::WithdrawWait(uint32_t id) {
  WaitEntry* wait = waits_.Find(id);
  if (wait == nullptr) return;
  // The holders are oplocks of the wait's file; a file the sweep has deleted
  // held no oplocks any more.
  FileEntry* file = files_.Find(wait->file);
  if (file != nullptr) {
    for (uint32_t slot = 0; slot < file->oplocks.Count(); ++slot) {
      OpLock& oplock = file->oplocks[slot];
      if (std::find(wait->holders.begin(), wait->holders.end(), oplock.id) == wait->holders.end()) {
        continue;
      }
      std::erase(oplock.waits, id);
    }
  }
  waits_.Remove(id);
  delete wait;
}

void LockManagerDaemon::ReleaseOplocksAndSendRetries(FileEntry* file, const ClientKey& client,
                                                     uint32_t clientfid) {
  if (file->oplocks.IsEmpty()) return;
  ReleaseOplocksWhereAndSendRetries(file, [&](const OpLock& oplock) {
    return oplock.client == client && oplock.clientfid == clientfid;
  });
}

void LockManagerDaemon::ReleaseOplocksWhereAndSendRetries(
    FileEntry* file, const std::function<bool(const OpLock&)>& matches) {
  uint32_t slot = 0;
  while (slot < file->oplocks.Count()) {
    if (matches(file->oplocks[slot])) {
      ReleaseOplockAndSendRetries(file, slot);  // the later oplocks move down into `slot`
    } else {
      ++slot;
    }
  }
}

void LockManagerDaemon::ReleaseOplockAndSendRetries(FileEntry* file, uint32_t slot) {
  const OpLock& oplock = file->oplocks[slot];
  for (uint32_t wait_id : oplock.waits) {
    WaitEntry* wait = waits_.Find(wait_id);
    if (wait == nullptr) continue;
    std::erase(wait->holders, oplock.id);
    if (!wait->holders.empty()) continue;
    // The wait stays listed until the waiter retries or ends.
    LockReply notice(MSG_OPEN_RETRY, 0);
    notice.SetValue(wait_id);
    notice.SetWaiterSession(wait->client.session);
    sink_->SendAsync(wait->client.Address(), notice.Bytes());
  }
  file->oplocks.RemoveAt(slot);
}

ReplyDue LockManagerDaemon::HandleOplockRelease(const LockRequest& request, OwedReply* owed) {
  FileEntry* file = files_.Find(FileKey{request.FilekeyHi(), request.FilekeyLo()});
  if (file == nullptr) {
    owed->reply.SetStatus(ReplyStatus::kUnknown);
    return ReplyDue::kNow;
  }
  // The open stays: giving up the oplock does not close the file.
  ReleaseOplocksAndSendRetries(file, ClientKey::Of(owed->to, request.Session()),
                               request.Clientfid());
  return ReplyDue::kNow;
}

}  // namespace klv
