// A partition table of the current disk, MBR or GPT, as the commands see it:
// counting and looking up partitions, deleting them, and which partitions
// may carry drive letters.  The
// drivers live with their formats (mbr/, gpt/); the disk set owns the one of
// the loaded disk and never needs to know which it is.
#pragma once

#include <cstdint>
#include <vector>

#include "base/result_codes.h"
#include "disk/partition_record.h"
#include "disk/write_plan.h"

namespace dh {

class DiskSet;

class TableDriver {
 public:
  virtual ~TableDriver() = default;

  // PartitionCount and GetPartition of the disk: the n-th partition of a
  // kind, 1-based.  A GPT has one kind: its entries.
  virtual int32_t Count(int32_t kind) const = 0;
  virtual PartitionRecord* Get(int32_t n, int32_t kind) = 0;
  // The records Get(1..Count(kind), kind) returns, in one pass.
  virtual std::vector<PartitionRecord*> Records(int32_t kind) = 0;

  // The partitions `del` addresses by number: the primary entries of an
  // MBR, the entries of a GPT.
  virtual int32_t DeletableCount() const = 0;
  // Deletes the n-th of them (1 <= n <= DeletableCount()), or all, and
  // writes the table back.  Returns the table's code for this write (the
  // disk layer's codes are in the disk set's first error).
  virtual ResultCode Delete(int32_t n) = 0;
  virtual ResultCode DeleteAll() = 0;
  // Whether the disk set rebuilds the model from its sector-0 image after
  // a delete (the MBR model is made from it; a GPT keeps its own records).
  virtual bool RebuildsFromSector0() const = 0;

  // The sectors of every partition the table knows of, whether or not it
  // lists them (extended areas with their EBRs, GPT entries of unknown
  // types): what a write to the table's own areas must never touch.
  virtual std::vector<SectorRange> OccupiedSectors() = 0;

  // Whether the system may have given the partition a drive letter: the
  // types of the file systems it mounts.
  virtual bool MayHaveDriveLetter(const PartitionRecord& record) const = 0;
};

}  // namespace dh
