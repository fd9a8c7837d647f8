#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cluster/etcd_store.h"
#include "cluster/memory_store.h"
#include "gtest/gtest.h"

namespace klv::cluster {
namespace {

// The store's own stories that the daemon's tests do not tell: the move to
// the next endpoint when one refuses (against the etcd that
// tests/cluster/with_etcd.sh starts and names in KLV_ETCD_ENDPOINT), and the
// in-memory store's injected faults and compaction. Transactions, leases and
// the watch are exercised through the daemons in cluster_test.sh and
// fencing_test, and through the node in cluster_node_test.

// Runs `store` from a select loop, as the daemon does, until `done` holds or
// 5 seconds have passed.
bool RunUntil(Store* store, const std::function<bool()>& done) {
  for (int waited = 0; waited < 5000 && !done(); waited += 10) {
    fd_set readable, writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    int max_fd = -1;
    store->AddDescriptors(&readable, &writable, &max_fd);
    timeval timeout = {0, 10000};
    select(max_fd + 1, &readable, &writable, nullptr, &timeout);
    store->Perform();
  }
  return done();
}

TEST(EtcdStore, UnreachableEndpointFailsOverToTheNext) {
  const char* endpoint = getenv("KLV_ETCD_ENDPOINT");
  ASSERT_NE(endpoint, nullptr) << "run the test under tests/cluster/with_etcd.sh";
  // A bound port that does not listen refuses connections.
  const int closed = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(closed, reinterpret_cast<sockaddr*>(&address), length), 0);
  getsockname(closed, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string refused = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  for (const auto& endpoints : {std::vector<std::string>{refused, endpoint}, {refused}}) {
    EtcdStore store(endpoints);
    std::optional<StoreResult> outcome;
    store.Range("/t", {}, [&](const StoreResult& result, const RangeResult&) { outcome = result; });
    EXPECT_TRUE(RunUntil(&store, [&] { return outcome.has_value(); }));
    EXPECT_EQ(outcome->status,
              endpoints.size() == 2 ? StoreStatus::kDone : StoreStatus::kUnreachable);
    EXPECT_EQ(store.Endpoint(), endpoints.back());
  }
  close(closed);
}

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
