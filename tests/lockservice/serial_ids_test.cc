#include "lockservice/serial_ids.h"

#include <gtest/gtest.h>

#include <set>

namespace klv {

namespace {

TEST(NextFreeId, WrapsPastZeroAndTheIdsStillInUse) {
  const std::set<uint32_t> in_use = {0xFFFFFFFF, 1, 2, 4};
  const auto taken = [&in_use](uint32_t id) { return in_use.count(id) > 0; };
  uint32_t last = 0xFFFFFFFD;
  EXPECT_EQ(NextFreeId(&last, taken), 0xFFFFFFFEu);
  EXPECT_EQ(NextFreeId(&last, taken), 3u);
  EXPECT_EQ(NextFreeId(&last, taken), 5u);
  EXPECT_EQ(last, 5u);
}

}  // namespace

}  // namespace klv
