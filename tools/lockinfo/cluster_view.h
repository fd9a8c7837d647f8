#ifndef KLV_TOOLS_LOCKINFO_CLUSTER_VIEW_H_
#define KLV_TOOLS_LOCKINFO_CLUSTER_VIEW_H_

#include <cstdint>
#include <string>
#include <vector>

#include "cluster/store.h"

namespace klv {

// What the cluster's keys in etcd say: the registered nodes and, per file,
// what each node holds there.

struct ClusterNode {
  std::string name;
  std::string registration;  // the value of the node's key, as stored
  int64_t lease = 0;
  int64_t lease_left_s = -1;  // -1: the lease has ended, or its time is unknown
};

struct ClusterRange {
  uint64_t offset = 0, length = 0;
  bool exclusive = false;
};

// One node's summary of one file. A value that does not read as a summary is
// kept as it is in `undecoded`.
struct ClusterHolding {
  std::string node;
  std::vector<int> classes;  // share indices, 0 to 14
  std::vector<ClusterRange> ranges;
  bool decoded = true;
  std::string undecoded;
};

struct ClusterFile {
  uint32_t key_hi = 0, key_lo = 0;
  std::vector<ClusterHolding> holdings;  // in node order
};

struct ClusterView {
  std::string cluster;
  int64_t revision = 0;            // the store's revision that the read saw
  std::vector<ClusterNode> nodes;  // in name order
  std::vector<ClusterFile> files;  // in file identity order
};

// The prefix of every key of cluster `cluster`: "/klvlockd/<cluster>/".
std::string ClusterPrefix(const std::string& cluster);

// Reads the keys of one range read of ClusterPrefix(cluster) into a view.
// Keys of another shape are passed over.
ClusterView ReadClusterView(const std::string& cluster, const cluster::RangeResult& read);

// Reads a summary value: the share classes as a bit set in up to four hex
// digits (bit i for share index i), then per byte range a blank and
// "OFFSET:LENGTH:x" (exclusive) or "OFFSET:LENGTH:s" (shared), in the node's
// grant order. False when it is not of that form.
bool DecodeSummary(const std::string& value, ClusterHolding* holding);

// The view as text: the nodes with their lease time left and registration,
// then per file each node's classes and ranges. Names and values are escaped
// as the report's names are.
std::string ClusterText(const ClusterView& view);

// The view as one JSON object, ending with a newline:
//   {"cluster", "revision", "nodes": [{"name", "lease" (in hex), "lease_left",
//    "registration"}...], "files": [{"key_hi", "key_lo", "holdings": [{"node",
//    "classes": [...], "ranges": [{"offset", "length", "type"}...]}...]}...]}
// A holding that does not decode has "summary" with the stored value instead.
std::string ClusterJson(const ClusterView& view);

}  // namespace klv

#endif  // KLV_TOOLS_LOCKINFO_CLUSTER_VIEW_H_
