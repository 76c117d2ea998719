// The framed disk and partition listing of `list` and `tablist`, and the
// partition row that the backup-file display shares with it.
#pragma once

#include <cstdint>
#include <string>

#include "base/result_codes.h"

namespace dh {

class DiskSet;
class FramedWriter;
class Sink;
struct PartitionRecord;

// Row forms of PrintPartitionRow.
constexpr int kRowFramed = 0;      // a row of the framed listing
constexpr int kRowBackupFile = 1;  // the unframed row of a backup file's display

// What the listing shows.
struct ListRequest {
  // The disk to list: a disk index, -1 for all disks, 999 for the virtual
  // disk file `diskFileName`.
  int32_t diskNumber = 0;
  // False when no disk was named: every disk is listed.
  bool diskExplicit = false;
  std::string diskFileName;
  bool showFreeSpace = false;
  bool showLogical = false;
  // The character map after the listing, for this console code page.
  bool asciiMap = false;
  uint32_t codePage = 437;
  // Where the warnings about a damaged GPT go; standard error when null.
  Sink* warnings = nullptr;
};

// The list/tablist operation: one framed block per disk (every disk, or the
// one selected), then the character map when asked for.  A disk that fails
// to load is listed all the same; the first such code is returned.  After
// the block of a disk whose table found problems in itself (a GPT that
// failed a check) come its warning lines, one per problem the table's
// Verify names, on `request.warnings`: once per listed disk, never for a
// disk that is only loaded.
ResultCode ListDisks(DiskSet& disks, const ListRequest& request, FramedWriter& out);

// The details block and the column header of the current MBR disk.
void PrintMbrDiskDetails(DiskSet& disks, FramedWriter& out);

// The media type, interface and description lines of the current disk,
// shared by the MBR and GPT detail blocks.
void PrintMediaAndDescription(DiskSet& disks, FramedWriter& out);

// One partition row; `position` is the row's place in the disk's list
// (logical rows at 10 and beyond use a narrower number column).  A framed
// row shows the drive letter column `letter`; the backup-file form has
// none.
void PrintPartitionRow(const PartitionRecord& record, int position, int form, const std::string& letter,
                       FramedWriter& out);

// The code-page character map printed after a listing with `asciimap`.
void PrintCharacterMap(uint32_t codePage, FramedWriter& out);

}  // namespace dh
