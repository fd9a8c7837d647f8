#include "lockservice/range_list.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace klv {

namespace {

// The rule as the daemon states it: a conflict with any held range, walked
// in grant order.
bool ConflictsWithAny(const std::vector<RecordLock>& held, const RecordLock& candidate) {
  for (const RecordLock& lock : held) {
    if (RangesConflict(candidate, lock)) return true;
  }
  return false;
}

bool Same(const RecordLock& a, const RecordLock& b) {
  return a.offset == b.offset && a.length == b.length && a.holder == b.holder &&
         a.clientfid == b.clientfid;
}

std::vector<RecordLock> Listed(const RangeList& list) {
  std::vector<RecordLock> locks;
  list.ForEach([&locks](const RecordLock& lock) { locks.push_back(lock); });
  return locks;
}

// Thousands of locks, unlocks and closes on one file, with ranges that
// overlap, touch, have no length or wrap past 2^32, must decide and list
// exactly as the plain walk does, through many builds and drops of the index.
TEST(RangeList, AgreesWithTheWalkThroughEveryChange) {
  std::mt19937 random(7);
  const auto pick = [&random](uint32_t count) { return static_cast<uint32_t>(random() % count); };
  RangeList list;
  std::vector<RecordLock> model;
  for (int step = 0; step < 40000; ++step) {
    const uint32_t phase = step / 10000;  // grow, shrink, grow, shrink
    RecordLock lock{.offset = pick(8) == 0 ? 0xFFFFFFF0u + pick(16) : pick(4000),
                    .length = pick(10) == 0 ? 0 : 1 + pick(phase % 2 == 0 ? 12 : 40),
                    .clientfid = 1 + pick(3),
                    .holder = pick(4),
                    .shared = pick(3) == 0 ? 1u : 0u};
    const uint32_t kind = pick(10);
    if (kind < (phase % 2 == 0 ? 6u : 3u)) {
      const bool conflict = ConflictsWithAny(model, lock);
      ASSERT_EQ(list.Conflicts(lock), conflict) << "step " << step;
      if (!conflict) {
        list.Append(lock);
        model.push_back(lock);
      }
    } else if (kind < 9) {
      if (!model.empty() && pick(4) != 0) lock = model[pick(model.size())];
      auto first = model.begin();
      while (first != model.end() && !Same(*first, lock)) ++first;
      ASSERT_EQ(list.RemoveFirst(lock), first != model.end()) << "step " << step;
      if (first != model.end()) model.erase(first);
    } else if (pick(20) == 0) {
      const auto closed = [&lock](const RecordLock& held) {
        return held.holder == lock.holder && held.clientfid == lock.clientfid;
      };
      ASSERT_EQ(list.RemoveWhere(closed), std::erase_if(model, closed)) << "step " << step;
    }
    if (step % 97 != 0) continue;
    const std::vector<RecordLock> listed = Listed(list);
    ASSERT_EQ(listed.size(), model.size()) << "step " << step;
    for (size_t i = 0; i < model.size(); ++i) {
      ASSERT_TRUE(Same(listed[i], model[i]) && listed[i].shared == model[i].shared)
          << "step " << step << " lock " << i;
    }
  }
}

// Ranges granted in ascending order, as a file written front to back is
// locked, keep the index shallow: unlocking the first does not recurse
// through every one.
TEST(RangeList, HalfAMillionAscendingRanges) {
  RangeList list;
  for (uint32_t at = 0; at < (1u << 19); ++at) list.Append({.offset = at, .length = 1});
  EXPECT_TRUE(list.RemoveFirst({.offset = 0, .length = 1}));
}

}  // namespace

}  // namespace klv
