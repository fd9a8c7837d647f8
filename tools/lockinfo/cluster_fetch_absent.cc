// lockinfo built without the cluster store (libcurl and nlohmann-json were
// missing): --cluster says so.
#include "tools/lockinfo/cluster_fetch.h"

namespace klv {

bool ClusterSupported() { return false; }

FetchStatus FetchCluster(const cluster::ClusterConfig&, int, const volatile sig_atomic_t*,
                         ClusterView*, std::string* failure) {
  *failure = "lockinfo was built without the cluster store";
  return FetchStatus::kNoContact;
}

}  // namespace klv
