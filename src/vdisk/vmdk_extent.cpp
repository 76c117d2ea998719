// The layout of a VMware virtual disk.  A sparse extent is checked whole when
// it opens (header, directories, every grain table and every grain entry of
// the primary tables), so that a damaged file is refused before anything is
// written rather than half-way through a command.  Writes into a grain that
// has no storage yet put a whole grain at the end of the extent file and
// then point both grain tables at it, so other tools keep reading the file.
#include "vdisk/vmdk_extent.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "base/le.h"

namespace dh::vmdk {
namespace {

constexpr uint64_t kSector = kSectorSize;  // 64-bit: products with sector numbers never wrap
constexpr uint32_t kGteBytes = 4;
// Grains are written in pieces of at most this size.
constexpr uint32_t kChunkBytes = 64 * 1024;

bool ReadFully(platform::File* file, uint64_t offset, uint8_t* buffer, uint32_t bytes, uint32_t* got) {
  return platform::ReadAt(*file, offset, buffer, bytes, got);
}

bool ReadExactly(platform::File* file, uint64_t offset, uint8_t* buffer, uint32_t bytes) {
  uint32_t got = 0;
  return platform::ReadAt(*file, offset, buffer, bytes, &got) && got == bytes;
}

bool WriteExactly(platform::File* file, uint64_t offset, const uint8_t* buffer, uint32_t bytes) {
  return platform::WriteAt(*file, offset, buffer, bytes);
}

// Whether [start, start + count) lies within [0, limit).
bool RunFits(uint64_t start, uint64_t count, uint64_t limit) { return start <= limit && count <= limit - start; }

uint64_t CeilDiv(uint64_t a, uint64_t b) { return a / b + (a % b != 0 ? 1 : 0); }

// The bitmap of the file's grains that the check at open keeps: at most
// 32 MiB.  A file with more grains than that (a tiny grain size in a huge
// file) is checked with a sorted list instead.
constexpr uint64_t kMaxBitmapSlots = 1ull << 28;

unsigned long long Ull(uint64_t value) { return static_cast<unsigned long long>(value); }

std::string Text(const char* format, ...) {
  char buffer[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

bool AllZero(const uint8_t* data, uint32_t bytes) {
  for (uint32_t i = 0; i < bytes; ++i) {
    if (data[i] != 0) return false;
  }
  return true;
}

}  // namespace

ResultCode ParseSparseHeader(const uint8_t* s, uint64_t fileSectors, SparseHeader* out) {
  SparseHeader h;
  if (std::memcmp(s + kHdrMagic, kSparseMagic, kSparseMagicSize) != 0) return kVmdkUnknownType;
  h.version = LoadLe32(s + kHdrVersion);
  h.flags = LoadLe32(s + kHdrFlags);
  h.capacity = LoadLe64(s + kHdrCapacity);
  h.grainSize = LoadLe64(s + kHdrGrainSize);
  h.descriptorOffset = LoadLe64(s + kHdrDescriptorOffset);
  h.descriptorSize = LoadLe64(s + kHdrDescriptorSize);
  h.gtesPerGt = LoadLe32(s + kHdrGtesPerGt);
  h.rgdOffset = LoadLe64(s + kHdrRgdOffset);
  h.gdOffset = LoadLe64(s + kHdrGdOffset);
  h.overhead = LoadLe64(s + kHdrOverhead);
  h.redundant = (h.flags & kFlagRedundantGd) != 0;

  if (h.version < 1 || h.version > 3) return kVmdkUnknownType;
  // Compressed grains and stream markers belong to streamOptimized files,
  // which are written once, front to back, and never updated in place.
  if ((h.flags & (kFlagCompressedGrains | kFlagMarkers)) != 0) return kVmdkUnknownType;
  if (LoadLe16(s + kHdrCompression) != 0) return kVmdkUnknownType;
  if (h.grainSize == 0 || (h.grainSize & (h.grainSize - 1)) != 0 || h.grainSize > kMaxGrainSize) {
    return kVmdkUnknownType;
  }
  if (h.gtesPerGt == 0 || h.gtesPerGt > kMaxGtesPerGt) return kVmdkUnknownType;
  h.grains = CeilDiv(h.capacity, h.grainSize);
  if (h.grains > kMaxGrains) return kVmdkUnknownType;
  h.gdEntries = CeilDiv(h.grains, h.gtesPerGt);
  if (h.gdEntries > kMaxGdEntries) return kVmdkUnknownType;
  h.gtSectors = CeilDiv(static_cast<uint64_t>(h.gtesPerGt) * kGteBytes, kSector);
  h.gdSectors = CeilDiv(h.gdEntries * kGteBytes, kSector);

  // Grains start at or after the overhead and a grain table entry holds a
  // 32-bit sector; the metadata must be in the file.
  if (h.overhead < 1 || h.overhead > fileSectors || h.overhead > UINT32_MAX) return kVmdkUnknownType;
  if (h.gdOffset < 1 || !RunFits(h.gdOffset, h.gdSectors, h.overhead)) return kVmdkUnknownType;
  if (h.redundant && (h.rgdOffset < 1 || !RunFits(h.rgdOffset, h.gdSectors, h.overhead))) return kVmdkUnknownType;
  if (h.descriptorSize != 0 && (h.descriptorOffset < 1 || !RunFits(h.descriptorOffset, h.descriptorSize, h.overhead))) {
    return kVmdkUnknownType;
  }
  *out = h;
  return kSuccess;
}

// One hosted sparse extent.  The grain directories are held in memory (they
// are small: see kMaxGdEntries); one grain table is cached.
class SparseExtent {
 public:
  static ResultCode Open(platform::File* file, uint64_t lineSectors, std::unique_ptr<SparseExtent>* out) {
    uint64_t fileBytes = 0;
    if (!file->Size(&fileBytes)) return kVmdkOpenFailed;
    auto extent = std::unique_ptr<SparseExtent>(new SparseExtent(file, fileBytes / kSector));
    uint8_t sector[kSector];
    if (extent->fileSectors_ < 1 || !ReadExactly(file, 0, sector, kSector)) return kVmdkUnknownType;
    ResultCode rc = ParseSparseHeader(sector, extent->fileSectors_, &extent->h_);
    if (rc != kSuccess) return rc;
    if (lineSectors > extent->h_.capacity) return kVmdkUnknownType;
    rc = extent->LoadDirectories();
    if (rc == kSuccess) rc = extent->CheckTables();
    if (rc != kSuccess) return rc;
    *out = std::move(extent);
    return kSuccess;
  }

  // What the check at open found wrong with the grain directories and
  // tables (the first problem met), or empty.  Such an extent reads, but
  // must never be written: a write could land in the wrong place.
  const std::string& Problem() const { return problem_; }

  bool Read(uint64_t offset, uint8_t* buffer, uint32_t bytes) {
    return ForEachGrain(offset, bytes, [&](uint64_t grain, uint32_t inGrain, uint32_t done, uint32_t count) {
      uint32_t gte = 0;
      if (!Lookup(grain, &gte)) return false;
      std::memset(buffer + done, 0, count);
      if (!Allocated(gte)) return true;
      // A last grain cut short by the file's end reads as zeros past it.
      uint32_t got = 0;
      return ReadFully(file_, static_cast<uint64_t>(gte) * kSector + inGrain, buffer + done, count, &got);
    });
  }

  // The first run of grains with storage at or after `offset` and before
  // `limit` (bytes of the extent), as [*start, *end).  A grain whose entry
  // cannot be trusted counts as data, so that reading it fails where it is.
  // False when every grain of the range reads as zeros without storage.
  bool NextData(uint64_t offset, uint64_t limit, uint64_t* start, uint64_t* end) {
    const uint64_t grainBytes = h_.grainSize * kSector;
    uint64_t grain = offset / grainBytes;
    const uint64_t lastGrain = (limit - 1) / grainBytes;
    auto holdsData = [&](uint64_t g) {
      uint32_t gte = 0;
      return !Lookup(g, &gte) || Allocated(gte);
    };
    while (grain <= lastGrain) {
      const uint64_t t = grain / h_.gtesPerGt;
      // A grain table that does not exist covers only grains without storage.
      if (t < gd_.size() && gd_[t] == 0) {
        grain = (t + 1) * h_.gtesPerGt;
        continue;
      }
      if (holdsData(grain)) break;
      ++grain;
    }
    if (grain > lastGrain) return false;
    uint64_t after = grain + 1;
    while (after <= lastGrain && holdsData(after)) ++after;
    *start = std::max(offset, grain * grainBytes);
    *end = after > lastGrain ? limit : after * grainBytes;
    return true;
  }

  // Whether a write of these bytes can be carried out whole: every grain it
  // must allocate has a grain table (in both directories) to record it.
  bool CanWrite(uint64_t offset, const uint8_t* buffer, uint32_t bytes) {
    return ForEachGrain(offset, bytes, [&](uint64_t grain, uint32_t, uint32_t done, uint32_t count) {
      uint32_t gte = 0;
      if (!Lookup(grain, &gte)) return false;
      if (Allocated(gte) || AllZero(buffer + done, count)) return true;
      const uint64_t table = grain / h_.gtesPerGt;
      return gd_[table] != 0 && (!h_.redundant || rgd_[table] != 0);
    });
  }

  bool Write(uint64_t offset, const uint8_t* buffer, uint32_t bytes) {
    std::vector<std::pair<uint64_t, uint32_t>> allocated;  // grain, its new sector
    const bool ok = ForEachGrain(offset, bytes, [&](uint64_t grain, uint32_t inGrain, uint32_t done, uint32_t count) {
      uint32_t gte = 0;
      if (!Lookup(grain, &gte)) return false;
      if (Allocated(gte)) {
        return WriteExactly(file_, static_cast<uint64_t>(gte) * kSector + inGrain, buffer + done, count);
      }
      // A grain without storage reads as zeros already.
      if (AllZero(buffer + done, count)) return true;
      uint32_t sector = 0;
      if (!AppendGrain(inGrain, buffer + done, count, &sector)) return false;
      allocated.emplace_back(grain, sector);
      return true;
    });
    if (allocated.empty()) return ok;
    // The grains' data is durable before any table points at it.
    if (!file_->Flush()) return false;
    for (const auto& [grain, sector] : allocated) {
      if (!SetEntry(grain, sector)) return false;
    }
    return ok;
  }

 private:
  SparseExtent(platform::File* file, uint64_t fileSectors) : file_(file), fileSectors_(fileSectors) {}

  bool Allocated(uint32_t gte) const { return gte != 0 && !(gte == 1 && (h_.flags & kFlagZeroedGrainGte) != 0); }

  // An allocated entry must point past the metadata and into the file.
  bool EntryValid(uint32_t gte) const { return !Allocated(gte) || (gte >= h_.overhead && gte < fileSectors_); }

  template <typename Step>
  bool ForEachGrain(uint64_t offset, uint32_t bytes, Step step) {
    const uint64_t grainBytes = h_.grainSize * kSector;
    uint32_t done = 0;
    while (done < bytes) {
      const uint64_t at = offset + done;
      const uint64_t grain = at / grainBytes;
      const auto inGrain = static_cast<uint32_t>(at % grainBytes);
      const uint64_t room = grainBytes - inGrain;
      const uint32_t count = room < bytes - done ? static_cast<uint32_t>(room) : bytes - done;
      if (!step(grain, inGrain, done, count)) return false;
      done += count;
    }
    return true;
  }

  ResultCode LoadDirectories() {
    if (!LoadDirectory(h_.gdOffset, &gd_)) return kVmdkUnknownType;
    if (h_.redundant && !LoadDirectory(h_.rgdOffset, &rgd_)) return kVmdkUnknownType;

    // Header, descriptor, directories and tables must not share a sector:
    // a table entry written later must never land in other metadata.
    std::vector<std::pair<uint64_t, uint64_t>> runs;  // first sector, count
    runs.emplace_back(0, 1);
    if (h_.descriptorSize != 0) runs.emplace_back(h_.descriptorOffset, h_.descriptorSize);
    runs.emplace_back(h_.gdOffset, h_.gdSectors);
    if (h_.redundant) runs.emplace_back(h_.rgdOffset, h_.gdSectors);
    for (size_t t = 0; t < gd_.size(); ++t) {
      if (h_.redundant && (gd_[t] != 0) != (rgd_[t] != 0) && twinProblem_.empty()) {
        twinProblem_ = Text("grain table %llu is in %s grain directory only", Ull(t),
                            gd_[t] != 0 ? "the primary" : "the redundant");
      }
      if (gd_[t] != 0) runs.emplace_back(gd_[t], h_.gtSectors);
      if (h_.redundant && rgd_[t] != 0) runs.emplace_back(rgd_[t], h_.gtSectors);
    }
    std::sort(runs.begin(), runs.end());
    for (size_t i = 0; i < runs.size(); ++i) {
      if (runs[i].second == 0) continue;
      if (!RunFits(runs[i].first, runs[i].second, h_.overhead)) return kVmdkUnknownType;
      if (i + 1 < runs.size() && runs[i + 1].first < runs[i].first + runs[i].second) return kVmdkUnknownType;
    }
    return kSuccess;
  }

  bool LoadDirectory(uint64_t sector, std::vector<uint32_t>* out) {
    std::vector<uint8_t> bytes(static_cast<size_t>(h_.gdEntries * kGteBytes));
    if (!bytes.empty() && !ReadExactly(file_, sector * kSector, bytes.data(), static_cast<uint32_t>(bytes.size()))) {
      return false;
    }
    out->resize(static_cast<size_t>(h_.gdEntries));
    for (size_t i = 0; i < out->size(); ++i) (*out)[i] = LoadLe32(bytes.data() + i * kGteBytes);
    return true;
  }

  // Every entry of every table, once, at open: each allocated grain lies in
  // the file after the metadata, its redundant entry says the same, and no
  // two grains share a sector of the file (one write would then show at two
  // places of the disk).  Grains that start on a grain boundary of the file
  // (all of them, in files that VMware and qemu write) are marked in a
  // bitmap of the file's grains; the others are kept in a list, sorted at
  // the end.  The primary tables, which reads follow, come first: their
  // first problem is kept in problem_ and ends the check; a redundant copy
  // that disagrees is named only when the primary tables are sound.  A
  // table that cannot be read refuses the file.
  ResultCode CheckTables() {
    const ResultCode rc = CheckPrimaryTables();
    if (problem_.empty()) problem_ = twinProblem_;
    return rc;
  }

  ResultCode CheckPrimaryTables() {
    const uint64_t grainSize = h_.grainSize;
    // Grains start below 2^32 sectors, whatever the file's size.
    const uint64_t reach = std::min<uint64_t>(fileSectors_, uint64_t{UINT32_MAX} + 1);
    const uint64_t slots = CeilDiv(reach, grainSize);
    const bool useBitmap = slots <= kMaxBitmapSlots;
    std::vector<bool> used(useBitmap ? static_cast<size_t>(slots) : 0);
    std::vector<uint32_t> unaligned;
    std::vector<uint8_t> redundant;
    for (size_t t = 0; t < gd_.size(); ++t) {
      if (gd_[t] == 0) continue;
      if (!LoadTable(t)) return kVmdkUnknownType;
      const bool twin = h_.redundant && rgd_[t] != 0 && twinProblem_.empty();
      if (twin) {
        redundant.resize(table_.size());
        if (!ReadExactly(file_, static_cast<uint64_t>(rgd_[t]) * kSector, redundant.data(),
                         static_cast<uint32_t>(redundant.size()))) {
          return kVmdkUnknownType;
        }
      }
      for (uint32_t i = 0; i < h_.gtesPerGt; ++i) {
        const uint64_t grain = t * h_.gtesPerGt + i;
        // Entries past the capacity are never used.
        if (grain >= h_.grains) break;
        const uint32_t gte = LoadLe32(table_.data() + i * kGteBytes);
        if (twin) {
          const uint32_t copy = LoadLe32(redundant.data() + i * kGteBytes);
          if (copy != gte && twinProblem_.empty()) {
            twinProblem_ = Text("the grain table entry of grain %llu points at sector %u, its redundant copy at "
                                "sector %u",
                                Ull(grain), gte, copy);
          }
        }
        if (!Allocated(gte)) continue;
        if (gte < h_.overhead) {
          problem_ = Text("the grain table entry of grain %llu points at sector %u, inside the metadata "
                          "(sectors 0-%llu)",
                          Ull(grain), gte, Ull(h_.overhead - 1));
          return kSuccess;
        }
        if (gte >= fileSectors_) {
          problem_ = Text("the grain table entry of grain %llu points at sector %u, past the file's end (%llu sectors)",
                          Ull(grain), gte, Ull(fileSectors_));
          return kSuccess;
        }
        if (useBitmap && gte % grainSize == 0) {
          const auto slot = static_cast<size_t>(gte / grainSize);
          if (used[slot]) return NoteShared(gte);
          used[slot] = true;
        } else if (unaligned.size() <= slots + 1) {
          // More grains than the file holds share sectors anyway: the list
          // never needs to grow past that.
          unaligned.push_back(gte);
        }
      }
    }
    // A grain off the boundaries covers parts of two bitmap grains.
    for (uint32_t gte : unaligned) {
      if (!useBitmap) break;
      const uint64_t slot = gte / grainSize;
      if (used[static_cast<size_t>(slot)]) return NoteShared(gte);
      if (slot + 1 < slots && used[static_cast<size_t>(slot + 1)]) return NoteShared((slot + 1) * grainSize);
    }
    std::sort(unaligned.begin(), unaligned.end());
    for (size_t i = 1; i < unaligned.size(); ++i) {
      if (unaligned[i] - unaligned[i - 1] < grainSize) return NoteShared(unaligned[i]);
    }
    return kSuccess;
  }

  // Names the first two grains (in grain order) whose storage holds file
  // sector `sector`: the check met a sector that two grains share.
  ResultCode NoteShared(uint64_t sector) {
    uint64_t found[2] = {};
    uint32_t at[2] = {};
    int count = 0;
    for (uint64_t grain = 0; grain < h_.grains && count < 2; ++grain) {
      const uint64_t t = grain / h_.gtesPerGt;
      if (gd_[t] == 0) {
        grain = (t + 1) * h_.gtesPerGt - 1;
        continue;
      }
      if (!LoadTable(t)) return kVmdkUnknownType;
      const uint32_t gte = LoadLe32(table_.data() + (grain % h_.gtesPerGt) * kGteBytes);
      if (!Allocated(gte) || gte > sector || sector - gte >= h_.grainSize) continue;
      found[count] = grain;
      at[count] = gte;
      ++count;
    }
    if (count < 2) return kVmdkUnknownType;  // the tables changed under us
    const uint64_t per = h_.gtesPerGt;
    const auto [t0, e0, t1, e1] = std::make_tuple(found[0] / per, found[0] % per, found[1] / per, found[1] % per);
    if (at[0] == at[1]) {
      problem_ = Text("the grain table entries of grains %llu and %llu (table %llu entry %llu, table %llu entry %llu) "
                      "both point at sector %u",
                      Ull(found[0]), Ull(found[1]), Ull(t0), Ull(e0), Ull(t1), Ull(e1), at[0]);
    } else {
      problem_ = Text("the grains %llu and %llu (table %llu entry %llu at sector %u, table %llu entry %llu at "
                      "sector %u) overlap in the file",
                      Ull(found[0]), Ull(found[1]), Ull(t0), Ull(e0), at[0], Ull(t1), Ull(e1), at[1]);
    }
    return kSuccess;
  }

  bool LoadTable(uint64_t t) {
    if (t == cachedTable_) return true;
    cachedTable_ = UINT64_MAX;
    table_.resize(static_cast<size_t>(h_.gtesPerGt) * kGteBytes);
    if (!ReadExactly(file_, static_cast<uint64_t>(gd_[t]) * kSector, table_.data(),
                     static_cast<uint32_t>(table_.size()))) {
      return false;
    }
    cachedTable_ = t;
    return true;
  }

  bool Lookup(uint64_t grain, uint32_t* gte) {
    const uint64_t t = grain / h_.gtesPerGt;
    if (grain >= h_.grains || t >= gd_.size()) return false;
    *gte = 0;
    if (gd_[t] == 0) return true;
    if (!LoadTable(t)) return false;
    *gte = LoadLe32(table_.data() + (grain % h_.gtesPerGt) * kGteBytes);
    return EntryValid(*gte);
  }

  // Puts a whole grain holding `count` bytes of data at `inGrain` (zeros
  // elsewhere) at the grain-aligned end of the file.
  bool AppendGrain(uint32_t inGrain, const uint8_t* data, uint32_t count, uint32_t* sector) {
    const uint64_t start = CeilDiv(fileSectors_, h_.grainSize) * h_.grainSize;
    if (start > UINT32_MAX || h_.grainSize > UINT32_MAX - start) return false;
    const uint64_t grainBytes = h_.grainSize * kSector;
    std::vector<uint8_t> chunk(static_cast<size_t>(std::min<uint64_t>(grainBytes, kChunkBytes)));
    for (uint64_t at = 0; at < grainBytes; at += chunk.size()) {
      const auto size = static_cast<uint32_t>(std::min<uint64_t>(chunk.size(), grainBytes - at));
      std::memset(chunk.data(), 0, size);
      // The part of the data that falls into this chunk.
      const uint64_t from = std::max<uint64_t>(at, inGrain);
      const uint64_t to = std::min<uint64_t>(at + size, static_cast<uint64_t>(inGrain) + count);
      if (from < to) std::memcpy(chunk.data() + (from - at), data + (from - inGrain), static_cast<size_t>(to - from));
      if (!WriteExactly(file_, start * kSector + at, chunk.data(), size)) return false;
    }
    fileSectors_ = start + h_.grainSize;
    *sector = static_cast<uint32_t>(start);
    return true;
  }

  // Points the grain's entry, in the primary table and in its redundant
  // copy, at `sector`.
  bool SetEntry(uint64_t grain, uint32_t sector) {
    const uint64_t t = grain / h_.gtesPerGt;
    const uint64_t entry = (grain % h_.gtesPerGt) * kGteBytes;
    uint8_t bytes[kGteBytes];
    StoreLe32(bytes, sector);
    if (!WriteExactly(file_, static_cast<uint64_t>(gd_[t]) * kSector + entry, bytes, kGteBytes)) return false;
    if (cachedTable_ == t) StoreLe32(table_.data() + entry, sector);
    if (h_.redundant && !WriteExactly(file_, static_cast<uint64_t>(rgd_[t]) * kSector + entry, bytes, kGteBytes)) {
      return false;
    }
    return true;
  }

  platform::File* file_;
  uint64_t fileSectors_;
  SparseHeader h_;
  std::string problem_;
  std::string twinProblem_;
  std::vector<uint32_t> gd_;
  std::vector<uint32_t> rgd_;
  uint64_t cachedTable_ = UINT64_MAX;
  std::vector<uint8_t> table_;
};

VmdkFile::~VmdkFile() = default;

ResultCode VmdkFile::Open(std::string_view descriptorText, const std::string& descriptorPath, bool embedded,
                          const FileOpener& opener, bool writable, std::unique_ptr<VmdkFile>* out) {
  std::vector<ExtentLine> lines;
  ResultCode rc = ParseExtentLines(descriptorText, &lines);
  if (rc != kSuccess) return rc;

  std::unique_ptr<VmdkFile> disk(new VmdkFile());
  disk->writable_ = writable;
  // Extents that share a file share its handle.
  std::map<std::string, size_t> byPath;
  std::map<std::string, int> uses;
  std::map<std::string, std::vector<std::pair<uint64_t, uint64_t>>> flatRuns;
  // A descriptor embedded in a sparse file describes that file: its sparse
  // extent is the file itself, whatever name the text gives (a copy of the
  // file keeps the name of the original).
  auto pathOf = [&](const ExtentLine& line) {
    return embedded && line.kind == ExtentKind::Sparse ? descriptorPath : ExtentPath(descriptorPath, line.fileName);
  };
  for (const ExtentLine& line : lines) {
    if (line.kind != ExtentKind::Zero) ++uses[pathOf(line)];
  }

  uint64_t sectors = 0;
  for (const ExtentLine& line : lines) {
    Extent extent;
    extent.line = line;
    if (__builtin_add_overflow(sectors, line.sectors, &sectors) || sectors > UINT64_MAX / kSector) {
      return kVmdkUnknownType;
    }
    extent.firstByte = (sectors - line.sectors) * kSector;
    extent.bytes = line.sectors * kSector;
    if (line.kind != ExtentKind::Zero) {
      const std::string path = pathOf(line);
      // A sparse extent is a whole file of its own, and the descriptor's
      // own file holds data only as the sparse extent it embeds.
      if (line.kind == ExtentKind::Sparse && uses[path] != 1) return kVmdkUnknownType;
      if (line.kind != ExtentKind::Sparse && path == descriptorPath) return kVmdkUnknownType;
      auto found = byPath.find(path);
      if (found == byPath.end()) {
        std::unique_ptr<platform::File> file = opener(path, writable);
        if (!file) return kVmdkOpenFailed;
        found = byPath.emplace(path, disk->files_.size()).first;
        disk->files_.push_back(std::move(file));
      }
      extent.file = disk->files_[found->second].get();
    }
    if (line.kind == ExtentKind::Flat) {
      uint64_t fileBytes = 0;
      if (!extent.file->Size(&fileBytes)) return kVmdkOpenFailed;
      if (!RunFits(line.offset, line.sectors, fileBytes / kSector)) return kVmdkUnknownType;
      // Two runs over the same sectors of a file would make one write show
      // at two places of the disk.
      std::vector<std::pair<uint64_t, uint64_t>>& runs = flatRuns[pathOf(line)];
      for (const auto& [first, end] : runs) {
        if (line.offset < end && first < line.offset + line.sectors) return kVmdkUnknownType;
      }
      runs.emplace_back(line.offset, line.offset + line.sectors);
    } else if (line.kind == ExtentKind::Sparse) {
      rc = SparseExtent::Open(extent.file, line.sectors, &extent.sparse);
      if (rc != kSuccess) return rc;
      if (disk->damage_.empty() && !extent.sparse->Problem().empty()) {
        disk->damage_ = pathOf(line) + ": " + extent.sparse->Problem();
      }
    }
    if (line.sectors != 0) disk->extents_.push_back(std::move(extent));
  }
  disk->capacityBytes_ = sectors * kSector;
  *out = std::move(disk);
  return kSuccess;
}

size_t VmdkFile::ExtentAt(uint64_t offset) const {
  auto after = std::upper_bound(extents_.begin(), extents_.end(), offset,
                                [](uint64_t at, const Extent& e) { return at < e.firstByte; });
  return static_cast<size_t>(after - extents_.begin()) - 1;
}

bool VmdkFile::ForEachPiece(uint64_t offset, uint32_t bytes,
                            const std::function<bool(Extent&, uint64_t, uint32_t, uint32_t)>& step) {
  uint32_t done = 0;
  while (done < bytes) {
    const uint64_t at = offset + done;
    Extent& extent = extents_[ExtentAt(at)];
    const uint64_t inExtent = at - extent.firstByte;
    const uint64_t room = extent.bytes - inExtent;
    const uint32_t count = room < bytes - done ? static_cast<uint32_t>(room) : bytes - done;
    if (count == 0 || !step(extent, inExtent, done, count)) return false;
    done += count;
  }
  return true;
}

bool VmdkFile::Seek(uint64_t offset) {
  position_ = offset;
  return true;
}

bool VmdkFile::Read(void* buffer, uint32_t bytes, uint32_t* done) {
  if (done != nullptr) *done = 0;
  if (position_ >= capacityBytes_) return true;  // the end, as on a file
  const uint64_t left = capacityBytes_ - position_;
  const uint32_t count = left < bytes ? static_cast<uint32_t>(left) : bytes;
  auto* out = static_cast<uint8_t*>(buffer);
  const bool ok = ForEachPiece(position_, count, [&](Extent& e, uint64_t inExtent, uint32_t at, uint32_t size) {
    if (e.line.access == ExtentAccess::NoAccess) return false;
    switch (e.line.kind) {
      case ExtentKind::Zero:
        std::memset(out + at, 0, size);
        return true;
      case ExtentKind::Flat:
        return ReadExactly(e.file, e.line.offset * kSector + inExtent, out + at, size);
      case ExtentKind::Sparse:
        return e.sparse->Read(inExtent, out + at, size);
    }
    return false;
  });
  if (!ok) return false;
  position_ += count;
  if (done != nullptr) *done = count;
  return true;
}

bool VmdkFile::NextData(uint64_t offset, uint64_t* start, uint64_t* end) {
  if (offset >= capacityBytes_) return false;
  for (size_t i = ExtentAt(offset); i < extents_.size(); ++i) {
    Extent& e = extents_[i];
    const uint64_t inExtent = offset > e.firstByte ? offset - e.firstByte : 0;
    if (e.bytes == 0 || inExtent >= e.bytes) continue;
    uint64_t dataStart = 0;
    uint64_t dataEnd = 0;
    bool found = false;
    if (e.line.access == ExtentAccess::NoAccess) {
      // Reads fail there; the caller must meet them.
      dataStart = inExtent;
      dataEnd = e.bytes;
      found = true;
    } else if (e.line.kind == ExtentKind::Flat) {
      // The extent's file answers in its own offsets, and only for an
      // extent that lies wholly inside it: reads past its end must fail.
      const uint64_t base = e.line.offset * kSector;
      uint64_t fileBytes = 0;
      uint64_t fileStart = 0;
      uint64_t fileEnd = 0;
      if (!e.file->Size(&fileBytes) || base > fileBytes || e.bytes > fileBytes - base) {
        dataStart = inExtent;
        dataEnd = e.bytes;
        found = true;
      } else if (e.file->NextData(base + inExtent, &fileStart, &fileEnd)) {
        const uint64_t from = std::max(fileStart, base + inExtent);
        if (from - base < e.bytes) {
          dataStart = from - base;
          dataEnd = fileEnd > from && fileEnd - base < e.bytes ? fileEnd - base : e.bytes;
          found = true;
        }
      }
    } else if (e.line.kind == ExtentKind::Sparse) {
      found = e.sparse->NextData(inExtent, e.bytes, &dataStart, &dataEnd);
    }
    if (found) {
      *start = e.firstByte + dataStart;
      *end = e.firstByte + dataEnd;
      return true;
    }
  }
  return false;
}

bool VmdkFile::Write(const void* buffer, uint32_t bytes, uint32_t* done) {
  if (done != nullptr) *done = 0;
  if (!writable_ || !damage_.empty()) return false;
  if (bytes == 0) return true;
  // A disk does not grow: a write past its end is refused whole.
  if (position_ >= capacityBytes_ || bytes > capacityBytes_ - position_) return false;
  const auto* data = static_cast<const uint8_t*>(buffer);
  // Everything the write needs is checked before any byte is written.
  const bool possible = ForEachPiece(position_, bytes, [&](Extent& e, uint64_t inExtent, uint32_t at, uint32_t size) {
    if (e.line.access != ExtentAccess::ReadWrite || e.line.kind == ExtentKind::Zero) return false;
    return e.line.kind == ExtentKind::Flat || e.sparse->CanWrite(inExtent, data + at, size);
  });
  if (!possible) return false;
  const bool ok = ForEachPiece(position_, bytes, [&](Extent& e, uint64_t inExtent, uint32_t at, uint32_t size) {
    if (e.line.kind == ExtentKind::Flat) return WriteExactly(e.file, e.line.offset * kSector + inExtent, data + at, size);
    return e.sparse->Write(inExtent, data + at, size);
  });
  if (!ok) return false;
  position_ += bytes;
  if (done != nullptr) *done = bytes;
  return true;
}

bool VmdkFile::Flush() {
  bool ok = true;
  for (auto& file : files_) ok = file->Flush() && ok;
  return ok;
}

bool VmdkFile::Size(uint64_t* bytes) {
  if (bytes != nullptr) *bytes = capacityBytes_;
  return true;
}

}  // namespace dh::vmdk
