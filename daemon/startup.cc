#include "daemon/startup.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "daemon/cluster_mode.h"
#include "daemon/event_log.h"
#include "daemon/event_loop.h"
#include "daemon/signals.h"
#include "daemon/status_probe.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"
#include "lockservice/lock_manager_daemon.h"

namespace klv {

namespace {

constexpr const char kWillNotStart[] = "FATAL ERROR: The Kelvane server will not start.\n";
constexpr const char kUsage[] = "Usage: klvlockd <timeout> <logdir> | klvlockd <status port>\n";
constexpr const char kStatusLine[] =
    "_klvlockd_port=%d ; _klvlockd_pid=%d ; _klvlockd_status=%d; "
    "export _klvlockd_port _klvlockd_pid _klvlockd_status\n";
constexpr int kMinimumSocketBuffer = 32768;

// Exit statuses of the daemon form before the loop runs.
enum StartStatus {
  kStarted = 0,
  kCannotStart = 1,  // bad arguments, bad log directory, UDP port not bound
  kNoUdpAddress = 2,
  kNoTcpPort = 3,
  kNoTcpAddress = 4,
  kCannotListen = 5,
};

struct Ports {
  int udp = 0;
  int tcp = 0;
};

// Fatal start-up messages go to the start-up script's standard error only,
// headed like an error record; the logs are not open yet.
void ReportStartFailure(const TextBuilder& message) {
  FileStream err(stderr);
  err << EventLog::ErrorHeader("lockd/init/failed") << message.Text();
  err.Flush();
}

int BadArgumentList(int argc, char** argv) {
  TextBuilder message;
  message << kWillNotStart << "Bad argument list:";
  for (int index = 1; index < argc; ++index) message << " " << RefString(argv[index]);
  message << "\n" << kUsage;
  ReportStartFailure(message);
  return kCannotStart;
}

bool LogDirectoryExists(const char* logdir) {
  struct stat status;
  TextBuilder message;
  if (stat(logdir, &status) != 0) {
    message << kWillNotStart << "None existent logdir: " << RefString(logdir) << "\n";
  } else if (!S_ISDIR(status.st_mode)) {
    message << kWillNotStart << "logdir is not a directory: " << RefString(logdir) << "\n";
  } else {
    return true;
  }
  ReportStartFailure(message);
  return false;
}

// The cluster setting is bad, or the node could not register: the daemon
// never falls back to standalone.
int ClusterStartFailed(const std::string& why) {
  TextBuilder message;
  message << kWillNotStart << why.c_str() << "\n";
  ReportStartFailure(message);
  return kCannotStart;
}

// Reports the last failure of `socket` after `text` and answers `status`.
int SocketFailed(const char* text, const Socket& socket, int status) {
  TextBuilder message;
  message << kWillNotStart << text << socket.LastFailure().Text() << "\n";
  ReportStartFailure(message);
  return status;
}

// One bind attempt on 127.0.0.1 at a port that the system chooses.
bool BindLocal(Socket* socket, int type) {
  SocketAddress address;
  address.SetLoopback();
  return socket->BindTo(address, type);
}

// Binds the UDP and the TCP socket and makes the TCP one listen. Answers
// kStarted with the two ports, or the exit status of the first failure; the
// sockets are closed when it fails.
int OpenSockets(Socket* udp, Socket* tcp, Ports* ports) {
  SocketAddress address;
  if (!BindLocal(udp, SOCK_DGRAM)) {
    return SocketFailed("Unable to bind to local udp port:\n", *udp, kCannotStart);
  }
  if (!udp->GetSockName(&address)) {
    SocketFailed("Unable to find local udp port address:\n", *udp, kNoUdpAddress);
    udp->Close();
    return kNoUdpAddress;
  }
  ports->udp = address.Port();

  int status = kStarted;
  if (!BindLocal(tcp, SOCK_STREAM)) {
    status = SocketFailed("Unable to bind to local tcp port:\n", *tcp, kNoTcpPort);
  } else if (!tcp->GetSockName(&address)) {
    status = SocketFailed("Unable to find local tcp port address:\n", *tcp, kNoTcpAddress);
  } else if (!tcp->Listen(5)) {
    status = SocketFailed("Unable to listen on local tcp port address:\n", *tcp, kCannotListen);
  }
  if (status != kStarted) {
    udp->Close();
    tcp->Close();
    return status;
  }
  ports->tcp = address.Port();
  return kStarted;
}

// The results are not checked: smaller buffers only lose datagrams sooner.
void RaiseSocketBuffers(Socket* udp) {
  if (udp->GetSendBuffer() < kMinimumSocketBuffer) udp->SetSendBuffer(kMinimumSocketBuffer);
  if (udp->GetRecvBuffer() < kMinimumSocketBuffer) udp->SetRecvBuffer(kMinimumSocketBuffer);
}

// Every fatal error of the running daemon ends here, after its record: the
// stop event and the closing of the logs of an orderly stop, then status 1.
[[noreturn]] void EndDaemonAfterFatalError(EventLog& log) {
  log.WriteStopEventAndClose();
  exit(1);
}

// Runs in the daemon process: the daemon object lives on this stack for the
// life of the process, and its address is where the fatal-signal handler
// finds the error log.
int RunDaemon(const char* logdir, Socket* udp, Socket* tcp, ClusterMode* cluster) {
  LockManagerDaemon daemon{RefString(logdir)};
  daemon.Log().SetFatalErrorHandler(&EndDaemonAfterFatalError);
  RegisterDaemon(&daemon);
  RaiseSocketBuffers(udp);
  EventLoop loop(&daemon, udp, tcp);
  if (cluster != nullptr) {
    cluster->Attach(&daemon);
    loop.SetPart(cluster);
  }
  const int status = loop.Run();
  if (cluster != nullptr) cluster->Leave();
  RegisterDaemon(nullptr);
  return status;
}

// Closes standard input and output, so that the start-up script's pipe sees
// its end, and puts /dev/null in their place: a descriptor 0 or 1 left free
// would be taken by a log file, and a stray write to standard output would
// land in it. Standard error stays: error records go there too.
void DetachStandardInputAndOutput() {
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  // Descriptor 0 is the lowest free one now, so /dev/null takes it.
  if (open("/dev/null", O_RDWR) != STDIN_FILENO) return;
  dup2(STDIN_FILENO, STDOUT_FILENO);
}

// Puts /dev/null on each of descriptors 0 to 2 that is closed, in that order,
// so that the next open takes exactly that one. A socket left to take one of
// them would receive whatever is written to that standard stream.
void OpenClosedStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) open("/dev/null", O_RDWR);
  }
}

// A failed fork leaves the starting process to run as the daemon, without a
// status line. The timeout argument must be there but is not used: nothing in
// the daemon times out, so it is neither converted nor checked.
int StartDaemon(const char* logdir) {
  if (!LogDirectoryExists(logdir)) return kCannotStart;
  std::string setting_error;
  std::unique_ptr<ClusterMode> cluster = ClusterMode::FromEnvironment(&setting_error);
  if (!setting_error.empty()) return ClusterStartFailed(setting_error);
  Socket udp;
  Socket tcp;
  Ports ports;
  const int status = OpenSockets(&udp, &tcp, &ports);
  if (status != kStarted) return status;

  // In cluster mode the status line waits for the node's registration.
  int registered[2] = {-1, -1};
  if (cluster != nullptr && pipe(registered) != 0) {
    return ClusterStartFailed("A pipe for the node's registration could not be made.");
  }
  const pid_t child = fork();
  if (child > 0 && cluster != nullptr) {
    close(registered[1]);
    char byte = 0;
    const bool started = read(registered[0], &byte, 1) == 1;
    close(registered[0]);
    if (!started) return kCannotStart;  // the child said why
  }
  if (child > 0) {
    printf(kStatusLine, ports.udp, static_cast<int>(child), ports.tcp);
    fflush(stdout);
    udp.Close();
    tcp.Close();
    return kStarted;
  }
  if (cluster != nullptr) {
    close(registered[0]);
    std::string error;
    if (!cluster->Register(&error)) exit(ClusterStartFailed(error));
    (void)!write(registered[1], "1", 1);
    close(registered[1]);
  }
  setsid();
  DetachStandardInputAndOutput();
  return RunDaemon(logdir, &udp, &tcp, cluster.get());
}

}  // namespace

int RunKlvlockd(int argc, char** argv) {
  IgnoreStartupSignals();
  OpenClosedStandardDescriptors();
  if (argc == 2) return RunStatusProbe(argv[1]);
  if (argc != 3) return BadArgumentList(argc, argv);
  return StartDaemon(/*logdir=*/argv[2]);
}

}  // namespace klv
