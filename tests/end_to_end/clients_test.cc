// The end of a client session on the running daemon: REQ_CLIENT_END releases
// everything that one client key holds and leaves its entry in the table.

#include <cstdint>
#include <string>

#include "tests/end_to_end/lock_service_fixture.h"

namespace klv {

namespace {

using wire::Hex;
using wire::kConflict;
using wire::kDone;
using wire::Words;

constexpr FileKey kCached = {0x100, 0x1};
constexpr FileKey kWritten = {0x100, 0x2};
constexpr FileKey kNeighbours = {0x100, 0x3};

class ClientsEndToEnd : public LockServiceTest {
 protected:
  // Sessions 0x10, 0x11 and 0x20 all have bit 1 clear, so the client table
  // (hash = session, four buckets, mask 2) keeps them in bucket 0 in the
  // order of their first open: ending, neighbour, waiter.
  ServerProcess ending_ = NewProcess(0x10, "ending");
  ServerProcess neighbour_ = ending_.AnotherSession(0x11, "neighbour");
  ServerProcess waiter_ = NewProcess(0x20, "waiter");
};

TEST_F(ClientsEndToEnd, EndReleasesEverythingOfTheClientKeyOnly) {
  EXPECT_EQ(Hex(ending_.Open(kCached, 1, kRead | kDenyReadWrite, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(ending_.OpenStatus(kWritten, 2, kWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(ending_.Lock(kWritten, 2, 0, 100, 0), kDone);
  EXPECT_EQ(Hex(neighbour_.Open(kNeighbours, 1, kRead | kDenyReadWrite, {.path = "/srv/n"})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(neighbour_.Lock(kNeighbours, 1, 0, 100, 0), kDone);
  EXPECT_EQ(Hex(waiter_.Open(kCached, 9, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(ending_.Next()), Hex(Words({8, 0, 0, 0, 0x100, 0x1, 1, 0x10})));

  EXPECT_EQ(ending_.End(), kDone);
  EXPECT_EQ(Hex(waiter_.Next()), Hex(Words({9, 0, 0, 1, 0x20})));

  EXPECT_EQ(ReportAfterBanner(), "\n== Client information\n" + std::string(kClientHeading) +
                                     ClientRow("ending         ", kOk, "16", ending_) +
                                     ClientRow("neighbour      ", kOk, "17", neighbour_) +
                                     ClientRow("waiter         ", kOk, "32", waiter_) +
                                     "\n== File lock information\n"
                                     "[256,3] /srv/n\n"
                                     "  Open locks: [clientfid type]\n"
                                     "    neighbour       1 OPEN_READ|DENY_READWRITE\n"
                                     "  Record locks: [clientfid type offset length]\n"
                                     "    neighbour       1 0 0 100\n"
                                     "\n"
                                     "\nFiles: 3 Used: 1 OpenLocks: 1 RecordLocks: 1 OpLocks: 0\n");

  EXPECT_EQ(Hex(waiter_.Open(kCached, 9, kRead | kDenyReadWrite, {.waitid = 1})),
            Hex(Words({1, kTag, 0, 0, 0})));
  EXPECT_EQ(waiter_.OpenStatus(kWritten, 10, kWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(waiter_.Lock(kWritten, 10, 0, 100, 0), kDone);
  EXPECT_EQ(waiter_.OpenStatus(kNeighbours, 11, kRead), kConflict);
}

TEST_F(ClientsEndToEnd, EndWithdrawsTheClientsOwnWait) {
  EXPECT_EQ(Hex(neighbour_.Open(kCached, 1, kRead | kDenyNone, {.oplockwanted = 1})),
            Hex(Words({1, kTag, 0, 0, 1})));
  EXPECT_EQ(Hex(waiter_.Open(kCached, 9, kRead | kDenyNone)), Hex(Words({1, kTag, 5, 1, 0})));
  EXPECT_EQ(Hex(neighbour_.Next()), Hex(Words({8, 0, 0, 0, 0x100, 0x1, 1, 0x11})));

  EXPECT_EQ(waiter_.End(), kDone);
  EXPECT_EQ(neighbour_.ReleaseOplock(kCached, 1), kDone);
  waiter_.ExpectNoMessage();
}

TEST_F(ClientsEndToEnd, EndOfAnUnknownClientIsDoneAndAddsNoEntry) {
  EXPECT_EQ(waiter_.End(), kDone);
  EXPECT_EQ(ReportAfterBanner(),
            "\n== Client information\n"
            "\n== File lock information\n"
            "\nFiles: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0\n");
}

TEST_F(ClientsEndToEnd, EndedClientMayOpenAgain) {
  EXPECT_EQ(ending_.OpenStatus(kWritten, 2, kWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(ending_.End(), kDone);
  EXPECT_EQ(ending_.OpenStatus(kWritten, 2, kWrite | kDenyReadWrite), kDone);
  EXPECT_EQ(waiter_.OpenStatus(kWritten, 9, kRead), kConflict);
}

}  // namespace

}  // namespace klv
