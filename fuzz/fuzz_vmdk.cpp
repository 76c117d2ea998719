// One command on a VMware disk, judged on the sectors the disk shows.
#include "fuzz_vmdk.h"

namespace dh::fuzz {

void CheckVirtualDiskRun(const std::shared_ptr<MemMachine>& host, const std::string& path,
                         const std::vector<std::string>& extents, bool byPath, const VirtualDiskRow& row) {
  platform::sim::MachineDescription description;
  description.hasCodePage = true;
  std::vector<std::string> args = row.args;
  if (byPath) {
    // A plain drive beside the file, so that the machine has a disk 0.
    host->Put("/fz/plain.img", MemFile(nullptr, 0, 64 * kSector));
    description.drives.push_back(Drive(0, "/fz/plain.img"));
    args.push_back("/disk=" + path);
  } else {
    description.drives.push_back(Drive(0, path));
    args.push_back("/disk=0");
  }
  for (auto& [name, file] : host->files) file->writes = 0;
  host->created = 0;
  const Bytes before = ReadVirtualDisk(*host, path, kVirtualSectorsChecked);
  // A file that is no VMware disk is a raw image: the run may write it
  // as it would the disk, in the same places.
  const MemFile raw = host->Get(path);
  RunProgram(host, description, args);
  const std::string what = Describe(args);
  std::vector<std::string> writable = row.allowed.list.empty() ? std::vector<std::string>() : extents;
  if (before.empty() && !writable.empty()) writable.push_back(path);
  RequireNoWrites(*host, writable, what);
  if (before.empty()) {
    RequireOnlyChanged(raw, host->Get(path), row.allowed, what + " (on a raw image)");
    return;
  }
  const Bytes after = ReadVirtualDisk(*host, path, kVirtualSectorsChecked);
  Require(!after.empty(), what + ": the disk no longer opens");
  RequireOnlyChanged(before, after, row.allowed, what);
}

}  // namespace dh::fuzz
