// Datagrams of every code and shape on the running daemon: the form of each
// reply follows the code, probes are answered with a probe, and datagrams cut
// short or empty are answered or dropped without harm; and the status report,
// read over TCP and compared character for character after its banner line.

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

using wire::Hex;
using wire::kDone;
using wire::WordAt;
using wire::Words;

class RequestsEndToEnd : public LockServiceTest {
 protected:
  ServerProcess pc_ = NewProcess(1, "PC1");
};

TEST_F(RequestsEndToEnd, ReplyFormFollowsTheCode) {
  const wire::RequestHead head = {.tag = 0x44332211, .session = 1, .filekey_hi = 9};
  const std::pair<std::string, std::string> kCases[] = {
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
  for (const auto& [request, reply] : kCases) EXPECT_EQ(Hex(pc_.Ask(request)), Hex(reply));
}

TEST_F(RequestsEndToEnd, ProbeIsAnsweredWithTheVersionAndAnswersAreNot) {
  const std::string probe = wire::ProbeBytes({0, 0x55, 0x21, 0x22, 0x23, 0x24, 0}, 7, 1);
  EXPECT_EQ(Hex(pc_.Ask(probe)), Hex(Words({1000, 0x55, 0x21, 0x22, 0x23, 0x24, 0, 201905, 0})));
  // An answer (wantreply 0), a probe cut short (its wantreply reads 0) and an
  // empty datagram get nothing: the first thing back is the reply to the
  // REQ_NOOP after them.
  ASSERT_TRUE(pc_.Send(wire::ProbeBytes({.tag = 1, .session = 1}, 201905, 0)));
  ASSERT_TRUE(pc_.Send(""));
  ASSERT_TRUE(pc_.Send(probe.substr(0, 35)));
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

TEST_F(RequestsEndToEnd, EmptyTables) {
  EXPECT_EQ(ReportAfterBanner(),
            "\n== Client information\n\n== File lock information\n"
            "\nFiles: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(RequestsEndToEnd, RowsOfEveryKindOfLock) {
  ServerProcess alpha = NewProcess(2, "alpha");
  // The last granted open with a path names the file.
  EXPECT_EQ(Hex(alpha.Open({2, 0}, 7, kReadWrite | kDenyWrite, {.path = "/srv/a.dat"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(Hex(alpha.Open({2, 0}, 8, 0x43, {.path = "/srv/A.DAT"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(alpha.OpenStatus({2, 0}, 9, 0xD7), kDone);  // no path: the name stays
  // The oplock keeps its type as asked: 3. A new name of the same length
  // renames the client.
  const OpenOptions options = {.oplockwanted = 3, .path = "/srv/\xE9"};
  EXPECT_EQ(Hex(alpha.AnotherSession(2, "ALPHA").Open({6, 4}, 1, 0x1F, options)),
            Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(alpha.Lock({6, 4}, 4, 100, 50, 1), kDone);
  EXPECT_EQ(alpha.Lock({6, 4}, 9, 0, 10, 2), kDone);
  // A client without an entry (only an open makes one) has a blank name.
  EXPECT_EQ(NewProcess(5, "stranger").Lock({6, 4}, 3, 0xFFFFFFFF, 1, 0), kDone);
  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("ALPHA          ", kOk, "2", alpha) +
                                     "\n== File lock information\n"
                                     "[2,0] /srv/A.DAT\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    ALPHA           7 OPEN_READWRITE|DENY_WRITE\n"
                                     "    ALPHA           8 OPEN_EXECUTE(=READ)|DENY_NONE\n"
                                     "    ALPHA           9 7(=READ)80(=DENY_NONE)\n"
                                     "\n"
                                     "[6,4] /srv/\xE9\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    ALPHA           1 OPEN_MSDOS(=READWRITE)|DENY_READWRITE\n"
                                     "  Op locks: [clientfid type]\n"
                                     "    ALPHA           1 3\n"
                                     "  Record locks: [clientfid type offset length]\n"
                                     "    ALPHA           4 1 100 50\n"
                                     "    ALPHA           9 0 0 10\n"
                                     "                    3 0 4294967295 1\n"
                                     "\n"
                                     "\nFiles: 2 Used: 2 OpenLocks: 4 RecordLocks: 3 OpLocks: 1\n");
}

}  // namespace klv
