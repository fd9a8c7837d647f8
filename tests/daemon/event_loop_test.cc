// The event loop: the datagrams and status connections
// that the running daemon serves.

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>

#include "tests/support/daemon_process.h"
#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

using wire::FromHex;
using wire::Hex;

class EventLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(daemon_.Start()) << daemon_.LastError();
    mark_ = daemon_.Mark();
  }
  void TearDown() override {
    EXPECT_TRUE(daemon_.StillAnswers());
    EXPECT_EQ(daemon_.ErrorLogText(mark_), "");
  }

  // Sends `request` and expects exactly `expected` back.
  void ExpectReply(const std::string& request, const std::string& expected) {
    std::string reply;
    ASSERT_TRUE(daemon_.Client().Exchange(request, &reply)) << "no reply to " << Hex(request);
    EXPECT_EQ(Hex(reply), Hex(expected)) << "request " << Hex(request);
  }

  DaemonProcess daemon_;
  OutputMark mark_;
};

TEST_F(EventLoopTest, TextAndNoopAreAnsweredWithTheirTag) {
  ExpectReply(FromHex("05000000 44332211 01000000 00000000 00000000 00000000 00000000") +
                  "some text" + std::string(1, '\0'),
              FromHex("05000000 44332211 00000000 00000000"));
  ExpectReply(FromHex("e9030000 0d0cbbaa 01000000 02000000 03000000 04000000 00000000"),
              FromHex("e9030000 0d0cbbaa 00000000 00000000"));
}

TEST_F(EventLoopTest, UnknownCodeIsAnsweredStatusFour) {
  ExpectReply(FromHex("4d000000 78563412 00000000 00000000 00000000 00000000 00000000"),
              FromHex("4d000000 78563412 04000000 00000000"));
}

TEST_F(EventLoopTest, BreakCodeAsARequestGetsItsThirtyTwoByteForm) {
  ExpectReply(FromHex("08000000 09000000 01000000 02000000 03000000 04000000 00000000"),
              FromHex("08000000 09000000 04000000 00000000") + std::string(16, '\0'));
}

TEST_F(EventLoopTest, ProbeIsAnsweredWithTheVersion) {
  // session 0x21, clientfid 0x22, file 0x23/0x24, version 0, wantreply 1
  ExpectReply(FromHex("e8030000 55000000 21000000 22000000 23000000 24000000 00000000 "
                      "00000000 01000000"),
              FromHex("e8030000 55000000 21000000 22000000 23000000 24000000 00000000 "
                      "b1140300 00000000"));
  EXPECT_TRUE(daemon_.Client().ReceivesNothing(200));  // no 16-byte reply besides
}

TEST_F(EventLoopTest, ProbeAnswerGetsNoReply) {
  daemon_.SendDatagram(wire::ProbeBytes({.tag = 1, .session = 2}, wire::kVersion, 0));
  EXPECT_TRUE(daemon_.Client().ReceivesNothing(200));
  // A probe cut before its wantreply word reads it as 0: an answer too.
  daemon_.SendDatagram(wire::ProbeBytes({.tag = 1}, wire::kVersion, 1).substr(0, 32));
  EXPECT_TRUE(daemon_.Client().ReceivesNothing(200));
}

// A word that does not lie wholly inside the datagram reads as 0.
TEST_F(EventLoopTest, EveryTruncatedHeadIsAnswered) {
  const uint32_t tag = 0x0A0B0C0D;
  const std::string noop = wire::BareBytes(wire::kNoop, {.tag = tag, .session = 3});
  for (size_t length = 1; length < wire::kRequestHeadSize; ++length) {
    SCOPED_TRACE(length);
    std::string expected;
    if (length < 4) {
      expected = wire::Words({0, 0, wire::kUnknown, 0});
    } else if (length < 8) {
      expected = wire::Words({wire::kNoop, 0, wire::kDone, 0});
    } else {
      expected = wire::Words({wire::kNoop, tag, wire::kDone, 0});
    }
    ExpectReply(noop.substr(0, length), expected);
  }
}

TEST_F(EventLoopTest, EmptyDatagramIsDroppedWithoutStallingTheSocket) {
  ASSERT_TRUE(daemon_.SendDatagram(""));
  EXPECT_TRUE(daemon_.Client().ReceivesNothing(200));
  ASSERT_TRUE(daemon_.SendDatagram(""));
  ExpectReply(wire::BareBytes(wire::kNoop, {.tag = 9}), wire::Words({wire::kNoop, 9, 0, 0}));
}

TEST_F(EventLoopTest, TextWithoutItsNulIsStillAnswered) {
  const std::string unterminated = wire::BareBytes(wire::kText, {.tag = 6}) + "abc";
  ExpectReply(unterminated, wire::Words({wire::kText, 6, wire::kDone, 0}));
}

TEST_F(EventLoopTest, GarbageOfAnyLengthIsAnsweredStatusFour) {
  std::mt19937 random(1234);
  for (const size_t length : {8u, 28u, 100u, 1500u, 9000u}) {
    SCOPED_TRACE(length);
    std::string garbage(length, '\0');
    for (char& byte : garbage) byte = static_cast<char>(random());
    garbage.replace(0, 4, wire::Word(0xDEADBEEF));
    ExpectReply(garbage, wire::Words({0xDEADBEEF, wire::WordAt(garbage, 4), wire::kUnknown, 0}));
  }
}

TEST_F(EventLoopTest, EachClientGetsItsOwnReply) {
  auto first = daemon_.NewClient();
  auto second = daemon_.NewClient();
  ASSERT_TRUE(first->Send(wire::BareBytes(wire::kNoop, {.tag = 1})));
  ASSERT_TRUE(second->Send(wire::BareBytes(wire::kNoop, {.tag = 2})));
  std::string reply;
  ASSERT_TRUE(first->Receive(&reply));
  EXPECT_EQ(reply, wire::Words({wire::kNoop, 1, 0, 0}));
  ASSERT_TRUE(second->Receive(&reply));
  EXPECT_EQ(reply, wire::Words({wire::kNoop, 2, 0, 0}));
  EXPECT_TRUE(first->ReceivesNothing(100));
}

TEST_F(EventLoopTest, StatusConnectionsInARowEachGetAReport) {
  const std::regex report(
      R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} Ostrand Kelvane Lock Daemon 2\.01\.905\n\n)"
      R"(== Client information\n[\s\S]*\nFiles: \d+ Used: \d+ OpenLocks: \d+ RecordLocks: \d+ )"
      R"(OpLocks: \d+\n)");
  for (int connection = 0; connection < 3; ++connection) {
    SCOPED_TRACE(connection);
    std::string text;
    ASSERT_TRUE(daemon_.ReadStatusReport(&text));
    EXPECT_TRUE(std::regex_match(text, report)) << text;
    EXPECT_TRUE(daemon_.StillAnswers());
  }
}

}  // namespace

}  // namespace klv
