// The framed disk and partition listing of `list` and `tablist`, and the
// partition row that the backup-file display shares with it.
#pragma once

#include <cstdint>

namespace dh {

class DiskSet;
struct PartitionRecord;

// Row forms of PrintPartitionRow.
constexpr int kRowFramed = 0;      // a row of the framed listing
constexpr int kRowBackupFile = 1;  // the unframed row of a backup file's display

// The list/tablist operation: one framed block per disk (every disk, or the
// one selected), then the character map when asked for.  A disk that fails
// to load makes its code the run's result (first error wins) and is listed
// all the same.
void ListDisks(DiskSet& disks);

// The details block and the column header of the current MBR disk.
void PrintMbrDiskDetails(DiskSet& disks);

// The media type, interface and description lines of the current disk,
// shared by the MBR and GPT detail blocks.
void PrintMediaAndDescription(DiskSet& disks);

// One partition row; `position` is the row's place in the disk's list
// (logical rows at 10 and beyond use a narrower number column).  A framed
// row printed while ListDisks lists a virtual disk shows "NA" for its drive
// letter; the backup-file form has no drive letter column.
void PrintPartitionRow(const PartitionRecord& record, int position, int form);

// The details block and entry rows of the current GPT disk, printed between
// the header line and the closing lines of its block.
void PrintGptDiskDetailsAndRows(DiskSet& disks);

}  // namespace dh
