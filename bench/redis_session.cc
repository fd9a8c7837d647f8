#include "bench/redis_session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

#include "bench/loopback.h"

namespace klv::bench {

namespace {

// A RESP array of bulk strings: one command.
std::string Command(std::initializer_list<std::string> words) {
  std::string bytes = "*" + std::to_string(words.size()) + "\r\n";
  for (const std::string& word : words) {
    bytes += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
  }
  return bytes;
}

int ConnectedStream(uint16_t port) {
  const int fd = ConnectLoopback(SOCK_STREAM, port);
  const int on = 1;
  if (fd >= 0) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

}  // namespace

RedisSession::RedisSession(uint16_t port, uint32_t files, uint32_t index, uint32_t sessions)
    : fd_(ConnectedStream(port)), files_(files), index_(index), sessions_(sessions) {}

RedisSession::~RedisSession() {
  if (fd_ >= 0) close(fd_);
}

bool RedisSession::SendNext() {
  const uint64_t file = (index_ + (step_ / 2) * sessions_) % files_;
  const std::string key = "lock:" + std::to_string(file) + ":" + std::to_string(index_);
  if (step_ % 2 == 0) {
    request_ = Command({"SET", key, "owner-" + std::to_string(index_), "NX", "PX", "60000"});
    expected_ = "+OK\r\n";
  } else {
    request_ = Command({"DEL", key});
    expected_ = ":1\r\n";
  }
  ++step_;
  received_.clear();
  Resend();
  return true;
}

void RedisSession::Resend() { send(fd_, request_.data(), request_.size(), MSG_NOSIGNAL); }

// A reply is complete at its first CRLF; both expected replies are one line.
Session::Read RedisSession::OnReadable(ErrorCounts* errors) {
  char data[512];
  const ssize_t size = recv(fd_, data, sizeof data, MSG_DONTWAIT);
  if (size == 0) return Read::kClosed;
  if (size < 0) return errno == EAGAIN ? Read::kNothing : Read::kClosed;
  received_.append(data, static_cast<size_t>(size));
  if (received_.find("\r\n") == std::string::npos) return Read::kNothing;
  if (received_ != expected_) ++errors->status;
  return Read::kReply;
}

std::vector<std::unique_ptr<Session>> MakeRedisSessions(uint16_t port, uint32_t files,
                                                        uint32_t count) {
  std::vector<std::unique_ptr<Session>> sessions;
  for (uint32_t index = 0; index < count; ++index) {
    auto session = std::make_unique<RedisSession>(port, files, index, count);
    if (!session->IsOpen()) return {};
    sessions.push_back(std::move(session));
  }
  return sessions;
}

}  // namespace klv::bench
