// VMware disk files end to end, made and checked by qemu-img: each subformat
// filled from a raw image (an MBR with logical partitions past the first
// 2 GiB extent, a GPT) lists like the raw disk; the same edits on the raw
// disk and on the VMware disk leave the same bytes and a file qemu-img
// finds clean; whole-disk restores allocate grains; VMware disks as drives
// of a machine file and of DISKHOLD_DISKS; files that are refused.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using e2e::Machine;
using e2e::Result;
using e2e::ResultOf;
using Args = std::vector<std::string>;

constexpr uint64_t kBigSectors = 6291456;  // 3 GiB: two extents of the twoGb kinds
constexpr uint64_t kSmallSectors = 131072;  // 64 MiB
const std::map<std::string, std::string> kQemuGeometry = {{"heads", "16"}, {"sectors", "63"}};

std::string Sh(const std::string& command) {
  int status = 0;
  std::string out = e2e::Shell(command + " 2>&1", &status);
  EXPECT_EQ(status, 0) << command << "\n" << out;
  return out;
}

// The listing's partition rows up to the drive-letter column (a virtual
// disk shows "NA" and "<Virtual>" there), with each disk's size lines.
std::vector<std::string> Rows(const std::string& out) {
  std::vector<std::string> rows;
  std::istringstream lines(out);
  size_t dl = std::string::npos;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("DL Vol Label") != std::string::npos) {
      dl = line.find("DL Vol Label");
      std::getline(lines, line);  // the column rules
    } else if (line.find("Sectors:") != std::string::npos || line.find("Partitions:") != std::string::npos) {
      rows.push_back(line.substr(0, 40));
    } else if (dl != std::string::npos && line.size() > dl && line.find("---") == std::string::npos) {
      rows.push_back(line.substr(0, dl));
    } else {
      dl = std::string::npos;
    }
  }
  return rows;
}

// What show= prints of a sector, without its heading (which names the disk).
std::string Details(const std::string& out) {
  const size_t at = out.find("Partition details");
  return at == std::string::npos ? std::string() : out.substr(at);
}

class Vmdk : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    for (const char* tool : {"qemu-img", "sfdisk", "sgdisk"}) {
      if (!e2e::HaveTool(tool)) GTEST_SKIP() << tool << " is not installed";
    }
  }
  std::string Raw() { return m.drive(0).path(); }
  // The raw drive 0 in qemu's geometry, so that CHS fields agree.
  void MakeRaw(uint64_t sectors) { m.AddDrive(0, sectors, kQemuGeometry); }
  void MakeMbr() {
    MakeRaw(kBigSectors);
    // The second logical's EBR lies in the second extent.
    Sh("printf 'label: dos\\nstart=2048, size=1048576, type=7\\nstart=2099200, size=4192256, type=5\\n"
       "start=2101248, size=1048576, type=83\\nstart=4194400, size=16288, type=7\\n' | sfdisk -q '" +
       Raw() + "'");
  }
  void MakeGpt() {
    MakeRaw(kBigSectors);
    Sh("sgdisk -o -n 1:2048:+512M -t 1:0700 -n 2:0:+1G -t 2:8300 -n 3:0:0 -t 3:8200 '" + Raw() + "'");
  }
  std::string Convert(const std::string& name) {
    Sh("qemu-img convert -f raw -O vmdk -o subformat=" + std::string(GetParam()) + " '" + Raw() + "' '" +
       m.PathOf(name) + "'");
    return name;
  }
  Result Run(Args args, const std::string& vmdk = "") {
    args.push_back("/text");
    if (!vmdk.empty()) args.push_back("/disk=" + vmdk);
    return m.Run(args);
  }
  // The same command on the raw disk and on the VMware disk.
  void Both(const Args& args, const std::string& vmdk) {
    const Result raw = Run(args);
    const Result virt = Run(args, vmdk);
    EXPECT_EQ(raw.status, 0) << args[0] << "\n" << raw.out;
    EXPECT_EQ(virt.status, 0) << args[0] << "\n" << virt.out;
  }
  // qemu-img finds the file clean, and its bytes are the raw disk's.
  void ExpectSameAsRaw(const std::string& vmdk) {
    EXPECT_NE(Sh("qemu-img check '" + m.PathOf(vmdk) + "'").find("No errors"), std::string::npos);
    const std::string out = m.PathOf("out.raw");
    Sh("qemu-img convert -O raw '" + m.PathOf(vmdk) + "' '" + out + "'");
    EXPECT_EQ(Sh("stat -c %s '" + out + "' '" + Raw() + "' | uniq | wc -l"), "1\n");
    // qemu-img compare skips holes, so 3 GiB compare quickly.
    EXPECT_NE(Sh("qemu-img compare -f raw -F raw '" + out + "' '" + Raw() + "'").find("identical"),
              std::string::npos);
  }

  Machine m;
};

TEST_P(Vmdk, MbrWithLogicalPartitionsListsAndEditsLikeTheRawDisk) {
  MakeMbr();
  const std::string vmdk = Convert("mbr.vmdk");
  const Result raw = Run({"/list", "/logical"});
  const Result virt = Run({"/list", "/logical"}, vmdk);
  ASSERT_EQ(virt.status, 0) << virt.out;
  EXPECT_EQ(Rows(virt.out), Rows(raw.out));
  EXPECT_EQ(Rows(raw.out).size(), 6u);  // two size lines, two primaries, two logicals
  EXPECT_TRUE(e2e::Has(virt, "Description: VMware ")) << virt.out;

  // The second EBR shows alike; a sector in a grain without storage is all
  // zeros, so there is no MBR to show there.
  for (const char* sector : {"/sector=4194399", "/sector=5000000"}) {
    const Result a = Run({"/show=sector", sector, "/result"});
    const Result b = Run({"/show=sector", sector, "/result"}, vmdk);
    EXPECT_EQ(ResultOf(b), ResultOf(a)) << sector;
    EXPECT_EQ(Details(b.out), Details(a.out)) << sector;
  }
  EXPECT_EQ(ResultOf(Run({"/show=sector", "/sector=5000000", "/result"}, vmdk)), 510);

  for (const Args& args : {Args{"/create=x", "/confirm"}, Args{"/del", "/part=1", "/confirm"},
                           Args{"/sort", "/confirm"}, Args{"/wipe=range", "/range=4194398-4194401", "/confirm"},
                           Args{"/del", "/part=2", "/confirm"}}) {
    Both(args, vmdk);
  }
  EXPECT_EQ(Rows(Run({"/list", "/logical"}, vmdk).out), Rows(Run({"/list", "/logical"}).out));
  ExpectSameAsRaw(vmdk);
}

TEST_P(Vmdk, GptListsAndDeletesLikeTheRawDisk) {
  MakeGpt();
  const std::string vmdk = Convert("gpt.vmdk");
  const Result raw = Run({"/list"});
  const Result virt = Run({"/list"}, vmdk);
  ASSERT_EQ(virt.status, 0) << virt.out;
  EXPECT_EQ(Rows(virt.out), Rows(raw.out));
  EXPECT_TRUE(e2e::Has(virt, "Backup GPT:      Virtual")) << virt.out;
  Both({"/del", "/part=2", "/confirm"}, vmdk);
  EXPECT_EQ(Rows(Run({"/list"}, vmdk).out), Rows(Run({"/list"}).out));
  ExpectSameAsRaw(vmdk);
}

TEST_P(Vmdk, WholeDiskRestoreIntoAnEmptyVmwareDiskGivesTheRawBytes) {
  MakeRaw(kSmallSectors);
  Sh("printf 'label: dos\\nstart=2048, size=40000, type=c\\nstart=50000, size=60000, type=5\\n"
     "start=52048, size=8000, type=83\\n' | sfdisk -q '" + Raw() + "'");
  // Data in a few grains, one grain-aligned and some not.
  for (const char* seek : {"3000", "16384", "70001"}) {
    Sh("dd if=/dev/urandom of='" + Raw() + "' bs=512 seek=" + std::string(seek) + " count=300 conv=notrunc status=none");
  }
  ASSERT_EQ(Run({"/save=disk", "/filename=disk.bin"}).status, 0);
  Sh("qemu-img create -q -f vmdk -o subformat=" + std::string(GetParam()) + " '" + m.PathOf("empty.vmdk") + "' 64M");
  const Result r = Run({"/restore=disk", "/filename=disk.bin", "/confirm"}, "empty.vmdk");
  ASSERT_EQ(r.status, 0) << r.out;
  ExpectSameAsRaw("empty.vmdk");
}

INSTANTIATE_TEST_SUITE_P(Subformats, Vmdk,
                         ::testing::Values("monolithicSparse", "monolithicFlat", "twoGbMaxExtentSparse",
                                           "twoGbMaxExtentFlat"));

class VmdkDrives : public Vmdk {};

TEST_F(VmdkDrives, AVmwareDiskAsADriveAndImagesWithoutAMachineFileListLikeTheRawDisk) {
  MakeMbr();
  Sh("qemu-img convert -f raw -O vmdk -o subformat=twoGbMaxExtentSparse '" + Raw() + "' '" + m.PathOf("d.vmdk") + "'");
  const std::vector<std::string> raw = Rows(Run({"/list", "/logical"}).out);
  m.AddText("\n[drive 1]\nimage = d.vmdk\nheads = 16\nsectors = 63\n");
  EXPECT_EQ(Rows(Run({"/list", "/logical", "/disk=1"}).out), raw);

  // DISKHOLD_DISKS: the raw image and the VMware disk, with default drives
  // (255 heads), so that only the rows are compared.
  const std::string out = Sh("cd '" + m.dir() + "' && DISKHOLD_MACHINE= DISKHOLD_DISKS=disk0.img:d.vmdk " +
                             e2e::DiskholdCommand() + " /list /logical /text");
  const std::vector<std::string> rows = Rows(out);
  ASSERT_EQ(rows.size(), 2 * raw.size()) << out;
  EXPECT_EQ(std::vector<std::string>(rows.begin(), rows.begin() + raw.size()),
            std::vector<std::string>(rows.begin() + raw.size(), rows.end()));
  EXPECT_NE(out.find("Disk: 1"), std::string::npos) << out;
}

TEST_F(VmdkDrives, FilesThatAreNoUsableVmwareDiskEndWithTheirCode) {
  MakeRaw(kSmallSectors);
  auto make = [&](const char* subformat, const std::string& name) {
    Sh("qemu-img create -q -f vmdk -o subformat=" + std::string(subformat) + " '" + m.PathOf(name) + "' 8M");
  };
  make("streamOptimized", "stream.vmdk");
  make("monolithicFlat", "custom.vmdk");
  Sh("sed -i 's/createType=\"monolithicFlat\"/createType=\"custom\"/' '" + m.PathOf("custom.vmdk") + "'");
  make("monolithicFlat", "lost.vmdk");
  Sh("rm '" + m.PathOf("lost-flat.vmdk") + "'");
  e2e::WriteFileText(m.PathOf("text.vmdk"), "just some text\n");
  const std::string before = Sh("cd '" + m.dir() + "' && md5sum *.vmdk");
  for (const auto& [file, code] : {std::pair<const char*, int>{"stream.vmdk", 304}, {"custom.vmdk", 304},
                                   {"lost.vmdk", 303}, {"text.vmdk", 302}}) {
    const Result r = Run({"/list", "/result"}, file);
    EXPECT_EQ(ResultOf(r), code) << file << "\n" << r.out;
    EXPECT_EQ(ResultOf(Run({"/wipe=mbr", "/confirm", "/result"}, file)), code) << file;
    // The same VMware file as the drive of DISKHOLD_DISKS and of a machine
    // file (a file that is no VMware disk is a raw image there).
    if (std::string(file) == "text.vmdk") continue;
    Machine own;
    own.AddText("\n[drive 0]\nimage = " + m.PathOf(file) + "\n");
    for (const Args& args : {Args{"/list", "/result"}, Args{"/wipe=mbr", "/confirm", "/result"}}) {
      const Result listed = e2e::RunProgram(e2e::DiskholdPath(), args, "", "", m.dir(), {{"DISKHOLD_DISKS", file}});
      EXPECT_EQ(ResultOf(listed), code) << file << " in DISKHOLD_DISKS\n" << listed.out << listed.err;
      EXPECT_EQ(ResultOf(own.Run(args)), code) << file << " as a drive";
    }
  }
  EXPECT_EQ(Sh("cd '" + m.dir() + "' && md5sum *.vmdk"), before);
}

// A sparse file whose grain tables qemu-img made and this test damaged:
// the disk lists and shows sectors, names the damage once on standard
// error, and refuses every write before anything is written, whether it is
// a drive of the machine or named by /disk=.
TEST_F(VmdkDrives, DamagedGrainTablesOpenForReadingOnly) {
  MakeRaw(8192);
  Sh("printf 'label: dos\\nstart=63, size=4000, type=7\\n' | sfdisk -q '" + Raw() + "'");
  // Data in grain 20 (128 sectors per grain), beside grain 0.
  Sh("dd if=/dev/urandom of='" + Raw() + "' bs=512 seek=2600 count=8 conv=notrunc status=none");
  const std::string clean = m.PathOf("clean.vmdk");
  Sh("qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse '" + Raw() + "' '" + clean + "'");
  // The primary and redundant entries of grains 0 and 20, from the header's
  // directory offsets (sectors at bytes 56 and 48): the table of each
  // directory's first entry.
  auto tableOf = [&](int dirOffsetByte) {
    return std::stoull(Sh("od -An -tu4 -j $(( $(od -An -tu8 -j" + std::to_string(dirOffsetByte) + " -N8 '" + clean +
                          "') * 512 )) -N4 '" + clean + "'"));
  };
  const uint64_t gt = tableOf(56);
  const uint64_t rgt = tableOf(48);
  auto entry = [&](uint64_t table, int grain) { return std::to_string(table * 512 + grain * 4); };
  auto poke = [](const std::string& file, const std::string& at, uint32_t value) {
    std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::stoll(at));
    for (int i = 0; i < 4; ++i) f.put(static_cast<char>(value >> (8 * i)));
  };
  const auto grain0 = static_cast<uint32_t>(std::stoul(Sh("od -An -tu4 -j" + entry(gt, 0) + " -N4 '" + clean + "'")));
  struct Damage {
    const char* name;
    std::vector<std::pair<uint64_t, uint32_t>> entries;  // table, grain 20's new entry
    const char* warning;
  };
  const std::vector<Damage> cases = {
      {"aliased", {{gt, grain0}, {rgt, grain0}},
       "grains 0 and 20 (table 0 entry 0, table 0 entry 20) both point at sector "},
      {"past-end", {{gt, 0x100000}, {rgt, 0x100000}}, "grain 20 points at sector 1048576, past the file's end"},
      {"metadata", {{gt, 1}, {rgt, 1}}, "grain 20 points at sector 1, inside the metadata"},
      {"twin", {{rgt, 0}}, "its redundant copy at sector 0"},
  };
  for (const Damage& d : cases) {
    const std::string name = std::string(d.name) + ".vmdk";
    Sh("cp '" + clean + "' '" + m.PathOf(name) + "'");
    for (const auto& [table, value] : d.entries) poke(m.PathOf(name), entry(table, 20), value);
    const std::string before = Sh("md5sum '" + m.PathOf(name) + "'");
    // By path on a machine whose drive is the raw disk, and as the only
    // drive of a machine of its own.
    Machine own;
    own.AddText("\n[drive 0]\nimage = " + m.PathOf(name) + "\n");
    for (const Machine* on : {&m, &own}) {
      const std::string disk = on == &m ? "/disk=" + name : "/disk=0";
      const Result list = on->Run({"/list", disk, "/result"});
      EXPECT_EQ(ResultOf(list), 0) << d.name << list.out;
      EXPECT_NE(list.err.find("diskhold: warning: "), std::string::npos) << d.name << list.err;
      EXPECT_NE(list.err.find(name + ": "), std::string::npos) << d.name << list.err;
      EXPECT_NE(list.err.find(d.warning), std::string::npos) << d.name << list.err;
      EXPECT_EQ(list.err.find('\n'), list.err.size() - 1) << "one warning line\n" << list.err;
      EXPECT_EQ(ResultOf(on->Run({"/show=sector", "/sector=0", disk, "/result"})), 0) << d.name;
      for (const Args& write : {Args{"/hide", "/part=1", "/confirm"}, Args{"/status=9", "/confirm"},
                                Args{"/create", "/size=max"}, Args{"/wipe=range", "/range=3000-3100", "/confirm"}}) {
        Args args = write;
        args.insert(args.end(), {disk, "/result"});
        const Result r = on->Run(args);
        EXPECT_EQ(ResultOf(r), 306) << d.name << " " << write[0] << "\n" << r.out;
      }
    }
    EXPECT_EQ(Sh("md5sum '" + m.PathOf(name) + "'"), before) << d.name;
  }
}

}  // namespace
