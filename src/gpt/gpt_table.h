// The GPT of the current disk, offered as records like the MBR partitions:
// reading it, removing entries and writing the array back with consistent
// checksums and backup, restoring a saved GPT area, and the sizes of the
// GPT area for save and wipe.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/result_codes.h"
#include "disk/partition_record.h"
#include "disk/table_driver.h"
#include "gpt/gpt_format.h"

namespace dh {

class DiskSet;


class GptTable : public TableDriver {
 public:
  explicit GptTable(DiskSet* owner) : owner_(owner) {}

  // Number of entries of known types, and the n-th of them (1-based).
  int32_t EntryCount() const { return static_cast<int32_t>(entries.size()); }
  PartitionRecord* Entry(int32_t n) {
    if (n < 1 || n > EntryCount()) return nullptr;
    return entries[static_cast<size_t>(n - 1)].get();
  }
  // The GPT facts of the n-th entry; null when there are none.
  const EntryDetails* Details(int32_t n) const override {
    if (n < 1 || n > static_cast<int32_t>(details.size())) return nullptr;
    return &details[static_cast<size_t>(n - 1)];
  }

  // The table driver: one kind of partition, the entries.
  int32_t Count(int32_t) const override { return EntryCount(); }
  PartitionRecord* Get(int32_t n, int32_t) override { return Entry(n); }
  std::vector<PartitionRecord*> Records(int32_t kind) override;
  bool HeaderFacts(TableHeaderFacts* facts) const override;
  // Entries are deleted; flags, types, names, new entries and their order
  // are not edited here, nor are volumes formatted by number (131).
  ResultCode Refusal(Edit edit) const override { return edit == Edit::Delete ? kSuccess : kNotGptDisk; }
  ResultCode SetHidden(int32_t, bool) override { return kNotGptDisk; }
  ResultCode SetActive(int32_t, bool) override { return kNotGptDisk; }
  ResultCode SetType(int32_t, int32_t) override { return kNotGptDisk; }
  ResultCode SetName(int32_t, const std::string&) override { return kNotGptDisk; }
  ResultCode Add(const CreateRequest&) override { return kNotGptDisk; }
  int32_t DeletableCount() const override { return EntryCount(); }
  ResultCode Delete(int32_t n) override;
  ResultCode DeleteAll() override;
  ResultCode CheckOrder(bool*) override { return kNotGptDisk; }
  ResultCode Reorder() override { return kNotGptDisk; }
  // One text per copy at fault, the primary's first, saying what is wrong
  // and, for the primary, which entries are listed.
  std::vector<std::string> Verify() const override;
  // From sector 0 through the primary array for a save; for a wipe, up to
  // the first partition of either array.  200 unless the primary header
  // passed its checks.
  ResultCode OwnArea(TableArea* area) const override;
  // A GPT record's type is its detected file system.
  uint32_t BootRecordSectors(const PartitionRecord& record) const override;
  std::vector<SectorRange> OccupiedSectors() override;
  // The drive-letter rule of the MBR types, applied to the detected file
  // system number that a GPT record holds as its type.
  bool MayHaveDriveLetter(const PartitionRecord& record) const override;
  // "Virtual" on a virtual disk, "Valid" or "Invalid" by the backup header.
  const char* BackupStatusText() const;

  // The table's first error; later errors do not replace it.
  void RecordError(ResultCode code) {
    if (code != kSuccess && firstError == kSuccess) firstError = code;
  }

  // The entries of known types in array order, and their GPT facts
  // (details[i] belongs to entries[i]).
  std::vector<std::unique_ptr<PartitionRecord>> entries;
  std::vector<EntryDetails> details;
  ResultCode firstError = kSuccess;

  uint8_t primaryHeader[512] = {};
  uint8_t backupHeader[512] = {};
  // The primary header was read and passed ValidateGptHeader; `header`
  // holds its facts.  Nothing is read or written through a header without it.
  bool headerValid = false;
  GptHeaderFacts header;
  // The entry array's CRC checks out (a bad header CRC shows in
  // primaryFault).  A table whose header or array fails its CRC is listed
  // but never rewritten.
  bool arrayCrcValid = false;
  // What is wrong with the primary GPT and with the backup GPT (kNone when
  // the copy passed every check).
  GptFault primaryFault = GptFault::kNone;
  GptFault backupFault = GptFault::kNone;
  // The backup header and its array passed every check: signature, fields,
  // CRCs, and MyLBA/AlternateLBA agreeing with where the headers lie.
  bool backupValid = false;
  // Where the backup header was looked for (0: nowhere), its facts and the
  // whole sectors of its array (kept only when the backup is valid).
  uint64_t backupLba = 0;
  GptHeaderFacts backupFacts;
  std::vector<uint8_t> backupArray;
  // The entries come from the backup GPT, because the primary failed a
  // check and the backup passed them all.  Such a table is never rewritten.
  bool fromBackup = false;
  bool isVirtual = false;
  // The whole sectors of the primary entry array as read, entries of every
  // type included, and which of its slots have been removed since.
  bool arrayLoaded = false;
  std::vector<uint8_t> entryArray;
  std::vector<uint8_t> slotRemoved;

  // The header whose revision and disk GUID describe the listed entries:
  // the backup's when the entries come from it, else the primary's; null
  // when no header passed the field checks.
  const uint8_t* ShownHeader() const {
    if (fromBackup) return backupHeader;
    return headerValid ? primaryHeader : nullptr;
  }

  DiskSet* owner() const { return owner_; }

 private:
  DiskSet* owner_;
};

// Builds the GPT of the current disk of `disks` (its device, isVirtual and
// totalSectors); the disk set's loader.  Both copies are checked: the
// primary header at LBA 1 and its array, the backup header where a sound
// primary header puts it (else at the disk's last sector) and its array.
// The entries come from the primary when it passes, else from the backup
// when that passes, else from the primary array as it stands, when it
// could be read.  Always yields a table; failures are in its firstError:
// 200 for a primary header that is unreadable or fails the field checks,
// 201 for a backup that fails any check, 203 for an unreadable primary
// entry array.
std::unique_ptr<TableDriver> LoadGptTable(DiskSet& disks);
// The GPT table of the current disk; null on a disk without one.  For the
// GPT's own code: everything else asks the disk set's driver.
GptTable* GptOf(DiskSet& disks);
const GptTable* GptOf(const DiskSet& disks);

// Writes the entry array of `disks.gpt` back: the array as read with the
// removed entries taken out and the rest closed up in their order, the
// array and header CRCs of the primary header, and the backup array and
// header.  Returns this write's code (0, or 200/202/203), which is also
// recorded in the table.
ResultCode WriteGptEntries(DiskSet& disks);

// Removes the n-th entry (1-based, among the entries of known types) and
// writes the GPT back; returns 0 or the GPT code.
ResultCode RemoveGptEntry(DiskSet& disks, int32_t n);
// Removes every entry of a known type and writes the GPT back.  Entries of
// unknown types stay.  With nothing to remove nothing is written.
ResultCode ClearGptEntries(DiskSet& disks);

// The restore=gpt operation: writes the GPT area saved in a Diskhold Backup
// File of kind 3 at the disk's sector 0 (exactly the area its saved header
// describes, checked against its CRCs), and the backup GPT at the disk's
// end to match.  The disk must be a GPT disk, or one whose sector 0 holds no
// partition table while the file holds a protective MBR (131 otherwise).
// Returns 0 or 200, 202, 203, 204, 205, 560.  The table in memory is not
// refreshed.
ResultCode RestoreGptImage(DiskSet& disks, const std::string& file);

// Whether the current disk is a GPT disk whose primary header passed the
// checks; the two sizes below mean something only then.
bool GptHeaderValid(const DiskSet& disks);
// Sectors of the GPT area that save=gpt copies from sector 0: the
// protective MBR, the header and the sectors holding the entries, N/4 + 2
// for a count N that is a multiple of 4.  0 without a valid header.
uint64_t GptSaveSectorCount(const DiskSet& disks);
// The last sector wipe=gpt clears (from sector 0): the first usable LBA − 1,
// held below the first sector of any entry in the array and inside the
// disk.  LBAs of the disk, as the header counts them.  0 without a valid
// header.
uint64_t GptWipeLastSector(DiskSet& disks);

}  // namespace dh
