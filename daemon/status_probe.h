#ifndef KLV_DAEMON_STATUS_PROBE_H_
#define KLV_DAEMON_STATUS_PROBE_H_

#include <cstdint>
#include <string>

namespace klv {

// How a fetch of the status report ended; the values are the exit statuses of
// the probe form.
enum ProbeStatus {
  kProbeDone = 0,
  kNotAPort = 10,
  kNoLocalSocket = 11,
  kNoContact = 12,
  kReadFailed = 13,
};

// Connects to the daemon whose status port is `port` on 127.0.0.1 and reads
// everything that it sends until it closes the connection into `report`. On
// kNoLocalSocket, kNoContact or kReadFailed, `failure` receives the text of
// the failed socket call. Writes nothing.
ProbeStatus FetchStatusReport(uint16_t port, std::string* report, std::string* failure);

// The program's one-argument form: fetches the report of the daemon whose
// status port is `port_argument`, copies it to standard output in one piece,
// and returns the exit status (a ProbeStatus). Messages go to standard error.
int RunStatusProbe(const char* port_argument);

}  // namespace klv

#endif  // KLV_DAEMON_STATUS_PROBE_H_
