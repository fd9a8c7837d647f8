#include "daemon/signals.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "daemon/event_log.h"
#include "lockservice/lock_manager_daemon.h"
#include "protocol/version.h"

namespace klv {

namespace {

constexpr int kStopSignals[] = {SIGTERM, SIGABRT, SIGINT};
constexpr const char kFatalFormat[] =
    "\n[unknown time]\tprocess/error\t%s(%s)\n"
    "Process %d has had a fatal signal - SIGSEGV or SIGBUS\n"
    "The %s server will fail.\n"
    "Stop, then restart the server from the command line.\n";

volatile sig_atomic_t stop_requested = 0;
sigset_t wait_mask;
// The formed message is about 204 bytes with a five-digit process id.
char fatal_message[512] = "";
size_t fatal_message_length = 0;
LockManagerDaemon* the_daemon = nullptr;

void StopHandler(int) { stop_requested = 1; }

// Async-signal-safe: write(2) only.
void WriteAll(int fd, const char* bytes, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, bytes, length);
    if (written <= 0) return;
    bytes += written;
    length -= static_cast<size_t>(written);
  }
}

// Runs on a fault, so it formats, allocates and flushes nothing: the message
// was formed before the handler was installed, and every log record is
// flushed when it is written.
void FatalSignalHandler(int) {
  WriteAll(STDERR_FILENO, fatal_message, fatal_message_length);
  if (the_daemon != nullptr) {
    const int error_log = the_daemon->Log().ErrorLogFd();
    if (error_log >= 0) WriteAll(error_log, fatal_message, fatal_message_length);
  }
  _exit(99);
}

// Without SA_RESTART a wait that the signal interrupts fails with EINTR, and
// without SA_RESETHAND the handler stays installed after delivery.
void SetDisposition(int signal_number, void (*handler)(int)) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(signal_number, &action, nullptr);
}

}  // namespace

void IgnoreStartupSignals() {
  for (const int signal_number : {SIGPIPE, SIGTTOU, SIGTTIN, SIGTSTP, SIGCHLD}) {
    SetDisposition(signal_number, SIG_IGN);
  }
}

void RegisterDaemon(LockManagerDaemon* daemon) { the_daemon = daemon; }

void InstallStopHandler() {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  for (const int signal_number : kStopSignals) {
    sigaddset(&stop_signals, signal_number);
    SetDisposition(signal_number, StopHandler);
  }
  sigset_t previous;
  sigprocmask(SIG_BLOCK, &stop_signals, &previous);
  wait_mask = previous;
  for (const int signal_number : kStopSignals) sigdelset(&wait_mask, signal_number);
}

const sigset_t* WaitMask() { return &wait_mask; }

void ResetStopSignals() {
  for (const int signal_number : kStopSignals) SetDisposition(signal_number, SIG_DFL);
  sigprocmask(SIG_SETMASK, &wait_mask, nullptr);
}

bool StopSignalDelivered() { return stop_requested != 0; }

void DeliverPendingStopSignal() {
  sigset_t pending;
  sigpending(&pending);
  for (const int signal_number : kStopSignals) {
    if (sigismember(&pending, signal_number) == 1) {
      sigset_t blocked;
      sigprocmask(SIG_SETMASK, &wait_mask, &blocked);  // the handler runs here
      sigprocmask(SIG_SETMASK, &blocked, nullptr);
      return;
    }
  }
}

void InstallFatalSignalHandler() {
  snprintf(fatal_message, sizeof fatal_message, kFatalFormat, kDaemonName, kShortVersion,
           static_cast<int>(getpid()), "Kelvane");
  fatal_message_length = strlen(fatal_message);
  SetDisposition(SIGSEGV, FatalSignalHandler);
  SetDisposition(SIGBUS, FatalSignalHandler);
}

}  // namespace klv
