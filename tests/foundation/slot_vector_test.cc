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

// The elements in slots 0 to End() - 1.
std::vector<uint32_t> Contents(const SlotVector<uint32_t>& vector) {
  std::vector<uint32_t> contents;
  for (uint32_t slot = 0; slot < vector.End(); ++slot) contents.push_back(vector[slot]);
  return contents;
}

// The vector invariant: elements in slots 0 to Count() - 1 with their bits
// set, every later bit clear, End() == Count().
template <typename T>
::testing::AssertionResult Compact(const SlotVector<T>& vector) {
  if (vector.End() != vector.Count()) {
    return ::testing::AssertionFailure() << "end " << vector.End() << " count " << vector.Count();
  }
  const uint32_t bits = vector.Present().WordCount() * 32;
  for (uint32_t slot = 0; slot < bits; ++slot) {
    if (vector.IsPresent(slot) != (slot < vector.Count())) {
      return ::testing::AssertionFailure() << "bit " << slot << " with count " << vector.Count();
    }
  }
  return ::testing::AssertionSuccess();
}

TEST(SlotVector, NewVectorIsEmpty) {
  const SlotVector<uint32_t> vector;
  EXPECT_EQ(vector.Count(), 0u);
  EXPECT_EQ(vector.End(), 0u);
  EXPECT_EQ(vector.Capacity(), 0u);
  EXPECT_EQ(vector.Version(), 0u);
  EXPECT_EQ(vector.Present().WordCount(), 10u);  // built for 256 bits
  EXPECT_TRUE(vector.IsEmpty());
  EXPECT_TRUE(Compact(vector));
}

TEST(SlotVector, AppendGrowsInStepsOfTen) {
  SlotVector<uint32_t> vector;
  // Capacity after each append, numbered from 1.
  for (uint32_t n = 1; n <= 35; ++n) {
    vector.Append(n * 100);
    const uint32_t expected = n <= 10 ? 10 : n <= 20 ? 20 : n <= 30 ? 30 : 40;
    ASSERT_EQ(vector.Capacity(), expected) << "after append " << n;
    ASSERT_EQ(vector.Version(), n);
    ASSERT_TRUE(Compact(vector));
  }
  EXPECT_EQ(vector[0], 100u);
  EXPECT_EQ(vector[34], 3500u);
}

TEST(SlotVector, FullArrayGrowsToNextMultipleOfStep) {
  SlotVector<uint32_t> vector;
  vector.Resize(15);
  for (uint32_t n = 0; n < 15; ++n) vector.Append(n);
  EXPECT_EQ(vector.Capacity(), 15u);
  vector.Append(15);  // end 15: (15 / 10 + 1) * 10 = 20, not 15 + 10
  EXPECT_EQ(vector.Capacity(), 20u);
  EXPECT_EQ(Contents(vector),
            (std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
}

TEST(SlotVector, RemoveFirstOfThreeClosesTheGap) {
  SlotVector<uint32_t> vector;
  vector.Append(11);
  vector.Append(22);
  vector.Append(33);
  vector.RemoveAt(0);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{22, 33}));
  EXPECT_EQ(vector.End(), 2u);
  EXPECT_EQ(vector.Count(), 2u);
  EXPECT_FALSE(vector.IsPresent(2));
  EXPECT_EQ(vector.Present().Words()[0], 0x3u);
  EXPECT_EQ(vector.Version(), 4u);
  EXPECT_EQ(vector.Capacity(), 10u);
}

TEST(SlotVector, RemoveMiddleAndLast) {
  SlotVector<uint32_t> vector;
  for (uint32_t n = 1; n <= 5; ++n) vector.Append(n);
  vector.RemoveAt(2);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{1, 2, 4, 5}));
  EXPECT_TRUE(Compact(vector));
  vector.RemoveAt(3);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{1, 2, 4}));
  EXPECT_TRUE(Compact(vector));
  vector.RemoveAt(0);
  vector.RemoveAt(0);
  vector.RemoveAt(0);
  EXPECT_TRUE(vector.IsEmpty());
  EXPECT_TRUE(Compact(vector));
  EXPECT_EQ(vector.Version(), 10u);  // five appends, five removals
}

TEST(SlotVector, StaysCompactThroughMixedOperations) {
  SlotVector<uint32_t> vector;
  std::vector<uint32_t> model;
  uint32_t state = 12345;
  // A fixed linear congruential sequence picks the operations: about two
  // appends for each removal, so the vector grows past 256 slots and its
  // bit set has to grow too.
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
    ASSERT_TRUE(Compact(vector)) << "step " << step;
    ASSERT_EQ(Contents(vector), model) << "step " << step;
  }
  EXPECT_GT(vector.Count(), 256u);
}

TEST(SlotVector, ClearKeepsCapacity) {
  SlotVector<uint32_t> vector;
  for (uint32_t n = 0; n < 12; ++n) vector.Append(n);
  vector.Clear(ClearMode::kKeepElements);
  EXPECT_EQ(vector.Count(), 0u);
  EXPECT_EQ(vector.End(), 0u);
  EXPECT_EQ(vector.Capacity(), 20u);
  EXPECT_EQ(vector.Version(), 13u);
  EXPECT_TRUE(Compact(vector));
  vector.Append(7);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{7}));
  EXPECT_EQ(vector.Capacity(), 20u);
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
  EXPECT_EQ(vector.Capacity(), 10u);
  EXPECT_TRUE(Compact(vector));
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
  EXPECT_EQ(vector.Version(), 5u);
  vector.Append(60);  // end 5: (5 / 10 + 1) * 10
  EXPECT_EQ(vector.Capacity(), 10u);

  // A shrink below End() drops the cut-off elements.
  vector.Resize(2);
  EXPECT_EQ(Contents(vector), (std::vector<uint32_t>{10, 20}));
  EXPECT_TRUE(Compact(vector));
  vector.Resize(0);
  EXPECT_EQ(vector.Capacity(), 0u);
  EXPECT_TRUE(vector.IsEmpty());
  EXPECT_TRUE(Compact(vector));
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

TEST(SlotVector, IteratorVisitsSlotsInOrder) {
  SlotVector<uint32_t> vector;
  SlotVectorIterator<uint32_t> empty(vector);
  EXPECT_FALSE(empty.Advance());

  for (uint32_t n = 1; n <= 4; ++n) vector.Append(n);
  vector.RemoveAt(1);
  std::vector<uint32_t> seen;
  std::vector<uint32_t> slots;
  SlotVectorIterator<uint32_t> it(vector);
  while (it.Advance()) {
    seen.push_back(it.Current());
    slots.push_back(it.Slot());
  }
  EXPECT_EQ(seen, (std::vector<uint32_t>{1, 3, 4}));
  EXPECT_EQ(slots, (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_FALSE(it.Advance());
}

}  // namespace

}  // namespace klv
