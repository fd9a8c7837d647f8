#include "bench/soak/soak_client.h"

#include <algorithm>
#include <iterator>

#include "tests/support/wire_bytes.h"

namespace klv::soak {

namespace {

// Open modes that meet every kind of answer: deny none, deny write, deny
// read, deny all, compatibility mode, in read, write and read-write.
constexpr uint32_t kModes[] = {0x40, 0x42, 0x41, 0x20, 0x30, 0x12, 0x00, 0x02};
constexpr size_t kMostHeld = 4;  // opens, and ranges, that a session holds at most

template <typename Held>
void Forget(std::vector<Held>* held, uint32_t file, uint32_t fid) {
  std::erase_if(*held, [&](const Held& h) { return h.file == file && h.fid == fid; });
}

}  // namespace

SoakClient::SoakClient(uint16_t daemon_port, uint32_t session, uint32_t files, uint32_t seed)
    : udp_(daemon_port), session_(session), files_(files), random_(seed) {}

bool SoakClient::HasDueWork() const {
  return !breaks_.empty() ||
         std::any_of(waits_.begin(), waits_.end(), [](const Wait& w) { return w.notified; });
}

bool SoakClient::SendNext(bool random_work) {
  if (busy_) return false;
  const auto notified =
      std::find_if(waits_.begin(), waits_.end(), [](const Wait& w) { return w.notified; });
  if (notified != waits_.end()) {
    const Wait wait = *notified;
    waits_.erase(notified);
    SendOpen(wait.file, wait.fid, wait.mode, 1, wait.id);
    return true;
  }
  while (!breaks_.empty()) {
    const uint32_t fid = breaks_.back();
    breaks_.pop_back();
    const auto held = std::find_if(oplocks_.begin(), oplocks_.end(),
                                   [fid](const HeldOplock& o) { return o.fid == fid; });
    if (held == oplocks_.end()) continue;  // given up already
    Request request{.kind = Kind::kOplockRelease, .file = held->file, .fid = fid};
    oplocks_.erase(held);
    Send(request,
         wire::BareBytes(wire::kOplockRelease,
                         {.session = session_, .clientfid = fid, .filekey_hi = request.file}));
    return true;
  }
  if (!random_work) return false;
  SendRandom();
  return true;
}

void SoakClient::SendRandom() {
  const uint32_t draw = Pick(100);
  if (draw < 30 && opens_.size() < kMostHeld) {
    SendOpen(Pick(files_), next_fid_++, kModes[Pick(std::size(kModes))], Pick(2), 0);
  } else if (draw < 45 && !opens_.empty()) {
    const HeldOpen open = opens_[Pick(opens_.size())];
    SendClose(open.file, open.fid);
  } else if (draw < 70 && ranges_.size() < kMostHeld) {
    SendLock();
  } else if (draw < 90 && !ranges_.empty()) {
    SendUnlock(Pick(ranges_.size()));
  } else if (draw < 92) {
    SendClientEnd();
  } else {
    Send(Request{.kind = Kind::kNoop}, wire::BareBytes(wire::kNoop, {.session = session_}));
  }
}

void SoakClient::SendOpen(uint32_t file, uint32_t fid, uint32_t mode, uint32_t oplock,
                          uint32_t waitid) {
  const Request request{.kind = Kind::kOpen,
                        .file = file,
                        .fid = fid,
                        .mode = mode,
                        .oplock = oplock,
                        .waitid = waitid};
  Send(request,
       wire::OpenBytes(
           {.session = session_, .clientfid = fid, .filekey_hi = file, .waitid = waitid}, mode,
           oplock, "soak-" + std::to_string(session_), "/soak/" + std::to_string(file)));
}

void SoakClient::SendClose(uint32_t file, uint32_t fid) {
  Forget(&opens_, file, fid);
  Forget(&ranges_, file, fid);
  Forget(&oplocks_, file, fid);
  Send(Request{.kind = Kind::kClose, .file = file, .fid = fid},
       wire::BareBytes(wire::kClose, {.session = session_, .clientfid = fid, .filekey_hi = file}));
}

void SoakClient::SendLock() {
  Request request{.kind = Kind::kLock, .file = Pick(files_)};
  if (!opens_.empty() && Pick(2) == 0) {
    const HeldOpen& open = opens_[Pick(opens_.size())];
    request.file = open.file;
    request.fid = open.fid;
  }
  request.offset = Pick(100) * 10;
  request.length = 1 + Pick(60);
  request.shared = Pick(2);
  Send(request,
       wire::LockBytes({.session = session_, .clientfid = request.fid, .filekey_hi = request.file},
                       request.offset, request.length, request.shared));
}

void SoakClient::SendUnlock(size_t index) {
  const HeldRange range = ranges_[index];
  ranges_.erase(ranges_.begin() + static_cast<long>(index));
  Send(Request{.kind = Kind::kUnlock, .file = range.file, .fid = range.fid},
       wire::UnlockBytes({.session = session_, .clientfid = range.fid, .filekey_hi = range.file},
                         range.offset, range.length));
}

void SoakClient::SendClientEnd() {
  opens_.clear();
  ranges_.clear();
  oplocks_.clear();
  breaks_.clear();
  waits_.clear();
  Send(Request{.kind = Kind::kClientEnd}, wire::BareBytes(wire::kClientEnd, {.session = session_}));
}

void SoakClient::Send(const Request& request, const std::string& bytes) {
  request_ = request;
  request_.tag = next_tag_++;
  request_.sent = Clock::now();
  std::string tagged = bytes;
  tagged.replace(4, 4, wire::Word(request_.tag));
  busy_ = true;
  udp_.Send(tagged);
}

const Request* SoakClient::Take(const std::string& datagram, uint32_t* status,
                                uint32_t* oplock_granted) {
  const uint32_t code = wire::WordAt(datagram, 0);
  if (code == wire::kProbe && datagram.size() == wire::kProbeSize &&
      wire::WordAt(datagram, 32) == 1) {
    std::string answer = datagram;
    answer.replace(32, 4, wire::Word(0));
    udp_.Send(answer);
    return nullptr;
  }
  if (code == wire::kOplockBreak && datagram.size() == 32) {
    breaks_.push_back(wire::WordAt(datagram, 24));
    return nullptr;
  }
  if (code == wire::kOpenRetry && datagram.size() == 20) {
    for (Wait& wait : waits_)
      wait.notified = wait.notified || wait.id == wire::WordAt(datagram, 12);
    return nullptr;
  }
  if (!busy_ || wire::WordAt(datagram, 4) != request_.tag) return nullptr;  // late or stray
  busy_ = false;
  *status = wire::WordAt(datagram, 8);
  *oplock_granted = datagram.size() >= 20 ? wire::WordAt(datagram, 16) : 0;
  if (request_.kind == Kind::kOpen && *status == wire::kWait) {
    waits_.push_back(Wait{wire::WordAt(datagram, 12), request_.file, request_.fid, request_.mode});
  }
  return &request_;
}

void SoakClient::Grant(const Request& request, uint32_t oplock_granted) {
  if (request.kind == Kind::kOpen) {
    opens_.push_back(HeldOpen{request.file, request.fid, request.mode});
    if (oplock_granted == 1) oplocks_.push_back(HeldOplock{request.file, request.fid});
  } else if (request.kind == Kind::kLock) {
    ranges_.push_back(
        HeldRange{request.file, request.fid, request.offset, request.length, request.shared});
  }
}

}  // namespace klv::soak
