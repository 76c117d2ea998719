// The write plan's range arithmetic: what a command may write is exactly
// what it allowed minus what it forbade, to the sector.
#include <gtest/gtest.h>

#include <cstdint>

#include "disk/write_plan.h"

namespace dh {
namespace {

TEST(WritePlanTest, AllowsExactlyTheAllowedSectorsMinusTheForbiddenOnes) {
  WritePlan plan;
  plan.Allow(10, 5);   // 10..14
  plan.Allow(15, 5);   // 15..19: touches the first, one range
  plan.Allow(40, 20);  // 40..59
  plan.Forbid(45, 5);  // leaves 40..44 and 50..59
  plan.Allow(UINT64_MAX - 2, 10);  // held to the last sectors a 64-bit number names
  struct Case {
    uint64_t first, count;
    bool permitted;
  } const cases[] = {
      {10, 10, true},  {9, 1, false},  {20, 1, false}, {10, 11, false},  // adjacent ranges merged
      {40, 5, true},   {44, 1, true},  {44, 2, false}, {45, 1, false},  // up to the forbidden part
      {49, 1, false},  {50, 10, true}, {50, 11, false},
      {0, 0, true},    {UINT64_MAX - 2, 2, true},   {UINT64_MAX - 1, 2, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.first << "+" << c.count);
    EXPECT_EQ(plan.Permits(c.first, c.count), c.permitted);
  }
  plan.Forbid(0, UINT64_MAX);
  EXPECT_TRUE(plan.Empty());
}

}  // namespace
}  // namespace dh
