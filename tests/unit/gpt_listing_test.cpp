// The GPT listing where no end-to-end run reaches: a virtual disk, whose
// backup is not judged, and a header that could not be read.  Whole tables
// are compared end to end (e2e/gpt_test and its golden files).
#include "report/gpt_listing.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "base/frame.h"
#include "base/sink.h"
#include "report/text_fields.h"
#include "fake_machine.h"
#include "gpt/gpt_table.h"
#include "gpt_test_image.h"

namespace dh {
namespace {

class GptListingTest : public test::FakeDiskTest {
 protected:
  // Lists the current disk set in plain text; every line is 79 characters.
  std::string List() {
    const FrameChars frame = SelectFrameChars(3, 437);  // blanks and '-'
    StringSink sink;
    FramedWriter out(sink, frame);
    PrintGptDetails(*disks, *GptOf(*disks), out);
    PrintGptRows(*disks, *GptOf(*disks), out);
    std::istringstream lines(sink.text);
    for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.size(), 79u) << "[" << line << "]";
    return sink.text;
  }
};

TEST_F(GptListingTest, VirtualDiskAndUnreadableHeader) {
  drive = &machine.AddDrive(0, 16384);
  test::WriteGptDisk(*drive, {{test::kBasicDataType, 2048, 4095, 0}}, test::GptLayout{128, 2, false});
  Load();
  disks->isVirtual = true;
  std::string out = List();
  EXPECT_NE(out.find("Backup GPT:      Virtual                     \n"), std::string::npos) << out;
  EXPECT_NE(out.find("  1  Basic Data Partitio"), std::string::npos) << out;
  EXPECT_NE(out.find("No   No   NA           \n"), std::string::npos) << out;  // no drive letter

  // A header that cannot be read shows revision 0.0 and a zero GUID.
  drive->badSectors = {1};
  Load();
  out = List();
  EXPECT_NE(out.find("GPT Revision:    0.0 "), std::string::npos);
  EXPECT_NE(out.find("    Partitions:  0                GUID:  00000000-0000-0000-0000-000000000000  \n"),
            std::string::npos);
  EXPECT_NE(out.find("Backup GPT:      Invalid "), std::string::npos);
}

}  // namespace
}  // namespace dh
