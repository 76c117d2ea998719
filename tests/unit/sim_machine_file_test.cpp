// Machine files that must be refused, each with an error naming its line.
// Sound machine files are read by every end-to-end run.
#include "platform/sim/machine_file.h"

#include <gtest/gtest.h>

namespace dh::platform::sim {
namespace {

TEST(SimMachineFile, ErrorsNameTheLine) {
  MachineDescription d;
  std::string error;
  EXPECT_FALSE(ParseMachineFile("\n[machine]\ncolour = blue\n", "/m/machine.ini", &d, &error));
  EXPECT_EQ(error, "/m/machine.ini, line 3: unknown key \"colour\" in [machine]");

  const std::pair<const char*, const char*> cases[] = {
      {"[disk 0]\n", "line 1: unknown section [disk 0]"},
      {"[machine]\n\ncodepage = 43x\n", "line 3: bad number"},
      {"[machine]\ncodepage = 4294967296\n", "line 2:"},
      {"[drive 100]\nimage=x\n", "line 1: drive numbers run from 0 to 99"},
      {"[drive]\n", "line 1:"},
      {"[drive 1]\nimage=a\n[drive 01]\nimage=b\n", "line 3: section [drive 1] is given twice"},
      {"[volume C]\n[volume c:]\n", "line 2:"},
      {"[machine]\ncodepage=1\nCODEPAGE=2\n", "line 3: key \"CODEPAGE\" is given twice"},
      {"codepage = 1\n", "line 1: key \"codepage\" stands before any section"},
      {"[machine]\njust words\n", "line 2: expected"},
      {"[machine]\n\n[drive 4]\nmedia = fixed\n", "line 3: [drive 4] has no image"},  // the section's line
      {"[drive 0]\nimage = a\nbadsectors = 9-3\n", "line 3: bad entry \"9-3\""},
      {"[drive 0]\nimage = a\nlayout = 100,0,0\n", "line 3: bad layout"},
      {"[drive 0]\nimage = a\nmedia = cdrom\n", "line 3:"},
      {"[machine]\ngrouping = 33\n", "line 2:"},
      {"[machine]\nsystemdrive = C:\n[environment]\nSystemDrive = D:\n", "line 4:"},
      // Cross references are checked at the end but name the volume's line.
      {"[volume C]\ndrive = 2\noffset = 0\n", "line 1: [volume C] names drive 2"},
      {"[drive 0]\nimage=a\n[volume C]\noffset = 0\n", "line 3: [volume C] has an offset but no drive"},
      {"[drive 0]\nimage=a\n[volume C]\ndrive=0\noffset=0\ndevice=\\??\\x\n", "line 3:"},
      {"[volume C]\nguid = {1234}\n", "line 2: bad guid"},
  };
  for (const auto& [text, expected] : cases) {
    error.clear();
    EXPECT_FALSE(ParseMachineFile(text, "/m/machine.ini", &d, &error)) << text;
    EXPECT_NE(error.find(expected), std::string::npos) << text << " -> " << error;
  }
}

}  // namespace
}  // namespace dh::platform::sim
