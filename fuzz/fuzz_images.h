// Disks the fuzz targets stand their fuzzed parts on: built in memory, small
// where they are stored (the simulated disks are sparse), and laid out the
// way the partitioning tools lay them out.
#pragma once

#include <cstdint>
#include <string>

#include "fuzz_support.h"

namespace dh::fuzz {

// 16 MiB: a bootable NTFS primary at 2048, a FAT32 primary, an extended
// partition with two logical FAT16 partitions, and their boot sectors.
MemFile MbrDisk();
// 1 MiB GPT disk of sgdisk's making: EFI system and basic data entries,
// primary and backup tables with their CRCs.
MemFile GptDisk();
// A removable 1 MiB stick without partition table: a FAT16 boot sector at 0.
MemFile SuperFloppy();
// A hosted sparse extent ("KDMV") of `capacity` sectors and grains of
// `grainSize` sectors, with the descriptor embedded (monolithicSparse) when
// `descriptor` is not empty; `sector0` becomes the disk's first sector.
Bytes SparseExtent(uint64_t capacity, uint64_t grainSize, const std::string& descriptor, const Bytes& sector0);
// The descriptor of a monolithicSparse or monolithicFlat disk of
// `capacity` sectors on the extent file `extent`.
std::string Descriptor(const std::string& createType, uint64_t capacity, const std::string& extentLine);

// Sector 0 of a disk with one NTFS primary at 2048 and a signature.
Bytes SimpleMbr(uint32_t sectors);

// Parses the partitions an image's tables name, for checks that must not
// trust the program's own reading: every MBR entry but empty and protective
// ones, and the entries of the primary and backup GPT arrays (when the
// headers say "EFI PART"), all as sector ranges clipped to the disk.
Ranges PartitionSectors(const MemFile& image);

}  // namespace dh::fuzz
