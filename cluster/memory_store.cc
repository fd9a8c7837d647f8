#include "cluster/memory_store.h"

#include <algorithm>
#include <utility>

namespace klv::cluster {
namespace {

bool InRange(const std::string& key, const std::string& begin, const std::string& end) {
  return end.empty() ? key == begin : key >= begin && (end == std::string(1, '\0') || key < end);
}

template <typename Number>
bool Relates(Compare::Relation relation, const Number& left, const Number& right) {
  switch (relation) {
    case Compare::Relation::kEqual:
      return left == right;
    case Compare::Relation::kNotEqual:
      return left != right;
    case Compare::Relation::kLess:
      return left < right;
    case Compare::Relation::kGreater:
      return left > right;
  }
  return false;
}

}  // namespace

void MemoryData::AdvanceTime(int64_t ms) {
  now_ms_ += ms;
  std::vector<int64_t> ended;
  for (const auto& [id, lease] : leases_) {
    if (lease.deadline_ms <= now_ms_) ended.push_back(id);
  }
  for (const int64_t id : ended) EndLease(id);
}

void MemoryData::Compact(int64_t revision) {
  compacted_ = std::max(compacted_, std::min(revision, revision_));
  std::erase_if(history_,
                [&](const WatchEvent& event) { return event.kv.mod_revision < compacted_; });
}

bool MemoryData::Apply(const Transaction& transaction, TransactionResult* result,
                       std::string* failure) {
  const bool holds = std::all_of(transaction.compares.begin(), transaction.compares.end(),
                                 [this](const Compare& compare) { return Holds(compare); });
  const std::vector<Operation>& branch = holds ? transaction.success : transaction.failure;
  for (const Operation& operation : branch) {
    if (operation.kind == Operation::Kind::kPut && operation.lease != 0 &&
        leases_.count(operation.lease) == 0) {
      *failure = "requested lease not found";
      return false;
    }
  }
  wrote_ = false;
  result->succeeded = holds;
  result->results.clear();
  for (const Operation& operation : branch) {
    OperationResult& one = result->results.emplace_back();
    if (operation.kind == Operation::Kind::kPut) Put(operation);
    if (operation.kind == Operation::Kind::kGet)
      one.kvs = Read(operation.key, operation.range_end).kvs;
    if (operation.kind == Operation::Kind::kDelete) {
      one.deleted = Delete(operation.key, operation.range_end);
    }
  }
  if (wrote_) ++revision_;
  result->revision = revision_;
  return true;
}

RangeResult MemoryData::Read(const std::string& key, const std::string& range_end) const {
  RangeResult result;
  result.revision = revision_;
  for (auto it = keys_.lower_bound(key); it != keys_.end(); ++it) {
    if (!InRange(it->first, key, range_end)) break;
    result.kvs.push_back(it->second);
  }
  return result;
}

LeaseResult MemoryData::Grant(int64_t ttl_s) {
  const int64_t id = next_lease_++;
  leases_[id] = {ttl_s, now_ms_ + ttl_s * 1000};
  return {id, ttl_s};
}

LeaseResult MemoryData::Renew(int64_t id) {
  const auto found = leases_.find(id);
  if (found == leases_.end()) return {id, 0};
  found->second.deadline_ms = now_ms_ + found->second.ttl_s * 1000;
  return {id, found->second.ttl_s};
}

bool MemoryData::Revoke(int64_t id) {
  if (leases_.count(id) == 0) return false;
  EndLease(id);
  return true;
}

bool MemoryData::ChangesSince(const std::string& prefix, int64_t from_revision,
                              std::vector<WatchEvent>* events, int64_t* compact_revision) const {
  if (from_revision < compacted_) {
    *compact_revision = compacted_;
    return false;
  }
  for (const WatchEvent& event : history_) {
    if (event.kv.mod_revision >= from_revision && event.kv.key.starts_with(prefix)) {
      events->push_back(event);
    }
  }
  return true;
}

// Puts and deletes of one transaction share the revision after the current.
void MemoryData::Put(const Operation& put) {
  const int64_t revision = revision_ + 1;
  KeyValue& kv = keys_[put.key];
  if (kv.version == 0) kv = {put.key, {}, revision, 0, 0, 0};
  kv.value = put.value;
  kv.mod_revision = revision;
  ++kv.version;
  kv.lease = put.lease;
  history_.push_back({WatchEvent::Type::kPut, kv});
  wrote_ = true;
}

int64_t MemoryData::Delete(const std::string& key, const std::string& range_end) {
  std::vector<std::string> doomed;
  for (const KeyValue& kv : Read(key, range_end).kvs) doomed.push_back(kv.key);
  for (const std::string& name : doomed) {
    keys_.erase(name);
    history_.push_back({WatchEvent::Type::kDelete, {name, {}, 0, revision_ + 1, 0, 0}});
    wrote_ = true;
  }
  return static_cast<int64_t>(doomed.size());
}

bool MemoryData::Holds(const Compare& compare) const {
  const auto found = keys_.find(compare.key);
  const KeyValue none;
  const KeyValue& kv = found != keys_.end() ? found->second : none;
  switch (compare.target) {
    case Compare::Target::kValue:
      return found != keys_.end() && Relates(compare.relation, kv.value, compare.value);
    case Compare::Target::kVersion:
      return Relates(compare.relation, kv.version, compare.number);
    case Compare::Target::kModRevision:
      return Relates(compare.relation, kv.mod_revision, compare.number);
    case Compare::Target::kCreateRevision:
      return Relates(compare.relation, kv.create_revision, compare.number);
  }
  return false;
}

void MemoryData::EndLease(int64_t id) {
  leases_.erase(id);
  wrote_ = false;
  std::vector<std::string> bound;
  for (const auto& [key, kv] : keys_) {
    if (kv.lease == id) bound.push_back(key);
  }
  for (const std::string& key : bound) Delete(key, {});
  if (wrote_) ++revision_;
}

void MemoryStore::InjectFaults(const std::vector<Fault>& faults) {
  faults_.insert(faults_.end(), faults.begin(), faults.end());
}

void MemoryStore::Commit(const Transaction& transaction, TransactionDone done) {
  Schedule([this, transaction, done = std::move(done)](StoreResult outcome) {
    TransactionResult result;
    if (outcome.status != StoreStatus::kUnreachable && outcome.status != StoreStatus::kRefused &&
        !data_->Apply(transaction, &result, &outcome.failure) && outcome.Done()) {
      outcome.status = StoreStatus::kRefused;
    }
    return [done, outcome, result] { done(outcome, result); };
  });
}

void MemoryStore::Range(const std::string& key, const std::string& range_end, RangeDone done) {
  Schedule([this, key, range_end, done = std::move(done)](const StoreResult& outcome) {
    const RangeResult result = outcome.Done() ? data_->Read(key, range_end) : RangeResult();
    return [done, outcome, result] { done(outcome, result); };
  });
}

void MemoryStore::GrantLease(int64_t ttl_s, LeaseDone done) {
  Schedule([this, ttl_s, done = std::move(done)](const StoreResult& outcome) {
    const bool applies = outcome.Done() || outcome.status == StoreStatus::kLost;
    const LeaseResult result = applies ? data_->Grant(ttl_s) : LeaseResult();
    return [done, outcome, result] { done(outcome, result); };
  });
}

void MemoryStore::KeepAlive(int64_t id, LeaseDone done) {
  Schedule([this, id, done = std::move(done)](const StoreResult& outcome) {
    const bool applies = outcome.Done() || outcome.status == StoreStatus::kLost;
    const LeaseResult result = applies ? data_->Renew(id) : LeaseResult();
    return [done, outcome, result] { done(outcome, result); };
  });
}

void MemoryStore::RevokeLease(int64_t id, Done done) {
  Schedule([this, id, done = std::move(done)](StoreResult outcome) {
    const bool applies = outcome.Done() || outcome.status == StoreStatus::kLost;
    if (applies && !data_->Revoke(id) && outcome.Done()) {
      outcome = {StoreStatus::kRefused, "requested lease not found"};
    }
    return [done, outcome] { done(outcome); };
  });
}

void MemoryStore::Watch(const std::string& prefix, int64_t start_revision, WatchHandler handler) {
  watch_handler_ = std::move(handler);
  watch_prefix_ = prefix;
  watch_next_ = start_revision > 0 ? start_revision : data_->Revision() + 1;
  watch_lost_ = false;
}

long MemoryStore::TimeoutMs() {
  if (watch_handler_ != nullptr && (watch_lost_ || data_->Revision() >= watch_next_)) return 0;
  if (pending_.empty()) return -1;
  return static_cast<long>(std::max<int64_t>(0, pending_.begin()->first - data_->NowMs()));
}

void MemoryStore::Perform() {
  while (!pending_.empty() && pending_.begin()->first <= data_->NowMs()) {
    const std::function<void()> action = std::move(pending_.begin()->second);
    pending_.erase(pending_.begin());
    action();
  }
  DeliverWatch();
}

void MemoryStore::Schedule(Apply apply) {
  Fault fault = standing_fault_;
  if (!faults_.empty()) {
    fault = faults_.front();
    faults_.erase(faults_.begin());
  }
  At(data_->NowMs() + fault.delay_ms, [this, fault, apply = std::move(apply)] {
    StoreResult outcome;
    if (fault.kind == Fault::Kind::kUnreachable) outcome = {StoreStatus::kUnreachable, "injected"};
    if (fault.kind == Fault::Kind::kLoseReply) outcome = {StoreStatus::kLost, "injected"};
    if (fault.kind == Fault::Kind::kRefuse) outcome = {StoreStatus::kRefused, "injected"};
    At(data_->NowMs() + fault.reply_delay_ms, apply(outcome));
  });
}

void MemoryStore::At(int64_t due_ms, std::function<void()> action) {
  pending_.emplace(due_ms, std::move(action));
}

void MemoryStore::DeliverWatch() {
  if (watch_handler_ == nullptr) return;
  WatchReport report;
  const bool kept =
      data_->ChangesSince(watch_prefix_, watch_next_, &report.events, &report.compact_revision);
  if (watch_lost_ || !kept) {
    report.kind = watch_lost_ ? WatchReport::Kind::kLost : WatchReport::Kind::kCompacted;
    report.failure = watch_lost_ ? "injected" : "";
    const WatchHandler handler = std::move(watch_handler_);
    watch_handler_ = nullptr;
    return handler(report);
  }
  watch_next_ = data_->Revision() + 1;
  if (!report.events.empty()) watch_handler_(report);
}

}  // namespace klv::cluster
