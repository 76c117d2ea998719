// The in-memory host, the program run on it, and the write checks.
#include "fuzz_support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "app/program.h"
#include "app/run_state.h"
#include "gpt/gpt_table.h"
#include "mbr/partition.h"
#include "platform/sim/sim_drive.h"
#include "platform/sim/sim_machine.h"
#include "vdisk/vmdk.h"

namespace dh::fuzz {

namespace {

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorDiskFull = 112;

class MemHandle : public platform::PlainFile {
 public:
  MemHandle(std::shared_ptr<MemFile> file, bool writable, MemMachine& owner)
      : file_(std::move(file)), writable_(writable), owner_(owner) {}

  bool Seek(uint64_t offset) override {
    position_ = offset;
    return true;
  }
  bool Read(void* buffer, uint32_t bytes, uint32_t* done) override {
    *done = 0;
    const uint64_t size = file_->size;
    if (position_ >= size) return true;
    const uint64_t count = std::min<uint64_t>(bytes, size - position_);
    file_->Read(position_, static_cast<uint8_t*>(buffer), static_cast<size_t>(count));
    position_ += count;
    *done = static_cast<uint32_t>(count);
    return true;
  }
  bool Write(const void* buffer, uint32_t bytes, uint32_t* done) override {
    *done = 0;
    if (!writable_) return owner_.Fail(kErrorAccessDenied);
    uint64_t end = 0;
    if (__builtin_add_overflow(position_, uint64_t{bytes}, &end) || end > kMaxMemFileBytes) {
      return owner_.Fail(kErrorDiskFull);
    }
    if (bytes == 0) return true;
    file_->Write(position_, static_cast<const uint8_t*>(buffer), bytes);
    position_ = end;
    *done = bytes;
    ++file_->writes;
    return true;
  }
  bool Flush() override { return true; }
  bool Size(uint64_t* bytes) override {
    *bytes = file_->size;
    return true;
  }

 private:
  std::shared_ptr<MemFile> file_;
  bool writable_;
  MemMachine& owner_;
  uint64_t position_ = 0;
};

}  // namespace

MemFile::MemFile(const uint8_t* data, size_t bytes, uint64_t fileSize) : size(std::max<uint64_t>(fileSize, bytes)) {
  for (size_t at = 0; at < bytes; at += kChunk) {
    Bytes& chunk = chunks[at / kChunk];
    chunk.assign(kChunk, 0);
    std::memcpy(chunk.data(), data + at, std::min<size_t>(kChunk, bytes - at));
  }
}

void MemFile::Read(uint64_t offset, uint8_t* out, size_t bytes) const {
  while (bytes > 0) {
    const uint64_t index = offset / kChunk;
    const size_t inChunk = static_cast<size_t>(offset % kChunk);
    const size_t count = std::min<size_t>(bytes, kChunk - inChunk);
    auto it = chunks.find(index);
    if (it == chunks.end()) {
      std::memset(out, 0, count);
    } else {
      std::memcpy(out, it->second.data() + inChunk, count);
    }
    out += count;
    offset += count;
    bytes -= count;
  }
}

void MemFile::Write(uint64_t offset, const uint8_t* in, size_t bytes) {
  size = std::max<uint64_t>(size, offset + bytes);
  while (bytes > 0) {
    const uint64_t index = offset / kChunk;
    const size_t inChunk = static_cast<size_t>(offset % kChunk);
    const size_t count = std::min<size_t>(bytes, kChunk - inChunk);
    auto it = chunks.find(index);
    if (it == chunks.end()) {
      // Zeros over a chunk never written change nothing: the file stays
      // sparse however large a region a run zeroes.
      bool zeros = true;
      for (size_t i = 0; i < count && zeros; ++i) zeros = in[i] == 0;
      if (!zeros) {
        Bytes& chunk = chunks[index];
        chunk.assign(kChunk, 0);
        std::memcpy(chunk.data() + inChunk, in, count);
      }
    } else {
      std::memcpy(it->second.data() + inChunk, in, count);
    }
    in += count;
    offset += count;
    bytes -= count;
  }
}

Bytes MemFile::Slice(uint64_t offset, size_t bytes) const {
  Bytes out(bytes, 0);
  if (offset < size) Read(offset, out.data(), static_cast<size_t>(std::min<uint64_t>(bytes, size - offset)));
  return out;
}

MemFile& MemMachine::Put(const std::string& path, MemFile file) {
  auto shared = std::make_shared<MemFile>(std::move(file));
  shared->writes = 0;
  files[path] = shared;
  return *shared;
}

const MemFile& MemMachine::Get(const std::string& path) const {
  static const MemFile kNone;
  auto it = files.find(path);
  return it == files.end() ? kNone : *it->second;
}

std::unique_ptr<platform::File> MemMachine::Open(const std::string& path, platform::OpenMode mode) {
  using platform::OpenMode;
  auto it = files.find(path);
  if (mode == OpenMode::CreateAlways) {
    if (path.empty()) {
      Fail(kErrorFileNotFound);
      return nullptr;
    }
    Put(path, MemFile());
    ++created;
    return std::make_unique<MemHandle>(files[path], true, *this);
  }
  if (it == files.end()) {
    Fail(kErrorFileNotFound);
    return nullptr;
  }
  const bool writable = mode == OpenMode::DiskReadWrite || mode == OpenMode::ReadWriteExisting;
  return std::make_unique<MemHandle>(it->second, writable, *this);
}

int MemMachine::ReadKey() {
  if (keys.empty()) return -1;
  const int key = keys.front();
  keys.pop_front();
  return key;
}

bool MemMachine::ReadLine(std::string* line) {
  if (lines.empty()) return false;
  *line = lines.front();
  lines.pop_front();
  return true;
}

bool MemMachine::RandomBytes(void* out, size_t bytes) {
  auto* p = static_cast<uint8_t*>(out);
  for (size_t i = 0; i < bytes; ++i) {
    randomState = randomState * 1664525u + 1013904223u;
    p[i] = static_cast<uint8_t>(randomState >> 24);
  }
  return true;
}

platform::sim::DriveDescription Drive(int number, const std::string& image, platform::sim::MediaKind media) {
  platform::sim::DriveDescription d;
  d.number = number;
  d.image = image;
  d.media = media;
  return d;
}

DirectDisk::DirectDisk() {
  DiskDrivers drivers;
  drivers.loadMbr = LoadMbrTable;
  drivers.loadGpt = LoadGptTable;
  disks_ = std::make_unique<DiskSet>(*host, drivers, false);
}

DiskSet& DirectDisk::Load(const MemFile& image, platform::sim::MediaKind media) {
  host->files.clear();
  host->created = 0;
  host->Put(kPath, image);
  DiskSet& d = *disks_;
  d.SetWritePlan(nullptr);
  d.ForgetLoadedDisk();
  d.firstError = kSuccess;
  d.currentDisk = 0;
  d.diskCount = 1;
  d.diskTable[0] = 0;
  d.device.Close();
  d.devicePath = "\\\\.\\PhysicalDrive0";
  d.device.Attach(platform::sim::MakeDriveFile(Drive(0, kPath, media), host->Open(kPath, platform::OpenMode::DiskReadWrite),
                                               image.size, true, host, std::make_shared<platform::sim::ErrorState>(),
                                               nullptr),
                  d.devicePath);
  d.LoadDisk(true);
  return d;
}

int32_t RunProgram(const std::shared_ptr<MemMachine>& host, const platform::sim::MachineDescription& description,
                   const std::vector<std::string>& args, const std::string& programPath) {
  ResetRun();
  std::string error;
  std::unique_ptr<platform::Machine> machine = platform::sim::CreateSimulatedMachine(description, host, &error);
  if (!machine) return -1;
  platform::SetHost(machine.get());
  std::vector<std::string> texts;
  texts.reserve(args.size() + 1);
  texts.push_back(programPath);
  texts.insert(texts.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& t : texts) argv.push_back(t.data());
  argv.push_back(nullptr);
  const int32_t value = RunDiskhold(static_cast<int>(texts.size()), argv.data());
  platform::SetHost(nullptr);
  return value;
}

void InitFuzzing(bool vmdkImages) {
  const char* verbose = std::getenv("DISKHOLD_FUZZ_VERBOSE");
  if (verbose == nullptr || std::strcmp(verbose, "1") != 0) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::fclose(stdout);
  }
  platform::SetImageOpener(vmdkImages ? &OpenVmdkImage : nullptr);
}

void Require(bool ok, const std::string& what) {
  if (ok) return;
  std::fflush(stdout);
  std::fprintf(stderr, "diskhold fuzz check failed: %s\n", what.c_str());
  std::abort();
}

bool Ranges::Contains(uint64_t offset) const {
  for (const auto& [first, end] : list) {
    if (offset >= first && offset < end) return true;
  }
  return false;
}

void RequireOnlyChanged(const Bytes& before, const Bytes& after, const Ranges& allowed, const std::string& what) {
  Require(before.size() == after.size(), what + ": the image changed its size from " + std::to_string(before.size()) +
                                             " to " + std::to_string(after.size()));
  if (std::memcmp(before.data(), after.data(), before.size()) == 0) return;
  for (size_t i = 0; i < before.size(); ++i) {
    if (before[i] != after[i] && !allowed.Allows(i)) {
      Require(false, what + ": byte " + std::to_string(i) + " (sector " + std::to_string(i / kSector) + ", offset " +
                         std::to_string(i % kSector) + ") changed outside what it may write");
    }
  }
}

void RequireOnlyChanged(const MemFile& before, const MemFile& after, const Ranges& allowed, const std::string& what) {
  Require(before.size == after.size, what + ": the image changed its size from " + std::to_string(before.size) +
                                         " to " + std::to_string(after.size));
  static const Bytes kZeros(MemFile::kChunk, 0);
  auto chunkOf = [](const MemFile& f, uint64_t index) -> const Bytes& {
    auto it = f.chunks.find(index);
    return it == f.chunks.end() ? kZeros : it->second;
  };
  auto compare = [&](uint64_t index) {
    const Bytes& a = chunkOf(before, index);
    const Bytes& b = chunkOf(after, index);
    if (std::memcmp(a.data(), b.data(), MemFile::kChunk) == 0) return;
    for (size_t i = 0; i < MemFile::kChunk; ++i) {
      const uint64_t at = index * MemFile::kChunk + i;
      if (a[i] != b[i] && !allowed.Allows(at)) {
        Require(false, what + ": byte " + std::to_string(at) + " (sector " + std::to_string(at / kSector) +
                           ", offset " + std::to_string(at % kSector) + ") changed outside what it may write");
      }
    }
  };
  for (const auto& entry : before.chunks) compare(entry.first);
  for (const auto& entry : after.chunks) {
    if (before.chunks.count(entry.first) == 0) compare(entry.first);
  }
}

void RequireNoWrites(const MemMachine& host, const std::vector<std::string>& except, const std::string& what,
                     bool mayCreate) {
  Require(mayCreate || host.created == 0, what + ": created a file");
  for (const auto& [path, file] : host.files) {
    if (file->writes == 0) continue;
    bool excepted = false;
    for (const std::string& e : except) excepted = excepted || e == path;
    Require(excepted, what + ": wrote to " + path);
  }
}

MemFile ImageFromInput(const uint8_t* data, size_t size, uint64_t sectors) {
  const uint64_t bytes = sectors * kSector;
  return MemFile(data, static_cast<size_t>(std::min<uint64_t>(size, bytes)), bytes);
}

MemFile TailImage(const uint8_t* data, size_t size, size_t tailSectors, uint64_t sectors) {
  const size_t tail = std::min(size, tailSectors * kSector);
  MemFile image = ImageFromInput(data, size - tail, sectors);
  if (tail > 0) image.Write(sectors * kSector - tail, data + size - tail, tail);
  return image;
}

Bytes ReadVirtualDisk(MemMachine& host, const std::string& path, uint64_t sectors) {
  std::unique_ptr<platform::File> file;
  std::string why;
  if (!OpenVmdkImage(host, path, false, &file, &why) || !file) return {};
  uint64_t size = 0;
  if (!file->Size(&size)) return {};
  const uint64_t bytes = std::min<uint64_t>(size, sectors * kSector);
  Bytes out(static_cast<size_t>(bytes), 0);
  uint64_t total = 0;
  while (total < bytes) {
    uint32_t got = 0;
    const auto want = static_cast<uint32_t>(std::min<uint64_t>(bytes - total, 1u << 20));
    if (!file->Seek(total) || !file->Read(out.data() + total, want, &got) || got == 0) break;
    total += got;
  }
  out.resize(static_cast<size_t>(total));
  return out;
}

std::string Describe(const std::vector<std::string>& args) {
  std::string out;
  for (const std::string& a : args) {
    if (!out.empty()) out += ' ';
    out += a;
  }
  return out;
}

}  // namespace dh::fuzz
