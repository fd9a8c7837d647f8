// The dead-client sweep of the running daemon with its real period of 60
// seconds: a probe at the first sweep, and at the second the release of a
// client that never answered. Slow: about two minutes.
//
// How the story stays free of chance. The sweep draws rand() for every client
// in state OK and probes it only with chance 1/(clients / 2 + 1), and only if
// it was not heard from in the current tick; a client in state WAIT is
// released, without any draw, once the tick has passed its activity tick + 1.
// - Up to the first sweep (tick 1) "alive" is the only client, so the chance
//   is 1, and it has never been heard from: it is probed for certain.
// - "alive" answers after the sweep, in tick 2; "silent" and "waiter" first
//   act in tick 2 as well. The grant of silent's oplock probes it (new client,
//   activity tick 0) and it never answers: WAIT from then on. The waiter's
//   probe is answered in tick 2.
// - At the second sweep (tick 2) neither "alive" nor "waiter" can be probed,
//   whatever rand() draws, since both were heard from in tick 2, and "silent"
//   is released because 2 > 0 + 1.
// Nothing is sent to the daemon while it waits for a sweep: traffic would
// delay it.

#include <chrono>
#include <cstdint>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::Hex;
using wire::Words;

// A sweep period of 60 seconds and ample slack.
constexpr int kSweepWaitMs = 80000;

constexpr FileKey kAliveFile = {8, 0};  // hash 8: bucket 0
constexpr FileKey kReport = {5, 1};     // hash 4: bucket 0
constexpr FileKey kLedger = {6, 0};     // hash 6: bucket 2

class SweepEndToEnd : public LockServiceTest {
 protected:
  // Sessions 1, 0x51 and 0x20 all have bit 1 clear: one bucket of the client
  // table, in the order of their first open.
  ServerProcess alive_ = NewProcess(1, "alive");
  ServerProcess silent_ = NewProcess(0x51, "SILENT-MACHINE-01");  // 16 bytes reach the daemon
  ServerProcess waiter_ = NewProcess(0x20, "waiter");
};

TEST_F(SweepEndToEnd, ProbesAtTheFirstSweepAndReleasesTheSilentClientAtTheSecond) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Hex(alive_.Open(kAliveFile, 1, kRead | kDenyNone, {.path = "/srv/data/alive.dat"})),
            Hex(Words({1, kTag, 0, 0, 0})));

  // The first sweep, not before a period of silence has passed.
  std::string probe;
  ASSERT_TRUE(alive_.Udp().Receive(&probe, kSweepWaitMs));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(55));
  EXPECT_EQ(Hex(probe), Hex(Words({1000, 0xBEEFCAFE, 1, 0, 0, 0, 0, 201905, 1})));
  ASSERT_TRUE(alive_.Send(Words({1000, 0xBEEFCAFE, 1, 0, 0, 0, 0, 201905, 0})));

  // The silent client takes an oplock; it gets a probe first and never answers.
  EXPECT_EQ(Hex(silent_.Open(kLedger, 1, kRead | kDenyNone, {.path = "/srv/data/ledger.dat"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  std::string datagram;
  ASSERT_TRUE(silent_.Send(silent_.OpenRequest(
      kReport, 2, kRead | kDenyNone, {.oplockwanted = 1, .path = "/srv/data/report.doc"})));
  ASSERT_TRUE(silent_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({1000, 0xBEEFCAFE, 0x51, 0, 0, 0, 0, 201905, 1})));
  ASSERT_TRUE(silent_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({1, kTag, 0, 0, 1})));

  // The waiter meets the oplock; the silent holder, awaiting its probe's
  // answer, gets the break without a second probe.
  EXPECT_EQ(Hex(waiter_.Open(kReport, 1, kRead | kDenyNone, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 5, 1, 0})));
  ASSERT_TRUE(silent_.Udp().Receive(&datagram));
  EXPECT_EQ(Hex(datagram), Hex(Words({8, 0, 0, 0, 5, 1, 2, 0x51})));

  const std::string heading = "\n== Client information\n" + std::string(kClientHeading) +
                              ClientRow("alive          ", kOk, "1", alive_);
  const std::string silent_row = ClientRow("SILENT-MACHINE-", kWaiting, "81", silent_);
  const std::string waiter_row = ClientRow("waiter         ", kOk, "32", waiter_);
  const std::string alive_file =
      "\n== File lock information\n"
      "[8,0] /srv/data/alive.dat\n"
      "  Open locks: [clientfid type]\n"
      "    alive           1 OPEN_READ|DENY_NONE\n"
      "\n";
  EXPECT_EQ(ReportAfterBanner(), heading + silent_row + waiter_row + alive_file +
                                     "[5,1] /srv/data/report.doc\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    SILENT-MACHINE- 2 OPEN_READ|DENY_NONE\n"
                                     "  Op locks: [clientfid type]\n"
                                     "    SILENT-MACHINE- 2 1\n"
                                     "\n"
                                     "[6,0] /srv/data/ledger.dat\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    SILENT-MACHINE- 1 OPEN_READ|DENY_NONE\n"
                                     "\n"
                                     "\nFiles: 3 Used: 3 OpenLocks: 3 RecordLocks: 0 OpLocks: 1\n");

  // The second sweep releases the silent client, which frees the waiter.
  const OutputMark before_release = daemon_.Mark();
  EXPECT_EQ(Hex(waiter_.Next(kSweepWaitMs)), Hex(Words({9, 0, 0, 1, 0x20})));
  const std::string notice =
      "\nOstrand Kelvane Lock Daemon NOTICE:\n"
      "\nThe Kelvane server process acting on behalf of SILENT-MACHINE-\n"
      "has stopped responding.  Checking your server logs will help\n"
      "establish the cause.  Locks owned by the machine are being released.\n"
      "[5,1] = /srv/data/report.doc\n"
      "[6,0] = /srv/data/ledger.dat\n";
  EXPECT_TRUE(daemon_.WaitForStderr(notice, before_release));
  EXPECT_EQ(daemon_.StderrText(before_release), notice);
  alive_.ExpectNoMessage();

  EXPECT_EQ(ReportAfterBanner(), heading + waiter_row + alive_file +
                                     "\nFiles: 3 Used: 1 OpenLocks: 1 RecordLocks: 0 OpLocks: 0\n");
  EXPECT_EQ(Hex(waiter_.Open(kReport, 1, kRead | kDenyNone, {.oplockwanted = 1, .waitid = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(waiter_.OpenStatus(kLedger, 2, kRead | kDenyReadWrite), wire::kDone);
}

}  // namespace

}  // namespace klv
