// What a new user and a script meet first: exit statuses that never read as
// success after a failure, a console that follows the terminal when the
// machine file names no code page, and machine files whose images cannot
// stand for a disk refused before anything runs.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Has;
using e2e::Machine;
using e2e::Result;
using e2e::ResultOf;

// Disk 0: NTFS and FAT32 primaries and an extended partition with one
// logical NTFS partition: four partitions in all, three of them primary.
void AddDiskWithLogical(Machine& m) {
  e2e::Image& disk = m.AddDrive(0, 65536);
  disk.Write(0, e2e::Mbr({e2e::Entry(0x80, 0x07, 2048, 8192), e2e::Entry(0, 0x0C, 10240, 8192),
                          e2e::Entry(0, 0x0F, 18432, 16384)}));
  disk.Write(18432, e2e::Mbr({e2e::Entry(0, 0x07, 2048, 8192)}, 0));
}

TEST(ExitStatus, ValuesWhoseLowBitsAreZeroDoNotReadAsSuccess) {
  Machine m;
  AddDiskWithLogical(m);
  struct Case {
    std::vector<std::string> args;
    int value;   // the whole exit value, as /result prints it
    int status;  // what the shell sees
  };
  const Case cases[] = {
      // Partition 4 passes the check against all four partitions, but
      // there is no fourth primary entry to hide: 512, low 8 bits 0.
      {{"/hide", "/disk=0", "/part=4", "/confirm", "/result"}, 512, 1},
      {{"/unhide", "/part=4", "/confirm", "/silent", "/result"}, 512, 1},
      {{"/list", "/disk=7", "/result"}, 511, 255},
      {{"/lis=1", "/result"}, 105, 105},
      {{"/list", "/result"}, 0, 0},
      {{"/partcount", "/result"}, 3, 3},
  };
  const std::string before = m.drive(0).Hash();
  for (const Case& c : cases) {
    const Result r = m.Run(c.args);
    std::string line;
    for (const std::string& a : c.args) line += a + " ";
    SCOPED_TRACE(line);
    EXPECT_EQ(r.status, c.status) << r.out;
    if (c.args[c.args.size() - 2] == "/silent") {
      // The value alone on the last line.
      const std::string last = "\n" + std::to_string(c.value) + "\n";
      EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), last.size())), last) << r.out;
    } else {
      EXPECT_EQ(ResultOf(r), c.value) << r.out;
    }
  }
  // The same run without /result fails the same way.
  EXPECT_EQ(m.Run({"/hide", "/part=4", "/confirm"}).status, 1);
  EXPECT_EQ(m.drive(0).Hash(), before);
}

// The console code page: the machine file's key when it has one, the
// terminal's (the C library's LC_CTYPE) when it does not.
TEST(ConsoleCodePage, FollowsTheTerminalWithoutACodepageKey) {
  struct Case {
    const char* codepage;  // "" leaves the key out
    const char* lcAll;
    int expected;
    const char* topLeft;  // the frame's first character
  };
  const Case cases[] = {
      {"", "C.UTF-8", 65001, "\xE2\x95\x92"},  // U+2552 in UTF-8
      {"", "C", 20127, " "},                    // plain ASCII frames
      {"437", "C.UTF-8", 437, "\xD5"},          // the key wins
      {"65001", "C", 65001, "\xE2\x95\x92"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("codepage '") + c.codepage + "', LC_ALL " + c.lcAll);
    Machine m;
    m.AddDrive(0, 4096).Write(0, e2e::Mbr({e2e::Entry(0x80, 0x07, 2048, 2048)}));
    m.Set("codepage", c.codepage);
    m.SetProcessEnv("LC_ALL", c.lcAll);
    const Result r = m.Run({"/list", "/asciimap", "/silent"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Has(r, "\nCodepage= " + std::to_string(c.expected) + "\n")) << r.out;
    // The first line of the listing starts with the frame's corner.
    EXPECT_EQ(r.out.find(std::string(c.topLeft)), r.out.find_first_not_of('\n')) << r.out.substr(0, 200);
  }
}

TEST(MachineFile, ImagesThatCannotBeADiskAreRefusedWithFileAndLine) {
  Machine m;
  ASSERT_EQ(::mkdir(m.PathOf("folder").c_str(), 0755), 0);
  e2e::WriteFileText(m.PathOf("tiny.img"), std::string(100, '\0'));
  e2e::WriteFileText(m.PathOf("one.img"), std::string(512, '\0'));
  struct Case {
    const char* image;
    const char* why;  // empty: accepted
  };
  const Case cases[] = {
      {"folder", "is a folder, not an image file"},
      {"tiny.img", "holds 100 bytes, less than one sector of 512"},
      {"missing.img", "cannot be opened"},
      {"one.img", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.image);
    const std::string file = m.PathOf("refuse.ini");
    e2e::WriteFileText(file, std::string("[machine]\ncodepage = 437\n\n[drive 0]\nimage = one.img\n\n[drive 1]\n") +
                                 "image = " + c.image + "\n");
    const Result r = e2e::RunProgram(e2e::DiskholdPath(), {"/list", "/result"}, "", file, m.dir());
    if (c.why[0] == '\0') {
      EXPECT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(ResultOf(r), 0);
      continue;
    }
    // Nothing runs: no banner, only the reason on the error stream.
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(r.err.find(file + ", line 8: the image of [drive 1] " + m.PathOf(c.image) + " " + c.why) !=
                std::string::npos)
        << r.err;
  }
}

}  // namespace
