// Opening a VMware disk file: the descriptor is searched block by block for
// its type, data file, size, geometry and adapter; the extents it lists then
// become the virtual disk, whose sector 0 is read through them.
#include "vdisk/vmdk.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/le.h"
#include "base/warn.h"
#include "disk/mbr_layout.h"
#include "vdisk/vmdk_descriptor.h"
#include "vdisk/vmdk_extent.h"

namespace dh {
namespace {

using namespace vmdk;

// The search for the descriptor's first line gives up after this many
// bytes: a descriptor sits at the start of its file, and a huge file without
// one is not worth reading to its end.
constexpr uint64_t kMaxSearchBytes = 1u << 20;

platform::OpenMode ModeFor(bool writable) {
  return writable ? platform::OpenMode::DiskReadWrite : platform::OpenMode::ProbeRead;
}

// A VMware disk file that cannot be used, as a drive's image: nothing to
// read or write, and the code that names the file's fault.
class UnusableImage : public platform::PlainFile {
 public:
  explicit UnusableImage(ResultCode code) : code_(code) {}
  bool Seek(uint64_t) override { return true; }
  bool Read(void*, uint32_t, uint32_t* done) override { return Nothing(done); }
  bool Write(const void*, uint32_t, uint32_t* done) override { return Nothing(done); }
  bool Flush() override { return true; }
  bool Size(uint64_t* bytes) override {
    *bytes = 0;
    return true;
  }
  int32_t UnusableReason() override { return code_; }

 private:
  static bool Nothing(uint32_t* done) {
    if (done != nullptr) *done = 0;
    return false;
  }
  ResultCode code_;
};

void Record(VmdkDisk& disk, ResultCode code) {
  if (disk.errorCode == kSuccess) disk.errorCode = code;
}

// The descriptor text whose extent lines lay out the disk: a text file
// whole, or the region a sparse header names.
ResultCode ReadDescriptorText(platform::File* file, std::string* text, bool* embedded) {
  *embedded = false;
  uint64_t fileBytes = 0;
  if (!file->Size(&fileBytes)) return kVmdkOpenFailed;
  uint8_t sector[kSectorSize] = {};
  uint32_t got = 0;
  if (!platform::ReadAt(*file, 0, sector, kSectorSize, &got)) return kVmdkOpenFailed;
  uint64_t offset = 0;
  uint64_t bytes = fileBytes;
  if (got == kSectorSize && std::memcmp(sector, kSparseMagic, kSparseMagicSize) == 0) {
    SparseHeader header;
    const ResultCode rc = ParseSparseHeader(sector, fileBytes / kSectorSize, &header);
    if (rc != kSuccess) return rc;
    if (header.descriptorSize == 0) return kVmdkUnknownType;
    *embedded = true;
    offset = header.descriptorOffset * kSectorSize;
    bytes = header.descriptorSize * kSectorSize;
  }
  if (bytes > kMaxDescriptorBytes) return kVmdkUnknownType;
  text->assign(static_cast<size_t>(bytes), '\0');
  if (!platform::ReadAt(*file, offset, text->data(), static_cast<uint32_t>(bytes), &got)) {
    return kVmdkOpenFailed;
  }
  // An embedded descriptor ends at its first zero byte.
  text->resize(std::min<size_t>(got, text->find('\0')));
  return kSuccess;
}

// One block that holds the descriptor's first line.
void HandleDescriptorBlock(VmdkDisk& disk, const uint8_t* block, platform::Machine& files, bool writable) {
  std::string value;
  const bool typed = FindQuotedValue(block, kBlockSize, "createType=\"", &value);
  if (typed) {
    disk.diskType = DiskTypeOf(value);
    if (disk.diskType == kTypeUnknown) Record(disk, kVmdkUnknownType);
    if (disk.diskType == kTypeMonolithicFlat || disk.diskType == kTypeTwoGbFlat) disk.dataStartSector = 0;
    disk.dataStartKnown = disk.diskType >= kTypeMonolithicFlat && disk.diskType <= kTypeMonolithicSparse;

    std::string extent;
    if (disk.embeddedDescriptor) {
      // An embedded descriptor: the data is the file's own.
      disk.dataPath = disk.descriptorPath;
    } else if (FindQuotedValue(block, kBlockSize, "SPARSE \"", &extent) ||
               FindQuotedValue(block, kBlockSize, "FLAT \"", &extent)) {
      disk.dataPath = ExtentPath(disk.descriptorPath, extent);
    }
  }

  const int64_t sectors = FindKeyNumber(block, kBlockSize, "ddb.geometry.sectors = ");
  const int64_t heads = FindKeyNumber(block, kBlockSize, "ddb.geometry.heads = ");
  const int64_t cylinders = FindKeyNumber(block, kBlockSize, "ddb.geometry.cylinders = ");
  if (sectors > 0 && heads > 0 && cylinders > 0 && sectors <= INT32_MAX && heads <= INT32_MAX &&
      cylinders <= INT32_MAX) {
    disk.sectorsPerTrack = static_cast<int32_t>(sectors);
    disk.heads = static_cast<int32_t>(heads);
    disk.cylinders = static_cast<int32_t>(cylinders);
    uint64_t total = 0;
    if (SumReadWriteSectors(block, kBlockSize, &total)) {
      disk.totalSectors = total;
      disk.sizeBytes = total * kSectorSize;
    } else {
      Record(disk, kVmdkUnknownType);
    }
  }

  // A disk already refused has no data file worth opening.
  if (disk.errorCode == kSuccess) OpenDataFile(disk, files, writable);

  if (FindQuotedValue(block, kBlockSize, "ddb.adapterType = \"", &value)) disk.interfaceText = AdapterTextOf(value);
}

}  // namespace

VmdkDisk::~VmdkDisk() { CloseVmdk(*this); }

std::unique_ptr<VmdkDisk> OpenVmdk(const std::string& path, platform::Machine& files, bool writable) {
  auto disk = std::make_unique<VmdkDisk>();
  disk->descriptorPath = path;
  disk->descriptorFile.Attach(files.Open(path, platform::OpenMode::ProbeRead), path);
  platform::File* descriptor = disk->descriptorFile.file();
  if (descriptor == nullptr) {
    Record(*disk, kVmdkOpenFailed);
    return disk;
  }

  // The block and the zero that ends it.
  uint8_t block[kBlockSize + 1] = {};
  uint32_t got = 0;
  bool more = platform::ReadAt(*descriptor, 0, block, kBlockSize, &got);
  if (!more) Record(*disk, kVmdkOpenFailed);
  if (more && std::memcmp(block, kSparseMagic, kSparseMagicSize) != 0 &&
      std::memcmp(block, kDescriptorSignature, kDescriptorSignatureSize) != 0) {
    Record(*disk, kVmdkNotVmware2);
  }
  disk->dataStartKnown = false;
  disk->dataStartSector = LoadLe32(block + kHeaderOverheadOffset);
  disk->embeddedDescriptor = more && std::memcmp(block, kSparseMagic, kSparseMagicSize) == 0;

  uint64_t offset = got;
  more = more && got != 0;
  while (disk->diskType == kTypeUnknown && disk->errorCode == kSuccess && more) {
    if (BlockContains(block, kBlockSize, kDescriptorSignature)) HandleDescriptorBlock(*disk, block, files, writable);
    std::memset(block, 0, sizeof block);
    more = offset < kMaxSearchBytes && platform::ReadAt(*descriptor, offset, block, kBlockSize, &got) && got != 0;
    offset += got;
  }
  // A file that never says what it is cannot be used either.
  if (disk->diskType == kTypeUnknown) Record(*disk, kVmdkUnknownType);
  disk->opened = disk->diskType != kTypeUnknown;
  disk->descriptionText = DescriptionOfType(disk->diskType);
  return disk;
}

void OpenDataFile(VmdkDisk& disk, platform::Machine& files, bool writable) {
  disk.device.Close();
  disk.mbrValid = false;
  std::unique_ptr<platform::File> data = disk.dataPath.empty() ? nullptr : files.Open(disk.dataPath, ModeFor(writable));
  if (!data) {
    Record(disk, kVmdkOpenFailed);
    return;
  }
  if (!disk.dataStartKnown) {
    uint8_t header[kSectorSize] = {};
    uint32_t got = 0;
    if (platform::ReadAt(*data, 0, header, kSectorSize, &got) && got == kSectorSize &&
        std::memcmp(header, kSparseMagic, kSparseMagicSize) == 0) {
      disk.dataStartSector = LoadLe32(header + kHeaderOverheadOffset);
    }
  }
  data.reset();  // the layout opens every extent file itself

  std::string text;
  bool embedded = false;
  ResultCode rc = ReadDescriptorText(disk.descriptorFile.file(), &text, &embedded);
  std::unique_ptr<VmdkFile> layout;
  if (rc == kSuccess) {
    const FileOpener opener = [&files](const std::string& path, bool forWriting) {
      return files.Open(path, ModeFor(forWriting));
    };
    rc = VmdkFile::Open(text, disk.descriptorPath, embedded, opener, writable, &layout);
  }
  if (rc != kSuccess) {
    Record(disk, rc);
    return;
  }
  if (!layout->Damage().empty()) {
    Warn(layout->Damage() + "; the disk opens for reading only and every write to it is refused");
  }
  disk.device.Attach(std::move(layout), disk.descriptorPath);
  uint32_t got = 0;
  if (platform::ReadAt(*disk.device.file(), 0, disk.sector0Image, kSectorSize, &got) && got == kSectorSize) {
    disk.mbrValid = mbr::HasBootSignature(disk.sector0Image);
  }
}

void CloseVmdk(VmdkDisk& disk) {
  disk.device.Close();
  disk.descriptorFile.Close();
}

bool OpenVmdkImage(platform::Machine& files, const std::string& path, bool writable,
                   std::unique_ptr<platform::File>* file, std::string* why) {
  file->reset();
  {
    std::unique_ptr<platform::File> probe = files.Open(path, platform::OpenMode::ProbeRead);
    uint8_t start[kDescriptorSignatureSize] = {};
    uint32_t got = 0;
    if (!probe || !platform::ReadAt(*probe, 0, start, sizeof start, &got)) return false;
    const bool sparse = got >= kSparseMagicSize && std::memcmp(start, kSparseMagic, kSparseMagicSize) == 0;
    const bool text = got == kDescriptorSignatureSize && std::memcmp(start, kDescriptorSignature, got) == 0;
    if (!sparse && !text) return false;
  }
  std::unique_ptr<VmdkDisk> disk = OpenVmdk(path, files, writable);
  if (!disk->opened || disk->errorCode != kSuccess) {
    char text[96];
    const ResultCode code = disk->errorCode != kSuccess ? disk->errorCode : kVmdkUnknownType;
    std::snprintf(text, sizeof text, "not a usable VMware disk (error %d)", static_cast<int>(code));
    *why = text;
    *file = std::make_unique<UnusableImage>(code);
    return true;
  }
  *file = disk->device.Detach();
  return true;
}

std::unique_ptr<VirtualDisk> OpenVirtualVmdk(platform::Machine& machine, const std::string& path) {
  return OpenVmdk(path, machine);
}

}  // namespace dh
