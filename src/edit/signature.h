// The two fields of sector 0 that belong to neither the boot code nor the
// partition table: the disk signature (bytes 440..443, the number Windows
// tells disks apart by) and the status byte (byte 434, a flag for scripts).
//
// Each operation reads sector 0 afresh, changes its field in that copy and
// writes the copy back through the MBR's one writer of sector 0, so a write
// touches only its own bytes of what is on the disk now.  A sector 0 that
// could not be read is never written: the copy would be zeros.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result_codes.h"

namespace dh {

class DiskSet;
namespace platform {
class Machine;
}

// Where the status byte lies in sector 0.
constexpr size_t kStatusByteOffset = 434;

// What SetDiskSignature writes: zeros, a fresh signature unique among the
// machine's disks, or the one the text gives.
enum class SignatureMode { Zero, Generate, Write };

// How many draws of four bytes a generated signature may take before the
// random source counts as broken: a working one repeats a value it must
// avoid with a chance of about one in 2^32 per disk.
constexpr int kSignatureDraws = 16;

// The four signature bytes in disk order (byte 440 first).
using SignatureBytes = std::array<uint8_t, 4>;

// The bytes a /Value text stands for: characters 2k and 2k+1 are one
// hexadecimal number, read up to their first non-hexadecimal character,
// whose low 8 bits go to byte 443 - k.  "AC67AC67" gives 67 AC 67 AC.  A
// pair without a leading hexadecimal digit (or beyond the text) gives 00.
SignatureBytes SignatureFromText(const std::string& text);

// Draws a signature from the random source of `machine` that is none of 0,
// the disk's current signature and the `taken` ones.  False when the source
// fails or kSignatureDraws draws found none.
bool DrawSignature(platform::Machine& machine, const SignatureBytes& current, const std::vector<SignatureBytes>& taken,
                   SignatureBytes* out);

// The signatures (sector 0 bytes 440..443) of every drive of `machine`,
// read with a disk set of its own, so the current one is not touched.  A
// drive whose sector 0 cannot be read gives 0.
std::vector<SignatureBytes> MachineSignatures(platform::Machine& machine);

// Stores a new disk signature in a fresh copy of sector 0; when that copy
// ends in 55 AA the disk model is first rebuilt from it (no second read).
// Mode 0 zeroes the signature, 1 generates one (from the random source,
// never 0, the disk's current one or another drive's), 2 stores `text` as
// SignatureFromText reads it; any other mode records 557.
// Writes only when sector 0 was read and no error is recorded: a sector 0
// without 55 AA records 510 and is not written (unless `ignore` keeps the
// 510 from being recorded).  A signature that cannot be generated records
// 557.  Returns the disk set's first error (0 under `ignore`).
ResultCode SetDiskSignature(DiskSet& disks, SignatureMode mode, const std::string& text);

// Stores the status byte in a fresh copy of sector 0 (the model rebuilt as
// above).  Unlike the signature it is written also when sector 0 lacks
// 55 AA (the result is then 510), but never when sector 0 could not be
// read.  Returns the disk set's first error.
ResultCode WriteStatusByte(DiskSet& disks, uint8_t value);

}  // namespace dh
