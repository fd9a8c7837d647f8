#ifndef KLV_TESTS_LOCKSERVICE_DAEMON_FIXTURE_H_
#define KLV_TESTS_LOCKSERVICE_DAEMON_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/socket.h"
#include "lockservice/lock_manager_daemon.h"
#include "tests/support/stderr_capture.h"
#include "tests/support/wire_bytes.h"

namespace klv {

// Request bytes come from tests/support/wire_bytes.h, written by hand apart
// from the daemon's encoder.

// The fields of an open that the in-process tests take unless they say
// otherwise: a read-only open denying nothing, by "PC1", of "/share/file".
constexpr uint32_t kReadDenyNone = 0x40;
constexpr char kClientName[] = "PC1";
constexpr char kSharePath[] = "/share/file";

// A server process of the test: a UDP socket of its own on 127.0.0.1.
struct TestClient {
  int fd = -1;
  SocketAddress address;  // where its datagrams come from
  int probes_answered = 0;
};

// A real LockManagerDaemon with a fresh log directory and a UDP socket on
// 127.0.0.1, and clients with sockets of their own. Requests are handed to
// Dispatch with a client's address as the sender; what the daemon sends
// arrives on the clients' sockets.
class DaemonTest : public ::testing::Test {
 protected:
  static constexpr int kReceiveMs = 1000;
  static constexpr int kSilenceMs = 30;

  void SetUp() override;
  void TearDown() override;

  // A new client socket on 127.0.0.1 at a port of its own.
  TestClient& AddClient();
  // Hands `datagram` to the daemon as sent by `client`.
  void Send(TestClient& client, const std::string& datagram);
  // The next datagram for `client`, waiting at most kReceiveMs; "" when none.
  std::string Receive(TestClient& client);
  // As Receive, but answers the daemon's liveness probes the way a server
  // process does (the probe back with wantreply 0) and returns the next
  // other datagram.
  std::string Next(TestClient& client);
  // Answers every probe that is waiting for `client`; returns how many.
  int AnswerPendingProbes(TestClient& client);
  // Sends a request and returns the next datagram that is not a probe.
  std::string Exchange(TestClient& client, const std::string& request);
  // True when nothing arrives for `client` within kSilenceMs.
  bool Silent(TestClient& client);

  // The client's row of the report's client table.
  static std::string ClientRow(const std::string& name_field, const char* state, uint32_t session,
                               const TestClient& client);
  // The status report without its first (time-stamped) line.
  std::string Report();
  // The last line of the report: "Files: ... OpLocks: n\n".
  std::string Totals();
  // The error log's contents.
  std::string ErrorLog();

  std::unique_ptr<LockManagerDaemon> daemon_;
  std::string log_directory_;

 private:
  Socket udp_;
  std::vector<std::unique_ptr<TestClient>> clients_;
};

}  // namespace klv

#endif  // KLV_TESTS_LOCKSERVICE_DAEMON_FIXTURE_H_
