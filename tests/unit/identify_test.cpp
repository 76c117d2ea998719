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
const char kMounted[] = "SYSTEM\\MountedDevices";

std::vector<uint8_t> Utf16(const std::string& text) {
  std::vector<uint8_t> out;
  for (char c : text) {
    out.push_back(static_cast<uint8_t>(c));
    out.push_back(0);
  }
  return out;
}

std::vector<uint8_t> SignatureRecord(uint32_t signature, uint64_t byteOffset) {
  std::vector<uint8_t> out;
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(signature >> (8 * i)));
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(byteOffset >> (8 * i)));
  return out;
}

class IdentifyTest : public ::testing::Test {
 protected:
  IdentifyTest() : host_(&machine_) {
    disks_ = std::make_unique<DiskSet>(false);
    disks_->currentDisk = 0;
    SetSignature(0x12345678);
  }

  void SetString(const std::string& key, const std::string& value, const std::string& text) {
    machine_.registryStrings[key + "\n" + value] = text;
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
    machine_.logicalDrives.push_back(root);
    machine_.volumeNames[root] = "\\\\?\\Volume{" + guid + "}\\";
    machine_.registryBinary[std::string(kMounted) + "\n\\??\\Volume{" + guid + "}"] = record;
  }
  void SetSignature(uint32_t signature) {
    for (int i = 0; i < 4; ++i) disks_->savedSignature[i] = static_cast<uint8_t>(signature >> (8 * i));
  }
  std::string Description(int index = 0) { return GetDiskDescription(*disks_, index); }

  test::FakeMachine machine_;
  test::ScopedHost host_;
  std::unique_ptr<DiskSet> disks_;
};

TEST_F(IdentifyTest, BusIsTheFirstComponentOfTheInstancePath) {
  AddDisk(0, "IDE\\DiskST3500418AS\\5&2a4f5&0&0.0.0");
  AddDisk(1, "USBSTOR\\Disk&Ven_SanDisk\\2005");
  AddDisk(2, "SCSI");  // no backslash: the whole path is the bus
  EXPECT_EQ(GetDiskBus(*disks_, 0), "IDE");
  EXPECT_EQ(GetDiskBus(*disks_, 1), "USB");
  EXPECT_EQ(GetDiskBus(*disks_, 2), "SCSI");
  // Unknown disks have no bus, and the buffer is not left with the last one.
  EXPECT_EQ(GetDiskBus(*disks_, 3), "");
  EXPECT_EQ(GetDiskBus(*disks_, -1), "");
  EXPECT_EQ(disks_->diskDescription, "");
}

TEST_F(IdentifyTest, DescriptionDropsTheBusSuffixAndOneBlankRun) {
  AddDisk(0, "USBSTOR\\Disk&Ven_SanDisk\\1", "SanDisk Cruzer USB Device");
  AddDisk(1, "IDE\\DiskWDC\\2", "WDC  WD5000AAKS ATA Device");
  AddDisk(2, "SCSI\\Disk&Ven_VMware\\3", "VMware Virtual disk");
  AddDisk(3, "scsi\\Disk\\4", "A SCSI Disk Device B SCSI Disk Device");
  AddDisk(4, "IDE\\Disk\\5", "", "Disk drive");
  AddDisk(5, "SD\\Disk\\6", "Card  Reader  Two  USB Device");
  EXPECT_EQ(Description(0), "SanDisk Cruzer");
  EXPECT_EQ(Description(1), "WDC WD5000AAKS");
  // A name without the suffix stays whole.
  EXPECT_EQ(Description(2), "VMware Virtual disk");
  // The bus matches ignoring case; the right-most suffix is cut.
  EXPECT_EQ(Description(3), "A SCSI Disk Device B");
  // Without a FriendlyName the DeviceDesc names the disk.
  EXPECT_EQ(Description(4), "Disk drive");
  // Other buses have no suffix; only the first run of blanks is reduced.
  EXPECT_EQ(Description(5), "Card Reader  Two  USB Device");
}

TEST_F(IdentifyTest, DescriptionFallsBackToTheBus) {
  // The instance key holds no name: the bus stands as the description.
  AddDisk(0, "USBSTOR\\Disk&Ven_X\\1");
  EXPECT_EQ(Description(0), "USB");
  // Nothing known about the disk at all.
  EXPECT_EQ(Description(7), "");
}

TEST_F(IdentifyTest, RegistryTextsAreCutToTheirBuffer) {
  std::string longName(5000, 'x');
  AddDisk(0, "PCI\\Disk\\1", longName);
  EXPECT_EQ(Description(0), std::string(kRegistryTextSize - 1, 'x'));
  // A text ends at its first NUL, as the program's buffers hold it.
  AddDisk(1, "PCI\\Disk\\2", std::string("Model\0junk", 10));
  EXPECT_EQ(Description(1), "Model");
}

TEST_F(IdentifyTest, EnumInfoWritesOnlyWhatItFinds) {
  AddDisk(0, "USBSTOR\\Disk&Ven_X\\1", "", "", "7&2a3b&0");
  std::string out = "untouched";
  EXPECT_FALSE(GetDiskEnumInfo(0, DiskEnumInfo::kDescription, &out));
  EXPECT_EQ(out, "untouched");
  EXPECT_FALSE(GetDiskEnumInfo(1, DiskEnumInfo::kInstancePath, &out));
  EXPECT_EQ(out, "untouched");
  EXPECT_TRUE(GetDiskEnumInfo(0, DiskEnumInfo::kParentPrefix, &out));
  EXPECT_EQ(out, "7&2a3b&0");
  EXPECT_TRUE(GetDiskEnumInfo(0, DiskEnumInfo::kInstancePath, &out));
  EXPECT_EQ(out, "USBSTOR\\Disk&Ven_X\\1");
}

TEST_F(IdentifyTest, VirtualDiskTextsComeFromTheVirtualDisk) {
  AddDisk(0, "IDE\\Disk\\1", "Physical ATA Device");
  disks_->isVirtual = true;
  EXPECT_EQ(GetDiskBus(*disks_, 0), "");
  EXPECT_EQ(Description(0), "");
  disks_->virtualDisk = std::make_unique<VmdkDisk>();
  disks_->virtualDisk->interfaceText = "lsilogic";
  disks_->virtualDisk->descriptionText = "VMware  Virtual  disk";
  EXPECT_EQ(GetDiskBus(*disks_, 0), "lsilogic");
  EXPECT_EQ(Description(0), "VMware Virtual  disk");
}

TEST_F(IdentifyTest, PartitionsOfAnMbrDiskFindTheirLettersByOffset) {
  AddVolume('C', "c-guid", SignatureRecord(0x12345678, 2048ull * 512));
  AddVolume('D', "d-guid", SignatureRecord(0x12345678, 411648ull * 512));
  AddVolume('E', "e-guid", SignatureRecord(0x0BADF00D, 2048ull * 512));  // another disk
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks_, 2048, &found));
  EXPECT_EQ(found.letter, 'C');
  EXPECT_EQ(found.volumeName, "\\\\?\\Volume{c-guid}\\");
  ASSERT_TRUE(FindDriveLetter(*disks_, 411648, &found));
  EXPECT_EQ(found.letter, 'D');
  // Offsets beyond 32 bits of bytes are compared in full.
  AddVolume('F', "f-guid", SignatureRecord(0x12345678, 0x123456789ull * 512));
  ASSERT_TRUE(FindDriveLetter(*disks_, 0x123456789ull, &found));
  EXPECT_EQ(found.letter, 'F');

  DriveLetterMatch none;
  none.letter = 'Z';
  EXPECT_FALSE(FindDriveLetter(*disks_, 63, &none));
  EXPECT_EQ(none.letter, 'Z');
  EXPECT_EQ(none.volumeName, "");
}

TEST_F(IdentifyTest, DevicePathRecordsNameAWholeDisk) {
  AddDisk(0, "USBSTOR\\Disk&Ven_Kingston\\0013729B", "Kingston USB Device");
  AddVolume('G', "g-guid", Utf16("\\??\\USBSTOR#Disk&Ven_Kingston#0013729B#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}"));
  AddVolume('H', "h-guid", Utf16("\\??\\USBSTOR#Disk&Ven_Kingston#0013729B#{other}"));
  DriveLetterMatch found;
  // Any partition of the disk gets the first root that names the disk.
  ASSERT_TRUE(FindDriveLetter(*disks_, 2048, &found));
  EXPECT_EQ(found.letter, 'G');
  ASSERT_TRUE(FindDriveLetter(*disks_, 999999, &found));
  EXPECT_EQ(found.letter, 'G');
  // Another disk's instance path does not match.
  disks_->currentDisk = 1;
  AddDisk(1, "USBSTOR\\Disk&Ven_Kingston\\0013729C");
  EXPECT_FALSE(FindDriveLetter(*disks_, 2048, &found));
}

TEST_F(IdentifyTest, RemovableMediaMatchByParentPrefix) {
  AddDisk(0, "USBSTOR\\Disk&Ven_Generic\\1", "", "", "7&2a3b&0");
  AddVolume('R', "r-guid", Utf16("\\??\\STORAGE#RemovableMedia#7&2a3b&0&RM#{53f5630d}"));
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks_, 0, &found));
  EXPECT_EQ(found.letter, 'R');
  // A disk without a parent prefix matches no removable medium.
  AddDisk(1, "STORAGE\\RemovableMedia\\7&2a3b&0&RM");
  disks_->currentDisk = 1;
  EXPECT_FALSE(FindDriveLetter(*disks_, 0, &found));
}

TEST_F(IdentifyTest, MalformedRecordsAndFailingRootsAreSkipped) {
  AddDisk(0, "IDE\\Disk\\1");
  // A root without a volume name, a record shorter than a signature record,
  // a record of odd length, and a record too short for the "\??\" prefix.
  machine_.logicalDrives.push_back("A:\\");
  AddVolume('B', "b-guid", {0x78, 0x56, 0x34});
  AddVolume('C', "c-guid", {'\\', 0, '?', 0, '?'});
  AddVolume('D', "d-guid", Utf16("\\?"));
  // A volume whose record is missing.
  machine_.logicalDrives.push_back("E:\\");
  machine_.volumeNames["E:\\"] = "\\\\?\\Volume{e-guid}\\";
  // A volume name too short to hold a GUID.
  machine_.logicalDrives.push_back("F:\\");
  machine_.volumeNames["F:\\"] = "\\\\";
  AddVolume('G', "g-guid", SignatureRecord(0x12345678, 4096ull * 512));
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks_, 4096, &found));
  EXPECT_EQ(found.letter, 'G');
}

TEST_F(IdentifyTest, LongVolumeNamesAreCutToTheResult) {
  const std::string guid(80, 'a');
  AddVolume('C', guid, SignatureRecord(0x12345678, 512));
  DriveLetterMatch found;
  ASSERT_TRUE(FindDriveLetter(*disks_, 1, &found));
  EXPECT_EQ(found.volumeName.size(), kVolumeNameLength);
  EXPECT_EQ(found.volumeName.substr(0, 11), "\\\\?\\Volume{");
}

}  // namespace
}  // namespace dh
