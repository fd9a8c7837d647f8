// The client table: registration, liveness probes, the end of a client and
// the periodic sweep that releases clients which stopped answering.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "lockservice/lock_manager_daemon.h"
#include "protocol/version.h"

namespace klv {

ReplyDue LockManagerDaemon::HandleClientEnd(const LockRequest& request, OwedReply* owed) {
  EndClient(ClientKey::Of(owed->to, request.Session()));
  return ReplyDue::kNow;
}

void LockManagerDaemon::RegisterClient(const ClientKey& key, std::string_view name) {
  ClientEntry* client = clients_.Find(key);
  if (client == nullptr) {
    clients_.Insert(new ClientEntry(key, RefString(name)));
  } else if (!client->name.Equals(name)) {
    client->name = RefString(name);
  }
}

void LockManagerDaemon::MarkAlive(const ClientKey& key) {
  ClientEntry* client = clients_.Find(key);
  if (client == nullptr) return;
  client->activity_tick = sweep_tick_;
  client->state = ClientState::kOk;
}

void LockManagerDaemon::EndClient(const ClientKey& key) {
  const uint32_t holder = holders_.Find(key);
  for (HashSetIterator<FileEntry, FileTraits> it(files_); it.Advance();) {
    FileEntry* file = it.Current();
    if (holder != HolderTable::kNone) {
      holders_.Release(holder, file->ranges.RemoveWhere([holder](const RecordLock& lock) {
        return lock.holder == holder;
      }));
    }
    ReleaseOplocksWhereAndSendRetries(
        file, [&key](const OpLock& oplock) { return oplock.client == key; });
    file->opens.RemoveWhere([&key](const OpenLock& open) { return open.client == key; });
  }
  // The wait table must not change while it is walked: collect, then withdraw.
  std::vector<uint32_t> own_waits;
  for (HashSetIterator<WaitEntry, WaitTraits> it(waits_); it.Advance();) {
    if (it.Current()->client == key) own_waits.push_back(it.Current()->id);
  }
  for (uint32_t id : own_waits) WithdrawWait(id);
  MarkAlive(key);
}

void LockManagerDaemon::SendProbeIfSilent(const ClientKey& key) {
  ClientEntry* client = clients_.Find(key);
  if (client == nullptr) return;
  if (client->state == ClientState::kOk && client->activity_tick < sweep_tick_) {
    SendProbe(client);
  }
}

// The probe is a request record: code REQ_PROBE, tag kProbeTag, the client's
// session and zeros in the head, then the version and wantreply 1. It goes out
// through the synchronous writer, as a reply does.
void LockManagerDaemon::SendProbe(ClientEntry* client) {
  client->state = ClientState::kWait;
  LockRequest probe;
  probe.SetCode(REQ_PROBE);
  probe.SetTag(kProbeTag);
  probe.SetSession(client->session_id);
  probe.SetVersion(kProtocolVersion);
  probe.SetWantReply(1);
  sink_->SendReply(client->Key().Address(), probe.Bytes());
  client->probe_tick = sweep_tick_;
  client->activity_tick = 0;
}

void LockManagerDaemon::SweepClients() {
  files_.SetPurgeLimit(files_.Size() / 2);
  files_.Purge(random_);
  // Each OK client is probed with chance 1/m, so about two per sweep.
  const uint32_t m = clients_.Size() / 2 + 1;
  // Releasing a client changes the table, so the walk starts over after each.
  // A client probed by this sweep is in WAIT when the walk comes round again;
  // it must have until the next sweep to answer, so it is passed over.
  std::vector<const ClientEntry*> probed;
  while (ClientEntry* dead = SendProbesUntilOneIsDead(m, &probed)) ReleaseDeadClient(dead);
  ++sweep_tick_;
}

ClientEntry* LockManagerDaemon::SendProbesUntilOneIsDead(uint32_t m,
                                                         std::vector<const ClientEntry*>* probed) {
  for (HashSetIterator<ClientEntry, ClientTraits> it(clients_); it.Advance();) {
    ClientEntry* client = it.Current();
    if (client->state == ClientState::kOk) {
      if (random_() % m != 0) continue;
      if (client->activity_tick >= sweep_tick_) continue;
      SendProbe(client);
      probed->push_back(client);
    } else if (sweep_tick_ > client->activity_tick + 1 &&
               std::find(probed->begin(), probed->end(), client) == probed->end()) {
      return client;
    }
  }
  return nullptr;
}

void LockManagerDaemon::ReleaseDeadClient(ClientEntry* client) {
  WriteDeadClientNotice(*client);
  const ClientKey key = client->Key();
  if (cluster_ != nullptr) {
    EndClientClustered(key, nullptr);
  } else {
    EndClient(key);
  }
  clients_.Remove(key);
  delete client;
}

void LockManagerDaemon::WriteDeadClientNotice(const ClientEntry& client) {
  FileStream err(stderr);
  err << "\n" << kDaemonName << " NOTICE:\n\nThe Kelvane server process acting on behalf of ";
  WriteNameField(err, client.name);
  err << "\nhas stopped responding.  Checking your server logs will help\n"
         "establish the cause.  Locks owned by the machine are being released.\n";
  // The listing names the dead session's opens by session id alone.
  for (HashSetIterator<FileEntry, FileTraits> it(files_); it.Advance();) {
    const FileEntry& file = *it.Current();
    for (uint32_t slot = 0; slot < file.opens.Count(); ++slot) {
      if (file.opens[slot].client.session != client.session_id) continue;
      err << "[" << file.key.hi << "," << file.key.lo << "] = " << file.path << "\n";
    }
  }
  err.Flush();
}

}  // namespace klv
