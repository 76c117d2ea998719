// What the two VMware disk targets share: the commands run on a virtual
// disk and the check of what they changed, judged on the disk's sectors as
// the program's own reader gives them (a sparse extent may legitimately
// move its grains around in the file).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace dh::fuzz {

// Sectors of the virtual disk compared before and after a run.
constexpr uint64_t kVirtualSectorsChecked = 4096;

struct VirtualDiskRow {
  std::vector<std::string> args;
  Ranges allowed;  // bytes of the virtual disk
};

inline const std::vector<VirtualDiskRow>& VirtualDiskRows() {
  static const std::vector<VirtualDiskRow> rows = {
      {{"/list", "/logical", "/freespace"}, Ranges()},
      {{"/info"}, Ranges()},
      {{"/partcount"}, Ranges()},
      {{"/hide", "/part=1", "/confirm"}, Ranges().Add(446, 510)},
      {{"/active", "/part=1", "/confirm"}, Ranges().Add(446, 510)},
      {{"/status=9", "/confirm"}, Ranges().Add(434, 435)},
      {{"/wipe=mbr", "/confirm"}, Ranges().Sectors(0, 1)},
      {{"/copy", "/source=0", "/target=9", "/confirm"}, Ranges().Sectors(9, 1)},
      {{"/wipe=range", "/range=100-140", "/confirm"}, Ranges().Sectors(100, 41)},
  };
  return rows;
}

// Runs `row` on the virtual disk `path` of `host` (by "/disk=<path>" when
// `byPath`, else as drive 0 of the machine) and checks that no file but
// `extents` was written and that the disk changed only where the row
// allows.  A disk that opened before the run must open after it.
void CheckVirtualDiskRun(const std::shared_ptr<MemMachine>& host, const std::string& path,
                         const std::vector<std::string>& extents, bool byPath, const VirtualDiskRow& row);

}  // namespace dh::fuzz
