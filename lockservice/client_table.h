#ifndef KLV_LOCKSERVICE_CLIENT_TABLE_H_
#define KLV_LOCKSERVICE_CLIENT_TABLE_H_

#include <cstddef>
#include <cstdint>

#include "foundation/hash_set.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"
#include "protocol/report_layout.h"

namespace klv {

// The bytes of an IPv4 socket address as the kernel hands them over.
constexpr size_t kAddressSize = 16;
// Width of the client name in the status report and the dead-client notice.
constexpr uint32_t kNameFieldWidth = report::kNameWidth;

// Names one client session in every table: the sender's whole socket address
// (port and padding included) and the session id of its requests.
struct ClientKey {
  unsigned char address[kAddressSize] = {};
  uint32_t session = 0;

  static ClientKey Of(const SocketAddress& sender, uint32_t session);
  // The address that messages to this client are sent to.
  SocketAddress Address() const;
  // Equal sessions and all 16 address bytes equal.
  bool operator==(const ClientKey& other) const;
};

enum class ClientState : uint8_t {
  kOk = 0,    // heard from, or not yet probed
  kWait = 1,  // a liveness probe was sent and not yet answered
};

// One server-process session that has opened a file. The client table owns it.
struct ClientEntry {
  unsigned char address[kAddressSize] = {};
  RefString name;  // the client machine the server process acts for
  uint32_t session_id = 0;
  ClientState state = ClientState::kOk;
  uint32_t probe_tick = 0;     // the sweep tick of the last probe
  uint32_t activity_tick = 0;  // the sweep tick of the last sign of life; 0 after a probe

  // A new entry in state OK with both ticks 0.
  ClientEntry(const ClientKey& key, const RefString& client_name);
  ClientKey Key() const;
};

// Bucket by session id; equal keys as ClientKey compares them.
struct ClientTraits {
  using Key = ClientKey;
  static Key KeyOf(const ClientEntry& entry) { return entry.Key(); }
  static uint32_t Hash(const Key& key) { return key.session; }
  static bool Equal(const Key& a, const Key& b) { return a == b; }
};

using ClientTable = HashSet<ClientEntry, ClientTraits>;

// Writes `name` left-justified in a field of exactly 15 bytes: cut to its
// first 15 bytes, or padded with blanks. The bytes pass unchanged.
void WriteNameField(OutputStream& out, const RefString& name);

}  // namespace klv

#endif  // KLV_LOCKSERVICE_CLIENT_TABLE_H_
