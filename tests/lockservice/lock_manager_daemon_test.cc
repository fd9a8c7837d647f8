// What the daemon object does away from the datagrams a client can send: the
// dead-client sweep (which the running daemon runs once a minute), replies
// that cannot be sent, and a fatal error. The tests hand datagrams to
// Dispatch as the event loop would, and fix the sweep's random draws at 0, so
// that every silent client in state OK is probed.

#include "lockservice/lock_manager_daemon.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "daemon/udp_reply_sink.h"
#include "tests/support/daemon_process.h"
#include "tests/support/wire_bytes.h"

namespace klv {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using wire::Hex;
using wire::Words;

// The dead-client notice for a name already cut or padded to 15 characters.
std::string Notice(const std::string& name_field) {
  return "\nOstrand Kelvane Lock Daemon NOTICE:\n\nThe Kelvane server process acting on behalf "
         "of " +
         name_field + "\nhas stopped responding.  Checking your server logs will help\n" +
         "establish the cause.  Locks owned by the machine are being released.\n";
}

class LockManagerDaemonTest : public ::testing::Test {
 protected:
  LockManagerDaemonTest() {
    SocketAddress address;
    address.SetLoopback();
    udp_.BindTo(address, SOCK_DGRAM);
    daemon_.SetReplySink(&replies_);
    daemon_.SetRandomSourceForTesting([] { return 0u; });
  }
  ~LockManagerDaemonTest() override { std::filesystem::remove_all(directory_); }

  // A client of its own, to which the daemon sends; its requests are handed over.
  UdpClient& AddClient() { return *clients_.emplace_back(std::make_unique<UdpClient>(1)); }
  void Deliver(const UdpClient* from, const std::string& bytes) {
    SocketAddress sender;  // 127.0.0.1 port 0 when there is no client
    sender.SetLoopback();
    sender.SetPort(from == nullptr ? 0 : from->Port());
    daemon_.Dispatch(sender, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  }
  // The next datagram for `client` that is not a probe, answering probes on the way.
  std::string Next(UdpClient& client) {
    for (std::string datagram; client.Receive(&datagram);) {
      if (datagram.size() != 36 || wire::WordAt(datagram, 32) != 1) return Hex(datagram);
      Deliver(&client, datagram.substr(0, 32) + wire::Word(0));
    }
    return "none";
  }
  std::string Exchange(UdpClient& client, const std::string& request) {
    Deliver(&client, request);
    return Next(client);
  }
  // Opens file {`hi`, 0} in session `session`.
  std::string Open(UdpClient& client, uint32_t session, uint32_t hi, const std::string& name,
                   const std::string& path = "/f") {
    return Exchange(client, wire::OpenBytes({0, 0, session, 1, hi, 0, 0}, 0x40, 0, name, path));
  }
  std::string Receive(UdpClient& client) {
    std::string datagram = "none";
    client.Receive(&datagram);
    return Hex(datagram);
  }
  // A sweep and what it wrote to standard error.
  std::string Sweep() {
    CaptureStderr();
    daemon_.SweepClients();
    return GetCapturedStderr();
  }
  std::string Report() {
    TextBuilder report;
    daemon_.WriteStatusReport(report);
    return report.Bytes().Text();
  }

  std::string directory_ = std::filesystem::temp_directory_path() / "klv-daemon-XXXXXX";
  LockManagerDaemon daemon_{RefString(mkdtemp(directory_.data()))};
  Socket udp_;
  UdpReplySink replies_{&udp_, &daemon_.Log()};
  std::vector<std::unique_ptr<UdpClient>> clients_;
};

const std::string kGranted = Hex(Words({1, 0, 0, 0, 0}));

TEST_F(LockManagerDaemonTest, SilentClientIsProbedThenReleasedWithANotice) {
  UdpClient& pc = AddClient();
  ASSERT_EQ(Open(pc, 1, 3, "WORKSTATION-0123456", "/share/a.txt"), kGranted);  // 16 bytes arrive
  ASSERT_EQ(Open(pc, 1, 7, "WORKSTATION-0123456", "/share/b.txt"), kGranted);
  // A second open that its own mode would refuse: the table check must not
  // hold an open against itself.
  ASSERT_EQ(Exchange(pc, wire::OpenBytes({0, 0, 1, 2, 7, 0, 0}, 0x22, 0, "WORKSTATION-0123456",
                                         "/share/b.txt")),
            kGranted);
  for (const uint32_t offset : {0, 20, 40}) {
    ASSERT_EQ(Exchange(pc, wire::LockBytes({.session = 1, .filekey_hi = 3}, offset, 10, 0)),
              Hex(Words({2, 0, 0, 0})));
  }
  ASSERT_EQ(Exchange(pc, wire::UnlockBytes({.session = 1, .filekey_hi = 3}, 40, 10)),
            Hex(Words({3, 0, 0, 0})));
  EXPECT_STREQ(daemon_.CheckTablesForTesting().Text(), "");  // the holder counts two ranges
  EXPECT_EQ(Sweep(), "");
  EXPECT_EQ(Receive(pc), Hex(Words({1000, 0xBEEFCAFE, 1, 0, 0, 0, 0, 201905, 1})));
  EXPECT_NE(Report().find("  WORKSTATION-012  WAIT    1    127.0.0.1:"), std::string::npos);
  EXPECT_EQ(Sweep(), Notice("WORKSTATION-012") +
                         "[3,0] = /share/a.txt\n[7,0] = /share/b.txt\n[7,0] = /share/b.txt\n");
  EXPECT_EQ(Report().find("  Name"), std::string::npos);
  EXPECT_NE(Report().find("Files: 2 Used: 0 OpenLocks: 0 RecordLocks: 0"), std::string::npos);
}

// The listing names the dead client's opens by session id alone: ALPHA's
// takes in the open of session 2 at BETA's address, which stays alive.
TEST_F(LockManagerDaemonTest, EveryDeadClientGoesInOneSweepAndNoFreshlyProbedOne) {
  UdpClient& first = AddClient();
  UdpClient& second = AddClient();
  ASSERT_EQ(Open(first, 2, 1, "ALPHA"), kGranted);
  ASSERT_EQ(Open(second, 6, 2, "BETA"), kGranted);
  ASSERT_EQ(Open(second, 2, 9, "ALPHA", "/other"), kGranted);
  EXPECT_EQ(Sweep(), "");
  for (UdpClient* client : {&first, &second, &second}) Receive(*client);  // unanswered probes
  Deliver(&second, wire::ProbeBytes({.session = 2}, 201905, 0));
  // Clients that come in now are probed by the sweep that releases the
  // others, some before and some after them in the table; they have until the
  // next sweep to answer, however often the walk starts over.
  for (uint32_t session = 100; session < 112; ++session) {
    ASSERT_EQ(Open(first, session, session, "LATE"), kGranted);
  }
  std::string notices = Sweep();
  for (const std::string& part :
       {Notice("ALPHA          "), Notice("BETA           "), std::string("[1,0] = /f\n"),
        std::string("[9,0] = /other\n"), std::string("[2,0] = /f\n")}) {
    ASSERT_NE(notices.find(part), std::string::npos) << part << " in " << notices;
    notices.erase(notices.find(part), part.size());
  }
  EXPECT_EQ(notices, "");
  std::string probe;  // session 2 at BETA's address was heard from in this tick
  EXPECT_FALSE(second.Receive(&probe, 100)) << Hex(probe);
  EXPECT_NE(Report().find("Files: 15 Used: 13 OpenLocks: 13"), std::string::npos);
}

// 127.0.0.1 port 0 cannot be sent to: the holder's probe and reply fail, then its break.
TEST_F(LockManagerDaemonTest, RepliesThatCannotBeSentAreLoggedAndSurvived) {
  daemon_.Log().OpenLogs();
  CaptureStderr();
  Deliver(nullptr, wire::OpenBytes({.session = 1, .clientfid = 1}, 0x40, 1, "PC1", ""));
  EXPECT_EQ(Open(AddClient(), 2, 0, "PC2"), Hex(Words({1, 0, 5, 1, 0})));
  EXPECT_STREQ(daemon_.CheckTablesForTesting().Text(), "");  // an oplock and a wait for it
  const std::string errors = WithoutTimeStamps(GetCapturedStderr());
  const auto record = [this](const std::string& id, int length) {
    return "\n<time>\tlocking/socket/" + id +
           "\tOstrand Kelvane Lock Daemon(2.01)\n\nThere was an " +
           "error while writing to a socket: sendto(" + std::to_string(udp_.Fd()) + ",<address>," +
           std::to_string(length) + ",127.0.0.1:0,16): (22) Invalid argument\nA locking " +
           "transaction has failed.\nIf this is a repeat, try restarting the server.\n";
  };
  EXPECT_EQ(errors,
            record("writeerror", 36) + record("writeerror", 20) + record("asyncwriteerror", 32));
  EXPECT_EQ(WithoutTimeStamps(ReadFileFrom(directory_ + "/errlock.log")), errors);
}

}  // namespace klv
