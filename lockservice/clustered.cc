// Cluster mode: the requests that touch a file are held in one queue per
// file and decided in arrival order; a decision that needs the other nodes
// waits for the store while other files' requests are served. Standalone the
// daemon has no cluster and none of this runs.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lockservice/lock_manager_daemon.h"
#include "lockservice/serial_ids.h"
#include "lockservice/share_modes.h"

namespace klv {

namespace {

uint64_t QueueKey(const FileKey& file) { return (uint64_t{file.hi} << 32) | file.lo; }

}  // namespace

// A request held for its file's queue: its bytes (decoded again when it is
// decided), the reply it is owed, and where it stands.
struct LockManagerDaemon::HeldRequest {
  explicit HeldRequest(const OwedReply& reply) : owed(reply) {}
  std::string bytes;
  OwedReply owed;
  ClientKey client;
  FileKey file;
  bool decided = false;   // taken from the queue and decided, or sent to the store
  bool finished = false;  // answered (or dropped): nothing more happens to it
};

void LockManagerDaemon::SetCluster(ClusterSeam* cluster) {
  cluster_ = cluster;
  cluster_->SetHoldingsSource([this](const FileKey& key) { return HoldingsOf(key); });
}

FileHoldings LockManagerDaemon::HoldingsOf(const FileKey& key) const {
  FileHoldings holdings;
  const FileEntry* file = files_.Find(key);
  if (file == nullptr) return holdings;
  for (uint32_t slot = 0; slot < file->opens.Count(); ++slot) {
    holdings.classes |= 1u << ShareIndex(file->opens[slot].openmode);
  }
  file->ranges.ForEach([&holdings](const RecordLock& lock) {
    holdings.ranges.push_back({lock.offset, lock.length, lock.shared != 0});
  });
  return holdings;
}

bool LockManagerDaemon::DispatchClustered(const SocketAddress& sender, const unsigned char* data,
                                          size_t size) {
  LockRequest request;
  request.Decode(data, size);
  const uint32_t code = request.Code();
  const bool on_file = code == REQ_OPEN || code == REQ_CLOSE || code == REQ_LOCK ||
                       code == REQ_UNLOCK || code == REQ_OPLOCK_RELEASE;
  if (!on_file && code != REQ_CLIENT_END) return false;
  OwedReply owed{sender, LockReply(code, request.Tag())};
  const FileKey file{request.FilekeyHi(), request.FilekeyLo()};
  // With nothing queued for the file the request is decided at once, as it
  // would be at the head of its queue.
  const AtOnce at_once = on_file && !held_.contains(QueueKey(file))
                             ? DecideAtOnce(request, file, &owed)
                             : AtOnce::kHeld;
  if (at_once == AtOnce::kAnswered) return true;
  auto held = std::make_shared<HeldRequest>(owed);
  held->client = ClientKey::Of(sender, request.Session());
  if (code == REQ_CLIENT_END) {
    EndClientClustered(held->client, [this, held] { Answer(held.get()); });
  } else {
    held->bytes.assign(reinterpret_cast<const char*>(data), size);
    held->file = file;
    std::deque<std::shared_ptr<HeldRequest>>& queue = held_[QueueKey(file)];
    queue.push_back(held);
    if (at_once == AtOnce::kReleasedForStore) {
      held->decided = true;
      PublishRelease(held);
    } else if (queue.size() == 1) {
      RunQueue(file);
    }
  }
  if (!held->finished) cluster_->After(cluster_->DeferMs(), [this, held] { DeferExpired(held); });
  return true;
}

// Nothing is held for an open of a class that the store holds already, nor
// for a release that leaves the store's holdings as they are.
LockManagerDaemon::AtOnce LockManagerDaemon::DecideAtOnce(const LockRequest& request,
                                                          const FileKey& file, OwedReply* owed) {
  if (request.Code() == REQ_LOCK) return AtOnce::kHeld;
  if (request.Code() == REQ_OPEN) {
    if (!cluster_->Settled(file, ShareIndex(request.OpenMode()))) return AtOnce::kHeld;
    const OpenLock candidate{ClientKey::Of(owed->to, request.Session()), request.OpenMode(),
                             request.Clientfid()};
    FileEntry* entry = OpenAgreesHere(request, file, candidate, &owed->reply);
    if (entry != nullptr) GrantOpen(entry, candidate, request.Path());
    SendOwedReply(owed);
    return AtOnce::kAnswered;
  }
  const ReplyDue due = HandleRelease(request, owed);
  if (ReleaseNeedsStore(due, file)) return AtOnce::kReleasedForStore;
  if (due == ReplyDue::kNow) SendOwedReply(owed);
  return AtOnce::kAnswered;
}

void LockManagerDaemon::Answer(HeldRequest* held) {
  if (held->finished) return;
  held->finished = true;
  SendOwedReply(&held->owed);
}

void LockManagerDaemon::RunQueue(const FileKey& key) {
  const auto found = held_.find(QueueKey(key));
  if (found == held_.end()) return;
  std::deque<std::shared_ptr<HeldRequest>>& queue = found->second;
  while (!queue.empty()) {
    HeldRequest* front = queue.front().get();
    if (!front->finished) {
      if (front->decided) return;  // the store has it
      front->decided = true;
      if (DecideHeld(queue.front())) return;
    }
    queue.pop_front();
  }
  held_.erase(found);
}

// True when the request went to the store; otherwise it is answered.
bool LockManagerDaemon::DecideHeld(const std::shared_ptr<HeldRequest>& held) {
  LockRequest request;
  request.Decode(reinterpret_cast<const unsigned char*>(held->bytes.data()), held->bytes.size());
  if (request.Code() == REQ_OPEN) return DecideOpen(request, held);
  if (request.Code() == REQ_LOCK) return DecideLock(request, held);
  const ReplyDue due = HandleRelease(request, &held->owed);
  if (ReleaseNeedsStore(due, held->file)) {
    PublishRelease(held);
    return true;
  }
  if (due == ReplyDue::kNow) SendOwedReply(&held->owed);
  held->finished = true;
  return false;
}

ReplyDue LockManagerDaemon::HandleRelease(const LockRequest& request, OwedReply* owed) {
  switch (request.Code()) {
    case REQ_CLOSE:
      return HandleClose(request, owed);
    case REQ_UNLOCK:
      return HandleUnlock(request, owed);
    default:
      return HandleOplockRelease(request, owed);
  }
}

// A release is answered once the store has it, so that another node may
// count on it from the reply on.
bool LockManagerDaemon::ReleaseNeedsStore(ReplyDue due, const FileKey& file) const {
  return due == ReplyDue::kNow && !cluster_->Holds(file, HoldingsOf(file));
}

void LockManagerDaemon::PublishRelease(const std::shared_ptr<HeldRequest>& held) {
  cluster_->Publish(held->file, {}, [this, held](ClusterSeam::Verdict) {
    Answer(held.get());
    RunQueue(held->file);
  });
}

bool LockManagerDaemon::DecideOpen(const LockRequest& request,
                                   const std::shared_ptr<HeldRequest>& held) {
  const OpenLock candidate{held->client, request.OpenMode(), request.Clientfid()};
  held->finished = true;
  FileEntry* file = OpenAgreesHere(request, held->file, candidate, &held->owed.reply);
  if (file == nullptr) {
    SendOwedReply(&held->owed);
    return false;
  }
  const int share_class = ShareIndex(candidate.openmode);
  if (cluster_->Settled(held->file, share_class)) {
    GrantOpen(file, candidate, request.Path());
    SendOwedReply(&held->owed);
    return false;
  }
  held->finished = false;
  const std::string path(request.Path());
  cluster_->Publish(held->file, {1u << share_class, {}},
                    [this, held, candidate, path](ClusterSeam::Verdict verdict) {
                      if (held->finished) return;
                      if (verdict == ClusterSeam::Verdict::kGranted) {
                        GrantOpen(FindOrAddFile(held->file), candidate, path);
                      } else {
                        held->owed.reply.SetStatus(ReplyStatus::kConflict);
                      }
                      Answer(held.get());
                      RunQueue(held->file);
                    });
  return true;
}

// As the standalone daemon takes an open, without oplocks.
FileEntry* LockManagerDaemon::OpenAgreesHere(const LockRequest& request, const FileKey& key,
                                             const OpenLock& candidate, LockReply* reply) {
  RegisterClient(candidate.client, request.ClientName());
  FileEntry* file = FindOrAddFile(key);
  reply->SetOplockGranted(0);  // no oplocks in cluster mode
  if (request.WaitId() != 0) WithdrawWait(request.WaitId());
  if (AgreesWithOpens(*file, candidate)) return file;
  reply->SetStatus(ReplyStatus::kConflict);
  return nullptr;
}

bool LockManagerDaemon::DecideLock(const LockRequest& request,
                                   const std::shared_ptr<HeldRequest>& held) {
  FileEntry* file = FindOrAddFile(held->file);
  const RecordLock candidate = LockCandidate(request);
  if (file->ranges.Conflicts(candidate)) {
    held->owed.reply.SetStatus(ReplyStatus::kConflict);
    Answer(held.get());
    return false;
  }
  const HeldRange wanted{candidate.offset, candidate.length, candidate.shared != 0};
  cluster_->Publish(
      held->file, {0, {wanted}}, [this, held, candidate](ClusterSeam::Verdict verdict) {
        if (held->finished) return;
        FileEntry* granted = FindOrAddFile(held->file);
        if (verdict == ClusterSeam::Verdict::kGranted && !granted->ranges.Conflicts(candidate)) {
          RecordLock lock = candidate;
          lock.holder = holders_.Acquire(held->client);
          granted->ranges.Append(lock);
        } else {
          held->owed.reply.SetStatus(ReplyStatus::kConflict);
        }
        Answer(held.get());
        RunQueue(held->file);
      });
  return true;
}

// A request held past the defer time because the store is slow: an open is
// told to wait and gets a retry notice once the store answers again; a lock
// is refused; a release already done here is answered as it was decided.
void LockManagerDaemon::DeferExpired(const std::shared_ptr<HeldRequest>& held) {
  if (held->finished) return;
  LockRequest request;
  request.Decode(reinterpret_cast<const unsigned char*>(held->bytes.data()), held->bytes.size());
  if (request.Code() == REQ_OPEN) {
    const uint32_t wait_id = NextFreeId(
        &last_wait_id_, [this](uint32_t taken) { return waits_.Find(taken) != nullptr; });
    held->owed.reply.SetStatus(ReplyStatus::kWait);
    held->owed.reply.SetValue(wait_id);
    const ClientKey client = held->client;
    cluster_->WhenStoreAnswers([this, client, wait_id] {
      LockReply notice(MSG_OPEN_RETRY, 0);
      notice.SetValue(wait_id);
      notice.SetWaiterSession(client.session);
      sink_->SendAsync(client.Address(), notice.Bytes());
    });
  } else if (request.Code() == REQ_LOCK) {
    held->owed.reply.SetStatus(ReplyStatus::kConflict);
  } else if (!held->decided && !held->bytes.empty()) {
    return;  // a release behind an open or a lock that is answered first
  }
  Answer(held.get());
  if (!held->bytes.empty()) RunQueue(held->file);
}

void LockManagerDaemon::EndClientClustered(const ClientKey& key, std::function<void()> synced) {
  // The client's held requests are dropped unanswered, also those that wait
  // for the store (whatever they wrote there is written back): it has ended.
  std::vector<FileKey> moved;
  for (auto& [file, queue] : held_) {
    for (const std::shared_ptr<HeldRequest>& held : queue) {
      if (held->client == key) held->finished = true;
    }
    if (queue.front()->finished) moved.push_back(queue.front()->file);
  }
  for (const FileKey& file : moved) RunQueue(file);
  std::vector<FileKey> touched;
  const uint32_t holder = holders_.Find(key);
  for (HashSetIterator<FileEntry, FileTraits> it(files_); it.Advance();) {
    const FileEntry& file = *it.Current();
    bool holds = false;
    for (uint32_t slot = 0; slot < file.opens.Count() && !holds; ++slot) {
      holds = file.opens[slot].client == key;
    }
    file.ranges.ForEach([&](const RecordLock& lock) { holds = holds || lock.holder == holder; });
    if (holds) touched.push_back(file.key);
  }
  EndClient(key);
  auto left = std::make_shared<size_t>(1);
  auto one_done = [left, synced] {
    if (--*left == 0 && synced) synced();
  };
  for (const FileKey& file : touched) {
    if (cluster_->Holds(file, HoldingsOf(file))) continue;
    ++*left;
    cluster_->Publish(file, {}, [one_done](ClusterSeam::Verdict) { one_done(); });
  }
  one_done();
}

void LockManagerDaemon::RefuseHeldRequests() {
  for (auto& [file, queue] : held_) {
    for (const std::shared_ptr<HeldRequest>& held : queue) {
      held->owed.reply.SetStatus(ReplyStatus::kConflict);
      Answer(held.get());
    }
  }
  held_.clear();
}

}  // namespace klv
