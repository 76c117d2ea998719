// The GPT of the current disk, offered as records like the MBR partitions.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "app/result_codes.h"
#include "mbr/partition.h"

namespace dh {

class DiskSet;

class GptTable {
 public:
  // Number of entries of known types, and the n-th of them (1-based).
  int32_t EntryCount() const { return static_cast<int32_t>(entries.size()); }
  PartitionRecord* Entry(int32_t n) {
    if (n < 1 || n > EntryCount()) return nullptr;
    return entries[static_cast<size_t>(n - 1)].get();
  }

  std::vector<std::unique_ptr<PartitionRecord>> entries;
  ResultCode firstError = kSuccess;
};

// Builds the GPT of the current disk of `disks`.
std::unique_ptr<GptTable> LoadGpt(DiskSet& disks);

}  // namespace dh
