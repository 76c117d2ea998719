// Reading machine files: syntax, values and the errors that must name their
// line.
#include "platform/sim/machine_file.h"

#include <gtest/gtest.h>

namespace dh::platform::sim {
namespace {

MachineDescription Parse(const std::string& text) {
  MachineDescription d;
  std::string error;
  EXPECT_TRUE(ParseMachineFile(text, "/m/machine.ini", &d, &error)) << error;
  return d;
}

TEST(SimMachineFile, CommentsCaseAndTrimming) {
  const MachineDescription d = Parse(
      "# a comment\n"
      "   ; another, after blanks\n"
      "[MACHINE]   # comment after a section\n"
      "CodePage   =   850   ; trailing comment\n"
      "Elevated=No\n"
      "version = 10.0\n"
      "computername = TEST#PC\n"   // '#' inside a word is data
      "grouping = 3;2;0\n"          // so is ';'
      "systemdrive = C:\r\n"        // CRLF line ends
      "[Drive 3]\n"
      "IMAGE = disk three.img\t# blanks inside the value stay\n"
      "[volume d:]\n"
      "device = \\??\\STORAGE#RemovableMedia#7&2a3b&0&RM # the record\n");
  EXPECT_EQ(d.codePage, 850u);
  EXPECT_TRUE(d.hasCodePage);
  EXPECT_FALSE(Parse("[machine]\nelevated = yes\n").hasCodePage);
  EXPECT_EQ(d.elevation, ElevationMode::No);
  EXPECT_EQ(d.majorVersion, 10u);
  EXPECT_EQ(d.minorVersion, 0u);
  EXPECT_EQ(d.computerName, "TEST#PC");
  EXPECT_EQ(d.grouping, "3;2;0");
  ASSERT_EQ(d.environment.size(), 1u);
  EXPECT_EQ(d.environment[0].second, "C:");
  ASSERT_EQ(d.drives.size(), 1u);
  EXPECT_EQ(d.drives[0].number, 3);
  EXPECT_EQ(d.drives[0].image, "/m/disk three.img");
  ASSERT_EQ(d.volumes.size(), 1u);
  EXPECT_EQ(d.volumes[0].letter, 'D');
  EXPECT_EQ(d.volumes[0].device, "\\??\\STORAGE#RemovableMedia#7&2a3b&0&RM");
  EXPECT_EQ(d.volumes[0].guid, "{00000000-0000-0000-0000-000000000044}");
}

// What the machine tests do not reach: hex numbers, sorting, "None" and
// separators with blanks.
TEST(SimMachineFile, DriveAndVolumeValues) {
  const MachineDescription d = Parse(
      "[machine]\ndecimal = \",\"\nthousands = \" \"\ngrouping = 32\nleadingzero = 0\nnegativenumber = 0\n"
      "shutdownlog = logs/shutdown.txt\n"
      "[environment]\nTEMP = C:\\Temp\nEMPTY =\n"
      "[drive 7]\nimage = b.img\nlayout = None\n"
      "[drive 0]\nimage = a.img\nmedia = removable\nsectors = 0x20\nbadsectors = 100-120, 5000,0x10\n"
      "layout = 0C,1048576,0x100000\n"
      "[volume e]\ndrive = 0\noffset = 1048576\nguid = 6a1c1c4e-0b2a-11e1-8e4c-806e6f6e6963\n"
      "[volume C]\ndrive = 0\noffset = 32256\nguid = {6A1C1C4E-0B2A-11E1-8E4C-806E6F6E6963}\n");
  EXPECT_EQ(d.decimalSep, ",");
  EXPECT_EQ(d.thousandSep, " ");
  EXPECT_EQ(d.grouping, "3;2;0");
  EXPECT_EQ(d.leadingZero, 0u);
  EXPECT_EQ(d.negativeNumber, 0u);
  EXPECT_EQ(d.shutdownLog, "/m/logs/shutdown.txt");
  ASSERT_EQ(d.environment.size(), 1u);  // an empty value is no variable
  EXPECT_EQ(d.environment[0].first, "TEMP");

  ASSERT_EQ(d.drives.size(), 2u);
  const DriveDescription& a = d.drives[0];  // sorted by number
  EXPECT_EQ(a.number, 0);
  EXPECT_EQ(a.media, MediaKind::Removable);
  EXPECT_EQ(a.sectorsPerTrack, 32u);
  ASSERT_EQ(a.badSectors.size(), 3u);
  EXPECT_EQ(a.badSectors[0].first, 100u);
  EXPECT_EQ(a.badSectors[0].last, 120u);
  EXPECT_EQ(a.badSectors[1].first, 5000u);
  EXPECT_EQ(a.badSectors[2].last, 16u);
  ASSERT_TRUE(a.hasLayout);
  EXPECT_TRUE(a.layout.present);
  EXPECT_EQ(a.layout.partitionType, 0x0C);
  EXPECT_EQ(a.layout.startingOffset, 1048576u);
  EXPECT_EQ(a.layout.partitionLength, 0x100000u);
  EXPECT_EQ(d.drives[1].number, 7);
  EXPECT_TRUE(d.drives[1].hasLayout);
  EXPECT_FALSE(d.drives[1].layout.present);

  ASSERT_EQ(d.volumes.size(), 2u);
  EXPECT_EQ(d.volumes[0].letter, 'C');  // sorted by letter
  EXPECT_EQ(d.volumes[0].guid, "{6A1C1C4E-0B2A-11E1-8E4C-806E6F6E6963}");
  EXPECT_EQ(d.volumes[0].offset, 32256u);
  EXPECT_EQ(d.volumes[1].letter, 'E');
  EXPECT_EQ(d.volumes[1].guid, "{6a1c1c4e-0b2a-11e1-8e4c-806e6f6e6963}");
  EXPECT_EQ(d.volumes[1].drive, 0);
}

TEST(SimMachineFile, ErrorsNameTheLine) {
  MachineDescription d;
  std::string error;
  EXPECT_FALSE(ParseMachineFile("\n[machine]\ncolour = blue\n", "/m/machine.ini", &d, &error));
  EXPECT_EQ(error, "/m/machine.ini, line 3: unknown key \"colour\" in [machine]");

  const std::pair<const char*, const char*> cases[] = {
      {"[disk 0]\n", "line 1: unknown section [disk 0]"},
      {"[machine]\n\ncodepage = 43x\n", "line 3: bad number"},
      {"[machine]\ncodepage = 4294967296\n", "line 2:"},
      {"[machine]\ncodepage = -1\n", "line 2:"},
      {"[drive 100]\nimage=x\n", "line 1: drive numbers run from 0 to 99"},
      {"[drive -1]\n", "line 1:"},
      {"[drive]\n", "line 1:"},
      {"[drive 1]\nimage=a\n[drive 01]\nimage=b\n", "line 3: section [drive 1] is given twice"},
      {"[machine]\n[Machine]\n", "line 2:"},
      {"[volume C]\n[volume c:]\n", "line 2:"},
      {"[machine]\ncodepage=1\nCODEPAGE=2\n", "line 3: key \"CODEPAGE\" is given twice"},
      {"codepage = 1\n", "line 1: key \"codepage\" stands before any section"},
      {"[machine]\njust words\n", "line 2: expected"},
      {"[machine\n", "line 1:"},
      {"[machine]\n\n[drive 4]\nmedia = fixed\n", "line 3: [drive 4] has no image"},  // the section's line
      {"[drive 0]\nimage =\n", "line 2:"},
      {"[drive 0]\nimage = a\nbadsectors = 9-3\n", "line 3: bad entry \"9-3\""},
      {"[drive 0]\nimage = a\nbadsectors = 1,,2\n", "line 3:"},
      {"[drive 0]\nimage = a\nlayout = 100,0,0\n", "line 3: bad layout"},
      {"[drive 0]\nimage = a\nlayout = 7,0\n", "line 3:"},
      {"[drive 0]\nimage = a\nmedia = cdrom\n", "line 3:"},
      {"[drive 0]\nimage = a\nreadonly = maybe\n", "line 3:"},
      {"[machine]\nversion = six\n", "line 2:"},
      {"[machine]\ngrouping = 33\n", "line 2:"},
      {"[machine]\ndecimal = abcd\n", "line 2:"},
      {"[machine]\nsystemdrive = C:\n[environment]\nSystemDrive = D:\n", "line 4:"},
      // Cross references are checked at the end but name the volume's line.
      {"[volume C]\ndrive = 2\noffset = 0\n", "line 1: [volume C] names drive 2"},
      {"[drive 0]\nimage=a\n[volume C]\noffset = 0\n", "line 3: [volume C] has an offset but no drive"},
      {"[drive 0]\nimage=a\n[volume C]\ndrive=0\noffset=0\ndevice=\\??\\x\n", "line 3:"},
      {"[volume C]\nguid = {1234}\n", "line 2: bad guid"},
      {"[volume 1]\n", "line 1:"},
  };
  for (const auto& [text, expected] : cases) {
    error.clear();
    EXPECT_FALSE(ParseMachineFile(text, "/m/machine.ini", &d, &error)) << text;
    EXPECT_NE(error.find(expected), std::string::npos) << text << " -> " << error;
  }
}

TEST(SimMachineFile, ImagePathsAreRelativeToTheMachineFile) {
  EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", "disk0.img"), "/tmp/x/disk0.img");
  EXPECT_EQ(ResolveMachinePath("Z:\\tmp\\x\\machine.ini", "disk0.img"), "Z:\\tmp\\x\\disk0.img");
  EXPECT_EQ(ResolveMachinePath("Z:\\tmp/x\\machine.ini", "sub/d.img"), "Z:\\tmp/x\\sub/d.img");
  EXPECT_EQ(ResolveMachinePath("machine.ini", "disk0.img"), "disk0.img");
  for (const char* absolute : {"/abs/d.img", "\\abs\\d.img", "c:d.img", "D:\\d.img"}) {
    EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", absolute), absolute);
  }
}

}  // namespace
}  // namespace dh::platform::sim
