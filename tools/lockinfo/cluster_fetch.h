#ifndef KLV_TOOLS_LOCKINFO_CLUSTER_FETCH_H_
#define KLV_TOOLS_LOCKINFO_CLUSTER_FETCH_H_

#include <csignal>
#include <string>

#include "cluster/cluster_config.h"
#include "tools/lockinfo/cluster_view.h"
#include "tools/lockinfo/report_fetch.h"

namespace klv {

// Reads every key of the cluster of `config` from its etcd endpoints in one
// range read, then the time left of each registered node's lease, into
// `*view`. Each call to etcd may take `timeout_ms` in all. Answers
// kNoContact when no endpoint took the read, kReadFailed when etcd did not
// answer it or refused it, with `*failure` saying why, and kInterrupted when
// a signal set *stop. A lease whose time cannot be read is shown as ended.
// False when lockinfo was built without the cluster store; --cluster is then
// refused.
bool ClusterSupported();

FetchStatus FetchCluster(const cluster::ClusterConfig& config, int timeout_ms,
                         const volatile sig_atomic_t* stop, ClusterView* view,
                         std::string* failure);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_CLUSTER_FETCH_H_
