#ifndef KLV_DAEMON_SIGNALS_H_
#define KLV_DAEMON_SIGNALS_H_

#include <signal.h>

namespace klv {

class LockManagerDaemon;

// The daemon's signal handling. Apart from the stop flag and the prepared
// fatal-signal message, the one global of the process lives here: the pointer
// to the daemon object, through which the fatal-signal handler finds the error
// log.

// Sets SIGPIPE, SIGTTOU, SIGTTIN, SIGTSTP and SIGCHLD, in that order, to be
// ignored. With SIGCHLD ignored the system reaps the daemon's children.
void IgnoreStartupSignals();

// Makes `daemon` the process's one daemon object. Call once, before the
// handlers are installed; the caller keeps ownership.
void RegisterDaemon(LockManagerDaemon* daemon);

// Catches SIGTERM, SIGABRT and SIGINT, which set the stop flag. The handler
// stays installed and does not restart interrupted calls. The three signals
// are blocked from here on except while the loop waits with WaitMask(), so one
// that arrives between the flag check and the wait ends that wait at once.
void InstallStopHandler();

// The signal mask to wait with: the one in force before InstallStopHandler,
// without the stop signals.
const sigset_t* WaitMask();

// For a forked child: the stop signals end the process again, as by default,
// and are no longer blocked.
void ResetStopSignals();

// True once a stop signal has been delivered.
bool StopSignalDelivered();

// Unblocks the stop signals for a moment when one is pending, so that its
// handler runs now: a wait that finds input ready returns before a pending
// signal is delivered. Makes system calls; the loop calls it every 32nd pass.
void DeliverPendingStopSignal();

// Forms the fatal-signal message, naming this process's id, then catches
// SIGSEGV and SIGBUS: the handler writes the message to standard error and to
// the error log of the registered daemon and ends the process with status 99.
void InstallFatalSignalHandler();

}  // namespace klv

#endif  // KLV_DAEMON_SIGNALS_H_
