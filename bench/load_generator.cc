// klv_loadgen: a closed-loop load generator for klvlockd, the reference echo
// servers and Redis. One line of key=value pairs per phase on standard output;
// exit status 1 when any reply was wrong or missing.
//
//   klv_loadgen --port=P [--pid=PID] [--protocol=lock|redis]
//               [--workload=noop|lock|open|none] [--clients=64] [--files=1]
//               [--seconds=3] [--warmup=0.5] [--preload=L] [--preload-files=F]
//               [--status-port=T --reports=K] [--status-port=T --report-once=K]
//               [--memory --preload=L --preload-files=F --quiet-ms=2000]
//               [--hold-opens] [--ports=P1,P2,...] [--first-file=N] [--label=TEXT]
//
// --hold-opens first opens every file of the workload once (read, deny none)
// from sessions of their own and keeps them open during the run: on a node in
// cluster mode the open/close workload then needs no store. --ports spreads
// the clients over several daemons (the nodes of a cluster), each on files of
// its own: those of port k start at --first-file + k * --files. The result
// line gives, besides the figures of all requests, the latency of each kind
// (p50_us_open, p99_us_lock, ...).
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "bench/closed_loop.h"
#include "bench/lock_session.h"
#include "bench/redis_session.h"
#include "bench/report_reader.h"
#include "bench/server_process.h"
#include "tests/support/wire_bytes.h"

namespace klv::bench {

namespace {

constexpr uint32_t kPreloadSessions = 64;
constexpr double kMebibyte = 1024.0 * 1024.0;

// --name=value arguments; a bare --name reads as "1".
class Arguments {
 public:
  Arguments(int argc, char** argv) {
    for (int index = 1; index < argc; ++index) {
      const std::string argument = argv[index];
      const size_t equals = argument.find('=');
      if (argument.rfind("--", 0) != 0) continue;
      values_[argument.substr(2, equals == std::string::npos ? std::string::npos : equals - 2)] =
          equals == std::string::npos ? "1" : argument.substr(equals + 1);
    }
  }
  std::string Text(const std::string& name, const std::string& otherwise) const {
    const auto found = values_.find(name);
    return found == values_.end() ? otherwise : found->second;
  }
  double Number(const std::string& name, double otherwise) const {
    const auto found = values_.find(name);
    return found == values_.end() ? otherwise : std::strtod(found->second.c_str(), nullptr);
  }
  bool Has(const std::string& name) const { return values_.count(name) != 0; }

 private:
  std::map<std::string, std::string> values_;
};

Workload WorkloadNamed(const std::string& name) {
  if (name == "lock") return Workload::kLock;
  if (name == "open") return Workload::kOpen;
  return Workload::kNoop;
}

double Mebibytes(uint64_t bytes) { return static_cast<double>(bytes) / kMebibyte; }

// Runs a finite plan (touch, preload or release) to its end on `sessions`.
bool RunPlan(const std::vector<std::unique_ptr<Session>>& sessions, const LockPlan& plan,
             const char* name, const ServerProcess& server) {
  for (const auto& session : sessions) static_cast<LockSession&>(*session).Restart(plan);
  RunLimits limits;
  limits.seconds = 0;
  // A large table grows now and then, which may hold the daemon up for a while.
  limits.timeout_seconds = 10;
  const RunResult result = RunClosedLoop(sessions, limits);
  printf("%s count=%llu files=%u %s rss_mb=%.1f\n", name,
         static_cast<unsigned long long>(plan.count), plan.files, Summary(result).c_str(),
         Mebibytes(server.ResidentBytes()));
  fflush(stdout);
  return result.finished && result.errors.Total() == 0;
}

std::vector<std::unique_ptr<Session>> PreloadSessions(uint16_t port) {
  return MakeLockSessions(port, LockPlan(), kPreloadSessions);
}

// Files touched (left idle), then ranges taken, then released: the resident
// size after each step gives the cost of a file entry and of a record lock,
// and how much of the growth the daemon hands back.
// `quiet_ms` is the time the daemon gets to hand freed memory back.
bool MeasureMemory(uint16_t port, uint64_t locks, uint32_t files, int quiet_ms,
                   const ServerProcess& server) {
  const auto sessions = PreloadSessions(port);
  if (sessions.empty()) return false;
  const uint64_t before = server.ResidentBytes();
  bool ok = RunPlan(sessions, {Workload::kTouch, files, 0}, "touch", server);
  const uint64_t with_files = server.ResidentBytes();
  ok = ok && RunPlan(sessions, {Workload::kPreload, files, locks}, "preload", server);
  const uint64_t with_locks = server.ResidentBytes();
  ok = ok && RunPlan(sessions, {Workload::kRelease, files, locks}, "release", server);
  std::this_thread::sleep_for(std::chrono::milliseconds(quiet_ms));
  const uint64_t released = server.ResidentBytes();
  // A growth below one page reads as one page, so that tiny runs print numbers.
  const double page = static_cast<double>(sysconf(_SC_PAGESIZE));
  const double lock_growth =
      std::max(page, static_cast<double>(with_locks) - static_cast<double>(with_files));
  const double total_growth =
      std::max(page, static_cast<double>(with_locks) - static_cast<double>(before));
  const double returned = static_cast<double>(with_locks) - static_cast<double>(released);
  printf(
      "memory files=%u locks=%llu rss_start_mb=%.1f rss_files_mb=%.1f rss_locks_mb=%.1f "
      "rss_released_mb=%.1f bytes_per_file=%.1f bytes_per_lock=%.1f "
      "returned_of_lock_growth=%.3f returned_of_total_growth=%.3f\n",
      files, static_cast<unsigned long long>(locks), Mebibytes(before), Mebibytes(with_files),
      Mebibytes(with_locks), Mebibytes(released),
      (static_cast<double>(with_files) - static_cast<double>(before)) / files,
      lock_growth / static_cast<double>(locks), returned / lock_growth, returned / total_growth);
  return ok;
}

bool TimeReports(uint16_t status_port, int count) {
  bool ok = true;
  for (int index = 0; index < count; ++index) {
    const ReportRead read = ReadReport(status_port);
    printf("report index=%d ok=%d bytes=%llu seconds=%.3f\n", index, read.ok ? 1 : 0,
           static_cast<unsigned long long>(read.bytes), read.seconds);
    ok = ok && read.ok;
  }
  return ok;
}

std::string KindName(uint32_t code) {
  switch (code) {
    case wire::kOpen:
      return "open";
    case wire::kClose:
      return "close";
    case wire::kLock:
      return "lock";
    case wire::kUnlock:
      return "unlock";
    case wire::kNoop:
      return "noop";
    default:
      return "code" + std::to_string(code);
  }
}

// The ports of --ports, or the one of --port.
std::vector<uint16_t> Ports(const Arguments& arguments) {
  std::vector<uint16_t> ports;
  const std::string list = arguments.Text("ports", arguments.Text("port", "0"));
  for (size_t start = 0; start <= list.size();) {
    const size_t comma = std::min(list.find(',', start), list.size());
    ports.push_back(static_cast<uint16_t>(std::atoi(list.substr(start, comma - start).c_str())));
    start = comma + 1;
  }
  return ports;
}

// The lock-protocol sessions of the workload: `clients` spread over the
// ports, each port's on files of its own.
std::vector<std::unique_ptr<Session>> WorkloadSessions(const Arguments& arguments,
                                                       Workload workload, uint32_t clients) {
  const std::vector<uint16_t> ports = Ports(arguments);
  const auto files = static_cast<uint32_t>(arguments.Number("files", 1));
  const auto first_file = static_cast<uint32_t>(arguments.Number("first-file", 0));
  std::vector<std::unique_ptr<Session>> sessions;
  for (size_t k = 0; k < ports.size(); ++k) {
    const auto share = static_cast<uint32_t>(clients / ports.size() + (k < clients % ports.size()));
    if (share == 0) continue;
    const LockPlan plan = {workload, files, 0, first_file + static_cast<uint32_t>(k) * files};
    auto some = MakeLockSessions(ports[k], plan, share);
    if (some.empty()) return {};
    for (auto& session : some) sessions.push_back(std::move(session));
  }
  return sessions;
}

bool RunWorkload(const Arguments& arguments, const ServerProcess& server) {
  const auto port = static_cast<uint16_t>(arguments.Number("port", 0));
  const auto clients = static_cast<uint32_t>(arguments.Number("clients", 64));
  const auto files = static_cast<uint32_t>(arguments.Number("files", 1));
  const std::string protocol = arguments.Text("protocol", "lock");
  const std::string workload = arguments.Text("workload", "noop");
  std::vector<std::unique_ptr<Session>> holders;
  if (arguments.Has("hold-opens")) {
    holders = WorkloadSessions(arguments, Workload::kHold, kPreloadSessions);
    if (holders.empty()) return false;
    RunLimits limits;
    limits.seconds = 0;
    if (RunClosedLoop(holders, limits).errors.Total() != 0) return false;
  }
  const auto sessions = protocol == "redis"
                            ? MakeRedisSessions(port, files, clients)
                            : WorkloadSessions(arguments, WorkloadNamed(workload), clients);
  if (sessions.empty()) {
    fprintf(stderr, "klv_loadgen: cannot open %u sessions to port %u\n", clients, port);
    return false;
  }
  RunLimits limits;
  limits.seconds = arguments.Number("seconds", 3);
  limits.warmup_seconds = arguments.Number("warmup", 0.5);
  ReportLoop reports(static_cast<uint16_t>(arguments.Number("status-port", 0)),
                     static_cast<int>(arguments.Number("reports", 0)));
  double cpu_start = 0;
  double cpu_end = 0;
  RunHooks hooks;
  hooks.on_start = [&] {
    cpu_start = server.CpuSeconds();
    if (arguments.Has("reports")) reports.Start();
  };
  hooks.on_end = [&] { cpu_end = server.CpuSeconds(); };
  const RunResult result = RunClosedLoop(sessions, limits, hooks);
  reports.Stop();
  const double requests = result.requests > 0 ? static_cast<double>(result.requests) : 1;
  printf(
      "result label=%s protocol=%s workload=%s clients=%u files=%u %s%s cpu_us_per_req=%.3f "
      "rss_mb=%.1f%s%s\n",
      arguments.Text("label", "-").c_str(), protocol.c_str(), workload.c_str(), clients, files,
      Summary(result).c_str(), KindSummary(result, KindName).c_str(),
      (cpu_end - cpu_start) * 1e6 / requests, Mebibytes(server.ResidentBytes()),
      arguments.Has("reports") ? " " : "",
      arguments.Has("reports") ? reports.Summary().c_str() : "");
  return result.requests > 0 && result.errors.Total() == 0;
}

int Main(int argc, char** argv) {
  const Arguments arguments(argc, argv);
  const uint16_t port = Ports(arguments).front();
  const ServerProcess server(static_cast<pid_t>(arguments.Number("pid", 0)));
  const auto locks = static_cast<uint64_t>(arguments.Number("preload", 0));
  const auto preload_files =
      static_cast<uint32_t>(arguments.Number("preload-files", arguments.Number("files", 1)));
  if (port == 0) {
    fprintf(stderr, "Usage: klv_loadgen --port=P [options]; see the head of load_generator.cc\n");
    return 2;
  }
  bool ok = true;
  if (arguments.Has("memory")) {
    const int quiet_ms = static_cast<int>(arguments.Number("quiet-ms", 2000));
    return MeasureMemory(port, locks, preload_files, quiet_ms, server) ? 0 : 1;
  }
  if (locks > 0) {
    const auto sessions = PreloadSessions(port);
    ok = !sessions.empty() &&
         RunPlan(sessions, {Workload::kPreload, preload_files, locks}, "preload", server);
  }
  if (arguments.Has("report-once")) {
    ok = ok && TimeReports(static_cast<uint16_t>(arguments.Number("status-port", 0)),
                           static_cast<int>(arguments.Number("report-once", 1)));
  }
  if (ok && arguments.Text("workload", "none") != "none") ok = RunWorkload(arguments, server);
  return ok ? 0 : 1;
}

}  // namespace

}  // namespace klv::bench

int main(int argc, char** argv) { return klv::bench::Main(argc, argv); }
