// klvlockctl: a command-line client of klvlockd. It keeps one session open,
// reads one request per line from standard input (a terminal or a pipe) and
// prints one line per reply and per event; the daemon's probes are answered
// also while it waits for input.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "client/klvlock.hpp"
#include "tools/klvlockctl/options.h"
#include "tools/klvlockctl/request_runner.h"
#include "tools/standard_descriptors.h"

namespace klv {
namespace {

// Feeds standard input to the runner line by line; the session's datagrams
// are read whenever they arrive in between.
class InputLoop {
 public:
  InputLoop(klvlock::Session* session, RequestRunner* runner, bool prompt)
      : session_(session), runner_(runner), prompt_(prompt) {}

  // Runs until end of input or until the runner says stop.
  void Run() {
    bool more = true;
    while (more) {
      if (prompt_) ShowPrompt();
      pollfd watched[2] = {{STDIN_FILENO, POLLIN, 0}, {session_->Fd(), POLLIN, 0}};
      if (poll(watched, 2, -1) < 0 && errno != EINTR) break;
      if (watched[1].revents != 0) runner_->ReadSession();
      if (watched[0].revents != 0) more = ReadInput();
    }
  }

  // The errno of a failed read of standard input, or 0.
  int ReadError() const { return read_error_; }

 private:
  void ShowPrompt() {
    fputs("klvlockctl> ", stdout);
    fflush(stdout);
  }

  // Reads what standard input has and runs each whole line; false at the end
  // of input, when it cannot be read, or when the runner says stop. Only the
  // bytes just read are searched for a line end, so a long line costs time in
  // proportion to it.
  bool ReadInput() {
    char buffer[4096];
    const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
    if (count < 0) {
      read_error_ = errno == EINTR || errno == EAGAIN ? 0 : errno;
      return read_error_ == 0;
    }
    if (count == 0) {
      if (!pending_.empty()) RunLine(pending_);  // a last line without its newline
      return false;
    }
    const size_t searched = pending_.size();
    pending_.append(buffer, static_cast<size_t>(count));
    size_t line_start = 0;
    bool more = true;
    for (size_t end = pending_.find('\n', searched); more && end != std::string::npos;
         end = pending_.find('\n', line_start)) {
      more = RunLine(pending_.substr(line_start, end - line_start));
      line_start = end + 1;
    }
    pending_.erase(0, line_start);
    return more;
  }

  bool RunLine(const std::string& line) { return runner_->RunLine(line, ++line_number_); }

  klvlock::Session* session_;
  RequestRunner* runner_;
  bool prompt_;
  std::string pending_;
  int line_number_ = 0;
  int read_error_ = 0;
};

constexpr const char* kNoPortHint =
    "klvlockctl: no --port given and $_klvlockd_port is not set; source the daemon's env file "
    "first: . /run/klvlockd/klvlockd.env (the service) or . logs/klvlockd.env (scripts/start.sh)\n";

// Everything but the exit: options, the session, the input loop, and the end
// of the session unless it is to be kept.
int RunKlvlockctl(int argc, char** argv) {
  GuardStandardDescriptors();  // a closed standard input must not become the session's socket
  Options options;
  std::string error;
  switch (ParseOptions(argc, argv, getenv("_klvlockd_port"), static_cast<uint32_t>(getpid()),
                       &options, &error)) {
    case OptionsOutcome::kHelp:
      fputs(HelpText().c_str(), stdout);
      return kExitOk;
    case OptionsOutcome::kVersion:
      printf("klvlockctl %s\n", KLVLOCKCTL_VERSION);
      return kExitOk;
    case OptionsOutcome::kBad:
      fprintf(stderr, "klvlockctl: %s\nTry klvlockctl --help.\n", error.c_str());
      return kExitUsage;
    case OptionsOutcome::kNoPort:
      fputs(kNoPortHint, stderr);
      return kExitUsage;
    case OptionsOutcome::kRun:
      break;
  }
  klvlock::Session session(options.port, options.session, options.name);
  if (session.Error() != KLVLOCK_OK) {
    fprintf(stderr, "klvlockctl: cannot open a session: %s\n", klvlock_strerror(session.Error()));
    return ExitStatusOf(session.Error());
  }
  RequestRunner runner(&session, {options.timeout_ms, options.strict}, stdout, stderr);
  InputLoop input(&session, &runner, isatty(STDIN_FILENO) && isatty(STDOUT_FILENO));
  input.Run();
  if (!options.keep_session) runner.EndSession();
  if (input.ReadError() == 0) return runner.Status();
  fprintf(stderr, "klvlockctl: cannot read standard input: %s\n", strerror(input.ReadError()));
  return kExitFailure;
}

}  // namespace
}  // namespace klv

int main(int argc, char** argv) { return klv::RunKlvlockctl(argc, argv); }
