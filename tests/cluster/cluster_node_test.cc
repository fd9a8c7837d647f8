// The awkward interleavings of the cluster's decisions, on the in-memory
// store with its clock: two nodes writing one file at once, replies that
// come after the deadline, a watch that misses a node's death, releases of
// many files at once, and one node's writes of a file that end out of order.
#include "cluster/cluster_node.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "cluster/memory_store.h"

namespace klv::cluster {
namespace {

using Fault = MemoryStore::Fault;
using Verdict = ClusterSeam::Verdict;
constexpr FileKey kFile{1, 2};
constexpr int kDenyAllRead = 4;   // share class read, deny read-write
constexpr int kReadDenyNone = 1;  // share class read, deny none

// One node under test: its store on the shared data, its node, and what its
// lock service holds.
struct Node {
  Node(MemoryData* data, const std::string& name)
      : store(data),
        node(std::make_unique<ClusterNode>(ClusterConfig{{"x"}, "c", name, 2, 1, 300}, &store,
                                           [data] { return data->NowMs(); })) {
    node->SetHoldingsSource([this](const FileKey&) { return held; });
    node->SetFenceHandler([this](const std::string& why) { fenced = why; });
    node->Register([](const std::string& error) { EXPECT_EQ(error, ""); });
  }
  // Asks for share class `share_class` on kFile; the verdict lands in `verdict`.
  void Open(int share_class) {
    verdict.reset();
    node->Publish(kFile, {1u << share_class, {}}, [this, share_class](Verdict decided) {
      verdict = decided;
      if (decided == Verdict::kGranted) held.classes |= 1u << share_class;
    });
  }
  MemoryStore store;
  std::unique_ptr<ClusterNode> node;
  FileHoldings held;
  std::optional<Verdict> verdict;
  std::string fenced;
};

class ClusterNodeTest : public ::testing::Test {
 protected:
  // Moves the clock on by `ms` in steps of 10, each node doing its work.
  void Run(int64_t ms) {
    for (int64_t step = 0; step < ms; step += 10) {
      data_.AdvanceTime(10);
      a_.node->Perform();
      b_.node->Perform();
    }
  }
  MemoryData data_;
  Node a_{&data_, "a"}, b_{&data_, "b"};
};

TEST_F(ClusterNodeTest, OfTwoConflictingWritesAtOnceTheLaterIsDecidedAgainAndRefused) {
  Run(20);
  // Both decide on a view of the empty file; a's write lands before b's.
  a_.store.InjectFaults({{Fault::Kind::kNone, 10, 0}});
  b_.store.InjectFaults({{Fault::Kind::kNone, 20, 0}});
  a_.Open(kDenyAllRead);
  b_.Open(kReadDenyNone);
  Run(100);
  EXPECT_EQ(a_.verdict, Verdict::kGranted);
  EXPECT_EQ(b_.verdict, Verdict::kConflict);
  EXPECT_TRUE(a_.node->Settled(kFile, kDenyAllRead));
}

TEST_F(ClusterNodeTest, ANodeWhoseRepliesComeAfterItsDeadlineFencesAndDecidesNothing) {
  Run(20);
  a_.store.SetStandingFault({Fault::Kind::kNone, 0, 3000});
  a_.Open(kReadDenyNone);
  Run(1900);
  EXPECT_EQ(a_.fenced, "");
  Run(1500);  // past the lease of the last keep-alive answered
  EXPECT_EQ(a_.fenced, "it could not renew its lease in time");
  EXPECT_FALSE(a_.verdict.has_value());
}

TEST_F(ClusterNodeTest, ADeathThatTheWatchMissedStillHoldsTheDeadNodesFileForTheFenceDelay) {
  Run(20);
  a_.Open(kDenyAllRead);
  Run(50);
  ASSERT_EQ(a_.verdict, Verdict::kGranted);
  // a's store goes away, its lease ends, and b's watch is lost meanwhile.
  a_.store.SetStandingFault({Fault::Kind::kUnreachable, 0, 0});
  b_.store.InjectFaults({{Fault::Kind::kNone, 0, 2500}});  // b's next call answers late
  b_.store.LoseWatch();
  Run(2400);
  ASSERT_EQ(data_.Keys().count("/klvlockd/c/nodes/a"), 0u);
  b_.Open(kReadDenyNone);
  Run(300);
  EXPECT_EQ(b_.verdict, Verdict::kConflict);
  Run(1000);  // the fence delay
  b_.Open(kReadDenyNone);
  Run(100);
  EXPECT_EQ(b_.verdict, Verdict::kGranted);
}

TEST_F(ClusterNodeTest, ReleasesOfManyFilesGoOutInFewTransactions) {
  Run(20);
  a_.held.classes = 1u << kDenyAllRead;
  for (uint32_t file = 0; file < 40; ++file) a_.node->Publish({7, file}, {}, nullptr);
  Run(20);
  ASSERT_EQ(data_.Keys().size(), 2u + 40u);  // the nodes and the summaries
  const int64_t before = data_.Revision();
  a_.held = {};
  for (uint32_t file = 0; file < 40; ++file) a_.node->Publish({7, file}, {}, nullptr);
  Run(20);
  EXPECT_EQ(data_.Revision() - before, 3);
  EXPECT_EQ(data_.Keys().size(), 2u);
}

TEST_F(ClusterNodeTest, WritesOfOneFileThatEndInAnotherOrderLeaveTheStoreAsTheNodeHoldsIt) {
  Run(20);
  a_.held.classes = 1u << kReadDenyNone;
  a_.node->Publish(kFile, {}, nullptr);
  Run(20);
  // A lock that is given up while its write goes on, and a release written
  // before it lands but answered after it.
  a_.held = {};
  a_.store.InjectFaults({{Fault::Kind::kNone, 30, 0}, {Fault::Kind::kNone, 0, 50}});
  a_.node->Publish(kFile, {0, {{0, 10, false}}}, [](Verdict) {});
  a_.node->Publish(kFile, {}, nullptr);
  Run(200);
  EXPECT_EQ(data_.Keys().count("/klvlockd/c/files/00000001:00000002/a"), 0u);
  b_.Open(kDenyAllRead);
  Run(50);
  EXPECT_EQ(b_.verdict, Verdict::kGranted);
}

}  // namespace
}  // namespace klv::cluster
