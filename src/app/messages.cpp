#include "app/messages.h"

#include <cstdio>

#include "app/command_table.h"
#include "app/grammar.h"
#include "app/run_state.h"
#include "base/sink.h"
#include "platform/platform.h"

namespace dh {

namespace {

// What a failure line of its own shows in its "%s" (its "%d" is the code).
enum class LineArgument { None, ValueText, BadArgument, Volume, ValueText2 };

struct FailureLine {
  ResultCode code;
  const char* format;
  LineArgument argument;
};

// Codes with a line of their own.  102 is printed separately because it
// explains itself at length and waits for a key.
const FailureLine kFailureLines[] = {
    {101, "\n Error %d: Invalid partition ID specified\n", LineArgument::None},
    {103, " Error %d: No drive letter specified for Mount operation.\n", LineArgument::None},
    {104, " Error %d: Unable to write MBR information to file %s.\n", LineArgument::ValueText},
    {105,
     "\n Error %d: Invalid or incomplete switch: %s\n\n Note: Command line parameters may have changed in version "
     "3.0\n Please check the latest documentation to verify the specified parameters\n",
     LineArgument::BadArgument},
    {106, " Error %d: Invalid Partition specified.\n", LineArgument::None},
    {107, "\n Invalid sector range: %s \n", LineArgument::ValueText},
    {108, " Error %d: Invalid sector specified for copy operation.\n", LineArgument::None},
    {109, " Error %d: Missing or invalid /Target=x command\n", LineArgument::None},
    {110, " Error %d: The specified file does not contain the MBR signature\n", LineArgument::None},
    {111, " Error %d: Missing or incomplete Range specified for the operation\n", LineArgument::None},
    {112, " Error %d: Invalid option specified.\n", LineArgument::None},
    {113, " Error %d: All disks can only be used with all partitions\n", LineArgument::None},
    {114, " Error %d: Missing or invalid parameter for Unmount operation.\n", LineArgument::None},
    {115, " Error %d: Missing or invalid parameter for Unmount operation.\n", LineArgument::None},
    {116, " Error %d: Status must be between 0 and 254\n", LineArgument::None},
    {117, " Error %d: Invalid Parameter: %s\n", LineArgument::BadArgument},
    {118, " Error %d: Missing or Incomplete Parameter: %s\n", LineArgument::BadArgument},
    {119, " Error %d: /Value must include an 8 character hex string, eg. AC67AC67\n", LineArgument::None},
    {120, " Error %d: Invalid or missing option required with /Signature\n", LineArgument::None},
    {122, " Error %d: Missing or invalid /Source=x command\n", LineArgument::None},
    {123, " Error %d: Invalid target sector specified for restore operation.\n", LineArgument::None},
    {124, " Error %d: Invalid or missing option required with /VolumeID\n", LineArgument::None},
    {125, " Partition entries already sorted. No changes have been made.\n", LineArgument::None},
    {126, " Error %d: Partition table must be sorted before performing this operation \n", LineArgument::None},
    {127, " Error %d: All Partitions command not allowed with this operation\n", LineArgument::None},
    {128, " Error %d: All Disks command not allowed with this operation\n", LineArgument::None},
    {129, " Error %d: User cancelled process\n", LineArgument::None},
    {130, " Error %d: Removable drive does not contain a valid MBR\n", LineArgument::None},
    {131, " Error %d: Unable to perform GPT operations on Non-GPT Disks\n", LineArgument::None},
    {133, " Error %d: Invalid or missing filename\n", LineArgument::None},
    {134, " Error %d: Unable to locate the specified file\n", LineArgument::None},
    {135, " Error %d: Unable to open the specified file\n", LineArgument::None},
    {136,
     "Error %d: Diskholder is unable to access the disk(s) with current permissions,\n          please restart as "
     "Administrator.\n",
     LineArgument::None},
    {137, " Error %d: The specified start sector is currently assigned\n", LineArgument::None},
    {138, " Error %d: The specified size extends into unavailable space \n", LineArgument::None},
    {139, " Error %d: Invalid value specified for align parameter\n", LineArgument::None},
    {140, " Error %d: Missing /size parameter\n", LineArgument::None},
    {141, " Error %d: Missing or invalid size parameter specified\n", LineArgument::None},
    {142, " Error %d: Unable to locate available freepace for new partition \n", LineArgument::None},
    {143, " Error %d: Partition table is full, unable to create new partitions \n", LineArgument::None},
    {144, " Error %d: Unable to locate the System partition \n", LineArgument::None},
    {145, " Error %d: Unable to locate the Boot partition \n", LineArgument::None},
    {146, " Error %d: Unable to locate a utility / recovery partition \n", LineArgument::None},
    {147, " Error %d: Unable to locate the specifed partition: '%s' \n", LineArgument::Volume},
    {148, " Error %d: Unable to locate the partition assigned to drive letter: %s \n", LineArgument::Volume},
    {149, " Error %d: Unsupported partition boot record for\n", LineArgument::None},
    {150, " Error %d: Specified file does not appear to be a valid Diskholder file.\n", LineArgument::None},
    {151, " Error %d: %s\n", LineArgument::ValueText2},
    {152, " Error %d: %s\n", LineArgument::ValueText2},
    {153, " Error %d: The specified items do not match.\n", LineArgument::None},
};

struct CodeText {
  ResultCode code;
  const char* text;
};

const CodeText kCodeTexts[] = {
    {0, "Success"},
    {200, "Invalid EFI Disk"},
    {202, "Unable to Save changes to the GPT"},
    {203, "Unable to Read from File"},
    {204, "Unable to Open File"},
    {205, "Invalid Diskholder Backup File"},
    {300, "Specified file is not a VMware disk file"},
    {302, "Specified file is not a VMware disk file"},
    {303, "Unable to open a required file for the specified virtual disk"},
    {304, "Unable to determine the specific virtual disk type"},
    {305, "Unable to locate a valid MBR in the virtual disk file"},
    {306, "The virtual disk's grain tables are damaged: it opens for reading only and nothing was written"},
    {501, "An invalid/missing disk device was detected"},
    {502, "Could not read from the device number"},
    {503, "The MBR is missing or corrupt"},
    {504, "An invalid entry was located in the boot record "},
    {505, "Unable to save the specified sectors to the selected disk"},
    {506, "Unable to read the specified sector from the selected disk"},
    {507, "An error ocurred writing the backup file"},
    {508, "An error ocurred reading the backup file"},
    {509, "The file does not contain a copy of a valid MBR"},
    {510, "Unable to locate a valid MBR at this location"},
    {511, "Invalid Disk selected"},
    {512, "Invalid Partition selected"},
    {513, "Partition table is corrupt"},
    {514, "Discrepancy between Bios Disk Count and Actual Disk Count"},
    {515, "No Disk Identified or Insufficient User Privileges"},
    {516, "Unable to complete disk wipe"},
    {518, "Unable to create partition, invalid or missing MBR"},
    {550, "Unable to locate specified volume"},
    {551, "Specified volume is already mounted"},
    {552, "Specified volume is not mounted"},
    {553, "Unable to mount the selected volume"},
    {554, "Unable to dismount the selected volume"},
    {555, "Specified Drive Letter already assigned"},
    {556, "Unable to assign label to selected volume"},
    {557, "Invalid mode or signature specified"},
    {558, "Unable to hide this partition type"},
    {559, "Unable to modify removable disk partitions"},
    {560, "File size does not match requested command"},
    {561, "File does not contain a valid MBR. Use /Ignore to force write.\n"},
    {562, "Invalid path or filename specified"},
    {563, "Unable to overwrite existing file. Check permissions and attributes."},
    {564, "Unable to locate specified file"},
    {565, "Unable to locate the specified virtual disk file"},
    {566, "Specified file is not a VMware disk file"},
    {567, "Unable to identify format of VMDK file"},
    {568, "Unable to identify virtual disk parameters"},
    {569, "Virtual disk file locked, or insufficient privileges"},
    {571, "Unable to access the specifed disk"},
    {572, "Unable to add partition, the four partition limit has been reached."},
};

void WriteText(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

// A failure line with its "%d" (the code) and "%s" (the argument) filled in.
// Done by hand so that the line's format is never handed to printf at run
// time and a '%' in the argument is shown as it is.
std::string FillLine(const char* format, int code, const std::string& argument) {
  std::string line = format;
  size_t at = line.find("%d");
  if (at != std::string::npos) line.replace(at, 2, std::to_string(code));
  at = line.find("%s", at == std::string::npos ? 0 : at);
  if (at != std::string::npos) line.replace(at, 2, argument);
  return line;
}

// The success line " %s \n" with the step's text, whose "%s" shows valueText.
// The substitution is made here rather than by printf so that a '%' in
// valueText (a file name, say) is printed as it is.
void PrintSuccessLine(const char* text) {
  const RunOptions& o = Options();
  std::string line = std::string(" ") + text + " \n";
  size_t at = line.find("%s");
  if (at != std::string::npos) {
    // The boot menu's partition number is shown as a number, whatever else
    // valueText might hold.
    std::string shown = State().completedStep == kCmdBootMenu ? std::to_string(ReadDecimal(o.valueText)) : o.valueText;
    line.replace(at, 2, shown);
  }
  WriteText(line);
}

void PrintSuccess() {
  const RunOptions& o = Options();
  const RunState& s = State();
  const CommandSpec* spec = FindCommand(o.command);
  if (spec != nullptr && spec->printSuccess != nullptr && spec->printSuccess(o, s, StdOut())) return;
  if (const char* text = SuccessText(s.completedStep)) PrintSuccessLine(text);
}

void PrintFailure(int32_t currentDisk) {
  const RunOptions& o = Options();
  const RunState& s = State();
  const int code = s.resultCode;
  if (code == kNoParameters) {
    std::printf("\n Error %d: No command line parameters specified \n", code);
    std::fputs(
        "\n  Diskholder is a command line application, but no command line parameters\n  were specified. Please make "
        "certain to start Diskholder from a command\n  prompt.  For example, the following will display available app "
        "options:\n\n  diskhold /?\n\n  Press any key to exit . . .\n",
        stdout);
    std::fflush(stdout);
    platform::Host().ReadKey();
  } else {
    const FailureLine* line = nullptr;
    for (const FailureLine& l : kFailureLines) {
      if (l.code == code) line = &l;
    }
    if (line == nullptr) {
      std::printf(" Error %d: %s\n\n", code, ResultCodeText(code, currentDisk).c_str());
    } else {
      std::string argument;
      switch (line->argument) {
        case LineArgument::None: break;
        case LineArgument::ValueText: argument = o.valueText; break;
        case LineArgument::BadArgument: argument = s.badArgument; break;
        case LineArgument::Volume:
          if (FindArgument("/Vol")) argument = CurrentArgumentValue();
          break;
        case LineArgument::ValueText2: argument = o.valueText2; break;
      }
      WriteText(FillLine(line->format, code, argument));
    }
  }
  if (o.shutdownMode != 0 && !o.ignoreErrors) std::fputs(" Shutdown aborted due to previous error!\n", stdout);
}

}  // namespace

ResultCode RecordOutcome(ResultCode outcome, int32_t step) {
  if (outcome == kSuccess) {
    State().completedStep = step;
  } else {
    SetResultIfNone(outcome);
  }
  return State().resultCode;
}

std::string ResultCodeText(ResultCode code, int32_t currentDisk) {
  if (code == kExtendedOutside) {
    char buffer[1024];
    std::snprintf(buffer, sizeof(buffer), "Extended partition is located outside of boundaries on disk %d",
                  static_cast<int>(currentDisk));
    return buffer;
  }
  for (const CodeText& t : kCodeTexts) {
    if (t.code == code) return t.text;
  }
  return "    ";
}

const char* SuccessText(int32_t step) {
  size_t count = 0;
  const CommandSpec* rows = CommandRows(&count);
  for (size_t i = 0; i < count; ++i) {
    if (rows[i].successText == nullptr) continue;
    if (const char* text = rows[i].successText(step, Options())) return text;
  }
  return nullptr;
}

void PrintFinalReport(int32_t currentDisk) {
  const RunOptions& o = Options();
  // msg=1 silences the report completely; msg=3 does too, including the
  // shutdown notice and the key wait of 102, since a script that asked for
  // silence wants none of it.  The exit value still tells the outcome.
  if (o.messageNumber == 1 || o.messageNumber == 3) return;
  if (State().resultCode == kSuccess) {
    PrintSuccess();
  } else {
    PrintFailure(currentDisk);
  }
}

}  // namespace dh
