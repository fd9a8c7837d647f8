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
// The longest summary a node writes of one file (about 3000 byte ranges); a
// lock that would make it longer is refused. It keeps every transaction far
// below the store's limit on a request's size.
constexpr size_t kMaxSummaryBytes = 64 * 1024;
// Files per release transaction: below the store's limit on operations per
// transaction, and with kMaxSummaryBytes below its limit on a request's size.
constexpr size_t kReleasesPerTransaction = 16;

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

bool ClusterNode::SplitFileKey(const std::string& key, std::string* base,
                               std::string* node) const {
  const std::string files = prefix_ + "files/";
  if (!key.starts_with(files)) return false;
  const size_t slash = key.find('/', files.size());
  *base = key.substr(0, slash);
  *node = slash == std::string::npos ? std::string() : key.substr(slash + 1);
  return true;
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

void ClusterNode::Leave(std::function<void()> done) {
  if (!registered_ || fenced_) {
    done();
    return;
  }
  fenced_ = true;  // nothing more is decided
  store_->CancelWatch();
  store_->RevokeLease(lease_, [done](const StoreResult&) { done(); });
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
                  const std::string nodes_prefix = prefix_ + "nodes/";
                  std::set<std::string> nodes;
                  for (const KeyValue& kv : range.kvs) {
                    if (kv.key.starts_with(nodes_prefix))
                      nodes.insert(kv.key.substr(nodes_prefix.size()));
                  }
                  CountNodes(nodes);
                  nodes_ = std::move(nodes);
                  views_.clear();
                  std::string base, node;
                  for (const KeyValue& kv : range.kvs) {
                    if (!SplitFileKey(kv.key, &base, &node) || node == config_.node) continue;
                    FileView& view = views_[base];
                    view.revision = view.read_revision = range.revision;
                    FileHoldings holdings;
                    if (node.empty()) {
                      view.guard_revision = kv.mod_revision;
                    } else if (DecodeHoldings(kv.value, &holdings)) {
                      view.others[node] = holdings;
                    }
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
  std::string base, node;
  for (const WatchEvent& event : report.events) {
    if (event.kv.key.starts_with(nodes_prefix)) {
      node = event.kv.key.substr(nodes_prefix.size());
      if (event.type == WatchEvent::Type::kPut) nodes_.insert(node);
      if (event.type == WatchEvent::Type::kDelete) nodes_.erase(node);
      continue;
    }
    if (!SplitFileKey(event.kv.key, &base, &node) || node == config_.node) continue;
    const int64_t revision = event.kv.mod_revision;
    FileView& view = views_[base];
    if (revision <= view.read_revision) continue;  // a later read has it
    view.revision = std::max(view.revision, revision);
    const bool put = event.type == WatchEvent::Type::kPut;
    FileHoldings holdings;
    if (node.empty()) {
      view.guard_revision = put ? revision : 0;
    } else if (put && died.count(node) == 0 && DecodeHoldings(event.kv.value, &holdings)) {
      view.others[node] = holdings;
    } else {
      view.others.erase(node);
    }
    if (view.guard_revision == 0 && view.others.empty()) views_.erase(base);
  }
}

void ClusterNode::CountNodes(const std::set<std::string>& registered) {
  for (auto it = nodes_.begin(); it != nodes_.end();) {
    if (registered.count(*it) != 0 || *it == config_.node) {
      ++it;
      continue;
    }
    NodeDied(*it);
    it = nodes_.erase(it);
  }
}

void ClusterNode::NodeDied(const std::string& node) {
  const int64_t until = clock_() + int64_t{config_.fence_delay_s} * 1000;
  for (auto& [base, view] : views_) {
    const auto found = view.others.find(node);
    if (found == view.others.end()) continue;
    dead_[base].push_back({node, found->second, until});
    view.others.erase(found);
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

bool ClusterNode::ConflictsWithDead(const std::string& base, const FileHoldings& wanted) {
  const auto dead = dead_.find(base);
  if (dead == dead_.end()) return false;
  const int64_t now = clock_();
  std::erase_if(dead->second, [now](const DeadHoldings& one) { return one.until_ms <= now; });
  bool conflict = false;
  for (const DeadHoldings& one : dead->second) {
    conflict = conflict || Conflicts(wanted, one.holdings);
  }
  if (dead->second.empty()) dead_.erase(dead);
  return conflict;
}

// A release is sent with the others of this pass. A grant that the view of
// the file allows is written at once, comparing the guard revision that the
// view holds: one transaction when the view is current, and a fresh read
// from its failure branch when it is not. A conflict in the view is
// confirmed by a fresh read before it refuses.
void ClusterNode::Attempt(const std::shared_ptr<Write>& write) {
  if (fenced_) return;
  if (write->wanted.Empty()) {
    releases_.push_back(write);
    return;
  }
  const std::string base = FileBase(write->file);
  const auto found = views_.find(base);
  bool conflict = ConflictsWithDead(base, write->wanted);
  int64_t guard_revision = 0;
  if (found != views_.end()) {
    guard_revision = found->second.guard_revision;
    for (const auto& [node, theirs] : found->second.others) {
      conflict = conflict || Conflicts(write->wanted, theirs);
    }
  }
  if (conflict) {
    ReadFresh(write);
  } else {
    Commit(write, guard_revision);
  }
}

// One read of the file's keys and of the registered nodes, at one revision.
void ClusterNode::ReadFresh(const std::shared_ptr<Write>& write) {
  const std::string base = FileBase(write->file);
  const std::string nodes = prefix_ + "nodes/";
  Transaction read;
  read.success.push_back(Operation::Get(base, PrefixEnd(base + "/")));
  read.success.push_back(Operation::Get(nodes, PrefixEnd(nodes)));
  store_->Commit(read, [this, write](const StoreResult& result, const TransactionResult& outcome) {
    if (!Alive()) return;
    if (!result.Done() || outcome.results.size() != 2) {
      Retry(write);
      return;
    }
    StoreAnswered();
    Reconsider(write, outcome.results[0].kvs, outcome.results[1].kvs, outcome.revision);
  });
}

// Decides a grant on a fresh read of the file's keys and of the registered
// nodes: a node that the watch still counts but the read lacks has died, even
// when the watch has not said so yet. A conflict there, or with a node that
// died less than the fence delay ago, refuses; otherwise the write compares
// the guard revision of the read.
void ClusterNode::Reconsider(const std::shared_ptr<Write>& write,
                             const std::vector<KeyValue>& file_keys,
                             const std::vector<KeyValue>& node_keys, int64_t revision) {
  const std::string nodes_prefix = prefix_ + "nodes/";
  std::set<std::string> registered;
  for (const KeyValue& kv : node_keys) registered.insert(kv.key.substr(nodes_prefix.size()));
  CountNodes(registered);
  const std::string base = FileBase(write->file);
  FileView fresh;
  fresh.revision = fresh.read_revision = revision;
  std::string key_base, node;
  for (const KeyValue& kv : file_keys) {
    FileHoldings theirs;
    if (!SplitFileKey(kv.key, &key_base, &node) || node == config_.node) continue;
    if (node.empty()) {
      fresh.guard_revision = kv.mod_revision;
    } else if (DecodeHoldings(kv.value, &theirs)) {
      fresh.others[node] = theirs;
    }
  }
  bool conflict = ConflictsWithDead(base, write->wanted);
  for (const auto& [holder, theirs] : fresh.others) {
    conflict = conflict || Conflicts(write->wanted, theirs);
  }
  const int64_t guard_revision = fresh.guard_revision;
  FileView& view = views_[base];
  if (revision >= view.revision) view = std::move(fresh);
  if (conflict) {
    Finish(write, Verdict::kConflict);
  } else {
    Commit(write, guard_revision);
  }
}

void ClusterNode::Commit(const std::shared_ptr<Write>& write, int64_t guard_revision) {
  const std::string base = FileBase(write->file);
  FileHoldings mine = holdings_of_ ? holdings_of_(write->file) : FileHoldings{};
  mine.classes |= write->wanted.classes;
  mine.ranges.insert(mine.ranges.end(), write->wanted.ranges.begin(), write->wanted.ranges.end());
  const std::string value = EncodeHoldings(mine);
  if (value.size() > kMaxSummaryBytes) {
    Finish(write, Verdict::kConflict);
    return;
  }
  const std::string nodes = prefix_ + "nodes/";
  Transaction txn;
  txn.compares.push_back(Compare::CreateRevisionIs(node_key_, registration_));
  txn.compares.push_back(Compare::ModRevisionIs(base, guard_revision));
  txn.success.push_back(Operation::Put(base, config_.node, lease_));
  txn.success.push_back(Operation::Put(base + "/" + config_.node, value, lease_));
  txn.failure.push_back(Operation::Get(node_key_));
  txn.failure.push_back(Operation::Get(base, PrefixEnd(base + "/")));
  txn.failure.push_back(Operation::Get(nodes, PrefixEnd(nodes)));
  store_->Commit(txn, [this, write, mine, base](const StoreResult& result,
                                                const TransactionResult& outcome) {
    if (!Alive()) return;
    if (result.status == StoreStatus::kRefused) {
      Finish(write, Verdict::kConflict);  // the store will not take this write
      return;
    }
    if (!result.Done() || (!outcome.succeeded && outcome.results.size() != 3)) {
      Retry(write);  // a lost write may have been applied: the next decision tells
      return;
    }
    StoreAnswered();
    if (!outcome.succeeded) {
      const bool registered = !outcome.results[0].kvs.empty() &&
                              outcome.results[0].kvs[0].create_revision == registration_;
      if (!registered) {
        Fence("its registration is gone from the store");
        return;
      }
      // Another write came after what the view showed.
      Reconsider(write, outcome.results[1].kvs, outcome.results[2].kvs, outcome.revision);
      return;
    }
    FileView& view = views_[base];
    if (outcome.revision > view.revision) {
      view.guard_revision = view.revision = outcome.revision;
    }
    Published(write->file, mine, outcome.revision);
    Finish(write, Verdict::kGranted);
  });
}

// A release takes nothing that another node could rely on, so it compares
// only the node's registration and leaves the guard as it is.
void ClusterNode::SendReleases() {
  if (releases_.empty() || fenced_ || !registered_) return;
  std::vector<std::shared_ptr<Write>> pending;
  pending.swap(releases_);
  while (!pending.empty()) {
    std::vector<std::shared_ptr<Write>> batch;
    std::map<uint64_t, FileHoldings> written;
    Transaction txn;
    txn.compares.push_back(Compare::CreateRevisionIs(node_key_, registration_));
    txn.failure.push_back(Operation::Get(node_key_));
    while (!pending.empty() && (written.size() < kReleasesPerTransaction ||
                                written.count(FileIndex(pending.back()->file)) != 0)) {
      const std::shared_ptr<Write> write = pending.back();
      pending.pop_back();
      batch.push_back(write);
      if (written.count(FileIndex(write->file)) != 0) continue;
      const FileHoldings mine = holdings_of_ ? holdings_of_(write->file) : FileHoldings{};
      written[FileIndex(write->file)] = mine;
      const std::string summary = FileBase(write->file) + "/" + config_.node;
      txn.success.push_back(mine.Empty() ? Operation::Delete(summary)
                                         : Operation::Put(summary, EncodeHoldings(mine), lease_));
    }
    store_->Commit(txn, [this, batch, written](const StoreResult& result,
                                               const TransactionResult& outcome) {
      if (!Alive()) return;
      if (!result.Done()) {
        for (const std::shared_ptr<Write>& write : batch) Retry(write);
        return;
      }
      StoreAnswered();
      if (!outcome.succeeded) {
        Fence("its registration is gone from the store");
        return;
      }
      Released(batch, outcome.revision, written);
    });
  }
}

void ClusterNode::Released(const std::vector<std::shared_ptr<Write>>& batch, int64_t revision,
                           const std::map<uint64_t, FileHoldings>& written) {
  for (const std::shared_ptr<Write>& write : batch) {
    Published(write->file, written.at(FileIndex(write->file)), revision);
  }
  for (const std::shared_ptr<Write>& write : batch) Finish(write, Verdict::kGranted);
}

// Writes of one file may be under way together and end in any order: the
// store holds what the one with the latest revision wrote.
void ClusterNode::Published(const FileKey& file, const FileHoldings& holdings, int64_t revision) {
  FileState& state = files_[FileIndex(file)];
  if (revision < state.published_revision) return;
  state.published = holdings;
  state.published_revision = revision;
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
  SendReleases();
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
  SendReleases();
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
