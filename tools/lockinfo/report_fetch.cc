#include "tools/lockinfo/report_fetch.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace klv {

namespace {

constexpr size_t kPieceSize = 65536;

// A socket that closes itself.
class Connection {
 public:
  Connection() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
  ~Connection() {
    if (fd_ >= 0) close(fd_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  int Fd() const { return fd_; }

 private:
  int fd_;
};

// Waits up to `timeout_ms` for `events` on `fd`: 1 ready, 0 timed out, -1
// failed or interrupted (errno tells which).
int WaitFor(int fd, short events, int timeout_ms, const volatile sig_atomic_t* stop) {
  while (true) {
    pollfd watched = {fd, events, 0};
    const int ready = poll(&watched, 1, timeout_ms);
    if (ready >= 0 || errno != EINTR || (stop != nullptr && *stop != 0)) return ready;
  }
}

std::string SystemText(const char* call) { return std::string(call) + ": " + strerror(errno); }

FetchStatus Interrupted(const volatile sig_atomic_t* stop) {
  return stop != nullptr && *stop != 0 ? FetchStatus::kInterrupted : FetchStatus::kReadFailed;
}

FetchStatus ConnectTo(const Connection& connection, uint16_t port, const FetchLimits& limits,
                      const volatile sig_atomic_t* stop, std::string* failure) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(connection.Fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return FetchStatus::kDone;
  }
  if (errno != EINPROGRESS) {
    *failure = SystemText("connect");
    return FetchStatus::kNoContact;
  }
  const int ready = WaitFor(connection.Fd(), POLLOUT, limits.timeout_ms, stop);
  if (ready <= 0) {
    *failure = ready == 0 ? "no connection within the time-out" : SystemText("poll");
    return ready < 0 && Interrupted(stop) == FetchStatus::kInterrupted ? FetchStatus::kInterrupted
                                                                       : FetchStatus::kNoContact;
  }
  int error = 0;
  socklen_t length = sizeof error;
  getsockopt(connection.Fd(), SOL_SOCKET, SO_ERROR, &error, &length);
  if (error == 0) return FetchStatus::kDone;
  errno = error;
  *failure = SystemText("connect");
  return FetchStatus::kNoContact;
}

}  // namespace

FetchStatus FetchReport(uint16_t port, const FetchLimits& limits, const volatile sig_atomic_t* stop,
                        std::string* text, std::string* failure) {
  text->clear();
  const Connection connection;
  if (connection.Fd() < 0) {
    *failure = SystemText("socket");
    return FetchStatus::kNoLocalSocket;
  }
  const FetchStatus connected = ConnectTo(connection, port, limits, stop, failure);
  if (connected != FetchStatus::kDone) return connected;
  char piece[kPieceSize];
  while (true) {
    const int ready = WaitFor(connection.Fd(), POLLIN, limits.timeout_ms, stop);
    if (ready == 0) {
      char seconds[32];
      snprintf(seconds, sizeof seconds, "%g", limits.timeout_ms / 1000.0);
      *failure = std::string("nothing came for ") + seconds + " seconds (--timeout)";
      return FetchStatus::kReadFailed;
    }
    const ssize_t count = ready < 0 ? -1 : read(connection.Fd(), piece, sizeof piece);
    if (count == 0) return FetchStatus::kDone;
    if (count < 0 && ready > 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (count < 0) {
      *failure = SystemText(ready < 0 ? "poll" : "read");
      return Interrupted(stop);
    }
    if (text->size() + static_cast<size_t>(count) > limits.max_bytes) {
      *failure = "more than " + std::to_string(limits.max_bytes) + " bytes (--max-bytes)";
      return FetchStatus::kReadFailed;
    }
    text->append(piece, static_cast<size_t>(count));
  }
}

}  // namespace klv
