#include "wire_format.h"

#include <cstring>

#include "protocol/open_modes.h"

namespace {

// The public header keeps its own copies of the protocol's values, since it
// is installed alone: they must agree with the protocol.
constexpr bool Agree(long long api_value, long long protocol_value) {
  return api_value == protocol_value;
}
static_assert(Agree(KLVLOCK_REQ_OPEN, klv::REQ_OPEN));
static_assert(Agree(KLVLOCK_REQ_LOCK, klv::REQ_LOCK));
static_assert(Agree(KLVLOCK_REQ_UNLOCK, klv::REQ_UNLOCK));
static_assert(Agree(KLVLOCK_REQ_CLIENT_END, klv::REQ_CLIENT_END));
static_assert(Agree(KLVLOCK_REQ_TEXT, klv::REQ_TEXT));
static_assert(Agree(KLVLOCK_REQ_CLOSE, klv::REQ_CLOSE));
static_assert(Agree(KLVLOCK_REQ_OPLOCK_RELEASE, klv::REQ_OPLOCK_RELEASE));
static_assert(Agree(KLVLOCK_REQ_VERSION, klv::REQ_PROBE));
static_assert(Agree(KLVLOCK_REQ_NOOP, klv::REQ_NOOP));
static_assert(Agree(KLVLOCK_STATUS_DONE, static_cast<long long>(klv::ReplyStatus::kDone)));
static_assert(Agree(KLVLOCK_STATUS_CONFLICT, static_cast<long long>(klv::ReplyStatus::kConflict)));
static_assert(Agree(KLVLOCK_STATUS_NOT_FOUND, static_cast<long long>(klv::ReplyStatus::kNotFound)));
static_assert(Agree(KLVLOCK_STATUS_UNKNOWN, static_cast<long long>(klv::ReplyStatus::kUnknown)));
static_assert(Agree(KLVLOCK_STATUS_WAIT, static_cast<long long>(klv::ReplyStatus::kWait)));
static_assert(Agree(KLVLOCK_OPEN_READ, klv::OPEN_READ));
static_assert(Agree(KLVLOCK_OPEN_WRITE, klv::OPEN_WRITE));
static_assert(Agree(KLVLOCK_OPEN_READWRITE, klv::OPEN_READWRITE));
static_assert(Agree(KLVLOCK_OPEN_EXECUTE, klv::OPEN_EXECUTE));
static_assert(Agree(KLVLOCK_OPEN_MSDOS, klv::OPEN_MSDOS));
static_assert(Agree(KLVLOCK_DENY_MSDOS, klv::DENY_MSDOS));
static_assert(Agree(KLVLOCK_DENY_READWRITE, klv::DENY_READWRITE));
static_assert(Agree(KLVLOCK_DENY_WRITE, klv::DENY_WRITE));
static_assert(Agree(KLVLOCK_DENY_READ, klv::DENY_READ));
static_assert(Agree(KLVLOCK_DENY_NONE, klv::DENY_NONE));
static_assert(Agree(KLVLOCK_LOCK_SHARED, klv::kLockSharedBit));
static_assert(Agree(KLVLOCK_NAME_SIZE, klv::request::kClientNameSize));

}  // namespace

namespace klv::client_wire {
namespace {

void AppendWord(std::string* bytes, uint32_t word) {
  for (int shift = 0; shift < 32; shift += 8) bytes->push_back(static_cast<char>(word >> shift));
}

// Appends `text` (NULL reads as "") with its NUL; false when it is too long.
bool AppendString(std::string* bytes, const char* text) {
  const size_t length = text == nullptr ? 0 : strnlen(text, KLVLOCK_MAX_STRING + 1);
  if (length > KLVLOCK_MAX_STRING) return false;
  bytes->append(text == nullptr ? "" : text, length);
  bytes->push_back('\0');
  return true;
}

// The word at `offset`; the caller has checked the datagram's length.
uint32_t WordAt(const unsigned char* data, size_t offset) {
  return ReadWord(data, offset + 4, offset);
}

// The length that a datagram of `code` from the daemon has: a probe or a
// probe answer is a request record, anything else a reply.
size_t LengthOf(uint32_t code) {
  return code == REQ_PROBE ? request::kProbeSize : reply::LengthFor(code);
}

bool AppendBody(const klvlock_request& request, const std::string& name, std::string* bytes) {
  switch (request.code) {
    case REQ_OPEN:
      AppendWord(bytes, request.openmode);
      AppendWord(bytes, request.oplock != 0 ? 1 : 0);
      bytes->append(name);
      bytes->append(klv::request::kClientNameSize - name.size(), '\0');
      return AppendString(bytes, request.path);
    case REQ_LOCK:
      AppendWord(bytes, request.offset);
      AppendWord(bytes, request.length);
      AppendWord(bytes, request.locktype);
      return true;
    case REQ_UNLOCK:
      AppendWord(bytes, request.offset);
      AppendWord(bytes, request.length);
      return true;
    case REQ_TEXT:
      return AppendString(bytes, request.text);
    case REQ_PROBE:
      AppendWord(bytes, kProtocolVersion);
      AppendWord(bytes, 1);  // wantreply
      return true;
    case REQ_CLIENT_END:
    case REQ_CLOSE:
    case REQ_OPLOCK_RELEASE:
    case REQ_NOOP:
      return true;
    default:
      return false;
  }
}

klvlock_event BreakEvent(const unsigned char* data) {
  klvlock_event event = {};
  event.kind = KLVLOCK_EVENT_OPLOCK_BREAK;
  event.file = {WordAt(data, reply::kBreakFilekeyHi), WordAt(data, reply::kBreakFilekeyLo)};
  event.clientfid = WordAt(data, reply::kBreakClientfid);
  event.session = WordAt(data, reply::kBreakSession);
  return event;
}

klvlock_event RetryEvent(const unsigned char* data) {
  klvlock_event event = {};
  event.kind = KLVLOCK_EVENT_OPEN_RETRY;
  event.waitid = WordAt(data, reply::kValue);
  event.session = WordAt(data, reply::kRetrySession);
  return event;
}

klvlock_reply Reply(const unsigned char* data, uint32_t code) {
  klvlock_reply answer = {};
  answer.code = code;
  answer.tag = WordAt(data, reply::kTag);
  if (code == REQ_PROBE) {
    answer.version = WordAt(data, request::kVersion);
    return answer;
  }
  answer.status = WordAt(data, reply::kStatus);
  answer.value = WordAt(data, reply::kValue);
  if (code == REQ_OPEN) answer.oplock_granted = WordAt(data, reply::kOplockGranted);
  return answer;
}

}  // namespace

bool MayResend(uint32_t code) { return code == REQ_NOOP || code == REQ_TEXT || code == REQ_PROBE; }

bool EncodeRequest(const klvlock_request& request, uint32_t tag, uint32_t session,
                   const std::string& name, std::string* datagram) {
  if (name.size() > klv::request::kClientNameSize) return false;
  datagram->clear();
  const bool is_open = request.code == REQ_OPEN;
  for (uint32_t word : {request.code, tag, session, request.clientfid, request.file.hi,
                        request.file.lo, is_open ? request.waitid : 0}) {
    AppendWord(datagram, word);
  }
  return AppendBody(request, name, datagram);
}

Incoming Decode(const unsigned char* data, size_t size) {
  Incoming incoming;
  if (size < reply::kHeadSize) return incoming;
  const uint32_t code = WordAt(data, reply::kCode);
  if (size != LengthOf(code)) return incoming;
  if (code == MSG_OPLOCK_BREAK || code == MSG_OPEN_RETRY) {
    incoming.kind = Incoming::Kind::kEvent;
    incoming.event = code == MSG_OPLOCK_BREAK ? BreakEvent(data) : RetryEvent(data);
  } else if (code == REQ_PROBE && WordAt(data, request::kWantReply) != 0) {
    incoming.kind = Incoming::Kind::kProbe;
  } else {
    incoming.kind = Incoming::Kind::kReply;
    incoming.reply = Reply(data, code);
  }
  return incoming;
}

std::string ProbeAnswer(const unsigned char* probe) {
  std::string answer(reinterpret_cast<const char*>(probe), request::kHeadSize);
  AppendWord(&answer, kProtocolVersion);
  AppendWord(&answer, 0);
  return answer;
}

}  // namespace klv::client_wire
