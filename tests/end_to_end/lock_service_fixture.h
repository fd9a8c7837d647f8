#ifndef KLV_TESTS_END_TO_END_LOCK_SERVICE_FIXTURE_H_
#define KLV_TESTS_END_TO_END_LOCK_SERVICE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/daemon_process.h"
#include "tests/support/udp_client.h"
#include "tests/support/wire_bytes.h"

namespace klv {

// The lock service seen from outside: the real klvlockd run as a process, and
// file-server processes that talk to it over UDP on 127.0.0.1.
//
//   ServerProcess alpha = NewProcess(/*session=*/2, "alpha");
//   EXPECT_EQ(alpha.Open(kFile, /*clientfid=*/7, kReadWrite | kDenyWrite),
//             wire::Words({wire::kOpen, kTag, 0, 0, 0}));
//   EXPECT_EQ(alpha.Lock(kFile, 7, /*offset=*/100, /*length=*/50, /*locktype=*/0), wire::kDone);

// The tag of every request that a ServerProcess sends.
constexpr uint32_t kTag = 0x7E57;
// What a status verb returns when no reply came.
constexpr uint32_t kNoReply = 0xFFFFFFFF;

// Open-mode words: an access value ORed with a deny value.
constexpr uint32_t kRead = 0x0;
constexpr uint32_t kWrite = 0x1;
constexpr uint32_t kReadWrite = 0x2;
constexpr uint32_t kExecute = 0x3;
constexpr uint32_t kMsdos = 0xF;
constexpr uint32_t kDenyMsdos = 0x00;
constexpr uint32_t kDenyReadWrite = 0x10;
constexpr uint32_t kDenyWrite = 0x20;
constexpr uint32_t kDenyRead = 0x30;
constexpr uint32_t kDenyNone = 0x40;

// A file identity as the server processes send it.
struct FileKey {
  uint32_t hi = 0;
  uint32_t lo = 0;
};

// The optional fields of a REQ_OPEN.
struct OpenOptions {
  uint32_t oplockwanted = 0;
  uint32_t waitid = 0;
  std::string path;
};

// One file-server process session: a UDP address and a session id. Every
// receiving verb answers the daemon's liveness probes on the way, as a real
// server process does, and every wait is bounded.
class ServerProcess {
 public:
  ServerProcess(uint16_t daemon_port, uint32_t session, std::string name);
  // Another session of the same process: the same address, its own session.
  ServerProcess AnotherSession(uint32_t session, std::string name) const;

  uint32_t Session() const { return session_; }
  const std::string& Name() const { return name_; }
  uint16_t Port() const { return udp_->Port(); }
  // The address column of the status report: "127.0.0.1:<port>".
  std::string Address() const { return "127.0.0.1:" + std::to_string(Port()); }
  UdpClient& Udp() { return *udp_; }

  // A request head of this session, with code 0 and the tag kTag.
  wire::RequestHead Head(FileKey file, uint32_t clientfid, uint32_t waitid = 0) const;
  std::string OpenRequest(FileKey file, uint32_t clientfid, uint32_t openmode,
                          const OpenOptions& options = {}) const;

  bool Send(const std::string& request) { return udp_->Send(request); }
  // The next datagram that is not a probe; "" when none came in time.
  std::string Next(int timeout_ms = UdpClient::kWaitMs);
  // Expects that nothing but probes arrives within `timeout_ms`.
  void ExpectNoMessage(int timeout_ms = 300);
  // Sends `request` and returns the next datagram that is not a probe.
  std::string Ask(const std::string& request) { return Send(request) ? Next() : ""; }

  // REQ_OPEN; the whole reply.
  std::string Open(FileKey file, uint32_t clientfid, uint32_t openmode,
                   const OpenOptions& options = {});
  // REQ_OPEN without oplock; the status of its 20-byte reply.
  uint32_t OpenStatus(FileKey file, uint32_t clientfid, uint32_t openmode);
  // The other requests; the status of their 16-byte reply, or kNoReply.
  uint32_t Lock(FileKey file, uint32_t clientfid, uint32_t offset, uint32_t length,
                uint32_t locktype);
  uint32_t Unlock(FileKey file, uint32_t clientfid, uint32_t offset, uint32_t length);
  uint32_t Close(FileKey file, uint32_t clientfid);
  uint32_t ReleaseOplock(FileKey file, uint32_t clientfid);
  uint32_t End();

 private:
  ServerProcess(std::shared_ptr<UdpClient> udp, uint32_t session, std::string name);
  // Checks that `reply` is the 16-byte answer to `code` and returns its status.
  static uint32_t StatusOf(uint32_t code, const std::string& reply);

  std::shared_ptr<UdpClient> udp_;
  uint32_t session_;
  std::string name_;
};

// Pieces of the status report.
constexpr char kClientHeading[] = "  Name            State SessionId   Address\n";
constexpr char kOk[] = "  OK     ";
constexpr char kWaiting[] = " WAIT    ";
// One line of the client table: `name_field` is the name already cut or
// padded to 15 characters, `state` kOk or kWaiting.
std::string ClientRow(const std::string& name_field, const char* state, const std::string& session,
                      const ServerProcess& process);

// Starts a daemon for each test and checks, after the test, that it still
// answers and wrote no error record after mark_ (a test that expects one
// moves mark_ past it). The daemon is started by the constructor, so that a
// derived fixture can make its processes in member initializers.
class LockServiceTest : public ::testing::Test {
 protected:
  LockServiceTest() : started_(daemon_.Start()) {}
  void SetUp() override;
  void TearDown() override;

  ServerProcess NewProcess(uint32_t session, const std::string& name) const;
  // A file identity that no earlier call returned.
  FileKey FreshFile();
  // The status report after its banner line, which must read: time stamp,
  // " Ostrand Kelvane Lock Daemon 2.01.905". Requests sent before are served
  // first (probe answers included), so the report sees their effect.
  std::string ReportAfterBanner();
  // The last line of the report, without its "\n".
  std::string Totals();

  DaemonProcess daemon_;
  const bool started_;
  OutputMark mark_;
  uint32_t files_made_ = 0;
};

}  // namespace klv

#endif  // KLV_TESTS_END_TO_END_LOCK_SERVICE_FIXTURE_H_
