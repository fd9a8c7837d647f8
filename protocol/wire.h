#ifndef KLV_PROTOCOL_WIRE_H_
#define KLV_PROTOCOL_WIRE_H_

// The lock protocol on the daemon's UDP port: one datagram is one record of
// little-endian 32-bit words, encoded and decoded byte by byte whatever the
// host. The daemon, the client library, the tools, the benchmarks and the
// fuzzers all take the codes, offsets and lengths from here.

#include <cstddef>
#include <cstdint>

#include "protocol/version.h"

namespace klv {

// Codes of the lock protocol. Requests come from server processes; the daemon
// sends MSG_OPLOCK_BREAK, MSG_OPEN_RETRY and its own REQ_PROBE unasked.
enum MessageCode : uint32_t {
  REQ_OPEN = 1,
  REQ_LOCK = 2,
  REQ_UNLOCK = 3,
  REQ_CLIENT_END = 4,
  REQ_TEXT = 5,
  REQ_CLOSE = 6,
  REQ_OPLOCK_RELEASE = 7,
  MSG_OPLOCK_BREAK = 8,
  MSG_OPEN_RETRY = 9,
  REQ_PROBE = 1000,
  REQ_NOOP = 1001,
  // A reply form with one 16-bit word of body, which no handler sends.
  REPLY_HALFWORD = 1002,
};

// The status word of a reply.
enum class ReplyStatus : uint32_t {
  kDone = 0,      // done or granted
  kConflict = 1,  // share violation on open, range overlap on lock
  kNotFound = 2,  // unlock of an unknown file or of a range not held
  kUnknown = 4,   // unknown request code, or oplock release of an unknown file
  kWait = 5,      // the open must wait for oplock breaks; value is the wait id
};

// The locktype word of REQ_LOCK: bit 0 set asks for a shared lock, any other
// value for an exclusive one; kLockTypeUnimplemented is logged as a type the
// daemon does not implement and locks exclusively.
constexpr uint32_t kLockSharedBit = 1;
constexpr uint32_t kLockTypeUnimplemented = 4;

// The tag of the daemon's own liveness probe.
constexpr uint32_t kProbeTag = 0xBEEFCAFE;

// Request: a head of seven words, then a body that depends on the code.
//   head        0 code  4 tag  8 session  12 clientfid  16 filekey_hi
//               20 filekey_lo  24 waitid
//   REQ_OPEN    28 openmode  32 oplockwanted  36 clientname (16 bytes: up to
//               the first NUL, or all 16)  52 path (NUL-terminated)
//   REQ_LOCK    28 offset  32 length  36 locktype
//   REQ_UNLOCK  28 offset  32 length
//   REQ_TEXT    28 text (NUL-terminated; carried and ignored)
//   REQ_PROBE   28 version  32 wantreply (nonzero: answer me; 0: this is the
//               answer). The daemon's probe and its answer to one are 36 bytes.
namespace request {
constexpr size_t kCode = 0;
constexpr size_t kTag = 4;
constexpr size_t kSession = 8;
constexpr size_t kClientfid = 12;
constexpr size_t kFilekeyHi = 16;
constexpr size_t kFilekeyLo = 20;
constexpr size_t kWaitId = 24;
constexpr size_t kHeadSize = 28;
constexpr size_t kOpenMode = 28;
constexpr size_t kOplockWanted = 32;
constexpr size_t kClientName = 36;
constexpr size_t kClientNameSize = 16;
constexpr size_t kPath = kClientName + kClientNameSize;
constexpr size_t kOffset = 28;
constexpr size_t kLength = 32;
constexpr size_t kLockType = 36;
constexpr size_t kText = 28;
constexpr size_t kVersion = 28;
constexpr size_t kWantReply = 32;
constexpr size_t kProbeSize = 36;
}  // namespace request

// Reply, and the daemon's own messages: a head of four words, then a body
// whose length follows the code.
//   head              0 code  4 tag  8 status  12 value (the wait id when
//                     status is kWait, and in MSG_OPEN_RETRY)
//   REQ_OPEN          16 oplockgranted
//   MSG_OPLOCK_BREAK  16 filekey_hi  20 filekey_lo  24 holder's clientfid
//                     28 holder's session
//   MSG_OPEN_RETRY    16 the waiter's session
//   REPLY_HALFWORD    16 one 16-bit word
// Unused bytes are 0.
namespace reply {
constexpr size_t kCode = 0;
constexpr size_t kTag = 4;
constexpr size_t kStatus = 8;
constexpr size_t kValue = 12;
constexpr size_t kHeadSize = 16;
constexpr size_t kOplockGranted = 16;
constexpr size_t kBreakFilekeyHi = 16;
constexpr size_t kBreakFilekeyLo = 20;
constexpr size_t kBreakClientfid = 24;
constexpr size_t kBreakSession = 28;
constexpr size_t kRetrySession = 16;
constexpr size_t kLongest = 32;

// The datagram length of a reply or message of `code`: 20 for REQ_OPEN and
// MSG_OPEN_RETRY, 32 for MSG_OPLOCK_BREAK, 18 for REPLY_HALFWORD, 16 for
// every other code. A probe answer is a request record (request::kProbeSize).
constexpr size_t LengthFor(uint32_t code) {
  switch (code) {
    case REQ_OPEN:
    case MSG_OPEN_RETRY:
      return kHeadSize + 4;
    case MSG_OPLOCK_BREAK:
      return kLongest;
    case REPLY_HALFWORD:
      return kHeadSize + 2;
    default:
      return kHeadSize;
  }
}
}  // namespace reply

// Returns the word at `offset`, or 0 when it does not lie wholly inside the
// `size` bytes at `data`.
inline uint32_t ReadWord(const unsigned char* data, size_t size, size_t offset) {
  if (offset > size || size - offset < 4) return 0;
  return uint32_t{data[offset]} | uint32_t{data[offset + 1]} << 8 |
         uint32_t{data[offset + 2]} << 16 | uint32_t{data[offset + 3]} << 24;
}

// Writes `word` at `offset`, low byte first; the caller has made room.
inline void WriteWord(unsigned char* buffer, size_t offset, uint32_t word) {
  for (size_t i = 0; i < 4; ++i) buffer[offset + i] = static_cast<unsigned char>(word >> (8 * i));
}

}  // namespace klv

#endif  // KLV_PROTOCOL_WIRE_H_
