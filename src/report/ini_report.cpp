// The INI report (see ini_report.h).  Numbers are formatted here rather
// than with printf length modifiers (%I64d, %Lf), whose MinGW and glibc
// readings differ: the file must be the same bytes on every platform.
#include "report/ini_report.h"

#include <cstdio>
#include <string>
#include <vector>

#include "base/sink.h"
#include "base/version.h"
#include "disk/disk_set.h"
#include "disk/identify.h"
#include "disk/volume.h"
#include "disk/table_driver.h"
#include "platform/platform.h"
#include "report/text_fields.h"

namespace dh {

namespace {

constexpr int32_t kVirtualDiskNumber = 999;
constexpr int kHeadingRuleLength = 77;

const char* YesNo(bool yes) { return yes ? "Yes" : "No"; }

// "%-2.2X": at least two upper-case hexadecimal digits.
std::string Hex2(uint32_t value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%02X", static_cast<unsigned int>(value));
  return buffer;
}

// "%hx": lower-case hexadecimal without leading zeros.
std::string HexByte(uint8_t value) {
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "%x", static_cast<unsigned int>(value));
  return buffer;
}

// A value on one line: a label or name read from the disk could otherwise
// start a line, and a section, of its own.
std::string OneLine(const std::string& text) {
  std::string out = CText(text);
  for (char& c : out) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  return out;
}

// Signed 64-bit text of a byte count, as "%I64d" prints the same bits.
std::string Signed(uint64_t value) { return std::to_string(static_cast<int64_t>(value)); }

class IniWriter {
 public:
  explicit IniWriter(Sink& out) : out_(out) {}
  // "\r\n<key>=<value>".
  void Key(const char* key, const std::string& value) { out_.Write("\r\n" + std::string(key) + "=" + value); }
  void Section(const std::string& name) { out_.Write("\r\n\r\n[" + name + "]"); }
  void Sizes(uint64_t bytes) {
    Key("SizeMB", ScaledSizeText(bytes, 20));
    Key("SizeGB", ScaledSizeText(bytes, 30));
    Key("SizeTB", ScaledSizeText(bytes, 40));
  }
  Sink& sink() { return out_; }

 private:
  Sink& out_;
};

void WriteDiskSection(DiskSet& disks, int32_t d, IniWriter& ini) {
  const bool isGpt = disks.disk().isGpt();
  ini.Section("Disk" + std::to_string(d));
  ini.Key("Size", Signed(disks.disk().totalBytes()));
  ini.Sizes(disks.disk().totalBytes());
  ini.Key("Type", isGpt ? "GPT" : "MBR");
  // The bus and the description share one buffer of the disk set.
  ini.Key("Interface", OneLine(GetDiskBus(disks, d)));
  ini.Key("Description", OneLine(GetDiskDescription(disks, d)));
  ini.Key("Removable", YesNo(disks.disk().mediaType() == platform::kMediaRemovable));
  ini.Key("PartitionCount", std::to_string(PartitionCount(disks, kKindPrimary)));
  if (isGpt) return;
  ini.Key("ActivePart", disks.disk().activeIndex() < 0 ? std::string("N/A") : std::to_string(disks.disk().activeIndex()));
  ini.Key("Cylinders", std::to_string(disks.disk().cylinders()));
  ini.Key("Heads", std::to_string(disks.disk().heads()));
  ini.Key("SectorsPerTrack", std::to_string(disks.disk().sectorsPerTrack()));
  const uint8_t* s = disks.disk().savedSignature();
  ini.Key("Signature", HexByte(s[3]) + HexByte(s[2]) + HexByte(s[1]) + HexByte(s[0]));
}

void WritePartitionSection(DiskSet& disks, int32_t d, int32_t p, const PartitionRecord& r,
                           const EntryDetails* details, IniWriter& ini) {
  const bool isGpt = disks.disk().isGpt();
  ini.Section("Disk" + std::to_string(d) + ".Partition" + std::to_string(p));
  if (!isGpt) ini.Key("ActivePart", YesNo(r.active != 0));
  // A GPT has no primaries, hidden types or MBR slots: every entry is a
  // primary, hidden by its attribute bit, numbered by its place in the array.
  ini.Key("Primary", YesNo(isGpt || r.isPrimary != 0));
  ini.Key("Type", Hex2(static_cast<uint32_t>(r.type)));
  ini.Key("TypeName", OneLine(r.typeName));
  ini.Key("DriveLetter", DriveLetterText(r, disks));
  ini.Key("Hidden", YesNo(isGpt ? details != nullptr && details->attributeHidden : r.hidden != 0));
  ini.Key("MBRIndex", std::to_string(isGpt ? static_cast<int64_t>(r.gptEntryIndex) + 1 : static_cast<int64_t>(r.slot) + 1));
  ini.Key("Size", Signed(r.sizeBytes));
  ini.Sizes(r.sizeBytes);
  ini.Key("VolumeID", VolumeIdText(disks, p));
  if (!isGpt && !CText(r.volumeLabel).empty()) ini.Key("VolLabel", OneLine(r.volumeLabel));
  uint64_t end = 0;
  // An entry that claims the whole 64-bit range ends at the last number.
  if (__builtin_add_overflow(r.startLba, r.sectorCount, &end)) end = UINT64_MAX;
  ini.Key("LBAStart", std::to_string(r.startLba));
  ini.Key("LBAEnd", std::to_string(end));
  ini.Key("LBATotal", std::to_string(r.sectorCount));
  if (isGpt) {
    ini.Key("Description", OneLine(details != nullptr ? details->longTypeName : r.gptTypeName));
    ini.Key("Readonly", YesNo(details != nullptr && details->readOnly));
    ini.Key("VolumeName", OneLine(r.volumeLabel));
    return;
  }
  ini.Key("CylStart", std::to_string(r.startCylinder));
  ini.Key("CylEnd", std::to_string(r.endCylinder));
  ini.Key("HeadStart", std::to_string(r.startHead));
  ini.Key("HeadEnd", std::to_string(r.endHead));
  ini.Key("SectStart", std::to_string(r.startSector));
  ini.Key("SectEnd", std::to_string(r.endSector));
}

}  // namespace

std::string ScaledSizeText(uint64_t bytes, int shift) {
  // bytes * 100 / 2^shift without a 128-bit product: the whole part and the
  // remainder are scaled apart (the remainder is below 2^40, so times 100
  // it stays far below 2^64).
  const uint64_t mask = (uint64_t{1} << shift) - 1;
  const uint64_t whole = bytes >> shift;
  const uint64_t part = (bytes & mask) * 100;
  uint64_t hundredths = part >> shift;
  const uint64_t rest = part & mask;
  const uint64_t half = uint64_t{1} << (shift - 1);
  if (rest > half || (rest == half && (hundredths & 1) != 0)) ++hundredths;
  // Rounding may carry into the whole part (x.995 and up).
  const uint64_t units = whole + hundredths / 100;
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%llu.%02u", static_cast<unsigned long long>(units),
                static_cast<unsigned int>(hundredths % 100));
  return buffer;
}

void WriteIniReport(DiskSet& disks, const IniReportRequest& request, Sink& out) {
  IniWriter ini(out);
  out.Write("\r\n" + std::string(kProgramTitle) + " for " + kPlatformName);
  out.Write("\r\n" + std::string(kMakerNotice) + "\r\n");
  out.Write(std::string(kHeadingRuleLength, '-'));
  ini.Section("System");
  ini.Key("DiskCount", std::to_string(disks.diskCount));

  for (int32_t d = 0; d < disks.diskCount; ++d) {
    disks.SelectDisk(d);
    WriteDiskSection(disks, d, ini);
    const TableDriver* table = disks.Table();
    // Collected once: lookups by number would walk the table each time.
    const std::vector<PartitionRecord*> records = Partitions(disks, kKindPrimary);
    for (size_t i = 0; i < records.size(); ++i) {
      const int32_t p = static_cast<int32_t>(i + 1);
      WritePartitionSection(disks, d, p, *records[i], table != nullptr ? table->Details(p) : nullptr, ini);
    }
  }

  if (request.diskNumber == kVirtualDiskNumber) {
    disks.OpenVirtualDisk(request.diskFileName);
  } else {
    disks.SelectDisk(request.diskNumber);
  }
}

ResultCode WriteIniFile(DiskSet& disks, const std::string& fileName, const IniReportRequest& request) {
  std::FILE* file = std::fopen(fileName.c_str(), "wb");
  if (file == nullptr) return kIniWriteFailed;
  StreamSink sink(file);
  WriteIniReport(disks, request, sink);
  std::fclose(file);
  return kSuccess;
}

}  // namespace dh
