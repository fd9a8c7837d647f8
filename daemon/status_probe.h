#ifndef KLV_DAEMON_STATUS_PROBE_H_
#define KLV_DAEMON_STATUS_PROBE_H_

namespace klv {

// The program's one-argument form: connects to the daemon whose status port
// is `port_argument` on 127.0.0.1, copies everything that it sends until it
// closes the connection to standard output in one piece, and returns the exit
// status: 0 done, 10 not a valid port number, 11 no local TCP socket, 12 the
// daemon could not be contacted, 13 a read failed. Messages go to standard
// error.
int RunStatusProbe(const char* port_argument);

}  // namespace klv

#endif  // KLV_DAEMON_STATUS_PROBE_H_
