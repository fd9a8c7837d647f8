#include "tests/support/daemon_process.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/support/wire_bytes.h"

namespace klv {

namespace {

// A temporary directory of its own, removed with everything in it.
std::string MakeDirectory() {
  char pattern[] = "/tmp/klvlockd-test-XXXXXX";
  return mkdtemp(pattern) != nullptr ? pattern : "";
}

// Starts `program` (klvlockd unless given) with `arguments`, standard input
// /dev/null, standard output written to `out_path` and standard error
// appended to `err_path`.
pid_t Spawn(const std::vector<std::string>& arguments, const std::string& out_path,
            const std::string& err_path, const char* program = KLVLOCKD_PATH) {
  // A daemon whose starting process has exited becomes this process's child.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::vector<char*> argv = {const_cast<char*>(program)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {  // only async-signal-safe calls until exec
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), STDOUT_FILENO);
    // Where `err_path` cannot be opened the daemon starts with standard error closed.
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (err < 0 || dup2(err, STDERR_FILENO) < 0) close(STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

// Signals `pid` only when it names one process: 0 and -1 would signal this
// process's group or every process it may signal.
void SignalOne(pid_t pid, int signal_number) {
  if (pid > 1) kill(pid, signal_number);
}

// Reaps `pid` if it ends within `timeout_ms`.
ProcessEnd WaitForEnd(pid_t pid, int timeout_ms) {
  int status = 0;
  for (int waited = 0; waited <= timeout_ms; waited += 5) {
    const pid_t reaped = waitpid(pid, &status, WNOHANG);
    if (reaped == pid && WIFEXITED(status)) return ProcessEnd::Exited(WEXITSTATUS(status));
    if (reaped == pid && WIFSIGNALED(status)) return ProcessEnd::Signalled(WTERMSIG(status));
    if (reaped != 0) return ProcessEnd{};
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return ProcessEnd::StillRunning();
}

}  // namespace

bool WaitFor(const std::function<bool()>& done, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (std::chrono::steady_clock::now() >= end) return false;
  }
  return true;
}

int ListenOnLoopback(uint16_t* port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {
      .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}};
  socklen_t length = sizeof address;
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listener, 1) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (listener >= 0) close(listener);
    return -1;
  }
  *port = ntohs(address.sin_port);
  return listener;
}

std::string ReadFileFrom(const std::string& path, size_t offset) {
  std::ostringstream contents;
  contents << std::ifstream(path, std::ios::binary).rdbuf();
  return offset >= contents.str().size() ? "" : contents.str().substr(offset);
}

std::string WithoutTimeStamps(const std::string& text) {
  static const std::regex stamp(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})");
  return std::regex_replace(text, stamp, "<time>");
}

ProgramRun RunKlvlockd(const std::vector<std::string>& arguments, int timeout_ms) {
  return RunProgram(KLVLOCKD_PATH, arguments, timeout_ms);
}

ProgramRun RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                      int timeout_ms) {
  const std::string directory = MakeDirectory();
  const pid_t pid = Spawn(arguments, directory + "/out", directory + "/err", program.c_str());
  ProgramRun run = {WaitForEnd(pid, timeout_ms), "", ""};
  if (run.end == ProcessEnd::StillRunning()) SignalOne(pid, SIGKILL);
  WaitForEnd(pid, timeout_ms);
  run.out = ReadFileFrom(directory + "/out");
  run.err = ReadFileFrom(directory + "/err");
  std::filesystem::remove_all(directory);
  return run;
}

DaemonProcess::DaemonProcess() : directory_(MakeDirectory()) {
  mkdir(LogDirectory().c_str(), 0755);
}

DaemonProcess::~DaemonProcess() {
  Kill();
  std::filesystem::remove_all(directory_);
}

bool DaemonProcess::Start() {
  if (!Launch({"30", LogDirectory()})) return false;
  last_error_ = "the daemon does not answer a REQ_NOOP";
  return StillAnswers();
}

bool DaemonProcess::Launch(const std::vector<std::string>& arguments) {
  Kill();
  WaitForEnd(Spawn(arguments, directory_ + "/status.txt", StderrPath()), kWaitMs);
  status_line_ = ReadFileFrom(directory_ + "/status.txt");
  int udp = 0;
  int tcp = 0;
  last_error_ = "no status line in \"" + status_line_ + "\"; standard error: " + StderrText();
  if (sscanf(status_line_.c_str(), "_klvlockd_port=%d ; _klvlockd_pid=%d ; _klvlockd_status=%d;",
             &udp, &pid_, &tcp) != 3 ||
      pid_ <= 1) {
    return false;
  }
  udp_port_ = static_cast<uint16_t>(udp);
  tcp_port_ = static_cast<uint16_t>(tcp);
  client_ = std::make_unique<UdpClient>(udp_port_);
  daemon_end_ = ProcessEnd::StillRunning();
  return true;
}

// One request only: a second one could leave a late reply in the queue of
// the test's client.
bool DaemonProcess::StillAnswers(int timeout_ms) {
  std::string reply;
  return Client().Exchange(wire::BareBytes(wire::kNoop, {.tag = 0xA115}), &reply, timeout_ms) &&
         reply == wire::Words({wire::kNoop, 0xA115, 0, 0});
}

// The status probe, the program's one-argument form, reads the report.
bool DaemonProcess::ReadStatusReport(std::string* report, int timeout_ms) const {
  const ProgramRun probe = RunKlvlockd({std::to_string(tcp_port_)}, timeout_ms);
  *report = probe.out;
  return probe.end == ProcessEnd::Exited(0) && !report->empty();
}

OutputMark DaemonProcess::Mark() const {
  return {ReadFileFrom(EventLogPath()).size(), ReadFileFrom(ErrorLogPath()).size(),
          ReadFileFrom(StderrPath()).size()};
}

bool DaemonProcess::WaitForStderr(const std::string& text, const OutputMark& since,
                                  int timeout_ms) const {
  return WaitFor([&] { return StderrText(since).find(text) != std::string::npos; }, timeout_ms);
}

ProcessEnd DaemonProcess::Stop(int signal_number, int timeout_ms) {
  if (WaitForExit(1) == ProcessEnd::StillRunning()) SignalOne(pid_, signal_number);
  return WaitForExit(timeout_ms);
}

ProcessEnd DaemonProcess::WaitForExit(int timeout_ms) {
  if (daemon_end_ == ProcessEnd::StillRunning()) daemon_end_ = WaitForEnd(pid_, timeout_ms);
  return daemon_end_;
}

void DaemonProcess::Kill() {
  if (Stop(SIGTERM, 2000) == ProcessEnd::StillRunning()) SignalOne(pid_, SIGKILL);
  WaitForExit(2000);
}

}  // namespace klv
