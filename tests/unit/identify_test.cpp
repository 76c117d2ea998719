// Disk names from the registry and drive letters from the mount manager,
// against an in-memory machine.
#include "disk/identify.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <string>
#include <vector>

#include "disk/disk_set.h"
#include "fake_machine.h"
#include "vdisk/vmdk.h"

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
    for (int i = 0; i < 4; ++i) disks->savedSignature[i] = static_cast<uint8_t>(0x12345678 >> (8 * i));
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
  // The letter found for a partition at `lba`, or 0.
  char Letter(uint64_t lba) {
    DriveLetterMatch found;
    return FindDriveLetter(*disks, lba, &found) ? found.letter : 0;
  }
};

TEST_F(IdentifyTest, BusAndDescription) {
  // The bus is the first component of the instance path; the description
  // drops the bus suffix (ignoring case, right-most) and reduces the first
  // run of blanks only; texts end at their first NUL.
  const std::tuple<const char*, std::string, const char*, const char*, const char*> cases[] = {
      {"IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0", "", "", "IDE", "IDE"},  // no name: the bus stands
      {"USBSTOR\\Disk&Ven_SanDisk\\1", "SanDisk Cruzer USB Device", "", "USB", "SanDisk Cruzer"},
      {"SCSI", "", "", "SCSI", "SCSI"},
      {"scsi\\Disk\\4", "A SCSI Disk Device B SCSI Disk Device", "", "scsi", "A SCSI Disk Device B"},
      {"IDE\\Disk\\5", "", "Disk drive", "IDE", "Disk drive"},
      {"SD\\Disk\\6", "Card  Reader  Two  USB Device", "", "SD", "Card Reader  Two  USB Device"},
      {"PCI\\Disk\\7", std::string("Model\0junk", 10), "", "PCI", "Model"},
  };
  const int n = static_cast<int>(std::size(cases));
  for (int i = 0; i < n; ++i) AddDisk(i, std::get<0>(cases[i]), std::get<1>(cases[i]), std::get<2>(cases[i]));
  AddDisk(n, "PCI\\Disk\\8", std::string(5000, 'x'));
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(GetDiskBus(*disks, i), std::get<3>(cases[i])) << i;
    EXPECT_EQ(Description(i), std::get<4>(cases[i])) << i;
  }
  EXPECT_EQ(Description(n), std::string(kRegistryTextSize - 1, 'x'));
  EXPECT_EQ(GetDiskBus(*disks, -1), "");
  EXPECT_EQ(Description(n + 1), "");  // not the last disk's
  // A virtual disk's texts come from the virtual disk.
  disks->isVirtual = true;
  disks->virtualDisk = std::make_unique<VmdkDisk>();
  disks->virtualDisk->interfaceText = "lsilogic";
  disks->virtualDisk->descriptionText = "VMware  Virtual  disk";
  EXPECT_EQ(GetDiskBus(*disks, 0), "lsilogic");
  EXPECT_EQ(Description(0), "VMware Virtual  disk");
}

// Disk 0 (signature 12345678) finds a letter by its signature record's
// offset, disk 1 by the device path, disk 2 (removable) by its parent
// prefix; malformed records and roots without a volume are passed over.
TEST_F(IdentifyTest, DriveLetters) {
  AddDisk(0, "IDE\\Disk\\1");
  AddDisk(1, "USBSTOR\\Disk&Ven_Kingston\\0013729B", "Kingston USB Device");
  AddDisk(2, "USBSTOR\\Disk&Ven_Generic\\1", "", "", "7&2a3b&0");
  AddDisk(3, "STORAGE\\RemovableMedia\\7&2a3b&0&RM");
  machine.logicalDrives.push_back("A:\\");  // no volume name
  AddVolume('B', "b-guid", {0x78, 0x56, 0x34});
  AddVolume('C', "c-guid", {'\\', 0, '?', 0, '?'});
  AddVolume('D', "d-guid", Utf16("\\?"));
  machine.logicalDrives.push_back("E:\\");  // a volume without a record
  machine.volumeNames["E:\\"] = "\\\\?\\Volume{e-guid}\\";
  AddVolume('F', "f-guid", SignatureRecord(0x0BADF00D, 2048ull * 512));  // another disk
  AddVolume('G', "g-guid", SignatureRecord(0x12345678, 2048ull * 512));
  AddVolume('H', "h-guid", SignatureRecord(0x12345678, 0x123456789ull * 512));  // beyond 32 bits of bytes
  AddVolume('K', "k-guid", Utf16("\\??\\USBSTOR#Disk&Ven_Kingston#0013729B#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}"));
  AddVolume('R', "r-guid", Utf16("\\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d}"));
  const std::tuple<int, uint64_t, char> cases[] = {{0, 2048, 'G'}, {0, 0x123456789ull, 'H'}, {0, 63, 0},
                                                   {1, 4096, 'K'}, {1, 999999, 'K'},          {2, 0, 'R'},
                                                   {3, 0, 0}};
  for (const auto& [disk, lba, letter] : cases) {
    disks->currentDisk = disk;
    EXPECT_EQ(Letter(lba), letter) << disk << " " << lba;
  }
  disks->currentDisk = 0;
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks, 2048, &found));
  EXPECT_EQ(found.volumeName, "\\\\?\\Volume{g-guid}\\");
  // Long volume names are cut to the result.
  AddVolume('L', std::string(80, 'a'), SignatureRecord(0x12345678, 512));
  ASSERT_TRUE(FindDriveLetter(*disks, 1, &found));
  EXPECT_EQ(found.volumeName.size(), kVolumeNameLength);
}

}  // namespace
}  // namespace dh
