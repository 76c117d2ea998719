// The format engine wrapper: what each callback command prints and keeps,
// and where a partition may be written.  Whole formats, the engine's answers
// and the bytes around a formatted partition are checked end to end
// (e2e/format_test).
#include "disk/formatter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/sink.h"
#include "disk/disk_set.h"
#include "fake_machine.h"

namespace dh {
namespace {

// Drive 0: a pattern, NTFS at 2048 and FAT32 at 4096.
class FormatterTest : public test::FakeDiskTest {
 protected:
  void SetUp() override {
    MakeMbrDisk({{0, 0x07, 2048, 2048}, {0, 0x0C, 4096, 1024}});
    for (size_t i = 512; i < drive->bytes.size(); ++i) drive->bytes[i] = static_cast<uint8_t>(i * 7 + 1);
  }
  static platform::FormatCallbackData Percent(uint32_t p) {
    platform::FormatCallbackData d;
    d.percent = p;
    return d;
  }
};

TEST_F(FormatterTest, CallbackCommands) {
  struct Step {
    int command;
    platform::FormatCallbackData data;
    const char* printed;
    const char* message;
  };
  platform::FormatCallbackData ok;
  ok.success = true;
  platform::FormatCallbackData text;
  text.text = "Creating file system structures.\n";
  const std::vector<Step> steps = {
      {0, Percent(0), "0 percent completed.\r", "0"},
      {0, Percent(42), "42 percent completed.\r", "42"},
      {14, text, "Creating file system structures.\n", "42"},
      {6, {}, "", "Insufficient rights"},
      {7, {}, "", "Write protected"},
      {9, {}, "", "Invalid drive root"},
      {12, {}, "", "Invalid drive root"},  // unknown commands change nothing
      {11, ok, "", "Invalid drive root"},
      {11, {}, "Unable to complete format.\n\n", "Invalid drive root"},
  };
  StringSink out;
  Formatter f(out, machine);
  for (const Step& s : steps) {
    out.text.clear();
    EXPECT_TRUE(FormatCallback(f, s.command, 0, s.data));
    EXPECT_EQ(out.text, s.printed) << s.command;
    EXPECT_EQ(f.message, s.message) << s.command;
  }
  EXPECT_TRUE(f.progressShown);
  EXPECT_EQ(f.lastPercent, 42);
  EXPECT_FALSE(f.success);
  // A failure without a reason of three characters or more names one.
  f.message = "7";
  FormatCallback(f, 11, 0, {});
  EXPECT_EQ(f.message, "Unknown error");
}

TEST_F(FormatterTest, WhereAPartitionMayBeWritten) {
  // Slot 2 takes each shape in turn; a count of 0 in the place means the
  // partition is not to be written.
  struct Case {
    const char* what;
    uint32_t start;
    uint32_t count;
    uint64_t placed;
    uint8_t type = 0x07;
  };
  const Case cases[] = {
      {"free space", 6144, 1024, 1024},
      {"holding sector 0", 0, 1024, 0},
      {"reaching past the disk", 7168, 2048, 0},
      {"overlapping partition 1", 3072, 512, 0},
      {"the same sectors as partition 1", 2048, 2048, 2048},
      {"empty", 6144, 0, 0},
      {"an extended area over its logicals", 6144, 2048, 0, 0x05},
  };
  test::PutMbrEntry(drive->Sector(6144), 446, {0, 0x07, 63, 1000});
  drive->SetBootSignature(6144);
  for (const Case& c : cases) {
    test::PutMbrEntry(drive->Sector(0), 446 + 32, {0, c.type, c.start, c.count});
    const PartitionRecord* record = GetPartition(Load(), 3, kKindPrimary);
    ASSERT_NE(record, nullptr) << c.what;
    const platform::FormatPlace place = FormatPlaceOf(*disks, *record);
    EXPECT_EQ(place.sectorCount, c.placed) << c.what;
    EXPECT_EQ(place.startLba, c.start) << c.what;
  }
}

}  // namespace
}  // namespace dh
