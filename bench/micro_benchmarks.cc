// Micro-benchmarks of the daemon's hot paths: the request codec, the file
// table, a lock against many held ranges of one file and the status report.
// --smoke caps every table at a thousand entries, for a quick run under ctest.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "daemon/udp_reply_sink.h"
#include "foundation/descriptor.h"
#include "foundation/socket.h"
#include "lockservice/file_entry.h"
#include "lockservice/lock_manager_daemon.h"
#include "lockservice/lock_request.h"
#include "tests/support/wire_bytes.h"

namespace klv::bench {

namespace {

int64_t size_cap = 10'000'000;

const unsigned char* Data(const std::string& bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

// A daemon object with a UDP socket of its own whose replies all go to one
// sink socket; the sink is never read, so the kernel drops what overflows.
class SinkDaemon {
 public:
  SinkDaemon() : daemon_(RefString("/tmp")) {
    SocketAddress loopback;
    loopback.SetLoopback();
    udp_.BindTo(loopback, SOCK_DGRAM);
    sink_.BindTo(loopback, SOCK_DGRAM);
    sink_.GetSockName(&sender_);
    daemon_.SetReplySink(&replies_);
  }

  void Send(const std::string& request) {
    daemon_.Dispatch(sender_, Data(request), request.size());
  }
  LockManagerDaemon& Daemon() { return daemon_; }

 private:
  Socket udp_;
  Socket sink_;
  SocketAddress sender_;
  LockManagerDaemon daemon_;
  UdpReplySink replies_{&udp_, &daemon_.Log()};
};

wire::RequestHead Head(uint32_t tag, uint32_t file) {
  return {.tag = tag, .session = 7, .clientfid = 1, .filekey_hi = 0x0801, .filekey_lo = file + 1};
}

void DecodeLockRequest(benchmark::State& state) {
  const std::string bytes = wire::LockBytes(Head(1, 1), 100, 50, 0);
  for (auto _ : state) {
    LockRequest request;
    request.Decode(Data(bytes), bytes.size());
    benchmark::DoNotOptimize(request.Code());
  }
}

void DecodeOpenRequest(benchmark::State& state) {
  const std::string bytes = wire::OpenBytes(Head(1, 1), 0x40, 0, "PC1", "/srv/share/file.txt");
  for (auto _ : state) {
    LockRequest request;
    request.Decode(Data(bytes), bytes.size());
    benchmark::DoNotOptimize(request.Code());
  }
}

void EncodeReply(benchmark::State& state) {
  for (auto _ : state) {
    LockReply reply(REQ_LOCK, 12345);
    reply.SetStatus(ReplyStatus::kConflict);
    benchmark::DoNotOptimize(reply.Bytes().data());
  }
}

// A table of state.range(0) files with keys as the load generator makes them.
void FillTable(FileTable* table, uint32_t files) {
  for (uint32_t file = 0; file < files; ++file) table->Insert(new FileEntry({0x0801, file + 1}));
}

void FileTableFind(benchmark::State& state) {
  const auto files = static_cast<uint32_t>(std::min(state.range(0), size_cap));
  FileTable table(4, 0);
  FillTable(&table, files);
  uint32_t file = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.Find({0x0801, file + 1}));
    file = file + 1 == files ? 0 : file + 1;
  }
  table.DeleteAll();
}

void FileTableInsert(benchmark::State& state) {
  const auto files = static_cast<uint32_t>(std::min(state.range(0), size_cap));
  for (auto _ : state) {
    FileTable table(4, 0);
    FillTable(&table, files);
    state.PauseTiming();
    table.DeleteAll();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * files);
}

// A lock and its unlock on a file that holds state.range(0) other ranges,
// through the dispatcher (so one send per request is included).
void LockAgainstHeldRanges(benchmark::State& state) {
  const auto held = static_cast<uint32_t>(std::min(state.range(0), size_cap));
  SinkDaemon daemon;
  for (uint32_t range = 0; range < held; ++range) {
    daemon.Send(wire::LockBytes(Head(range, 0), (1u << 24) + range * 16, 8, range % 2));
  }
  const std::string lock = wire::LockBytes(Head(1, 0), 0, 8, 0);
  const std::string unlock = wire::UnlockBytes(Head(2, 0), 0, 8);
  for (auto _ : state) {
    daemon.Send(lock);
    daemon.Send(unlock);
  }
}

// The whole report of state.range(0) files with ten ranges each, written to
// /dev/null.
void StatusReport(benchmark::State& state) {
  const auto files = static_cast<uint32_t>(std::min(state.range(0), size_cap));
  SinkDaemon daemon;
  for (uint32_t lock = 0; lock < files * 10; ++lock) {
    daemon.Send(wire::LockBytes(Head(lock, lock % files), (1u << 24) + lock / files * 16, 8, 0));
  }
  Descriptor null_device(open("/dev/null", O_WRONLY | O_CLOEXEC));
  for (auto _ : state) daemon.Daemon().SendStatusReport(&null_device);
  state.SetItemsProcessed(state.iterations() * files * 10);
}

BENCHMARK(DecodeLockRequest);
BENCHMARK(DecodeOpenRequest);
BENCHMARK(EncodeReply);
BENCHMARK(FileTableFind)->Arg(1000)->Arg(1'000'000);
BENCHMARK(FileTableInsert)->Arg(1000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(LockAgainstHeldRanges)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Arg(10'000);
BENCHMARK(StatusReport)->Arg(1000)->Arg(100'000)->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace klv::bench

int main(int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    if (std::strcmp(argv[index], "--smoke") == 0) klv::bench::size_cap = 1000;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
