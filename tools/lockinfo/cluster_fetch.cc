#include "tools/lockinfo/cluster_fetch.h"

#include <string>

#include "cluster/etcd_store.h"

namespace klv {

namespace {

// Runs the loop until no call is in flight or a stop is requested; false on
// a stop. The store's own time-outs end every call.
bool RunUntilIdle(cluster::EtcdStore* store, const volatile sig_atomic_t* stop) {
  while (store->CallsInFlight() > 0) {
    if (*stop != 0) return false;
    // At most 100 ms, so that a stop signal is seen soon.
    cluster::RunStoreOnce(store, 100);
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
