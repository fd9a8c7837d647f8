#include "tests/support/daemon_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "tests/support/process_tools.h"
#include "tests/support/wire_bytes.h"

namespace klv {

namespace pt = process_tools;

namespace {

constexpr uint32_t kServingTag = 0x5E4F1D0;
constexpr uint32_t kAnswerTag = 0xA115AEE;

}  // namespace

std::ostream& operator<<(std::ostream& out, const ProcessEnd& end) {
  switch (end.kind) {
    case ProcessEnd::Kind::kExited:
      return out << "exited with status " << end.value;
    case ProcessEnd::Kind::kSignalled:
      return out << "killed by signal " << end.value;
    case ProcessEnd::Kind::kStillRunning:
      return out << "still running";
    case ProcessEnd::Kind::kUnknown:
      break;
  }
  return out << "ended, status unknown";
}

ProgramRun RunKlvlockd(const std::vector<std::string>& arguments, int timeout_ms) {
  ProgramRun run;
  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) return run;
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    close(out_pipe[0]);
    close(out_pipe[1]);
    return run;
  }
  const pid_t pid = pt::SpawnKlvlockd(arguments, out_pipe[1], err_pipe[1]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  pt::ReadBothUntilEnd(out_pipe[0], &run.out, err_pipe[0], &run.err, timeout_ms);
  close(out_pipe[0]);
  close(err_pipe[0]);
  if (pid < 0) return run;
  run.end = pt::WaitForEnd(pid, timeout_ms);
  if (run.end == ProcessEnd::StillRunning()) {
    kill(pid, SIGKILL);
    pt::WaitForEnd(pid, timeout_ms);
  }
  return run;
}

DaemonProcess::DaemonProcess() {
  char pattern[] = "/tmp/klvlockd-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  directory_ = made != nullptr ? made : "";
  if (made != nullptr) mkdir(LogDirectory().c_str(), 0755);
}

DaemonProcess::~DaemonProcess() {
  Kill();
  client_.reset();
  std::error_code ignored;
  if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

bool DaemonProcess::Start() {
  if (!Launch({"30", LogDirectory()})) return false;
  return WaitUntilServing() || Fail("the daemon does not answer a REQ_NOOP");
}

bool DaemonProcess::Launch(const std::vector<std::string>& arguments) {
  const pid_t launcher = Spawn(arguments, pt::Forking::kAllowed);
  if (launcher < 0) return false;
  launcher_end_ = pt::WaitForEnd(launcher, kWaitMs);
  if (launcher_end_ == ProcessEnd::StillRunning()) {
    kill(launcher, SIGKILL);
    pt::WaitForEnd(launcher, kWaitMs);
  }
  if (!ParseStatusLine()) {
    return Fail("no status line in \"" + status_line_ + "\"; standard error: " + StderrText());
  }
  ended_ = false;
  return true;
}

bool DaemonProcess::LaunchWithoutFork(const std::vector<std::string>& arguments) {
  pid_ = Spawn(arguments, pt::Forking::kFails);
  ended_ = pid_ < 0;
  return pid_ >= 0;
}

// Starts the program and reads its standard output to the end: the starting
// process exits after the status line, and the daemon closes its standard
// output.
pid_t DaemonProcess::Spawn(const std::vector<std::string>& arguments, pt::Forking forking) {
  Kill();
  client_.reset();
  last_error_.clear();
  status_line_.clear();
  launcher_end_ = ProcessEnd{};
  pid_ = -1;
  udp_port_ = tcp_port_ = 0;
  pt::BecomeSubreaper();

  int out_pipe[2];
  if (directory_.empty() || pipe2(out_pipe, O_CLOEXEC) != 0) {
    Fail("no directory or no pipe");
    return -1;
  }
  const int err_fd = open(StderrPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const pid_t pid = pt::SpawnKlvlockd(arguments, out_pipe[1], err_fd, forking);
  close(out_pipe[1]);
  if (err_fd >= 0) close(err_fd);
  if (pid >= 0) status_line_ = pt::ReadUntilEnd(out_pipe[0], kWaitMs);
  close(out_pipe[0]);
  if (pid < 0) Fail("fork failed");
  return pid;
}

bool DaemonProcess::ParseStatusLine() {
  int udp = 0;
  int pid = 0;
  int tcp = 0;
  if (sscanf(status_line_.c_str(), "_klvlockd_port=%d ; _klvlockd_pid=%d ; _klvlockd_status=%d;",
             &udp, &pid, &tcp) != 3 ||
      pid <= 0) {
    return false;
  }
  udp_port_ = static_cast<uint16_t>(udp);
  pid_ = pid;
  tcp_port_ = static_cast<uint16_t>(tcp);
  return true;
}

// One request only: a second one could leave a late reply in the queue of
// the test's client.
bool DaemonProcess::WaitUntilServing(int timeout_ms) {
  std::string reply;
  return Client().Exchange(wire::BareBytes(wire::kNoop, {.tag = kServingTag}), &reply,
                           timeout_ms) &&
         reply == wire::Words({wire::kNoop, kServingTag, 0, 0});
}

bool DaemonProcess::Fail(const std::string& reason) {
  last_error_ = reason;
  return false;
}

UdpClient& DaemonProcess::Client() {
  if (!client_ || client_->DaemonPort() != udp_port_) client_ = NewClient();
  return *client_;
}

std::unique_ptr<UdpClient> DaemonProcess::NewClient() const {
  return std::make_unique<UdpClient>(udp_port_);
}

bool DaemonProcess::SendDatagram(const std::string& bytes) { return Client().Send(bytes); }

bool DaemonProcess::ReceiveDatagram(std::string* datagram, int timeout_ms) {
  return Client().Receive(datagram, timeout_ms);
}

bool DaemonProcess::StillAnswers() {
  std::string reply;
  return Client().Exchange(wire::BareBytes(wire::kNoop, {.tag = kAnswerTag}), &reply) &&
         reply == wire::Words({wire::kNoop, kAnswerTag, 0, 0});
}

bool DaemonProcess::ReadStatusReport(std::string* report, int timeout_ms) const {
  report->clear();
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(tcp_port_);
  const bool connected =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (connected) *report = pt::ReadUntilEnd(fd, timeout_ms);
  close(fd);
  return connected && !report->empty();
}

OutputMark DaemonProcess::Mark() const {
  return OutputMark{pt::FileSize(EventLogPath()), pt::FileSize(ErrorLogPath()),
                    pt::FileSize(StderrPath())};
}

std::vector<std::string> DaemonProcess::EventLogLines(const OutputMark& since) const {
  const std::string text = pt::ReadFileFrom(EventLogPath(), since.event_log);
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::string DaemonProcess::ErrorLogText(const OutputMark& since) const {
  return pt::ReadFileFrom(ErrorLogPath(), since.error_log);
}

std::string DaemonProcess::StderrText(const OutputMark& since) const {
  return pt::ReadFileFrom(StderrPath(), since.stderr_text);
}

bool DaemonProcess::WaitForStderr(const std::string& text, const OutputMark& since,
                                  int timeout_ms) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (StderrText(since).find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool DaemonProcess::IsRunning() {
  if (ended_) return false;
  const ProcessEnd end = pt::PollEnd(pid_);
  if (end == ProcessEnd::StillRunning()) return true;
  daemon_end_ = end;
  ended_ = true;
  return false;
}

ProcessEnd DaemonProcess::Stop(int signal_number, int timeout_ms) {
  if (!IsRunning()) return daemon_end_;
  kill(pid_, signal_number);
  return WaitForExit(timeout_ms);
}

ProcessEnd DaemonProcess::WaitForExit(int timeout_ms) {
  if (ended_) return daemon_end_;
  const ProcessEnd end = pt::WaitForEnd(pid_, timeout_ms);
  if (end == ProcessEnd::StillRunning()) return end;
  daemon_end_ = end;
  ended_ = true;
  return end;
}

void DaemonProcess::Kill() {
  if (!IsRunning()) return;
  if (Stop(SIGTERM, 2000) != ProcessEnd::StillRunning()) return;
  kill(pid_, SIGKILL);
  WaitForExit(2000);
}

}  // namespace klv
