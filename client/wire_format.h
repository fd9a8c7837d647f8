#ifndef KLV_CLIENT_WIRE_FORMAT_H_
#define KLV_CLIENT_WIRE_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "klvlock.h"
#include "protocol/wire.h"

// The datagrams between a session and the daemon, encoded and decoded byte by
// byte, little-endian whatever the host, at the offsets of protocol/wire.h.
namespace klv::client_wire {

// Large enough for every datagram the daemon sends; anything longer is not
// one of them.
constexpr size_t kLargestIncoming = 64;
static_assert(kLargestIncoming > reply::kLongest && kLargestIncoming > request::kProbeSize);

// True when repeating `code` does the daemon no harm (no-op, text, version).
bool MayResend(uint32_t code);

// Builds the datagram of `request` with `tag`, the session id and the client
// name. False when the request is invalid: an unknown code, a name longer
// than 16 bytes or a string longer than KLVLOCK_MAX_STRING.
bool EncodeRequest(const klvlock_request& request, uint32_t tag, uint32_t session,
                   const std::string& name, std::string* datagram);

// What one incoming datagram is.
struct Incoming {
  enum class Kind { kMalformed, kReply, kEvent, kProbe };
  Kind kind = Kind::kMalformed;
  klvlock_reply reply = {};  // kReply
  klvlock_event event = {};  // kEvent: a break or an open-retry notice
};

// Decodes `size` bytes, never reading past them. A datagram whose length is
// not the one its code has is kMalformed.
Incoming Decode(const unsigned char* data, size_t size);

// The answer to a liveness probe (a kProbe datagram, request::kProbeSize
// bytes): the probe's head, then kProtocolVersion and wantreply 0.
std::string ProbeAnswer(const unsigned char* probe);

}  // namespace klv::client_wire

#endif  // KLV_CLIENT_WIRE_FORMAT_H_
