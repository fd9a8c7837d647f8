#include "wire_format.h"

#include <cstring>

namespace klv::client_wire {
namespace {

// Request head, seven words:
//   0 code   4 tag   8 session   12 clientfid   16 filekey_hi   20 filekey_lo   24 waitid
// Bodies:
//   open     28 openmode   32 oplockwanted   36 clientname (16 bytes, NUL-padded)   52 path NUL
//   lock     28 offset   32 length   36 locktype
//   unlock   28 offset   32 length
//   text     28 text NUL
//   version  28 version   32 wantreply (1 asks for the answer)
constexpr size_t kNameOffset = 36;
constexpr size_t kNameSize = KLVLOCK_NAME_SIZE;

// Reply head, four words:   0 code   4 tag   8 status   12 value
// Bodies by code, and the whole length:
//   open (1)      16 oplockgranted                                  20 bytes
//   break (8)     16 filekey_hi  20 filekey_lo  24 clientfid  28 session   32 bytes
//   retry (9)     16 the waiter's session                           20 bytes
//   probe (1000)  the request head, 28 version, 32 wantreply         36 bytes
//   all others    none                                              16 bytes
constexpr size_t kReplyHeadSize = 16;
constexpr size_t kOpenReplySize = 20;
constexpr size_t kRetrySize = 20;
constexpr size_t kBreakSize = 32;
constexpr size_t kWantReplyOffset = 32;

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

// The word at `offset`; the caller has checked that it lies inside.
uint32_t WordAt(const unsigned char* data, size_t offset) {
  return uint32_t{data[offset]} | uint32_t{data[offset + 1]} << 8 |
         uint32_t{data[offset + 2]} << 16 | uint32_t{data[offset + 3]} << 24;
}

// The length a datagram of `code` has.
size_t LengthOf(uint32_t code) {
  switch (code) {
    case KLVLOCK_REQ_OPEN:
    case kOpenRetry:
      return kOpenReplySize;
    case kOplockBreak:
      return kBreakSize;
    case KLVLOCK_REQ_VERSION:
      return kProbeSize;
    case 1002:  // a reply form with a 16-bit body; no request of ours has it
      return kReplyHeadSize + 2;
    default:
      return kReplyHeadSize;
  }
}

bool AppendBody(const klvlock_request& request, const std::string& name, std::string* bytes) {
  switch (request.code) {
    case KLVLOCK_REQ_OPEN:
      AppendWord(bytes, request.openmode);
      AppendWord(bytes, request.oplock != 0 ? 1 : 0);
      bytes->append(name);
      bytes->append(kNameSize - name.size(), '\0');
      return AppendString(bytes, request.path);
    case KLVLOCK_REQ_LOCK:
      AppendWord(bytes, request.offset);
      AppendWord(bytes, request.length);
      AppendWord(bytes, request.locktype);
      return true;
    case KLVLOCK_REQ_UNLOCK:
      AppendWord(bytes, request.offset);
      AppendWord(bytes, request.length);
      return true;
    case KLVLOCK_REQ_TEXT:
      return AppendString(bytes, request.text);
    case KLVLOCK_REQ_VERSION:
      AppendWord(bytes, kProtocolVersion);
      AppendWord(bytes, 1);
      return true;
    case KLVLOCK_REQ_CLIENT_END:
    case KLVLOCK_REQ_CLOSE:
    case KLVLOCK_REQ_OPLOCK_RELEASE:
    case KLVLOCK_REQ_NOOP:
      return true;
    default:
      return false;
  }
}

klvlock_event BreakEvent(const unsigned char* data) {
  klvlock_event event = {};
  event.kind = KLVLOCK_EVENT_OPLOCK_BREAK;
  event.file = {WordAt(data, 16), WordAt(data, 20)};
  event.clientfid = WordAt(data, 24);
  event.session = WordAt(data, 28);
  return event;
}

klvlock_event RetryEvent(const unsigned char* data) {
  klvlock_event event = {};
  event.kind = KLVLOCK_EVENT_OPEN_RETRY;
  event.waitid = WordAt(data, 12);
  event.session = WordAt(data, 16);
  return event;
}

klvlock_reply Reply(const unsigned char* data, uint32_t code) {
  klvlock_reply reply = {};
  reply.code = code;
  reply.tag = WordAt(data, 4);
  if (code == KLVLOCK_REQ_VERSION) {
    reply.version = WordAt(data, 28);
    return reply;
  }
  reply.status = WordAt(data, 8);
  reply.value = WordAt(data, 12);
  if (code == KLVLOCK_REQ_OPEN) reply.oplock_granted = WordAt(data, 16);
  return reply;
}

}  // namespace

bool MayResend(uint32_t code) {
  return code == KLVLOCK_REQ_NOOP || code == KLVLOCK_REQ_TEXT || code == KLVLOCK_REQ_VERSION;
}

bool EncodeRequest(const klvlock_request& request, uint32_t tag, uint32_t session,
                   const std::string& name, std::string* datagram) {
  if (name.size() > kNameSize) return false;
  datagram->clear();
  const bool is_open = request.code == KLVLOCK_REQ_OPEN;
  for (uint32_t word : {request.code, tag, session, request.clientfid, request.file.hi,
                        request.file.lo, is_open ? request.waitid : 0}) {
    AppendWord(datagram, word);
  }
  return AppendBody(request, name, datagram);
}

Incoming Decode(const unsigned char* data, size_t size) {
  Incoming incoming;
  if (size < kReplyHeadSize) return incoming;
  const uint32_t code = WordAt(data, 0);
  if (size != LengthOf(code)) return incoming;
  if (code == kOplockBreak || code == kOpenRetry) {
    incoming.kind = Incoming::Kind::kEvent;
    incoming.event = code == kOplockBreak ? BreakEvent(data) : RetryEvent(data);
  } else if (code == KLVLOCK_REQ_VERSION && WordAt(data, kWantReplyOffset) != 0) {
    incoming.kind = Incoming::Kind::kProbe;
  } else {
    incoming.kind = Incoming::Kind::kReply;
    incoming.reply = Reply(data, code);
  }
  return incoming;
}

std::string ProbeAnswer(const unsigned char* probe) {
  std::string answer(reinterpret_cast<const char*>(probe), kRequestHeadSize);
  AppendWord(&answer, kProtocolVersion);
  AppendWord(&answer, 0);
  return answer;
}

}  // namespace klv::client_wire
