// Reading machine files: syntax, defaults, values and the errors that must
// name their line.
#include "platform/sim/machine_file.h"

#include <gtest/gtest.h>

namespace dh::platform::sim {
namespace {

MachineDescription Parse(const std::string& text, const std::string& path = "/m/machine.ini") {
  MachineDescription d;
  std::string error;
  EXPECT_TRUE(ParseMachineFile(text, path, &d, &error)) << error;
  return d;
}

std::string ErrorOf(const std::string& text) {
  MachineDescription d;
  std::string error;
  EXPECT_FALSE(ParseMachineFile(text, "/m/machine.ini", &d, &error)) << text;
  return error;
}

TEST(SimMachineFile, EmptyFileGivesTheDefaults) {
  const MachineDescription d = Parse("");
  EXPECT_EQ(d.codePage, 437u);
  EXPECT_EQ(d.elevation, ElevationMode::Yes);
  EXPECT_EQ(d.majorVersion, 6u);
  EXPECT_EQ(d.minorVersion, 1u);
  EXPECT_EQ(d.computerName, "DISKHOLD-SIM");
  EXPECT_EQ(d.decimalSep, ".");
  EXPECT_EQ(d.thousandSep, ",");
  EXPECT_EQ(d.grouping, "3;0");
  EXPECT_EQ(d.formatEngine, FormatEngineMode::None);
  EXPECT_TRUE(d.environment.empty());  // no systemdrive unless given
  EXPECT_TRUE(d.drives.empty());
  EXPECT_TRUE(d.volumes.empty());
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

TEST(SimMachineFile, DriveKeys) {
  const MachineDescription d = Parse(
      "[drive 7]\nimage = b.img\n"
      "[drive 0]\n"
      "image = a.img\n"
      "media = removable\n"
      "heads = 16\nsectors = 0x3F\ncylinders = 1044\n"
      "readonly = yes\n"
      "badsectors = 100-120, 5000,0x10\n"
      "layout = 0C,1048576,0x100000\n"
      "instance = IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0\n"
      "friendlyname = ST3500418AS  ATA Device\n"
      "devicedesc = Disk drive\n"
      "parentidprefix = 7&2a3b&0\n");
  ASSERT_EQ(d.drives.size(), 2u);
  const DriveDescription& a = d.drives[0];  // sorted by number
  EXPECT_EQ(a.number, 0);
  EXPECT_EQ(d.drives[1].number, 7);
  EXPECT_EQ(d.drives[1].media, MediaKind::Fixed);
  EXPECT_EQ(d.drives[1].heads, 255u);
  EXPECT_EQ(d.drives[1].sectorsPerTrack, 63u);
  EXPECT_FALSE(d.drives[1].hasCylinders);
  EXPECT_FALSE(d.drives[1].hasLayout);
  EXPECT_EQ(a.media, MediaKind::Removable);
  EXPECT_EQ(a.heads, 16u);
  EXPECT_EQ(a.sectorsPerTrack, 63u);
  EXPECT_TRUE(a.hasCylinders);
  EXPECT_EQ(a.cylinders, 1044);
  EXPECT_TRUE(a.readOnly);
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
  EXPECT_EQ(a.instance, "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0");
  EXPECT_EQ(a.friendlyName, "ST3500418AS  ATA Device");
  EXPECT_EQ(a.deviceDesc, "Disk drive");
  EXPECT_EQ(a.parentIdPrefix, "7&2a3b&0");

  const MachineDescription none = Parse("[drive 1]\nimage=x\nlayout = None\n");
  EXPECT_TRUE(none.drives[0].hasLayout);
  EXPECT_FALSE(none.drives[0].layout.present);
}

TEST(SimMachineFile, VolumesAndMachineExtras) {
  const MachineDescription d = Parse(
      "[machine]\n"
      "decimal = \",\"\nthousands = \" \"\ngrouping = 32\nleadingzero = 0\nnegativenumber = 0\n"
      "formatengine = OK\nshutdownlog = logs/shutdown.txt\nshutdownprivilege = no\nelevated = unknown\n"
      "[environment]\nTEMP = C:\\Temp\nEMPTY =\n"
      "[drive 0]\nimage = d0.img\n"
      "[volume e]\ndrive = 0\noffset = 1048576\nguid = 6a1c1c4e-0b2a-11e1-8e4c-806e6f6e6963\n"
      "[volume C]\ndrive = 0\noffset = 32256\nguid = {6A1C1C4E-0B2A-11E1-8E4C-806E6F6E6963}\n");
  EXPECT_EQ(d.decimalSep, ",");
  EXPECT_EQ(d.thousandSep, " ");
  EXPECT_EQ(d.grouping, "3;2;0");
  EXPECT_EQ(d.leadingZero, 0u);
  EXPECT_EQ(d.negativeNumber, 0u);
  EXPECT_EQ(d.formatEngine, FormatEngineMode::Ok);
  EXPECT_EQ(d.shutdownLog, "/m/logs/shutdown.txt");
  EXPECT_FALSE(d.shutdownPrivilege);
  EXPECT_EQ(d.elevation, ElevationMode::Unknown);
  ASSERT_EQ(d.environment.size(), 1u);  // an empty value is no variable
  EXPECT_EQ(d.environment[0].first, "TEMP");
  ASSERT_EQ(d.volumes.size(), 2u);
  EXPECT_EQ(d.volumes[0].letter, 'C');  // sorted by letter
  EXPECT_EQ(d.volumes[0].guid, "{6A1C1C4E-0B2A-11E1-8E4C-806E6F6E6963}");
  EXPECT_EQ(d.volumes[0].offset, 32256u);
  EXPECT_EQ(d.volumes[1].letter, 'E');
  EXPECT_EQ(d.volumes[1].guid, "{6a1c1c4e-0b2a-11e1-8e4c-806e6f6e6963}");
  EXPECT_EQ(d.volumes[1].drive, 0);
}

TEST(SimMachineFile, ErrorsNameTheLine) {
  EXPECT_EQ(ErrorOf("\n[machine]\ncolour = blue\n"), "/m/machine.ini, line 3: unknown key \"colour\" in [machine]");
  EXPECT_NE(ErrorOf("[disk 0]\n").find("line 1: unknown section [disk 0]"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\n\ncodepage = 43x\n").find("line 3: bad number"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\ncodepage = 4294967296\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\ncodepage = -1\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 100]\nimage=x\n").find("line 1: drive numbers run from 0 to 99"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive -1]\n").find("line 1:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive]\n").find("line 1:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 1]\nimage=a\n[drive 01]\nimage=b\n").find("line 3: section [drive 1] is given twice"),
            std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\n[Machine]\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[volume C]\n[volume c:]\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\ncodepage=1\nCODEPAGE=2\n").find("line 3: key \"CODEPAGE\" is given twice"),
            std::string::npos);
  EXPECT_NE(ErrorOf("codepage = 1\n").find("line 1: key \"codepage\" stands before any section"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\njust words\n").find("line 2: expected"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine\n").find("line 1:"), std::string::npos);
  // Missing image: the section's line.
  EXPECT_NE(ErrorOf("[machine]\n\n[drive 4]\nmedia = fixed\n").find("line 3: [drive 4] has no image"),
            std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage =\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage = a\nbadsectors = 9-3\n").find("line 3: bad entry \"9-3\""), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage = a\nbadsectors = 1,,2\n").find("line 3:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage = a\nlayout = 100,0,0\n").find("line 3: bad layout"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage = a\nlayout = 7,0\n").find("line 3:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage = a\nmedia = cdrom\n").find("line 3:"), std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage = a\nreadonly = maybe\n").find("line 3:"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\nversion = six\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\ngrouping = 33\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\ndecimal = abcd\n").find("line 2:"), std::string::npos);
  EXPECT_NE(ErrorOf("[machine]\nsystemdrive = C:\n[environment]\nSystemDrive = D:\n").find("line 4:"),
            std::string::npos);
  // Volumes: cross references are checked at the end but still name the
  // volume's line.
  EXPECT_NE(ErrorOf("[volume C]\ndrive = 2\noffset = 0\n").find("line 1: [volume C] names drive 2"),
            std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage=a\n[volume C]\noffset = 0\n").find("line 3: [volume C] has an offset but no drive"),
            std::string::npos);
  EXPECT_NE(ErrorOf("[drive 0]\nimage=a\n[volume C]\ndrive=0\noffset=0\ndevice=\\??\\x\n").find("line 3:"),
            std::string::npos);
  EXPECT_NE(ErrorOf("[volume C]\nguid = {1234}\n").find("line 2: bad guid"), std::string::npos);
  EXPECT_NE(ErrorOf("[volume 1]\n").find("line 1:"), std::string::npos);
}

TEST(SimMachineFile, ImagePathsAreRelativeToTheMachineFile) {
  EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", "disk0.img"), "/tmp/x/disk0.img");
  EXPECT_EQ(ResolveMachinePath("Z:\\tmp\\x\\machine.ini", "disk0.img"), "Z:\\tmp\\x\\disk0.img");
  EXPECT_EQ(ResolveMachinePath("Z:\\tmp/x\\machine.ini", "sub/d.img"), "Z:\\tmp/x\\sub/d.img");
  EXPECT_EQ(ResolveMachinePath("machine.ini", "disk0.img"), "disk0.img");
  EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", "/abs/d.img"), "/abs/d.img");
  EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", "\\abs\\d.img"), "\\abs\\d.img");
  EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", "c:d.img"), "c:d.img");
  EXPECT_EQ(ResolveMachinePath("/tmp/x/machine.ini", "D:\\d.img"), "D:\\d.img");
}

}  // namespace
}  // namespace dh::platform::sim
