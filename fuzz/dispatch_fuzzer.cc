// Sequences of datagrams from several senders through the daemon's decoder
// and dispatcher, with the dead-client sweep in between when asked for. The
// tables are checked after every datagram, and the status report is written
// over what the sequence built. What the daemon sends is recorded, not sent,
// and each datagram's length is checked against its code.
//
// Input: records of one control byte, a 16-bit length (low byte first) and
// that many datagram bytes. Control bits 0-1 pick the sender; bit 7 runs a
// sweep before the datagram.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "foundation/output_stream.h"
#include "foundation/socket.h"
#include "lockservice/lock_manager_daemon.h"
#include "lockservice/recording_reply_sink.h"
#include "protocol/wire.h"

namespace {

constexpr int kSenders = 4;

// Senders at 127.0.0.1, ports 1 to 4.
struct Senders {
  klv::SocketAddress addresses[kSenders];

  Senders() {
    for (int i = 0; i < kSenders; ++i) {
      addresses[i].SetLoopback();
      addresses[i].SetPort(static_cast<uint32_t>(i + 1));
    }
  }
};

void Check(const klv::LockManagerDaemon& daemon) {
  const klv::RefString problem = daemon.CheckTablesForTesting();
  if (problem.IsEmpty()) return;
  printf("tables broken: %s\n", problem.Text());  // standard error is closed while fuzzing
  fflush(stdout);
  abort();
}

// Every datagram that the daemon hands over has the length of its code.
void CheckSent(const klv::RecordingReplySink& sink) {
  for (const klv::RecordingReplySink::Sent& sent : sink.SentDatagrams()) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(sent.datagram.data());
    const uint32_t code = klv::ReadWord(bytes, sent.datagram.size(), klv::reply::kCode);
    const size_t length =
        code == klv::REQ_PROBE ? klv::request::kProbeSize : klv::reply::LengthFor(code);
    if (sent.datagram.size() == length) continue;
    printf("code %u sent with %zu bytes\n", code, sent.datagram.size());
    fflush(stdout);
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Senders senders;
  srand(1);  // the sweep's draws, the same for every run of an input
  klv::LockManagerDaemon daemon(klv::RefString("/nonexistent"));
  klv::RecordingReplySink sink;
  daemon.SetReplySink(&sink);
  size_t at = 0;
  while (size - at >= 3) {
    const uint8_t control = data[at];
    size_t length = data[at + 1] | static_cast<size_t>(data[at + 2]) << 8;
    at += 3;
    if (length > size - at) length = size - at;
    if (control & 0x80) daemon.SweepClients();
    daemon.Dispatch(senders.addresses[control % kSenders], data + at, length);
    at += length;
    Check(daemon);
    CheckSent(sink);
    sink.Clear();
  }
  klv::TextBuilder report;
  daemon.WriteStatusReport(report);
  return 0;
}
