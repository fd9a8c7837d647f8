#include "daemon/status_probe.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"

namespace klv {

namespace {

constexpr size_t kPieceSize = 8192;

enum ProbeStatus {
  kProbeDone = 0,
  kNotAPort = 10,
  kNoLocalSocket = 11,
  kNoContact = 12,
  kReadFailed = 13,
};

// Reads until the daemon closes the connection; false when a read fails.
bool ReadToEnd(Socket* connection, std::string* text) {
  char piece[kPieceSize];
  while (true) {
    long count = 0;
    switch (connection->Read(piece, sizeof piece, &count)) {
      case TransferStatus::kComplete:
        text->append(piece, sizeof piece);
        break;
      case TransferStatus::kPartial:
        text->append(piece, static_cast<size_t>(count));
        break;
      case TransferStatus::kEndOfFile:
        return true;
      case TransferStatus::kFailed:
        return false;
    }
  }
}

// Writes `text`, the failure of the connection's last call and a newline to
// standard error, and answers `status`.
int ProbeFailed(const char* text, const Socket& connection, ProbeStatus status) {
  FileStream err(stderr);
  err << text << connection.LastFailure().Text() << "\n";
  err.Flush();
  return status;
}

}  // namespace

int RunStatusProbe(const char* port_argument) {
  SocketAddress daemon_address;
  daemon_address.SetLoopback();
  // A word, or a number outside 0 to 65535, leaves the port at 0.
  daemon_address.SetPort(static_cast<uint32_t>(atoi(port_argument)));
  if (daemon_address.Port() == 0) {
    FileStream err(stderr);
    err << "\"" << RefString(port_argument) << "\" is not a valid port number\n";
    err.Flush();
    return kNotAPort;
  }

  SocketAddress local;
  local.SetLoopback();
  Socket connection;
  if (!connection.BindTo(local, SOCK_STREAM)) {
    return ProbeFailed("LOCKDSTATUS: Unable to bind to local tcp port: ", connection,
                       kNoLocalSocket);
  }
  if (!connection.Connect(daemon_address)) {
    return ProbeFailed("LOCKDSTATUS: Unable to contact lockd daemon: ", connection, kNoContact);
  }
  std::string text;
  if (!ReadToEnd(&connection, &text)) {
    return ProbeFailed("LOCKDSTATUS: I/O error from lockd daemon: ", connection, kReadFailed);
  }
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
  return kProbeDone;
}

}  // namespace klv
