// Requests of every code on the running daemon, whole and cut short: the form
// of each reply follows the code, and a probe cut short is never answered.

#include <cstdint>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::Hex;
using wire::kUnknown;
using wire::WordAt;
using wire::Words;

class RequestsEndToEnd : public LockServiceTest {
 protected:
  // A head of session 1 with `tag`; the other words 0.
  static wire::RequestHead HeadWithTag(uint32_t tag) { return {.tag = tag, .session = 1}; }

  ServerProcess pc_ = NewProcess(1, "PC1");
};

TEST_F(RequestsEndToEnd, CodesThatOnlyTheDaemonSendsAreAnsweredInTheirOwnForm) {
  // The break: 32 bytes; the retry notice: 20; the half-word reply: 18.
  EXPECT_EQ(Hex(pc_.Ask(wire::BareBytes(8, HeadWithTag(1)))),
            Hex(Words({8, 1, kUnknown, 0, 0, 0, 0, 0})));
  EXPECT_EQ(Hex(pc_.Ask(wire::BareBytes(9, HeadWithTag(2)))), Hex(Words({9, 2, kUnknown, 0, 0})));
  EXPECT_EQ(Hex(pc_.Ask(wire::BareBytes(1002, HeadWithTag(3)))),
            Hex(Words({1002, 3, kUnknown, 0}) + std::string(2, '\0')));
}

TEST_F(RequestsEndToEnd, EveryOtherCodeIsAnsweredInSixteenBytes) {
  for (const uint32_t code : {2u, 3u, 4u, 6u, 7u, 1001u, 0u, 0xFFFFFFFFu}) {
    const std::string reply = pc_.Ask(wire::BareBytes(code, HeadWithTag(5)));
    EXPECT_EQ(reply.size(), 16u) << "code " << code << ": " << Hex(reply);
    EXPECT_EQ(WordAt(reply, 0), code) << "code " << code;
    EXPECT_EQ(WordAt(reply, 4), 5u) << "code " << code;
  }
}

TEST_F(RequestsEndToEnd, EveryTruncatedRequestIsAnswered) {
  const std::string requests[] = {
      wire::OpenBytes({.tag = 7, .session = 1, .clientfid = 1, .filekey_hi = 1, .filekey_lo = 2},
                      kRead | kDenyNone, 0, "PC1", "/share/file"),
      wire::LockBytes({.session = 1, .clientfid = 1, .filekey_hi = 1, .filekey_lo = 3}, 10, 5, 0),
      wire::UnlockBytes({.session = 1, .clientfid = 1, .filekey_hi = 1, .filekey_lo = 3}, 10, 5),
      wire::BareBytes(wire::kClientEnd, HeadWithTag(7)),
      wire::TextBytes(HeadWithTag(7), "text"),
      wire::BareBytes(wire::kClose,
                      {.tag = 7, .session = 1, .clientfid = 1, .filekey_hi = 1, .filekey_lo = 2}),
      wire::BareBytes(wire::kOplockRelease,
                      {.tag = 7, .session = 1, .clientfid = 1, .filekey_hi = 1, .filekey_lo = 2}),
      wire::BareBytes(wire::kNoop, HeadWithTag(7)),
  };
  for (const std::string& request : requests) {
    const uint32_t code = WordAt(request, 0);
    for (size_t length = 1; length <= request.size(); ++length) {
      const std::string reply = pc_.Ask(request.substr(0, length));
      // A code cut short reads as 0, an unknown code.
      const uint32_t expected_code = length < 4 ? 0 : code;
      ASSERT_EQ(reply.size(), expected_code == wire::kOpen ? 20u : 16u)
          << "code " << code << " length " << length << ": " << Hex(reply);
      EXPECT_EQ(WordAt(reply, 0), expected_code) << "code " << code << " length " << length;
    }
  }
  EXPECT_EQ(Hex(pc_.Ask(wire::BareBytes(wire::kNoop, HeadWithTag(8)))),
            Hex(Words({wire::kNoop, 8, 0, 0})));
}

TEST_F(RequestsEndToEnd, TruncatedProbeIsNeverAnsweredAsARequest) {
  const std::string probe = wire::ProbeBytes({.tag = 7, .session = 1}, 0, 1);
  for (size_t length = 4; length < probe.size(); ++length) {
    ASSERT_TRUE(pc_.Send(probe.substr(0, length))) << "length " << length;
  }
  // Datagrams are served one at a time and in order: the first thing back
  // must be the answer to this.
  ASSERT_TRUE(pc_.Send(wire::BareBytes(wire::kNoop, HeadWithTag(9))));
  std::string datagram;
  ASSERT_TRUE(pc_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({wire::kNoop, 9, 0, 0})));
  pc_.ExpectNoMessage();
}

}  // namespace

}  // namespace klv
