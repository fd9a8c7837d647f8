#ifndef KLV_DAEMON_STARTUP_H_
#define KLV_DAEMON_STARTUP_H_

namespace klv {

// The program's entry. Ignores the job-control signals, SIGPIPE and SIGCHLD,
// then runs the status probe (one argument: the daemon's status port) or
// starts the daemon (two: the timeout, which is unused, and the log
// directory). The daemon form binds its UDP and TCP sockets on 127.0.0.1,
// forks, and in the parent prints the status line for the start-up script and
// returns 0; the child detaches and returns the event loop's result.
// Start-up failures write a message to standard error and return 1 to 5. The
// result is the exit status.
int RunKlvlockd(int argc, char** argv);

}  // namespace klv

#endif  // KLV_DAEMON_STARTUP_H_
