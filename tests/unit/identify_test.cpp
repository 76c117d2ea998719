// Disk names from the registry and drive letters from the mount manager,
// against an in-memory machine.
#include "disk/identify.h"

#include <gtest/gtest.h>

#include <memory>
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
  // The bus is the first component of the instance path (the whole path
  // without a backslash); the description drops the bus suffix, matched
  // ignoring case and right-most, and reduces the first run of blanks only.
  struct Case {
    const char* instance;
    std::string friendlyName;
    const char* deviceDesc;
    const char* bus;
    const char* description;
  };
  const Case cases[] = {
      {"IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0", "", "", "IDE", "IDE"},  // no name: the bus stands
      {"USBSTOR\\Disk&Ven_X\\1", "", "", "USB", "USB"},
      {"USBSTOR\\Disk&Ven_SanDisk\\1", "SanDisk Cruzer USB Device", "", "USB", "SanDisk Cruzer"},
      {"SCSI", "", "", "SCSI", "SCSI"},
      {"IDE\\DiskWDC\\2", "WDC  WD5000AAKS ATA Device", "", "IDE", "WDC WD5000AAKS"},
      {"SCSI\\Disk&Ven_VMware\\3", "VMware Virtual disk", "", "SCSI", "VMware Virtual disk"},
      {"scsi\\Disk\\4", "A SCSI Disk Device B SCSI Disk Device", "", "scsi", "A SCSI Disk Device B"},
      {"IDE\\Disk\\5", "", "Disk drive", "IDE", "Disk drive"},  // DeviceDesc without FriendlyName
      {"SD\\Disk\\6", "Card  Reader  Two  USB Device", "", "SD", "Card Reader  Two  USB Device"},
      // Texts end at their first NUL and are cut to their buffer.
      {"PCI\\Disk\\7", std::string("Model\0junk", 10), "", "PCI", "Model"},
  };
  const int n = static_cast<int>(std::size(cases));
  for (int i = 0; i < n; ++i) AddDisk(i, cases[i].instance, cases[i].friendlyName, cases[i].deviceDesc);
  AddDisk(n, "PCI\\Disk\\8", std::string(5000, 'x'));
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(GetDiskBus(*disks, i), cases[i].bus) << i;
    EXPECT_EQ(Description(i), cases[i].description) << i;
  }
  EXPECT_EQ(Description(n), std::string(kRegistryTextSize - 1, 'x'));
  // Unknown disks have nothing, and the buffer is not left with the last one.
  EXPECT_EQ(GetDiskBus(*disks, n + 1), "");
  EXPECT_EQ(GetDiskBus(*disks, -1), "");
  EXPECT_EQ(disks->diskDescription, "");
  EXPECT_EQ(Description(n + 1), "");
}

TEST_F(IdentifyTest, VirtualDiskTextsComeFromTheVirtualDisk) {
  AddDisk(0, "IDE\\Disk\\1", "Physical ATA Device");
  disks->isVirtual = true;
  EXPECT_EQ(GetDiskBus(*disks, 0), "");
  EXPECT_EQ(Description(0), "");
  disks->virtualDisk = std::make_unique<VmdkDisk>();
  disks->virtualDisk->interfaceText = "lsilogic";
  disks->virtualDisk->descriptionText = "VMware  Virtual  disk";
  EXPECT_EQ(GetDiskBus(*disks, 0), "lsilogic");
  EXPECT_EQ(Description(0), "VMware Virtual  disk");
}

TEST_F(IdentifyTest, PartitionsOfAnMbrDiskFindTheirLettersByOffset) {
  AddVolume('C', "c-guid", SignatureRecord(0x12345678, 2048ull * 512));
  AddVolume('D', "d-guid", SignatureRecord(0x12345678, 411648ull * 512));
  AddVolume('E', "e-guid", SignatureRecord(0x0BADF00D, 2048ull * 512));  // another disk
  // Offsets beyond 32 bits of bytes are compared in full.
  AddVolume('F', "f-guid", SignatureRecord(0x12345678, 0x123456789ull * 512));
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks, 2048, &found));
  EXPECT_EQ(found.letter, 'C');
  EXPECT_EQ(found.volumeName, "\\\\?\\Volume{c-guid}\\");
  EXPECT_EQ(Letter(411648), 'D');
  EXPECT_EQ(Letter(0x123456789ull), 'F');

  DriveLetterMatch none;
  none.letter = 'Z';
  EXPECT_FALSE(FindDriveLetter(*disks, 63, &none));
  EXPECT_EQ(none.letter, 'Z');
  EXPECT_EQ(none.volumeName, "");
}

TEST_F(IdentifyTest, DevicePathAndRemovableMediaRecordsNameAWholeDisk) {
  AddDisk(0, "USBSTOR\\Disk&Ven_Kingston\\0013729B", "Kingston USB Device");
  AddVolume('G', "g-guid", Utf16("\\??\\USBSTOR#Disk&Ven_Kingston#0013729B#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}"));
  AddVolume('H', "h-guid", Utf16("\\??\\USBSTOR#Disk&Ven_Kingston#0013729B#{other}"));
  // Any partition of the disk gets the first root that names the disk.
  EXPECT_EQ(Letter(2048), 'G');
  EXPECT_EQ(Letter(999999), 'G');
  // Another disk's instance path does not match.
  disks->currentDisk = 1;
  AddDisk(1, "USBSTOR\\Disk&Ven_Kingston\\0013729C");
  EXPECT_EQ(Letter(2048), 0);

  // Removable media match by the disk's parent prefix; no prefix, no match.
  AddDisk(2, "USBSTOR\\Disk&Ven_Generic\\1", "", "", "7&2a3b&0");
  AddVolume('R', "r-guid", Utf16("\\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d}"));
  disks->currentDisk = 2;
  EXPECT_EQ(Letter(0), 'R');
  AddDisk(3, "STORAGE\\RemovableMedia\\7&2a3b&0&RM");
  disks->currentDisk = 3;
  EXPECT_EQ(Letter(0), 0);
}

TEST_F(IdentifyTest, MalformedRecordsAndFailingRootsAreSkipped) {
  AddDisk(0, "IDE\\Disk\\1");
  // A root without a volume name, a record shorter than a signature record,
  // a record of odd length, and a record too short for the "\??\" prefix.
  machine.logicalDrives.push_back("A:\\");
  AddVolume('B', "b-guid", {0x78, 0x56, 0x34});
  AddVolume('C', "c-guid", {'\\', 0, '?', 0, '?'});
  AddVolume('D', "d-guid", Utf16("\\?"));
  // A volume whose record is missing, and a name too short to hold a GUID.
  machine.logicalDrives.insert(machine.logicalDrives.end(), {"E:\\", "F:\\"});
  machine.volumeNames["E:\\"] = "\\\\?\\Volume{e-guid}\\";
  machine.volumeNames["F:\\"] = "\\\\";
  AddVolume('G', "g-guid", SignatureRecord(0x12345678, 4096ull * 512));
  EXPECT_EQ(Letter(4096), 'G');

  // Long volume names are cut to the result.
  AddVolume('K', std::string(80, 'a'), SignatureRecord(0x12345678, 512));
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks, 1, &found));
  EXPECT_EQ(found.letter, 'K');
  EXPECT_EQ(found.volumeName.size(), kVolumeNameLength);
  EXPECT_EQ(found.volumeName.substr(0, 11), "\\\\?\\Volume{");
}

}  // namespace
}  // namespace dh
