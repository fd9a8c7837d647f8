#ifndef KLV_TESTS_SUPPORT_WIRE_BYTES_H_
#define KLV_TESTS_SUPPORT_WIRE_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace klv {

// Request bytes for tests, written word by word, low byte first, apart from
// the daemon's own code, so that a fault in the daemon cannot hide in the
// expected bytes. Every builder returns the datagram as a std::string.
namespace wire {

// Request codes (the daemon sends 8 and 9, the break and the retry notice,
// and probes of its own), reply statuses, and the length of a probe.
enum : uint32_t { kOpen = 1, kLock, kUnlock, kClientEnd, kText, kClose, kOplockRelease };
enum : uint32_t { kOplockBreak = 8, kOpenRetry = 9 };
enum : uint32_t { kProbe = 1000, kNoop = 1001 };
enum : uint32_t { kDone = 0, kConflict = 1, kNotFound = 2, kUnknown = 4, kWait = 5 };
constexpr size_t kReplyHeadSize = 16;
constexpr size_t kProbeSize = 36;
constexpr uint32_t kVersion = 201905;  // 2.01.905

// The seven words of a request head:
//   0 code   4 tag   8 session   12 clientfid   16 filekey_hi   20 filekey_lo   24 waitid
struct RequestHead {
  uint32_t code = 0;
  uint32_t tag = 0;
  uint32_t session = 0;
  uint32_t clientfid = 0;
  uint32_t filekey_hi = 0;
  uint32_t filekey_lo = 0;
  uint32_t waitid = 0;
};

// Four bytes, low byte first.
std::string Word(uint32_t value);
// The words one after the other: Words({5, tag, 0, 0}) is a 16-byte reply.
std::string Words(std::initializer_list<uint32_t> values);
// The word at `offset`, or 0 when it does not lie wholly inside `bytes`.
uint32_t WordAt(const std::string& bytes, size_t offset);

// The 28-byte head alone, with its code as given.
std::string HeadBytes(const RequestHead& head);
// REQ_OPEN: head, openmode, oplockwanted, the name in a 16-byte field (cut to
// 16, padded with NULs) and the path with its NUL.
std::string OpenBytes(RequestHead head, uint32_t openmode, uint32_t oplockwanted,
                      const std::string& clientname, const std::string& path);
// A head with the code of the request and nothing behind it: REQ_CLIENT_END,
// REQ_CLOSE, REQ_OPLOCK_RELEASE, REQ_NOOP or any other code.
inline std::string BareBytes(uint32_t code, RequestHead head) {
  head.code = code;
  return HeadBytes(head);
}
// REQ_LOCK: head, offset, length, locktype.
inline std::string LockBytes(RequestHead head, uint32_t offset, uint32_t length,
                             uint32_t locktype) {
  return BareBytes(kLock, head) + Words({offset, length, locktype});
}
// REQ_UNLOCK: head, offset, length.
inline std::string UnlockBytes(RequestHead head, uint32_t offset, uint32_t length) {
  return BareBytes(kUnlock, head) + Words({offset, length});
}
// REQ_TEXT: head and the text with its NUL.
inline std::string TextBytes(RequestHead head, const std::string& text) {
  return BareBytes(kText, head) + text + std::string(1, '\0');
}
// REQ_PROBE: head, version, wantreply (36 bytes).
inline std::string ProbeBytes(RequestHead head, uint32_t version, uint32_t wantreply) {
  return BareBytes(kProbe, head) + Words({version, wantreply});
}

// Bytes as hex pairs ("05 00 00 00 "), for readable assertion messages.
std::string Hex(const std::string& bytes);

}  // namespace wire

}  // namespace klv

#endif  // KLV_TESTS_SUPPORT_WIRE_BYTES_H_
