// The GPT listing: the details block byte for byte (derived from the
// listing's formats), a missing backup, a virtual disk and a header that
// could not be read.  Longer tables are compared end to end (e2e/gpt_test).
#include "report/gpt_listing.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "base/frame.h"
#include "base/sink.h"
#include "report/text_fields.h"
#include "disk/disk_set.h"
#include "fake_machine.h"
#include "gpt/gpt_table.h"
#include "gpt_test_image.h"

namespace dh {
namespace {

using test::FakeDrive;
using test::FakeMachine;
using test::GptLayout;
using test::GptTestEntry;
using test::ScopedHost;

class GptListingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    drive = &machine.AddDrive(0, 16384);
  }

  // Lists a fresh DiskSet, or the current one when `reload` is false.
  std::string List(bool reload = true) {
    if (reload) disks = std::make_unique<DiskSet>(test::TestDrivers(), false);
    // Plain text: blanks for borders, '-' for lines.
    const FrameChars frame = SelectFrameChars(3, 437);
    StringSink sink;
    FramedWriter out(sink, frame);
    PrintGptDetails(*disks, *GptOf(*disks), out);
    PrintGptRows(*disks, *GptOf(*disks), out);
    return sink.text;
  }

  FakeMachine machine;
  ScopedHost host{&machine};
  FakeDrive* drive = nullptr;
  std::unique_ptr<DiskSet> disks;
};

// Every inner line is 77 characters between its two borders.
void ExpectFramed(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) EXPECT_EQ(line.size(), 79u) << "[" << line << "]";
}

const char* const kHeading =
    " ----------------------------------------------------------------------------- \n"
    " Pos    GPT Type         FSType   LBA Start   Size Reqd R/O Hide  DL Vol Label \n"
    " --- ------------------- ------ ------------- ---- ---- --- ----  -- --------- \n";

TEST_F(GptListingTest, EmptyTable) {
  test::WriteGptDisk(*drive, {});
  const std::string out = List();
  EXPECT_EQ(out,
            std::string("    Size:        8.00MB           GPT Revision:    1.0                         \n"
                        "    Sectors:     16384            Backup GPT:      Valid                       \n"
                        "    Partitions:  0                GUID:  A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF  \n"
                        "    Media Type:  Fixed            Interface:                                   \n"
                        "    Description:                                                               \n") +
                kHeading);
  ExpectFramed(out);
}

TEST_F(GptListingTest, MissingBackupVirtualDiskAndUnreadableHeader) {
  test::WriteGptDisk(*drive, {{test::kBasicDataType, 2048, 4095, 0}}, GptLayout{128, 2, false});
  std::string out = List();
  EXPECT_NE(out.find("    Sectors:     16384            Backup GPT:      Invalid                     \n"),
            std::string::npos);
  EXPECT_NE(out.find("  1  Basic Data Partitio"), std::string::npos);
  ExpectFramed(out);

  // On a virtual disk the backup is not judged and no row has a letter.
  disks->isVirtual = true;
  out = List(false);
  EXPECT_NE(out.find("Backup GPT:      Virtual                     \n"), std::string::npos);
  EXPECT_NE(out.find("No   No   NA           \n"), std::string::npos);

  // A header that cannot be read shows revision 0.0 and a zero GUID.
  drive->badSectors = {1};
  out = List();
  EXPECT_NE(out.find("GPT Revision:    0.0 "), std::string::npos);
  EXPECT_NE(out.find("    Partitions:  0                GUID:  00000000-0000-0000-0000-000000000000  \n"),
            std::string::npos);
  EXPECT_NE(out.find("Backup GPT:      Invalid "), std::string::npos);
  ExpectFramed(out);
}

}  // namespace
}  // namespace dh
