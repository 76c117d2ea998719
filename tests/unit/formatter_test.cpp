// The format engine wrapper against an in-memory machine: what each
// callback command prints and keeps, the message pump, a missing engine,
// what FormatEx is handed, where the partition may be written and the
// copy of a staged volume onto it.
#include "disk/formatter.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "base/sink.h"
#include "disk/disk_set.h"
#include "fake_machine.h"

namespace dh {
namespace {

using test::FakeDrive;

void PutEntry(FakeDrive& d, uint64_t lba, int slot, uint8_t type, uint32_t start, uint32_t count) {
  uint8_t* e = d.Sector(lba) + 446 + 16 * slot;
  e[4] = type;
  for (int i = 0; i < 4; ++i) {
    e[8 + i] = static_cast<uint8_t>(start >> (8 * i));
    e[12 + i] = static_cast<uint8_t>(count >> (8 * i));
  }
}

class FormatterTest : public ::testing::Test {
 protected:
  FormatterTest() : host_(&machine_) {
    drive_ = &machine_.AddDrive(0, 8192);
    for (size_t i = 0; i < drive_->bytes.size(); ++i) drive_->bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    std::fill(drive_->Sector(0) + 446, drive_->Sector(0) + 510, 0);
    PutEntry(*drive_, 0, 0, 0x07, 2048, 2048);
    PutEntry(*drive_, 0, 1, 0x0C, 4096, 1024);
    drive_->SetBootSignature();
  }

  DiskSet& Disks() {
    if (!disks_) disks_ = std::make_unique<DiskSet>(test::TestDrivers(), false);
    return *disks_;
  }
  const PartitionRecord& Primary(int n) { return *GetPartition(Disks(), n, kKindPrimary); }

  platform::FormatCallbackData Percent(uint32_t p) {
    platform::FormatCallbackData d;
    d.percent = p;
    return d;
  }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  FakeDrive* drive_ = nullptr;
  std::unique_ptr<DiskSet> disks_;
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
  Formatter f(out);
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

TEST_F(FormatterTest, EverySeventhCallHandsOverOneMessage) {
  StringSink out;
  Formatter f(out);
  // The count runs on from earlier formats: line it up first.
  const int start = machine_.pumpCalls;
  int calls = 0;
  while (machine_.pumpCalls == start) {
    FormatCallback(f, 5, 0, {});
    ASSERT_LT(++calls, 8);
  }
  for (int i = 1; i <= 21; ++i) FormatCallback(f, 5, 0, {});
  EXPECT_EQ(machine_.pumpCalls, start + 1 + 3);
}

TEST_F(FormatterTest, AMissingEngineIsToldInAMessageBox) {
  StringSink out;
  Formatter missing(out);
  machine_.formatEngine = platform::FormatEngineState::LibraryMissing;
  EXPECT_FALSE(FormatVolume(Disks(), Primary(1), missing));
  EXPECT_EQ(missing.state, kFormatterLoading);
  Formatter noEntry(out);
  machine_.formatEngine = platform::FormatEngineState::EntryMissing;
  EXPECT_FALSE(FormatVolume(Disks(), Primary(1), noEntry));
  EXPECT_EQ(noEntry.state, kFormatterNoEntry);
  EXPECT_EQ(machine_.messageBoxes, (std::vector<std::string>{"Error: Unable to locate Windows disk format utility",
                                                              "Unable to instantiate format functionality"}));
  EXPECT_TRUE(machine_.formatCalls.empty());
  EXPECT_EQ(out.text, "");
}

TEST_F(FormatterTest, TheEngineGetsTheVolumeNameAndThePlace) {
  machine_.formatEngine = platform::FormatEngineState::Ready;
  machine_.formatProgress = {0, 50, 100};
  StringSink out;
  Formatter f(out);
  PartitionRecord partition = Primary(1);
  partition.volumeName = "\\\\?\\Volume{0a1b2c3d-0000-0000-0000-000000000000}\\";
  EXPECT_TRUE(FormatVolume(Disks(), partition, f));
  EXPECT_EQ(out.text, "0 percent completed.\r50 percent completed.\r100 percent completed.\r");
  ASSERT_EQ(machine_.formatCalls.size(), 1u);
  const test::FakeMachine::FormatCall& call = machine_.formatCalls[0];
  EXPECT_EQ(call.driveRoot, u"\\\\?\\Volume{0a1b2c3d-0000-0000-0000-000000000000}\\");
  EXPECT_EQ(call.mediaFlag, 0x0Cu);
  EXPECT_EQ(call.fileSystem, u"NTFS");
  EXPECT_EQ(call.label, u"MYLABEL");
  EXPECT_FALSE(call.quick);
  EXPECT_EQ(call.clusterSize, 0u);
  EXPECT_EQ(call.place.drivePath, test::DrivePath(0));
  EXPECT_EQ(call.place.startLba, 2048u);
  EXPECT_EQ(call.place.sectorCount, 2048u);
  EXPECT_EQ(call.place.heads, 255u);
  EXPECT_EQ(call.place.sectorsPerTrack, 63u);
}

TEST_F(FormatterTest, AStagedVolumeLandsOnExactlyItsPartition) {
  machine_.formatEngine = platform::FormatEngineState::Ready;
  std::vector<uint8_t> volume(2048 * 512);
  for (size_t i = 0; i < volume.size(); ++i) volume[i] = static_cast<uint8_t>(i % 251);
  machine_.AddFile("staged.img", volume);
  machine_.formatStaged = "staged.img";
  const std::vector<uint8_t> before = drive_->bytes;
  StringSink out;
  Formatter f(out);
  EXPECT_TRUE(FormatVolume(Disks(), Primary(1), f));
  const auto at = [](uint64_t lba) { return static_cast<std::ptrdiff_t>(lba * 512); };
  EXPECT_TRUE(std::equal(drive_->bytes.begin(), drive_->bytes.begin() + at(2048), before.begin()));
  EXPECT_TRUE(std::equal(drive_->bytes.begin() + at(2048), drive_->bytes.begin() + at(4096), volume.begin()));
  EXPECT_TRUE(std::equal(drive_->bytes.begin() + at(4096), drive_->bytes.end(), before.begin() + at(4096)));
  EXPECT_GE(drive_->flushCalls, 1);

  // A staged file of another size is not copied at all.
  machine_.AddFile("short.img", std::vector<uint8_t>(2047 * 512, 0xEE));
  machine_.formatStaged = "short.img";
  const std::vector<uint8_t> formatted = drive_->bytes;
  Formatter again(out);
  out.text.clear();
  EXPECT_FALSE(FormatVolume(Disks(), Primary(1), again));
  EXPECT_EQ(out.text, "Unable to complete format.\n\n");
  EXPECT_EQ(drive_->bytes, formatted);
}

TEST_F(FormatterTest, WhereAPartitionMayBeWritten) {
  // Slot 2 takes each shape in turn; a count of 0 in the place means the
  // partition is not to be written.
  struct Case {
    const char* what;
    uint32_t start;
    uint32_t count;
    uint64_t placed;
  };
  const Case cases[] = {
      {"free space", 6144, 1024, 1024},
      {"holding sector 0", 0, 1024, 0},
      {"reaching past the disk", 7168, 2048, 0},
      {"overlapping partition 1", 3072, 512, 0},
      {"the same sectors as partition 1", 2048, 2048, 2048},
      {"empty", 6144, 0, 0},
  };
  for (const Case& c : cases) {
    PutEntry(*drive_, 0, 2, 0x07, c.start, c.count);
    disks_.reset();
    const PartitionRecord* record = GetPartition(Disks(), 3, kKindPrimary);
    ASSERT_NE(record, nullptr) << c.what;
    const platform::FormatPlace place = FormatPlaceOf(Disks(), *record);
    EXPECT_EQ(place.sectorCount, c.placed) << c.what;
    EXPECT_EQ(place.startLba, c.start) << c.what;
  }
}

TEST_F(FormatterTest, AnExtendedAreaIsNotWrittenOverItsLogicals) {
  PutEntry(*drive_, 0, 2, 0x05, 6144, 2048);
  PutEntry(*drive_, 6144, 0, 0x07, 63, 1000);
  drive_->SetBootSignature(6144);
  const PartitionRecord& extended = Primary(3);
  EXPECT_EQ(FormatPlaceOf(Disks(), extended).sectorCount, 0u);
}

// An engine that throws from inside the format.
class ThrowingMachine : public test::FakeMachine {
 public:
  bool FormatEx(const std::u16string&, uint32_t, const std::u16string&, const std::u16string&, bool, uint32_t,
                const platform::FormatCallback&, const platform::FormatPlace&) override {
    throw std::runtime_error("engine fault");
  }
};

TEST(FormatterThrow, AnExceptionDuringTheCallIsAFailure) {
  ThrowingMachine machine;
  machine.AddDrive(0, 8192);
  machine.formatEngine = platform::FormatEngineState::Ready;
  test::ScopedHost host(&machine);
  DiskSet disks(test::TestDrivers(), false);
  StringSink out;
  Formatter f(out);
  PartitionRecord partition;
  EXPECT_FALSE(FormatVolume(disks, partition, f));
  EXPECT_EQ(f.message, "Exception thrown");
  EXPECT_EQ(out.text, "");
}

}  // namespace
}  // namespace dh
