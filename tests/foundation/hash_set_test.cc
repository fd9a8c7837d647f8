#include "foundation/hash_set.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

namespace klv {

namespace {

// Counts idle tests, so that a test can see how much of the purge budget went.
uint32_t idle_tests = 0;

// A table entry keyed by a number; deleting it writes the key into a log.
struct Item {
  Item(uint32_t key_value, bool busy_value, std::vector<uint32_t>* log_value = nullptr)
      : key(key_value), busy(busy_value), deleted(log_value) {}
  ~Item() {
    if (deleted != nullptr) deleted->push_back(key);
  }
  uint32_t key;
  bool busy;
  std::vector<uint32_t>* deleted;
};

// The key is its own hash, as for the wait table.
struct ItemTraits {
  using Key = uint32_t;
  static Key KeyOf(const Item& item) { return item.key; }
  static uint32_t Hash(const Key& key) { return key; }
  static bool Equal(const Key& a, const Key& b) { return a == b; }
  static bool IsIdle(const Item& item) {
    ++idle_tests;
    return !item.busy;
  }
};

// Every key hashes to 0.
struct OneBucketTraits : ItemTraits {
  static uint32_t Hash(const Key&) { return 0; }
};

using Table = HashSet<Item, ItemTraits>;
using TableIterator = HashSetIterator<Item, ItemTraits>;

// Plays back a fixed list of draws in place of the C library's rand.
std::vector<int> draws;
size_t draws_made = 0;
int ScriptedRandom() { return draws[draws_made++ % draws.size()]; }
void ScriptDraws(std::initializer_list<int> script) {
  draws = script;
  draws_made = 0;
  idle_tests = 0;
}

// Inserts new items with `keys`, busy when `busy` says so; they record their
// deletion in `log`.
template <typename Traits>
void InsertItems(HashSet<Item, Traits>* table, std::initializer_list<uint32_t> keys,
                 std::vector<uint32_t>* log, bool busy = false) {
  for (uint32_t key : keys) {
    ASSERT_EQ(table->Insert(new Item(key, busy, log)), InsertResult::kInserted) << key;
  }
}

// The keys in one bucket, in slot order.
template <typename Traits>
std::vector<uint32_t> BucketKeys(const HashSet<Item, Traits>& table, uint32_t index) {
  std::vector<uint32_t> keys;
  const SlotVector<Item*>& bucket = table.BucketAt(index);
  for (uint32_t slot = 0; slot < bucket.Count(); ++slot) keys.push_back(bucket[slot]->key);
  return keys;
}

// The keys in iteration order.
template <typename Traits>
std::vector<uint32_t> IteratedKeys(const HashSet<Item, Traits>& table) {
  std::vector<uint32_t> keys;
  for (HashSetIterator<Item, Traits> it(table); it.Advance();) keys.push_back(it.Current()->key);
  return keys;
}

using Keys = std::vector<uint32_t>;

TEST(HashSet, NewSet) {
  const Table table(4, 0);
  EXPECT_EQ(table.BucketCount(), 4u);
  EXPECT_EQ(table.Size(), 0u);
  EXPECT_EQ(table.GrowAt(), 12u);
  EXPECT_EQ(table.BitsLeft(), 28u);
  EXPECT_EQ(table.Mask(), 2u);
  EXPECT_EQ(table.PurgeLimit(), 0u);

  const Table larger(16, 7);
  EXPECT_EQ(larger.Mask(), 2u);  // whatever the bucket count
  EXPECT_EQ(larger.GrowAt(), 48u);
  EXPECT_EQ(larger.PurgeLimit(), 7u);
}

TEST(HashSet, MaskTwoUsesBucketsZeroAndTwo) {
  Table table(4, 0);
  std::vector<uint32_t> log;
  InsertItems(&table, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, &log);
  EXPECT_EQ(table.BucketCount(), 4u);
  EXPECT_EQ(BucketKeys(table, 0), (Keys{0, 1, 4, 5, 8, 9}));
  EXPECT_EQ(BucketKeys(table, 1), Keys{});
  EXPECT_EQ(BucketKeys(table, 2), (Keys{2, 3, 6, 7, 10, 11}));
  EXPECT_EQ(BucketKeys(table, 3), Keys{});
  EXPECT_EQ(IteratedKeys(table), (Keys{0, 1, 4, 5, 8, 9, 2, 3, 6, 7, 10, 11}));
  table.DeleteAll();
}

TEST(HashSet, ThirteenthInsertionGrows) {
  Table table(4, 0);
  std::vector<uint32_t> log;
  // 32, 0 and 16 share bucket 0 before and after the growth (bits 0, 1 and 3
  // clear); 1, 5, 17 go to bucket 0 first, then to bucket 1.
  InsertItems(&table, {32, 1, 0, 5, 16, 17, 2, 3, 6, 7, 10, 11}, &log);
  EXPECT_EQ(table.BucketCount(), 4u);
  EXPECT_EQ(BucketKeys(table, 0), (Keys{32, 1, 0, 5, 16, 17}));

  InsertItems(&table, {8}, &log);
  EXPECT_EQ(table.BucketCount(), 16u);
  EXPECT_EQ(table.Mask(), 11u);
  EXPECT_EQ(table.GrowAt(), 48u);
  EXPECT_EQ(table.BitsLeft(), 26u);
  EXPECT_EQ(table.Size(), 13u);
  // key & 11: old bucket 0 first, in slot order, then old bucket 2, then 8.
  EXPECT_EQ(BucketKeys(table, 0), (Keys{32, 0, 16}));
  EXPECT_EQ(BucketKeys(table, 1), (Keys{1, 5, 17}));
  EXPECT_EQ(BucketKeys(table, 2), (Keys{2, 6}));
  EXPECT_EQ(BucketKeys(table, 3), (Keys{3, 7}));
  EXPECT_EQ(BucketKeys(table, 8), (Keys{8}));
  EXPECT_EQ(BucketKeys(table, 10), (Keys{10}));
  EXPECT_EQ(BucketKeys(table, 11), (Keys{11}));
  EXPECT_EQ(IteratedKeys(table), (Keys{32, 0, 16, 1, 5, 17, 2, 6, 3, 7, 8, 10, 11}));
  for (uint32_t key : {32u, 0u, 16u, 1u, 5u, 17u, 2u, 6u, 3u, 7u, 8u, 10u, 11u}) {
    ASSERT_NE(table.Find(key), nullptr) << key;
  }
  table.DeleteAll();
}

TEST(HashSet, SecondGrowthAtFortyNine) {
  Table table(4, 0);
  std::vector<uint32_t> log;
  for (uint32_t key = 0; key < 48; ++key) InsertItems(&table, {key}, &log);
  EXPECT_EQ(table.BucketCount(), 16u);
  InsertItems(&table, {48}, &log);
  EXPECT_EQ(table.BucketCount(), 64u);
  EXPECT_EQ(table.Mask(), 47u);
  EXPECT_EQ(table.GrowAt(), 192u);
  EXPECT_EQ(table.BitsLeft(), 24u);
  // 47 is binary 101111: 16 and 48 lose bit 4, joining 0 and 32.
  EXPECT_EQ(BucketKeys(table, 0), (Keys{0, 16}));
  EXPECT_EQ(BucketKeys(table, 32), (Keys{32, 48}));
  EXPECT_EQ(BucketKeys(table, 47), (Keys{47}));
  EXPECT_EQ(BucketKeys(table, 16), Keys{});
  table.DeleteAll();
  EXPECT_EQ(log.size(), 49u);
}

TEST(HashSet, InsertOfPresentKeyKeepsTheOldElement) {
  Table table(4, 0);
  Item first(5, false);
  Item second(5, true);
  EXPECT_EQ(table.Insert(&first), InsertResult::kInserted);
  EXPECT_EQ(table.Insert(&second), InsertResult::kAlreadyPresent);
  EXPECT_EQ(table.Size(), 1u);
  EXPECT_EQ(table.Find(5), &first);
  EXPECT_EQ(table.BucketAt(0).Count(), 1u);
}

TEST(HashSet, AbsentKeys) {
  Table table(4, 0);
  Item item(4, false);
  ASSERT_EQ(table.Insert(&item), InsertResult::kInserted);
  EXPECT_EQ(table.Find(0), nullptr);  // same bucket, other key
  EXPECT_EQ(table.Find(6), nullptr);
  EXPECT_FALSE(table.Remove(0));
  EXPECT_EQ(table.Size(), 1u);
  EXPECT_TRUE(table.Remove(4));
  EXPECT_FALSE(table.Remove(4));
  EXPECT_EQ(table.Size(), 0u);
}

TEST(HashSet, RemoveAmidCollisions) {
  Table table(4, 0);
  Item zero(0, false), four(4, false), eight(8, false);
  for (Item* item : {&zero, &four, &eight}) table.Insert(item);
  EXPECT_TRUE(table.Remove(0));
  EXPECT_EQ(BucketKeys(table, 0), (Keys{4, 8}));
  EXPECT_EQ(table.BucketAt(0).Count(), 2u);
  EXPECT_EQ(table.Find(4), &four);
  EXPECT_EQ(table.Find(8), &eight);
  EXPECT_EQ(table.Find(0), nullptr);
  EXPECT_EQ(table.Size(), 2u);
}

TEST(HashSet, EveryKeyInOneBucket) {
  HashSet<Item, OneBucketTraits> table(4, 0);
  std::vector<uint32_t> log;
  for (uint32_t key = 0; key < 100; ++key) InsertItems(&table, {key * 7}, &log);
  EXPECT_EQ(table.BucketCount(), 64u);  // grown at the 13th and the 49th
  EXPECT_EQ(table.BucketAt(0).Count(), 100u);
  for (uint32_t key = 0; key < 100; key += 2) {
    Item* item = table.Find(key * 7);
    ASSERT_NE(item, nullptr) << key;
    ASSERT_TRUE(table.Remove(key * 7)) << key;
    delete item;
  }
  std::vector<uint32_t> expected;
  for (uint32_t key = 1; key < 100; key += 2) {
    EXPECT_NE(table.Find(key * 7), nullptr) << key;
    expected.push_back(key * 7);
  }
  EXPECT_EQ(IteratedKeys(table), expected);
  EXPECT_EQ(table.Size(), 50u);
  table.DeleteAll();
  EXPECT_EQ(log.size(), 100u);
}

TEST(HashSet, InsertRemovePairsDoNotGrow) {
  Table table(4, 0);
  Item resident_a(1, false), resident_b(2, false), moving(0, false);
  table.Insert(&resident_a);
  table.Insert(&resident_b);
  const uint32_t capacity_0 = table.BucketAt(0).Capacity();
  const uint32_t capacity_2 = table.BucketAt(2).Capacity();
  for (uint32_t round = 0; round < 10000; ++round) {
    moving.key = 100 + round;
    ASSERT_EQ(table.Insert(&moving), InsertResult::kInserted) << round;
    ASSERT_TRUE(table.Remove(100 + round)) << round;
  }
  EXPECT_EQ(table.Size(), 2u);
  EXPECT_EQ(table.BucketCount(), 4u);
  EXPECT_EQ(table.BucketAt(0).Capacity(), capacity_0);
  EXPECT_EQ(table.BucketAt(2).Capacity(), capacity_2);
  EXPECT_EQ(IteratedKeys(table), (Keys{1, 2}));
}

TEST(HashSet, IterationOfEmptySetEndsAtOnce) {
  const Table table(4, 0);
  TableIterator it(table);
  EXPECT_FALSE(it.Advance());
  EXPECT_FALSE(it.Advance());
}

TEST(HashSet, IterationStoppedEarlyReleasesItsBucketIterator) {
  Table table(4, 0);
  Item a(0, false), b(4, false);
  table.Insert(&a);
  table.Insert(&b);
  TableIterator it(table);
  ASSERT_TRUE(it.Advance());
  EXPECT_EQ(it.Current(), &a);
  EXPECT_EQ(it.BucketIndex(), 0u);
}

TEST(HashSet, PurgeBelowLimitRemovesNothing) {
  Table table(4, 6);
  std::vector<uint32_t> log;
  InsertItems(&table, {0, 1, 2, 3, 4}, &log);
  ScriptDraws({0});
  EXPECT_FALSE(table.Purge(&ScriptedRandom));
  EXPECT_EQ(table.Size(), 5u);
  EXPECT_EQ(draws_made, 0u);
  EXPECT_EQ(idle_tests, 0u);
  EXPECT_TRUE(log.empty());
  table.DeleteAll();

  Table empty(4, 0);
  EXPECT_FALSE(empty.Purge());  // nothing above half of 0: no draw of rand
}

TEST(HashSet, PurgeOfAllBusyStopsWhenBudgetIsSpent) {
  Table table(4, 6);  // budget 6 / 2 + 1 = 4
  std::vector<uint32_t> log;
  InsertItems(&table, {0, 1, 4, 5, 8, 9}, &log, /*busy=*/true);
  ScriptDraws({2, 0});
  // From bucket 2: buckets 2 and 3 are empty (4 -> 2). From bucket 0: keys 0
  // and 1 are tested (2 -> 0).
  EXPECT_FALSE(table.Purge(&ScriptedRandom));
  EXPECT_EQ(draws_made, 2u);
  EXPECT_EQ(idle_tests, 2u);
  EXPECT_EQ(table.Size(), 6u);
  EXPECT_TRUE(log.empty());
  table.DeleteAll();

  Table both(4, 8);  // budget 5
  InsertItems(&both, {0, 1, 4, 5, 2, 3, 6, 7}, &log, /*busy=*/true);
  ScriptDraws({1});  // 1 & 2 = 0: four tests in bucket 0, empty bucket 1
  EXPECT_FALSE(both.Purge(&ScriptedRandom));
  EXPECT_EQ(draws_made, 1u);
  EXPECT_EQ(idle_tests, 4u);
  both.DeleteAll();
}

TEST(HashSet, PurgeRemovesOnlyIdle) {
  Table table(4, 10);  // budget 6, down to 5 elements at most
  std::vector<uint32_t> log;
  InsertItems(&table, {0, 1}, &log, /*busy=*/true);
  InsertItems(&table, {4, 5}, &log);
  InsertItems(&table, {8, 2}, &log, /*busy=*/true);
  InsertItems(&table, {3, 6}, &log);
  InsertItems(&table, {7}, &log, /*busy=*/true);
  InsertItems(&table, {10}, &log);
  ASSERT_EQ(BucketKeys(table, 0), (Keys{0, 1, 4, 5, 8}));
  ASSERT_EQ(BucketKeys(table, 2), (Keys{2, 3, 6, 7, 10}));
  ScriptDraws({2, 0});
  // From bucket 2: 2 busy, 3 idle and deleted; bucket 3 empty (6 -> 3).
  // From bucket 0: 0 and 1 busy, 4 idle and deleted (3 -> 0).
  EXPECT_TRUE(table.Purge(&ScriptedRandom));
  EXPECT_EQ(log, (Keys{3, 4}));
  EXPECT_EQ(draws_made, 2u);
  EXPECT_EQ(idle_tests, 5u);
  EXPECT_EQ(table.Size(), 8u);
  EXPECT_EQ(BucketKeys(table, 0), (Keys{0, 1, 5, 8}));
  EXPECT_EQ(BucketKeys(table, 2), (Keys{2, 6, 7, 10}));
  EXPECT_EQ(table.Find(3), nullptr);
  table.DeleteAll();
}

TEST(HashSet, PurgeTakesAtMostOnePerBucketPerPass) {
  Table table(4, 5);  // budget 3
  std::vector<uint32_t> log;
  InsertItems(&table, {0, 1, 4, 2, 3}, &log);
  ScriptDraws({0});
  // Bucket 0 gives up 0, empty bucket 1 costs one, bucket 2 gives up 2.
  EXPECT_TRUE(table.Purge(&ScriptedRandom));
  EXPECT_EQ(log, (Keys{0, 2}));
  EXPECT_EQ(draws_made, 1u);
  EXPECT_EQ(BucketKeys(table, 0), (Keys{1, 4}));
  EXPECT_EQ(BucketKeys(table, 2), (Keys{3}));
  EXPECT_EQ(table.Size(), 3u);
  table.DeleteAll();
}

TEST(HashSet, PurgeStopsAtHalfTheLimit) {
  Table table(3, 4);  // three buckets: bucket 2 is the last; budget 3
  std::vector<uint32_t> log;
  InsertItems(&table, {2, 3, 6, 7}, &log);
  ScriptDraws({2});
  // Each pass deletes the first element of bucket 2 for one unit; after two
  // passes the size is 2, half the limit, with one unit left.
  EXPECT_TRUE(table.Purge(&ScriptedRandom));
  EXPECT_EQ(log, (Keys{2, 3}));
  EXPECT_EQ(draws_made, 2u);
  EXPECT_EQ(idle_tests, 2u);
  EXPECT_EQ(BucketKeys(table, 2), (Keys{6, 7}));
  table.DeleteAll();
}

TEST(HashSet, PurgeWalksEveryBucketPastTheMask) {
  Table table(4, 13);  // budget 7
  std::vector<uint32_t> log;
  InsertItems(&table, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, &log, /*busy=*/true);
  InsertItems(&table, {11}, &log);
  InsertItems(&table, {12}, &log, /*busy=*/true);
  ASSERT_EQ(table.BucketCount(), 16u);
  ScriptDraws({0x7fffffff});  // & 11 = 11
  // Pass 1: 11 is deleted, buckets 12 to 15 are empty (7 -> 2). Pass 2:
  // buckets 11 and 12 are now empty (2 -> 0).
  EXPECT_TRUE(table.Purge(&ScriptedRandom));
  EXPECT_EQ(log, (Keys{11}));
  EXPECT_EQ(draws_made, 2u);
  EXPECT_EQ(idle_tests, 1u);
  EXPECT_EQ(table.Size(), 12u);
  table.DeleteAll();
}

TEST(HashSet, DeleteAllDeletesEveryElement) {
  Table table(4, 0);
  std::vector<uint32_t> log;
  InsertItems(&table, {6, 1, 4, 3}, &log);
  table.DeleteAll();
  EXPECT_EQ(log, (Keys{1, 4, 6, 3}));  // bucket 0, then bucket 2
  EXPECT_EQ(table.Size(), 0u);
  EXPECT_EQ(IteratedKeys(table), Keys{});
}

}  // namespace

}  // namespace klv
