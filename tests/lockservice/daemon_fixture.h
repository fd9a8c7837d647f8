#ifndef KLV_TESTS_LOCKSERVICE_DAEMON_FIXTURE_H_
#define KLV_TESTS_LOCKSERVICE_DAEMON_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "foundation/socket.h"
#include "lockservice/lock_manager_daemon.h"

// Request and reply bytes written by hand, word by word, low byte first, so
// that a fault in the daemon's encoder cannot hide in what a test expects.
namespace bytes {

std::string Word(uint32_t value);
// The words one after the other: Words({5, tag, 0, 0}) is a 16-byte reply.
std::string Words(std::initializer_list<uint32_t> values);
// The word at `offset`; 0 when it does not lie wholly inside.
uint32_t WordAt(const std::string& datagram, size_t offset);

// The head every request starts with:
//   0 code  4 tag  8 session  12 clientfid  16 filekey_hi  20 filekey_lo  24 waitid
struct Head {
  uint32_t code = 0;
  uint32_t tag = 0;
  uint32_t session = 1;
  uint32_t clientfid = 1;
  uint32_t hi = 0;
  uint32_t lo = 0;
  uint32_t waitid = 0;
};
std::string HeadBytes(const Head& head);

// REQ_OPEN: head, 28 openmode, 32 oplockwanted, 36 name in a 16-byte field
// (padded with NULs, never cut), 52 path and its NUL.
struct Open {
  uint32_t tag = 0;
  uint32_t session = 1;
  uint32_t clientfid = 1;
  uint32_t hi = 0;
  uint32_t lo = 0;
  uint32_t waitid = 0;
  uint32_t openmode = 0x40;  // OPEN_READ | DENY_NONE
  uint32_t oplock = 0;
  std::string name = "PC1";
  std::string path = "/share/file";
};
std::string OpenBytes(const Open& open);

// REQ_LOCK (28 offset, 32 length, 36 locktype) or REQ_UNLOCK (28 offset,
// 32 length) with the head fields that matter.
struct Range {
  uint32_t session = 1;
  uint32_t clientfid = 1;
  uint32_t hi = 0;
  uint32_t lo = 0;
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t locktype = 0;
};
std::string LockBytes(const Range& range);
std::string UnlockBytes(const Range& range);

// REQ_PROBE: head, 28 version, 32 wantreply.
std::string ProbeBytes(const Head& head, uint32_t version, uint32_t wantreply);

// Bytes as hex pairs, for readable failure messages.
std::string Hex(const std::string& datagram);

}  // namespace bytes

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
  // Sends `datagram` from the client's socket to the daemon's socket, as a
  // server process does.
  void SendToDaemon(TestClient& client, const std::string& datagram);
  // Receives one datagram on the daemon's socket, as the event loop does, and
  // dispatches it with the address it came from; false when none came.
  bool ServeOne();

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

// Collects what is written to standard error (descriptor 2) between its
// construction and Text().
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Restores standard error and returns what was written to it.
  std::string Text();

 private:
  int saved_fd_ = -1;
  std::string path_;
  std::string text_;
};

#endif  // KLV_TESTS_LOCKSERVICE_DAEMON_FIXTURE_H_
