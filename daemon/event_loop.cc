#include "daemon/event_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "daemon/cluster_mode.h"
#include "daemon/event_log.h"
#include "daemon/signals.h"
#include "foundation/failure.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "lockservice/lock_manager_daemon.h"

namespace klv {

namespace {

constexpr uint32_t kSetCapacity = 16;
// Status-report children at once.
constexpr size_t kMaxReportChildren = 16;
// Seconds that a status-report child may go without writing a byte of its
// report.
constexpr unsigned kReportSeconds = 10;
constexpr long kMicrosecondsPerSecond = 1000000;
constexpr int kLowestNice = 19;
// Checks of the stop flag per look for a pending stop signal.
constexpr unsigned kChecksPerPendingLook = 32;
// Datagrams served per wait in cluster mode.
constexpr unsigned kDatagramsPerPass = 32;
// How long no input must come before freed memory is handed back.
constexpr long kQuietNanoseconds = 50'000'000;

// A report child at the lowest priority gives way to the daemon at once, so
// that writing a long report does not slow the requests. SCHED_IDLE would give
// way to every other process as well and could miss the child's deadline on
// a busy machine.
void YieldToTheDaemon() { setpriority(PRIO_PROCESS, 0, kLowestNice); }

// Microseconds from `from` to `to`; negative when the clock went back.
int64_t MicrosecondsBetween(const TimeStamp& from, const TimeStamp& to) {
  return (int64_t{to.seconds} - int64_t{from.seconds}) * kMicrosecondsPerSecond +
         (int64_t{to.microseconds} - int64_t{from.microseconds});
}

// True when a descriptor of `wanted_readable` or `wanted_writable` (none
// above `max_fd`) is in the sets that a wait returned.
bool AnyReady(const fd_set& wanted_readable, const fd_set& wanted_writable, int max_fd,
              const fd_set& readable, const fd_set& writable) {
  for (int fd = 0; fd <= max_fd; ++fd) {
    if ((FD_ISSET(fd, &wanted_readable) && FD_ISSET(fd, &readable)) ||
        (FD_ISSET(fd, &wanted_writable) && FD_ISSET(fd, &writable))) {
      return true;
    }
  }
  return false;
}

// The time from `now` until `due`: zero once the seconds of `now` have reached
// those of `due` (the microseconds are not compared), else the difference,
// borrowing a second when the microseconds would go negative.
timeval TimeUntil(const TimeStamp& now, const TimeStamp& due) {
  timeval timeout = {0, 0};
  if (now.seconds >= due.seconds) return timeout;
  timeout.tv_sec = static_cast<time_t>(due.seconds - now.seconds);
  timeout.tv_usec = static_cast<long>(due.microseconds) - static_cast<long>(now.microseconds);
  if (timeout.tv_usec < 0) {
    timeout.tv_usec += kMicrosecondsPerSecond;
    timeout.tv_sec -= 1;
  }
  return timeout;
}

}  // namespace

EventLoop::EventLoop(LockManagerDaemon* daemon, Socket* udp, Socket* tcp)
    : daemon_(daemon),
      udp_(udp),
      tcp_(tcp),
      replies_(udp, &daemon->Log()),
      watched_(kSetCapacity),
      readable_(kSetCapacity) {}

int EventLoop::Run() {
  Enter();
  while (!StopDue()) {
    readable_.CopyFrom(watched_);  // the wait overwrites its set: copy it every pass
    if (part_ != nullptr) {
      ServeWithPart();
      continue;
    }
    const int ready = WaitForInput();
    if (ready == 0) RunSweep();
    if (ready > 0 && readable_.Test(tcp_->Fd())) HandleStatusConnection();
    if (ready > 0 && readable_.Test(udp_->Fd())) HandleDatagram();
    ReturnMemoryWhenQuiet();
  }
  Leave();
  return 0;
}

void EventLoop::Enter() {
  // A datagram that select announced may be gone when it is read (the
  // kernel drops one that fails its checksum); without O_NONBLOCK that read
  // would hang the daemon. Would-block reads as a datagram of length zero.
  fcntl(udp_->Fd(), F_SETFL, fcntl(udp_->Fd(), F_GETFL) | O_NONBLOCK);
  daemon_->SetReplySink(&replies_);
  daemon_->Log().OpenLogs();
  InstallStopHandler();
  InstallFatalSignalHandler();
  reserve_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  watched_.Set(udp_->Fd());
  watched_.Set(tcp_->Fd());
  next_check_ = TimeStamp::Now();
  next_check_.seconds += daemon_->CheckPeriod();
}

void EventLoop::Leave() {
  daemon_->Log().WriteStopEventAndClose();
  if (reserve_fd_ >= 0) close(reserve_fd_);
}

// Under a steady flood every wait finds input ready and puts the mask back
// before a pending stop signal is delivered, so the signal would stay pending
// for as long as the flood lasts. Every 32nd check lets it in: a flood delays
// the stop by at most 31 requests, and the other checks cost no system call.
bool EventLoop::StopDue() {
  if (StopSignalDelivered()) return true;
  if (++stop_checks_ % kChecksPerPendingLook == 0) DeliverPendingStopSignal();
  return StopSignalDelivered();
}

// The stop signals are unblocked only inside pselect, so one that arrived
// since the flag was checked is delivered at once and the wait ends with EINTR.
int EventLoop::WaitForInput() {
  const timeval timeout = TimeUntil(TimeStamp::Now(), next_check_);
  const timespec wait = {timeout.tv_sec, timeout.tv_usec * 1000};
  const int ready =
      pselect(SelectCount(), readable_.AsFdSet(), nullptr, nullptr, &wait, WaitMask());
  if (ready >= 0) return ready;
  const int error_number = errno;
  if (error_number != EINTR) WaitFailed(error_number, timeout);
  return -1;
}

void EventLoop::WaitFailed(int error_number, const timeval& timeout) {
  TextBuilder arguments;
  arguments << SelectCount() << ",[";
  const char* separator = "";
  for (int fd = 0; fd < SelectCount(); ++fd) {
    if (!readable_.Test(fd)) continue;
    arguments << separator << fd;
    separator = ",";
  }
  arguments << "], NULL, NULL, timeval{secs=" << static_cast<long>(timeout.tv_sec)
            << ", usecs=" << static_cast<long>(timeout.tv_usec) << "}";
  SysCallFailure failure;
  failure.Record(error_number, "select", arguments.Text());

  TextBuilder message;
  message << "There was an error reading from the socket: " << failure.Text() << "\nThe "
          << "Kelvane"
          << "server will fail\nStop, then restart the server.";
  daemon_->Log().Error("locking/socket/error", message, Severity::kFatal);
}

// The next check is due one period after the previous one, not after now:
// under steady traffic it waits for the first pass that finds nothing.
void EventLoop::RunSweep() {
  daemon_->SweepClients();
  next_check_.seconds += daemon_->CheckPeriod();
}

// The child writes the report from its copy of the tables and never returns
// to the loop; the parent only drops its copy of the connection. The system
// reaps the child, since SIGCHLD is ignored.
void EventLoop::HandleStatusConnection() {
  Socket connection;
  if (!connection.Accept(tcp_->Fd())) {
    AcceptFailed(connection);
    return;
  }
  accept_failing_ = false;
  // Past the limit the connection is closed unanswered, as after a failed fork.
  if (!HasRoomForReportChild()) return;
  const pid_t daemon_pid = getpid();
  const pid_t child = fork();
  if (child == 0) WriteReportAndExit(&connection, daemon_pid);
  if (child > 0) report_children_.push_back(child);
}

// Out of descriptors, the waiting connection would make every wait return at
// once and every pass write a record: the reserve descriptor is given up to
// take the connection off the queue and close it, and only the first failure
// of a run is logged.
void EventLoop::AcceptFailed(const Socket& connection) {
  if (!accept_failing_) {
    TextBuilder message;
    message << "Failed to accept connection from lockinfo process: "
            << connection.LastFailure().Text()
            << "\nThe client program will not have displayed the correct information.\n"
               "Try running the client again.";
    daemon_->Log().Error("locking/client/failure", message, Severity::kRecoverable);
  }
  accept_failing_ = true;
  if (reserve_fd_ < 0) return;
  close(reserve_fd_);
  const int dropped = accept(tcp_->Fd(), nullptr, nullptr);
  if (dropped >= 0) close(dropped);
  reserve_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// An ended child is reaped by the system at once, so kill(pid, 0) fails for
// it. A reused pid only keeps a place taken until that process ends.
bool EventLoop::HasRoomForReportChild() {
  std::erase_if(report_children_, [](pid_t child) { return kill(child, 0) != 0; });
  return report_children_.size() < kMaxReportChildren;
}

// A reader that never reads would block the child for ever: the alarm ends
// it, and so does the end of the daemon. The alarm is set again whenever
// bytes go out, so a long report that a busy daemon leaves little time for is
// still written whole. The child gives up the daemon's sockets and takes the
// stop signals as any process does; a fault in it still writes the
// fatal-signal message.
void EventLoop::WriteReportAndExit(Socket* connection, pid_t daemon_pid) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != daemon_pid) _exit(0);  // the daemon ended before the line above
  alarm(kReportSeconds);
  ResetStopSignals();
  udp_->Close();
  tcp_->Close();
  close(reserve_fd_);
  YieldToTheDaemon();
  daemon_->SendStatusReport(connection, [] { alarm(kReportSeconds); });
  exit(0);
}

// One datagram is one request. The socket is asked for the size of the next
// datagram, so the buffer always takes it whole.
void EventLoop::HandleDatagram() {
  const int pending = udp_->BytesWaiting();
  if (pending < 1) {
    DiscardEmptyDatagram();
    return;
  }
  const size_t size = static_cast<size_t>(pending);
  unsigned char* buffer = static_cast<unsigned char*>(malloc(size));
  SocketAddress sender;
  long count = 0;
  size_t length = 0;
  switch (udp_->RecvFrom(buffer, size, &count, &sender)) {
    case TransferStatus::kComplete:
      length = size;
      break;
    case TransferStatus::kPartial:  // shorter, or would block with count 0
      length = static_cast<size_t>(count);
      break;
    case TransferStatus::kEndOfFile:
    case TransferStatus::kFailed:
      free(buffer);
      ReadFailed();
      return;
  }
  if (length != 0) daemon_->Dispatch(sender, buffer, length);
  free(buffer);
}

// The sweep is due by the clock here, since the part's time-outs also end
// waits that find nothing.
//
// The part's Perform() polls the store's connections, a system call of its
// own; it runs only when one of the part's descriptors is ready or its
// time-out has come, so that a request without the store costs what it does
// standalone.
void EventLoop::ServeWithPart() {
  fd_set readable, writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  int part_max = -1;
  part_->AddDescriptors(&readable, &writable, &part_max);
  const fd_set part_readable = readable, part_writable = writable;
  FD_SET(udp_->Fd(), &readable);
  FD_SET(tcp_->Fd(), &readable);
  const int max_fd = std::max({part_max, udp_->Fd(), tcp_->Fd()});
  const TimeStamp before = TimeStamp::Now();
  const timeval until_check = TimeUntil(before, next_check_);
  long wait_ms = static_cast<long>(until_check.tv_sec) * 1000 + until_check.tv_usec / 1000;
  const long part_ms = part_->TimeoutMs();
  if (part_ms >= 0 && part_ms < wait_ms) wait_ms = part_ms;
  const timespec wait = {wait_ms / 1000, (wait_ms % 1000) * 1000000};
  const int ready = pselect(max_fd + 1, &readable, &writable, nullptr, &wait, WaitMask());
  if (ready < 0 && errno != EINTR) WaitFailed(errno, until_check);
  part_->CheckDeadline();
  const TimeStamp after = TimeStamp::Now();
  const int64_t waited_us = MicrosecondsBetween(before, after);
  if ((part_ms >= 0 && (waited_us < 0 || waited_us >= int64_t{part_ms} * 1000)) ||
      AnyReady(part_readable, part_writable, part_max, readable, writable)) {
    part_->Perform();
  }
  const timeval left = TimeUntil(after, next_check_);
  if (left.tv_sec == 0 && left.tv_usec == 0) RunSweep();
  if (ready > 0 && FD_ISSET(tcp_->Fd(), &readable)) HandleStatusConnection();
  if (ready > 0 && FD_ISSET(udp_->Fd(), &readable)) ServeDatagrams();
  ReturnMemoryWhenQuiet();
}

// Under load many datagrams wait at each wake-up, and a pass with the part
// costs more than the standalone one: the waiting datagrams are served
// before the next wait, up to a bound that keeps the store and the sweep
// served.
void EventLoop::ServeDatagrams() {
  HandleDatagram();
  for (unsigned served = 1; served < kDatagramsPerPass && DatagramWaitingAlone(); ++served) {
    part_->CheckDeadline();
    HandleDatagram();
  }
}

// Each further datagram of a pass is asked for as the standalone loop asks
// for every one, by a wait on both sockets, here of no time: a pending stop
// signal gets in, and a waiting status connection ends the pass. The wait
// also keeps the standalone pace. Without it the loop emptied its socket
// faster than eight clients refilled it, then slept and was woken for
// nearly every request, which cost the clients more than the call costs
// the loop: a third fewer requests answered.
bool EventLoop::DatagramWaitingAlone() {
  pollfd input[] = {{udp_->Fd(), POLLIN, 0}, {tcp_->Fd(), POLLIN, 0}};
  const timespec no_time = {0, 0};
  return ppoll(input, 2, &no_time, WaitMask()) == 1 && input[0].revents != 0;
}

// The wait lets the stop signals in, as the main wait does; any input or
// signal puts the return off to a later pass.
void EventLoop::ReturnMemoryWhenQuiet() {
  if (!daemon_->HasMemoryToReturn()) return;
  pollfd input[] = {{udp_->Fd(), POLLIN, 0}, {tcp_->Fd(), POLLIN, 0}};
  const timespec quiet = {0, kQuietNanoseconds};
  if (ppoll(input, 2, &quiet, WaitMask()) == 0) daemon_->ReturnMemory();
}

// A readable socket with no bytes pending holds a datagram of length zero.
// Left queued it would make every wait return at once, so it is taken off and
// dropped without a reply.
void EventLoop::DiscardEmptyDatagram() {
  unsigned char byte = 0;
  long count = 0;
  SocketAddress sender;
  udp_->RecvFrom(&byte, 1, &count, &sender);
}

void EventLoop::ReadFailed() {
  TextBuilder message;
  message << "There was an error reading from the socket. The locking has failed.\nThe "
          << "Kelvane"
          << "server will fail\nStop then restart the server.";
  daemon_->Log().Error("locking/socket/readerror", message, Severity::kFatal);
}

}  // namespace klv
