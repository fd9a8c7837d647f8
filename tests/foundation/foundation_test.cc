// The foundation's units with behaviour of their own: the hash set, the slot
// vector and the bit set against the standard containers (long runs of random
// operations with a fixed seed must agree at every step), and the time stamps.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "foundation/bit_set.h"
#include "foundation/hash_set.h"
#include "foundation/output_stream.h"
#include "foundation/ref_string.h"
#include "foundation/slot_vector.h"
#include "foundation/time_stamp.h"

namespace klv {

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

// Every element that an iteration visits, each once.
template <typename Traits>
std::map<uint32_t, Item*> Visit(const HashSet<Item, Traits>& set) {
  std::map<uint32_t, Item*> visited;
  for (HashSetIterator<Item, Traits> it(set); it.Advance();) {
    EXPECT_TRUE(visited.emplace(it.Current()->key, it.Current()).second);
  }
  return visited;
}

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
  EXPECT_EQ(Visit(set), model);
  const uint32_t before = set.Size();
  std::erase_if(model, [](const auto& entry) { return entry.second->idle; });
  for (int purge = 0; purge < 200; ++purge) {
    set.SetPurgeLimit(set.Size());
    set.Purge([&random] { return static_cast<uint32_t>(random()); });
  }
  std::map<uint32_t, Item*> remaining = Visit(set);
  EXPECT_LT(remaining.size(), before);
  std::erase_if(remaining, [](const auto& entry) { return entry.second->idle; });
  EXPECT_EQ(remaining, model);
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
    if (model.empty() || random() % 8 < 5) {
      vector.Append(RefString(std::to_string(step).c_str()));
      model.push_back(std::to_string(step));
    } else {
      const uint32_t slot = random() % model.size();
      vector.RemoveAt(slot);
      model.erase(model.begin() + slot);
    }
  }
  std::vector<std::string> visited;
  for (const RefString& element : vector) visited.push_back(element.Text());
  EXPECT_EQ(visited, model);
}

// A set that starts small grows to take any bit; a copy takes the bits of a
// larger set and clears those a smaller one lacks.
TEST(RefString, EqualsItsCopyAndAnEqualTextButNotAnother) {
  const RefString name("alice"), copy = name, other("alicE");
  EXPECT_TRUE(name == copy && name == RefString("alice") && name.Equals("alice"));
  EXPECT_FALSE(name == other || name.Equals("alic"));
}

TEST(BitSet, AgreesWithAStandardSet) {
  std::mt19937 random(5);
  BitSet bits(16), copy(8);
  std::set<uint32_t> model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t bit = random() % 2048;
    if (random() % 2 == 0) {
      bits.Set(bit);
      model.insert(bit);
    } else {
      bits.Clear(bit);
      model.erase(bit);
    }
    ASSERT_EQ(bits.Test(bit), model.count(bit) == 1) << bit;
  }
  bits.Set(70000);  // grows past every bit drawn, keeping them
  model.insert(70000);
  copy.Set(80000);
  copy.CopyFrom(bits);
  for (uint32_t bit = 0; bit <= 80000; ++bit) {
    ASSERT_EQ(bits.Test(bit), model.count(bit) == 1) << bit;
    ASSERT_EQ(copy.Test(bit), model.count(bit) == 1) << bit;
  }
  EXPECT_FALSE(BitSet(16).Test(5000));
  // select reads WordCount() * 32 bits: every bit set or cleared lies inside,
  // also the first bit past the last word.
  for (uint32_t word = 1; word < 8; ++word) {
    BitSet grown(0);
    grown.Set(32 * word - 1);
    const uint32_t next = grown.WordCount() * 32;
    grown.Clear(next);
    EXPECT_GT(grown.WordCount() * 32, next);
  }
}

TEST(TimeStamp, WrittenAsLocalTimeWithTruncatedMilliseconds) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::tuple<uint32_t, uint32_t, std::string> kCases[] = {
      {1000000000, 999999, "2001/09/09 01:46:40.999"},
      {1000000000, 1000, "2001/09/09 01:46:40.001"},
      {1000000000, 999, "2001/09/09 01:46:40.000"},
      {1000000001, 4000, "2001/09/09 01:46:41.004"},
      {1000000000, 2500000, "2001/09/09 01:46:42.500"},  // not normalised
      {7, 0, "1970/01/01 00:00:07.000"}};
  for (const auto& [seconds, microseconds, text] : kCases) {
    TextBuilder out;
    out << TimeStamp{seconds, microseconds};
    EXPECT_EQ(out.Bytes().Text(), text);
  }
}

}  // namespace klv
