#ifndef KLV_CLUSTER_CLUSTER_NODE_H_
#define KLV_CLUSTER_CLUSTER_NODE_H_

#include <sys/select.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "cluster/cluster_config.h"
#include "cluster/store.h"
#include "lockservice/cluster_seam.h"

namespace klv::cluster {

// This node's part in the cluster: its registration under a lease kept
// alive, the local deadline after which it must stop deciding, the holdings
// it has written per file, the other nodes' holdings as the watch reports
// them (and those of dead nodes for the fence delay), and the writes that
// the lock service asks for. Driven from the event loop like the store.
class ClusterNode : public ClusterSeam {
 public:
  // Milliseconds on a clock that keeps running while the process is stopped.
  using Clock = std::function<int64_t()>;
  // Called once when the node fences itself; the daemon exits in it.
  using FenceHandler = std::function<void(const std::string& why)>;

  // The store and the clock are the caller's; the store outlives the node.
  ClusterNode(const ClusterConfig& config, Store* store, Clock clock);
  ClusterNode(const ClusterNode&) = delete;
  ClusterNode& operator=(const ClusterNode&) = delete;

  // The default clock: CLOCK_BOOTTIME in milliseconds.
  static int64_t BootClockMs();

  // Grants the lease, creates the node's key (which must not exist), reads
  // the cluster and starts the watch; then `done` gets an empty text, or
  // one sentence that says why the node could not register.
  void Register(std::function<void(const std::string& error)> done);
  void SetFenceHandler(FenceHandler handler) { on_fence_ = std::move(handler); }
  bool Fenced() const { return fenced_; }
  const std::string& NodeKey() const { return node_key_; }

  // The loop's side, as for a Store.
  void AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd);
  long TimeoutMs();
  // Fences the node once its deadline has passed. Called before any
  // decision after a wait, since the process may have been stopped.
  void CheckDeadline();
  // CheckDeadline, then the store's transfers, keep-alives and timers.
  void Perform();

  // ClusterSeam
  void SetHoldingsSource(HoldingsOf holdings_of) override { holdings_of_ = std::move(holdings_of); }
  bool Settled(const FileKey& file, int share_class) const override;
  bool Holds(const FileKey& file, const FileHoldings& holdings) const override;
  void Publish(const FileKey& file, const FileHoldings& wanted, Decided decided) override;
  void WhenStoreAnswers(std::function<void()> action) override;
  void After(int64_t ms, std::function<void()> action) override;
  int64_t DeferMs() const override { return config_.defer_ms; }

  // The value of a summary key, and back; false for a value of another form.
  static std::string EncodeHoldings(const FileHoldings& holdings);
  static bool DecodeHoldings(const std::string& value, FileHoldings* holdings);
  // True when a part of `wanted` conflicts with `other`.
  static bool Conflicts(const FileHoldings& wanted, const FileHoldings& other);

 private:
  struct Write;
  struct FileState {
    FileHoldings published;  // as this node's last write left it in the store
    int writes = 0;          // under way
  };
  struct DeadHoldings {
    std::string node;
    FileHoldings holdings;
    int64_t until_ms = 0;
  };

  std::string FileBase(const FileKey& file) const;
  void Attempt(const std::shared_ptr<Write>& write);
  void Commit(const std::shared_ptr<Write>& write, int64_t guard_revision);
  void Retry(const std::shared_ptr<Write>& write);
  void Finish(const std::shared_ptr<Write>& write, Verdict verdict);
  void SendKeepAlive();
  void StoreAnswered();
  void Fence(const std::string& why);
  // False, after fencing, once the deadline has passed.
  bool Alive();
  void ReadAndWatch(std::function<void(const std::string& error)> done);
  void OnWatch(const WatchReport& report);
  // The summaries of `node` are held for the fence delay from now.
  void NodeDied(const std::string& node);
  // The node named by a summary key, or empty for another key.
  std::string SummaryNode(const std::string& key) const;

  ClusterConfig config_;
  Store* store_;
  Clock clock_;
  FenceHandler on_fence_;
  HoldingsOf holdings_of_;
  std::string prefix_, node_key_;
  int64_t lease_ = 0;
  int64_t registration_ = 0;  // the create revision of the node's key
  int64_t deadline_ms_ = 0;
  int64_t next_keep_alive_ms_ = 0;
  bool registered_ = false;
  bool fenced_ = false;
  std::unordered_map<uint64_t, FileState> files_;
  std::multimap<int64_t, std::function<void()>> timers_;
  std::vector<std::function<void()>> on_answer_;
  std::map<std::string, std::string> summaries_;           // other nodes' summary keys, as watched
  std::set<std::string> nodes_;                            // registered nodes, as watched
  std::map<std::string, std::vector<DeadHoldings>> dead_;  // by file base key
};

}  // namespace klv::cluster

#endif  // KLV_CLUSTER_CLUSTER_NODE_H_
