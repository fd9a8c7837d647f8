#ifndef KLV_DAEMON_EVENT_LOOP_H_
#define KLV_DAEMON_EVENT_LOOP_H_

#include <sys/time.h>
#include <sys/types.h>

#include <vector>

#include "daemon/udp_reply_sink.h"
#include "foundation/bit_set.h"
#include "foundation/socket.h"
#include "foundation/time_stamp.h"

namespace klv {

class LockManagerDaemon;
class LoopPart;

// The daemon's running life: waits on the UDP and the listening TCP socket,
// hands each datagram to the daemon's dispatcher, answers each status
// connection from a forked child, and runs the dead-client sweep when a wait
// finds nothing once the check time has come. It owns the sink through which
// the daemon's replies go out on the UDP socket. Ends when a stop signal has
// arrived, or ends the process through a fatal error.
class EventLoop {
 public:
  // Nothing is taken over: the caller keeps the daemon and both sockets alive
  // until Run returns.
  EventLoop(LockManagerDaemon* daemon, Socket* udp, Socket* tcp);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Opens the logs, installs the signal handlers and serves until a stop
  // signal; then writes the stop event, closes the logs and returns 0, the
  // daemon's exit status.
  int Run();
  // Waits for `part` too (the cluster's store), which the caller keeps
  // alive; without one the loop is the standalone daemon's.
  void SetPart(LoopPart* part) { part_ = part; }

 private:
  void Enter();
  void Leave();
  // True once a stop signal has arrived; lets in a pending one every 32nd call.
  bool StopDue();
  // Waits for input until the check time: the number of ready descriptors, 0
  // when none, -1 when a signal interrupted the wait. Any other failure of the
  // wait is fatal.
  int WaitForInput();
  // The first argument of select: the bits of the working set.
  int SelectCount() const { return static_cast<int>(readable_.WordCount() * 32); }
  // Raises the fatal "locking/socket/error"; does not return.
  void WaitFailed(int error_number, const timeval& timeout);
  void RunSweep();
  void HandleStatusConnection();
  // Logs the first failed accept of a run, and takes the waiting connection
  // off the queue through the reserve descriptor.
  void AcceptFailed(const Socket& connection);
  // True while fewer status-report children than the limit still run.
  bool HasRoomForReportChild();
  // In the child: writes the report to `connection` within a time limit and
  // ends the process.
  [[noreturn]] void WriteReportAndExit(Socket* connection, pid_t daemon_pid);
  void HandleDatagram();
  // With a part: HandleDatagram, then the datagrams that wait behind it, up
  // to 32 in all.
  void ServeDatagrams();
  // True when a datagram waits and no status connection or stop signal does.
  bool DatagramWaitingAlone();
  // One pass of the loop with a part: the wait covers the part's
  // descriptors and time-out, and the part moves on before any request.
  void ServeWithPart();
  // Lets the daemon hand freed memory back once no input has come for a
  // moment after a large release.
  void ReturnMemoryWhenQuiet();
  void DiscardEmptyDatagram();
  // Raises the fatal "locking/socket/readerror"; does not return.
  void ReadFailed();

  LockManagerDaemon* daemon_;
  LoopPart* part_ = nullptr;
  Socket* udp_;
  Socket* tcp_;
  UdpReplySink replies_;
  unsigned stop_checks_ = 0;
  BitSet watched_;
  BitSet readable_;  // the working copy that each wait overwrites
  TimeStamp next_check_;
  std::vector<pid_t> report_children_;  // status-report children that may still run
  int reserve_fd_ = -1;                 // given up to drop a connection when out of descriptors
  bool accept_failing_ = false;         // the last accept failed
};

}  // namespace klv

#endif  // KLV_DAEMON_EVENT_LOOP_H_
