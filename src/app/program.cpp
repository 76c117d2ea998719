#include "app/program.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "app/command_table.h"
#include "app/confirm.h"
#include "app/dispatcher.h"
#include "app/grammar.h"
#include "app/messages.h"
#include "app/run_state.h"
#include "app/shutdown.h"
#include "base/frame.h"
#include "base/sink.h"
#include "base/version.h"
#include "disk/disk_set.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"
#include "platform/platform.h"
#include "vdisk/vmdk.h"

namespace dh {

namespace {

void CheckElevation() {
  platform::Machine& host = platform::Host();
  platform::OsVersion version;
  if (!host.GetVersionEx(&version)) return;
  if (version.platformId != 2 || version.majorVersion < 6) return;
  // When the token cannot be read the state is unknown; only a process
  // known not to be elevated is stopped.
  bool elevated = true;
  if (host.QueryElevation(&elevated) && !elevated) SetResultIfNone(kNotElevated);
}

void ResolveSelectors(platform::Machine& host, const DiskDrivers& drivers, bool ignoreErrors) {
  RunOptions& o = Options();
  RunState& s = State();
  std::optional<VolumeSelector> selector;
  std::string text;
  ResultCode notFound = kSuccess;
  switch (o.partNumber) {
    case kPartSystem:
      selector = VolumeSelector::System;
      notFound = kNoSystemPartition;
      break;
    case kPartBoot:
      selector = VolumeSelector::Boot;
      notFound = kNoBootPartition;
      break;
    case kPartUtility:
      selector = VolumeSelector::Utility;
      notFound = kNoUtilityPartition;
      break;
    case kPartVolumeLabel:
    case kPartDriveLetter:
      selector = o.partNumber == kPartVolumeLabel ? VolumeSelector::Label : VolumeSelector::DriveLetter;
      notFound = kVolumeNotFound;
      if (FindArgument("/Vol")) text = CurrentArgumentValue();
      break;
    default:
      break;
  }
  // An unset "systemdrive" variable finds nothing.
  if (selector == VolumeSelector::System && !host.GetEnv("systemdrive", &text)) text.clear();
  if (selector) {
    const LocatedVolume found = LocateVolume(host, drivers, *selector, text, ignoreErrors);
    if (found.found) {
      s.locatedDisk = found.disk;
      s.locatedPart = found.part;
    } else {
      SetResultIfNone(notFound);
    }
  }
  if (s.locatedDisk >= 0 && s.locatedPart > 0) {
    o.diskNumber = s.locatedDisk;
    o.partNumber = s.locatedPart;
  }
}

int32_t ExitValue(const DiskSet* disks) {
  const RunOptions& o = Options();
  const RunState& s = State();
  const CommandSpec* spec = FindCommand(o.command);
  if (spec != nullptr && spec->exitValue != nullptr) return spec->exitValue(o, s, disks);
  return s.resultCode;
}

}  // namespace

int32_t RunDiskhold(int argc, char** argv) {
  RunOptions& o = Options();
  RunState& s = State();
  platform::Machine& host = platform::Host();
  // The formats the disk set loads tables and virtual disks with.
  DiskDrivers drivers;
  drivers.loadMbr = LoadMbrTable;
  drivers.loadGpt = LoadGptTable;
  drivers.openVirtual = OpenVirtualVmdk;

  CheckElevation();

  const uint32_t codePage = host.ConsoleOutputCodePage();

  bool run = false;
  if (argc <= 1) {
    if (ReadOptionFile(argc >= 1 && argv[0] ? argv[0] : "")) {
      run = true;
    } else {
      SetResultIfNone(kNoParameters);
      s.usageError = true;
    }
  } else {
    Arguments().Clear();
    for (int i = 1; i < argc; ++i) Arguments().Add(argv[i] ? argv[i] : "");
    for (int i = 1; i < argc; ++i) ParseArgument(argv[i] ? argv[i] : "");
    run = !s.usageError && o.command != kCmdNone && !o.helpRequested;
  }

  // The frame set follows the console, unless `text` asked for plain text.
  const FrameSet set = o.textFrame ? FrameSet::PlainText : FrameSetForCodePage(codePage);
  const FrameChars frame = SelectFrameChars(set, codePage);

  if (!o.silent) {
    std::printf("\n%s for %s\n", kProgramTitle, kPlatformName);
    std::printf("  %s\n", kMakerNotice);
  }

  std::unique_ptr<DiskSet> disks;
  if (!run) {
    if (s.usageError) {
      PrintFinalReport(-1);
    } else if (o.shutdownMode == 0) {
      PrintUsage(StdOut());
    }
  } else {
    disks = std::make_unique<DiskSet>(host, drivers, o.ignoreErrors);
    if (disks->firstError != kSuccess) {
      SetResultIfNone(disks->firstError);
    } else {
      s.completedStep = 0;
    }
    ResolveSelectors(host, drivers, o.ignoreErrors);
    CommandContext context{o, s, *disks, StdOut(), frame, codePage};
    DispatchCommand(context);
    if (o.command == kCmdBootMenu && s.resultCode == kSuccess) RunBootMenuStep(context);
    // A write refused because the disk opened for reading only is the
    // run's failure, whatever the command made of it (a write error, an
    // unfinished wipe).
    if (disks->WriteWasRefused()) s.resultCode = kVmdkReadOnly;
    PrintFinalReport(disks->currentDisk);
  }

  if (o.shutdownMode != 0 && (s.resultCode == kSuccess || o.ignoreErrors)) RequestShutdown();

  int32_t exitValue = ExitValue(disks.get());
  if (o.showResult) {
    if (o.silent) {
      std::printf("\n%d\n", static_cast<int>(exitValue));
    } else {
      std::printf("\n Result: %d\n", static_cast<int>(exitValue));
    }
  }
  std::fflush(stdout);
  disks.reset();
  return exitValue;
}

}  // namespace dh
