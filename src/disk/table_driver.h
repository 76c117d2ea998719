// A partition table of the current disk, MBR or GPT, as the commands see it:
// the one place per format for a table's work.  Looking partitions up,
// editing their flags, types and names, adding, deleting and reordering
// entries, checking the table, and the sectors of its own areas and of its
// partitions.  The drivers live with their formats (mbr/, gpt/); the disk
// set owns the one of the loaded disk, and no command asks which it is.
//
// Edits write the table back through the disk set's device, inside the
// write plan in force, and answer with the command's code: a refusal (an
// operation the format has no place for, a number that names nothing) is
// returned without being recorded and writes nothing; a failure of the
// disk is the disk set's first error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result_codes.h"
#include "disk/partition_record.h"
#include "disk/write_plan.h"

namespace dh {

// Every partition an edit of flags addresses (part=*).
constexpr int32_t kEveryPartition = -1;

// A new partition as the command line asks for it: "/start", "/align",
// "/size" and "/type" as typed; an absent argument has `have...` false.
struct CreateRequest {
  bool haveStart = false;
  std::string start;
  bool haveAlign = false;
  std::string align;
  bool haveSize = false;
  std::string size;
  bool haveType = false;
  std::string type;
};

// What an entry of a table with per-entry attributes carries besides its
// PartitionRecord (a GPT entry of a known type).
struct EntryDetails {
  int32_t typeNumber = 0;  // the row of the format's type table
  std::string typeGuidText;
  std::string shortTypeName;
  std::string longTypeName;
  std::string fileSystemName;  // "NTFS", "FAT32"...; empty when none found
  bool required = false;
  bool readOnly = false;
  bool attributeHidden = false;
};

// What a table with a header of its own (a GPT) shows of it in listings.
struct TableHeaderFacts {
  std::string revision;      // "1.0"
  std::string backupStatus;  // "Valid", "Invalid"...
  std::string diskGuid;      // the disk GUID as text
};

// The sectors save= and wipe= of the table's own area cover: from sector 0
// through `saveSectors` - 1 for a save, through `wipeLast` for a wipe.
struct TableArea {
  uint64_t saveSectors = 0;
  uint64_t wipeLast = 0;
};

class TableDriver {
 public:
  virtual ~TableDriver() = default;

  // ---- the partitions -----------------------------------------------------
  // The n-th partition of a kind, 1-based.  A GPT has one kind: its entries.
  virtual int32_t Count(int32_t kind) const = 0;
  virtual PartitionRecord* Get(int32_t n, int32_t kind) = 0;
  // The records Get(1..Count(kind), kind) returns, in one pass.
  virtual std::vector<PartitionRecord*> Records(int32_t kind) = 0;
  // The attributes of the n-th entry (1-based); null for a table whose
  // entries carry none, or an entry without them.
  virtual const EntryDetails* Details(int32_t) const { return nullptr; }
  // The facts of the table's own header; false for a table without one.
  virtual bool HeaderFacts(TableHeaderFacts*) const { return false; }

  // ---- edits --------------------------------------------------------------
  // Why the table takes no edit of this kind, or 0: what a command that
  // asks a question first (the boot menu) or wraps the edit (delete) needs
  // to know before it starts.  The edits below refuse the same way.
  // Entries: flags, types, names, new entries and their order; Volume: a
  // partition's volume formatted, named by its number among the primaries.
  enum class Edit { Entries, Delete, Volume };
  virtual ResultCode Refusal(Edit edit) const = 0;
  // Flags of the n-th partition the edits number (1-based), or of every
  // one (kEveryPartition).
  virtual ResultCode SetHidden(int32_t n, bool hide) = 0;
  virtual ResultCode SetActive(int32_t n, bool active) = 0;
  // The type of the n-th partition, given as the type byte; a negative
  // value (a type the command line could not read) is refused with 117
  // once the table takes the edit at all.
  virtual ResultCode SetType(int32_t n, int32_t type) = 0;
  virtual ResultCode SetName(int32_t n, const std::string& name) = 0;
  // A new partition where the request puts it, with the format's rules for
  // free areas, alignment and sizes.
  virtual ResultCode Add(const CreateRequest& request) = 0;
  // The partitions `del` addresses by number: the primary entries of an
  // MBR, the entries of a GPT.
  virtual int32_t DeletableCount() const = 0;
  // Deletes the n-th of them (1 <= n <= DeletableCount()), or all.  The
  // disk set rebuilds its model afterwards when the driver asked for it
  // (DiskSet::ReloadAfterEdit).
  virtual ResultCode Delete(int32_t n) = 0;
  virtual ResultCode DeleteAll() = 0;
  // Whether the entries stand in the order of their start sectors, and the
  // rewrite that puts them so (125 when they already do).
  virtual ResultCode CheckOrder(bool* ordered) = 0;
  virtual ResultCode Reorder() = 0;

  // ---- checks and areas ---------------------------------------------------
  // What is wrong with the table as read, one text per problem, naming the
  // structure at fault; none for a sound table.
  virtual std::vector<std::string> Verify() const = 0;
  // The table's own area for save= and wipe=; the format's refusal when it
  // has none to offer (131 on an MBR disk, 200 for a GPT that failed its
  // checks).
  virtual ResultCode OwnArea(TableArea* area) const = 0;
  // The sectors of the volume boot record that save= and restore= of a
  // partition's boot record cover; 0 for a file system without one.
  virtual uint32_t BootRecordSectors(const PartitionRecord& record) const = 0;
  // The sectors of every partition the table knows of, whether or not it
  // lists them (extended areas with their EBRs, GPT entries of unknown
  // types): what a write to the table's own areas must never touch.
  virtual std::vector<SectorRange> OccupiedSectors() = 0;

  // Whether the system may have given the partition a drive letter: the
  // types of the file systems it mounts.
  virtual bool MayHaveDriveLetter(const PartitionRecord& record) const = 0;
};

}  // namespace dh
