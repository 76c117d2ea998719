// The exit status the process hands to the system: the whole value on
// Windows; on POSIX systems the low 8 bits, with 1 for the failures whose low
// 8 bits are zero.
#include <gtest/gtest.h>

#include <cstdint>

#include "platform/platform.h"

namespace dh::platform {
namespace {

struct ExitCase {
  int32_t value;
  int posix;  // what a POSIX shell must see
};

// Codes of every range, the answers of the queries, and the values whose
// low 8 bits are zero (512 and the negated codes of status among them).
const ExitCase kCases[] = {
    {0, 0},       {1, 1},       {7, 7},       {105, 105},   {129, 129},     {200, 200},  {255, 255},
    {256, 1},     {300, 44},    {511, 255},   {512, 1},     {513, 1},       {571, 59},   {768, 1},
    {-1, 255},    {-106, 150},  {-506, 6},    {-512, 1},    {-256, 1},      {-255, 1},   {INT32_MIN, 1},
    {INT32_MAX, 255},
};

TEST(ProcessExitStatus, NoFailureReadsAsSuccess) {
  for (const ExitCase& c : kCases) {
#ifdef _WIN32
    EXPECT_EQ(ProcessExitStatus(c.value), c.value) << c.value;
#else
    EXPECT_EQ(ProcessExitStatus(c.value), c.posix) << c.value;
    // Whatever the value, the shell sees the status unchanged.
    EXPECT_EQ(ProcessExitStatus(c.value) & 0xFF, ProcessExitStatus(c.value)) << c.value;
#endif
    EXPECT_EQ(ProcessExitStatus(c.value) == 0, c.value == 0) << c.value;
  }
}

}  // namespace
}  // namespace dh::platform
