#ifndef KLV_CLUSTER_STORE_H_
#define KLV_CLUSTER_STORE_H_

#include <sys/select.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace klv::cluster {

// The cluster's key-value store as the lock service needs it: transactions
// with compares, range reads, leases and one watch on a prefix.
//
// Every call returns at once and ends later in its completion callback, which
// runs only from inside Perform(), never from the call itself; a callback may
// make further calls. The owner drives the store from its select loop:
//
//   fd_set readable, writable;  // cleared, then the loop's own descriptors added
//   int max_fd = ...;
//   store.AddDescriptors(&readable, &writable, &max_fd);
//   timeout = min(own timeout, store.TimeoutMs());
//   select(max_fd + 1, &readable, &writable, nullptr, timeout);
//   store.Perform();
//
// Destroying the store abandons every call in flight without running its
// callback.

// How a call ended.
enum class StoreStatus {
  kDone = 0,         // the store answered
  kUnreachable = 1,  // no endpoint took the request: it was not applied
  kLost = 2,         // sent, but the reply never came: it may have been applied
  kRefused = 3,      // the store answered with an error (unknown lease, bad request, ...)
};

// The outcome of a call: its status and, unless kDone, the reason as text.
struct StoreResult {
  StoreStatus status = StoreStatus::kDone;
  std::string failure;
  bool Done() const { return status == StoreStatus::kDone; }
};

// One stored key. Revisions are the store's; version counts the key's puts
// since its creation; lease is 0 for a key bound to none.
struct KeyValue {
  std::string key, value;
  int64_t create_revision = 0, mod_revision = 0, version = 0, lease = 0;
};

// The end of the range that holds every key starting with `prefix`.
std::string PrefixEnd(const std::string& prefix);

class Store;

// One pass of a select loop that serves `store` alone, for tools and
// benchmarks: waits for its descriptors, at most `max_wait_ms`, then
// Perform().
void RunStoreOnce(Store* store, long max_wait_ms);

// A condition of a transaction on one key. A missing key has version,
// create and mod revision 0 and no value (a value compare on it fails).
struct Compare {
  enum class Target { kValue, kVersion, kModRevision, kCreateRevision };
  enum class Relation { kEqual, kNotEqual, kLess, kGreater };

  std::string key;
  Target target = Target::kVersion;
  Relation relation = Relation::kEqual;
  int64_t number = 0;  // version or revision
  std::string value;   // for kValue

  static Compare VersionIs(std::string key, int64_t version) {
    return {std::move(key), Target::kVersion, Relation::kEqual, version, {}};
  }
  static Compare ModRevisionIs(std::string key, int64_t revision) {
    return {std::move(key), Target::kModRevision, Relation::kEqual, revision, {}};
  }
  static Compare CreateRevisionIs(std::string key, int64_t revision) {
    return {std::move(key), Target::kCreateRevision, Relation::kEqual, revision, {}};
  }
  static Compare ValueIs(std::string key, std::string value) {
    return {std::move(key), Target::kValue, Relation::kEqual, 0, std::move(value)};
  }
};

// One operation of a transaction. Get and delete act on `key` alone when
// range_end is empty, else on every key in [key, range_end).
struct Operation {
  enum class Kind { kPut, kGet, kDelete };

  Kind kind = Kind::kGet;
  std::string key, range_end;
  std::string value;  // put
  int64_t lease = 0;  // put: the key vanishes with this lease (0: with none)

  static Operation Put(std::string key, std::string value, int64_t lease = 0) {
    return {Kind::kPut, std::move(key), {}, std::move(value), lease};
  }
  static Operation Get(std::string key, std::string range_end = {}) {
    return {Kind::kGet, std::move(key), std::move(range_end), {}, 0};
  }
  static Operation Delete(std::string key, std::string range_end = {}) {
    return {Kind::kDelete, std::move(key), std::move(range_end), {}, 0};
  }
};

// What one operation of a transaction found: the keys a get read, in key
// order, or the number of keys a delete removed.
struct OperationResult {
  std::vector<KeyValue> kvs;
  int64_t deleted = 0;
};

struct Transaction {
  std::vector<Compare> compares;  // all must hold for the success branch
  std::vector<Operation> success, failure;
};

struct TransactionResult {
  bool succeeded = false;                // the compares held and the success branch ran
  int64_t revision = 0;                  // the store's revision after the transaction
  std::vector<OperationResult> results;  // one per operation of the branch that ran
};

struct RangeResult {
  std::vector<KeyValue> kvs;  // in key order
  int64_t revision = 0;       // the revision the read saw
};

struct LeaseResult {
  int64_t id = 0;
  int64_t ttl_s = 0;  // seconds left; 0 after a keep-alive: the lease has ended
};

// What the watch reports. kEvents: the changes of one or more revisions, in
// order. kCompacted: the start revision is no longer kept (compact_revision
// is the oldest kept one). kLost: the watch stream ended. After kCompacted
// or kLost the watch is over: read again and watch from the read's revision.
struct WatchEvent {
  enum class Type { kPut, kDelete };
  Type type = Type::kPut;
  KeyValue kv;  // for a delete only key and mod_revision
};
struct WatchReport {
  enum class Kind { kEvents, kCompacted, kLost };
  Kind kind = Kind::kEvents;
  std::vector<WatchEvent> events;
  int64_t compact_revision = 0;
  std::string failure;  // kLost: why
};

class Store {
 public:
  using TransactionDone = std::function<void(const StoreResult&, const TransactionResult&)>;
  using RangeDone = std::function<void(const StoreResult&, const RangeResult&)>;
  using LeaseDone = std::function<void(const StoreResult&, const LeaseResult&)>;
  using Done = std::function<void(const StoreResult&)>;
  using WatchHandler = std::function<void(const WatchReport&)>;

  virtual ~Store() = default;

  // Runs `transaction` atomically.
  virtual void Commit(const Transaction& transaction, TransactionDone done) = 0;
  // Reads `key`, or with a range_end every key in [key, range_end).
  virtual void Range(const std::string& key, const std::string& range_end, RangeDone done) = 0;
  // Grants a lease of `ttl_s` seconds; the store may lengthen it.
  virtual void GrantLease(int64_t ttl_s, LeaseDone done) = 0;
  // Renews lease `id` for its full time once.
  virtual void KeepAlive(int64_t id, LeaseDone done) = 0;
  // Ends lease `id` at once; its keys are deleted.
  virtual void RevokeLease(int64_t id, Done done) = 0;
  // Watches every key starting with `prefix`, reporting changes from
  // `start_revision` on (0: from now). Replaces an earlier watch, whose
  // handler is not called again.
  virtual void Watch(const std::string& prefix, int64_t start_revision, WatchHandler handler) = 0;
  // Ends the watch; its handler is not called again.
  virtual void CancelWatch() = 0;

  // Adds the descriptors the store waits on to the sets and raises `*max_fd`
  // to the highest of them.
  virtual void AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) = 0;
  // Milliseconds until Perform() is due even without input; -1: no limit.
  virtual long TimeoutMs() = 0;
  // Moves the transfers on and runs the callbacks of the calls that ended.
  // Call it after every select, whatever select found.
  virtual void Perform() = 0;
};

}  // namespace klv::cluster

#endif  // KLV_CLUSTER_STORE_H_
