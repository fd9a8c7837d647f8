#include "daemon/status_probe.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/socket.h"

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

}  // namespace

int RunStatusProbe(const char* port_argument) {
  FileStream err(stderr);
  SocketAddress daemon_address;
  daemon_address.SetLoopback();
  // A word, or a number outside 0 to 65535, leaves the port at 0.
  daemon_address.SetPort(static_cast<uint32_t>(atoi(port_argument)));
  if (daemon_address.Port() == 0) {
    err << "\"" << RefString(port_argument) << "\" is not a valid port number\n";
    err.Flush();
    return kNotAPort;
  }

  SocketAddress local;
  local.SetLoopback();
  Socket connection;
  if (!connection.BindTo(local, SOCK_STREAM, AddressReuse::kOff, 0, Progress::kQuiet)) {
    err << "LOCKDSTATUS: Unable to bind to local tcp port: " << connection.LastFailure().Text()
        << "\n";
    err.Flush();
    return kNoLocalSocket;
  }
  if (!connection.Connect(daemon_address)) {
    err << "LOCKDSTATUS: Unable to contact lockd daemon: " << connection.LastFailure().Text()
        << "\n";
    err.Flush();
    return kNoContact;
  }
  std::string text;
  if (!ReadToEnd(&connection, &text)) {
    err << "LOCKDSTATUS: I/O error from lockd daemon: " << connection.LastFailure().Text() << "\n";
    err.Flush();
    return kReadFailed;
  }
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
  return kProbeDone;
}
