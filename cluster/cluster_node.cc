#include "cluster/cluster_node.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <utility>

#include "lockservice/record_lock.h"
#include "lockservice/share_modes.h"

namespace klv::cluster {

namespace {

// A write that the store could not take is tried again after this long.
constexpr int64_t kRetryMs = 100;
// A keep-alive that failed is tried again after this long.
constexpr int64_t kKeepAliveRetryMs = 200;

uint64_t FileIndex(const FileKey& file) { return (uint64_t{file.hi} << 32) | file.lo; }

std::string Describe(const StoreResult& result) {
  return result.failure.empty() ? "no answer" : result.failure;
}

}  // namespace

// One write of a file's holdings that the lock service asked for.
struct ClusterNode::Write {
  FileKey file;
  FileHoldings wanted;
  Decided decided;
};

ClusterNode::ClusterNode(const ClusterConfig& config, Store* store, Clock clock)
    : config_(config),
      store_(store),
      clock_(std::move(clock)),
      prefix_("/klvlockd/" + config.cluster + "/"),
      node_key_(prefix_ + "nodes/" + config.node) {}

int64_t ClusterNode::BootClockMs() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::string ClusterNode::EncodeHoldings(const FileHoldings& holdings) {
  char text[40];
  snprintf(text, sizeof text, "%04x", holdings.classes);
  std::string value = text;
  for (const HeldRange& range : holdings.ranges) {
    snprintf(text, sizeof text, " %u:%u:%c", range.offset, range.length, range.shared ? 's' : 'x');
    value += text;
  }
  return value;
}

bool ClusterNode::DecodeHoldings(const std::string& value, FileHoldings* holdings) {
  std::istringstream in(value);
  std::string word;
  if (!(in >> std::hex >> holdings->classes)) return false;
  holdings->ranges.clear();
  while (in >> word) {
    unsigned offset = 0, length = 0;
    char kind = 0;
    if (sscanf(word.c_str(), "%u:%u:%c", &offset, &length, &kind) != 3) return false;
    holdings->ranges.push_back({offset, length, kind == 's'});
  }
  return true;
}

std::string ClusterNode::FileBase(const FileKey& file) const {
  char text[20];
  snprintf(text, sizeof text, "%08x:%08x", file.hi, file.lo);
  return prefix_ + "files/" + text;
}

std::string ClusterNode::SummaryNode(const std::string& key) const {
  const std::string files = prefix_ + "files/";
  if (!key.starts_with(files)) return {};
  const size_t slash = key.find('/', files.size());
  return slash == std::string::npos ? std::string() : key.substr(slash + 1);
}

void ClusterNode::Register(std::function<void(const std::string& error)> done) {
  const int64_t sent = clock_();
  store_->GrantLease(config_.lease_ttl_s, [this, sent, done](const StoreResult& result,
                                                             const LeaseResult& lease) {
    if (!result.Done()) {
      done("etcd could not grant a lease: " + Describe(result));
      return;
    }
    lease_ = lease.id;
    deadline_ms_ = sent + lease.ttl_s * 1000;
    char value[96];
    snprintf(value, sizeof value, "pid=%d start=%lld lease=%llx", static_cast<int>(getpid()),
             static_cast<long long>(time(nullptr)), static_cast<unsigned long long>(lease_));
    Transaction create;
    create.compares.push_back(Compare::CreateRevisionIs(node_key_, 0));
    create.success.push_back(Operation::Put(node_key_, value, lease_));
    store_->Commit(create, [this, done](const StoreResult& created, const TransactionResult& txn) {
      if (!created.Done()) {
        done("etcd did not register the node: " + Describe(created));
      } else if (!txn.succeeded) {
        store_->RevokeLease(lease_, [](const StoreResult&) {});
        done("another daemon runs under the node name " + config_.node + " in cluster " +
             config_.cluster);
      } else {
        registration_ = txn.revision;
        registered_ = true;
        next_keep_alive_ms_ = clock_() + config_.lease_ttl_s * 1000 / 3;
        ReadAndWatch(done);
      }
    });
  });
}

// A fresh read of every key of the cluster, then the watch from the revision
// after it. Nodes that were known and are gone from the read have died.
void ClusterNode::ReadAndWatch(std::function<void(const std::string& error)> done) {
  store_->Range(prefix_, PrefixEnd(prefix_),
                [this, done](const StoreResult& result, const RangeResult& range) {
                  if (!Alive()) return;
                  if (!result.Done()) {
                    if (done) {
                      done("etcd did not answer a read: " + Describe(result));
                    } else {
                      After(kRetryMs, [this] { ReadAndWatch(nullptr); });
                    }
                    return;
                  }
                  std::set<std::string> nodes;
                  for (const KeyValue& kv : range.kvs) {
                    if (kv.key.starts_with(prefix_ + "nodes/"))
                      nodes.insert(kv.key.substr(prefix_.size() + 6));
                  }
                  for (const std::string& node : nodes_) {
                    if (nodes.count(node) == 0) NodeDied(node);
                  }
                  nodes_ = std::move(nodes);
                  summaries_.clear();
                  for (const KeyValue& kv : range.kvs) {
                    const std::string node = SummaryNode(kv.key);
                    if (!node.empty() && node != config_.node) summaries_[kv.key] = kv.value;
                  }
                  store_->Watch(prefix_, range.revision + 1,
                                [this](const WatchReport& report) { OnWatch(report); });
                  if (done) done("");
                });
}

void ClusterNode::OnWatch(const WatchReport& report) {
  if (!Alive()) return;
  if (report.kind != WatchReport::Kind::kEvents) {
    ReadAndWatch(nullptr);  // the events in between are read afresh
    return;
  }
  const std::string nodes_prefix = prefix_ + "nodes/";
  std::set<std::string> died;
  for (const WatchEvent& event : report.events) {
    if (event.type == WatchEvent::Type::kDelete && event.kv.key.starts_with(nodes_prefix)) {
      died.insert(event.kv.key.substr(nodes_prefix.size()));
    }
  }
  if (died.count(config_.node) != 0) {
    Fence("its registration was deleted");
    return;
  }
  for (const std::string& node : died) NodeDied(node);
  for (const WatchEvent& event : report.events) {
    if (event.kv.key.starts_with(nodes_prefix)) {
      const std::string node = event.kv.key.substr(nodes_prefix.size());
      if (event.type == WatchEvent::Type::kPut) nodes_.insert(node);
      if (event.type == WatchEvent::Type::kDelete) nodes_.erase(node);
      continue;
    }
    const std::string node = SummaryNode(event.kv.key);
    if (node.empty() || node == config_.node) continue;
    if (event.type == WatchEvent::Type::kPut && died.count(node) == 0) {
      summaries_[event.kv.key] = event.kv.value;
    } else {
      summaries_.erase(event.kv.key);
    }
  }
}

void ClusterNode::NodeDied(const std::string& node) {
  const int64_t until = clock_() + int64_t{config_.fence_delay_s} * 1000;
  for (auto it = summaries_.begin(); it != summaries_.end();) {
    if (SummaryNode(it->first) != node) {
      ++it;
      continue;
    }
    FileHoldings holdings;
    if (DecodeHoldings(it->second, &holdings)) {
      const std::string base = it->first.substr(0, it->first.size() - node.size() - 1);
      dead_[base].push_back({node, holdings, until});
    }
    it = summaries_.erase(it);
  }
}

bool ClusterNode::Settled(const FileKey& file, int share_class) const {
  const auto found = files_.find(FileIndex(file));
  return found != files_.end() && found->second.writes == 0 &&
         (found->second.published.classes & (1u << share_class)) != 0;
}

bool ClusterNode::Holds(const FileKey& file, const FileHoldings& holdings) const {
  const auto found = files_.find(FileIndex(file));
  if (found == files_.end()) return holdings.Empty();
  return found->second.writes == 0 && found->second.published == holdings;
}

void ClusterNode::Publish(const FileKey& file, const FileHoldings& wanted, Decided decided) {
  ++files_[FileIndex(file)].writes;
  Attempt(std::make_shared<Write>(Write{file, wanted, std::move(decided)}));
}

bool ClusterNode::Conflicts(const FileHoldings& wanted, const FileHoldings& other) {
  for (int held = 0; held < kShareModes; ++held) {
    if ((other.classes & (1u << held)) == 0) continue;
    for (int wanted_class = 0; wanted_class < kShareModes; ++wanted_class) {
      if ((wanted.classes & (1u << wanted_class)) != 0 && !ShareClassesAgree(held, wanted_class)) {
        return true;
      }
    }
  }
  for (const HeldRange& mine : wanted.ranges) {
    const RecordLock candidate{.offset = mine.offset, .length = mine.length, .shared = mine.shared};
    for (const HeldRange& theirs : other.ranges) {
      const RecordLock held{
          .offset = theirs.offset, .length = theirs.length, .shared = theirs.shared};
      if (RangesConflict(candidate, held)) return true;
    }
  }
  return false;
}

// Every decision reads the file's keys afresh: the guard and each node's
// summary. A conflict found there (or in the holdings of a node that died
// less than the fence delay ago) refuses; otherwise the write compares the
// guard it read and the node's registration, and is decided again when
// either changed.
void ClusterNode::Attempt(const std::shared_ptr<Write>& write) {
  if (fenced_) return;
  const std::string base = FileBase(write->file);
  const std::string nodes = prefix_ + "nodes/";
  // One read of the file's keys and of the registered nodes, at one revision.
  Transaction read;
  read.success.push_back(Operation::Get(base, PrefixEnd(base + "/")));
  read.success.push_back(Operation::Get(nodes, PrefixEnd(nodes)));
  store_->Commit(read, [this, write, base, nodes](const StoreResult& result,
                                                  const TransactionResult& outcome) {
    if (!Alive()) return;
    if (!result.Done() || outcome.results.size() != 2) {
      Retry(write);
      return;
    }
    StoreAnswered();
    // A node that the watch still counts but the read lacks has died, even
    // when the watch has not said so yet.
    std::set<std::string> registered;
    for (const KeyValue& kv : outcome.results[1].kvs)
      registered.insert(kv.key.substr(nodes.size()));
    for (auto it = nodes_.begin(); it != nodes_.end();) {
      if (registered.count(*it) != 0 || *it == config_.node) {
        ++it;
        continue;
      }
      NodeDied(*it);
      it = nodes_.erase(it);
    }
    const RangeResult range{outcome.results[0].kvs, outcome.revision};
    int64_t guard_revision = 0;
    bool conflict = false;
    for (const KeyValue& kv : range.kvs) {
      if (kv.key == base) {
        guard_revision = kv.mod_revision;
        continue;
      }
      FileHoldings theirs;
      if (kv.key == base + "/" + config_.node || !DecodeHoldings(kv.value, &theirs)) continue;
      conflict = conflict || Conflicts(write->wanted, theirs);
    }
    const auto dead = dead_.find(base);
    if (dead != dead_.end()) {
      const int64_t now = clock_();
      std::erase_if(dead->second, [now](const DeadHoldings& one) { return one.until_ms <= now; });
      for (const DeadHoldings& one : dead->second) {
        conflict = conflict || Conflicts(write->wanted, one.holdings);
      }
      if (dead->second.empty()) dead_.erase(dead);
    }
    if (conflict && !write->wanted.Empty()) {
      Finish(write, Verdict::kConflict);
      return;
    }
    Commit(write, guard_revision);
  });
}

void ClusterNode::Commit(const std::shared_ptr<Write>& write, int64_t guard_revision) {
  const std::string base = FileBase(write->file);
  FileHoldings mine = holdings_of_ ? holdings_of_(write->file) : FileHoldings{};
  mine.classes |= write->wanted.classes;
  mine.ranges.insert(mine.ranges.end(), write->wanted.ranges.begin(), write->wanted.ranges.end());
  Transaction txn;
  txn.compares.push_back(Compare::CreateRevisionIs(node_key_, registration_));
  txn.compares.push_back(Compare::ModRevisionIs(base, guard_revision));
  txn.success.push_back(Operation::Put(base, config_.node, lease_));
  const std::string summary = base + "/" + config_.node;
  txn.success.push_back(mine.Empty() ? Operation::Delete(summary)
                                     : Operation::Put(summary, EncodeHoldings(mine), lease_));
  txn.failure.push_back(Operation::Get(node_key_));
  store_->Commit(
      txn, [this, write, mine](const StoreResult& result, const TransactionResult& outcome) {
        if (!Alive()) return;
        if (!result.Done()) {
          Retry(write);  // a lost write may have been applied: the next read tells
          return;
        }
        StoreAnswered();
        if (!outcome.succeeded) {
          const bool registered = !outcome.results.empty() && !outcome.results[0].kvs.empty() &&
                                  outcome.results[0].kvs[0].create_revision == registration_;
          if (!registered) {
            Fence("its registration is gone from the store");
            return;
          }
          Attempt(write);  // another write came between the read and this one
          return;
        }
        files_[FileIndex(write->file)].published = mine;
        Finish(write, Verdict::kGranted);
      });
}

void ClusterNode::Retry(const std::shared_ptr<Write>& write) {
  After(kRetryMs, [this, write] { Attempt(write); });
}

// After the last write of a file, what the lock service holds now may differ
// from what was written (a request given up while its write went on, a
// release meanwhile): then the file is written again.
void ClusterNode::Finish(const std::shared_ptr<Write>& write, Verdict verdict) {
  const uint64_t index = FileIndex(write->file);
  FileState& state = files_[index];
  --state.writes;
  if (write->decided) write->decided(verdict);
  const auto found = files_.find(index);
  if (found == files_.end() || found->second.writes != 0 || fenced_) return;
  const FileHoldings now = holdings_of_ ? holdings_of_(write->file) : FileHoldings{};
  if (!(now == found->second.published)) {
    Publish(write->file, {}, nullptr);
  } else if (now.Empty()) {
    files_.erase(found);
  }
}

void ClusterNode::WhenStoreAnswers(std::function<void()> action) {
  on_answer_.push_back(std::move(action));
}

void ClusterNode::After(int64_t ms, std::function<void()> action) {
  timers_.emplace(clock_() + ms, std::move(action));
}

void ClusterNode::StoreAnswered() {
  std::vector<std::function<void()>> actions;
  actions.swap(on_answer_);
  for (const auto& action : actions) action();
}

void ClusterNode::SendKeepAlive() {
  const int64_t sent = clock_();
  next_keep_alive_ms_ = sent + config_.lease_ttl_s * 1000 / 3;
  store_->KeepAlive(lease_, [this, sent](const StoreResult& result, const LeaseResult& lease) {
    if (!Alive()) return;
    if (result.status == StoreStatus::kRefused) {
      Fence("etcd refused to renew its lease: " + Describe(result));
      return;
    }
    if (!result.Done()) {
      next_keep_alive_ms_ = std::min(next_keep_alive_ms_, clock_() + kKeepAliveRetryMs);
      return;
    }
    if (lease.ttl_s <= 0) {
      Fence("its lease has ended");
      return;
    }
    StoreAnswered();
    deadline_ms_ = std::max(deadline_ms_, sent + lease.ttl_s * 1000);
  });
}

void ClusterNode::Fence(const std::string& why) {
  if (fenced_) return;
  fenced_ = true;
  store_->CancelWatch();
  timers_.clear();
  on_answer_.clear();
  if (on_fence_) on_fence_(why);
}

void ClusterNode::CheckDeadline() {
  if (registered_ && !fenced_ && clock_() >= deadline_ms_) {
    Fence("it could not renew its lease in time");
  }
}

bool ClusterNode::Alive() {
  CheckDeadline();
  return !fenced_;
}

void ClusterNode::AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) {
  store_->AddDescriptors(readable, writable, max_fd);
}

long ClusterNode::TimeoutMs() {
  long timeout = store_->TimeoutMs();
  if (!registered_ || fenced_) return timeout;
  const int64_t now = clock_();
  int64_t due = std::min(deadline_ms_, next_keep_alive_ms_);
  if (!timers_.empty()) due = std::min(due, timers_.begin()->first);
  const long until = static_cast<long>(std::max<int64_t>(0, due - now));
  return timeout < 0 ? until : std::min(timeout, until);
}

void ClusterNode::Perform() {
  CheckDeadline();
  if (fenced_) return;
  store_->Perform();
  if (!registered_ || fenced_) return;
  if (clock_() >= next_keep_alive_ms_) SendKeepAlive();
  while (!fenced_ && !timers_.empty() && timers_.begin()->first <= clock_()) {
    std::function<void()> action = std::move(timers_.begin()->second);
    timers_.erase(timers_.begin());
    action();
  }
}

}  // namespace klv::cluster
