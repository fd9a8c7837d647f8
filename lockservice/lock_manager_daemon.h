#ifndef KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_
#define KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "daemon/event_log.h"
#include "foundation/descriptor.h"
#include "foundation/descriptor_stream.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"
#include "lockservice/client_table.h"
#include "lockservice/file_entry.h"
#include "lockservice/holder_table.h"
#include "lockservice/lock_request.h"
#include "lockservice/wait_table.h"

namespace klv {

// The one daemon object: the logs, the UDP socket that replies go out on, the
// check period, and the tables of clients, files and waits. Everything a
// request handler reads or changes lives here, so a test or a fuzzer can build
// one, hand it a socket and drive Dispatch with any datagram and sender.
class LockManagerDaemon {
 public:
  static constexpr uint32_t kCheckPeriodSeconds = 60;

  // Empty tables, no UDP socket yet. `timeout` is kept and never read.
  LockManagerDaemon(int timeout, const RefString& log_directory);
  ~LockManagerDaemon();
  LockManagerDaemon(const LockManagerDaemon&) = delete;
  LockManagerDaemon& operator=(const LockManagerDaemon&) = delete;

  EventLog& Log() { return log_; }
  // The socket that replies and the daemon's own messages are sent through;
  // the caller keeps ownership.
  void SetUdpSocket(Socket* udp) { udp_ = udp; }
  // Where the sweep draws its random numbers (whom to probe, where the purge
  // of idle files starts): the C library's rand unless replaced.
  void SetRandomSource(std::function<uint32_t()> random) { random_ = std::move(random); }
  uint32_t CheckPeriod() const { return check_period_; }

  // Handles one datagram of `size` bytes from `sender`: decodes the request,
  // runs its handler and sends the reply that is due. Any bytes are safe.
  void Dispatch(const SocketAddress& sender, const unsigned char* data, size_t size);
  // The periodic dead-client check: purges idle files, probes clients and
  // releases those that did not answer the previous probe.
  void SweepClients();
  // Writes the status report to `out`; changes nothing.
  void WriteStatusReport(OutputStream& out);
  // Checks that the tables hold together: keys unique and found where they
  // belong, counts matching the lists, no two opens of a file or granted
  // ranges in conflict, every range seen by the conflict check and counted by
  // its holder, every wait's holders present and listing the wait.
  // Returns a description of the first violation, or an empty text.
  RefString CheckTables() const;
  // Builds the status report and writes it to `connection`, abandoning the
  // rest silently when the connection fails or closes. `on_progress` is
  // called whenever bytes go out.
  void SendStatusReport(Descriptor* connection,
                        DescriptorStream::ProgressHook on_progress = nullptr);
  // True when many byte-range locks were released since the last
  // ReturnMemory, whose memory the process may still keep.
  bool HasMemoryToReturn() const;
  // Hands the free memory of the heap back to the system. Takes a while on a
  // large heap: best called when no request is waiting.
  void ReturnMemory();

 private:
  // Which reply writer sends a datagram; it decides the failure events.
  enum class Writer { kSynchronous, kAsynchronous };

  // lock_manager_daemon.cc: the reply writers. A send that returns 0 is fatal;
  // any other failure is logged and the datagram dropped.
  void SendReply(const SocketAddress& to, LockReply* reply);
  void SendReply(const SocketAddress& to, LockRequest* message);
  void SendAsync(const SocketAddress& to, LockReply* message);
  void SendDatagram(const SocketAddress& to, std::string_view bytes, Writer writer);

  // Handlers: each fills the reply and answers whether it is due.
  bool HandleOpen(const SocketAddress& sender, const LockRequest& request, LockReply* reply);
  bool HandleClose(const SocketAddress& sender, const LockRequest& request, LockReply* reply);
  bool HandleLock(const SocketAddress& sender, const LockRequest& request, LockReply* reply);
  bool HandleUnlock(const SocketAddress& sender, const LockRequest& request, LockReply* reply);
  bool HandleOplockRelease(const SocketAddress& sender, const LockRequest& request,
                           LockReply* reply);
  bool HandleClientEnd(const SocketAddress& sender, const LockRequest& request, LockReply* reply);
  bool HandleProbe(const SocketAddress& sender, const LockRequest& request);

  // clients.cc
  // Creates the client's entry in state OK, or gives an existing one `name`.
  void RegisterClient(const ClientKey& key, std::string_view name);
  // The client answered a probe: activity tick = now, state OK.
  void MarkAlive(const ClientKey& key);
  // Releases every lock and wait of the client; its entry stays.
  void EndClient(const ClientKey& key);
  // Sends the client a probe when it is in state OK and silent since the
  // last sweep.
  void ProbeIfSilent(const ClientKey& key);
  void SendProbe(ClientEntry* client);
  // Walks the client table, sending a probe to each silent OK client drawn
  // with chance 1/m and adding it to `probed`, up to the first client found
  // dead (and not probed by this sweep), which it returns; nullptr at the end.
  ClientEntry* ProbeClientsUntilOneIsDead(uint32_t m, std::vector<const ClientEntry*>* probed);
  void ReleaseDeadClient(ClientEntry* client);
  void WriteDeadClientNotice(const ClientEntry& client);

  // opens.cc
  FileEntry* FindOrAddFile(const FileKey& key);

  // oplocks.cc
  // Sends MSG_OPLOCK_BREAK to the holder of every oplock of the file and
  // makes `requester` wait for them all: true, with the new wait id in
  // `wait_id`, when the file had oplocks; false when it had none.
  bool BreakOplocks(const LockRequest& request, const ClientKey& requester, FileEntry* file,
                    uint32_t* wait_id);
  // Whether an open that met no oplock may have one: it asks for one, is no
  // retry, and nobody has the file open.
  static bool OplockGrantable(const LockRequest& request, const FileEntry& file);
  // Drops the wait `id` and its mention in its holders' lists; an unknown id
  // changes nothing.
  void WithdrawWait(uint32_t id);
  // Releases every oplock of the file held by `client` under `clientfid`.
  void ReleaseOplocks(FileEntry* file, const ClientKey& client, uint32_t clientfid);
  // Releases every oplock of the file that `matches`, in list order.
  void ReleaseOplocksWhere(FileEntry* file, const std::function<bool(const OpLock&)>& matches);
  // Removes the oplock at `slot`, sending MSG_OPEN_RETRY to each waiter that
  // waited for it last.
  void ReleaseOplockAndSendRetries(FileEntry* file, uint32_t slot);

  // table_check.cc
  RefString CheckHolders() const;

  // status_report.cc
  void WriteClientLines(OutputStream& out);
  // `holder_names` gives the name of each byte-range lock's holder.
  void WriteFileLines(OutputStream& out, const FileEntry& file,
                      const std::vector<RefString>& holder_names);
  // The name of the client holding a lock; empty when it has no entry.
  RefString HolderName(const ClientKey& holder) const;
  // HolderName of every number in the holder table, by number.
  std::vector<RefString> HolderNames() const;

  EventLog log_;
  Socket* udp_ = nullptr;
  uint32_t check_period_ = kCheckPeriodSeconds;
  int timeout_;
  ClientTable clients_;
  FileTable files_;
  HolderTable holders_;  // the clients that hold byte-range locks
  WaitTable waits_;
  std::function<uint32_t()> random_ = [] { return static_cast<uint32_t>(std::rand()); };
  uint32_t sweep_tick_ = 1;
  uint32_t last_wait_id_ = 0;    // wait ids start at 1
  uint32_t last_oplock_id_ = 0;  // serial ids of granted oplocks
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_
