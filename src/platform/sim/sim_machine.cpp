// The simulated machine.  Nothing here is performed on the host beyond
// reading and writing the image files and the shutdown log, and mkntfs for
// `format`: no shutdown, no host environment, no host registry.
#include "platform/sim/sim_machine.h"

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/le.h"
#include "base/text.h"
#include "platform/common/number_format.h"
#include "platform/common/staged_format.h"
#include "platform/common/system_messages.h"
#include "platform/sim/sim_drive.h"

namespace dh::platform::sim {
namespace {

constexpr char kDiskEnumKey[] = "SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum";
constexpr char kEnumKeyPrefix[] = "SYSTEM\\CurrentControlSet\\Enum\\";
constexpr char kMountedDevicesKey[] = "SYSTEM\\MountedDevices";

constexpr uint32_t kErrorInvalidData = 13;
constexpr uint32_t kErrorInvalidName = 123;
constexpr uint32_t kErrorModuleNotFound = 126;
constexpr uint32_t kErrorProcNotFound = 127;
constexpr uint32_t kErrorNotAllAssigned = 1300;

// The program reads whole 512-byte sectors; an image without one is no disk.
constexpr uint64_t kSimSectorBytes = kSectorSize;

// A machine file is a few kilobytes; anything far larger is not one.
constexpr uint64_t kMaxMachineFileBytes = 16u << 20;

// Reads a whole host file through the native machine.
bool ReadHostFile(Machine& native, const std::string& path, uint64_t maxBytes, std::string* text,
                  uint32_t* errorCode) {
  std::unique_ptr<File> file = native.Open(path, OpenMode::ReadExisting);
  uint64_t size = 0;
  if (!file || !file->Size(&size)) {
    *errorCode = native.LastError();
    return false;
  }
  if (size > maxBytes) {
    *errorCode = kErrorInvalidData;
    return false;
  }
  // At most maxBytes (far below 4 GiB), so the size fits one transfer.
  std::string data(static_cast<size_t>(size), '\0');
  uint32_t got = 0;
  if (!ReadAt(*file, 0, data.data(), static_cast<uint32_t>(data.size()), &got)) {
    *errorCode = native.LastError();
    return false;
  }
  data.resize(got);
  *text = std::move(data);
  return true;
}

// ERROR_FILE_CORRUPT: an image in a container that cannot be used.
constexpr uint32_t kErrorFileCorrupt = 1392;

// Opens a drive's image: a container (a VMware disk) through the program's
// image opener, any other file as it is.  `bytes` receives the size of the
// disk it holds.  On failure `why` tells why when the container was at
// fault; otherwise the native machine's last error does.
std::unique_ptr<File> OpenImage(Machine& native, const std::string& path, OpenMode mode, uint64_t* bytes,
                                std::string* why) {
  why->clear();
  const bool writes = mode == OpenMode::DiskReadWrite || mode == OpenMode::ReadWriteExisting;
  std::unique_ptr<File> image;
  const ImageOpener opener = GetImageOpener();
  if (opener == nullptr || !opener(native, path, writes, &image, why)) {
    image = native.Open(path, mode);
  } else if (!image && why->empty()) {
    *why = "not a usable disk image";
  }
  if (!image || !image->Size(bytes)) return nullptr;
  return image;
}

// A host file that refuses to grow past a number of bytes, as on a full
// volume: a write or zeroing that would end beyond the limit moves nothing.
class GrowLimitedFile : public File {
 public:
  GrowLimitedFile(std::unique_ptr<File> file, uint64_t limit) : file_(std::move(file)), limit_(limit) {}

  bool Seek(uint64_t offset) override {
    if (!file_->Seek(offset)) return false;
    position_ = offset;
    return true;
  }
  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override {
    uint32_t got = 0;
    const bool ok = file_->Read(buffer, bytes, &got);
    position_ += got;
    if (done != nullptr) *done = got;
    return ok;
  }
  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    if (done != nullptr) *done = 0;
    if (!Fits(position_, bytes)) return false;
    uint32_t wrote = 0;
    const bool ok = file_->Write(buffer, bytes, &wrote);
    position_ += wrote;
    if (done != nullptr) *done = wrote;
    return ok;
  }
  bool Flush() override { return file_->Flush(); }
  bool Size(uint64_t* bytes) override { return file_->Size(bytes); }
  bool GetDriveGeometry(DiskGeometry* out) override { return file_->GetDriveGeometry(out); }
  bool GetDriveGeometryEx(DiskGeometry* geometry, uint64_t* diskSize) override {
    return file_->GetDriveGeometryEx(geometry, diskSize);
  }
  bool GetPartitionInfo(uint64_t* startingOffset, uint64_t* partitionLength) override {
    return file_->GetPartitionInfo(startingOffset, partitionLength);
  }
  bool GetDriveLayoutEx(LayoutEntry* first) override { return file_->GetDriveLayoutEx(first); }
  bool GetDriveLayout(LayoutEntry* first) override { return file_->GetDriveLayout(first); }
  bool UpdateProperties() override { return file_->UpdateProperties(); }
  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override {
    return file_->NextData(offset, start, end);
  }
  bool ZeroRange(uint64_t offset, uint64_t bytes) override {
    return Fits(offset, bytes) && file_->ZeroRange(offset, bytes);
  }

 private:
  // Writing inside the file as it is never needs room; growing it does.
  bool Fits(uint64_t offset, uint64_t bytes) {
    if (bytes == 0) return true;
    uint64_t size = 0;
    if (!file_->Size(&size)) return false;
    const uint64_t end = offset > UINT64_MAX - bytes ? UINT64_MAX : offset + bytes;
    return end <= size || end <= limit_;
  }

  std::unique_ptr<File> file_;
  uint64_t limit_;
  uint64_t position_ = 0;
};

// The host's files as a drive with a `growlimit` sees them: every file its
// image opens (a VMware disk's descriptor and extents) is held to the
// limit; everything else is the host's.
class GrowLimitedFiles : public Machine {
 public:
  GrowLimitedFiles(Machine& host, uint64_t limit) : host_(host), limit_(limit) {}

  std::unique_ptr<File> Open(const std::string& path, OpenMode mode) override {
    std::unique_ptr<File> file = host_.Open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<GrowLimitedFile>(std::move(file), limit_);
  }
  bool PathExists(const std::string& path) override { return host_.PathExists(path); }
  bool RegQueryString(const std::string& key, const std::string& value, std::string* out) override {
    return host_.RegQueryString(key, value, out);
  }
  bool RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) override {
    return host_.RegQueryBinary(key, value, out);
  }
  std::vector<std::string> LogicalDriveStrings() override { return host_.LogicalDriveStrings(); }
  bool VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) override {
    return host_.VolumeNameForMountPoint(mountPoint, volumeName);
  }
  FormatEngineState LoadFormatEngine() override { return host_.LoadFormatEngine(); }
  bool FormatEx(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
                const std::u16string& label, bool quick, uint32_t clusterSize, const FormatCallback& callback,
                const FormatPlace& place) override {
    return host_.FormatEx(driveRoot, mediaFlag, fileSystem, label, quick, clusterSize, callback, place);
  }
  void PumpOneMessage() override { host_.PumpOneMessage(); }
  bool NtfsFormatterPresent() override { return host_.NtfsFormatterPresent(); }
  bool RunNtfsFormatter(const NtfsFormatJob& job, const FormatCallback& callback) override {
    return host_.RunNtfsFormatter(job, callback);
  }
  bool GetVersionEx(OsVersion* out) override { return host_.GetVersionEx(out); }
  uint32_t GetVersion() override { return host_.GetVersion(); }
  bool QueryElevation(bool* elevated) override { return host_.QueryElevation(elevated); }
  bool EnableShutdownPrivilege() override { return host_.EnableShutdownPrivilege(); }
  bool ExitWindows(uint32_t flags) override { return host_.ExitWindows(flags); }
  uint32_t ConsoleOutputCodePage() override { return host_.ConsoleOutputCodePage(); }
  void ClearScreen() override { host_.ClearScreen(); }
  void SetCursorPosition(int column, int row) override { host_.SetCursorPosition(column, row); }
  int ReadKey() override { return host_.ReadKey(); }
  bool ReadLine(std::string* line) override { return host_.ReadLine(line); }
  bool GetLocaleInfo(LocaleItem item, std::string* out) override { return host_.GetLocaleInfo(item, out); }
  bool GetNumberFormat(const std::string& value, const NumberFormat& format, std::string* out) override {
    return host_.GetNumberFormat(value, format, out);
  }
  std::string ComputerName() override { return host_.ComputerName(); }
  bool GetEnv(const std::string& name, std::string* value) override { return host_.GetEnv(name, value); }
  void MessageBox(const std::string& text, const std::string& caption) override { host_.MessageBox(text, caption); }
  uint32_t LastError() override { return host_.LastError(); }
  bool SystemMessageText(uint32_t code, std::string* text) override { return host_.SystemMessageText(code, text); }
  bool RandomBytes(void* out, size_t bytes) override { return host_.RandomBytes(out, bytes); }

 private:
  Machine& host_;
  uint64_t limit_;
};

std::string MessageFor(uint32_t code) {
  std::string text;
  if (!WindowsMessageText(code, &text)) return "error " + std::to_string(code);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

// Registry values are stored as Windows would give them to RegQueryValueExA.
struct RegistryValue {
  bool isString = false;
  std::string text;            // REG_SZ
  std::vector<uint8_t> bytes;  // REG_DWORD, REG_BINARY
};

// A host file opened through the simulated machine: the native file, with
// its failures reported as the simulated machine's last error.
class HostFile : public File {
 public:
  HostFile(std::unique_ptr<File> file, std::shared_ptr<Machine> native, std::shared_ptr<ErrorState> errors)
      : file_(std::move(file)), native_(std::move(native)), errors_(std::move(errors)) {}

  bool Seek(uint64_t offset) override { return Check(file_->Seek(offset)); }
  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override { return Check(file_->Read(buffer, bytes, done)); }
  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    return Check(file_->Write(buffer, bytes, done));
  }
  bool Flush() override { return Check(file_->Flush()); }
  bool Size(uint64_t* bytes) override { return Check(file_->Size(bytes)); }
  bool GetDriveGeometry(DiskGeometry* out) override { return Check(file_->GetDriveGeometry(out)); }
  bool GetDriveGeometryEx(DiskGeometry* geometry, uint64_t* diskSize) override {
    return Check(file_->GetDriveGeometryEx(geometry, diskSize));
  }
  bool GetPartitionInfo(uint64_t* startingOffset, uint64_t* partitionLength) override {
    return Check(file_->GetPartitionInfo(startingOffset, partitionLength));
  }
  bool GetDriveLayoutEx(LayoutEntry* first) override { return Check(file_->GetDriveLayoutEx(first)); }
  bool GetDriveLayout(LayoutEntry* first) override { return Check(file_->GetDriveLayout(first)); }
  bool UpdateProperties() override { return Check(file_->UpdateProperties()); }
  bool NextData(uint64_t offset, uint64_t* start, uint64_t* end) override {
    return file_->NextData(offset, start, end);
  }
  bool ZeroRange(uint64_t offset, uint64_t bytes) override { return Check(file_->ZeroRange(offset, bytes)); }
  void StartWriteback(uint64_t offset, uint64_t bytes) override { file_->StartWriteback(offset, bytes); }
  File* CloneSource() override { return file_->CloneSource(); }
  bool CloneFrom(File& source, uint64_t from, uint64_t to, uint64_t bytes) override {
    return file_->CloneFrom(source, from, to, bytes);
  }

 private:
  bool Check(bool ok) {
    if (!ok) errors_->lastError = native_->LastError();
    return ok;
  }

  std::unique_ptr<File> file_;
  std::shared_ptr<Machine> native_;
  std::shared_ptr<ErrorState> errors_;
};

class SimMachine : public Machine {
 public:
  SimMachine(MachineDescription description, std::shared_ptr<Machine> native)
      : d_(std::move(description)), native_(std::move(native)), errors_(std::make_shared<ErrorState>()) {
    if (!d_.traceLog.empty()) trace_ = std::make_shared<TransferTrace>(native_, d_.traceLog);
  }

  // ---- files and devices ------------------------------------------------

  std::unique_ptr<File> Open(const std::string& path, OpenMode mode) override {
    if (!IsDeviceNamespace(path)) {
      std::unique_ptr<File> file = native_->Open(path, mode);
      if (!file) return FailNull(native_->LastError());
      return std::make_unique<HostFile>(std::move(file), native_, errors_);
    }
    // Device paths never reach the host: on a Windows host "\\.\..." would
    // name a real device.
    const DriveDescription* drive = DriveOfPath(path);
    if (drive == nullptr) return FailNull(kErrorFileNotFound);
    const bool writes = mode == OpenMode::DiskReadWrite || mode == OpenMode::ReadWriteExisting;
    // Creating over a drive would truncate its image.
    if (mode == OpenMode::CreateAlways) return FailNull(kErrorAccessDenied);
    if (writes && drive->readOnly) return FailNull(kErrorAccessDenied);
    uint64_t bytes = 0;
    std::string why;
    std::unique_ptr<File> image;
    if (drive->hasGrowLimit) {
      GrowLimitedFiles limited(*native_, drive->growLimit);
      image = OpenImage(limited, drive->image, mode, &bytes, &why);
    } else {
      image = OpenImage(*native_, drive->image, mode, &bytes, &why);
    }
    if (!image) return FailNull(why.empty() ? native_->LastError() : kErrorFileCorrupt);
    return MakeDriveFile(*drive, std::move(image), bytes, writes, native_, errors_, trace_);
  }

  bool PathExists(const std::string& path) override {
    if (IsDeviceNamespace(path)) return DriveOfPath(path) != nullptr;
    return native_->PathExists(path);
  }

  // ---- registry -----------------------------------------------------------

  bool RegQueryString(const std::string& key, const std::string& value, std::string* out) override {
    RegistryValue v;
    if (!QueryValue(key, value, &v)) return Fail(kErrorFileNotFound);
    if (!v.isString) return Fail(kErrorInvalidData);
    if (out != nullptr) *out = v.text;
    return true;
  }

  bool RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) override {
    RegistryValue v;
    if (!QueryValue(key, value, &v)) return Fail(kErrorFileNotFound);
    if (out == nullptr) return true;
    if (v.isString) {
      // REG_SZ data as RegQueryValueExA hands it out: with its terminator.
      out->assign(v.text.begin(), v.text.end());
      out->push_back(0);
    } else {
      *out = v.bytes;
    }
    return true;
  }

  // ---- mount manager ----------------------------------------------------

  std::vector<std::string> LogicalDriveStrings() override {
    std::vector<std::string> roots;
    for (const VolumeDescription& v : d_.volumes) roots.push_back(std::string(1, v.letter) + ":\\");
    return roots;
  }

  bool VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) override {
    // The mount manager wants the root with its backslash: "C:\".
    if (mountPoint.size() != 3 || mountPoint[1] != ':' || mountPoint[2] != '\\') return Fail(kErrorInvalidName);
    const VolumeDescription* volume = VolumeOfLetter(mountPoint[0]);
    if (volume == nullptr) return Fail(kErrorFileNotFound);
    if (volumeName != nullptr) *volumeName = "\\\\?\\Volume" + volume->guid + "\\";
    return true;
  }

  // ---- format engine ------------------------------------------------------

  FormatEngineState LoadFormatEngine() override {
    switch (d_.formatEngine) {
      case FormatEngineMode::None: Fail(kErrorModuleNotFound); return FormatEngineState::LibraryMissing;
      case FormatEngineMode::NoEntry: Fail(kErrorProcNotFound); return FormatEngineState::EntryMissing;
      case FormatEngineMode::Mkntfs:
        if (NtfsFormatterPresent()) return FormatEngineState::Ready;
        return FormatEngineState::LibraryMissing;
      default: return FormatEngineState::Ready;
    }
  }

  bool FormatEx(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
                const std::u16string& label, bool quick, uint32_t clusterSize,
                const FormatCallback& callback, const FormatPlace& place) override {
    if (d_.formatEngine == FormatEngineMode::None) return Fail(kErrorModuleNotFound);
    if (d_.formatEngine == FormatEngineMode::NoEntry) return Fail(kErrorProcNotFound);
    // The real engine: a drive's image is a host file the program writes
    // through the disk's own device, so the volume is staged and handed
    // back to be written there.
    if (d_.formatEngine == FormatEngineMode::Mkntfs) {
      if (!FormatStaged(*native_, Narrow(label), place, callback)) return Fail(native_->LastError());
      return true;
    }
    // The fault engines tell the tester what would have been formatted;
    // the image is never touched.
    std::fprintf(stderr,
                 "diskhold: format requested (root \"%s\", file system \"%s\", label \"%s\", media %u, quick %d, "
                 "cluster %u), simulated machine: not performed\n",
                 Narrow(driveRoot).c_str(), Narrow(fileSystem).c_str(), Narrow(label).c_str(), mediaFlag,
                 quick ? 1 : 0, clusterSize);
    if (!callback) return true;
    if (d_.formatEngine == FormatEngineMode::Ok) {
      for (uint32_t percent : {0u, 25u, 50u, 75u, 100u}) {
        FormatCallbackData data;
        data.percent = percent;
        // The engine stops when its callback says so.
        if (!callback(0, 0, data)) return true;
      }
    }
    FormatCallbackData done;
    done.success = d_.formatEngine == FormatEngineMode::Ok;
    callback(11, 0, done);
    return true;
  }

  void PumpOneMessage() override {}

  // mkntfs runs on the host, on host files only.
  bool NtfsFormatterPresent() override {
    if (native_->NtfsFormatterPresent()) return true;
    return Fail(kErrorModuleNotFound);
  }

  bool RunNtfsFormatter(const NtfsFormatJob& job, const FormatCallback& callback) override {
    if (native_->RunNtfsFormatter(job, callback)) return true;
    return Fail(native_->LastError());
  }

  // ---- version, rights, shutdown -----------------------------------------

  bool GetVersionEx(OsVersion* out) override {
    if (out == nullptr) return Fail(kErrorInvalidParameter);
    out->majorVersion = d_.majorVersion;
    out->minorVersion = d_.minorVersion;
    out->platformId = 2;
    return true;
  }

  uint32_t GetVersion() override { return d_.majorVersion | (d_.minorVersion << 8) | (7601u << 16); }

  bool QueryElevation(bool* elevated) override {
    if (d_.elevation == ElevationMode::Unknown) return Fail(kErrorAccessDenied);
    if (elevated != nullptr) *elevated = d_.elevation == ElevationMode::Yes;
    return true;
  }

  bool EnableShutdownPrivilege() override {
    if (!d_.shutdownPrivilege) return Fail(kErrorNotAllAssigned);
    return true;
  }

  bool ExitWindows(uint32_t flags) override {
    std::fprintf(stderr, "diskhold: shutdown requested (flags %u), simulated machine: not performed\n", flags);
    if (!d_.shutdownLog.empty() && !AppendToHostFile(d_.shutdownLog, "shutdown flags=" + std::to_string(flags) + "\n")) {
      std::fprintf(stderr, "diskhold: cannot write the shutdown log %s\n", d_.shutdownLog.c_str());
    }
    return true;
  }

  // ---- console ----------------------------------------------------------

  uint32_t ConsoleOutputCodePage() override {
    return d_.hasCodePage ? d_.codePage : native_->ConsoleOutputCodePage();
  }
  void ClearScreen() override { native_->ClearScreen(); }
  void SetCursorPosition(int column, int row) override { native_->SetCursorPosition(column, row); }
  int ReadKey() override { return native_->ReadKey(); }
  bool ReadLine(std::string* line) override { return native_->ReadLine(line); }

  // ---- locale, names, environment, messages ------------------------------

  bool GetLocaleInfo(LocaleItem item, std::string* out) override {
    if (out == nullptr) return Fail(kErrorInvalidParameter);
    switch (item) {
      case LocaleItem::LeadingZero: *out = std::to_string(d_.leadingZero); break;
      case LocaleItem::Grouping: *out = d_.grouping; break;
      case LocaleItem::DecimalSep: *out = d_.decimalSep; break;
      case LocaleItem::ThousandSep: *out = d_.thousandSep; break;
      case LocaleItem::NegativeNumber: *out = std::to_string(d_.negativeNumber); break;
    }
    return true;
  }

  bool GetNumberFormat(const std::string& value, const NumberFormat& format, std::string* out) override {
    if (!FormatNumberLikeWindows(value, format, out)) return Fail(kErrorInvalidParameter);
    return true;
  }

  std::string ComputerName() override { return d_.computerName; }

  bool GetEnv(const std::string& name, std::string* value) override {
    // Only the machine's own variables: the host's would make runs depend on
    // who runs them.  Names ignore case as on Windows.
    for (const auto& [key, text] : d_.environment) {
      if (EqualsIgnoreCase(key, name)) {
        if (value != nullptr) *value = text;
        return true;
      }
    }
    return Fail(203);  // ERROR_ENVVAR_NOT_FOUND
  }

  void MessageBox(const std::string& text, const std::string& caption) override {
    std::fprintf(stderr, "diskhold: message box \"%s\": %s\n", caption.c_str(), text.c_str());
  }

  uint32_t LastError() override { return errors_->lastError; }

  bool SystemMessageText(uint32_t code, std::string* text) override {
    if (!WindowsMessageText(code, text)) return Fail(317);  // ERROR_MR_MID_NOT_FOUND
    return true;
  }

  // The host's own source: simulated disks cloned in the same second must
  // still get signatures of their own.
  bool RandomBytes(void* out, size_t bytes) override {
    if (!native_->RandomBytes(out, bytes)) return Fail(native_->LastError());
    return true;
  }

 private:
  bool Fail(uint32_t code) {
    errors_->lastError = code;
    return false;
  }
  std::unique_ptr<File> FailNull(uint32_t code) {
    errors_->lastError = code;
    return nullptr;
  }

  // "\\.\..." (either slash), the namespace of devices.
  static bool IsDeviceNamespace(const std::string& path) {
    auto slash = [](char c) { return c == '\\' || c == '/'; };
    return path.size() >= 4 && slash(path[0]) && slash(path[1]) && path[2] == '.' && slash(path[3]);
  }

  // The drive of "\\.\PhysicalDriveN", or null.  N is written as Windows
  // names the device: decimal, without leading zeros.
  const DriveDescription* DriveOfPath(const std::string& path) const {
    const std::string name = path.substr(4);
    const std::string prefix = "PhysicalDrive";
    if (!StartsWithIgnoreCase(name, prefix)) return nullptr;
    const std::string digits = name.substr(prefix.size());
    if (digits.empty() || digits.size() > 2 || (digits.size() > 1 && digits[0] == '0')) return nullptr;
    int number = 0;
    for (char c : digits) {
      if (c < '0' || c > '9') return nullptr;
      number = number * 10 + (c - '0');
    }
    for (const DriveDescription& drive : d_.drives) {
      if (drive.number == number) return &drive;
    }
    return nullptr;
  }

  const VolumeDescription* VolumeOfLetter(char letter) const {
    const char upper = letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
    for (const VolumeDescription& v : d_.volumes) {
      if (v.letter == upper) return &v;
    }
    return nullptr;
  }

  const DriveDescription* DriveOfNumber(int number) const {
    for (const DriveDescription& drive : d_.drives) {
      if (drive.number == number) return &drive;
    }
    return nullptr;
  }

  bool QueryValue(const std::string& key, const std::string& value, RegistryValue* out) {
    if (EqualsIgnoreCase(key, kDiskEnumKey)) return DiskEnumValue(value, out);
    if (EqualsIgnoreCase(key, kMountedDevicesKey)) return MountedDeviceValue(value, out);
    if (StartsWithIgnoreCase(key, kEnumKeyPrefix)) return DeviceValue(key.substr(sizeof(kEnumKeyPrefix) - 1), value, out);
    return false;
  }

  // Services\Disk\Enum: "Count" and one instance path per drive, numbered
  // 0, 1, ... in ascending drive number as the disk driver enumerates them.
  bool DiskEnumValue(const std::string& value, RegistryValue* out) const {
    if (EqualsIgnoreCase(value, "Count")) {
      out->bytes.assign(4, 0);
      StoreLe32(out->bytes.data(), static_cast<uint32_t>(d_.drives.size()));
      return true;
    }
    for (size_t index = 0; index < d_.drives.size(); ++index) {
      if (value == std::to_string(index)) {
        if (d_.drives[index].instance.empty()) return false;
        out->isString = true;
        out->text = d_.drives[index].instance;
        return true;
      }
    }
    return false;
  }

  // Enum\<instance>: the device's names.
  bool DeviceValue(const std::string& instance, const std::string& value, RegistryValue* out) const {
    for (const DriveDescription& drive : d_.drives) {
      if (drive.instance.empty() || !EqualsIgnoreCase(drive.instance, instance)) continue;
      const std::string* text = nullptr;
      if (EqualsIgnoreCase(value, "FriendlyName")) {
        text = &drive.friendlyName;
      } else if (EqualsIgnoreCase(value, "DeviceDesc")) {
        text = &drive.deviceDesc;
      } else if (EqualsIgnoreCase(value, "ParentIDPrefix")) {
        text = &drive.parentIdPrefix;
      }
      if (text == nullptr || text->empty()) return false;
      out->isString = true;
      out->text = *text;
      return true;
    }
    return false;
  }

  // MountedDevices: "\??\Volume{guid}" and "\DosDevices\X:" per volume.
  bool MountedDeviceValue(const std::string& value, RegistryValue* out) {
    for (const VolumeDescription& v : d_.volumes) {
      const bool named = EqualsIgnoreCase(value, "\\??\\Volume" + v.guid) ||
                         EqualsIgnoreCase(value, std::string("\\DosDevices\\") + v.letter + ":");
      if (!named) continue;
      if (!v.device.empty()) {
        // The device path as UTF-16LE, without terminator; machine files
        // hold such paths in ASCII, so each byte is one code unit.
        for (char c : v.device) {
          out->bytes.push_back(static_cast<uint8_t>(c));
          out->bytes.push_back(0);
        }
        return true;
      }
      if (!v.hasOffset) return false;
      // The signature is the drive's current one: read at query time, so a
      // signature written during the run is what the mount manager "saw".
      const DriveDescription* drive = DriveOfNumber(v.drive);
      uint8_t signature[4] = {};
      if (drive == nullptr || !ReadImageBytes(drive->image, 440, signature, sizeof signature)) return false;
      out->bytes.assign(12, 0);
      for (size_t i = 0; i < 4; ++i) out->bytes[i] = signature[i];
      StoreLe64(out->bytes.data() + 4, v.offset);
      return true;
    }
    return false;
  }

  // Reads bytes of an image.  Opened sharing reads and writes, so that it
  // works beside the program's own handle on the drive on a Windows host.
  bool ReadImageBytes(const std::string& image, uint64_t offset, uint8_t* buffer, uint32_t bytes) {
    uint64_t size = 0;
    std::string why;
    std::unique_ptr<File> file = OpenImage(*native_, image, OpenMode::ProbeRead, &size, &why);
    if (!file) return false;
    uint32_t got = 0;
    return ReadAt(*file, offset, buffer, bytes, &got) && got == bytes;
  }

  bool AppendToHostFile(const std::string& path, const std::string& text) {
    std::unique_ptr<File> file = native_->Open(path, OpenMode::ReadWriteExisting);
    uint64_t end = 0;
    if (file) {
      if (!file->Size(&end)) return false;
    } else {
      file = native_->Open(path, OpenMode::CreateAlways);
      if (!file) return false;
    }
    return WriteAt(*file, end, text.data(), static_cast<uint32_t>(text.size())) && file->Flush();
  }

  // UTF-16 to 8-bit text for messages; what is not ASCII becomes '?'.
  static std::string Narrow(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) {
      if (c == 0) break;
      out += c < 0x80 ? static_cast<char>(c) : '?';
    }
    return out;
  }

  MachineDescription d_;
  std::shared_ptr<Machine> native_;
  std::shared_ptr<ErrorState> errors_;
  std::shared_ptr<TransferTrace> trace_;
};

}  // namespace

std::unique_ptr<Machine> CreateSimulatedMachine(MachineDescription description, std::shared_ptr<Machine> native,
                                                std::string* error) {
  if (!native) {
    if (error != nullptr) *error = "the simulated machine needs the host's file access, which is not available";
    return nullptr;
  }
  // Each image must open now and be something a drive can stand on: a typo
  // in a path, a folder or an empty file should stop the run at once rather
  // than show up as a disk that cannot be read.
  for (const DriveDescription& drive : description.drives) {
    // Drives of an image list come from no line of any file.
    const std::string where = (drive.imageLine > 0 ? "line " + std::to_string(drive.imageLine) + ": " : std::string()) +
                              "the image of [drive " + std::to_string(drive.number) + "] " + drive.image;
    std::error_code ignored;
    if (std::filesystem::is_directory(std::filesystem::path(drive.image), ignored)) {
      if (error != nullptr) *error = where + " is a folder, not an image file";
      return nullptr;
    }
    uint64_t bytes = 0;
    std::string why;
    std::unique_ptr<File> image = OpenImage(*native, drive.image, OpenMode::ProbeRead, &bytes, &why);
    if (!image) {
      if (error != nullptr) {
        *error = where + " cannot be opened: " + (why.empty() ? MessageFor(native->LastError()) : why);
      }
      return nullptr;
    }
    // A container that cannot be used is a drive that fails as the
    // container does when named directly.
    if (bytes < kSimSectorBytes && image->UnusableReason() == 0) {
      if (error != nullptr) {
        *error = where + " holds " + std::to_string(bytes) + " bytes, less than one sector of " +
                 std::to_string(kSimSectorBytes);
      }
      return nullptr;
    }
  }
  return std::make_unique<SimMachine>(std::move(description), std::move(native));
}

std::unique_ptr<Machine> LoadSimulatedMachine(const std::string& machineFilePath, std::shared_ptr<Machine> native,
                                              std::string* error) {
  if (!native) return CreateSimulatedMachine(MachineDescription(), nullptr, error);
  std::string text;
  uint32_t code = 0;
  if (!ReadHostFile(*native, machineFilePath, kMaxMachineFileBytes, &text, &code)) {
    if (error != nullptr) *error = "cannot read the machine file " + machineFilePath + ": " + MessageFor(code);
    return nullptr;
  }
  MachineDescription description;
  if (!ParseMachineFile(text, machineFilePath, &description, error)) return nullptr;
  std::string imageError;
  std::unique_ptr<Machine> machine = CreateSimulatedMachine(std::move(description), std::move(native), &imageError);
  if (!machine && error != nullptr) *error = machineFilePath + ", " + imageError;
  return machine;
}

}  // namespace dh::platform::sim
