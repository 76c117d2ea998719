// The backup-file reader and the restores: the input is a selector byte and
// then the file "b.dhb".  Its header is read and decoded and its first
// data sector loaded as a table image, as show=File does; then the restore
// the selector picks writes it to a 16 MiB MBR disk under the plan the
// command would hold it to, and may change only that area (a GPT restore,
// which plans its own writes, nothing inside a partition).  The file is
// never written.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/sink.h"
#include "disk/backup_file.h"
#include "disk/write_plan.h"
#include "fuzz_images.h"
#include "fuzz_support.h"
#include "gpt/gpt_table.h"
#include "sectors/save_restore.h"

namespace {

using dh::fuzz::Ranges;

const char kFile[] = "b.dhb";

struct Row {
  uint64_t target;
  int64_t count;  // -1: what the file holds; 0: a GPT restore
  bool requireMbr;
};

const Row kRows[] = {
    {0, 1, true}, {0, 1, false}, {0, 63, false}, {2048, 3, false}, {10240, 7, false}, {5, 1, false}, {0, -1, false},
    {0, 0, false},
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  dh::fuzz::InitFuzzing(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 96 * dh::fuzz::kSector) return -1;
  static dh::fuzz::DirectDisk disk;
  static const dh::fuzz::MemFile image = dh::fuzz::MbrDisk();
  static const Ranges partitions = dh::fuzz::PartitionSectors(image);
  dh::DiskSet& d = disk.Load(image);
  disk.host->Put(kFile, dh::fuzz::MemFile(data + 1, size - 1, size - 1));

  const Row& row = kRows[data[0] % (sizeof kRows / sizeof kRows[0])];
  dh::StringSink out;
  if (row.count == 0) {
    dh::RestoreGptImage(d, kFile);
    dh::fuzz::RequireOnlyChanged(image, disk.Image(), partitions, "restore=gpt");
  } else {
    dh::WritePlan plan;
    plan.Allow(row.target, row.count > 0 ? static_cast<uint64_t>(row.count) : d.SectorsOnDisk(row.target, UINT64_MAX));
    const dh::WriteScope scope(d, plan);
    dh::RestoreFromFile(d, kFile, row.target, row.count, row.requireMbr, out);
    const uint64_t sectors = row.count > 0 ? static_cast<uint64_t>(row.count) : 32768 - row.target;
    dh::fuzz::RequireOnlyChanged(image, disk.Image(), Ranges().Sectors(row.target, sectors), "a restore");
  }
  dh::fuzz::RequireNoWrites(*disk.host, {dh::fuzz::DirectDisk::kPath}, "a restore");

  // The reading of show=File: the header, then the first data sector as
  // the disk's sector-0 image with its entries as the partition model.
  uint8_t header[dh::backup::kHeaderSize];
  const uint8_t kind = dh::ReadBackupKind(*disk.host, kFile, header);
  if (kind != dh::kBackupRaw) dh::DecodeBackupHeader(header);
  dh::GetFileSizeByName(*disk.host, kFile);
  uint8_t sector0[512] = {};
  dh::DeviceHandle file;
  if (file.OpenRead(*disk.host, kFile)) dh::ReadFull(file, kind != dh::kBackupRaw ? 512 : 0, sector0, 512);
  d.SetSector0(sector0);
  d.KeepToImage();
  d.LoadImageTable();
  dh::Partitions(d, dh::kKindAll);
  return 0;
}
