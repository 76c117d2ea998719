// The in-memory machine of the unit tests, and the GPT disks they build.
#include "fake_machine.h"

#include "app/command_table.h"
#include "app/run_state.h"
#include "base/frame.h"
#include "base/le.h"
#include "base/sink.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"
#include "vdisk/vmdk.h"

#include <algorithm>
#include <cstring>

#include "platform/common/number_format.h"

namespace dh::test {

namespace {

using platform::OpenMode;

// Windows error codes the fake reports.
enum : uint32_t {
  kErrorFileNotFound = 2, kErrorAccessDenied = 5, kErrorWriteProtect = 19, kErrorCrc = 23,
  kErrorSectorNotFound = 27, kErrorNotSupported = 50,
};

bool ModeReads(OpenMode mode) { return mode != OpenMode::CreateAlways; }
bool ModeWrites(OpenMode mode) { return mode != OpenMode::ProbeRead && mode != OpenMode::ReadExisting; }

class FakeFile : public platform::File {
 public:
  FakeFile(FakeMachine* machine, FakeDrive* drive, OpenMode mode) : machine_(machine), drive_(drive), mode_(mode) {}

  bool Seek(uint64_t offset) override {
    position_ = offset;
    return true;
  }
  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override {
    *done = 0;
    if (!ModeReads(mode_)) return Fail(kErrorAccessDenied);
    uint64_t size = drive_->bytes.size();
    if (position_ >= size) return drive_->isDevice ? Fail(kErrorSectorNotFound) : true;
    uint64_t count = std::min<uint64_t>(bytes, size - position_);
    if (drive_->readLimit != 0) count = std::min<uint64_t>(count, drive_->readLimit);
    if (TouchesBadSector(count)) return Fail(kErrorCrc);
    std::memcpy(buffer, drive_->bytes.data() + position_, count);
    position_ += count;
    *done = static_cast<uint32_t>(count);
    return true;
  }
  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    *done = 0;
    ++drive_->writeCalls;
    if (!ModeWrites(mode_)) return Fail(kErrorAccessDenied);
    if (drive_->writeProtected) return Fail(kErrorWriteProtect);
    if (TouchesBadSector(bytes)) return Fail(kErrorCrc);
    uint64_t end = position_ + bytes;
    if (end > drive_->bytes.size()) {
      if (drive_->isDevice) return Fail(kErrorSectorNotFound);
      drive_->bytes.resize(end);
    }
    std::memcpy(drive_->bytes.data() + position_, buffer, bytes);
    position_ = end;
    *done = bytes;
    return true;
  }
  bool Flush() override { return ++drive_->flushCalls, !drive_->flushFails; }
  bool ZeroRange(uint64_t offset, uint64_t bytes) override {
    if (!drive_->zeroes || offset > drive_->bytes.size() || bytes > drive_->bytes.size() - offset) return false;
    return std::fill_n(drive_->bytes.begin() + static_cast<std::ptrdiff_t>(offset), bytes, 0), true;
  }
  bool Size(uint64_t* bytes) override {
    *bytes = drive_->bytes.size();
    return true;
  }
  bool GetDriveGeometry(platform::DiskGeometry* out) override {
    if (!drive_->isDevice) return Fail(kErrorNotSupported);
    *out = drive_->geometry;
    return true;
  }
  bool GetDriveGeometryEx(platform::DiskGeometry* geometry, uint64_t* diskSize) override {
    if (!GetDriveGeometry(geometry)) return false;
    if (drive_->reportedBytes == 0) return Size(diskSize);
    *diskSize = drive_->reportedBytes;
    return true;
  }
  bool GetPartitionInfo(uint64_t*, uint64_t*) override { return Fail(kErrorNotSupported); }
  // No drive has a layout of its own: superfloppies are run end to end.
  bool GetDriveLayoutEx(platform::LayoutEntry*) override { return Fail(kErrorNotSupported); }
  bool GetDriveLayout(platform::LayoutEntry*) override { return Fail(kErrorNotSupported); }
  bool UpdateProperties() override {
    return drive_->isDevice ? ++drive_->updatePropertiesCalls > 0 : Fail(kErrorNotSupported);
  }

 private:
  bool Fail(uint32_t error) {
    machine_->lastError = error;
    return false;
  }

  bool TouchesBadSector(uint64_t count) const {
    if (count == 0 || drive_->badSectors.empty()) return false;
    uint64_t first = position_ / 512;
    uint64_t last = (position_ + count - 1) / 512;
    auto it = drive_->badSectors.lower_bound(first);
    return it != drive_->badSectors.end() && *it <= last;
  }

  FakeMachine* machine_;
  FakeDrive* drive_;
  OpenMode mode_;
  uint64_t position_ = 0;
};

template <typename K, typename T>
bool Lookup(const std::map<K, T>& values, const K& key, T* out) {
  auto it = values.find(key);
  if (it == values.end()) return false;
  *out = it->second;
  return true;
}

}  // namespace

std::string DrivePath(int number) { return "\\\\.\\PhysicalDrive" + std::to_string(number); }

FakeDrive& FakeMachine::AddDrive(int number, uint64_t sectors, int32_t mediaType) {
  FakeDrive& drive = devices[DrivePath(number)];
  drive = FakeDrive{};
  drive.bytes.assign(sectors * 512, 0);
  drive.geometry.mediaType = mediaType;
  drive.geometry.tracksPerCylinder = 255;
  drive.geometry.sectorsPerTrack = 63;
  drive.geometry.cylinders = static_cast<int64_t>(sectors / (255 * 63));
  return drive;
}

FakeDrive& FakeMachine::AddFile(const std::string& path, std::vector<uint8_t> contents) {
  FakeDrive& file = devices[path];
  file = FakeDrive{};
  file.isDevice = false;
  file.bytes = std::move(contents);
  return file;
}

FakeDrive* FakeMachine::Find(const std::string& path) {
  auto it = devices.find(path);
  return it == devices.end() ? nullptr : &it->second;
}

std::unique_ptr<platform::File> FakeMachine::Open(const std::string& path, OpenMode mode) {
  FakeDrive* drive = Find(path);
  if (!drive && mode == OpenMode::CreateAlways && path.rfind("\\\\.\\", 0) != 0) drive = &AddFile(path);
  if (!drive) {
    lastError = kErrorFileNotFound;
    return nullptr;
  }
  if (mode == OpenMode::CreateAlways && !drive->isDevice) drive->bytes.clear();
  return std::make_unique<FakeFile>(this, drive, mode);
}

bool FakeMachine::RegQueryString(const std::string& key, const std::string& value, std::string* out) {
  return Lookup(registryStrings, key + "\n" + value, out);
}

bool FakeMachine::RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) {
  return Lookup(registryBinary, key + "\n" + value, out);
}

bool FakeMachine::VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) {
  return Lookup(volumeNames, mountPoint, volumeName);
}

bool FakeMachine::GetLocaleInfo(platform::LocaleItem item, std::string* out) {
  return (!localeFails && Lookup(locale, item, out)) || (lastError = 87, false);
}

bool FakeMachine::GetNumberFormat(const std::string& value, const platform::NumberFormat& format, std::string* out) {
  return platform::FormatNumberLikeWindows(value, format, out) || (lastError = 87, false);
}


bool FakeMachine::RandomBytes(void* out, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) {
    // xorshift32 once the queued bytes run out, for tests that do not care.
    randomState_ ^= randomState_ << 13;
    randomState_ ^= randomState_ >> 17;
    randomState_ ^= randomState_ << 5;
    const uint8_t next = randomBytes.empty() ? static_cast<uint8_t>(randomState_ >> 24) : randomBytes.front();
    static_cast<uint8_t*>(out)[i] = next;
    if (!randomBytes.empty()) randomBytes.pop_front();
  }
  return true;
}

DiskDrivers TestDrivers() {
  DiskDrivers drivers;
  drivers.loadMbr = LoadMbrTable;
  drivers.loadGpt = LoadGptTable;
  drivers.openVirtual = OpenVirtualVmdk;
  return drivers;
}

void PutMbrEntry(uint8_t* sector, size_t offset, const MbrEntry& e) {
  uint8_t* p = sector + offset;
  const uint8_t bytes[8] = {e.boot, 1, 2, 3, e.type, 5, 6, 7};
  std::memcpy(p, bytes, 8);
  StoreLe32(p + 8, e.start);
  StoreLe32(p + 12, e.count);
}

FakeDiskTest::FakeDiskTest() { ResetRun(); }
FakeDiskTest::~FakeDiskTest() { ResetRun(); }

FakeDrive& FakeDiskTest::MakeMbrDisk(const std::vector<MbrEntry>& slots, uint64_t sectors) {
  drive = &machine.AddDrive(0, sectors);
  for (int i = 0; i < 446; ++i) drive->Sector(0)[i] = static_cast<uint8_t>(i * 7 + 3);
  for (size_t i = 0; i < slots.size(); ++i) {
    if (slots[i].type != 0) PutMbrEntry(drive->Sector(0), 446 + 16 * i, slots[i]);
  }
  drive->SetBootSignature();
  return *drive;
}

DiskSet& FakeDiskTest::Load(bool ignoreErrors) {
  if (drive == nullptr) drive = machine.Find(DrivePath(0));
  if (drive != nullptr) before = drive->bytes;
  disks = std::make_unique<DiskSet>(machine, TestDrivers(), ignoreErrors);
  return *disks;
}

void FakeDiskTest::OpenUnloaded(uint64_t sectors) {
  disks = std::make_unique<DiskSet>(machine, TestDrivers(), false);
  drive = &machine.AddDrive(0, sectors);
  EXPECT_TRUE(disks->device.Open(machine, DrivePath(0), platform::OpenMode::DiskReadWrite));
}

std::vector<uint8_t> FakeDiskTest::Slot(int slot) {
  const uint8_t* p = drive->Sector(0) + 446 + 16 * slot;
  return std::vector<uint8_t>(p, p + 16);
}

void FakeDiskTest::ExpectOnlyTableChanged() {
  ASSERT_EQ(drive->bytes.size(), before.size());
  EXPECT_EQ(0, std::memcmp(drive->bytes.data(), before.data(), 446));
  EXPECT_EQ(0, std::memcmp(drive->bytes.data() + 510, before.data() + 510, before.size() - 510));
}

void RunHandler(DiskSet& disks) {
  const CommandSpec* spec = FindCommand(Options().command);
  if (spec == nullptr || spec->handler == nullptr) return;
  static const FrameChars frame = SelectFrameChars(FrameSet::PlainText, 437);
  CommandContext context{Options(), State(), disks, StdOut(), frame, 437};
  spec->handler(context);
}

namespace {

uint32_t ArraySectors(int32_t count) { return static_cast<uint32_t>((count + 3) / 4); }

std::vector<uint8_t> MakeEntryArray(const std::vector<GptTestEntry>& entries, int32_t count) {
  std::vector<uint8_t> array(ArraySectors(count) * 512u, 0);
  for (size_t i = 0; i < entries.size(); ++i) {
    uint8_t* e = array.data() + i * 128;
    if (!entries[i].type.empty()) {
      std::vector<uint8_t> g = GuidBytes(entries[i].type);
      std::memcpy(e, g.data(), 16);
      std::memset(e + 16, static_cast<int>(i + 1), 16);  // unique GUIDs told apart
    }
    StoreLe64(e + 32, entries[i].first);
    StoreLe64(e + 40, entries[i].last);
    StoreLe64(e + 48, entries[i].attributes);
  }
  return array;
}

}  // namespace

void SealHeader(uint8_t* h) {
  StoreLe32(h + 16, 0);
  StoreLe32(h + 16, ReferenceCrc32(h, LoadLe32(h + 12)));
}

void WriteGptDisk(FakeDrive& drive, const std::vector<GptTestEntry>& entries, const GptLayout& layout) {
  const uint64_t sectors = drive.bytes.size() / 512;
  const uint32_t arraySectors = ArraySectors(layout.entryCount);
  uint8_t* mbr = drive.Sector(0);
  std::memset(mbr, 0, 512);
  mbr[446 + 4] = 0xEE;
  StoreLe32(mbr + 446 + 8, 1);
  StoreLe32(mbr + 446 + 12, static_cast<uint32_t>(sectors - 1));
  drive.SetBootSignature();

  std::vector<uint8_t> array = MakeEntryArray(entries, layout.entryCount);
  const uint32_t arrayCrc = ReferenceCrc32(array.data(), static_cast<size_t>(layout.entryCount) * 128);
  const uint64_t backupArray = sectors - 1 - arraySectors;

  uint8_t h[512] = {};
  std::memcpy(h, "EFI PART", 8);
  h[10] = 1;  // revision 1.0
  StoreLe32(h + 12, 92);
  StoreLe64(h + 24, 1);
  StoreLe64(h + 32, sectors - 1);
  StoreLe64(h + 40, layout.arrayLba + arraySectors);
  StoreLe64(h + 48, backupArray - 1);
  for (int i = 0; i < 16; ++i) h[56 + i] = static_cast<uint8_t>(0xA0 + i);
  StoreLe64(h + 72, layout.arrayLba);
  StoreLe32(h + 80, static_cast<uint32_t>(layout.entryCount));
  StoreLe32(h + 84, 128);
  StoreLe32(h + 88, arrayCrc);
  SealHeader(h);
  std::memcpy(drive.Sector(1), h, 512);
  if (!array.empty()) std::memcpy(drive.Sector(layout.arrayLba), array.data(), array.size());

  if (layout.writeBackup) {
    StoreLe64(h + 24, sectors - 1);
    StoreLe64(h + 32, 1);
    StoreLe64(h + 72, backupArray);
    SealHeader(h);
    std::memcpy(drive.Sector(sectors - 1), h, 512);
    if (!array.empty()) std::memcpy(drive.Sector(backupArray), array.data(), array.size());
  }
}

std::string GptProblems(FakeDrive& drive) {
  const uint8_t* p = drive.Sector(1);
  if (std::memcmp(p, "EFI PART", 8) != 0) return "primary signature";
  auto headerOk = [](const uint8_t* h) {
    uint8_t copy[512];
    std::memcpy(copy, h, 512);
    StoreLe32(copy + 16, 0);
    return ReferenceCrc32(copy, LoadLe32(h + 12)) == LoadLe32(h + 16);
  };
  if (!headerOk(p)) return "primary header CRC";
  const uint32_t count = LoadLe32(p + 80);
  const size_t arrayBytes = static_cast<size_t>(count) * 128;
  const uint8_t* pa = drive.Sector(LoadLe64(p + 72));
  if (ReferenceCrc32(pa, arrayBytes) != LoadLe32(p + 88)) return "primary array CRC";
  const uint64_t alt = LoadLe64(p + 32);
  const uint8_t* b = drive.Sector(alt);
  if (std::memcmp(b, "EFI PART", 8) != 0) return "backup signature";
  if (!headerOk(b)) return "backup header CRC";
  if (LoadLe64(b + 24) != alt || LoadLe64(b + 32) != 1) return "backup LBAs";
  if (LoadLe32(b + 80) != count || LoadLe32(b + 88) != LoadLe32(p + 88)) return "backup array facts";
  const uint8_t* ba = drive.Sector(LoadLe64(b + 72));
  if (std::memcmp(pa, ba, arrayBytes) != 0) return "backup array differs";
  return "";
}

std::vector<uint8_t> SlotType(FakeDrive& drive, uint32_t slot) {
  const uint8_t* e = drive.Sector(LoadLe64(drive.Sector(1) + 72)) + slot * 128;
  return std::vector<uint8_t>(e, e + 16);
}

}  // namespace dh::test
