// Sequences of datagrams from several senders through the daemon's decoder
// and dispatcher, with the dead-client sweep in between when asked for. The
// tables are checked after every datagram, and the status report is written
// over what the sequence built. What the daemon sends is recorded, not sent,
// and each datagram's length is checked against its code.
//
// Input: records of one control byte, a 16-bit length (low byte first) and
// that many datagram bytes. Control bits 0-1 pick the sender; bit 7 runs a
// sweep before the datagram.
//
// Bit 6 of the first control byte runs the whole input in cluster mode: two
// daemons, each with its node on one in-memory store. There bit 2 picks the
// daemon, bit 4 makes its store lose the reply of its next call, and bit 5
// moves the store's clock on by 100 ms before the datagram. Besides each
// daemon's tables, no two daemons that still decide may hold conflicting
// opens or ranges of a file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "foundation/output_stream.h"
#include "foundation/socket.h"
#include "lockservice/lock_manager_daemon.h"
#include "lockservice/recording_reply_sink.h"
#include "protocol/wire.h"
#ifdef KLV_FUZZ_CLUSTER
#include "cluster/cluster_node.h"
#include "cluster/memory_store.h"
#endif

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

#ifdef KLV_FUZZ_CLUSTER
// One daemon of the cluster, with its sink, store and node.
struct ClusterDaemon {
  ClusterDaemon(klv::cluster::MemoryData* data, const char* name)
      : daemon(klv::RefString("/nonexistent")), store(data) {
    node = std::make_unique<klv::cluster::ClusterNode>(
        klv::cluster::ClusterConfig{{"http://x:1"}, "f", name, 2, 1, 300}, &store,
        [data] { return data->NowMs(); });
    node->Register([](const std::string&) {});
    node->SetFenceHandler([this](const std::string&) { fenced = true; });
    daemon.SetReplySink(&sink);
    daemon.SetCluster(node.get());
  }
  klv::LockManagerDaemon daemon;
  klv::RecordingReplySink sink;
  klv::cluster::MemoryStore store;
  std::unique_ptr<klv::cluster::ClusterNode> node;
  bool fenced = false;
};

void FuzzCluster(const Senders& senders, const uint8_t* data, size_t size) {
  klv::cluster::MemoryData store_data;
  ClusterDaemon daemons[2] = {{&store_data, "a"}, {&store_data, "b"}};
  std::set<uint64_t> files;
  auto settle = [&] {
    for (ClusterDaemon& one : daemons) {
      one.node->Perform();
      Check(one.daemon);
      CheckSent(one.sink);
      one.sink.Clear();
    }
    for (const uint64_t file : files) {
      const klv::FileKey key{static_cast<uint32_t>(file >> 32), static_cast<uint32_t>(file)};
      if (!daemons[0].fenced && !daemons[1].fenced &&
          klv::cluster::ClusterNode::Conflicts(daemons[0].daemon.HoldingsOf(key),
                                               daemons[1].daemon.HoldingsOf(key))) {
        printf("file %u:%u held in conflict by two nodes\n", key.hi, key.lo);
        fflush(stdout);
        abort();
      }
    }
  };
  for (size_t at = 0; size - at >= 3;) {
    const uint8_t control = data[at];
    size_t length = data[at + 1] | static_cast<size_t>(data[at + 2]) << 8;
    at += 3;
    if (length > size - at) length = size - at;
    ClusterDaemon& one = daemons[control >> 2 & 1];
    if (control & 0x10)
      one.store.InjectFaults({{klv::cluster::MemoryStore::Fault::Kind::kLoseReply}});
    if (control & 0x20) store_data.AdvanceTime(100);
    if (control & 0x80) one.daemon.SweepClients();
    if (length >= 24)
      files.insert(uint64_t{klv::ReadWord(data + at, length, 16)} << 32 |
                   klv::ReadWord(data + at, length, 20));
    if (!one.fenced) one.daemon.Dispatch(senders.addresses[control % kSenders], data + at, length);
    at += length;
    settle();
  }
  for (int step = 0; step < 10; ++step) {  // the held requests are decided
    store_data.AdvanceTime(100);
    settle();
  }
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Senders senders;
#ifdef KLV_FUZZ_CLUSTER
  if (size > 0 && (data[0] & 0x40) != 0) {
    FuzzCluster(senders, data, size);
    return 0;
  }
#endif
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
