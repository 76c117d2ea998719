// The create= command: where the new partition goes, how large it is, and
// the entry that describes it.
#include "mbr/partition_create.h"

#include <cstring>
#include <memory>
#include <numeric>
#include <string>

#include "base/le.h"
#include "base/text.h"
#include "disk/disk_set.h"
#include "mbr/partition_edit.h"
#include "mbr/partition_sort.h"
#include "mbr/partition.h"
#include "platform/platform.h"

namespace dh {

namespace {

// Free space on a disk without partitions starts here.
constexpr uint64_t kFirstFreeSector = 64;
// Room behind the last partition counts only when it exceeds this.
constexpr uint64_t kMinTailSectors = 500;
constexpr uint8_t kDefaultType = 0x07;
// /align in units of 1024 bytes: 1 KiB to 512 MiB.
constexpr int64_t kMaxAlignUnits = 524288;
// The largest /size (in units of 1024 bytes) whose sector count still fits
// an entry.
constexpr int64_t kMaxSizeUnits = static_cast<int64_t>(kMaxMbrSectors / 2);

int32_t PrimaryCount(DiskSet& disks) {
  PartitionTable* table = MbrTable(disks);
  return table ? table->Count(kKindPrimary) : 0;
}

PartitionRecord* Primary(DiskSet& disks, int32_t n) {
  PartitionTable* table = MbrTable(disks);
  return table ? table->Get(n, kKindPrimary) : nullptr;
}

// Whether [start, start + size) shares a sector with a primary partition.
bool OverlapsPartition(DiskSet& disks, uint64_t start, uint64_t size) {
  int32_t count = PrimaryCount(disks);
  for (int32_t i = 1; i <= count; ++i) {
    PartitionRecord* p = Primary(disks, i);
    if (!p || p->sectorCount == 0) continue;
    if (start < p->startLba + p->sectorCount && p->startLba < start + size) return true;
  }
  return false;
}

void StoreChs(uint8_t* triple, uint32_t sector, uint32_t heads, uint32_t sectorsPerTrack) {
  // The arithmetic is 32-bit as in the entry; a cylinder above 255 keeps
  // only its low 8 bits and the sector byte carries no cylinder bits.
  uint32_t perCylinder = heads * sectorsPerTrack;
  if (heads == 0 || sectorsPerTrack == 0 || perCylinder == 0) {
    // No geometry, no CHS: the marker that tells every reader to use the
    // LBA fields.
    triple[0] = 0xFE;
    triple[1] = 0xFF;
    triple[2] = 0xFF;
    return;
  }
  uint32_t inCylinder = sector % perCylinder;
  triple[0] = static_cast<uint8_t>(inCylinder / sectorsPerTrack);
  triple[1] = static_cast<uint8_t>(inCylinder % sectorsPerTrack + 1);
  triple[2] = static_cast<uint8_t>(sector / perCylinder);
}

}  // namespace

// The last word before an entry is written: an MBR entry holds 32-bit
// numbers, so an area it cannot describe exactly, one beyond the end of the
// disk, or one over an existing partition is never written, whatever a
// damaged table or an unusual disk size made of the steps before.
bool AreaFits(DiskSet& disks, uint64_t start, uint64_t size) {
  if (size == 0 || size > kMaxMbrSectors || start > kMaxMbrSectors) return false;
  if (start > disks.disk().totalSectors() || size > disks.disk().totalSectors() - start) return false;
  return !OverlapsPartition(disks, start, size);
}

FreeArea FindFreeSpace(DiskSet& disks) {
  const uint64_t total = disks.disk().totalSectors();
  int32_t count = PrimaryCount(disks);
  if (count == 0) {
    if (total <= kFirstFreeSector) return {};
    return {kFirstFreeSector, total - kFirstFreeSector};
  }
  PartitionRecord* first = Primary(disks, 1);
  if (!first) return {};
  // Room before the first partition, up to two sectors short of it.
  if (first->startLba > kFirstFreeSector + 1) return {kFirstFreeSector, first->startLba - (kFirstFreeSector + 1)};

  // `end` is the sector right after everything seen so far: the largest
  // end, not just the previous one, so that a partition lying inside
  // another never makes the outer one's sectors look free.
  uint64_t end = first->startLba + first->sectorCount;
  for (int32_t i = 2; i <= count; ++i) {
    PartitionRecord* next = Primary(disks, i);
    if (!next) continue;
    // An area starts one sector after `end` and stops one sector before
    // the next partition: a gap of one or two sectors gives nothing.
    if (next->startLba > end && next->startLba - end >= 3) {
      uint64_t start = end + 1;
      return {start, next->startLba - 1 - start};
    }
    uint64_t nextEnd = next->startLba + next->sectorCount;
    if (nextEnd > end) end = nextEnd;
  }
  if (total > end + kMinTailSectors) return {end + 1, total - (end + 1)};
  return {};
}

bool IsSectorAssigned(DiskSet& disks, uint64_t sector) {
  if (sector > disks.disk().totalSectors()) return false;
  int32_t count = PrimaryCount(disks);
  for (int32_t i = 1; i <= count; ++i) {
    PartitionRecord* p = Primary(disks, i);
    // The sector right after a partition counts as assigned too.
    if (p && p->startLba <= sector && sector <= p->startLba + p->sectorCount) return true;
  }
  return false;
}

uint64_t MaxSizeFrom(DiskSet& disks, uint64_t start) {
  if (start >= disks.disk().totalSectors()) return 0;
  uint64_t limit = disks.disk().totalSectors() - start;
  int32_t count = PrimaryCount(disks);
  for (int32_t i = 1; i <= count; ++i) {
    PartitionRecord* p = Primary(disks, i);
    if (!p || p->startLba <= start) continue;
    // The room is the free run the listing shows from `start`: up to the
    // first sector of the partition that follows.
    uint64_t room = p->startLba - start;
    if (room < limit) limit = room;
  }
  return limit;
}

bool AlignStart(uint64_t start, uint64_t alignBytes, uint64_t* aligned) {
  if (alignBytes == 0) {
    *aligned = start;
    return true;
  }
  // s * 512 is a multiple of alignBytes exactly when s is a multiple of
  // alignBytes / gcd(alignBytes, 512).
  uint64_t unit = alignBytes / std::gcd(alignBytes, static_cast<uint64_t>(kSectorSize));
  uint64_t remainder = start % unit;
  if (remainder == 0) {
    *aligned = start;
    return true;
  }
  uint64_t step = unit - remainder;
  if (start > UINT64_MAX - step) return false;
  *aligned = start + step;
  return true;
}

void BuildNewEntry(uint8_t entry[16], uint32_t start, uint32_t size, uint8_t type, uint32_t heads,
                   uint32_t sectorsPerTrack) {
  std::memset(entry, 0, mbr::kEntrySize);
  entry[mbr::kEntryBoot] = 0x00;
  StoreChs(entry + mbr::kEntryStartHead, start, heads, sectorsPerTrack);
  entry[mbr::kEntryType] = type;
  // The end CHS names the first sector after the partition.
  StoreChs(entry + mbr::kEntryEndHead, start + size, heads, sectorsPerTrack);
  StoreLe32(entry + mbr::kEntryFirstSector, start);
  StoreLe32(entry + mbr::kEntrySectorCount, size);
}

ResultCode CreatePartition(DiskSet& disks, uint64_t start, uint64_t size, uint8_t type) {
  PartitionTable* table = MbrTable(disks);
  if (!disks.disk().bootSignatureValid() && !disks.ignoreErrors) return kCreateNoMbr;
  if (!table) return kCreateNoMbr;
  // The volume boot record of a superfloppy has no entries to add to.
  if (disks.disk().superFloppy() != 0) return kRemovableNoMbr;
  // A refusal, not a failure of the disk: it is reported even under
  // `ignore`, since nothing was written.
  if (!AreaFits(disks, start, size)) return kSizeUnavailable;

  bool used[mbr::kSlotCount] = {};
  int32_t count = PrimaryCount(disks);
  for (int32_t i = 1; i <= count; ++i) {
    PartitionRecord* p = Primary(disks, i);
    if (p && p->slot >= 0 && p->slot < static_cast<int32_t>(mbr::kSlotCount)) used[p->slot] = true;
  }
  int32_t slot = -1;
  for (size_t s = 0; s < mbr::kSlotCount && slot < 0; ++s) {
    if (!used[s]) slot = static_cast<int32_t>(s);
  }
  if (slot < 0) {
    disks.RecordError(kFourPartitionLimit);
    return disks.firstError;
  }

  auto record = std::make_unique<PartitionRecord>();
  BuildNewEntry(record->rawEntry, static_cast<uint32_t>(start), static_cast<uint32_t>(size), type, disks.disk().heads(),
                disks.disk().sectorsPerTrack());
  DecodeEntry(*record, type, false);
  record->isPrimary = 1;
  record->slot = slot;
  record->primaryNumber = slot + 1;
  record->driveLetter = ' ';
  table->records.push_back(std::move(record));
  ++table->primaryCount;

  WritePartitionTable(disks, false);
  return disks.firstError;
}

ResultCode CreateFromRequest(DiskSet& disks, const CreateRequest& request) {
  if (PrimaryCount(disks) >= static_cast<int32_t>(mbr::kSlotCount)) return kTableFull;
  if (!IsSorted(*MbrTable(disks))) return kMustBeSorted;

  // Start.  An explicit start has no size yet; a free area brings its own.
  uint64_t start = 0;
  uint64_t size = 0;
  bool fromFreeSpace = false;
  const bool haveStart = request.haveStart;
  const std::string& startText = request.start;
  if (haveStart && StartsWithDigit(startText)) {
    start = static_cast<uint64_t>(ReadDecimal64(startText));
    // Sector 0 holds the partition table itself, and a start an entry
    // cannot hold is as unavailable as an assigned one.
    if (start == 0 || IsSectorAssigned(disks, start) || start > kMaxMbrSectors) return kStartAssigned;
  } else if (!haveStart || EqualsIgnoreCase(startText, "freespace")) {
    FreeArea area = FindFreeSpace(disks);
    if (area.size == 0 || area.start > kMaxMbrSectors) return kNoFreeSpace;
    start = area.start;
    size = area.size;
    fromFreeSpace = true;
  } else {
    // Neither a sector nor "freespace": there is no start to use.
    return kStartAssigned;
  }

  // Alignment.  The aligned start must still be a free sector: inside the
  // free area that was found, or, for an explicit start, not assigned.
  if (request.haveAlign) {
    const std::string& alignText = request.align;
    if (!StartsWithDigit(alignText)) return kInvalidAlign;
    int64_t units = ReadDecimal64(alignText);
    if (units < 1 || units > kMaxAlignUnits || (units & (units - 1)) != 0) return kInvalidAlign;
    uint64_t aligned = 0;
    bool ok = AlignStart(start, static_cast<uint64_t>(units) * 1024, &aligned);
    if (fromFreeSpace) {
      if (!ok || aligned - start >= size || aligned > kMaxMbrSectors) return kNoFreeSpace;
      size -= aligned - start;
    } else if (!ok || aligned > kMaxMbrSectors || IsSectorAssigned(disks, aligned)) {
      return kStartAssigned;
    }
    start = aligned;
  }

  // Size.
  const bool haveSize = request.haveSize;
  const std::string& sizeText = request.size;
  if (haveSize && StartsWithDigit(sizeText)) {
    int64_t units = ReadDecimal64(sizeText);
    // A partition of no sectors is no partition.
    if (units == 0) return kInvalidSize;
    if (units > kMaxSizeUnits) return kSizeUnavailable;
    size = static_cast<uint64_t>(units) * 2;
    if (IsSectorAssigned(disks, start + size)) return kSizeUnavailable;
    // Testing the end sector alone would let a large size jump over a
    // whole partition or run off the disk; every sector is checked.
    if (start + size > disks.disk().totalSectors()) return kSizeUnavailable;
    for (int32_t i = 1; i <= PrimaryCount(disks); ++i) {
      PartitionRecord* p = Primary(disks, i);
      if (p && p->startLba > start && p->startLba <= start + size) return kSizeUnavailable;
    }
  } else if (haveSize && !EqualsIgnoreCase(sizeText, "max")) {
    return kInvalidSize;
  } else if (haveSize || size == 0) {
    size = MaxSizeFrom(disks, start);
    if (size == 0) return kInvalidSize;
  }
  // The largest partition an entry can describe.
  if (size > kMaxMbrSectors) size = kMaxMbrSectors;

  // Type: decimal here.  0 would make the entry an empty slot and an entry
  // holds one byte, so anything outside 1..255 is refused.
  uint8_t type = kDefaultType;
  if (request.haveType) {
    const std::string& typeText = request.type;
    int32_t value = ReadDecimal(typeText);
    if (!StartsWithDigit(typeText) || value < 1 || value > 255) return kInvalidParameter;
    type = static_cast<uint8_t>(value);
  }

  ResultCode result = CreatePartition(disks, start, size, type);
  if (result == kSuccess) {
    // The system re-reads the layout so that the new partition shows up;
    // the table is already on disk, so the answer does not matter.  A
    // virtual disk has no system view to refresh.
    DeviceHandle* drive = disks.PhysicalDevice();
    if (platform::File* file = drive ? drive->file() : nullptr) file->UpdateProperties();
  }
  return result;
}

}  // namespace dh
