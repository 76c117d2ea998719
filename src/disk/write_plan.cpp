#include "disk/write_plan.h"

#include <algorithm>
#include <cstring>

#include "base/le.h"
#include "disk/disk_set.h"

namespace dh {

void WritePlan::Allow(uint64_t first, uint64_t count) {
  if (count == 0) return;
  if (first > UINT64_MAX - count) count = UINT64_MAX - first;
  if (count == 0) return;
  SectorRange added{first, count};
  std::vector<SectorRange> merged;
  for (const SectorRange& r : ranges_) {
    if (r.end() < added.first || added.end() < r.first) {
      merged.push_back(r);
    } else {
      const uint64_t begin = std::min(r.first, added.first);
      const uint64_t end = std::max(r.end(), added.end());
      added = {begin, end - begin};
    }
  }
  merged.push_back(added);
  std::sort(merged.begin(), merged.end(), [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
  ranges_ = std::move(merged);
}

void WritePlan::Forbid(uint64_t first, uint64_t count) {
  if (count == 0) return;
  if (first > UINT64_MAX - count) count = UINT64_MAX - first;
  const uint64_t end = first + count;
  std::vector<SectorRange> kept;
  for (const SectorRange& r : ranges_) {
    if (r.end() <= first || end <= r.first) {
      kept.push_back(r);
      continue;
    }
    if (r.first < first) kept.push_back({r.first, first - r.first});
    if (end < r.end()) kept.push_back({end, r.end() - end});
  }
  ranges_ = std::move(kept);
}

bool WritePlan::Permits(uint64_t first, uint64_t count) const {
  if (count == 0) return true;
  if (first > UINT64_MAX - count) return false;
  for (const SectorRange& r : ranges_) {
    if (r.first <= first && first + count <= r.end()) return true;
  }
  return false;
}

std::vector<SectorRange> KnownPartitionSectors(DiskSet& disks) {
  std::vector<SectorRange> out;
  // The MBR entries of sector 0: a protective entry covers the whole disk
  // and stands for the GPT, whose own entries count instead.
  if (mbr::HasBootSignature(disks.disk().sector0())) {
    for (size_t slot = 0; slot < mbr::kSlotCount; ++slot) {
      const uint8_t* e = disks.disk().sector0() + mbr::kEntryOffset + mbr::kEntrySize * slot;
      const uint8_t type = e[mbr::kEntryType];
      if (type == 0 || type == mbr::kGptProtectiveType) continue;
      const uint32_t count = LoadLe32(e + mbr::kEntrySectorCount);
      if (count != 0) out.push_back({LoadLe32(e + mbr::kEntryFirstSector), count});
    }
  }
  // Every partition the table knows of (logical partitions, GPT entries).
  if (TableDriver* table = disks.Table()) {
    for (const SectorRange& r : table->OccupiedSectors()) out.push_back(r);
  }
  return out;
}

WriteScope::WriteScope(DiskSet& disks, WritePlan plan)
    : disks_(disks), plan_(std::move(plan)), previous_(disks.writePlan()) {
  disks_.SetWritePlan(&plan_);
}

WriteScope::~WriteScope() { disks_.SetWritePlan(previous_); }

}  // namespace dh
