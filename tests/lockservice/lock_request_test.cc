#include "lockservice/lock_request.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

using wire::Words;

LockRequest Decoded(const std::string& datagram, bool* valid = nullptr) {
  LockRequest request;
  const bool ok =
      request.Decode(reinterpret_cast<const unsigned char*>(datagram.data()), datagram.size());
  if (valid != nullptr) *valid = ok;
  return request;
}

std::string Text(const RefString& bytes) { return std::string(bytes.Text(), bytes.Length()); }
std::string Text(std::string_view bytes) { return std::string(bytes); }

TEST(LockRequest, DecodesTheHeadAndTheOpenBody) {
  const std::string datagram = Words({1, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x42, 1}) +
                               std::string("PC7\0\0\0\0\0\0\0\0\0\0\0\0\0", 16) + "/a/b" +
                               std::string(1, '\0');
  bool valid = false;
  const LockRequest request = Decoded(datagram, &valid);
  EXPECT_TRUE(valid);
  EXPECT_EQ(request.Code(), 1u);
  EXPECT_EQ(request.Tag(), 0x11u);
  EXPECT_EQ(request.Session(), 0x22u);
  EXPECT_EQ(request.Clientfid(), 0x33u);
  EXPECT_EQ(request.FilekeyHi(), 0x44u);
  EXPECT_EQ(request.FilekeyLo(), 0x55u);
  EXPECT_EQ(request.WaitId(), 0x66u);
  EXPECT_EQ(request.OpenMode(), 0x42u);
  EXPECT_EQ(request.OplockWanted(), 1u);
  EXPECT_EQ(Text(request.ClientName()), "PC7");
  EXPECT_EQ(Text(request.Path()), "/a/b");
}

TEST(LockRequest, NameOfSixteenBytesIsTakenWholeAndThePathFollows) {
  const LockRequest request = Decoded(Words({1, 0, 0, 0, 0, 0, 0, 0, 0}) + "ABCDEFGHIJKLMNOP" +
                                      "/x" + std::string(1, '\0'));
  EXPECT_EQ(Text(request.ClientName()), "ABCDEFGHIJKLMNOP");
  EXPECT_EQ(Text(request.Path()), "/x");
}

TEST(LockRequest, StringWithoutNulIsInvalidAndEmpty) {
  bool valid = true;
  const LockRequest open = Decoded(
      Words({1, 0, 0, 0, 0, 0, 0, 0, 0}) + std::string("PC\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16) + "/x",
      &valid);
  EXPECT_FALSE(valid);
  EXPECT_EQ(Text(open.ClientName()), "PC");
  EXPECT_EQ(open.Path().Length(), 0u);

  const LockRequest text = Decoded(Words({5, 9, 0, 0, 0, 0, 0}) + "no end", &valid);
  EXPECT_FALSE(valid);
  EXPECT_EQ(text.Tag(), 9u);
  EXPECT_EQ(text.Text().Length(), 0u);
}

TEST(LockRequest, DatagramEndingInsideTheNameKeepsWhatArrived) {
  bool valid = true;
  const LockRequest request = Decoded(Words({1, 0, 0, 0, 0, 0, 0, 0x10, 0}) + "ABC", &valid);
  EXPECT_FALSE(valid);
  EXPECT_EQ(request.OpenMode(), 0x10u);
  EXPECT_EQ(Text(request.ClientName()), "ABC");
  EXPECT_EQ(request.Path().Length(), 0u);
}

TEST(LockRequest, WordsBeyondTheEndReadAsZero) {
  const std::string lock = Words({2, 1, 2, 3, 4, 5, 6, 100, 50, 1});
  const LockRequest cut = Decoded(lock.substr(0, 34));
  EXPECT_EQ(cut.Offset(), 100u);
  EXPECT_EQ(cut.Length(), 0u);  // two of its four bytes arrived
  EXPECT_EQ(cut.LockType(), 0u);

  const LockRequest head = Decoded(lock.substr(0, 10));
  EXPECT_EQ(head.Code(), 2u);
  EXPECT_EQ(head.Tag(), 1u);
  EXPECT_EQ(head.Session(), 0u);
  EXPECT_EQ(head.Offset(), 0u);
}

TEST(LockRequest, DecodedBytesAreSentUnchanged) {
  const std::string datagram = Words({1000, 7, 8, 0, 0, 0, 0, 5, 1}) + "trailing";
  LockRequest request = Decoded(datagram);
  EXPECT_EQ(Text(request.Bytes()), datagram);
}

TEST(LockRequest, ChangedFieldIsEncodedAfresh) {
  LockRequest request = Decoded(Words({1000, 7, 8, 9, 10, 11, 12, 5, 1}));
  request.SetVersion(201905);
  request.SetWantReply(0);
  EXPECT_EQ(Text(request.Bytes()),
            Words({1000, 7, 8, 9, 10, 11, 12}) + std::string("\xB1\x14\x03\x00", 4) + Words({0}));
}

TEST(LockRequest, ProbeIsThirtySixBytes) {
  LockRequest probe;
  probe.SetCode(REQ_PROBE);
  probe.SetTag(kProbeTag);
  probe.SetSession(0x01020304);
  probe.SetVersion(kProtocolVersion);
  probe.SetWantReply(1);
  EXPECT_EQ(Text(probe.Bytes()),
            std::string("\xE8\x03\x00\x00\xFE\xCA\xEF\xBE\x04\x03\x02\x01", 12) +
                std::string(16, '\0') + std::string("\xB1\x14\x03\x00\x01\x00\x00\x00", 8));
}

TEST(LockRequest, EncodedNameIsCutToFifteenBytes) {
  LockRequest open;
  open.SetCode(REQ_OPEN);
  open.SetClientName(RefString("ABCDEFGHIJKLMNOPQRS"));
  open.SetPath(RefString("/p"));
  EXPECT_EQ(Text(open.Bytes()), Words({1, 0, 0, 0, 0, 0, 0, 0, 0}) +
                                    std::string("ABCDEFGHIJKLMNO\0", 16) + std::string("/p\0", 3));
}

TEST(LockReply, LengthFollowsTheCode) {
  const struct {
    uint32_t code;
    size_t length;
  } rows[] = {{1, 20}, {2, 16}, {3, 16},    {4, 16},    {5, 16},    {6, 16},  {7, 16},
              {8, 32}, {9, 20}, {1000, 16}, {1001, 16}, {1002, 18}, {77, 16}, {0, 16}};
  for (const auto& row : rows) {
    LockReply reply(row.code, 0);
    EXPECT_EQ(reply.Bytes().size(), row.length) << "code " << row.code;
    EXPECT_EQ(LockReply::LengthFor(row.code), row.length) << "code " << row.code;
  }
}

TEST(LockReply, OpenReplyCarriesTheOplockMark) {
  LockReply reply(REQ_OPEN, 0xAABBCCDD);
  reply.SetOplockGranted(1);
  EXPECT_EQ(Text(reply.Bytes()),
            std::string("\x01\x00\x00\x00\xDD\xCC\xBB\xAA", 8) + Words({0, 0, 1}));
  reply.SetStatus(ReplyStatus::kWait);
  reply.SetValue(3);
  reply.SetOplockGranted(0);
  EXPECT_EQ(Text(reply.Bytes()), Words({1, 0xAABBCCDD, 5, 3, 0}));
}

TEST(LockReply, DaemonMessagesCarryTheirBodies) {
  LockReply brk(MSG_OPLOCK_BREAK, 0);
  brk.SetBreak(0x10, 0x20, 0x30, 0x40);
  EXPECT_EQ(Text(brk.Bytes()), Words({8, 0, 0, 0, 0x10, 0x20, 0x30, 0x40}));

  LockReply retry(MSG_OPEN_RETRY, 0);
  retry.SetValue(1);
  retry.SetWaiterSession(0x99);
  EXPECT_EQ(Text(retry.Bytes()), Words({9, 0, 0, 1, 0x99}));

  LockReply half(REPLY_HALFWORD, 2);
  half.SetHalfWord(0xBEEF);
  EXPECT_EQ(Text(half.Bytes()), Words({1002, 2, 0, 0}) + std::string("\xEF\xBE", 2));
}

}  // namespace

}  // namespace klv
