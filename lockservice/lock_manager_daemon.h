#ifndef KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_
#define KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_

#include <cstddef>
#include <cstdint>

#include "daemon/event_log.h"
#include "foundation/descriptor.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"

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
  uint32_t CheckPeriod() const { return check_period_; }

  // Handles one datagram of `size` bytes from `sender`: decodes the request,
  // runs its handler and sends the reply that is due. Any bytes are safe.
  void Dispatch(const SocketAddress& sender, const unsigned char* data, size_t size);
  // The periodic dead-client check: purges idle files, probes clients and
  // releases those that did not answer the previous probe.
  void SweepClients();
  // Writes the status report to `out`; changes nothing.
  void WriteStatusReport(OutputStream& out);
  // Builds the status report and writes it to `connection`, abandoning the
  // rest silently when the connection fails or closes.
  void SendStatusReport(Descriptor* connection);

 private:
  EventLog log_;
  Socket* udp_ = nullptr;
  uint32_t check_period_ = kCheckPeriodSeconds;
  int timeout_;
  // The tables and the handlers' state follow.
};

#endif  // KLV_LOCKSERVICE_LOCK_MANAGER_DAEMON_H_
