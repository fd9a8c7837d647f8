#ifndef KLV_TESTS_END_TO_END_LOCK_SERVICE_FIXTURE_H_
#define KLV_TESTS_END_TO_END_LOCK_SERVICE_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tests/support/daemon_process.h"
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

// Open-mode words: an access value ORed with a deny value.
constexpr uint32_t kRead = 0, kWrite = 1, kReadWrite = 2;
constexpr uint32_t kDenyMsdos = 0, kDenyReadWrite = 0x10, kDenyWrite = 0x20, kDenyRead = 0x30;
constexpr uint32_t kDenyNone = 0x40;

// A file identity as the server processes send it.
struct FileKey {
  uint32_t hi, lo;
};

// The optional fields of a REQ_OPEN.
struct OpenOptions {
  uint32_t oplockwanted = 0, waitid = 0;
  std::string path;
};

// One file-server process session: a UDP address and a session id. Every
// receiving verb answers the daemon's liveness probes on the way, as a real
// server process does, and every wait is bounded.
class ServerProcess {
 public:
  ServerProcess(uint16_t daemon_port, uint32_t session, std::string name)
      : udp_(std::make_shared<UdpClient>(daemon_port)), session_(session), name_(name) {}
  // Another session of the same process: the same address, its own session.
  ServerProcess AnotherSession(uint32_t session, std::string name) const {
    ServerProcess other = *this;
    other.session_ = session;
    other.name_ = name;
    return other;
  }

  uint16_t Port() const { return udp_->Port(); }
  UdpClient& Udp() { return *udp_; }

  // A request head of this session, with code 0 and the tag kTag.
  wire::RequestHead Head(FileKey file, uint32_t clientfid, uint32_t waitid = 0) const {
    return {0, kTag, session_, clientfid, file.hi, file.lo, waitid};
  }
  std::string OpenRequest(FileKey file, uint32_t clientfid, uint32_t openmode,
                          const OpenOptions& options = {}) const {
    return wire::OpenBytes(Head(file, clientfid, options.waitid), openmode, options.oplockwanted,
                           name_, options.path);
  }

  bool Send(const std::string& request) { return udp_->Send(request); }
  // The next datagram that is not a probe; "" when none came in time.
  std::string Next(int timeout_ms = UdpClient::kWaitMs) {
    std::string datagram;
    return udp_->ReceiveAnsweringProbes(&datagram, timeout_ms) ? datagram : "";
  }
  // Expects that nothing but probes arrives within `timeout_ms`.
  void ExpectNoMessage(int timeout_ms = 200) { EXPECT_EQ(wire::Hex(Next(timeout_ms)), ""); }
  // Sends `request` and returns the next datagram that is not a probe.
  std::string Ask(const std::string& request) { return Send(request) ? Next() : ""; }

  // REQ_OPEN; the whole reply.
  std::string Open(FileKey file, uint32_t clientfid, uint32_t openmode,
                   const OpenOptions& options = {}) {
    return Ask(OpenRequest(file, clientfid, openmode, options));
  }
  // An open without oplock, and the other requests: the status of the reply.
  uint32_t OpenStatus(FileKey file, uint32_t fid, uint32_t openmode) {
    return StatusOf(wire::kOpen, 20, Open(file, fid, openmode));
  }
  uint32_t Lock(FileKey file, uint32_t fid, uint32_t offset, uint32_t length, uint32_t type) {
    return Status(wire::LockBytes(Head(file, fid), offset, length, type));
  }
  uint32_t Unlock(FileKey file, uint32_t fid, uint32_t offset, uint32_t length) {
    return Status(wire::UnlockBytes(Head(file, fid), offset, length));
  }
  uint32_t Close(FileKey file, uint32_t fid) { return Status(wire::BareBytes(6, Head(file, fid))); }
  uint32_t ReleaseOplock(FileKey file, uint32_t fid) {
    return Status(wire::BareBytes(wire::kOplockRelease, Head(file, fid)));
  }
  uint32_t End() { return Status(wire::BareBytes(wire::kClientEnd, Head({}, 0))); }

 private:
  uint32_t Status(const std::string& request) {
    return StatusOf(wire::WordAt(request, 0), 16, Ask(request));
  }
  // The status of `reply`, which must be the answer to `code`, `length` bytes
  // long, with value 0 and no oplock.
  static uint32_t StatusOf(uint32_t code, size_t length, const std::string& reply) {
    EXPECT_EQ(wire::Hex(reply.substr(0, 8) + reply.substr(std::min<size_t>(12, reply.size()))),
              wire::Hex(wire::Words({code, kTag}) + std::string(length - 12, '\0')));
    return wire::WordAt(reply, 8);
  }

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
inline std::string ClientRow(const std::string& name_field, const char* state,
                             const std::string& session, const ServerProcess& process) {
  return "  " + name_field + " " + state + session +
         "    127.0.0.1:" + std::to_string(process.Port()) + "\n";
}

// Starts a daemon for each test and checks, after the test, that it still
// answers and wrote no error record after mark_ (a test that expects one
// moves mark_ past it). The daemon is started by the constructor, so that a
// derived fixture can make its processes in member initializers.
class LockServiceTest : public ::testing::Test {
 protected:
  LockServiceTest() : started_(daemon_.Start()) {}
  void SetUp() override {
    ASSERT_TRUE(started_) << daemon_.LastError();
    mark_ = daemon_.Mark();
  }
  void TearDown() override {
    EXPECT_TRUE(daemon_.StillAnswers());
    EXPECT_EQ(daemon_.ErrorLogText(mark_), "");
  }

  ServerProcess NewProcess(uint32_t session, const std::string& name) const {
    return ServerProcess(daemon_.UdpPort(), session, name);
  }
  // A file identity that no earlier call returned.
  FileKey FreshFile() { return {0xF11E0000, ++files_made_}; }
  // The status report after its banner line, which must read: time stamp,
  // " Ostrand Kelvane Lock Daemon 2.01.905". Requests sent before are served
  // first (probe answers included), so the report sees their effect.
  std::string ReportAfterBanner() {
    EXPECT_TRUE(daemon_.StillAnswers());
    std::string report;
    EXPECT_TRUE(daemon_.ReadStatusReport(&report));
    const size_t line_end = std::min(report.find('\n'), report.size());
    EXPECT_EQ(WithoutTimeStamps(report.substr(0, line_end)),
              "<time> Ostrand Kelvane Lock Daemon 2.01.905");
    return report.substr(line_end + (line_end < report.size()));
  }
  // The last line of the report, without its "\n".
  std::string Totals() {
    const std::string report = ReportAfterBanner();
    return report.substr(report.rfind("Files:"), report.size() - report.rfind("Files:") - 1);
  }

  DaemonProcess daemon_;
  const bool started_;
  OutputMark mark_;
  uint32_t files_made_ = 0;
};

}  // namespace klv

#endif  // KLV_TESTS_END_TO_END_LOCK_SERVICE_FIXTURE_H_
