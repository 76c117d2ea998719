// The machine, the private folder and the per-command checks of the command-line targets.
#include "fuzz_cli.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "app/run_state.h"
#include "fuzz_images.h"

namespace dh::fuzz {

namespace {

const char* const kImages[] = {"/fz/disk0.img", "/fz/disk1.img", "/fz/usb.img", "v.vmdk"};

std::string g_folder;

void RemoveFolder() {
  if (g_folder.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(g_folder, ignored);
}

}  // namespace

CliMachine MakeCliMachine() {
  static const MemFile disk0 = MbrDisk();
  static const MemFile disk1 = GptDisk();
  static const MemFile usb = SuperFloppy();
  static const MemFile vmdk(SparseExtent(
      2048, 8, Descriptor("monolithicSparse", 2048, "RW 2048 SPARSE \"v.vmdk\""), SimpleMbr(4096)));
  CliMachine m;
  m.host = std::make_shared<MemMachine>();
  m.images = {{kImages[0], disk0}, {kImages[1], disk1}, {kImages[2], usb}, {kImages[3], vmdk}};
  for (const auto& [path, image] : m.images) m.host->Put(path, image);
  m.host->keys = {'y', 'y', 'y'};
  m.host->lines = {"1"};
  m.description.hasCodePage = true;
  m.description.drives.push_back(Drive(0, kImages[0]));
  m.description.drives.push_back(Drive(1, kImages[1]));
  m.description.drives.push_back(Drive(2, kImages[2], platform::sim::MediaKind::Removable));
  return m;
}

const std::string& PrivateFolder() {
  if (g_folder.empty()) {
    char name[] = "/tmp/diskhold-fuzz-XXXXXX";
    Require(mkdtemp(name) != nullptr, "cannot make a private folder");
    g_folder = name;
    std::atexit(RemoveFolder);
  }
  return g_folder;
}

InPrivateFolder::InPrivateFolder() {
  std::error_code error;
  previous_ = std::filesystem::current_path(error).string();
  Require(!error, "cannot tell the working folder");
  std::filesystem::current_path(PrivateFolder(), error);
  Require(!error, "cannot enter the private folder");
}

InPrivateFolder::~InPrivateFolder() {
  std::error_code error;
  std::filesystem::current_path(previous_, error);
  Require(!error, "cannot go back to the working folder");
}

void ClearPrivateFolder(const std::string& keep) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(PrivateFolder(), ignored)) {
    if (entry.path().filename() == keep) continue;
    std::filesystem::remove_all(entry.path(), ignored);
  }
}

bool StaysInFolder(const uint8_t* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (data[i] != '/' && data[i] != '\\') continue;
    const bool starts = i == 0 || data[i - 1] == 0 || data[i - 1] == ' ' || data[i - 1] == '\t' ||
                        data[i - 1] == '\r' || data[i - 1] == '\n';
    if (!starts) return false;
  }
  return true;
}

void CheckCliRun(const CliMachine& m, const std::string& what) {
  const int32_t command = Options().command;
  switch (command) {
    case kCmdRestore:
    case kCmdWipe:
    case kCmdCopy:
      // Their areas come from the arguments; the targets of their own
      // hold them to those.
      return;
    case kCmdHide:
    case kCmdUnhide:
    case kCmdActive:
    case kCmdInactive:
    case kCmdType:
    case kCmdDelete:
    case kStepDeleteAll:
    case kCmdSort:
    case kCmdCreate:
    case kCmdStatusWrite:
    case kCmdSignature:
    case kStepSignatureRead:
    case kStepSignatureWrite:
    case kStepSignatureGenerate:
    case kStepSignatureZero:
    case kCmdRepair:
    case kCmdBootMenu:
      // Sector 0 of any disk (a GPT delete: the tables, never a partition).
      for (const auto& [path, image] : m.images) {
        if (path == kImages[3]) continue;
        Ranges allowed = Ranges().Sectors(0, 1);
        if (path == kImages[1] && (command == kCmdDelete || command == kStepDeleteAll)) {
          allowed = PartitionSectors(image);
        }
        RequireOnlyChanged(image, m.host->Get(path), allowed, what + " on " + path);
      }
      return;
    default:
      // Everything else reads the disks: listings, queries, save, show,
      // compare, format without an engine, writeini.
      for (const char* path : kImages) {
        Require(m.host->files.at(path)->writes == 0, what + ": wrote to " + path);
      }
      return;
  }
}

}  // namespace dh::fuzz
