// An in-memory machine for unit tests: drives and files are byte vectors,
// and the services the tests steer answer from plain fields.  FakeDiskTest
// bundles the usual fixture: a fresh run, a machine, its drive 0 with an MBR
// of given entries, and the disk set loaded from it, handed that machine.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "disk/disk_set.h"
#include "platform/platform.h"
#include "../reference.h"

namespace dh::test {

// A drive or a plain file.  Drives answer the device queries from the
// fields below; plain files fail them, as Windows does.
struct FakeDrive {
  std::vector<uint8_t> bytes;
  bool isDevice = true;
  std::set<uint64_t> badSectors;              // transfers touching these 512-byte sectors fail
  uint32_t readLimit = 0;                     // non-zero: a read delivers at most this many bytes
  bool writeProtected = false;
  bool zeroes = false;     // zeroes a range of its own (a file system's hole punching)
  bool flushFails = false;
  uint64_t reportedBytes = 0;  // non-zero: the size the drive reports, not its bytes'
  platform::DiskGeometry geometry;  // set by FakeMachine::AddDrive
  int updatePropertiesCalls = 0;
  int writeCalls = 0;
  int flushCalls = 0;

  uint8_t* Sector(uint64_t lba) { return bytes.data() + lba * 512; }
  void SetBootSignature(uint64_t lba = 0) {
    Sector(lba)[510] = 0x55;
    Sector(lba)[511] = 0xAA;
  }
};

class FakeMachine : public platform::Machine {
 public:
  // Adds \\.\PhysicalDrive<number> with `sectors` zero sectors and a fixed
  // disk geometry of 255 heads and 63 sectors per track.
  FakeDrive& AddDrive(int number, uint64_t sectors, int32_t mediaType = platform::kMediaFixed);
  FakeDrive& AddFile(const std::string& path, std::vector<uint8_t> contents = {});
  FakeDrive* Find(const std::string& path);  // null when there is none

  std::map<std::string, FakeDrive> devices;  // by path
  uint32_t lastError = 0;
  // English separators unless a test changes them; GetNumberFormat formats
  // as Windows does.
  std::map<platform::LocaleItem, std::string> locale = {{platform::LocaleItem::LeadingZero, "1"},
                                                         {platform::LocaleItem::Grouping, "3;0"},
                                                         {platform::LocaleItem::DecimalSep, "."},
                                                         {platform::LocaleItem::ThousandSep, ","},
                                                         {platform::LocaleItem::NegativeNumber, "1"}};
  bool localeFails = false;
  // Registry (key + '\n' + value name) and mount manager.
  std::map<std::string, std::string> registryStrings;
  std::map<std::string, std::vector<uint8_t>> registryBinary;
  std::vector<std::string> logicalDrives;
  std::map<std::string, std::string> volumeNames;  // mount point -> volume name
  std::vector<std::string> messageBoxes;
  // RandomBytes hands these out first, then bytes of a fixed sequence.
  std::deque<uint8_t> randomBytes;

  std::unique_ptr<platform::File> Open(const std::string& path, platform::OpenMode mode) override;
  bool PathExists(const std::string& path) override { return Find(path) != nullptr; }
  bool RegQueryString(const std::string& key, const std::string& value, std::string* out) override;
  bool RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) override;
  std::vector<std::string> LogicalDriveStrings() override { return logicalDrives; }
  bool VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) override;
  platform::FormatEngineState LoadFormatEngine() override { return platform::FormatEngineState::LibraryMissing; }
  bool FormatEx(const std::u16string&, uint32_t, const std::u16string&, const std::u16string&, bool, uint32_t,
                const platform::FormatCallback&, const platform::FormatPlace&) override {
    return false;
  }
  void PumpOneMessage() override {}
  bool NtfsFormatterPresent() override { return false; }
  bool RunNtfsFormatter(const platform::NtfsFormatJob&, const platform::FormatCallback&) override { return false; }
  bool GetVersionEx(platform::OsVersion* out) override { return *out = {6, 1, 2}, true; }
  uint32_t GetVersion() override { return 6 | (1 << 8); }
  bool QueryElevation(bool* isElevated) override { return *isElevated = true; }
  bool EnableShutdownPrivilege() override { return true; }
  bool ExitWindows(uint32_t) override { return true; }
  uint32_t ConsoleOutputCodePage() override { return 437; }
  void ClearScreen() override {}
  void SetCursorPosition(int, int) override {}
  int ReadKey() override { return -1; }  // the end of input
  bool ReadLine(std::string*) override { return false; }
  bool GetLocaleInfo(platform::LocaleItem item, std::string* out) override;
  bool GetNumberFormat(const std::string& value, const platform::NumberFormat& format, std::string* out) override;
  std::string ComputerName() override { return "TESTPC"; }
  bool GetEnv(const std::string&, std::string*) override { return false; }
  void MessageBox(const std::string& text, const std::string&) override { messageBoxes.push_back(text); }
  uint32_t LastError() override { return lastError; }
  bool SystemMessageText(uint32_t, std::string*) override { return false; }
  bool RandomBytes(void* out, size_t bytes) override;

 private:
  uint32_t randomState_ = 0x2545F491u;
};

std::string DrivePath(int number);  // "\\.\PhysicalDrive<number>"

DiskDrivers TestDrivers();  // the program's table and virtual-disk drivers

// Runs the handler of Options().command on `disks` the way the dispatcher
// does after its selector checks and the question.
void RunHandler(DiskSet& disks);

// An MBR partition entry: boot indicator, type, first sector and count.
struct MbrEntry {
  uint8_t boot = 0, type = 0;
  uint32_t start = 0, count = 0;
};
// Stores `e` as the 16-byte entry at `offset` of `sector`; its CHS bytes are
// the pattern 1 2 3 and 5 6 7, so that a rebuilt entry shows.
void PutMbrEntry(uint8_t* sector, size_t offset, const MbrEntry& e);

class FakeDiskTest : public ::testing::Test {
 protected:
  FakeDiskTest();
  ~FakeDiskTest() override;

  // Drive 0 of `sectors` sectors: patterned boot code, the entries in slots
  // 0.. (a type of 0 leaves the slot empty) and 55 AA.
  FakeDrive& MakeMbrDisk(const std::vector<MbrEntry>& slots, uint64_t sectors = 8192);
  // A fresh disk set loaded from the machine as a run loads it; `before`
  // keeps drive 0's bytes as they were.
  DiskSet& Load(bool ignoreErrors = false);
  // Drive 0 of `sectors` zero sectors and a disk set made before it, so that
  // nothing is loaded; its device is open on the drive.
  void OpenUnloaded(uint64_t sectors);
  std::vector<uint8_t> Slot(int slot);  // the 16 bytes of an entry of drive 0
  // Everything of drive 0 but the four entries of sector 0 is as it was.
  void ExpectOnlyTableChanged();

  FakeMachine machine;
  FakeDrive* drive = nullptr;
  std::unique_ptr<DiskSet> disks;
  std::vector<uint8_t> before;
};

const char* const kEfiType = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
const char* const kBasicDataType = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
const char* const kLinuxSwapType = "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F";
const char* const kUnknownType = "75894C1E-3AEB-11D3-B7C1-7B03A0000000";  // HP-UX data: not in the table

struct GptTestEntry {
  std::string type;  // empty: an unused slot
  uint64_t first = 0, last = 0, attributes = 0;
};
struct GptLayout {
  int32_t entryCount = 128;
  uint64_t arrayLba = 2;
  bool writeBackup = true;
};

// Stores a fresh header CRC.
void SealHeader(uint8_t* header);
// Protective MBR, primary header and array, backup array and header, all
// consistent; `entries` fill slots 0.. in order.
void WriteGptDisk(FakeDrive& drive, const std::vector<GptTestEntry>& entries, const GptLayout& layout = {});
// What firmware checks: both headers carry the signature and correct CRCs,
// point at each other, and describe identical arrays.  Empty when all is
// well, else what is wrong.
std::string GptProblems(FakeDrive& drive);
// The type GUID bytes of slot `slot` of the primary array.
std::vector<uint8_t> SlotType(FakeDrive& drive, uint32_t slot);

}  // namespace dh::test
