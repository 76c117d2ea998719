// The GPT part of the disk listing: the details block of a GPT disk
// (revision, backup status, disk GUID), its column header, and one row per
// entry of a known type.  The listing prints the frame around them.
#pragma once

#include <string>
#include <vector>

namespace dh {

class DiskSet;
class FramedWriter;
class GptTable;
struct PartitionRecord;
struct GptEntryDetails;

// The details block, the separator, the column header and its underline of
// the current GPT disk.
void PrintGptDetails(DiskSet& disks, const GptTable& table, FramedWriter& out);
// One row per entry of the current GPT disk, in table order.
void PrintGptRows(const DiskSet& disks, const GptTable& table, FramedWriter& out);
// One entry row; `position` is the entry's 1-based place among the entries.
// `details` may be null (the row then shows no type, file system or flags).
void PrintGptRow(const DiskSet& disks, const PartitionRecord& record, const GptEntryDetails* details, int position,
                 FramedWriter& out);

// The warnings about a GPT that failed the reader's checks: one line per
// copy at fault, the primary's first, each "diskhold: warning: " and
// `diskName` ("disk 1", "virtual disk"), a colon, what is wrong and, for the
// primary, which entries are listed; each ends in a line break.  None for a
// GPT that passed every check.
std::vector<std::string> GptWarningLines(const GptTable& table, const std::string& diskName);

}  // namespace dh
