// Run control end to end: banner, help pages, option file, invalid
// switches, elevation, result lines, shutdown requests and hostile
// arguments.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "harness.h"

namespace {

const std::string kBanner =
    "\n Diskhold - Version 3.0.83 for Windows\n"
    "  Partition table and boot record utility - (c) 2026 The Diskhold developers\n";

const std::string kUsage =
    " \n Usage: Diskhold /command[=x or #] [/filename=y] [/sector=z]"
    "\n /List        Lists disk and partition details"
    "\n /Disk=#      Selects the disk (or file), defaults to '0' if not specified"
    "\n /Part=#      Selects partition by number.  Defaults to '1'"
    "\n /Vol=x       Specifies volume by drive letter (C:) or volume label"
    "\n /Sector=#    Specifies sector(s) to use for applicable operations"
    "\n /Save=x      Saves the MBR/GPT/Track0/VBR, or range. /Filename required"
    "\n /Restore=x   Restores the MBR/GPT/Track0/VBR or range from /Filename"
    "\n /Repair=#    XP=Replaces a damaged PE/XP/2K3 boot record, WIN7=Win7/2K8"
    "\n /Show=x      Shows contents of FILE or SECTOR. Use with /file or /sector"
    "\n /Wipe=x      Wipes the MBR/GPT/Track0/DISK, or range of SECTOR(s)"
    "\n /Sort        Sort MBR partition entries to match physical location on disk"
    "\n /IsSorted    Returns 0 if MBR partitions are already sorted"
    "\n /Hide        Hides selected partition"
    "\n /UnHide      UnHides selected partition"
    "\n /Active      Marks a partition as bootable"
    "\n /Inactive    Sets the specified partition as unbootable"
    "\n /Del         Deletes the selected partition"
    "\n /Type=#      Changes partition type in MBR, where # is a hexadecimal value"
    "\n\nPress any key for remaining options..."
    "\n /Shutdown=#  1-Force shutdown, 2-Force Reboot, 3-Shutdown, 4-Reboot"
    "\n /Copy        Copies sector.  Req. /source and /target"
    "\n /WriteIni    Writes detailed info in .ini format.  Req. /Filename"
    "\n /Signature=  Read/Zero/Generate/Write. /Value=xxxxxxxx required with /Write"
    "\n /VolumeID=x  Read.  Displays the VolumeID for the specified partition"
    "\n /Compare     Compares 2 sectors. Req. /source=x target=y"
    "\n /Create      Creates a new new partition. Req. /Start, /Size, and /Align"
    "\n /Start=      Sector to start new partition. /Freespace uses first avail. "
    "\n /Size=       Size in MB of new partition. /Max uses all avail freespace. "
    "\n /Align=      Alignment boundary to start new partition, eg. 1k, 2k, 4k, etc."
    "\n /Status      Shows the status flag, or writes new status with =x"
    "\n /BootMenu    Allows user to select the active partition from a menu"
    "\n /Msg=#       Hides the status message displayed upon program exit"
    "\n /Confirm     Automatically answers 'Yes'"
    "\n /Ignore      Ignore Errors and continue processing"
    "\n /Result      Shows Errorlevel code on program exit"
    "\n /?           Displays this help page"
    "\n \nAll funtions return 0 on success, > 0 on error\n";

const std::string kInvalidSwitchTail =
    "\n\n Note: Command line parameters may have changed in version 3.0\n"
    " Please check the latest documentation to verify the specified parameters\n";

class RunControl : public ::testing::Test {
 protected:
  void SetUp() override {
    // One partition, so that the default partition 1 exists for every command.
    m.AddDrive(0, 2048).Write(0, e2e::Mbr({e2e::Entry(0x80, 0x07, 63, 1985)}));
  }
  e2e::Machine m;
};

TEST_F(RunControl, HelpPagesWithAndWithoutBanner) {
  e2e::Result r = m.Run({"/?"});
  EXPECT_EQ(r.out, kBanner + kUsage);
  EXPECT_EQ(r.status, 0);

  r = m.Run({"/silent"});
  EXPECT_EQ(r.out, kUsage);
  EXPECT_EQ(r.status, 0);
}

TEST_F(RunControl, InvalidSwitchesEndWith105) {
  e2e::Result r = m.Run({"/lis=1", "/result"});
  EXPECT_EQ(r.out, kBanner + "\n Error 105: Invalid or incomplete switch: /lis=1" + kInvalidSwitchTail +
                       "\n Result: 105\n");
  EXPECT_EQ(r.status, 105);

  // Without a prefix only a whole keyword matches.
  r = m.Run({"disk=1", "/list"});
  EXPECT_EQ(r.out, kBanner + "\n Error 105: Invalid or incomplete switch: disk=1" + kInvalidSwitchTail);
  EXPECT_EQ(r.status, 105);

  r = m.Run({"/?*"});
  EXPECT_EQ(r.status, 105);
}

TEST_F(RunControl, WipeWithUnknownAreaIs117AndRunsNothing) {
  std::string before = m.drive(0).Hash();
  e2e::Result r = m.Run({"/wipe=foo", "/confirm"});
  EXPECT_EQ(r.out, kBanner + "\n Error 117: Invalid Parameter: /wipe=foo\n");
  EXPECT_EQ(r.status, 117);
  EXPECT_EQ(m.drive(0).Hash(), before);
}

TEST_F(RunControl, ShutdownWithoutCommandIsRequestedOnly) {
  m.Set("shutdownlog", "shutdown.log");
  e2e::Result r = m.Run({"/shutdown=1"});
  EXPECT_EQ(r.out, kBanner);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(e2e::ReadFileText(m.PathOf("shutdown.log")), "shutdown flags=5\n");
}

TEST_F(RunControl, ShutdownAfterFailureIsAbortedUnlessIgnored) {
  m.Set("shutdownlog", "shutdown.log");
  e2e::Result r = m.Run({"/list", "/disk=7", "/shutdown=4"});
  EXPECT_NE(r.out.find(" Error 511: Invalid Disk selected\n\n Shutdown aborted due to previous error!\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.status, 511 & 0xFF);
  EXPECT_EQ(e2e::ReadFileText(m.PathOf("shutdown.log")), "");
}

TEST_F(RunControl, NotElevatedStopsTheCommand) {
  m.Set("elevated", "no");
  e2e::Result r = m.Run({"/list", "/result"});
  EXPECT_EQ(r.out, kBanner + "\nError 136: Diskholder is unable to access the disk(s) with current permissions,\n"
                             "          please restart as Administrator.\n\n Result: 136\n");
  EXPECT_EQ(r.status, 136);

  // Before Windows 6.0 there is no elevation check.
  m.Set("version", "5.1");
  r = m.Run({"/diskcount", "/silent", "/result"});
  EXPECT_EQ(r.out, "\n1\n");
}

TEST_F(RunControl, ListResultSilentEndsWithTheValueAlone) {
  e2e::Result r = m.Run({"/list", "/result", "/silent"});
  ASSERT_GE(r.out.size(), 3u);
  EXPECT_EQ(r.out.substr(r.out.size() - 3), "\n0\n");
  EXPECT_EQ(r.out.find("Diskhold - Version"), std::string::npos);
  EXPECT_EQ(r.status, 0);
}

TEST_F(RunControl, MessageNumberSuppressesTheFinalReport) {
  e2e::Result r = m.Run({"/list", "/disk=9", "/msg=1", "/silent", "/result"});
  EXPECT_EQ(r.out.find("Error"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.substr(r.out.size() - 5), "\n511\n");
}

TEST_F(RunControl, OptionFileBesideTheProgram) {
  // The option file is looked up in the folder of the program's path.
  std::string link = m.PathOf("diskhold");
  ASSERT_EQ(::symlink(e2e::DiskholdPath().c_str(), link.c_str()), 0);
  e2e::WriteFileText(m.PathOf("diskhold.opt"), "/diskcount /result\n\t/silent\n");
  e2e::Result r = e2e::RunProgram(link, {}, "", m.WriteMachineFile(), m.dir());
  EXPECT_EQ(r.out, "\n1\n");
  EXPECT_EQ(r.status, 1);
}

TEST_F(RunControl, NoArgumentsAndNoOptionFileIs102AndWaitsForAKey) {
  std::string link = m.PathOf("diskhold");
  ASSERT_EQ(::symlink(e2e::DiskholdPath().c_str(), link.c_str()), 0);
  e2e::Result r = e2e::RunProgram(link, {}, "", m.WriteMachineFile(), m.dir());
  EXPECT_EQ(r.out, kBanner +
                       "\n Error 102: No command line parameters specified \n"
                       "\n  Diskholder is a command line application, but no command line parameters\n"
                       "  were specified. Please make certain to start Diskholder from a command\n"
                       "  prompt.  For example, the following will display available app options:\n\n"
                       "  diskhold /?\n\n  Press any key to exit . . .\n");
  EXPECT_EQ(r.status, 102);
}

TEST_F(RunControl, HostileArgumentsNeitherCrashNorHang) {
  std::string huge(5000, 'x');
  for (const std::string& arg : {"/" + huge, "/disk=" + huge, "/part=" + huge, "/type=" + huge,
                                 "/msg=" + std::string(5000, '9'), "/save=" + huge, "-" + huge + "=" + huge,
                                 std::string(""), std::string("/"), std::string("-"), std::string("=")}) {
    e2e::Result r = m.Run({arg, "/silent"});
    EXPECT_GE(r.status, 0) << arg.substr(0, 20);
  }
  e2e::Result r = m.Run({"/type=" + std::string(5000, 'f'), "/confirm", "/silent"});
  EXPECT_GE(r.status, 0);
}

TEST_F(RunControl, ExitValuesOfQueries) {
  m.AddDrive(3, 2048, {{"media", "removable"}}).Write(0, e2e::Mbr({e2e::Entry(0x00, 0x06, 63, 1985)}));
  e2e::Result r = m.Run({"/diskcount", "/silent", "/result"});
  EXPECT_EQ(r.out, "\n2\n");
  EXPECT_EQ(r.status, 2);
  r = m.Run({"/isfixed", "/disk=1", "/silent"});
  EXPECT_EQ(r.status, 1);
  r = m.Run({"/isfixed", "/disk=0", "/silent"});
  EXPECT_EQ(r.status, 0);
}

TEST_F(RunControl, MissingMachineFileIsReported) {
  e2e::Result r = e2e::RunProgram(e2e::DiskholdPath(), {"/list"}, "", m.PathOf("nothere.ini"), m.dir());
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("nothere.ini"), std::string::npos) << r.err;
}

}  // namespace
