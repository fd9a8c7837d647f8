// Sequences of datagrams from several senders through the daemon's decoder
// and dispatcher, with the dead-client sweep in between when asked for. The
// tables are checked after every datagram, and the status report is written
// over what the sequence built. Replies go out on a real UDP socket to the
// senders' sockets, all on 127.0.0.1.
//
// Input: records of one control byte, a 16-bit length (low byte first) and
// that many datagram bytes. Control bits 0-1 pick the sender; bit 7 runs a
// sweep before the datagram.
#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "foundation/output_stream.h"
#include "foundation/socket.h"
#include "lockservice/lock_manager_daemon.h"

namespace {

constexpr int kSenders = 4;

struct Sockets {
  klv::Socket daemon;
  klv::Socket senders[kSenders];
  klv::SocketAddress addresses[kSenders];

  Sockets() {
    klv::SocketAddress loopback;
    loopback.SetLoopback();
    if (!daemon.BindTo(loopback, SOCK_DGRAM, klv::AddressReuse::kOff, 0, klv::Progress::kQuiet)) {
      abort();
    }
    fcntl(daemon.Fd(), F_SETFL, O_NONBLOCK);  // as the event loop has it
    for (int i = 0; i < kSenders; ++i) {
      senders[i].BindTo(loopback, SOCK_DGRAM, klv::AddressReuse::kOff, 0, klv::Progress::kQuiet);
      senders[i].GetSockName(&addresses[i]);
    }
  }
};

// Reads what the daemon sent, so that the senders' buffers never fill.
void Drain(Sockets& sockets) {
  unsigned char buffer[64];
  for (klv::Socket& sender : sockets.senders) {
    while (recv(sender.Fd(), buffer, sizeof buffer, MSG_DONTWAIT) >= 0) {
    }
  }
}

void Check(const klv::LockManagerDaemon& daemon) {
  const klv::RefString problem = daemon.CheckTables();
  if (problem.IsEmpty()) return;
  printf("tables broken: %s\n", problem.Text());  // standard error is closed while fuzzing
  fflush(stdout);
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Sockets sockets;
  srand(1);  // the sweep's draws, the same for every run of an input
  klv::LockManagerDaemon daemon(30, klv::RefString("/nonexistent"));
  daemon.SetUdpSocket(&sockets.daemon);
  size_t at = 0;
  while (size - at >= 3) {
    const uint8_t control = data[at];
    size_t length = data[at + 1] | static_cast<size_t>(data[at + 2]) << 8;
    at += 3;
    if (length > size - at) length = size - at;
    if (control & 0x80) daemon.SweepClients();
    daemon.Dispatch(sockets.addresses[control % kSenders], data + at, length);
    at += length;
    Check(daemon);
    Drain(sockets);
  }
  klv::TextBuilder report;
  daemon.WriteStatusReport(report);
  return 0;
}
