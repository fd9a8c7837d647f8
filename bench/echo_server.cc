// klv_echo: the reference servers that the daemon is measured against. Each
// answers every datagram with 16 bytes: the request's code and tag, status 0
// and value 0, so the load generator's checks pass for any request.
//
//   klv_echo minimal [max_seconds]   blocking recvfrom and sendto, nothing else:
//                                    the most one thread gets from the transport
//   klv_echo loop [max_seconds]      the daemon's own per-datagram work: the clock,
//                                    pselect on a UDP and a listening TCP socket
//                                    with the stop signals let in only there (and
//                                    looked for on every 32nd pass), FIONREAD,
//                                    malloc, recvfrom, reply, free
//
// Binds 127.0.0.1 at ports the system chooses, prints
// "_echo_port=U ; _echo_pid=P ; _echo_status=T" and serves until a signal ends
// it or max_seconds (default 600) have passed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

constexpr size_t kReplySize = 16;
constexpr int kCheckPeriodSeconds = 60;
constexpr unsigned kPassesPerPendingLook = 32;

int BoundSocket(int type) {
  const int fd = socket(AF_INET, type, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  return fd;
}

int PortOf(int fd) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// Code and tag from the request (zero where it is shorter), status and value 0.
void Answer(int fd, const unsigned char* request, size_t size, const sockaddr_in& sender) {
  unsigned char reply[kReplySize] = {};
  memcpy(reply, request, size < 8 ? size : 8);
  sendto(fd, reply, sizeof reply, 0, reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
}

[[noreturn]] void ServeMinimal(int udp) {
  unsigned char buffer[65536];
  for (;;) {
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    const ssize_t size =
        recvfrom(udp, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    if (size > 0) Answer(udp, buffer, static_cast<size_t>(size), sender);
  }
}

// The daemon keeps its stop signals blocked but for the wait, which swaps the
// signal mask in and out on every pass, and every 32nd pass asks whether one
// is pending. They keep their default action here: one ends the echo.
sigset_t BlockStopSignals() {
  sigset_t stop;
  sigemptyset(&stop);
  for (const int signal_number : {SIGTERM, SIGABRT, SIGINT}) sigaddset(&stop, signal_number);
  sigset_t wait_mask;
  sigprocmask(SIG_BLOCK, &stop, &wait_mask);
  return wait_mask;
}

// One pass of the daemon's loop per datagram, without its dispatcher.
[[noreturn]] void ServeLoopShape(int udp, int tcp) {
  fcntl(udp, F_SETFL, fcntl(udp, F_GETFL) | O_NONBLOCK);
  const sigset_t wait_mask = BlockStopSignals();
  unsigned passes = 0;
  timeval next_check;
  gettimeofday(&next_check, nullptr);
  next_check.tv_sec += kCheckPeriodSeconds;
  fd_set watched;
  FD_ZERO(&watched);
  FD_SET(udp, &watched);
  FD_SET(tcp, &watched);
  for (;;) {
    if (++passes % kPassesPerPendingLook == 0) {
      sigset_t pending;
      sigpending(&pending);
    }
    fd_set readable = watched;
    timeval now;
    gettimeofday(&now, nullptr);
    const timespec wait = {next_check.tv_sec - now.tv_sec, 0};
    const int ready = pselect(64, &readable, nullptr, nullptr, &wait, &wait_mask);
    if (ready == 0) next_check.tv_sec += kCheckPeriodSeconds;
    if (ready > 0 && FD_ISSET(tcp, &readable)) close(accept(tcp, nullptr, nullptr));
    if (ready <= 0 || !FD_ISSET(udp, &readable)) continue;
    int pending = 0;
    if (ioctl(udp, FIONREAD, &pending) < 0) pending = 8192;
    if (pending < 1) pending = 1;
    auto* buffer = static_cast<unsigned char*>(malloc(static_cast<size_t>(pending)));
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    const ssize_t size = recvfrom(udp, buffer, static_cast<size_t>(pending), 0,
                                  reinterpret_cast<sockaddr*>(&sender), &length);
    if (size > 0) Answer(udp, buffer, static_cast<size_t>(size), sender);
    free(buffer);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool loop_shape = argc > 1 && strcmp(argv[1], "loop") == 0;
  if (argc < 2 || (!loop_shape && strcmp(argv[1], "minimal") != 0)) {
    fprintf(stderr, "Usage: klv_echo minimal|loop [max_seconds]\n");
    return 2;
  }
  const int udp = BoundSocket(SOCK_DGRAM);
  const int tcp = BoundSocket(SOCK_STREAM);
  if (udp < 0 || tcp < 0 || listen(tcp, 5) != 0) {
    perror("klv_echo: cannot bind on 127.0.0.1");
    return 1;
  }
  printf("_echo_port=%d ; _echo_pid=%d ; _echo_status=%d\n", PortOf(udp), getpid(), PortOf(tcp));
  fflush(stdout);
  alarm(argc > 2 ? static_cast<unsigned>(atoi(argv[2])) : 600);  // SIGALRM ends it
  if (loop_shape) ServeLoopShape(udp, tcp);
  ServeMinimal(udp);
}
