#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

#include "cluster/etcd_store.h"
#include "cluster/memory_store.h"
#include "gtest/gtest.h"

namespace klv::cluster {
namespace {

// Each story runs against etcd (started by tests/cluster/with_etcd.sh, which
// passes its address in KLV_ETCD_ENDPOINT) and against the in-memory store,
// driven by a select loop as the daemon drives it.
class StoreTest : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    prefix_ = "/t/" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name());
    if (GetParam() == "memory") {
      store_ = std::make_unique<MemoryStore>(&data_);
    } else {
      endpoint_ = getenv("KLV_ETCD_ENDPOINT") != nullptr ? getenv("KLV_ETCD_ENDPOINT") : "";
      ASSERT_FALSE(endpoint_.empty()) << "run the test under tests/cluster/with_etcd.sh";
      store_ = std::make_unique<EtcdStore>(std::vector<std::string>{endpoint_});
    }
  }

  // Runs the loop until `done` holds, for up to `timeout_ms` (on the
  // in-memory store's clock for it).
  bool RunUntil(const std::function<bool()>& done, int timeout_ms = 5000) {
    for (int waited = 0; waited < timeout_ms && !done(); waited += 10) {
      fd_set readable, writable;
      FD_ZERO(&readable);
      FD_ZERO(&writable);
      int max_fd = -1;
      store_->AddDescriptors(&readable, &writable, &max_fd);
      const long store_ms = GetParam() == "memory" ? 0 : store_->TimeoutMs();
      timeval timeout = {0, 1000 * (store_ms < 0 ? 10 : std::min(store_ms, 10L))};
      select(max_fd + 1, &readable, &writable, nullptr, &timeout);
      data_.AdvanceTime(10);
      store_->Perform();
    }
    return done();
  }

  // Makes one call, handing `start` its callback, and runs the loop until the
  // call ends, which it must do with kDone.
  template <typename Result>
  Result Call(
      const std::function<void(std::function<void(const StoreResult&, const Result&)>)>& start) {
    Result result;
    bool ended = false;
    start([&](const StoreResult& outcome, const Result& reply) {
      EXPECT_TRUE(outcome.Done()) << outcome.failure;
      result = reply, ended = true;
    });
    EXPECT_TRUE(RunUntil([&] { return ended; }));
    return result;
  }
  TransactionResult Commit(const Transaction& transaction) {
    return Call<TransactionResult>([&](auto done) { store_->Commit(transaction, done); });
  }
  RangeResult Read(const std::string& key) {
    return Call<RangeResult>([&](auto done) { store_->Range(key, {}, done); });
  }
  // A new lease of 2 s, or lease `renew_id` renewed.
  LeaseResult Lease(int64_t renew_id = 0) {
    return Call<LeaseResult>([&](auto done) {
      renew_id == 0 ? store_->GrantLease(2, done) : store_->KeepAlive(renew_id, done);
    });
  }

  MemoryData data_;
  std::unique_ptr<Store> store_;
  std::string prefix_, endpoint_;
};

TEST_P(StoreTest, FailedCompareRunsFailureBranch) {
  const std::string key = prefix_ + "/a";
  const Transaction create = {
      {Compare::VersionIs(key, 0)}, {Operation::Put(key, "first")}, {Operation::Get(key)}};
  EXPECT_TRUE(Commit(create).succeeded);
  const TransactionResult again = Commit(create);
  EXPECT_FALSE(again.succeeded);
  const KeyValue& read = again.results.at(0).kvs.at(0);  // throws, failing, when missing
  EXPECT_EQ(read.value, "first");
  EXPECT_EQ(read.version, 1);
}

TEST_P(StoreTest, LeasedKeysEndWithTheirLease) {
  const LeaseResult revoked = Lease(), expiring = Lease();
  Commit({{},
          {Operation::Put(prefix_ + "/r", "x", revoked.id),
           Operation::Put(prefix_ + "/e", "x", expiring.id)},
          {}});
  EXPECT_GT(Lease(revoked.id).ttl_s, 0);
  store_->RevokeLease(revoked.id, [](const StoreResult& outcome) { EXPECT_TRUE(outcome.Done()); });
  EXPECT_TRUE(RunUntil([&] { return Read(prefix_ + "/r").kvs.empty(); }));
  EXPECT_EQ(Lease(revoked.id).ttl_s, 0);
  EXPECT_EQ(Read(prefix_ + "/e").kvs.size(), 1u);
  EXPECT_TRUE(RunUntil([&] { return Read(prefix_ + "/e").kvs.empty(); }, 8000));
}

TEST_P(StoreTest, WatchSeesPutAndDeleteInOrder) {
  std::string seen;
  store_->Watch(prefix_, Read(prefix_).revision + 1, [&](const WatchReport& report) {
    ASSERT_EQ(report.kind, WatchReport::Kind::kEvents) << report.failure;
    for (const WatchEvent& event : report.events) {
      seen += (event.type == WatchEvent::Type::kPut ? "put " : "delete ") + event.kv.key + "=" +
              event.kv.value + ";";
    }
  });
  Commit({{}, {Operation::Put(prefix_ + "/w", "1")}, {}});
  Commit({{}, {Operation::Delete(prefix_, PrefixEnd(prefix_))}, {}});
  ASSERT_TRUE(RunUntil([&] { return seen.find("delete") != std::string::npos; }));
  EXPECT_EQ(seen, "put " + prefix_ + "/w=1;delete " + prefix_ + "/w=;");
}

TEST_P(StoreTest, UnreachableEndpointFailsOverToTheNext) {
  if (GetParam() == "memory") GTEST_SKIP() << "endpoints are etcd's";
  // A bound port that does not listen refuses connections.
  const int closed = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(closed, reinterpret_cast<sockaddr*>(&address), length), 0);
  getsockname(closed, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string refused = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  store_ = std::make_unique<EtcdStore>(std::vector<std::string>{refused, endpoint_});
  Read(prefix_);
  EXPECT_EQ(static_cast<EtcdStore&>(*store_).Endpoint(), endpoint_);
  store_ = std::make_unique<EtcdStore>(std::vector<std::string>{refused});
  StoreResult outcome;
  store_->Range(prefix_, {},
                [&](const StoreResult& result, const RangeResult&) { outcome = result; });
  EXPECT_TRUE(RunUntil([&] { return outcome.status != StoreStatus::kDone; }));
  EXPECT_EQ(outcome.status, StoreStatus::kUnreachable);
  close(closed);
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreTest, testing::Values("etcd", "memory"));

TEST(MemoryStore, InjectedFaultsAndCompaction) {
  MemoryData data;
  MemoryStore store(&data);
  using Kind = MemoryStore::Fault::Kind;
  store.InjectFaults({{Kind::kLoseReply, 0, /*reply_delay_ms=*/50}, {Kind::kUnreachable}});
  std::vector<StoreStatus> ended;
  for (const char* key : {"lost", "unreachable"}) {
    store.Commit({{}, {Operation::Put(key, "x")}, {}},
                 [&](const StoreResult& outcome, auto&) { ended.push_back(outcome.status); });
  }
  store.Perform();
  data.AdvanceTime(50);
  store.Perform();
  EXPECT_EQ(ended, (std::vector{StoreStatus::kUnreachable, StoreStatus::kLost}));
  EXPECT_EQ(data.Keys().count("lost"), 1u);
  EXPECT_EQ(data.Keys().count("unreachable"), 0u);
  data.Compact(data.Revision());
  WatchReport report;
  store.Watch("", 1, [&](const WatchReport& watched) { report = watched; });
  store.Perform();
  EXPECT_EQ(report.kind, WatchReport::Kind::kCompacted);
  EXPECT_EQ(report.compact_revision, data.Revision());
}

}  // namespace
}  // namespace klv::cluster
