#include "lockservice/client_table.h"

#include <cstring>

namespace klv {

ClientKey ClientKey::Of(const SocketAddress& sender, uint32_t session) {
  ClientKey key;
  memcpy(key.address, sender.Bytes(), kAddressSize);
  key.session = session;
  return key;
}

SocketAddress ClientKey::Address() const {
  sockaddr raw;
  static_assert(sizeof raw == kAddressSize);
  memcpy(&raw, address, kAddressSize);
  return SocketAddress(raw);
}

bool ClientKey::operator==(const ClientKey& other) const {
  return session == other.session && memcmp(address, other.address, kAddressSize) == 0;
}

ClientEntry::ClientEntry(const ClientKey& key, const RefString& client_name)
    : name(client_name), session_id(key.session) {
  memcpy(address, key.address, kAddressSize);
}

ClientKey ClientEntry::Key() const {
  ClientKey key;
  memcpy(key.address, address, kAddressSize);
  key.session = session_id;
  return key;
}

void WriteNameField(OutputStream& out, const RefString& name) {
  static const char kBlanks[] = "               ";  // kNameFieldWidth blanks
  const uint32_t length = name.Length() < kNameFieldWidth ? name.Length() : kNameFieldWidth;
  out.WriteBytes(name.Text(), length);
  out.WriteBytes(kBlanks, kNameFieldWidth - length);
}

}  // namespace klv
