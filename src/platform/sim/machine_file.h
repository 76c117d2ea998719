// The description of a simulated machine and the reader of its machine file.
//
// A machine file is an INI-style text:
//
//   # '#' or ';' starts a comment; section and key names ignore case
//   [machine]        codepage, elevated, version, computername, systemdrive,
//                    decimal, thousands, grouping, leadingzero, negativenumber,
//                    formatengine, shutdownlog, shutdownprivilege, tracelog
//   [environment]    NAME = value, the machine's environment variables
//   [drive N]        N in 0..99: image (required), media, heads, sectors,
//                    cylinders, readonly, badsectors, failwriteafter,
//                    growlimit, layout, instance, friendlyname, devicedesc,
//                    parentidprefix
//   [volume X]       drive, offset or device, guid
//
// Reading it is pure text work; whether the images exist, are files and hold
// at least one sector is checked when the machine is built (sim_machine.h).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/sector_range.h"
#include "platform/platform.h"

namespace dh::platform::sim {

enum class MediaKind { Fixed, Removable, Absent };

// What LoadFormatEngine and FormatEx do: the host's mkntfs (the default),
// or, for fault tests, an engine that is missing, lacks its entry point,
// or only reports success or failure without formatting.
enum class FormatEngineMode { Mkntfs, None, NoEntry, Ok, Fail };

// What the token elevation query answers; Unknown makes the query fail, as
// when the token cannot be opened.
enum class ElevationMode { Yes, No, Unknown };

struct DriveDescription {
  int number = 0;
  int line = 0;       // of the section header
  std::string image;  // the path as resolved against the machine file's folder
  int imageLine = 0;  // of the image key
  MediaKind media = MediaKind::Fixed;
  uint32_t heads = 255;
  uint32_t sectorsPerTrack = 63;
  bool hasCylinders = false;  // else derived from the image size
  int64_t cylinders = 0;
  bool readOnly = false;
  std::vector<SectorRange> badSectors;
  // A write transfer of more sectors than this moves only its first ones
  // and then fails, as a drive that dies half-way through a transfer.
  bool hasFailWriteAfter = false;
  uint64_t failWriteAfter = 0;
  // The image's files (a VMware disk's extents) refuse to grow past this
  // many bytes, as on a full host volume.
  bool hasGrowLimit = false;
  uint64_t growLimit = 0;
  bool hasLayout = false;  // else derived from sector 0
  LayoutEntry layout;
  std::string instance;
  std::string friendlyName;
  std::string deviceDesc;
  std::string parentIdPrefix;
};

struct VolumeDescription {
  char letter = 'C';  // upper case
  int line = 0;
  int drive = -1;  // -1: not tied to a drive
  bool hasOffset = false;
  uint64_t offset = 0;
  std::string device;  // the device-path record, when given
  std::string guid;    // "{...}" with braces; made up when absent
};

struct MachineDescription {
  // Without a codepage key the console is the host's: a simulated machine
  // run from a UTF-8 terminal draws its frames in UTF-8 there.
  bool hasCodePage = false;
  uint32_t codePage = 437;
  ElevationMode elevation = ElevationMode::Yes;
  uint32_t majorVersion = 6;
  uint32_t minorVersion = 1;
  std::string computerName = "DISKHOLD-SIM";
  std::string decimalSep = ".";
  std::string thousandSep = ",";
  std::string grouping = "3;0";  // as LOCALE_SGROUPING gives it
  uint32_t leadingZero = 1;
  uint32_t negativeNumber = 1;
  FormatEngineMode formatEngine = FormatEngineMode::Mkntfs;
  std::string shutdownLog;  // resolved path; empty: no log
  bool shutdownPrivilege = true;
  // Every transfer on a drive is appended here (resolved path; empty: no
  // trace), so that tests learn which sectors a command touches.
  std::string traceLog;
  // The machine's environment ("systemdrive" included), names as written.
  std::vector<std::pair<std::string, std::string>> environment;
  std::vector<DriveDescription> drives;    // ascending drive number
  std::vector<VolumeDescription> volumes;  // ascending letter
};

// Reads a machine file's text.  `filePath` is where the text came from: it
// names the file in messages and anchors relative paths.  On failure returns
// false with `error` naming the file and line.
bool ParseMachineFile(const std::string& text, const std::string& filePath, MachineDescription* out,
                      std::string* error);

// The machine of a list of disk images (DISKHOLD_DISKS): drives 0, 1, ...
// in list order, everything else as a machine file without keys has it.
// `separator` splits the list (':' or ';' as PATH uses it on the host).  On
// failure returns false with `error` telling why.
bool DescribeImageList(const std::string& list, char separator, MachineDescription* out, std::string* error);

// A path from a machine file, made relative to the folder of the machine
// file unless it is absolute ("/x", "\x" or "X:...").
std::string ResolveMachinePath(const std::string& machineFilePath, const std::string& path);

}  // namespace dh::platform::sim
