#ifndef KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_
#define KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "daemon/event_log.h"
#include "foundation/descriptor.h"
#include "foundation/descriptor_stream.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"
#include "lockservice/client_table.h"
#include "lockservice/cluster_seam.h"
#include "lockservice/file_entry.h"
#include "lockservice/holder_table.h"
#include "lockservice/lock_request.h"
#include "lockservice/reply_sink.h"
#include "lockservice/wait_table.h"

namespace klv {

// The one daemon object: the logs, the sink that replies go out through, the
// check period, and the tables of clients, files and waits. Everything a
// request handler reads or changes lives here, so a test or a fuzzer can build
// one, hand it a sink and drive Dispatch with any datagram and sender.
class LockManagerDaemon {
 public:
  static constexpr uint32_t kCheckPeriodSeconds = 60;

  // Empty tables, no reply sink yet.
  explicit LockManagerDaemon(const RefString& log_directory);
  ~LockManagerDaemon();
  LockManagerDaemon(const LockManagerDaemon&) = delete;
  LockManagerDaemon& operator=(const LockManagerDaemon&) = delete;

  EventLog& Log() { return log_; }
  // Where replies and the daemon's own messages go; the caller keeps
  // ownership. Set before the first Dispatch or sweep.
  void SetReplySink(ReplySink* sink) { sink_ = sink; }
  // For tests: replaces the C library's rand as the source of the sweep's
  // random draws (whom to probe, where the purge of idle files starts).
  void SetRandomSourceForTesting(std::function<uint32_t()> random) { random_ = std::move(random); }
  uint32_t CheckPeriod() const { return check_period_; }
  // Cluster mode: every request that touches a file is decided through
  // `cluster`, which the caller keeps alive. Set before the first Dispatch;
  // without it the daemon runs standalone.
  void SetCluster(ClusterSeam* cluster);
  // The node has lost the cluster: every held request is refused.
  void RefuseHeldRequests();
  // The share classes and byte ranges that the tables hold for the file.
  FileHoldings HoldingsOf(const FileKey& key) const;

  // Handles one datagram of `size` bytes from `sender`: decodes the request,
  // runs its handler and sends the reply when it is due now. Any bytes are
  // safe; a datagram of no bytes is dropped unanswered.
  void Dispatch(const SocketAddress& sender, const unsigned char* data, size_t size);
  // Sends the reply that a request is owed through the sink's synchronous
  // writer: Dispatch for each reply due at once, and whoever finishes a
  // request whose handler deferred its reply, later.
  void SendOwedReply(OwedReply* owed);
  // The periodic dead-client check: purges idle files, probes clients and
  // releases those that did not answer the previous probe.
  void SweepClients();
  // Writes the status report to `out`; changes nothing.
  void WriteStatusReport(OutputStream& out) const;
  // For tests and the fuzzer: checks that the tables hold together: keys
  // unique and found where they belong, counts matching the lists, no two
  // opens of a file or granted ranges in conflict, every range seen by the
  // conflict check and counted by its holder, every wait's holders present
  // and listing the wait. Returns a description of the first violation, or
  // an empty text.
  RefString CheckTablesForTesting() const;
  // Builds the status report and writes it to `connection`, abandoning the
  // rest silently when the connection fails or closes. `on_progress` is
  // called whenever bytes go out.
  void SendStatusReport(Descriptor* connection,
                        DescriptorStream::ProgressHook on_progress = nullptr) const;
  // True when many byte-range locks were released since the last
  // ReturnMemory, whose memory the process may still keep.
  bool HasMemoryToReturn() const;
  // Hands the free memory of the heap back to the system. Takes a while on a
  // large heap: best called when no request is waiting.
  void ReturnMemory();

 private:
  // Handlers: each fills the owed reply and says whether it is due now.
  ReplyDue HandleOpen(const LockRequest& request, OwedReply* owed);
  ReplyDue HandleClose(const LockRequest& request, OwedReply* owed);
  ReplyDue HandleLock(const LockRequest& request, OwedReply* owed);
  ReplyDue HandleUnlock(const LockRequest& request, OwedReply* owed);
  ReplyDue HandleOplockRelease(const LockRequest& request, OwedReply* owed);
  ReplyDue HandleClientEnd(const LockRequest& request, OwedReply* owed);
  // Sends the answer to a probe itself, or marks the client alive when the
  // probe is the answer to the daemon's own; the request gets no reply.
  ReplyDue HandleProbe(const LockRequest& request, const OwedReply& owed);
  // Adds `open` to the file's opens, and `path` as its path when it differs.
  void GrantOpen(FileEntry* file, const OpenLock& open, std::string_view path);

  // clients.cc
  // Creates the client's entry in state OK, or gives an existing one `name`.
  void RegisterClient(const ClientKey& key, std::string_view name);
  // The client answered a probe: activity tick = now, state OK.
  void MarkAlive(const ClientKey& key);
  // Releases every lock and wait of the client, sending MSG_OPEN_RETRY to
  // the waiters that its oplocks held up last; its entry stays.
  void EndClient(const ClientKey& key);
  // Sends the client a probe when it is in state OK and silent since the
  // last sweep.
  void SendProbeIfSilent(const ClientKey& key);
  void SendProbe(ClientEntry* client);
  // Walks the client table, sending a probe to each silent OK client drawn
  // with chance 1/m and adding it to `probed`, up to the first client found
  // dead (and not probed by this sweep), which it returns; nullptr at the end.
  ClientEntry* SendProbesUntilOneIsDead(uint32_t m, std::vector<const ClientEntry*>* probed);
  void ReleaseDeadClient(ClientEntry* client);
  void WriteDeadClientNotice(const ClientEntry& client);

  // opens.cc
  FileEntry* FindOrAddFile(const FileKey& key);

  // record_locks.cc
  // The lock that the request asks for, holder not yet set; a lock type
  // that is not implemented writes its error record.
  RecordLock LockCandidate(const LockRequest& request);

  // oplocks.cc
  // Sends MSG_OPLOCK_BREAK to the holder of every oplock of the file and
  // makes `requester` wait for them all: true, with the new wait id in
  // `wait_id`, when the file had oplocks; false when it had none.
  bool SendBreaksAndWait(const LockRequest& request, const ClientKey& requester, FileEntry* file,
                         uint32_t* wait_id);
  // Whether an open that met no oplock may have one: it asks for one, is no
  // retry, and nobody has the file open.
  static bool OplockGrantable(const LockRequest& request, const FileEntry& file);
  // Drops the wait `id` and its mention in its holders' lists; an unknown id
  // changes nothing.
  void WithdrawWait(uint32_t id);
  // Releases every oplock of the file held by `client` under `clientfid`,
  // sending MSG_OPEN_RETRY to each waiter that waited for them last.
  void ReleaseOplocksAndSendRetries(FileEntry* file, const ClientKey& client, uint32_t clientfid);
  // The same for every oplock of the file that `matches`, in list order.
  void ReleaseOplocksWhereAndSendRetries(FileEntry* file,
                                         const std::function<bool(const OpLock&)>& matches);
  // Removes the oplock at `slot`, sending MSG_OPEN_RETRY to each waiter that
  // waited for it last.
  void ReleaseOplockAndSendRetries(FileEntry* file, uint32_t slot);

  // table_check.cc
  RefString CheckHolders() const;

  // clustered.cc
  struct HeldRequest;
  // Takes a request of cluster mode: false for the codes that need no
  // cluster, which Dispatch handles as standalone.
  bool DispatchClustered(const SocketAddress& sender, const unsigned char* data, size_t size);
  enum class AtOnce {
    kAnswered,          // decided and answered (or owed no reply)
    kReleasedForStore,  // a release done here, to be answered once the store has it
    kHeld,              // to be held in the file's queue and decided there
  };
  // Decides a request on `file`, which has nothing queued, where that needs
  // no store; the reply is filled in `owed`.
  AtOnce DecideAtOnce(const LockRequest& request, const FileKey& file, OwedReply* owed);
  // Decides the requests at the head of the file's queue, up to the first
  // that waits for the store.
  void RunQueue(const FileKey& key);
  bool DecideHeld(const std::shared_ptr<HeldRequest>& held);
  bool DecideOpen(const LockRequest& request, const std::shared_ptr<HeldRequest>& held);
  bool DecideLock(const LockRequest& request, const std::shared_ptr<HeldRequest>& held);
  void DeferExpired(const std::shared_ptr<HeldRequest>& held);
  // The standalone handler of a close, an unlock or an oplock release.
  ReplyDue HandleRelease(const LockRequest& request, OwedReply* owed);
  // True when the store must have the file's holdings before the release
  // that left them is answered.
  bool ReleaseNeedsStore(ReplyDue due, const FileKey& file) const;
  // Writes the file's holdings; `held` is answered and its queue moves on
  // once the store has them.
  void PublishRelease(const std::shared_ptr<HeldRequest>& held);
  // The file's entry, or nullptr with the refusal in `reply` when this
  // node's own opens conflict with `candidate`.
  FileEntry* OpenAgreesHere(const LockRequest& request, const FileKey& key,
                            const OpenLock& candidate, LockReply* reply);
  void Answer(HeldRequest* held);
  // EndClient, then the files it touched written to the store; `synced`
  // runs once they are.
  void EndClientClustered(const ClientKey& key, std::function<void()> synced);

  EventLog log_;
  ReplySink* sink_ = nullptr;
  uint32_t check_period_ = kCheckPeriodSeconds;
  ClientTable clients_;
  FileTable files_;
  HolderTable holders_;  // the clients that hold byte-range locks
  WaitTable waits_;
  std::function<uint32_t()> random_ = [] { return static_cast<uint32_t>(std::rand()); };
  uint32_t sweep_tick_ = 1;
  uint32_t last_wait_id_ = 0;       // wait ids start at 1
  uint32_t last_oplock_id_ = 0;     // serial ids of granted oplocks
  ClusterSeam* cluster_ = nullptr;  // cluster mode only
  // Cluster mode: the requests held per file, in arrival order.
  std::unordered_map<uint64_t, std::deque<std::shared_ptr<HeldRequest>>> held_;
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_
