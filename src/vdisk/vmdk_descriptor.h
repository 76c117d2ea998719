// The VMware disk descriptor: the key searches over one 2048-byte block that
// name the disk type, size, geometry, adapter and data file, and the extent
// lines that say where each run of the virtual disk's sectors is kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/result_codes.h"

namespace dh::vmdk {

// Descriptors are read in blocks of this size; every key of the disk must
// lie in the block that holds the descriptor's first line.
constexpr size_t kBlockSize = 2048;
// A quoted value must close within this many characters.
constexpr size_t kMaxValueLength = 50;

constexpr char kSparseMagic[] = "KDMV";
constexpr size_t kSparseMagicSize = 4;
constexpr char kDescriptorSignature[] = "# Disk DescriptorFile";
constexpr size_t kDescriptorSignatureSize = 21;
// Where a sparse extent header keeps its overhead (metadata sectors).
constexpr size_t kHeaderOverheadOffset = 64;

// The number after the first occurrence of `key` in the block (the one
// character after the key, a value's opening quotation mark, is skipped);
// later occurrences are tried while the number is negative.  -1 when the key
// does not occur.  Zero bytes in the block do not stop the search.
int64_t FindKeyNumber(const uint8_t* block, size_t size, std::string_view key);
// The text after `key` up to its closing quotation mark, which must lie
// among the 50 characters after the value's first one.  False when no
// occurrence of the key has such a value.
bool FindQuotedValue(const uint8_t* block, size_t size, std::string_view key, std::string* out);
// Whether the text occurs anywhere in the block.
bool BlockContains(const uint8_t* block, size_t size, std::string_view text);

// The disk types by createType; 0 is none of them.
constexpr int32_t kTypeUnknown = 0;
constexpr int32_t kTypeMonolithicFlat = 1;
constexpr int32_t kTypeTwoGbFlat = 2;
constexpr int32_t kTypeMonolithicSparse = 3;
constexpr int32_t kTypeTwoGbSparse = 4;

// The row a createType value selects: the value is compared over its own
// length, so the beginning of a type name selects that type.
int32_t DiskTypeOf(const std::string& createType);
const char* DescriptionOfType(int32_t diskType);
// "SCSI", "IDE" or "UNKNOWN" for a ddb.adapterType value.
const char* AdapterTextOf(const std::string& adapterType);

// The sizes of every "RW" of the block added up.  False when the sum is
// negative or does not fit a byte count.
bool SumReadWriteSectors(const uint8_t* block, size_t size, uint64_t* sectors);

// The folder part of the descriptor's path (up to and including its last
// '\' or '/') followed by an extent's file name.
std::string ExtentPath(const std::string& descriptorPath, const std::string& fileName);

// One extent line: access, size in sectors, kind, file and offset.
enum class ExtentAccess { ReadWrite, ReadOnly, NoAccess };
enum class ExtentKind { Flat, Sparse, Zero };

struct ExtentLine {
  ExtentAccess access = ExtentAccess::ReadWrite;
  uint64_t sectors = 0;
  ExtentKind kind = ExtentKind::Flat;
  std::string fileName;  // empty for ZERO extents
  uint64_t offset = 0;   // FLAT: the first sector used in the file
};

// Every extent line of a descriptor text, in order.  304 when a line is
// malformed or of a kind that cannot be read (VMFS kinds), or when there is
// no extent at all.
ResultCode ParseExtentLines(std::string_view text, std::vector<ExtentLine>* out);

}  // namespace dh::vmdk
