// Disk signature and status byte: read-modify-write of single fields of
// sector 0, and the drawing of a signature no drive of the machine has.
#include "edit/signature.h"

#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "disk/disk_set.h"
#include "disk/mbr_layout.h"
#include "mbr/partition.h"
#include "platform/platform.h"

namespace dh {

namespace {

SignatureBytes SignatureOf(const uint8_t* sector) {
  SignatureBytes bytes;
  std::memcpy(bytes.data(), sector + mbr::kDiskSignatureOffset, bytes.size());
  return bytes;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = LowerAscii(c);
  if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
  return -1;
}

// Reads sector 0 into the zeroed image and rebuilds the model from it when
// it ends in 55 AA, else records 510.  False when the read failed: the
// image then holds zeros, not the disk's bytes.
bool ReloadImage(DiskSet& disks) {
  uint8_t image[kSectorSize] = {};
  const ResultCode read = ReadSector(disks, 0, image);
  disks.SetSector0(image);
  if (read != kSuccess) return false;
  if (mbr::HasBootSignature(disks.disk().sector0())) {
    disks.LoadDisk(false);
  } else {
    disks.RecordError(kNoMbrHere);
  }
  return true;
}

// The image as it stands goes to sector 0; the model keeps the signature
// the disk now has.
void WriteImage(DiskSet& disks) {
  if (WriteSector0Image(disks) == kSuccess && disks.disk().bootSignatureValid()) {
    disks.SetSavedSignature(disks.disk().sector0() + mbr::kDiskSignatureOffset);
  }
}

}  // namespace

SignatureBytes SignatureFromText(const std::string& text) {
  SignatureBytes bytes{};
  for (size_t k = 0; k < bytes.size(); ++k) {
    unsigned value = 0;
    for (size_t i = 2 * k; i < 2 * k + 2 && i < text.size(); ++i) {
      const int digit = HexValue(text[i]);
      if (digit < 0) break;
      value = value * 16 + static_cast<unsigned>(digit);
    }
    // The first pair is the most significant byte of the little-endian value.
    bytes[bytes.size() - 1 - k] = static_cast<uint8_t>(value);
  }
  return bytes;
}

bool DrawSignature(platform::Machine& machine, const SignatureBytes& current, const std::vector<SignatureBytes>& taken,
                   SignatureBytes* out) {
  static constexpr SignatureBytes kZero{};
  for (int draw = 0; draw < kSignatureDraws; ++draw) {
    SignatureBytes candidate{};
    if (!machine.RandomBytes(candidate.data(), candidate.size())) return false;
    if (candidate == kZero || candidate == current) continue;
    if (std::find(taken.begin(), taken.end(), candidate) != taken.end()) continue;
    *out = candidate;
    return true;
  }
  return false;
}

std::vector<SignatureBytes> MachineSignatures(platform::Machine& machine) {
  // Without table drivers a disk set reads each drive's sector 0 and builds
  // nothing from it: no tables, extended chains or volumes are read.  Its
  // failures are its own; `ignore` keeps even those from being kept.
  DiskSet scan(machine, DiskDrivers{}, true);
  std::vector<SignatureBytes> signatures;
  for (int32_t d = 0; d < scan.diskCount; ++d) {
    scan.SelectDisk(d);
    signatures.push_back(SignatureOf(scan.disk().sector0()));
  }
  return signatures;
}

ResultCode SetDiskSignature(DiskSet& disks, SignatureMode mode, const std::string& text) {
  const bool read = ReloadImage(disks);
  if (!read || disks.firstError != kSuccess) return disks.firstError;

  SignatureBytes signature{};
  if (mode == SignatureMode::Generate) {
    platform::Machine& machine = disks.machine();
    if (!DrawSignature(machine, SignatureOf(disks.disk().sector0()), MachineSignatures(machine), &signature)) {
      disks.RecordError(kInvalidSignatureMode);
      return disks.firstError;
    }
  } else if (mode == SignatureMode::Write) {
    signature = SignatureFromText(text);
  }
  disks.PatchSector0(mbr::kDiskSignatureOffset, signature.data(), signature.size());
  WriteImage(disks);
  return disks.firstError;
}

ResultCode WriteStatusByte(DiskSet& disks, uint8_t value) {
  // A 510 still writes: the byte is the script's, whatever the rest holds.
  if (!ReloadImage(disks)) return disks.firstError;
  disks.PatchSector0(kStatusByteOffset, &value, 1);
  WriteImage(disks);
  return disks.firstError;
}

}  // namespace dh
