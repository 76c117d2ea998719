// The machine as the rest of Diskhold sees it.
//
// Every operating-system service the program uses is reached through the
// interfaces in this header, named after the Windows calls they stand for so
// that the code above reads like the Windows program it is.  Three backends
// implement them:
//   - win32: the real Windows calls;
//   - linux: block devices, sysfs, ioctls and termios;
//   - sim:   a simulated machine described by the file named in the
//            environment variable DISKHOLD_MACHINE (drives backed by image
//            files, registry values, mounted volumes, console, locale...),
//            or made of the images DISKHOLD_DISKS lists.
// CreateMachine picks the simulated machine when either variable is set and
// the native backend otherwise.  No file outside src/platform includes an OS header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/le.h"

namespace dh::platform {

// MEDIA_TYPE values the program distinguishes.
constexpr int32_t kMediaUnknown = 0;
constexpr int32_t kMediaRemovable = 11;  // RemovableMedia
constexpr int32_t kMediaFixed = 12;      // FixedMedia

// DISK_GEOMETRY as IOCTL_DISK_GET_DRIVE_GEOMETRY reports it.
struct DiskGeometry {
  int64_t cylinders = 0;
  int32_t mediaType = kMediaUnknown;
  uint32_t tracksPerCylinder = 0;
  uint32_t sectorsPerTrack = 0;
  uint32_t bytesPerSector = kSectorSize;
};

// The first entry of a drive layout (IOCTL_DISK_GET_DRIVE_LAYOUT[_EX]).
struct LayoutEntry {
  uint32_t partitionStyle = 0;  // 0 MBR, 1 GPT, 2 RAW (EX query only)
  uint8_t partitionType = 0;
  uint64_t startingOffset = 0;
  uint64_t partitionLength = 0;
  bool present = false;  // false: the layout holds no entry
};

// How a path is opened; each mode is one CreateFileA call of the program.
enum class OpenMode {
  ProbeRead,          // GENERIC_READ, share read|write, OPEN_EXISTING (disk count)
  DiskReadWrite,      // GENERIC_READ|GENERIC_WRITE, share read|write, OPEN_EXISTING
  ReadExisting,       // GENERIC_READ, share read, OPEN_EXISTING
  ReadWriteExisting,  // GENERIC_READ|GENERIC_WRITE, share read, OPEN_EXISTING
  CreateAlways,       // GENERIC_WRITE, share write, CREATE_ALWAYS (truncates)
};

// An open file or device.  Transfers are at the current position, which
// Seek sets; they report the byte count actually moved like ReadFile and
// WriteFile do.  A transfer may be short; callers loop where they must.
class File {
 public:
  virtual ~File() = default;
  virtual bool Seek(uint64_t offset) = 0;
  virtual bool Read(void* buffer, uint32_t bytes, uint32_t* done) = 0;
  virtual bool Write(const void* buffer, uint32_t bytes, uint32_t* done) = 0;
  // Makes written data durable (FlushFileBuffers / fsync).
  virtual bool Flush() = 0;
  // GetFileSizeEx; for a device, its size in bytes.
  virtual bool Size(uint64_t* bytes) = 0;

  // DeviceIoControl queries; plain files fail them.
  virtual bool GetDriveGeometry(DiskGeometry* out) = 0;
  // IOCTL_DISK_GET_DRIVE_GEOMETRY_EX: the geometry and DiskSize.
  virtual bool GetDriveGeometryEx(DiskGeometry* geometry, uint64_t* diskSize) = 0;
  // IOCTL_DISK_GET_PARTITION_INFO: StartingOffset and PartitionLength.
  virtual bool GetPartitionInfo(uint64_t* startingOffset, uint64_t* partitionLength) = 0;
  virtual bool GetDriveLayoutEx(LayoutEntry* first) = 0;
  virtual bool GetDriveLayout(LayoutEntry* first) = 0;
  // IOCTL_DISK_UPDATE_PROPERTIES: asks the system to re-read the table.
  virtual bool UpdateProperties() = 0;

  // Where data may lie at or after `offset` (SEEK_DATA/SEEK_HOLE,
  // FSCTL_QUERY_ALLOCATED_RANGES): the first range [*start, *end) that may
  // hold non-zero bytes; everything between `offset` and *start reads as
  // zeros.  False only when nothing at or after `offset` holds data.  A file
  // that cannot tell, or whose query fails, answers with everything from
  // `offset` on, so that a failed query never hides data.
  virtual bool NextData(uint64_t offset, uint64_t* start, uint64_t* end);
  // Makes [offset, offset + bytes) read as zeros without writing them:
  // a file's own zeroing (fallocate ZERO_RANGE or PUNCH_HOLE,
  // FSCTL_SET_ZERO_DATA, a hole on sparse files), the device's own zeroing
  // (BLKZEROOUT), never a discard whose result is not guaranteed.  False
  // when the file cannot, or the range is not wholly inside it; the caller
  // then writes zeros.  Not durable until Flush.
  virtual bool ZeroRange(uint64_t offset, uint64_t bytes);

  // Asks the system to start writing [offset, offset + bytes) to the medium
  // now (sync_file_range), so that a bulk transfer's writeback runs while it
  // goes on instead of all at its Flush.  A hint: nothing is durable until
  // Flush, and a file that cannot start early does nothing.
  virtual void StartWriteback(uint64_t offset, uint64_t bytes);

  // The host file whose bytes at every offset are this file's bytes at the
  // same offset, for the file system's own copying; nullptr when there is
  // none (a layout of several files, a drive whose faults must show).
  virtual File* CloneSource();
  // The system's descriptor of this file for that copying, or -1 when the
  // file is no plain file of this system's own.
  virtual int CloneDescriptor() { return -1; }
  // Makes [to, to + bytes) of this file hold the bytes of [from, from +
  // bytes) of `source` by the file system sharing its blocks (FICLONERANGE),
  // without reading or writing them.  False when it cannot (another file
  // system, offsets not on block boundaries, overlapping ranges); the caller
  // then copies by reading and writing.  A refusal is no failure: it leaves
  // the last error as it was.  Not durable until Flush.
  virtual bool CloneFrom(File& source, uint64_t from, uint64_t to, uint64_t bytes);

  // Whether every write is refused whatever the caller asks: a container
  // whose layout was found damaged when it opened reads, but a write might
  // land where no one asked for it.
  virtual bool WritesRefused() { return false; }
  // A drive whose image is a container that was recognised but cannot be
  // used (a VMware disk of a kind the program does not take): the code the
  // program gives for it when the container is named directly, so that
  // every way of naming the file ends alike.  Its transfers all fail.  0
  // for every usable file.
  virtual int32_t UnusableReason() { return 0; }
};

// Moves `bytes` between the buffer and the file at `offset`, looping over
// short transfers until all moved or one moves nothing (the file ended);
// *moved is what moved.  False when a transfer fails.  The one loop over a
// host file's transfers.
bool TransferAt(File& file, uint64_t offset, void* buffer, uint32_t bytes, bool write, uint32_t* moved);
// Reads at `offset` until `bytes` arrived or the file ends, looping over
// short reads; *got is what arrived.  False when a read fails.
bool ReadAt(File& file, uint64_t offset, void* buffer, uint32_t bytes, uint32_t* got);
// Writes all `bytes` at `offset`, looping over short writes.  False when a
// write fails or moves nothing.
bool WriteAt(File& file, uint64_t offset, const void* buffer, uint32_t bytes);

// A file that is no device: every DeviceIoControl query fails, as Windows
// answers them for a plain file.  Files made of other files (a virtual
// disk's layout) start from here.
class PlainFile : public File {
 public:
  bool GetDriveGeometry(DiskGeometry*) override { return false; }
  bool GetDriveGeometryEx(DiskGeometry*, uint64_t*) override { return false; }
  bool GetPartitionInfo(uint64_t*, uint64_t*) override { return false; }
  bool GetDriveLayoutEx(LayoutEntry*) override { return false; }
  bool GetDriveLayout(LayoutEntry*) override { return false; }
  bool UpdateProperties() override { return false; }
};

// GetVersionExA with OSVERSIONINFOA.
struct OsVersion {
  uint32_t majorVersion = 0;
  uint32_t minorVersion = 0;
  uint32_t platformId = 0;  // 2 = VER_PLATFORM_WIN32_NT
};

// The locale items FormatSizeText reads (GetLocaleInfoA) and the NUMBERFMTA
// it hands to GetNumberFormatA.
enum class LocaleItem { LeadingZero, Grouping, DecimalSep, ThousandSep, NegativeNumber };

struct NumberFormat {
  uint32_t numDigits = 2;
  uint32_t leadingZero = 1;
  uint32_t grouping = 3;
  std::string decimalSep = ".";
  std::string thousandSep = ",";
  uint32_t negativeOrder = 1;
};

// Callback of the format engine: command, sub-action, command data.
// Command 0: data points to a 32-bit percentage; 11: to a byte, non-zero on
// success; 14: to a record whose second member is a text address (the
// platform passes the text itself as `text`).
struct FormatCallbackData {
  uint32_t percent = 0;
  bool success = false;
  std::string text;
};
using FormatCallback = std::function<bool(int command, uint32_t subAction, const FormatCallbackData& data)>;

enum class FormatEngineState {
  LibraryMissing,  // LoadLibraryA("fmifs.dll") failed (elsewhere: no mkntfs)
  EntryMissing,    // GetProcAddress("FormatEx") failed
  Ready,
};

// Where the volume to format lies on its disk.  FormatEx of Windows needs
// only the volume name; the engine of the other systems, mkntfs of
// ntfs-3g, formats a host path: the partition's own device node, or else a
// staging file of the partition's size, which `writeStaged` then copies
// onto the partition (the caller holds that write to the partition).
struct FormatPlace {
  std::string drivePath;  // "\\.\PhysicalDriveN"; empty for a virtual disk
  uint64_t startLba = 0;
  uint64_t sectorCount = 0;  // 0: the partition cannot be formatted
  uint32_t heads = 0;        // the disk's geometry, for the boot sector
  uint32_t sectorsPerTrack = 0;
  std::function<bool(File& staged)> writeStaged;
};

// One run of mkntfs on a host path.
struct NtfsFormatJob {
  std::string path;            // a partition's device node, or a staging file
  uint64_t hiddenSectors = 0;  // the partition's first sector (--partition-start)
  uint64_t sectorCount = 0;    // the volume's size; a plain file must be this large
  uint32_t heads = 0;          // 0: left to mkntfs
  uint32_t sectorsPerTrack = 0;
  std::string label;
  bool quick = true;
};

class Machine {
 public:
  virtual ~Machine() = default;

  // ---- files and devices ------------------------------------------------
  // Opens a path: "\\.\PhysicalDriveN" or a file.  Null on failure, with
  // LastError() telling why.
  virtual std::unique_ptr<File> Open(const std::string& path, OpenMode mode) = 0;
  // Whether a file or directory exists at the path (GetFileAttributesA).
  virtual bool PathExists(const std::string& path) = 0;

  // ---- registry, under HKEY_LOCAL_MACHINE --------------------------------
  // REG_SZ value; false when the key or value is missing.
  virtual bool RegQueryString(const std::string& key, const std::string& value, std::string* out) = 0;
  // Any value as raw bytes (REG_BINARY for SYSTEM\MountedDevices).
  virtual bool RegQueryBinary(const std::string& key, const std::string& value, std::vector<uint8_t>* out) = 0;

  // ---- mount manager ----------------------------------------------------
  // GetLogicalDriveStringsA: the roots "C:\" ... in the order returned.
  virtual std::vector<std::string> LogicalDriveStrings() = 0;
  // GetVolumeNameForVolumeMountPointA: "\\?\Volume{GUID}\".
  virtual bool VolumeNameForMountPoint(const std::string& mountPoint, std::string* volumeName) = 0;

  // ---- format engine (fmifs.dll FormatEx) -------------------------------
  virtual FormatEngineState LoadFormatEngine() = 0;
  // Runs FormatEx; returns false when the call itself could not be made.
  // Windows formats the volume `driveRoot` names; the other systems format
  // `place` with mkntfs, quick, with the label given, and report like
  // FormatEx: percentages as command 0, the end as command 11.
  virtual bool FormatEx(const std::u16string& driveRoot, uint32_t mediaFlag, const std::u16string& fileSystem,
                        const std::u16string& label, bool quick, uint32_t clusterSize,
                        const FormatCallback& callback, const FormatPlace& place) = 0;
  // Lets the thread handle one message already queued; never waits.
  virtual void PumpOneMessage() = 0;
  // mkntfs: whether it can be started here (LastError 126 when not), and
  // one run of it, reporting as FormatEx does.  False when it could not be
  // started; Windows has none.
  virtual bool NtfsFormatterPresent() = 0;
  virtual bool RunNtfsFormatter(const NtfsFormatJob& job, const FormatCallback& callback) = 0;

  // ---- version, rights, shutdown -----------------------------------------
  virtual bool GetVersionEx(OsVersion* out) = 0;
  // GetVersion(): top bit set outside the NT family.
  virtual uint32_t GetVersion() = 0;
  // Token elevation; false when the token cannot be opened or read.
  virtual bool QueryElevation(bool* elevated) = 0;
  // OpenProcessToken + LookupPrivilegeValueA + AdjustTokenPrivileges for
  // SeShutdownPrivilege; false when the token cannot be opened or the
  // privilege is not granted.
  virtual bool EnableShutdownPrivilege() = 0;
  // ExitWindowsEx(flags, 0).
  virtual bool ExitWindows(uint32_t flags) = 0;

  // ---- console ----------------------------------------------------------
  virtual uint32_t ConsoleOutputCodePage() = 0;
  // Fills the screen buffer with blanks; does nothing without a console.
  virtual void ClearScreen() = 0;
  // Moves the cursor to a column and row, 0-based; nothing without a console.
  virtual void SetCursorPosition(int column, int row) = 0;
  // One key press without echo; -1 at end of input (never blocks then).
  virtual int ReadKey() = 0;
  // One line of input without its line end; false at end of input.
  virtual bool ReadLine(std::string* line) = 0;

  // ---- locale, names, environment, messages ------------------------------
  // GetLocaleInfoA for LOCALE_USER_DEFAULT.
  virtual bool GetLocaleInfo(LocaleItem item, std::string* out) = 0;
  // GetNumberFormatA for LOCALE_USER_DEFAULT, flags 0, with an explicit format.
  virtual bool GetNumberFormat(const std::string& value, const NumberFormat& format, std::string* out) = 0;
  virtual std::string ComputerName() = 0;
  virtual bool GetEnv(const std::string& name, std::string* value) = 0;
  // MessageBoxA without an owner, MB_OK.
  virtual void MessageBox(const std::string& text, const std::string& caption) = 0;
  // GetLastError of the last failed call of this backend.
  virtual uint32_t LastError() = 0;
  // FormatMessageA from the system table; the text ends with "\r\n".
  // False when the system has no text for the code.
  virtual bool SystemMessageText(uint32_t code, std::string* text) = 0;

  // ---- entropy ------------------------------------------------------------
  // Fills `bytes` bytes from the system's cryptographic random source
  // (RtlGenRandom); false when the source cannot deliver them.
  virtual bool RandomBytes(void* out, size_t bytes) = 0;
};

// Disk images kept in a container (VMware disk files) are understood by a
// layer above this one; the program hands its opener over once, before the
// machine is created.  It answers false when the file at `path` is no such
// container (the image is then used as it is), true otherwise, with `file`
// the disk the container holds, or, when it cannot be used, `why` telling
// why and `file` null or a file whose UnusableReason gives the program's
// code.  Files are opened through `files`.
using ImageOpener = bool (*)(Machine& files, const std::string& path, bool writable, std::unique_ptr<File>* file,
                             std::string* why);
void SetImageOpener(ImageOpener opener);
ImageOpener GetImageOpener();

// The machine of this run: the simulated one when DISKHOLD_MACHINE names a
// machine file or DISKHOLD_DISKS lists disk images, the native one
// otherwise.  When the machine cannot be built, `error` says why and the
// result is null.
std::unique_ptr<Machine> CreateMachine(std::string* error);

// The machine of the run, set once by main.  Only the program's top layer
// reads it: every layer below is handed the machine it works on.
Machine& Host();
void SetHost(Machine* machine);

// The native backend, also used by the simulated machine for host files.
std::unique_ptr<Machine> CreateNativeMachine();

// What the process hands to the system as its exit status for the run's
// exit value.  Windows passes all 32 bits on, so the value is returned as it
// is.  POSIX shells see only the low 8 bits, where 512 or -512 would read as
// success: there, a value that is not 0 but whose low 8 bits are all zero
// becomes 1, and every other value its low 8 bits (571 gives 59, -506 6).
int ProcessExitStatus(int32_t exitValue);

}  // namespace dh::platform
