#include "bench/lock_session.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "bench/loopback.h"
#include "protocol/open_modes.h"
#include "tests/support/wire_bytes.h"

namespace klv::bench {

namespace {

// Preloaded ranges lie above every range that an endless plan locks.
constexpr uint32_t kPreloadBase = 1u << 24;
constexpr uint32_t kRangeStride = 16;
constexpr uint32_t kRangeLength = 8;
// Touches lock between two ranges of endless plans, apart from any preload.
constexpr uint32_t kTouchOffset = 8;
constexpr uint32_t kReadDenyNone = OPEN_READ | DENY_NONE;
constexpr size_t kReceiveSize = 2048;

}  // namespace

LockSession::LockSession(uint16_t port, const LockPlan& plan, uint32_t index, uint32_t sessions,
                         uint32_t session_base)
    : fd_(ConnectLoopback(SOCK_DGRAM | SOCK_NONBLOCK, port)),
      plan_(plan),
      index_(index),
      sessions_(sessions),
      session_id_(session_base + index),
      tag_(index << 20) {}

LockSession::~LockSession() {
  if (fd_ >= 0) close(fd_);
}

uint32_t LockSession::StepsPerCycle() const {
  switch (plan_.workload) {
    case Workload::kLock:
    case Workload::kOpen:
    case Workload::kTouch:
      return 2;
    default:
      return 1;
  }
}

bool LockSession::SendNext() {
  if (!BuildRequest()) return false;
  ++step_;
  Transmit(request_);
  return true;
}

void LockSession::Resend() { Transmit(request_); }

void LockSession::Transmit(const std::string& bytes) { send(fd_, bytes.data(), bytes.size(), 0); }

bool LockSession::BuildRequest() {
  const uint64_t cycle = step_ / StepsPerCycle();
  const bool first_half = step_ % StepsPerCycle() == 0;
  const bool endless = plan_.workload == Workload::kNoop || plan_.workload == Workload::kLock ||
                       plan_.workload == Workload::kOpen;
  const uint64_t item = index_ + cycle * sessions_;
  const bool per_file = plan_.workload == Workload::kTouch || plan_.workload == Workload::kHold;
  const uint64_t limit = per_file ? plan_.files : plan_.count;
  if (!endless && item >= limit) return false;

  uint64_t file = endless ? item % plan_.files : item;
  uint32_t offset = kTouchOffset;
  if (plan_.workload == Workload::kLock) offset = index_ * kRangeStride;
  if (plan_.workload == Workload::kPreload || plan_.workload == Workload::kRelease) {
    file = item % plan_.files;
    offset = kPreloadBase + static_cast<uint32_t>(item / plan_.files) * kRangeStride;
  }
  wire::RequestHead head = {.tag = ++tag_,
                            .session = session_id_,
                            .clientfid = index_ + 1,
                            .filekey_hi = kFileKeyHi,
                            .filekey_lo = static_cast<uint32_t>(plan_.first_file + file + 1)};
  switch (plan_.workload) {
    case Workload::kNoop:
      request_ = wire::BareBytes(wire::kNoop, head);
      break;
    case Workload::kOpen:
      request_ = first_half ? wire::OpenBytes(head, kReadDenyNone, 0, "bench", "/srv/bench/file")
                            : wire::BareBytes(wire::kClose, head);
      break;
    case Workload::kHold:
      request_ = wire::OpenBytes(head, kReadDenyNone, 0, "bench", "/srv/bench/file");
      break;
    case Workload::kRelease:
      request_ = wire::UnlockBytes(head, offset, kRangeLength);
      break;
    case Workload::kPreload:
      request_ = wire::LockBytes(head, offset, kRangeLength, 0);
      break;
    case Workload::kLock:
    case Workload::kTouch:
      request_ = first_half ? wire::LockBytes(head, offset, kRangeLength, 0)
                            : wire::UnlockBytes(head, offset, kRangeLength);
      break;
  }
  expected_code_ = wire::WordAt(request_, 0);
  return true;
}

Session::Read LockSession::OnReadable(ErrorCounts* errors) {
  unsigned char data[kReceiveSize];
  const ssize_t size = recv(fd_, data, sizeof data, 0);
  if (size < 0) return errno == EAGAIN ? Read::kNothing : Read::kClosed;
  const std::string reply(reinterpret_cast<const char*>(data), static_cast<size_t>(size));
  const uint32_t code = wire::WordAt(reply, 0);
  if (code == wire::kProbe && reply.size() >= wire::kProbeSize && wire::WordAt(reply, 32) == 1) {
    AnswerProbe(data, static_cast<size_t>(size));
    ++errors->probes;
    return Read::kNothing;
  }
  if (reply.size() < wire::kReplyHeadSize || code != expected_code_ ||
      wire::WordAt(reply, 4) != tag_) {
    ++errors->tag;  // a stray or late datagram: keep waiting for the real reply
    return Read::kNothing;
  }
  if (wire::WordAt(reply, 8) != wire::kDone) ++errors->status;
  return Read::kReply;
}

// The answer is the probe itself with wantreply 0.
void LockSession::AnswerProbe(const unsigned char* data, size_t size) {
  std::string answer(reinterpret_cast<const char*>(data), size);
  answer.replace(32, 4, wire::Word(0));
  Transmit(answer);
}

std::vector<std::unique_ptr<Session>> MakeLockSessions(uint16_t port, const LockPlan& plan,
                                                       uint32_t count) {
  const uint32_t session_base = static_cast<uint32_t>(getpid()) << 12;
  std::vector<std::unique_ptr<Session>> sessions;
  for (uint32_t index = 0; index < count; ++index) {
    auto session = std::make_unique<LockSession>(port, plan, index, count, session_base);
    if (!session->IsOpen()) return {};
    sessions.push_back(std::move(session));
  }
  return sessions;
}

}  // namespace klv::bench
