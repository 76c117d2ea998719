// The GPT part of the disk listing: the details block of a GPT disk
// (revision, backup status, disk GUID), its column header, and one row per
// entry of a known type.  The listing prints the frame around them.
#pragma once

#include <string>

namespace dh {

class DiskSet;
class FramedWriter;
class TableDriver;
struct PartitionRecord;
struct EntryDetails;
struct TableHeaderFacts;

// The details block, the separator, the column header and its underline of
// the current GPT disk.
void PrintGptDetails(DiskSet& disks, const TableHeaderFacts& facts, FramedWriter& out);
// One row per entry of the current GPT disk, in table order.
void PrintGptRows(const DiskSet& disks, TableDriver& table, FramedWriter& out);
// One entry row; `position` is the entry's 1-based place among the entries.
// `details` may be null (the row then shows no type, file system or flags).
void PrintGptRow(const DiskSet& disks, const PartitionRecord& record, const EntryDetails* details, int position,
                 FramedWriter& out);


}  // namespace dh
