// Disk names from the registry and drive letters from the mount manager,
// against an in-memory machine.
#include "disk/identify.h"

#include <gtest/gtest.h>

#include <tuple>
#include <string>
#include <vector>

#include "disk/disk_set.h"
#include "fake_machine.h"

namespace dh {
namespace {

const char kDiskEnum[] = "SYSTEM\\CurrentControlSet\\Services\\Disk\\Enum";
const char kEnum[] = "SYSTEM\\CurrentControlSet\\Enum\\";

std::vector<uint8_t> Utf16(const std::string& text) {
  std::vector<uint8_t> out;
  for (char c : text) out.insert(out.end(), {static_cast<uint8_t>(c), 0});
  return out;
}

std::vector<uint8_t> SignatureRecord(uint32_t signature, uint64_t byteOffset) {
  std::vector<uint8_t> out;
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(signature >> (8 * i)));
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(byteOffset >> (8 * i)));
  return out;
}

class IdentifyTest : public test::FakeDiskTest {
 protected:
  // A set without drives whose current disk 0 has the signature 12345678.
  IdentifyTest() {
    Load();
    disks->currentDisk = 0;
    const uint8_t signature[4] = {0x78, 0x56, 0x34, 0x12};
    disks->SetSavedSignature(signature);
  }

  void SetString(const std::string& key, const std::string& value, const std::string& text) {
    machine.registryStrings[key + "\n" + value] = text;
  }
  // Disk `index` is listed with `instance`, whose key holds the given values.
  void AddDisk(int index, const std::string& instance, const std::string& friendlyName = "",
               const std::string& deviceDesc = "", const std::string& parentPrefix = "") {
    SetString(kDiskEnum, std::to_string(index), instance);
    if (!friendlyName.empty()) SetString(kEnum + instance, "FriendlyName", friendlyName);
    if (!deviceDesc.empty()) SetString(kEnum + instance, "DeviceDesc", deviceDesc);
    if (!parentPrefix.empty()) SetString(kEnum + instance, "ParentIDPrefix", parentPrefix);
  }
  // A mounted volume: drive root, volume GUID and its MountedDevices record.
  void AddVolume(char letter, const std::string& guid, const std::vector<uint8_t>& record) {
    std::string root = std::string(1, letter) + ":\\";
    machine.logicalDrives.push_back(root);
    machine.volumeNames[root] = "\\\\?\\Volume{" + guid + "}\\";
    machine.registryBinary["SYSTEM\\MountedDevices\n\\??\\Volume{" + guid + "}"] = record;
  }
  std::string Description(int index) { return GetDiskDescription(*disks, index); }
};

// Each row: a disk's instance path and the FriendlyName and DeviceDesc of its
// key, the bus and description shown; and whether a mounted volume's record
// names a partition of that disk at sector 2048 (signature 12345678): by its
// signature record, its device path, or its parent prefix for removable media.
// The bus is the first component of the instance path; the description drops
// the bus suffix (ignoring case, right-most) and reduces the first run of
// blanks only; texts end at their first NUL.
TEST_F(IdentifyTest, BusDescriptionAndDriveLetter) {
  const struct {
    const char* instance;
    std::string friendlyName, deviceDesc, bus, description, prefix;
    std::vector<uint8_t> record;
    bool found;
  } cases[] = {
      {"IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0", "", "", "IDE", "IDE", "", SignatureRecord(0x12345678, 2048 * 512),
       true},
      {"USBSTOR\\Disk&Ven_SanDisk\\1", "SanDisk Cruzer USB Device", "", "USB", "SanDisk Cruzer", "",
       Utf16("\\??\\USBSTOR#Disk&Ven_SanDisk#1#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}"), true},
      {"USBSTOR\\Disk&Ven_Generic\\2", "", "", "USB", "USB", "7&2a3b&0",
       Utf16("\\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d}"), true},
      {"STORAGE\\RemovableMedia\\7&2a3b&0&RM", "", "", "STORAGE", "STORAGE", "",  // no prefix, no match
       Utf16("\\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d}"), false},
      {"SCSI", "", "", "SCSI", "SCSI", "", SignatureRecord(0x0BADF00D, 2048 * 512), false},  // another disk
      {"scsi\\Disk\\4", "A SCSI Disk Device B SCSI Disk Device", "", "scsi", "A SCSI Disk Device B", "",
       SignatureRecord(0x12345678, 63 * 512), false},                                          // another partition
      {"IDE\\Disk\\5", "", "Disk drive", "IDE", "Disk drive", "", {0x78, 0x56, 0x34}, false},  // short record
      {"SD\\Disk\\6", "Card  Reader  Two  USB Device", "", "SD", "Card Reader  Two  USB Device", "", Utf16("\\?"),
       false},
      {"PCI\\Disk\\7", std::string("Model\0junk", 10), "", "PCI", "Model", "", {'\\', 0, '?', 0, '?'}, false},
      {"PCI\\Disk\\8", std::string(5000, 'x'), "", "PCI", std::string(kRegistryTextSize - 1, 'x'), "",
       SignatureRecord(0x12345678, (1ull << 32) + 2048 * 512), false},  // offsets compared in full
  };
  for (int i = 0; i < static_cast<int>(std::size(cases)); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.instance);
    machine.registryStrings.clear();
    machine.registryBinary.clear();
    machine.logicalDrives = {"A:\\"};  // a root without a volume name comes first
    machine.volumeNames.clear();
    AddDisk(i, c.instance, c.friendlyName, c.deviceDesc, c.prefix);
    AddVolume('G', "g-guid", c.record);
    disks->currentDisk = i;
    EXPECT_EQ(GetDiskBus(*disks, i), c.bus);
    EXPECT_EQ(Description(i), c.description);
    DriveLetterMatch found;
    EXPECT_EQ(FindDriveLetter(*disks, 2048, &found), c.found);
    EXPECT_EQ(found.volumeName, c.found ? "\\\\?\\Volume{g-guid}\\" : "");
  }
  EXPECT_EQ(GetDiskBus(*disks, -1), "");
  EXPECT_EQ(Description(99), "");  // not the last disk's
}

}  // namespace
}  // namespace dh
