#include "foundation/slot_vector.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/ref_string.h"

namespace klv {

namespace {

// A lock-list style record held inline.
struct Record {
  uint32_t id = 0;
  std::vector<uint32_t> ranges;
  RefString name;
};

// An element that writes its id into a shared log when it is deleted.
struct Logged {
  Logged(uint32_t id_value, std::vector<uint32_t>* log_value) : id(id_value), log(log_value) {}
  ~Logged() { log->push_back(id); }
  uint32_t id;
  std::vector<uint32_t>* log;
};

// The elements in slots 0 to Count() - 1.
std::vector<uint32_t> Contents(const SlotVector<uint32_t>& vector) {
  return std::vector<uint32_t>(vector.begin(), vector.end());
}

TEST(SlotVector, NewVectorIsEmpty) {
  const SlotVector<uint32_t> vector;
  EXPECT_EQ(vector.Count(), 0u);
  EXPECT_EQ(vector.Capacity(), 0u);
  EXPECT_TRUE(vector.IsEmpty());
}

TEST(SlotVector, AppendKeepsOrderThroughGrowth) {
  SlotVector<uint32_t> vector;
  std::vector<uint32_t> model;
  for (uint32_t n = 1; n <= 35; ++n) {
    vector.Append(n * 100);
    model.push_back(n * 100);
    ASSERT_EQ(Contents(vector), model) << "after append " << n;
  }
}

TEST(SlotVector, RemoveFirstOfThreeClosesTheGap) {
  SlotVector<uint32_t> vector;
  vector.Append(11);
  vector.Append(22);
  vector.Append(33);
  vector.RemoveAt(0);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{22, 33}));
  EXPECT_EQ(vector.Count(), 2u);
}

TEST(SlotVector, RemoveMiddleAndLast) {
  SlotVector<uint32_t> vector;
  for (uint32_t n = 1; n <= 5; ++n) vector.Append(n);
  vector.RemoveAt(2);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{1, 2, 4, 5}));
  vector.RemoveAt(3);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{1, 2, 4}));
  vector.RemoveAt(0);
  vector.RemoveAt(0);
  vector.RemoveAt(0);
  EXPECT_TRUE(vector.IsEmpty());
  EXPECT_EQ(vector.Capacity(), 0u);  // an emptied vector holds no memory
}

TEST(SlotVector, StaysCompactThroughMixedOperations) {
  SlotVector<uint32_t> vector;
  std::vector<uint32_t> model;
  uint32_t state = 12345;
  // A fixed linear congruential sequence picks the operations: about two
  // appends for each removal, so the vector grows well past its first array.
  for (uint32_t step = 0; step < 3000; ++step) {
    state = state * 1103515245u + 12345u;
    const uint32_t draw = state >> 16;
    if (draw % 3 != 0 || model.empty()) {
      vector.Append(step);
      model.push_back(step);
    } else {
      const uint32_t slot = draw % static_cast<uint32_t>(model.size());
      vector.RemoveAt(slot);
      model.erase(model.begin() + slot);
    }
    ASSERT_EQ(Contents(vector), model) << "step " << step;
  }
  EXPECT_GT(vector.Count(), 256u);
}

TEST(SlotVector, RemoveWhereKeepsTheOthersInOrder) {
  SlotVector<uint32_t> vector;
  for (uint32_t n = 0; n < 12; ++n) vector.Append(n);
  EXPECT_EQ(vector.RemoveWhere([](uint32_t n) { return n % 3 == 0; }), 4u);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{1, 2, 4, 5, 7, 8, 10, 11}));
  vector.Clear(ClearMode::kKeepElements);
  EXPECT_TRUE(vector.IsEmpty());
  vector.Append(7);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{7}));
}

TEST(SlotVector, ClearDeletesPointerElementsInSlotOrder) {
  std::vector<uint32_t> log;
  SlotVector<Logged*> vector;
  for (uint32_t id : {5u, 3u, 9u, 1u}) vector.Append(new Logged(id, &log));
  Logged* removed = vector[1];
  vector.RemoveAt(1);  // taken out of the vector, not deleted
  EXPECT_TRUE(log.empty());
  vector.Clear(ClearMode::kDeleteElements);
  EXPECT_EQ(log, (std::vector<uint32_t>{5, 9, 1}));
  EXPECT_TRUE(vector.IsEmpty());
  delete removed;

  std::vector<uint32_t> kept_log;
  Logged kept(8, &kept_log);
  {
    SlotVector<Logged*> keeping;
    keeping.Append(&kept);
    keeping.Clear(ClearMode::kKeepElements);
  }
  EXPECT_TRUE(kept_log.empty());
}

TEST(SlotVector, ResizeKeepsTheSmallerNumberOfSlots) {
  SlotVector<uint32_t> vector;
  for (uint32_t n = 1; n <= 5; ++n) vector.Append(n * 10);
  vector.Resize(30);
  EXPECT_EQ(vector.Capacity(), 30u);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{10, 20, 30, 40, 50}));
  vector.Resize(5);
  EXPECT_EQ(vector.Capacity(), 5u);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{10, 20, 30, 40, 50}));
  vector.Append(60);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{10, 20, 30, 40, 50, 60}));

  // A shrink below Count() drops the cut-off elements.
  vector.Resize(2);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{10, 20}));
  vector.Resize(0);
  EXPECT_EQ(vector.Capacity(), 0u);
  EXPECT_TRUE(vector.IsEmpty());
}

TEST(SlotVector, RecordsAreHeldWhole) {
  const RefString name("alpha", 5);
  SlotVector<Record> vector;
  for (uint32_t id = 1; id <= 12; ++id) vector.Append(Record{id, {id, id * 2}, name});
  EXPECT_EQ(name.References(), 13u);
  EXPECT_EQ(vector[11].ranges, (std::vector<uint32_t>{12, 24}));  // kept across growth

  vector.RemoveAt(0);
  EXPECT_EQ(vector[0].id, 2u);
  EXPECT_EQ(vector[10].ranges, (std::vector<uint32_t>{12, 24}));
  // The vacated last slot lets go of what it held.
  EXPECT_EQ(name.References(), 12u);

  vector.Clear(ClearMode::kKeepElements);
  EXPECT_EQ(name.References(), 1u);
}

}  // namespace

}  // namespace klv
