// The hash set and the slot vector against the standard containers: long
// runs of random operations with a fixed seed must agree at every step.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "foundation/hash_set.h"
#include "foundation/ref_string.h"
#include "foundation/slot_vector.h"

namespace klv {

namespace {

struct Item {
  uint32_t key;
  bool idle;
};

// `kSpread` 0 sends every key to one bucket.
template <uint32_t kSpread>
struct ItemTraits {
  using Key = uint32_t;
  static Key KeyOf(const Item& item) { return item.key; }
  static uint32_t Hash(Key key) { return key * kSpread; }
  static bool Equal(Key a, Key b) { return a == b; }
  static bool IsIdle(const Item& item) { return item.idle; }
};

// Inserts, finds and removes at random; then purges, which delete idle
// elements only.
template <typename Traits>
void AgreesWithAStandardMap() {
  std::mt19937 random(7);
  HashSet<Item, Traits> set(4, 0);
  std::map<uint32_t, Item*> model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t key = random() % 400;
    Item* found = set.Find(key);
    ASSERT_EQ(found, model.count(key) ? model[key] : nullptr) << "step " << step;
    if (random() % 5 < 3) {  // an insertion keeps the element of a present key
      Item* item = new Item{key, random() % 2 == 0};
      ASSERT_EQ(set.Insert(item) == InsertResult::kInserted, found == nullptr);
      if (found == nullptr) model[key] = item;
      if (found != nullptr) delete item;
    } else {
      ASSERT_EQ(set.Remove(key), found != nullptr);
      model.erase(key);
      delete found;
    }
    ASSERT_EQ(set.Size(), model.size());
  }
  std::set<uint32_t> seen, busy;
  for (HashSetIterator<Item, Traits> it(set); it.Advance();) {
    EXPECT_TRUE(seen.insert(it.Current()->key).second);
  }
  EXPECT_EQ(seen.size(), model.size());
  for (const auto& [key, item] : model) {
    if (!item->idle) busy.insert(key);
  }
  for (int purge = 0; purge < 1000; ++purge) {
    set.SetPurgeLimit(set.Size());
    set.Purge([&random] { return static_cast<uint32_t>(random()); });
  }
  seen.clear();
  for (HashSetIterator<Item, Traits> it(set); it.Advance();) seen.insert(it.Current()->key);
  EXPECT_TRUE(std::includes(seen.begin(), seen.end(), busy.begin(), busy.end()));
  EXPECT_LT(seen.size(), model.size());
  set.DeleteAll();
}

TEST(HashSet, AgreesWithAStandardMap) { AgreesWithAStandardMap<ItemTraits<1>>(); }
TEST(HashSet, AgreesWithAStandardMapWhenEveryKeySharesABucket) {
  AgreesWithAStandardMap<ItemTraits<0>>();
}

TEST(SlotVector, AgreesWithAStandardVector) {
  std::mt19937 random(11);
  SlotVector<RefString> vector;
  std::vector<std::string> model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t slot =
        model.empty() || random() % 8 < 5 ? model.size() : random() % model.size();
    if (slot == model.size()) {
      vector.Append(RefString(std::to_string(step).c_str()));
      model.push_back(std::to_string(step));
    } else {
      vector.RemoveAt(slot);
      model.erase(model.begin() + slot);
    }
  }
  std::vector<std::string> visited;
  for (SlotVectorIterator<RefString> it(vector); it.Advance();)
    visited.push_back(it.Current().Text());
  EXPECT_EQ(visited, model);
  EXPECT_EQ(vector.Count(), model.size());
}

}  // namespace

}  // namespace klv
