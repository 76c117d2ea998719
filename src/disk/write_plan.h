// Which sectors of the current disk a command may write.  Every command
// that writes declares its plan first (the area it names, held to the disk
// and clear of what it must not touch); the disk set's device refuses every
// write outside the plan in force, and every write at all while none is.  A
// damaged or hostile structure can therefore only make a command refuse,
// never widen what it writes.
#pragma once

#include <cstdint>
#include <vector>

#include "base/sector_range.h"

namespace dh {

class DiskSet;

class WritePlan {
 public:
  // Adds [first, first + count); sectors beyond 64 bits are dropped.
  void Allow(uint64_t first, uint64_t count);
  // Takes [first, first + count) out again.
  void Forbid(uint64_t first, uint64_t count);
  // Whether every sector of [first, first + count) may be written.
  bool Permits(uint64_t first, uint64_t count) const;
  bool Empty() const { return ranges_.empty(); }
  const std::vector<SectorRange>& ranges() const { return ranges_; }

 private:
  // Sorted, disjoint, none empty.
  std::vector<SectorRange> ranges_;
};

// The sectors that belong to partitions the current disk knows of: every
// entry of its MBR (the protective entry of a GPT disk aside) and every
// entry of its GPT array, of known types or not.
std::vector<SectorRange> KnownPartitionSectors(DiskSet& disks);

// Puts a copy of a plan in force on the disk set for the life of the scope;
// the plan in force before comes back at its end.
class WriteScope {
 public:
  WriteScope(DiskSet& disks, WritePlan plan);
  ~WriteScope();
  WriteScope(const WriteScope&) = delete;
  WriteScope& operator=(const WriteScope&) = delete;

 private:
  DiskSet& disks_;
  WritePlan plan_;
  const WritePlan* previous_;
};

}  // namespace dh
