#include "tools/lockinfo/cluster_fetch.h"

#include <sys/select.h>

#include <algorithm>
#include <string>

#include "cluster/etcd_store.h"

namespace klv {

namespace {

// One pass of the select loop that drives the store, waiting at most 100 ms
// so that a stop signal is seen soon.
void RunOnce(cluster::Store* store) {
  fd_set readable, writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  int max_fd = -1;
  store->AddDescriptors(&readable, &writable, &max_fd);
  const long store_ms = store->TimeoutMs();
  const long wait_ms = store_ms < 0 ? 100 : std::min(store_ms, 100L);
  timeval timeout = {wait_ms / 1000, (wait_ms % 1000) * 1000};
  select(max_fd + 1, &readable, &writable, nullptr, &timeout);
  store->Perform();
}

// Runs the loop until no call is in flight or a stop is requested; false on
// a stop. The store's own time-outs end every call.
bool RunUntilIdle(cluster::EtcdStore* store, const volatile sig_atomic_t* stop) {
  while (store->CallsInFlight() > 0) {
    if (*stop != 0) return false;
    RunOnce(store);
  }
  return true;
}

}  // namespace

bool ClusterSupported() { return true; }

FetchStatus FetchCluster(const cluster::ClusterConfig& config, int timeout_ms,
                         const volatile sig_atomic_t* stop, ClusterView* view,
                         std::string* failure) {
  cluster::EtcdStore::Options options;
  options.connect_timeout_ms = timeout_ms;
  options.request_timeout_ms = timeout_ms;
  cluster::EtcdStore store(config.endpoints, options);
  const std::string prefix = ClusterPrefix(config.cluster);
  cluster::StoreResult outcome;
  store.Range(prefix, cluster::PrefixEnd(prefix),
              [&](const cluster::StoreResult& result, const cluster::RangeResult& read) {
                outcome = result;
                if (result.Done()) *view = ReadClusterView(config.cluster, read);
              });
  if (!RunUntilIdle(&store, stop)) return FetchStatus::kInterrupted;
  if (!outcome.Done()) {
    *failure = outcome.failure;
    return outcome.status == cluster::StoreStatus::kUnreachable ? FetchStatus::kNoContact
                                                                : FetchStatus::kReadFailed;
  }
  for (ClusterNode& node : view->nodes) {
    if (node.lease == 0) continue;
    store.TimeToLive(
        node.lease, [&node](const cluster::StoreResult& result, const cluster::LeaseResult& lease) {
          if (result.Done()) node.lease_left_s = lease.ttl_s;
        });
  }
  return RunUntilIdle(&store, stop) ? FetchStatus::kDone : FetchStatus::kInterrupted;
}

}  // namespace klv
