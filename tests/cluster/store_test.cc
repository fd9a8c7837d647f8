#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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
      return;
    }
    const char* endpoint = getenv("KLV_ETCD_ENDPOINT");
    ASSERT_NE(endpoint, nullptr) << "run the test under tests/cluster/with_etcd.sh";
    endpoint_ = endpoint;
    store_ = std::make_unique<EtcdStore>(std::vector<std::string>{endpoint_});
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
      const long store_ms = store_->TimeoutMs();
      timeval timeout = {0, 1000 * (store_ms >= 0 && store_ms < 10 ? store_ms : 10)};
      select(max_fd + 1, &readable, &writable, nullptr, &timeout);
      data_.AdvanceTime(10);
      store_->Perform();
    }
    return done();
  }

  TransactionResult Commit(const Transaction& transaction) {
    TransactionResult result;
    bool ended = false;
    store_->Commit(transaction, [&](const StoreResult& outcome, const TransactionResult& reply) {
      EXPECT_TRUE(outcome.Done()) << outcome.failure;
      result = reply, ended = true;
    });
    EXPECT_TRUE(RunUntil([&] { return ended; }));
    return result;
  }
  RangeResult Read(const std::string& key) {
    RangeResult result;
    bool ended = false;
    store_->Range(key, {}, [&](const StoreResult& outcome, const RangeResult& reply) {
      EXPECT_TRUE(outcome.Done()) << outcome.failure;
      result = reply, ended = true;
    });
    EXPECT_TRUE(RunUntil([&] { return ended; }));
    return result;
  }
  LeaseResult Lease(int64_t renew_id = 0) {
    LeaseResult result;
    auto done = [&](const StoreResult& outcome, const LeaseResult& reply) {
      EXPECT_TRUE(outcome.Done()) << outcome.failure;
      result = reply;
    };
    renew_id == 0 ? store_->GrantLease(2, done) : store_->KeepAlive(renew_id, done);
    EXPECT_TRUE(RunUntil([&] { return result.id != 0; }));
    return result;
  }

  MemoryData data_;
  std::unique_ptr<Store> store_;
  std::string prefix_, endpoint_;
};

TEST_P(StoreTest, FailedCompareRunsFailureBranch) {
  const std::string key = prefix_ + "/a";
  const Transaction create = {{Compare::VersionIs(key, 0)},
                              {Operation::Put(key, "first")},
                              {Operation::Get(key)}};
  EXPECT_TRUE(Commit(create).succeeded);
  const TransactionResult again = Commit(create);
  EXPECT_FALSE(again.succeeded);
  ASSERT_EQ(again.results.size(), 1u);
  ASSERT_EQ(again.results[0].kvs.size(), 1u);
  EXPECT_EQ(again.results[0].kvs[0].value, "first");
  EXPECT_EQ(again.results[0].kvs[0].version, 1);
}

TEST_P(StoreTest, LeasedKeysEndWithTheirLease) {
  const LeaseResult revoked = Lease(), expiring = Lease();
  Commit({{}, {Operation::Put(prefix_ + "/r", "x", revoked.id),
               Operation::Put(prefix_ + "/e", "x", expiring.id)}, {}});
  EXPECT_GT(Lease(revoked.id).ttl_s, 0);
  bool ended = false;
  store_->RevokeLease(revoked.id, [&](const StoreResult& outcome) { ended = outcome.Done(); });
  ASSERT_TRUE(RunUntil([&] { return ended; }));
  EXPECT_TRUE(Read(prefix_ + "/r").kvs.empty());
  EXPECT_EQ(Lease(revoked.id).ttl_s, 0);
  EXPECT_EQ(Read(prefix_ + "/e").kvs.size(), 1u);
  EXPECT_TRUE(RunUntil([&] { return Read(prefix_ + "/e").kvs.empty(); }, 8000));
}

TEST_P(StoreTest, WatchSeesPutAndDeleteInOrder) {
  std::vector<WatchEvent> events;
  store_->Watch(prefix_, Read(prefix_).revision + 1, [&](const WatchReport& report) {
    ASSERT_EQ(report.kind, WatchReport::Kind::kEvents) << report.failure;
    events.insert(events.end(), report.events.begin(), report.events.end());
  });
  Commit({{}, {Operation::Put(prefix_ + "/w", "1")}, {}});
  Commit({{}, {Operation::Delete(prefix_, PrefixEnd(prefix_))}, {}});
  ASSERT_TRUE(RunUntil([&] { return events.size() >= 2; }));
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].type, WatchEvent::Type::kPut);
  EXPECT_EQ(events[0].kv.value, "1");
  EXPECT_EQ(events[1].type, WatchEvent::Type::kDelete);
  EXPECT_EQ(events[1].kv.key, prefix_ + "/w");
  EXPECT_GT(events[1].kv.mod_revision, events[0].kv.mod_revision);
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
  store_->Range(prefix_, {}, [&](const StoreResult& result, const RangeResult&) { outcome = result; });
  EXPECT_TRUE(RunUntil([&] { return outcome.status != StoreStatus::kDone; }));
  EXPECT_EQ(outcome.status, StoreStatus::kUnreachable);
  close(closed);
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreTest, testing::Values("etcd", "memory"));

}  // namespace
}  // namespace klv::cluster
