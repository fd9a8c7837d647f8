#include "session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "wire_format.h"

namespace klv {

namespace {

using client_wire::Incoming;
using std::chrono::milliseconds;

// Datagrams read in one pass at the most, so that a stream of them cannot
// hold the caller for ever; the descriptor stays readable for the next pass.
constexpr int kReadBatch = 256;

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// Milliseconds from now to `deadline`, rounded up so that a poll does not
// wake just before it; 0 once it has passed.
int MillisecondsUntil(ClientSession::Clock::time_point deadline) {
  const auto left = deadline - ClientSession::Clock::now();
  if (left <= ClientSession::Clock::duration::zero()) return 0;
  const auto rounded = std::chrono::ceil<milliseconds>(left).count();
  return rounded > 1'000'000'000 ? 1'000'000'000 : static_cast<int>(rounded);
}

int SocketError() { return errno == ECONNREFUSED ? KLVLOCK_EUNREACHABLE : KLVLOCK_ESYSTEM; }

// Marks the session as inside an event handler for the handler's duration.
class CallbackScope {
 public:
  explicit CallbackScope(bool* flag) : flag_(flag) { *flag_ = true; }
  ~CallbackScope() { *flag_ = false; }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

 private:
  bool* flag_;
};

}  // namespace

// The blocking call's own request, while it waits.
struct ClientSession::Awaited {
  uint32_t tag = 0;
  uint32_t code = 0;
  klvlock_reply* reply = nullptr;
  bool answered = false;
};

int ClientSession::Create(uint16_t daemon_port, uint32_t session_id, const char* name,
                          std::unique_ptr<ClientSession>* session) {
  const size_t name_length = name == nullptr ? 0 : strnlen(name, KLVLOCK_NAME_SIZE + 1);
  if (daemon_port == 0 || name_length > KLVLOCK_NAME_SIZE) return KLVLOCK_EINVAL;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return KLVLOCK_ESYSTEM;
  sockaddr_in local = Loopback(0);
  const sockaddr_in daemon = Loopback(daemon_port);
  socklen_t length = sizeof local;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
      connect(fd, reinterpret_cast<const sockaddr*>(&daemon), sizeof daemon) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return KLVLOCK_ESYSTEM;
  }
  session->reset(new ClientSession(fd, ntohs(local.sin_port), session_id,
                                   std::string(name == nullptr ? "" : name, name_length)));
  return KLVLOCK_OK;
}

ClientSession::ClientSession(int fd, uint16_t local_port, uint32_t session_id, std::string name)
    : fd_(fd), local_port_(local_port), session_id_(session_id), name_(std::move(name)) {}

ClientSession::~ClientSession() { close(fd_); }

void ClientSession::SetCallback(klvlock_event_fn fn, void* user) {
  callback_ = fn;
  user_ = user;
}

int ClientSession::Call(const klvlock_request& request, int timeout_ms, klvlock_reply* reply) {
  if (timeout_ms < 1 || reply == nullptr) return KLVLOCK_EINVAL;
  const Clock::time_point deadline = Clock::now() + milliseconds(timeout_ms);
  Awaited awaited = {0, request.code, reply, false};
  std::string datagram;
  int result = Send(request, &awaited.tag, &datagram);
  // A harmless request is sent up to three times within its time-out.
  const bool resends = client_wire::MayResend(request.code);
  const milliseconds interval(std::max(timeout_ms / 3, 1));
  Clock::time_point next_send = Clock::now() + interval;
  while (result == KLVLOCK_OK) {
    result = ReadAll(&awaited);
    if (result != KLVLOCK_OK || awaited.answered) return result;
    const Clock::time_point now = Clock::now();
    if (now >= deadline) return KLVLOCK_ETIMEDOUT;
    if (resends && now >= next_send) {
      result = SendBytes(datagram);
      next_send = now + interval;
    }
    if (result == KLVLOCK_OK)
      result = WaitReadable(resends ? std::min(next_send, deadline) : deadline);
  }
  return result;
}

int ClientSession::Submit(const klvlock_request& request, int timeout_ms, uint32_t* tag) {
  if (timeout_ms < 1) return KLVLOCK_EINVAL;
  uint32_t sent_tag = 0;
  std::string datagram;
  const int result = Send(request, &sent_tag, &datagram);
  if (result != KLVLOCK_OK) return result;
  submitted_.push_back({sent_tag, request.code, Clock::now() + milliseconds(timeout_ms)});
  if (tag != nullptr) *tag = sent_tag;
  return KLVLOCK_OK;
}

int ClientSession::Process() {
  delivered_ = 0;
  const int result = ReadAll(nullptr);
  return result == KLVLOCK_OK ? delivered_ : result;
}

int ClientSession::Wait(int timeout_ms) {
  if (timeout_ms < 0) return KLVLOCK_EINVAL;
  const Clock::time_point deadline = Clock::now() + milliseconds(timeout_ms);
  delivered_ = 0;
  while (true) {
    int result = ReadAll(nullptr);
    if (result != KLVLOCK_OK || delivered_ > 0) return result;
    if (Clock::now() >= deadline) return KLVLOCK_ETIMEDOUT;
    const int next = NextTimeout();
    const Clock::time_point wake =
        next < 0 ? deadline : std::min(deadline, Clock::now() + milliseconds(next));
    result = WaitReadable(wake);
    if (result != KLVLOCK_OK) return result;
  }
}

int ClientSession::NextTimeout() const {
  if (submitted_.empty()) return -1;
  Clock::time_point earliest = submitted_.front().deadline;
  for (const Pending& pending : submitted_) earliest = std::min(earliest, pending.deadline);
  return MillisecondsUntil(earliest);
}

int ClientSession::NextEvent(klvlock_event* event) {
  if (event == nullptr) return KLVLOCK_EINVAL;
  if (queue_.empty()) return KLVLOCK_EAGAIN;
  *event = queue_.front();
  queue_.pop_front();
  return KLVLOCK_OK;
}

int ClientSession::Send(const klvlock_request& request, uint32_t* tag, std::string* datagram) {
  // Tag 0 is what the daemon's own messages carry; ours never use it.
  const uint32_t next_tag = last_tag_ + 1 == 0 ? 1 : last_tag_ + 1;
  if (!client_wire::EncodeRequest(request, next_tag, session_id_, name_, datagram)) {
    return KLVLOCK_EINVAL;
  }
  last_tag_ = next_tag;
  *tag = next_tag;
  return SendBytes(*datagram);
}

int ClientSession::SendBytes(const std::string& datagram) {
  ssize_t sent;
  do {
    sent = send(fd_, datagram.data(), datagram.size(), 0);
  } while (sent < 0 && errno == EINTR);
  if (sent == static_cast<ssize_t>(datagram.size())) return KLVLOCK_OK;
  return sent < 0 ? SocketError() : KLVLOCK_ESYSTEM;
}

int ClientSession::ReadAll(Awaited* awaited) {
  unsigned char buffer[client_wire::kLargestIncoming];
  for (int count = 0; count < kReadBatch; ++count) {
    // MSG_TRUNC makes recv tell the datagram's whole length, so that one too
    // long for the buffer is seen as such and dropped.
    const ssize_t size = recv(fd_, buffer, sizeof buffer, MSG_TRUNC);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (size < 0) return SocketError();
    if (static_cast<size_t>(size) <= sizeof buffer) Handle(buffer, size, awaited);
  }
  ExpireSubmitted(Clock::now());
  return KLVLOCK_OK;
}

void ClientSession::Handle(const unsigned char* data, size_t size, Awaited* awaited) {
  const Incoming incoming = client_wire::Decode(data, size);
  switch (incoming.kind) {
    case Incoming::Kind::kProbe: {
      // A failed answer is like a lost one: the next probe asks again.
      (void)SendBytes(client_wire::ProbeAnswer(data));
      klvlock_event event = {};
      event.kind = KLVLOCK_EVENT_PROBE;
      Deliver(event);
      return;
    }
    case Incoming::Kind::kEvent:
      Deliver(incoming.event);
      return;
    case Incoming::Kind::kReply:
      HandleReply(incoming.reply, awaited);
      return;
    case Incoming::Kind::kMalformed:
      return;
  }
}

void ClientSession::HandleReply(const klvlock_reply& decoded, Awaited* awaited) {
  if (awaited != nullptr && !awaited->answered && decoded.tag == awaited->tag &&
      decoded.code == awaited->code) {
    *awaited->reply = decoded;
    awaited->answered = true;
    return;
  }
  const auto match = std::find_if(submitted_.begin(), submitted_.end(), [&](const Pending& p) {
    return p.tag == decoded.tag && p.code == decoded.code;
  });
  // Anything else answers a call that has already timed out: dropped.
  if (match == submitted_.end()) return;
  submitted_.erase(match);
  klvlock_event event = {};
  event.kind = KLVLOCK_EVENT_REPLY;
  event.reply = decoded;
  Deliver(event);
}

void ClientSession::ExpireSubmitted(Clock::time_point now) {
  std::vector<Pending> expired;
  auto is_expired = [now](const Pending& pending) { return pending.deadline <= now; };
  std::copy_if(submitted_.begin(), submitted_.end(), std::back_inserter(expired), is_expired);
  submitted_.erase(std::remove_if(submitted_.begin(), submitted_.end(), is_expired),
                   submitted_.end());
  for (const Pending& pending : expired) {
    klvlock_event event = {};
    event.kind = KLVLOCK_EVENT_LOST;
    event.reply.code = pending.code;
    event.reply.tag = pending.tag;
    Deliver(event);
  }
}

void ClientSession::Deliver(const klvlock_event& event) {
  ++delivered_;
  if (callback_ != nullptr) {
    CallbackScope scope(&in_callback_);
    callback_(&event, user_);
    return;
  }
  if (queue_.size() == kQueueLimit) queue_.pop_front();
  queue_.push_back(event);
}

int ClientSession::WaitReadable(Clock::time_point deadline) {
  pollfd readable = {fd_, POLLIN, 0};
  if (poll(&readable, 1, MillisecondsUntil(deadline)) < 0 && errno != EINTR) {
    return KLVLOCK_ESYSTEM;
  }
  return KLVLOCK_OK;
}

}  // namespace klv
