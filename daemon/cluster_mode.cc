#include "daemon/cluster_mode.h"

#include <cstdlib>

#include "cluster/cluster_config.h"
#include "cluster/cluster_node.h"
#include "cluster/etcd_store.h"
#include "daemon/event_log.h"
#include "foundation/output_stream.h"
#include "lockservice/lock_manager_daemon.h"

namespace klv {

namespace {

// Registration at start may take this long before the start fails.
constexpr int64_t kRegisterMs = 10000;
// At an orderly stop the store has this long to end the lease.
constexpr int64_t kLeaveMs = 1000;

}  // namespace

struct ClusterMode::Parts {
  cluster::ClusterConfig config;
  std::unique_ptr<cluster::EtcdStore> store;
  std::unique_ptr<cluster::ClusterNode> node;
};

ClusterMode::ClusterMode() : parts_(std::make_unique<Parts>()) {}
ClusterMode::~ClusterMode() = default;

std::unique_ptr<ClusterMode> ClusterMode::FromEnvironment(std::string* error) {
  const char* path = getenv("KLVLOCKD_CLUSTER");
  if (path == nullptr) return nullptr;
  std::unique_ptr<ClusterMode> mode(new ClusterMode());
  if (!cluster::ReadClusterConfig(path, &mode->parts_->config, error)) return nullptr;
  return mode;
}

bool ClusterMode::Register(std::string* error) {
  Parts& parts = *parts_;
  parts.store = std::make_unique<cluster::EtcdStore>(parts.config.endpoints);
  parts.node = std::make_unique<cluster::ClusterNode>(parts.config, parts.store.get(),
                                                      &cluster::ClusterNode::BootClockMs);
  bool finished = false;
  parts.node->Register([&](const std::string& failure) {
    finished = true;
    *error = failure;
  });
  ServeStoreUntil(&finished, kRegisterMs);
  if (!finished) *error = "etcd did not answer at " + parts.config.endpoints.front();
  return finished && error->empty();
}

void ClusterMode::Leave() {
  bool finished = false;
  parts_->node->Leave([&finished] { finished = true; });
  ServeStoreUntil(&finished, kLeaveMs);
}

void ClusterMode::ServeStoreUntil(const bool* finished, int64_t ms) {
  const int64_t give_up = cluster::ClusterNode::BootClockMs() + ms;
  while (!*finished && cluster::ClusterNode::BootClockMs() < give_up) {
    fd_set readable, writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    int max_fd = -1;
    parts_->store->AddDescriptors(&readable, &writable, &max_fd);
    const long store_ms = parts_->store->TimeoutMs();
    timeval wait = {0, 100000};
    if (store_ms >= 0 && store_ms < 100) wait.tv_usec = store_ms * 1000;
    select(max_fd + 1, &readable, &writable, nullptr, &wait);
    parts_->store->Perform();
  }
}

void ClusterMode::Attach(LockManagerDaemon* daemon) {
  daemon->SetCluster(parts_->node.get());
  parts_->node->SetFenceHandler([daemon](const std::string& why) {
    daemon->RefuseHeldRequests();
    TextBuilder message;
    message << "This node has lost the cluster: " << why.c_str()
            << ".\nIt decides no further lock; the file server on this node must stop with it.";
    daemon->Log().Error("locking/cluster/fenced", message, Severity::kRecoverable);
    daemon->Log().WriteStopEventAndClose();
    exit(kFencedStatus);
  });
}

void ClusterMode::AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) {
  parts_->node->AddDescriptors(readable, writable, max_fd);
}
long ClusterMode::TimeoutMs() { return parts_->node->TimeoutMs(); }
void ClusterMode::CheckDeadline() { parts_->node->CheckDeadline(); }
void ClusterMode::Perform() { parts_->node->Perform(); }

}  // namespace klv
