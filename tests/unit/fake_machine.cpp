// The in-memory machine of the unit tests.
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
#include <cstdio>
#include <cstring>

#include "platform/common/number_format.h"

namespace dh::test {

namespace {

using platform::OpenMode;

// Windows error codes the fake reports.
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorWriteProtect = 19;
constexpr uint32_t kErrorCrc = 23;
constexpr uint32_t kErrorSectorNotFound = 27;
constexpr uint32_t kErrorNotSupported = 50;

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
  bool Flush() override {
    ++drive_->flushCalls;
    return true;
  }
  bool Size(uint64_t* bytes) override {
    *bytes = drive_->isDevice && drive_->diskSizeOverride ? drive_->diskSizeOverride : drive_->bytes.size();
    return true;
  }
  bool GetDriveGeometry(platform::DiskGeometry* out) override {
    if (!drive_->isDevice) return Fail(kErrorNotSupported);
    *out = drive_->geometry;
    return true;
  }
  bool GetDriveGeometryEx(platform::DiskGeometry* geometry, uint64_t* diskSize) override {
    return GetDriveGeometry(geometry) && Size(diskSize);
  }
  bool GetPartitionInfo(uint64_t*, uint64_t*) override { return Fail(kErrorNotSupported); }

  bool GetDriveLayoutEx(platform::LayoutEntry* first) override {
    if (!drive_->isDevice || !drive_->layoutExOk) return Fail(kErrorNotSupported);
    *first = drive_->layoutEx;
    return true;
  }
  bool GetDriveLayout(platform::LayoutEntry* first) override {
    if (!drive_->isDevice || !drive_->layoutOk) return Fail(kErrorNotSupported);
    *first = drive_->layout;
    return true;
  }
  bool UpdateProperties() override {
    if (!drive_->isDevice) return Fail(kErrorNotSupported);
    ++drive_->updatePropertiesCalls;
    return true;
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

std::string RegistryName(const std::string& key, const std::string& value) { return key + "\n" + value; }

}  // namespace

std::string DrivePath(int number) {
  char path[64];
  std::snprintf(path, sizeof path, "\\\\.\\PhysicalDrive%d", number);
  return path;
}

FakeMachine::FakeMachine() {
  locale[platform::LocaleItem::LeadingZero] = "1";
  locale[platform::LocaleItem::Grouping] = "3;0";
  locale[platform::LocaleItem::DecimalSep] = ".";
  locale[platform::LocaleItem::ThousandSep] = ",";
  locale[platform::LocaleItem::NegativeNumber] = "1";
}

FakeMachine::~FakeMachine() = default;

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
  if (drive->refusedModes.count(mode)) {
    lastError = kErrorAccessDenied;
    return nullptr;
  }
  if (mode == OpenMode::CreateAlways && !drive->isDevice) drive->bytes.clear();
  return std::make_unique<FakeFile>(this, drive, mode);
}

bool FakeMachine::PathExists(const std::string& path) { return Find(path) != nullptr; }

bool FakeMachine::RegQueryString(const std::string& key, const std::string& value, std::string* out) {
  auto it = registryStrings.find(RegistryName(key, value));
  if (it == registryStrings.end()) return false;
  *out = it->second;
  return true;
}

bool FakeMachine::RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) {
  auto it = registryBinary.find(RegistryName(key, value));
  if (it == registryBinary.end()) return false;
  *out = it->second;
  return true;
}

bool FakeMachine::VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) {
  auto it = volumeNames.find(mountPoint);
  if (it == volumeNames.end()) return false;
  *volumeName = it->second;
  return true;
}

int FakeMachine::ReadKey() {
  if (keys.empty()) return -1;
  int key = keys.front();
  keys.pop_front();
  return key;
}

bool FakeMachine::ReadLine(std::string* line) {
  if (lines.empty()) return false;
  *line = lines.front();
  lines.pop_front();
  return true;
}

bool FakeMachine::GetLocaleInfo(platform::LocaleItem item, std::string* out) {
  auto it = locale.find(item);
  if (localeFails || it == locale.end()) {
    lastError = 87;
    return false;
  }
  *out = it->second;
  return true;
}

bool FakeMachine::GetNumberFormat(const std::string& value, const platform::NumberFormat& format, std::string* out) {
  lastNumberValue = value;
  lastNumberFormat = format;
  if (numberFormatFails) {
    lastError = numberFormatError;
    return false;
  }
  if (!platform::FormatNumberLikeWindows(value, format, out)) {
    lastError = 87;
    return false;
  }
  return true;
}

bool FakeMachine::FormatEx(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
                           const std::u16string& label, bool quick, uint32_t clusterSize,
                           const platform::FormatCallback& callback, const platform::FormatPlace& place) {
  formatCalls.push_back({driveRoot, mediaFlag, fileSystem, label, quick, clusterSize, place});
  if (formatEngine != platform::FormatEngineState::Ready) return false;
  for (uint32_t percent : formatProgress) {
    platform::FormatCallbackData data;
    data.percent = percent;
    callback(0, 0, data);
  }
  bool written = true;
  if (!formatStaged.empty()) {
    std::unique_ptr<platform::File> staged = Open(formatStaged, OpenMode::ReadExisting);
    written = staged && place.writeStaged && place.writeStaged(*staged);
  }
  platform::FormatCallbackData end;
  end.success = written;
  callback(11, 0, end);
  return true;
}

bool FakeMachine::GetEnv(const std::string& name, std::string* value) {
  auto it = environment.find(name);
  if (it == environment.end()) return false;
  *value = it->second;
  return true;
}

bool FakeMachine::SystemMessageText(uint32_t code, std::string* text) {
  auto it = messages.find(code);
  if (it == messages.end()) return false;
  *text = it->second;
  return true;
}

bool FakeMachine::RandomBytes(void* out, size_t bytes) {
  ++randomCalls;
  if (randomFails) {
    lastError = 31;  // ERROR_GEN_FAILURE
    return false;
  }
  uint8_t* at = static_cast<uint8_t*>(out);
  for (size_t i = 0; i < bytes; ++i) {
    if (!randomBytes.empty()) {
      at[i] = randomBytes.front();
      randomBytes.pop_front();
    } else {
      // xorshift32: varied bytes for tests that do not care which.
      randomState_ ^= randomState_ << 13;
      randomState_ ^= randomState_ >> 17;
      randomState_ ^= randomState_ << 5;
      at[i] = static_cast<uint8_t>(randomState_ >> 24);
    }
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

namespace {

class ShiftedFile : public platform::PlainFile {
 public:
  ShiftedFile(std::unique_ptr<platform::File> file, uint64_t base) : file_(std::move(file)), base_(base) {}
  bool Seek(uint64_t offset) override { return file_->Seek(base_ + offset); }
  bool Read(void* b, uint32_t n, uint32_t* done) override { return file_->Read(b, n, done); }
  bool Write(const void* b, uint32_t n, uint32_t* done) override { return file_->Write(b, n, done); }
  bool Flush() override { return file_->Flush(); }
  bool Size(uint64_t* bytes) override {
    uint64_t all = 0;
    if (!file_->Size(&all) || all < base_) return false;
    *bytes = all - base_;
    return true;
  }

 private:
  std::unique_ptr<platform::File> file_;
  uint64_t base_;
};

}  // namespace

std::unique_ptr<VirtualDisk> ShiftedVirtualDisk(std::unique_ptr<platform::File> file, uint64_t baseSectors,
                                                uint64_t sectors) {
  auto disk = std::make_unique<VirtualDisk>();
  disk->opened = true;
  disk->totalSectors = sectors;
  disk->sizeBytes = sectors * 512;
  disk->device.Attach(std::make_unique<ShiftedFile>(std::move(file), baseSectors * 512), "shifted");
  return disk;
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
  disks = std::make_unique<DiskSet>(TestDrivers(), ignoreErrors);
  return *disks;
}

void FakeDiskTest::OpenUnloaded(uint64_t sectors) {
  disks = std::make_unique<DiskSet>(TestDrivers(), false);
  drive = &machine.AddDrive(0, sectors);
  EXPECT_TRUE(disks->device.Open(DrivePath(0), platform::OpenMode::DiskReadWrite));
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
  static const FrameChars frame = SelectFrameChars(3, 437);
  CommandContext context{Options(), State(), disks, StdOut(), frame, 437};
  spec->handler(context);
}

}  // namespace dh::test
