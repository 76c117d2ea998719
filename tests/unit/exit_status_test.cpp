// The exit status the process hands to the system: the whole value on
// Windows; on POSIX systems the low 8 bits, with 1 for the failures whose low
// 8 bits are zero (512 and the negated codes among them).
#include <gtest/gtest.h>

#include <cstdint>

#include "platform/platform.h"

namespace dh::platform {
namespace {

TEST(ProcessExitStatus, NoFailureReadsAsSuccess) {
  const std::pair<int32_t, int> cases[] = {{0, 0},   {105, 105}, {255, 255},       {256, 1},         {300, 44},
                                           {512, 1}, {571, 59},  {-106, 150},      {-512, 1},        {INT32_MIN, 1},
                                           {-1, 255}, {768, 1},  {INT32_MAX, 255}};
  for (const auto& [value, posix] : cases) {
#ifdef _WIN32
    EXPECT_EQ(ProcessExitStatus(value), value) << value;
#else
    EXPECT_EQ(ProcessExitStatus(value), posix) << value;
#endif
  }
}

}  // namespace
}  // namespace dh::platform
