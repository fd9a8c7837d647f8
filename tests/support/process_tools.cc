#include "tests/support/process_tools.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace klv {

namespace process_tools {
namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

ProcessEnd EndFromStatus(int status) {
  if (WIFEXITED(status)) return ProcessEnd::Exited(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return ProcessEnd::Signalled(WTERMSIG(status));
  return ProcessEnd{};
}

// Makes this process's forks fail with EAGAIN: clone without CLONE_VM. clone3
// answers ENOSYS, so that the C library falls back to clone. Runs between
// fork and exec, so it only makes system calls.
void ForbidForking() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),  // low half of flags
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_VM, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

}  // namespace

const char* KlvlockdPath() { return KLVLOCKD_PATH; }

void BecomeSubreaper() {
  static const bool done = prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
  (void)done;
}

pid_t SpawnKlvlockd(const std::vector<std::string>& arguments, int out_fd, int err_fd,
                    Forking forking) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(KlvlockdPath()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const int in_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);

  const pid_t pid = fork();
  if (pid == 0) {  // only async-signal-safe calls until exec
    dup2(in_fd, STDIN_FILENO);
    dup2(out_fd, STDOUT_FILENO);
    if (err_fd < 0) close(STDERR_FILENO);
    dup2(err_fd, STDERR_FILENO);
    if (forking == Forking::kFails) ForbidForking();
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (in_fd >= 0) close(in_fd);
  return pid;
}

ProcessEnd PollEnd(pid_t pid) {
  int status = 0;
  const pid_t reaped = waitpid(pid, &status, WNOHANG);
  if (reaped == 0) return ProcessEnd::StillRunning();
  if (reaped == pid) return EndFromStatus(status);
  // Not a child of ours: all that can be told is whether it is still there.
  return kill(pid, 0) == 0 ? ProcessEnd::StillRunning() : ProcessEnd{};
}

ProcessEnd WaitForEnd(pid_t pid, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    const ProcessEnd end = PollEnd(pid);
    if (end != ProcessEnd::StillRunning() || Clock::now() >= deadline) return end;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string ReadUntilEnd(int fd, int timeout_ms) {
  std::string text;
  ReadBothUntilEnd(fd, &text, -1, nullptr, timeout_ms);
  return text;
}

void ReadBothUntilEnd(int out_fd, std::string* out, int err_fd, std::string* err, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  std::string* targets[2] = {out, err};
  char buffer[4096];
  while ((fds[0].fd >= 0 || fds[1].fd >= 0) && poll(fds, 2, MillisecondsLeft(deadline)) > 0) {
    for (int index = 0; index < 2; ++index) {
      if (fds[index].fd < 0 || fds[index].revents == 0) continue;
      const ssize_t count = read(fds[index].fd, buffer, sizeof buffer);
      if (count > 0) {
        targets[index]->append(buffer, static_cast<size_t>(count));
      } else if (count == 0 || errno != EINTR) {
        fds[index].fd = -1;  // poll skips negative descriptors
      }
    }
  }
}

size_t FileSize(const std::string& path) { return ReadFileFrom(path, 0).size(); }

std::string ReadFileFrom(const std::string& path, size_t offset) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return "";
  std::ostringstream contents;
  contents << file.rdbuf();
  const std::string text = contents.str();
  return offset >= text.size() ? "" : text.substr(offset);
}

}  // namespace process_tools

}  // namespace klv
