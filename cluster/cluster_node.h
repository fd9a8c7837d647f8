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
  // Ends the node's lease, so that the others count it dead at once rather
  // than when the lease runs out; `done` runs when the store has answered.
  void Leave(std::function<void()> done);
  bool Fenced() const { return fenced_; }
  const std::string& NodeKey() const { return node_key_; }

  // The loop's side, as for a Store. The releases asked for since the last
  // pass go out together, in as few transactions as fit, when the loop asks
  // for the descriptors to wait on (and at the start of Perform).
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
    FileHoldings published;       // as this node's last write left it in the store
    int64_t published_revision = 0;  // the store's revision after that write
    int writes = 0;               // under way
  };
  // What the other nodes hold of one file, as the watch, this node's reads
  // and its own writes report it. It may lag behind the store: a grant
  // decided on it compares the guard revision it holds.
  struct FileView {
    int64_t guard_revision = 0;  // the guard key's mod revision; 0: no guard
    int64_t revision = 0;        // the newest revision applied to the view
    int64_t read_revision = 0;   // the newest read; older watch events are in it
    std::map<std::string, FileHoldings> others;  // by node
  };
  struct DeadHoldings {
    std::string node;
    FileHoldings holdings;
    int64_t until_ms = 0;
  };

  std::string FileBase(const FileKey& file) const;
  // Splits a key of a file into its base and the node of a summary (empty
  // for the guard); false for another key.
  bool SplitFileKey(const std::string& key, std::string* base, std::string* node) const;
  void Attempt(const std::shared_ptr<Write>& write);
  void ReadFresh(const std::shared_ptr<Write>& write);
  void Reconsider(const std::shared_ptr<Write>& write, const std::vector<KeyValue>& file_keys,
                  const std::vector<KeyValue>& node_keys, int64_t revision);
  void Commit(const std::shared_ptr<Write>& write, int64_t guard_revision);
  void SendReleases();
  void Released(const std::vector<std::shared_ptr<Write>>& batch, int64_t revision,
                const std::map<uint64_t, FileHoldings>& written);
  void Retry(const std::shared_ptr<Write>& write);
  void Finish(const std::shared_ptr<Write>& write, Verdict verdict);
  // Records `holdings` as published by a write that left the store at `revision`,
  // unless a later write of the file has already been recorded.
  void Published(const FileKey& file, const FileHoldings& holdings, int64_t revision);
  // True when `wanted` conflicts with a node that died less than the fence
  // delay ago; forgets the holdings whose delay is over.
  bool ConflictsWithDead(const std::string& base, const FileHoldings& wanted);
  void SendKeepAlive();
  void StoreAnswered();
  void Fence(const std::string& why);
  // False, after fencing, once the deadline has passed.
  bool Alive();
  void ReadAndWatch(std::function<void(const std::string& error)> done);
  void OnWatch(const WatchReport& report);
  // Nodes that the watch counted and `registered` lacks have died.
  void CountNodes(const std::set<std::string>& registered);
  // The summaries of `node` are held for the fence delay from now.
  void NodeDied(const std::string& node);

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
  std::vector<std::shared_ptr<Write>> releases_;  // sent together before the next wait
  std::unordered_map<std::string, FileView> views_;  // by file base key
  std::set<std::string> nodes_;                      // registered nodes, as watched
  std::map<std::string, std::vector<DeadHoldings>> dead_;  // by file base key
};

}  // namespace klv::cluster

#endif  // KLV_CLUSTER_CLUSTER_NODE_H_
