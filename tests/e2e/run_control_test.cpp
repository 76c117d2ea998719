// Run control end to end: banner, help pages, option file, invalid
// switches, elevation, result lines, shutdown requests and hostile
// arguments.  Outputs and exit values are compared with
// golden/run_control.txt.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "harness.h"

namespace {

using e2e::Args;

TEST(RunControl, OutputsAndExitValues) {
  e2e::Machine m;
  // One partition, so that the default partition 1 exists for every command.
  m.AddDrive(0, 2048).Write(0, e2e::Mbr({e2e::Entry(0x80, 0x07, 63, 1985)}));
  m.Set("shutdownlog", "shutdown.log");
  const std::string before = m.drive(0).Hash();
  std::string t = e2e::Transcript(
      m, {{"/?"}, {"/silent"}, {"/lis=1", "/result"}, {"disk=1", "/list"}, {"/?*"}, {"/wipe=foo", "/confirm"},
          {"/list", "/text", "/result", "/silent"}, {"/list", "/disk=9", "/msg=1", "/silent", "/result"},
          // A shutdown without a command is only requested; after a failure
          // it is not.
          {"/shutdown=1"}, {"/list", "/disk=7", "/shutdown=4"}});
  EXPECT_EQ(e2e::ReadFileText(m.PathOf("shutdown.log")), "shutdown flags=5\n");

  // Without elevation nothing runs; before Windows 6.0 there is no check.
  m.Set("elevated", "no");
  t += e2e::Transcript(m, {{"/list", "/result"}});
  m.Set("version", "5.1");
  t += e2e::Transcript(m, {{"/diskcount", "/silent", "/result"}});

  // The option file is looked up in the folder of the program's path; with
  // neither it nor arguments the run asks for a key.
  const std::string link = m.PathOf("diskhold");
  ASSERT_EQ(::symlink(e2e::DiskholdPath().c_str(), link.c_str()), 0);
  t += e2e::Shown({"(no arguments)"}, e2e::RunProgram(link, {}, "", m.WriteMachineFile(), m.dir()));
  e2e::WriteFileText(m.PathOf("diskhold.opt"), "/diskcount /result\n\t/silent\n");
  t += e2e::Shown({"(option file)"}, e2e::RunProgram(link, {}, "", m.WriteMachineFile(), m.dir()));

  m.AddDrive(3, 2048, {{"media", "removable"}}).Write(0, e2e::Mbr({e2e::Entry(0x00, 0x06, 63, 1985)}));
  t += e2e::Transcript(m, {{"/diskcount", "/silent", "/result"}, {"/isfixed", "/disk=1", "/silent"},
                           {"/isfixed", "/disk=0", "/silent"}});
  e2e::ExpectGolden("run_control.txt", t);
  EXPECT_EQ(before, m.drive(0).Hash());
}

TEST(RunControl, HostileArgumentsNeitherCrashNorHang) {
  e2e::Machine m;
  m.AddDrive(0, 2048).Write(0, e2e::Mbr({e2e::Entry(0x80, 0x07, 63, 1985)}));
  const std::string huge(5000, 'x');
  for (const Args& args : std::vector<Args>{
           {"/" + huge}, {"/disk=" + huge}, {"/part=" + huge}, {"/type=" + huge}, {"/msg=" + std::string(5000, '9')},
           {"/save=" + huge}, {"-" + huge + "=" + huge}, {""}, {"/"}, {"-"}, {"="},
           {"/type=" + std::string(5000, 'f'), "/confirm"}}) {
    Args all = args;
    all.push_back("/silent");
    EXPECT_GE(m.Run(all).status, 0) << args[0].substr(0, 20);
  }
}

TEST(RunControl, MissingMachineFileIsReported) {
  e2e::Machine m;
  e2e::Result r = e2e::RunProgram(e2e::DiskholdPath(), {"/list"}, "", m.PathOf("nothere.ini"), m.dir());
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("nothere.ini"), std::string::npos) << r.err;
}

}  // namespace
