// Datagrams of every code and shape on the running daemon: the form of each
// reply follows the code, probes are answered with a probe, and datagrams cut
// short, empty or malformed are answered or dropped without harm.

#include <cstdint>
#include <random>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::Hex;
using wire::WordAt;
using wire::Words;

class RequestsEndToEnd : public LockServiceTest {
 protected:
  ServerProcess pc_ = NewProcess(1, "PC1");
};

TEST_F(RequestsEndToEnd, ReplyFormFollowsTheCode) {
  const wire::RequestHead head = {.tag = 0x44332211, .session = 1, .filekey_hi = 9};
  const struct {
    std::string request;
    std::string reply;
  } kCases[] = {
      {wire::TextBytes(head, "some text"), Words({5, 0x44332211, 0, 0})},
      {wire::BareBytes(5, head) + "no NUL", Words({5, 0x44332211, 0, 0})},
      {wire::BareBytes(1001, head), Words({1001, 0x44332211, 0, 0})},
      {wire::BareBytes(77, head), Words({77, 0x44332211, 4, 0})},
      {wire::BareBytes(0xFFFFFFFF, head), Words({0xFFFFFFFF, 0x44332211, 4, 0})},
      {wire::BareBytes(8, head), Words({8, 0x44332211, 4, 0, 0, 0, 0, 0})},
      {wire::BareBytes(9, head), Words({9, 0x44332211, 4, 0, 0})},
      {wire::BareBytes(1002, head), Words({1002, 0x44332211, 4, 0}) + std::string(2, '\0')},
      {wire::BareBytes(4, head), Words({4, 0x44332211, 0, 0})},
      {wire::BareBytes(6, head), Words({6, 0x44332211, 0, 0})},  // close of an unknown file
      {wire::BareBytes(7, head), Words({7, 0x44332211, 4, 0})},  // release, unknown file
      {wire::UnlockBytes(head, 0, 1), Words({3, 0x44332211, 2, 0})},
      {wire::LockBytes(head, 0, 1, 0), Words({2, 0x44332211, 0, 0})},
  };
  for (const auto& c : kCases) EXPECT_EQ(Hex(pc_.Ask(c.request)), Hex(c.reply));
}

TEST_F(RequestsEndToEnd, ProbeIsAnsweredWithTheVersionAndAnswersAreNot) {
  const std::string probe = wire::ProbeBytes({0, 0x55, 0x21, 0x22, 0x23, 0x24, 0}, 7, 1);
  EXPECT_EQ(Hex(pc_.Ask(probe)), Hex(Words({1000, 0x55, 0x21, 0x22, 0x23, 0x24, 0, 201905, 0})));
  // An answer (wantreply 0), or a probe cut short (its wantreply reads 0),
  // gets nothing: the first thing back is the reply to the REQ_NOOP after them.
  ASSERT_TRUE(pc_.Send(wire::ProbeBytes({.tag = 1, .session = 1}, 201905, 0)));
  for (size_t length = 4; length < wire::kProbeSize; ++length) {
    ASSERT_TRUE(pc_.Send(probe.substr(0, length)));
  }
  EXPECT_EQ(Hex(pc_.Ask(wire::BareBytes(wire::kNoop, {.tag = 9}))), Hex(Words({1001, 9, 0, 0})));
  pc_.ExpectNoMessage();
}

// A word that does not lie wholly inside the datagram reads as 0.
TEST_F(RequestsEndToEnd, EveryTruncatedRequestIsAnswered) {
  const wire::RequestHead head = {.tag = 7, .session = 1, .clientfid = 1, .filekey_hi = 3};
  const std::string requests[] = {
      wire::OpenBytes(head, kRead | kDenyNone, 0, "PC1", "/share/file"),
      wire::LockBytes(head, 10, 5, 0),
      wire::UnlockBytes(head, 10, 5),
      wire::TextBytes(head, "text"),
      wire::BareBytes(wire::kClose, head),
      wire::BareBytes(wire::kNoop, head),
  };
  for (const std::string& request : requests) {
    const uint32_t code = WordAt(request, 0);
    for (size_t length = 1; length <= request.size(); ++length) {
      const std::string reply = pc_.Ask(request.substr(0, length));
      const uint32_t expected_code = length < 4 ? 0 : code;
      EXPECT_EQ(reply.size(), expected_code == wire::kOpen ? 20u : 16u);
      EXPECT_EQ(WordAt(reply, 0), expected_code) << "code " << code << " length " << length;
      EXPECT_EQ(WordAt(reply, 4), length < 8 ? 0u : 7u) << "code " << code << " length " << length;
    }
  }
}

// An empty datagram is dropped without a reply; garbage is an unknown request.
TEST_F(RequestsEndToEnd, EmptyAndMalformedDatagramsDoNoHarm) {
  ASSERT_TRUE(pc_.Send(""));
  pc_.ExpectNoMessage();
  ASSERT_TRUE(pc_.Send(""));
  std::mt19937 random(1234);
  for (const size_t length : {8u, 28u, 100u, 1500u, 9000u}) {
    std::string garbage(length, '\0');
    for (char& byte : garbage) byte = static_cast<char>(random());
    garbage.replace(0, 4, wire::Word(0xDEADBEEF));
    EXPECT_EQ(Hex(pc_.Ask(garbage)), Hex(Words({0xDEADBEEF, WordAt(garbage, 4), 4, 0})));
  }
}

}  // namespace

}  // namespace klv
