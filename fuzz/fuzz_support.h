// What every fuzz target shares: an in-memory host under the simulated
// machine (files are byte vectors, the console answers from a script), one
// run of the whole program on it, and the checks that hold a run to what it
// may write.  A broken check aborts, which libFuzzer reports as a crash with
// the input that caused it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "disk/disk_set.h"
#include "platform/platform.h"
#include "platform/sim/machine_file.h"

namespace dh::fuzz {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kSector = 512;
// No file of the in-memory host grows beyond this: a hostile grain size or
// range must end in a failed write, not in the fuzzer's memory limit.
constexpr uint64_t kMaxMemFileBytes = 64ull << 20;

// A file of the in-memory host; every handle on a path shares it.  Its
// bytes are kept in chunks, and a chunk never written reads as zeros, so
// that a disk of gigabytes costs only the sectors a run puts on it.
struct MemFile {
  static constexpr uint64_t kChunk = 4096;
  uint64_t size = 0;
  std::map<uint64_t, Bytes> chunks;  // by chunk index, each kChunk bytes
  uint64_t writes = 0;               // Write calls that moved at least one byte

  MemFile() = default;
  // `data` from offset 0, zeros up to `fileSize` (at least data's size).
  MemFile(const uint8_t* data, size_t bytes, uint64_t fileSize);
  explicit MemFile(const Bytes& data) : MemFile(data.data(), data.size(), data.size()) {}

  void Read(uint64_t offset, uint8_t* out, size_t bytes) const;
  void Write(uint64_t offset, const uint8_t* in, size_t bytes);
  Bytes Slice(uint64_t offset, size_t bytes) const;
  Bytes All() const { return Slice(0, static_cast<size_t>(size)); }
};

// The host under the simulated machine: files by path, scripted keys and
// lines, a fixed random sequence.  Paths are plain keys, never the host's
// file system.
class MemMachine : public platform::Machine {
 public:
  std::map<std::string, std::shared_ptr<MemFile>> files;
  std::deque<int> keys;            // ReadKey answers -1 once these run out
  std::deque<std::string> lines;   // ReadLine answers false once these run out
  uint32_t lastError = 0;
  uint32_t randomState = 0x9E3779B9u;
  int created = 0;  // files made by CreateAlways

  // Adds or replaces a file; its write count starts at 0.
  MemFile& Put(const std::string& path, MemFile file);
  MemFile& Put(const std::string& path, const Bytes& bytes) { return Put(path, MemFile(bytes)); }
  // A file, empty when there is none.
  const MemFile& Get(const std::string& path) const;

  std::unique_ptr<platform::File> Open(const std::string& path, platform::OpenMode mode) override;
  bool PathExists(const std::string& path) override { return files.count(path) != 0; }
  bool RegQueryString(const std::string&, const std::string&, std::string*) override { return Fail(2); }
  bool RegQueryBinary(const std::string&, const std::string&, std::vector<uint8_t>*) override { return Fail(2); }
  std::vector<std::string> LogicalDriveStrings() override { return {}; }
  bool VolumeNameForMountPoint(const std::string&, std::string*) override { return Fail(2); }
  platform::FormatEngineState LoadFormatEngine() override { return platform::FormatEngineState::LibraryMissing; }
  bool FormatEx(const std::u16string&, uint32_t, const std::u16string&, const std::u16string&, bool, uint32_t,
                const platform::FormatCallback&, const platform::FormatPlace&) override {
    return Fail(126);
  }
  void PumpOneMessage() override {}
  bool NtfsFormatterPresent() override { return Fail(126); }
  bool RunNtfsFormatter(const platform::NtfsFormatJob&, const platform::FormatCallback&) override {
    return Fail(126);
  }
  bool GetVersionEx(platform::OsVersion* out) override {
    *out = platform::OsVersion{6, 1, 2};
    return true;
  }
  uint32_t GetVersion() override { return 6 | (1 << 8); }
  bool QueryElevation(bool* elevated) override {
    *elevated = true;
    return true;
  }
  bool EnableShutdownPrivilege() override { return true; }
  bool ExitWindows(uint32_t) override { return true; }
  uint32_t ConsoleOutputCodePage() override { return 437; }
  void ClearScreen() override {}
  void SetCursorPosition(int, int) override {}
  int ReadKey() override;
  bool ReadLine(std::string* line) override;
  bool GetLocaleInfo(platform::LocaleItem, std::string*) override { return Fail(87); }
  bool GetNumberFormat(const std::string&, const platform::NumberFormat&, std::string*) override { return Fail(87); }
  std::string ComputerName() override { return "FUZZPC"; }
  bool GetEnv(const std::string&, std::string*) override { return Fail(203); }
  void MessageBox(const std::string&, const std::string&) override {}
  uint32_t LastError() override { return lastError; }
  bool SystemMessageText(uint32_t, std::string*) override { return Fail(317); }
  bool RandomBytes(void* out, size_t bytes) override;

  bool Fail(uint32_t code) {
    lastError = code;
    return false;
  }
};

// A drive of the simulated machine on an in-memory image.
platform::sim::DriveDescription Drive(int number, const std::string& image,
                                      platform::sim::MediaKind media = platform::sim::MediaKind::Fixed);

// One disk set over one in-memory drive, for the targets that call the
// table and volume readers themselves: made once per process (its drive
// count is taken then, on a host without drives), and loaded afresh from an
// image for each input without starting the program or probing drives.
class DirectDisk {
 public:
  DirectDisk();
  // Puts `image` on the host as the drive's image, attaches the drive and
  // loads it as the program loads a selected disk: geometry, sector 0, the
  // MBR or GPT table, volume labels.
  DiskSet& Load(const MemFile& image, platform::sim::MediaKind media = platform::sim::MediaKind::Fixed);
  DiskSet& disks() { return *disks_; }
  // The image as it stands now.
  const MemFile& Image() const { return host->Get(kPath); }

  static constexpr const char* kPath = "/fz/direct.img";
  std::shared_ptr<MemMachine> host = std::make_shared<MemMachine>();

 private:
  std::unique_ptr<DiskSet> disks_;
};

// Runs the program once with `args` (without the program name, which is
// `programPath`) on the simulated machine `description` over `host`.  The
// run's options and state are fresh; its console output goes wherever
// stdout goes (InitFuzzing sends it to /dev/null).  -1 when the machine
// cannot be built.
int32_t RunProgram(const std::shared_ptr<MemMachine>& host, const platform::sim::MachineDescription& description,
                   const std::vector<std::string>& args, const std::string& programPath = "diskhold");

// Once per process: quiets stdout (DISKHOLD_FUZZ_VERBOSE=1 keeps it) and,
// when drive images may be VMware disks, hands the simulated machine the
// program's opener for them (probing every raw image for a descriptor
// would otherwise take most of each run).
void InitFuzzing(bool vmdkImages);

// ---- checks ---------------------------------------------------------------

// Aborts with `what` when `ok` is false.
void Require(bool ok, const std::string& what);

// Byte ranges [first, end) a run may change, or with `forbid` the ranges
// it must leave alone (everything else it may change).
struct Ranges {
  std::vector<std::pair<uint64_t, uint64_t>> list;
  bool forbid = false;
  // With `forbid`: bytes allowed all the same (a table sector that a
  // partition entry claims to cover).
  std::vector<std::pair<uint64_t, uint64_t>> always;
  Ranges& Add(uint64_t first, uint64_t end) {
    if (end > first) list.emplace_back(first, end);
    return *this;
  }
  Ranges& Sectors(uint64_t firstLba, uint64_t count) { return Add(firstLba * kSector, (firstLba + count) * kSector); }
  bool Contains(uint64_t offset) const;
  bool Allows(uint64_t offset) const {
    for (const auto& [first, end] : always) {
      if (offset >= first && offset < end) return true;
    }
    return forbid ? !Contains(offset) : Contains(offset);
  }
};

// Aborts unless `after` equals `before` outside `allowed` (and both have
// the same size).  `what` names the run in the report.
void RequireOnlyChanged(const MemFile& before, const MemFile& after, const Ranges& allowed, const std::string& what);
void RequireOnlyChanged(const Bytes& before, const Bytes& after, const Ranges& allowed, const std::string& what);
// Aborts unless no file of `host` but those in `except` was written since
// it was put there, and no file was created (unless `mayCreate`).
void RequireNoWrites(const MemMachine& host, const std::vector<std::string>& except, const std::string& what,
                     bool mayCreate = false);

// The fuzz input as a disk image of `sectors` sectors: the input from
// sector 0, zeros after it (cut when longer).
MemFile ImageFromInput(const uint8_t* data, size_t size, uint64_t sectors);
// The same with the input's last `tailSectors` sectors at the disk's end
// (where a backup GPT lives) and the rest from sector 0.
MemFile TailImage(const uint8_t* data, size_t size, size_t tailSectors, uint64_t sectors);

// Reads `sectors` sectors (at most) of a VMware disk through the program's
// own opener on `host`; empty when it does not open.
Bytes ReadVirtualDisk(MemMachine& host, const std::string& path, uint64_t sectors);

// The arguments as a run shows them in a failure report.
std::string Describe(const std::vector<std::string>& args);

}  // namespace dh::fuzz
