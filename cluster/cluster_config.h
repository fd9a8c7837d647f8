#ifndef KLV_CLUSTER_CLUSTER_CONFIG_H_
#define KLV_CLUSTER_CLUSTER_CONFIG_H_

#include <string>
#include <vector>

namespace klv::cluster {

// The cluster setting of one node, read from the file that KLVLOCKD_CLUSTER
// names. The file holds `key = value` lines; `#` starts a comment, blank
// lines are skipped, and each key may appear once:
//
//   endpoints = http://10.0.0.1:2379, http://10.0.0.2:2379   # required
//   cluster = sales                                         # required
//   node = fs1          # default: the host name
//   lease_ttl = 10      # seconds
//   fence_delay = 5     # seconds
//   defer_ms = 500      # milliseconds
struct ClusterConfig {
  std::vector<std::string> endpoints;  // "http://host:port", in the order to try them
  std::string cluster;                 // the name that prefixes every key
  std::string node;                    // unique in the cluster
  int lease_ttl_s = 10;
  int fence_delay_s = 5;
  int defer_ms = 500;
};

// Reads the configuration file at `path` into `*config`. False when the file
// cannot be read or holds an unknown key, a repeated key, a bad value or no
// endpoints or cluster; then `*error` is one sentence that says why.
[[nodiscard]] bool ReadClusterConfig(const std::string& path, ClusterConfig* config,
                                     std::string* error);

// The same for the file's text; `origin` names it in the error text.
[[nodiscard]] bool ParseClusterConfig(const std::string& text, const std::string& origin,
                                      ClusterConfig* config, std::string* error);

}  // namespace klv::cluster

#endif  // KLV_CLUSTER_CLUSTER_CONFIG_H_
