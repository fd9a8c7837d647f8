// The cost of one store transaction as the lock service will make it: a
// compare of the node's registration and a put of a file summary bound to the
// node's lease, driven from a select loop with a fixed number in flight.
// Prints transactions per second, the latency p50/p99 and the CPU time per
// transaction of this client and of etcd (KLV_ETCD_PID) for each number in
// flight. Runs against the etcd in KLV_ETCD_ENDPOINT, so:
//   tests/cluster/with_etcd.sh build/release/bench/klv_store_ops [seconds] [in-flight...]
// (default 5 seconds at 1 and at 64 in flight).
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "bench/server_process.h"
#include "cluster/etcd_store.h"

namespace klv::cluster {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kPrefix = "/klvlockd/bench";
const std::string kNodeKey = kPrefix + "/nodes/n1";

// Runs the loop until `*done`, for up to 10 s. False on a timeout.
bool RunUntil(Store* store, const bool* done) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (!*done && Clock::now() < deadline) RunStoreOnce(store, 100);
  return *done;
}

struct Node {
  int64_t lease = 0;
  int64_t registration = 0;  // the create revision of the node's key
};

// Grants the lease and registers the node under it, as a node's start will.
bool Register(Store* store, Node* node) {
  bool done = false;
  store->GrantLease(10, [&](const StoreResult& result, const LeaseResult& lease) {
    if (!result.Done()) fprintf(stderr, "lease grant: %s\n", result.failure.c_str());
    node->lease = lease.id;
    done = true;
  });
  if (!RunUntil(store, &done) || node->lease == 0) return false;
  done = false;
  store->Commit({{}, {Operation::Put(kNodeKey, "bench", node->lease)}, {}},
                [&](const StoreResult& result, const TransactionResult& reply) {
                  if (!result.Done()) fprintf(stderr, "register: %s\n", result.failure.c_str());
                  node->registration = reply.revision;
                  done = true;
                });
  return RunUntil(store, &done) && node->registration != 0;
}

// This process's user and system time in seconds.
double OwnCpuSeconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Figures {
  size_t transactions = 0, failures = 0;
  std::string first_failure;
  double seconds = 0, client_cpu_seconds = 0, etcd_cpu_seconds = 0;
  std::vector<double> latencies_ms;
};

// Keeps `in_flight` transactions going for `seconds`, each on one of 1000
// file keys in turn.
Figures Measure(Store* store, const Node& node, int in_flight, double seconds,
                const bench::ServerProcess& etcd) {
  Figures figures;
  const double client_cpu = OwnCpuSeconds(), etcd_cpu = etcd.CpuSeconds();
  int running = 0;
  size_t next_file = 0;
  const Clock::time_point start = Clock::now();
  const Clock::time_point stop =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  const std::function<void()> launch = [&] {
    const std::string file = kPrefix + "/files/" + std::to_string(next_file++ % 1000) + ":0/n1";
    const Clock::time_point sent = Clock::now();
    ++running;
    store->Commit({{Compare::CreateRevisionIs(kNodeKey, node.registration)},
                   {Operation::Put(file, "classes=R.N ranges=0+100", node.lease)},
                   {}},
                  [&, sent](const StoreResult& result, const TransactionResult& reply) {
                    --running;
                    const bool good = result.Done() && reply.succeeded;
                    figures.failures += good ? 0 : 1;
                    if (!good && figures.first_failure.empty()) {
                      figures.first_failure = result.Done() ? "compare failed" : result.failure;
                    }
                    figures.transactions += good ? 1 : 0;
                    figures.latencies_ms.push_back(
                        std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
                    if (Clock::now() < stop) launch();
                  });
  };
  for (int i = 0; i < in_flight; ++i) launch();
  // The node's lease must outlive every run, as the daemon's will.
  Clock::time_point renew = start;
  while (running > 0) {
    if (Clock::now() >= renew) {
      store->KeepAlive(node.lease, [](const StoreResult&, const LeaseResult&) {});
      renew += std::chrono::seconds(2);
    }
    RunStoreOnce(store, 100);
  }
  figures.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  figures.client_cpu_seconds = OwnCpuSeconds() - client_cpu;
  figures.etcd_cpu_seconds = etcd.CpuSeconds() - etcd_cpu;
  return figures;
}

double Percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(fraction * values.size()))];
}

}  // namespace
}  // namespace klv::cluster

int main(int argc, char** argv) {
  using namespace klv::cluster;
  const char* endpoint = getenv("KLV_ETCD_ENDPOINT");
  if (endpoint == nullptr) {
    fprintf(stderr, "KLV_ETCD_ENDPOINT is not set: run under tests/cluster/with_etcd.sh\n");
    return 2;
  }
  const double seconds = argc > 1 ? atof(argv[1]) : 5;
  std::vector<int> levels;
  for (int i = 2; i < argc; ++i) levels.push_back(atoi(argv[i]));
  if (levels.empty()) levels = {1, 64};

  const char* etcd_pid = getenv("KLV_ETCD_PID");
  const klv::bench::ServerProcess etcd(etcd_pid != nullptr ? atoi(etcd_pid) : 0);
  EtcdStore store({endpoint});
  Node node;
  if (!Register(&store, &node)) return 1;
  for (const int in_flight : levels) {
    const Figures figures = Measure(&store, node, in_flight, seconds, etcd);
    const double count = static_cast<double>(std::max<size_t>(1, figures.transactions));
    printf(
        "in flight %3d: %7zu txn in %.1f s: %6.0f txn/s, latency p50 %.2f ms, p99 %.2f ms, "
        "CPU per txn: client %.0f us, etcd %.0f us",
        in_flight, figures.transactions, figures.seconds, figures.transactions / figures.seconds,
        Percentile(figures.latencies_ms, 0.50), Percentile(figures.latencies_ms, 0.99),
        figures.client_cpu_seconds / count * 1e6, figures.etcd_cpu_seconds / count * 1e6);
    if (figures.failures > 0) {
      printf(", %zu failed, the first: %s", figures.failures, figures.first_failure.c_str());
    }
    printf("\n");
  }
  return 0;
}
