// The fault-injection matrix: every command that reads or writes sectors
// runs once on a healthy simulated machine with the transfer trace on, and
// then once per sector that trace shows it touching, with that sector bad;
// then on a read-only drive, with a drive that fails half-way through a
// long write, with missing, truncated and unwritable backup files, and on a
// VMware disk whose extent cannot grow.  Each run must end with a code the
// command can give for that fault and that code's message, may change only
// sectors its own trace shows written, and leaves a partition table (sector
// 0's entries, or the GPT's headers and arrays) all old or all new.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Args;
using e2e::Bytes;
using e2e::Entry;
using e2e::ResultOf;

constexpr uint64_t kDiskSectors = 2048;
// The GPT disk as sgdisk lays it out on 2048 sectors: header and array in
// 0..33, the backup array and header in 2015..2047.
constexpr uint64_t kGptPrimaryEnd = 34;
constexpr uint64_t kGptBackupFirst = 2015;

// What a failure must print: " Error N: text".
const std::map<int, std::string> kMessages = {
    {134, "Unable to locate the specified file"},
    {200, "Invalid EFI Disk"},
    {202, "Unable to Save changes to the GPT"},
    {203, "Unable to Read from File"},
    {204, "Unable to Open File"},
    {505, "Unable to save the specified sectors to the selected disk"},
    {506, "Unable to read the specified sector from the selected disk"},
    {507, "An error ocurred writing the backup file"},
    {508, "An error ocurred reading the backup file"},
    {509, "The file does not contain a copy of a valid MBR"},
    {510, "Unable to locate a valid MBR at this location"},
    {560, "File size does not match requested command"},
    {562, "Invalid path or filename specified"},
    {563, "Unable to overwrite existing file. Check permissions and attributes."},
    {564, "Unable to locate specified file"},
    {571, "Unable to access the specifed disk"},
};

// What must stay all old or all new when the command fails.
enum class Table { None, Mbr, Gpt };

struct Command {
  Command(std::string n, Args a, std::set<int> r, std::set<int> w, Table t = Table::None, std::string in = "")
      : name(std::move(n)), args(std::move(a)), onRead(std::move(r)), onWrite(std::move(w)), table(t),
        input(std::move(in)) {}
  std::string name;
  Args args;
  std::set<int> onRead;   // results allowed when a sector it reads is bad
  std::set<int> onWrite;  // results allowed when a sector it writes is bad
  Table table = Table::None;
  std::string input;
};

// The disk a command works on: its /disk=N (0 for /disk=*).
int DiskOf(const Command& c) {
  for (const std::string& a : c.args) {
    if (a.size() == 7 && a.compare(0, 6, "/disk=") == 0 && a[6] >= '0' && a[6] <= '9') return a[6] - '0';
  }
  return 0;
}

struct Transfer {
  int drive = 0;
  std::string op;  // read, write, zero
  uint64_t first = 0;
  uint64_t count = 0;
  uint64_t moved = 0;
  bool ok = false;
};

std::vector<Transfer> ParseTrace(const std::string& text) {
  std::vector<Transfer> all;
  std::istringstream in(text);
  std::string result;
  Transfer t;
  while (in >> t.drive >> t.op >> t.first >> t.count >> t.moved >> result) {
    t.ok = result == "ok";
    all.push_back(t);
  }
  return all;
}

// DISKHOLD_MATRIX_FIRST set (the memcheck stage): each transfer of the
// command's own drive fails once, at its first sector, at a fraction of the runs.
bool FirstSectorsOnly() {
  static const bool set = std::getenv("DISKHOLD_MATRIX_FIRST") != nullptr;
  return set;
}

// The sectors of a transfer a bad sector is tried at: all of a short one;
// the first two and the last two of a long one (a whole-disk transfer is a
// run of chunks, so their edges are each chunk's).
std::vector<uint64_t> ProbeSectors(const Transfer& t) {
  std::vector<uint64_t> at;
  if (FirstSectorsOnly()) {
    at.push_back(t.first);
  } else if (t.count <= 4) {
    for (uint64_t k = 0; k < t.count; ++k) at.push_back(t.first + k);
  } else {
    at = {t.first, t.first + 1, t.first + t.count - 2, t.first + t.count - 1};
  }
  return at;
}

// Writes into an existing file without truncating it.
void WriteAt(const std::string& path, uint64_t lba, const Bytes& bytes) {
  std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
  f.seekp(static_cast<std::streamoff>(lba * e2e::kSector));
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadAll(const std::string& path) {
  const std::string text = e2e::ReadFileText(path);
  return Bytes(text.begin(), text.end());
}

Bytes Zeros(uint64_t sectors) { return Bytes(sectors * e2e::kSector, 0); }

void Put(Bytes& image, uint64_t lba, const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(lba * e2e::kSector));
}

// Sector s carries its number and a pattern, so that any byte moved to the
// wrong place shows.
Bytes PatternDisk() {
  Bytes all(kDiskSectors * e2e::kSector);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i / 512 * 7 + i * 13);
  return all;
}

// A boot sector that names its file system, with a serial number.
Bytes BootSector(const char* oem, const char* fsAt82) {
  Bytes s(512, 0);
  s[0] = 0xEB;
  s[1] = 0x52;
  s[2] = 0x90;
  std::copy_n(oem, 8, s.begin() + 3);
  if (fsAt82 != nullptr) std::copy_n(fsAt82, 8, s.begin() + 82);
  s[72] = 0x11;
  s[73] = 0x22;
  s[510] = 0x55;
  s[511] = 0xAA;
  return s;
}

// The MBR disk: entries out of order (so that sort has work), NTFS,
// FAT32, an extended partition with one logical, free space at the end.
Bytes MbrDisk(uint32_t signature, uint8_t firstType, bool sorted = false) {
  Bytes all = PatternDisk();
  const Bytes fat = Entry(0, 0x0C, 563, 500);
  const Bytes ntfs = Entry(0x80, firstType, 63, 500);
  Put(all, 0, e2e::Mbr({sorted ? ntfs : fat, sorted ? fat : ntfs, Entry(0, 0x05, 1063, 600)}, signature));
  Put(all, 63, BootSector("NTFS    ", nullptr));
  Put(all, 563, BootSector("MSDOS5.0", "FAT32   "));
  Put(all, 1063, e2e::Ebr(Entry(0, 0x07, 63, 400)));
  Put(all, 1126, BootSector("NTFS    ", nullptr));
  Put(all, 1663, Zeros(kDiskSectors - 1663));
  return all;
}

struct Drive {
  std::string file;  // in the machine's folder
  Bytes pristine;    // raw images only
  std::string hash;  // a VMware disk: the whole file as it was
};

class FaultMatrix : public ::testing::Test {
 protected:
  void SetUp() override {
    gpt_ = e2e::HaveTool("sgdisk");
    vmdk_ = e2e::HaveTool("qemu-img");
    dir_ = machine_.dir();
    // The alternative disks whose backups the restores write: other
    // signature, other type, other GPT.
    e2e::Image alt(dir_ + "/alt0.img", kDiskSectors);
    alt.Write(0, MbrDisk(0xA1B2C3D4, 0x17));
    AddRaw(0, "disk0.img", MbrDisk(0x12345678, 0x07));
    // In order, for create.
    AddRaw(3, "disk3.img", MbrDisk(0x87654321, 0x07, true));
    if (gpt_) {
      MakeGpt("alt1.img", "-n 1:40:499 -t 1:0700 -n 2:500:1999 -t 2:0700");
      MakeGpt("disk1.img", "-n 1:40:999 -t 1:0700 -n 2:1000:1999 -t 2:8300");
      AddRaw(1, "disk1.img", ReadAll(dir_ + "/disk1.img"));
    }
    if (vmdk_) {
      e2e::Image raw(dir_ + "/vm.img", kDiskSectors);
      raw.Write(0, MbrDisk(0x0BADF00D, 0x07));
      e2e::ShellOk("cd '" + dir_ + "' && qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse vm.img disk2.vmdk");
      drives_[2] = Drive{"disk2.vmdk", {}, e2e::ReadFileText(dir_ + "/disk2.vmdk")};
    }
    // The backups of the alternative disks, saved by the program itself.
    const std::string altMachine = dir_ + "/alt.ini";
    std::string text = "[machine]\ncodepage = 437\n[drive 0]\nimage = alt0.img\n";
    if (gpt_) text += "[drive 1]\nimage = alt1.img\n";
    e2e::WriteFileText(altMachine, text);
    for (const Args& save : std::vector<Args>{{"/save=mbr", "/disk=0", "/filename=mbr.dhb"},
                                              {"/save=track0", "/disk=0", "/filename=track0.dhb"},
                                              {"/save=vbr", "/disk=0", "/part=1", "/filename=vbr.dhb"},
                                              {"/save=disk", "/disk=0", "/filename=disk.dhb"},
                                              {"/save=mbr", "/disk=0", "/nohdr", "/filename=mbr.bin"}}) {
      ASSERT_EQ(0, e2e::RunProgram(e2e::DiskholdPath(), save, "", altMachine, dir_).status);
    }
    if (gpt_) {
      ASSERT_EQ(0, e2e::RunProgram(e2e::DiskholdPath(), {"/save=gpt", "/disk=1", "/filename=gpt.dhb"}, "",
                                   altMachine, dir_)
                       .status);
    }
    // Truncated copies: the header promises more than the file holds.
    for (const char* name : {"mbr", "track0", "vbr", "disk", "gpt"}) {
      const std::string whole = e2e::ReadFileText(dir_ + "/" + name + ".dhb");
      if (whole.empty()) continue;
      const size_t keep = whole.size() > 1024 ? whole.size() / 2 : 512 + 100;
      e2e::WriteFileText(dir_ + "/short-" + name + ".dhb", whole.substr(0, keep));
    }
    e2e::ShellOk("mkdir -p '" + dir_ + "/taken.dhb'");
  }

  void AddRaw(int number, const std::string& file, const Bytes& bytes) {
    e2e::Image image(dir_ + "/" + file, kDiskSectors);
    image.Write(0, bytes);
    drives_[number] = Drive{file, bytes, {}};
  }

  void MakeGpt(const std::string& file, const std::string& options) {
    e2e::Image image(dir_ + "/" + file, kDiskSectors);
    image.Write(0, PatternDisk());
    e2e::ShellOk("sgdisk -Z '" + image.path() + "' >/dev/null; sgdisk " + options + " '" + image.path() + "'");
    WriteAt(dir_ + "/" + file, 40, BootSector("NTFS    ", nullptr));
  }

  // The images as they were before any run.
  void Reset() {
    for (auto& [number, drive] : drives_) {
      const std::string path = dir_ + "/" + drive.file;
      if (drive.pristine.empty()) {
        if (e2e::ReadFileText(path) != drive.hash) e2e::WriteFileText(path, drive.hash);
      } else if (ReadAll(path) != drive.pristine) {
        WriteAt(path, 0, drive.pristine);
      }
    }
  }

  struct Run {
    e2e::Result result;
    int code = 0;
    std::vector<Transfer> trace;
  };

  // Runs on the pristine machine with the given keys of [drive N].
  Run RunWith(const Command& c, const std::map<int, std::string>& driveKeys, Args extra = {}) {
    Reset();
    std::ostringstream f;
    f << "[machine]\ncodepage = 437\nformatengine = ok\ntracelog = trace.txt\n";
    for (const auto& [number, drive] : drives_) {
      f << "[drive " << number << "]\nimage = " << drive.file << "\n";
      const auto keys = driveKeys.find(number);
      if (keys != driveKeys.end()) f << keys->second << "\n";
    }
    const std::string machineFile = dir_ + "/machine.ini";
    e2e::WriteFileText(machineFile, f.str());
    std::remove((dir_ + "/trace.txt").c_str());
    Args args = c.args;
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back("/result");
    Run run;
    run.result = e2e::RunProgram(e2e::DiskholdPath(), args, c.input, machineFile, dir_);
    run.code = ResultOf(run.result);
    // A compare whose sector cannot be read ends through the exception
    // report, without a final report or result line.
    if (run.code == -99999 && run.result.out.find("Error 99: Exception thrown") != std::string::npos) run.code = 99;
    run.trace = ParseTrace(e2e::ReadFileText(dir_ + "/trace.txt"));
    ++runs_;
    return run;
  }

  // The checks every run passes.  `allowed` are the results it may end with.
  void Check(const Command& c, const std::string& fault, const Run& run, const std::set<int>& allowed,
             const std::map<int, Bytes>& after) {
    const std::string where = c.name + " with " + fault;
    ASSERT_NE(-1, run.result.status) << where << ": killed (a hang?)\n" << run.result.out;
    ASSERT_NE(-99999, run.code) << where << ": no result line\n" << run.result.out << run.result.err;
    EXPECT_TRUE(allowed.count(run.code) != 0) << where << ": result " << run.code << "\n" << run.result.out;
    const auto message = kMessages.find(run.code);
    if (message != kMessages.end()) {
      EXPECT_NE(std::string::npos, run.result.out.find("Error " + std::to_string(run.code) + ": " + message->second))
          << where << "\n" << run.result.out;
    }
    for (const auto& [number, drive] : drives_) {
      const std::string path = dir_ + "/" + drive.file;
      if (drive.pristine.empty()) {
        // A VMware disk is looked at through qemu-img by the cases that
        // write it; everyone else must leave its file alone.
        if (DiskOf(c) != 2) {
          EXPECT_TRUE(drive.hash == e2e::ReadFileText(path)) << where << ": the VMware disk changed";
        }
        continue;
      }
      const Bytes now = ReadAll(path);
      ASSERT_EQ(drive.pristine.size(), now.size()) << where << ": drive " << number << " changed size";
      std::set<uint64_t> written;
      for (const Transfer& t : run.trace) {
        if (t.drive != number || t.op == "read") continue;
        for (uint64_t k = 0; k < t.moved; ++k) written.insert(t.first + k);
      }
      for (uint64_t s = 0; s < kDiskSectors; ++s) {
        const auto at = static_cast<std::ptrdiff_t>(s * e2e::kSector);
        if (std::equal(now.begin() + at, now.begin() + at + 512, drive.pristine.begin() + at)) continue;
        EXPECT_TRUE(written.count(s) != 0) << where << ": drive " << number << " sector " << s
                                           << " changed but was never written";
      }
      if (run.code != 0 && c.table != Table::None && after.count(number) != 0) {
        EXPECT_TRUE(TableIsOldOrNew(c.table, now, drive.pristine, after.at(number)))
            << where << ": drive " << number << " holds a half-written partition table";
      }
    }
  }

  static bool TableIsOldOrNew(Table table, const Bytes& now, const Bytes& before, const Bytes& after) {
    std::vector<std::pair<size_t, size_t>> parts;  // byte ranges
    if (table == Table::Mbr) parts = {{446, 66}};
    if (table == Table::Gpt) {
      parts = {{0, kGptPrimaryEnd * 512},
               {kGptBackupFirst * 512, (kDiskSectors - kGptBackupFirst) * 512}};
    }
    const auto same = [&](const Bytes& other) {
      for (const auto& [from, size] : parts) {
        const auto a = static_cast<std::ptrdiff_t>(from);
        if (!std::equal(now.begin() + a, now.begin() + a + static_cast<std::ptrdiff_t>(size), other.begin() + a)) {
          return false;
        }
      }
      return true;
    };
    return same(before) || same(after);
  }

  std::map<int, Bytes> Images() {
    std::map<int, Bytes> all;
    for (const auto& [number, drive] : drives_) {
      if (!drive.pristine.empty()) all[number] = ReadAll(dir_ + "/" + drive.file);
    }
    return all;
  }

  e2e::Machine machine_;  // only for its temporary folder
  std::string dir_;
  bool gpt_ = false;
  bool vmdk_ = false;
  std::map<int, Drive> drives_;
  int runs_ = 0;
};

const std::set<int> kLoad = {0, 506};

// Every command of the command table that touches sectors, as a user runs
// it on the test machine.  Disk 0 is MBR, disk 1 GPT, disk 2 a VMware disk.
std::vector<Command> Commands(bool gpt) {
  std::vector<Command> all = {
      {"list", {"/list", "/disk=*", "/logical", "/freespace"}, kLoad, {}},
      {"tablist", {"/tablist", "/disk=0"}, kLoad, {}},
      {"info", {"/info", "/disk=0"}, kLoad, {}},
      {"writeini", {"/writeini", "/disk=0", "/filename=report.ini"}, kLoad, {}},
      {"partcount", {"/partcount", "/disk=0"}, {0, 3, 506}, {}},
      {"issorted", {"/issorted", "/disk=0"}, {0, 1, 506}, {}},
      {"status", {"/status", "/disk=0"}, {0, -506}, {}},
      {"volumeid", {"/volumeid=Read", "/disk=0", "/part=2"}, {0, 506}, {}},
      {"show sector", {"/show=Sector", "/disk=0", "/sector=0"}, {0, 506, 510}, {}},
      {"show hidden", {"/show=Hidden", "/disk=0"}, {0, 506, 510}, {}},
      {"show file", {"/show=File", "/disk=0", "/filename=mbr.dhb"}, kLoad, {}},
      {"compare sectors", {"/compare", "/disk=0", "/source=0", "/target=62"}, {99, 153, 506}, {}},
      {"compare file", {"/compare", "/disk=0", "/source=0", "/target=mbr.dhb"}, {99, 153, 506}, {}},
      {"save mbr", {"/save=mbr", "/disk=0", "/filename=out.dhb"}, {506}, {}},
      {"save track0", {"/save=track0", "/disk=0", "/filename=out.dhb"}, {506}, {}},
      {"save vbr", {"/save=vbr", "/disk=0", "/part=1", "/filename=out.dhb"}, {506}, {}},
      {"save range", {"/save=range", "/disk=0", "/range=60-10", "/filename=out.dhb"}, {506, 508}, {}},
      {"save disk", {"/save=disk", "/disk=0", "/filename=out.dhb"}, {506, 508}, {}},
      {"restore mbr", {"/restore=mbr", "/disk=0", "/filename=mbr.dhb", "/confirm"}, {506}, {505}, Table::Mbr},
      {"restore track0", {"/restore=track0", "/disk=0", "/filename=track0.dhb", "/confirm"}, {506}, {505},
       Table::Mbr},
      {"restore vbr", {"/restore=vbr", "/disk=0", "/part=1", "/filename=vbr.dhb", "/confirm"}, {506}, {505}},
      {"restore sector", {"/restore=100", "/disk=0", "/filename=mbr.bin", "/confirm"}, {506}, {505}},
      {"restore disk", {"/restore=disk", "/disk=0", "/filename=disk.dhb", "/confirm"}, {506}, {505}, Table::Mbr},
      {"wipe mbr", {"/wipe=mbr", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"wipe track0", {"/wipe=track0", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"wipe range", {"/wipe=range", "/disk=0", "/range=1700-1799", "/confirm"}, {506}, {505}},
      {"wipe disk", {"/wipe=disk", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"copy", {"/copy", "/disk=0", "/source=63", "/target=1700", "/confirm"}, {506}, {505}},
      {"hide", {"/hide", "/disk=0", "/part=2", "/confirm"}, {506, 512}, {505}, Table::Mbr},
      {"unhide", {"/unhide", "/disk=0", "/part=2", "/confirm"}, {506, 512}, {505}, Table::Mbr},
      {"active", {"/active", "/disk=0", "/part=1", "/confirm"}, {506, 512}, {505}, Table::Mbr},
      {"inactive", {"/inactive", "/disk=0", "/part=*", "/confirm"}, {506, 512}, {505}, Table::Mbr},
      {"type", {"/type=0B", "/disk=0", "/part=2", "/confirm"}, {506, 512}, {505}, Table::Mbr},
      {"del", {"/del", "/disk=0", "/part=2", "/confirm"}, {506, 512}, {505}, Table::Mbr},
      {"sort", {"/sort", "/disk=0", "/confirm"}, {506, 125}, {505}, Table::Mbr},
      {"create", {"/create", "/disk=3", "/start=1700", "/size=100", "/confirm"}, {506, 518}, {505}, Table::Mbr},
      {"signature write", {"/signature=Write", "/value=1F2E3D4C", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"signature zero", {"/signature=Zero", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"signature generate", {"/signature=Generate", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"signature read", {"/signature=Read", "/disk=0"}, {0, 506}, {}},
      {"status write", {"/status=7", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"repair xp", {"/repair=XP", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"repair win7", {"/repair=Win7", "/disk=0", "/confirm"}, {506}, {505}, Table::Mbr},
      {"repair pt", {"/repair=pt", "/disk=0"}, {0, 506}, {}},
      {"bootmenu", {"/bootmenu", "/disk=0"}, {0, 506}, {505}, Table::Mbr, "1\n"},
      {"format", {"/format", "/disk=0", "/part=1"}, {0, 506}, {}},
  };
  if (gpt) {
    const std::set<int> gptLoad = {0, 200, 201, 203, 506};
    std::vector<Command> more = {
        {"list gpt", {"/list", "/disk=1"}, gptLoad, {}},
        {"save gpt", {"/save=gpt", "/disk=1", "/filename=out.dhb"}, {106, 200, 506}, {}},
        {"restore gpt", {"/restore=gpt", "/disk=1", "/filename=gpt.dhb", "/confirm"}, {131, 200, 201, 203, 506},
         {202}, Table::Gpt},
        // A wipe goes on past a sector it cannot clear: no table check.
        {"wipe gpt", {"/wipe=gpt", "/disk=1", "/confirm"}, {131, 200, 506}, {505}},
        {"del gpt", {"/del", "/disk=1", "/part=1", "/confirm"}, {106, 200, 201, 203, 506, 512}, {202}, Table::Gpt},
        {"del gpt all", {"/del", "/disk=1", "/part=*", "/confirm"}, {106, 200, 201, 203, 506, 512}, {202}, Table::Gpt},
    };
    all.insert(all.end(), more.begin(), more.end());
  }
  return all;
}

// How often a run that only loads disk `diskArg` reads each sector.
std::map<std::pair<int, uint64_t>, int> ReadCounts(const std::vector<Transfer>& trace) {
  std::map<std::pair<int, uint64_t>, int> counts;
  for (const Transfer& t : trace) {
    if (t.op != "read") continue;
    for (uint64_t k = 0; k < t.count; ++k) ++counts[{t.drive, t.first + k}];
  }
  return counts;
}

TEST_F(FaultMatrix, BadSectorAtEveryTouchedSector) {
  const auto started = std::chrono::steady_clock::now();
  std::map<std::string, int> perCommand;
  std::map<std::string, std::map<std::pair<int, uint64_t>, int>> loads;
  for (const Command& c : Commands(gpt_)) {
    SCOPED_TRACE(c.name);
    // What loading the command's disk reads: a bad sector there that only
    // the volume inspection reads must not change the command's result.
    const std::string diskArg = "/disk=" + std::to_string(DiskOf(c));
    if (loads.count(diskArg) == 0) {
      loads[diskArg] = ReadCounts(RunWith(Command("load", {"/partcount", diskArg}, {}, {}), {}).trace);
    }
    const int target = DiskOf(c);
    const Run clean = RunWith(c, {});
    ASSERT_FALSE(clean.trace.empty()) << c.name << " touched no sector";
    ASSERT_NE(-99999, clean.code) << c.name << "\n" << clean.result.out;
    const std::map<int, Bytes> after = Images();
    // Distinct (drive, sector) pairs, and whether the healthy run wrote each.
    std::set<std::pair<int, uint64_t>> probes;
    std::set<std::pair<int, uint64_t>> wrote;
    for (const Transfer& t : clean.trace) {
      if (t.drive != target && FirstSectorsOnly()) continue;
      for (uint64_t s : ProbeSectors(t)) probes.insert({t.drive, s});
      if (t.op == "read") continue;
      for (uint64_t k = 0; k < t.count; ++k) wrote.insert({t.drive, t.first + k});
    }
    for (const auto& [drive, sector] : probes) {
      const Run run = RunWith(c, {{drive, "badsectors = " + std::to_string(sector)}});
      std::set<int> allowed = c.onRead;
      const std::pair<int, uint64_t> at{drive, sector};
      // The table sectors of the disk the command works on are never mere
      // inspection: sector 0, and the GPT's header and array.  Sectors of
      // the other drives are looked at in passing (the first load, unique
      // signatures).
      const bool table = drive == target && (sector == 0 || (drive == 1 && sector < kGptPrimaryEnd));
      const bool inspected = drive != target || loads[diskArg].count(at) != 0;
      if (wrote.count(at) != 0) {
        allowed.insert(c.onWrite.begin(), c.onWrite.end());
      } else if (!table && inspected) {
        allowed.insert(clean.code);
      }
      Check(c, "bad sector " + std::to_string(sector) + " of drive " + std::to_string(drive), run, allowed, after);
      ++perCommand[c.name];
    }
  }
  int total = 0;
  for (const auto& [name, count] : perCommand) {
    std::printf("  %-20s %d bad-sector cases\n", name.c_str(), count);
    total += count;
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count();
  std::printf("fault matrix: %d bad-sector cases over %zu commands, %d runs, %lld s\n", total, perCommand.size(),
              runs_, static_cast<long long>(seconds));
}

// Writing commands on a read-only drive, and on a drive whose long writes
// fail half-way (after no sector and after one).
TEST_F(FaultMatrix, ReadOnlyDriveAndHalfWayWrites) {
  int cases = 0;
  for (const Command& c : Commands(gpt_)) {
    if (c.onWrite.empty()) continue;
    SCOPED_TRACE(c.name);
    const Run clean = RunWith(c, {});
    const std::map<int, Bytes> after = Images();
    const int drive = DiskOf(c);
    Check(c, "a read-only drive", RunWith(c, {{drive, "readonly = yes"}}), {571}, after);
    ++cases;
    for (int n : {0, 1, 3}) {
      std::set<int> allowed = c.onWrite;
      // Nothing longer than n sectors written: the command succeeds.  A
      // zeroing the drive refuses is done by writes of single sectors.
      bool longWrite = false;
      bool zeroing = false;
      for (const Transfer& t : clean.trace) {
        longWrite = longWrite || (t.op == "write" && t.count > uint64_t(n));
        zeroing = zeroing || t.op == "zero";
      }
      if (!longWrite && !zeroing) allowed = {clean.code};
      if (zeroing) allowed.insert(clean.code);
      Check(c, "writes failing after " + std::to_string(n) + " sectors",
            RunWith(c, {{drive, "failwriteafter = " + std::to_string(n)}}), allowed, after);
      ++cases;
    }
  }
  std::printf("fault matrix: %d read-only and half-way cases\n", cases);
}

// Backup files that are missing, cut short, or cannot be written.
TEST_F(FaultMatrix, BackupFiles) {
  struct FileCase {
    Command command;
    std::string file;
    std::set<int> allowed;
  };
  std::vector<FileCase> cases = {
      {{"restore mbr", {"/restore=mbr", "/disk=0", "/confirm"}, {}, {}, Table::Mbr}, "missing.dhb", {564}},
      {{"restore track0", {"/restore=track0", "/disk=0", "/confirm"}, {}, {}, Table::Mbr}, "missing.dhb", {564}},
      {{"restore disk", {"/restore=disk", "/disk=0", "/confirm"}, {}, {}, Table::Mbr}, "missing.dhb", {564}},
      {{"restore vbr", {"/restore=vbr", "/disk=0", "/part=1", "/confirm"}, {}, {}}, "missing.dhb", {134}},
      {{"restore sector", {"/restore=100", "/disk=0", "/confirm"}, {}, {}}, "missing.dhb", {564}},
      {{"show file", {"/show=File", "/disk=0"}, {}, {}}, "missing.dhb", {134}},
      {{"restore mbr", {"/restore=mbr", "/disk=0", "/confirm"}, {}, {}, Table::Mbr}, "short-mbr.dhb", {560}},
      {{"restore track0", {"/restore=track0", "/disk=0", "/confirm"}, {}, {}, Table::Mbr}, "short-track0.dhb", {560}},
      {{"restore disk", {"/restore=disk", "/disk=0", "/confirm"}, {}, {}, Table::Mbr}, "short-disk.dhb", {560}},
      {{"restore vbr", {"/restore=vbr", "/disk=0", "/part=1", "/confirm"}, {}, {}}, "short-vbr.dhb", {560}},
      {{"save mbr", {"/save=mbr", "/disk=0"}, {}, {}}, "taken.dhb", {563}},
      {{"save track0", {"/save=track0", "/disk=0"}, {}, {}}, "no/such/folder.dhb", {562}},
      {{"save vbr", {"/save=vbr", "/disk=0", "/part=1"}, {}, {}}, "/dev/full", {507}},
      {{"save disk", {"/save=disk", "/disk=0"}, {}, {}}, "taken.dhb", {562, 563}},
      {{"save disk", {"/save=disk", "/disk=0"}, {}, {}}, "/dev/full", {507}},
      {{"save range", {"/save=range", "/disk=0", "/range=0-100"}, {}, {}}, "/dev/full", {507}},
  };
  if (gpt_) {
    cases.push_back({{"restore gpt", {"/restore=gpt", "/disk=1", "/confirm"}, {}, {}, Table::Gpt}, "missing.dhb", {204}});
    cases.push_back({{"restore gpt", {"/restore=gpt", "/disk=1", "/confirm"}, {}, {}, Table::Gpt}, "short-gpt.dhb", {203}});
    cases.push_back({{"save gpt", {"/save=gpt", "/disk=1"}, {}, {}}, "/dev/full", {507}});
  }
  for (const FileCase& fc : cases) {
    const Run run = RunWith(fc.command, {}, {"/filename=" + fc.file});
    Check(fc.command, "file " + fc.file, run, fc.allowed, {});
    // Nothing reached any disk.
    for (const Transfer& t : run.trace) {
      EXPECT_EQ("read", t.op) << fc.command.name << " with " << fc.file << " wrote sectors " << t.first;
    }
  }
  std::printf("fault matrix: %zu backup-file cases\n", cases.size());
}

// A VMware disk whose sparse extent cannot grow: writes that need a new
// grain fail, those inside allocated grains succeed, and the file stays a
// valid VMware disk holding exactly what was written.
TEST_F(FaultMatrix, VmdkThatCannotGrow) {
  if (!vmdk_) GTEST_SKIP() << "qemu-img is not installed";
  struct GrowCase {
    Command command;
    std::set<int> allowed;
  };
  const std::vector<GrowCase> cases = {
      {{"hide", {"/hide", "/disk=2", "/part=2", "/confirm"}, {}, {}}, {0}},
      {{"copy", {"/copy", "/disk=2", "/source=63", "/target=1900", "/confirm"}, {}, {}}, {505}},
      {{"restore disk", {"/restore=disk", "/disk=2", "/filename=disk.dhb", "/confirm"}, {}, {}}, {0, 505}},
      {{"restore track0", {"/restore=track0", "/disk=2", "/filename=track0.dhb", "/confirm"}, {}, {}}, {0, 505}},
      {{"wipe range", {"/wipe=range", "/disk=2", "/range=1800-1999", "/confirm"}, {}, {}}, {0, 505}},
  };
  const std::string file = dir_ + "/disk2.vmdk";
  uint64_t size = 0;
  {
    const std::string text = e2e::ReadFileText(file);
    size = text.size();
  }
  for (const GrowCase& gc : cases) {
    const Run run = RunWith(gc.command, {{2, "growlimit = " + std::to_string(size)}});
    Check(gc.command, "an extent that cannot grow", run, gc.allowed, {});
    EXPECT_EQ(size, e2e::ReadFileText(file).size()) << gc.command.name << ": the extent grew";
    int status = 0;
    const std::string check = e2e::Shell("qemu-img check -f vmdk '" + file + "' 2>&1", &status);
    EXPECT_EQ(0, status) << gc.command.name << ": " << check;
    // The disk's sectors: changed only where the trace shows writes.
    e2e::ShellOk("qemu-img convert -f vmdk -O raw '" + file + "' '" + dir_ + "/vm-after.img'");
    const Bytes now = ReadAll(dir_ + "/vm-after.img");
    const Bytes before = ReadAll(dir_ + "/vm.img");
    ASSERT_EQ(before.size(), now.size());
    std::set<uint64_t> written;
    for (const Transfer& t : run.trace) {
      if (t.drive == 2 && t.op != "read") {
        for (uint64_t k = 0; k < t.moved; ++k) written.insert(t.first + k);
      }
    }
    for (uint64_t s = 0; s < kDiskSectors; ++s) {
      const auto at = static_cast<std::ptrdiff_t>(s * 512);
      if (!std::equal(now.begin() + at, now.begin() + at + 512, before.begin() + at)) {
        EXPECT_TRUE(written.count(s) != 0) << gc.command.name << ": sector " << s << " changed, never written";
      }
    }
  }
}

}  // namespace
