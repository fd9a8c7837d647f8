#include "daemon/event_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "daemon/event_log.h"
#include "daemon/signals.h"
#include "foundation/failure.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "lockservice/lock_manager_daemon.h"

namespace klv {

namespace {

constexpr uint32_t kSetCapacity = 16;
constexpr long kMicrosecondsPerSecond = 1000000;
constexpr int kLowestNice = 19;
// How long no input must come before freed memory is handed back.
constexpr long kQuietNanoseconds = 50'000'000;

// A report child runs only when the daemon it was forked from leaves the
// processor free, so that writing a long report does not slow the requests.
void YieldToTheDaemon() {
  const sched_param no_priority = {};
  if (sched_setscheduler(0, SCHED_IDLE, &no_priority) != 0) {
    setpriority(PRIO_PROCESS, 0, kLowestNice);
  }
}

}  // namespace

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

EventLoop::EventLoop(LockManagerDaemon* daemon, Socket* udp, Socket* tcp)
    : daemon_(daemon), udp_(udp), tcp_(tcp), watched_(kSetCapacity), readable_(kSetCapacity) {}

int EventLoop::Run() {
  Enter();
  while (!StopRequested()) {
    readable_.CopyFrom(watched_);  // the wait overwrites its set: copy it every pass
    const int ready = WaitForInput();
    if (ready == 0) RunSweep();
    if (ready > 0 && readable_.IsSet(tcp_->Fd())) HandleStatusConnection();
    if (ready > 0 && readable_.IsSet(udp_->Fd())) HandleDatagram();
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
  daemon_->SetUdpSocket(udp_);
  daemon_->Log().OpenLogs();
  InstallStopHandler();
  InstallFatalSignalHandler();
  watched_.Set(udp_->Fd());
  watched_.Set(tcp_->Fd());
  next_check_ = TimeStamp::Now();
  next_check_.seconds += daemon_->CheckPeriod();
}

void EventLoop::Leave() {
  daemon_->Log().Event(RefString("locking/process/stop"), RefString(EventLog::kBanner));
  daemon_->Log().CloseLogs();
}

// The stop signals are unblocked only inside pselect, so one that arrived
// since the flag was checked is delivered at once and the wait ends with EINTR.
int EventLoop::WaitForInput() {
  const timeval timeout = TimeUntil(TimeStamp::Now(), next_check_);
  const timespec wait = {timeout.tv_sec, timeout.tv_usec * 1000};
  const int ready =
      pselect(readable_.SelectCount(), readable_.AsFdSet(), nullptr, nullptr, &wait, WaitMask());
  if (ready >= 0) return ready;
  const int error_number = errno;
  if (error_number != EINTR) WaitFailed(error_number, timeout);
  return -1;
}

void EventLoop::WaitFailed(int error_number, const timeval& timeout) {
  TextBuilder arguments;
  arguments << readable_.SelectCount() << ",[";
  const char* separator = "";
  for (int fd = 0; fd < readable_.SelectCount(); ++fd) {
    if (!readable_.IsSet(fd)) continue;
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
    TextBuilder message;
    message << "Failed to accept connection from lockinfo process: "
            << connection.LastFailure().Text()
            << "\nThe client program will not have displayed the correct information.\n"
               "Try running the client again.";
    daemon_->Log().Error("locking/client/failure", message, Severity::kRecoverable);
    return;
  }
  if (fork() == 0) {
    YieldToTheDaemon();
    daemon_->SendStatusReport(&connection);
    exit(0);
  }
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
