#include "lockservice/client_table.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>

#include "foundation/output_stream.h"

namespace klv {

namespace {

SocketAddress Loopback(uint16_t port, unsigned char padding = 0) {
  sockaddr_in raw{};
  raw.sin_family = AF_INET;
  raw.sin_port = htons(port);
  raw.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  memset(raw.sin_zero, padding, sizeof raw.sin_zero);
  sockaddr generic;
  memcpy(&generic, &raw, sizeof generic);
  return SocketAddress(generic);
}

std::string NameField(const std::string& name) {
  TextBuilder out;
  WriteNameField(out, RefString(name.data(), static_cast<uint32_t>(name.size())));
  const RefString text = out.Bytes();
  return std::string(text.Text(), text.Length());
}

TEST(ClientTable, KeysAreEqualOnlyWithEverything) {
  const ClientKey key = ClientKey::Of(Loopback(4000), 7);
  EXPECT_TRUE(key == ClientKey::Of(Loopback(4000), 7));
  EXPECT_FALSE(key == ClientKey::Of(Loopback(4000), 8));
  EXPECT_FALSE(key == ClientKey::Of(Loopback(4001), 7));
  EXPECT_FALSE(key == ClientKey::Of(Loopback(4000, 0xFF), 7));
}

TEST(ClientTable, KeyGivesBackTheSendersAddress) {
  const ClientKey key = ClientKey::Of(Loopback(4321), 1);
  const SocketAddress address = key.Address();
  EXPECT_EQ(address.Port(), 4321);
  EXPECT_EQ(memcmp(address.Bytes(), Loopback(4321).Bytes(), kAddressSize), 0);
}

TEST(ClientTable, EntryIsFoundBySessionAndAddress) {
  ClientTable table(4, 0);
  ClientEntry* first = new ClientEntry(ClientKey::Of(Loopback(4000), 5), RefString("ONE"));
  ClientEntry* second = new ClientEntry(ClientKey::Of(Loopback(4001), 5), RefString("TWO"));
  ASSERT_EQ(table.Insert(first), InsertResult::kInserted);
  ASSERT_EQ(table.Insert(second), InsertResult::kInserted);
  EXPECT_EQ(table.Find(ClientKey::Of(Loopback(4001), 5)), second);
  EXPECT_EQ(table.Find(ClientKey::Of(Loopback(4000), 5)), first);
  EXPECT_EQ(table.Find(ClientKey::Of(Loopback(4000), 6)), nullptr);
  EXPECT_EQ(first->state, ClientState::kOk);
  EXPECT_EQ(first->probe_tick, 0u);
  EXPECT_EQ(first->activity_tick, 0u);
  table.DeleteAll();
}

TEST(ClientTable, NameFieldIsFifteenBytesWide) {
  EXPECT_EQ(NameField(""), std::string(15, ' '));
  EXPECT_EQ(NameField("PC1"), "PC1" + std::string(12, ' '));
  EXPECT_EQ(NameField("FIFTEEN-BYTES15"), "FIFTEEN-BYTES15");
  EXPECT_EQ(NameField("TWENTY-BYTES-NAME-20"), "TWENTY-BYTES-NA");
  EXPECT_EQ(NameField("\xC9T\xC9"), "\xC9T\xC9" + std::string(12, ' '));
}

}  // namespace

}  // namespace klv
