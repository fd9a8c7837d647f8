#ifndef KLV_CLUSTER_MEMORY_STORE_H_
#define KLV_CLUSTER_MEMORY_STORE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "cluster/store.h"

namespace klv::cluster {

// The contents of an in-memory store: keys, revisions, leases and the change
// history that watches replay, with a clock that the test moves. Several
// MemoryStores (one per node under test) may share one MemoryData.
class MemoryData {
 public:
  MemoryData() = default;
  MemoryData(const MemoryData&) = delete;
  MemoryData& operator=(const MemoryData&) = delete;

  int64_t Revision() const { return revision_; }
  int64_t NowMs() const { return now_ms_; }
  // Moves the clock on by `ms`; a lease whose time has run out ends, and its
  // keys are deleted in one revision.
  void AdvanceTime(int64_t ms);
  // Forgets the history before `revision`: a watch from an earlier revision
  // is told kCompacted.
  void Compact(int64_t revision);
  // Every key, in key order.
  const std::map<std::string, KeyValue>& Keys() const { return keys_; }

  // What a MemoryStore asks; each acts at once. Runs `transaction`; false,
  // with nothing changed, when a put names a lease that does not exist.
  bool Apply(const Transaction& transaction, TransactionResult* result, std::string* failure);
  RangeResult Read(const std::string& key, const std::string& range_end) const;
  LeaseResult Grant(int64_t ttl_s);
  // The lease renewed, or with ttl_s 0 when it has ended.
  LeaseResult Renew(int64_t id);
  bool Revoke(int64_t id);
  // The changes of keys under `prefix` from `from_revision` on. False, with
  // the oldest kept revision in `*compact_revision`, when that is later.
  bool ChangesSince(const std::string& prefix, int64_t from_revision,
                    std::vector<WatchEvent>* events, int64_t* compact_revision) const;

 private:
  struct Lease {
    int64_t ttl_s, deadline_ms;
  };
  void Put(const Operation& put);
  int64_t Delete(const std::string& key, const std::string& range_end);
  bool Holds(const Compare& compare) const;
  void EndLease(int64_t id);

  std::map<std::string, KeyValue> keys_;
  std::map<int64_t, Lease> leases_;
  std::vector<WatchEvent> history_;  // each event's kv.mod_revision is its revision
  int64_t revision_ = 1, compacted_ = 0, now_ms_ = 0, next_lease_ = 0x1000;
  bool wrote_ = false;  // the transaction being applied has changed a key
};

// A store over a MemoryData, for tests: calls are applied and answered at
// the next Perform() that finds them due on the data's clock, each after the
// delays and with the outcome that the test injected.
class MemoryStore : public Store {
 public:
  struct Fault {
    enum class Kind {
      kNone,
      kUnreachable,  // not applied; answered kUnreachable
      kLoseReply,    // applied; answered kLost
      kRefuse,       // not applied; answered kRefused
    };
    Kind kind = Kind::kNone;
    int64_t delay_ms = 0;        // before the call is applied
    int64_t reply_delay_ms = 0;  // after it is applied, before its answer
  };

  explicit MemoryStore(MemoryData* data) : data_(data) {}
  MemoryStore(const MemoryStore&) = delete;
  MemoryStore& operator=(const MemoryStore&) = delete;

  // The faults of the next calls, one per call in order of the calls.
  void InjectFaults(const std::vector<Fault>& faults);
  // The fault of every call once the injected ones are used up.
  void SetStandingFault(const Fault& fault) { standing_fault_ = fault; }
  // Ends the watch: its handler is told kLost at the next Perform().
  void LoseWatch() { watch_lost_ = true; }
  size_t CallsInFlight() const { return pending_.size(); }

  void Commit(const Transaction& transaction, TransactionDone done) override;
  void Range(const std::string& key, const std::string& range_end, RangeDone done) override;
  void GrantLease(int64_t ttl_s, LeaseDone done) override;
  void KeepAlive(int64_t id, LeaseDone done) override;
  void RevokeLease(int64_t id, Done done) override;
  void Watch(const std::string& prefix, int64_t start_revision, WatchHandler handler) override;
  void CancelWatch() override { watch_handler_ = nullptr; }

  void AddDescriptors(fd_set*, fd_set*, int*) override {}
  long TimeoutMs() override;
  void Perform() override;

 private:
  // Applies a call unless `outcome` says it was not applied, and returns
  // its answer, to be run when the answer is due.
  using Apply = std::function<std::function<void()>(StoreResult outcome)>;
  void Schedule(Apply apply);
  void At(int64_t due_ms, std::function<void()> action);
  void DeliverWatch();

  MemoryData* data_;
  std::vector<Fault> faults_;  // injected, next first
  Fault standing_fault_;
  std::multimap<int64_t, std::function<void()>> pending_;  // by due time, then order
  WatchHandler watch_handler_;
  std::string watch_prefix_;
  int64_t watch_next_ = 0;  // the first revision not yet reported
  bool watch_lost_ = false;
};

}  // namespace klv::cluster

#endif  // KLV_CLUSTER_MEMORY_STORE_H_
