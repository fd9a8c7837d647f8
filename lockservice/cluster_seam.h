#ifndef KLV_LOCKSERVICE_CLUSTER_SEAM_H_
#define KLV_LOCKSERVICE_CLUSTER_SEAM_H_

#include <cstdint>
#include <functional>
#include <vector>

#include "lockservice/file_entry.h"

namespace klv {

// One byte range as the other nodes see it.
struct HeldRange {
  uint32_t offset = 0;
  uint32_t length = 0;
  bool shared = false;
  bool operator==(const HeldRange&) const = default;
};

// What one node holds of one file: bit i of `classes` for an open of share
// class i (ShareIndex), and its byte ranges in grant order.
struct FileHoldings {
  uint32_t classes = 0;
  std::vector<HeldRange> ranges;
  bool Empty() const { return classes == 0 && ranges.empty(); }
  bool operator==(const FileHoldings&) const = default;
};

// What the lock service asks of the cluster in cluster mode; standalone the
// daemon has none and never reaches any of this. Every call returns at once;
// answers come later from the event loop.
class ClusterSeam {
 public:
  enum class Verdict {
    kGranted,   // the store holds this node's holdings with the wanted part
    kConflict,  // another node (alive, or dead within its fence delay) holds a conflicting part
  };
  using Decided = std::function<void(Verdict)>;
  using HoldingsOf = std::function<FileHoldings(const FileKey&)>;

  virtual ~ClusterSeam() = default;

  // Where the cluster reads what this node holds of a file now.
  virtual void SetHoldingsSource(HoldingsOf holdings_of) = 0;
  // True when the store holds share class `share_class` for this node on
  // `file` and no write of the file is under way: an open of that class
  // needs no other node.
  virtual bool Settled(const FileKey& file, int share_class) const = 0;
  // True when the store holds exactly `holdings` as this node's holdings of
  // `file` and no write of the file is under way: a release that leaves them
  // so needs no write.
  virtual bool Holds(const FileKey& file, const FileHoldings& holdings) const = 0;
  // Writes this node's holdings of `file` with `wanted` added, unless a part
  // of `wanted` conflicts with another node's holdings in a fresh read.
  // With nothing wanted, the holdings are written as they are (a release).
  // Retried until the store answers; `decided` is never called once the
  // node has fenced itself.
  virtual void Publish(const FileKey& file, const FileHoldings& wanted, Decided decided) = 0;
  // Runs `action` once, at the next answer of the store.
  virtual void WhenStoreAnswers(std::function<void()> action) = 0;
  // Runs `action` once after `ms` milliseconds.
  virtual void After(int64_t ms, std::function<void()> action) = 0;
  // How long a request may be held for the store, in milliseconds.
  virtual int64_t DeferMs() const = 0;
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_CLUSTER_SEAM_H_
