#include "tests/end_to_end/lock_service_fixture.h"

#include <regex>
#include <utility>

namespace klv {

using wire::Hex;
using wire::WordAt;

ServerProcess::ServerProcess(uint16_t daemon_port, uint32_t session, std::string name)
    : ServerProcess(std::make_shared<UdpClient>(daemon_port), session, std::move(name)) {}

ServerProcess::ServerProcess(std::shared_ptr<UdpClient> udp, uint32_t session, std::string name)
    : udp_(std::move(udp)), session_(session), name_(std::move(name)) {}

ServerProcess ServerProcess::AnotherSession(uint32_t session, std::string name) const {
  return ServerProcess(udp_, session, std::move(name));
}

wire::RequestHead ServerProcess::Head(FileKey file, uint32_t clientfid, uint32_t waitid) const {
  return {.code = 0,
          .tag = kTag,
          .session = session_,
          .clientfid = clientfid,
          .filekey_hi = file.hi,
          .filekey_lo = file.lo,
          .waitid = waitid};
}

std::string ServerProcess::OpenRequest(FileKey file, uint32_t clientfid, uint32_t openmode,
                                       const OpenOptions& options) const {
  return wire::OpenBytes(Head(file, clientfid, options.waitid), openmode, options.oplockwanted,
                         name_, options.path);
}

std::string ServerProcess::Next(int timeout_ms) {
  std::string datagram;
  if (!udp_->ReceiveAnsweringProbes(&datagram, timeout_ms)) return "";
  return datagram;
}

void ServerProcess::ExpectNoMessage(int timeout_ms) {
  std::string datagram;
  EXPECT_FALSE(udp_->ReceiveAnsweringProbes(&datagram, timeout_ms))
      << "session " << session_ << " got " << Hex(datagram);
}

std::string ServerProcess::Open(FileKey file, uint32_t clientfid, uint32_t openmode,
                                const OpenOptions& options) {
  return Ask(OpenRequest(file, clientfid, openmode, options));
}

uint32_t ServerProcess::OpenStatus(FileKey file, uint32_t clientfid, uint32_t openmode) {
  const std::string reply = Open(file, clientfid, openmode);
  const bool well_formed =
      reply.size() == 20 && WordAt(reply, 0) == wire::kOpen && WordAt(reply, 4) == kTag;
  EXPECT_TRUE(well_formed) << "open reply " << Hex(reply);
  return well_formed ? WordAt(reply, 8) : kNoReply;
}

uint32_t ServerProcess::Lock(FileKey file, uint32_t clientfid, uint32_t offset, uint32_t length,
                             uint32_t locktype) {
  return StatusOf(wire::kLock,
                  Ask(wire::LockBytes(Head(file, clientfid), offset, length, locktype)));
}

uint32_t ServerProcess::Unlock(FileKey file, uint32_t clientfid, uint32_t offset, uint32_t length) {
  return StatusOf(wire::kUnlock, Ask(wire::UnlockBytes(Head(file, clientfid), offset, length)));
}

uint32_t ServerProcess::Close(FileKey file, uint32_t clientfid) {
  return StatusOf(wire::kClose, Ask(wire::BareBytes(wire::kClose, Head(file, clientfid))));
}

uint32_t ServerProcess::ReleaseOplock(FileKey file, uint32_t clientfid) {
  return StatusOf(wire::kOplockRelease,
                  Ask(wire::BareBytes(wire::kOplockRelease, Head(file, clientfid))));
}

uint32_t ServerProcess::End() {
  return StatusOf(wire::kClientEnd, Ask(wire::BareBytes(wire::kClientEnd, Head({}, 0))));
}

uint32_t ServerProcess::StatusOf(uint32_t code, const std::string& reply) {
  const bool well_formed = reply.size() == wire::kReplyHeadSize && WordAt(reply, 0) == code &&
                           WordAt(reply, 4) == kTag && WordAt(reply, 12) == 0;
  EXPECT_TRUE(well_formed) << "reply to code " << code << ": " << Hex(reply);
  return well_formed ? WordAt(reply, 8) : kNoReply;
}

std::string ClientRow(const std::string& name_field, const char* state, const std::string& session,
                      const ServerProcess& process) {
  return "  " + name_field + " " + state + session + "    " + process.Address() + "\n";
}

void LockServiceTest::SetUp() {
  ASSERT_TRUE(started_) << daemon_.LastError();
  mark_ = daemon_.Mark();
}

void LockServiceTest::TearDown() {
  EXPECT_TRUE(daemon_.StillAnswers());
  EXPECT_EQ(daemon_.ErrorLogText(mark_), "");
}

ServerProcess LockServiceTest::NewProcess(uint32_t session, const std::string& name) const {
  return ServerProcess(daemon_.UdpPort(), session, name);
}

FileKey LockServiceTest::FreshFile() {
  ++files_made_;
  return {0xF11E0000 + files_made_, files_made_};
}

std::string LockServiceTest::ReportAfterBanner() {
  // One datagram is served at a time and in order, so once this answer is
  // back every earlier datagram has been handled.
  EXPECT_TRUE(daemon_.StillAnswers());
  std::string report;
  EXPECT_TRUE(daemon_.ReadStatusReport(&report));
  const size_t line_end = report.find('\n');
  const std::string banner = report.substr(0, line_end);
  static const std::regex banner_pattern(
      R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} Ostrand Kelvane Lock Daemon 2\.01\.905)");
  EXPECT_TRUE(std::regex_match(banner, banner_pattern)) << "banner line \"" << banner << "\"";
  return line_end == std::string::npos ? "" : report.substr(line_end + 1);
}

std::string LockServiceTest::Totals() {
  std::string report = ReportAfterBanner();
  if (!report.empty() && report.back() == '\n') report.pop_back();
  return report.substr(report.rfind('\n') + 1);
}

}  // namespace klv
