// A daemon built without the cluster's libraries refuses the cluster setting.
#include <cstdlib>

#include "daemon/cluster_mode.h"

namespace klv {

struct ClusterMode::Parts {};

ClusterMode::ClusterMode() = default;
ClusterMode::~ClusterMode() = default;

std::unique_ptr<ClusterMode> ClusterMode::FromEnvironment(std::string* error) {
  if (getenv("KLVLOCKD_CLUSTER") != nullptr) {
    *error = "KLVLOCKD_CLUSTER is set, but this klvlockd was built without cluster support.";
  }
  return nullptr;
}

bool ClusterMode::Register(std::string*) { return false; }
void ClusterMode::Attach(LockManagerDaemon*) {}
void ClusterMode::Leave() {}
void ClusterMode::AddDescriptors(fd_set*, fd_set*, int*) {}
long ClusterMode::TimeoutMs() { return -1; }
void ClusterMode::CheckDeadline() {}
void ClusterMode::Perform() {}

}  // namespace klv
