#include "daemon/status_probe.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include "charset/charset.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"

namespace klv {

namespace {

constexpr size_t kPieceSize = 8192;

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

// Keeps the failure of the connection's last call and answers `status`.
ProbeStatus Failed(const Socket& connection, ProbeStatus status, std::string* failure) {
  *failure = connection.LastFailure().Text().Encode(charset::kIso8859_1);
  return status;
}

// The start of the probe's message for each failure.
const char* FailureHead(int status) {
  switch (status) {
    case kNoLocalSocket:
      return "LOCKDSTATUS: Unable to bind to local tcp port: ";
    case kNoContact:
      return "LOCKDSTATUS: Unable to contact lockd daemon: ";
    default:
      return "LOCKDSTATUS: I/O error from lockd daemon: ";
  }
}

}  // namespace

ProbeStatus FetchStatusReport(uint16_t port, std::string* report, std::string* failure) {
  SocketAddress daemon_address;
  daemon_address.SetLoopback();
  daemon_address.SetPort(port);
  SocketAddress local;
  local.SetLoopback();
  Socket connection;
  if (!connection.BindTo(local, SOCK_STREAM)) {
    return Failed(connection, kNoLocalSocket, failure);
  }
  if (!connection.Connect(daemon_address)) return Failed(connection, kNoContact, failure);
  if (!ReadToEnd(&connection, report)) return Failed(connection, kReadFailed, failure);
  return kProbeDone;
}

int RunStatusProbe(const char* port_argument) {
  SocketAddress checked;
  // A word, or a number outside 0 to 65535, leaves the port at 0.
  checked.SetPort(static_cast<uint32_t>(atoi(port_argument)));
  FileStream err(stderr);
  if (checked.Port() == 0) {
    err << "\"" << RefString(port_argument) << "\" is not a valid port number\n";
    err.Flush();
    return kNotAPort;
  }
  std::string text;
  std::string failure;
  const ProbeStatus status = FetchStatusReport(checked.Port(), &text, &failure);
  if (status != kProbeDone) {
    err << FailureHead(status) << RefString(failure.data(), static_cast<uint32_t>(failure.size()))
        << "\n";
    err.Flush();
    return status;
  }
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
  return kProbeDone;
}

}  // namespace klv
