// Our two MBR boot programs on a real (emulated) PC: disks whose sector 0
// holds one of them boot under qemu-system-x86_64 into a probe volume boot
// sector that reports on the debug console port, and the programs' own
// messages are read back from the VGA text screen through the monitor.
// Skipped when qemu is not installed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "mbr/boot_images.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr const char* kQemu = "qemu-system-x86_64";
// The logical geometry handed to the BIOS, so that the entries' CHS bytes
// name the sectors the CHS road of the programs reads.
constexpr uint32_t kHeads = 255;
constexpr uint32_t kSectorsPerTrack = 63;
constexpr uint32_t kCylinderSectors = kHeads * kSectorsPerTrack;
// A small disk of four cylinders.
constexpr uint64_t kSmallDisk = 4 * kCylinderSectors;

const char* const kInvalidTable = "Invalid partition table";
const char* const kLoadError = "Error loading operating system";
const char* const kMissingOs = "Missing operating system";

// The probe boot sector (nasm, org 7C00h):
//   cmp dl,80h / jne bad / mov ax,ds / test ax,ax / jnz bad
//   cmp byte [si],80h / jne bad / mov eax,[si+8] / cmp eax,[7DF0h] / jne bad
//   mov si,7D00h / jmp out
//   bad: mov si,msg
//   out: cs lodsb / test al,al / jz stop / out 0E9h,al / jmp out
//   stop: cli / hlt / jmp stop
//   msg: db "BAD-HANDOVER",0
// It prints the text at 100h when it got DL = 80h and DS:SI at an active
// entry whose LBA is the dword at 1F0h.
const uint8_t kProbeCode[] = {
    0x80, 0xFA, 0x80, 0x75, 0x1B, 0x8C, 0xD8, 0x85, 0xC0, 0x75, 0x15, 0x80, 0x3C, 0x80, 0x75, 0x10,
    0x66, 0x8B, 0x44, 0x08, 0x66, 0x3B, 0x06, 0xF0, 0x7D, 0x75, 0x05, 0xBE, 0x00, 0x7D, 0xEB, 0x03,
    0xBE, 0x31, 0x7C, 0x2E, 0xAC, 0x84, 0xC0, 0x74, 0x04, 0xE6, 0xE9, 0xEB, 0xF6, 0xFA, 0xF4, 0xEB,
    0xFC, 'B',  'A',  'D',  '-',  'H',  'A',  'N',  'D',  'O',  'V',  'E',  'R',  0x00};
constexpr size_t kProbeMarkerOffset = 0x100;
constexpr size_t kProbeLbaOffset = 0x1F0;

void PutLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

Bytes ProbeSector(const std::string& marker, uint32_t entryLba, bool bootSignature = true) {
  Bytes s(512, 0);
  std::memcpy(s.data(), kProbeCode, sizeof kProbeCode);
  std::memcpy(s.data() + kProbeMarkerOffset, marker.data(), marker.size());
  PutLe32(s.data() + kProbeLbaOffset, entryLba);
  if (bootSignature) {
    s[510] = 0x55;
    s[511] = 0xAA;
  }
  return s;
}

// CHS bytes of an LBA in the test geometry; FE FF FF beyond cylinder 1023.
void PutChs(uint8_t* p, uint64_t lba) {
  const uint64_t cylinder = lba / kCylinderSectors;
  if (cylinder > 1023) {
    p[0] = 0xFE;
    p[1] = 0xFF;
    p[2] = 0xFF;
    return;
  }
  p[0] = static_cast<uint8_t>(lba / kSectorsPerTrack % kHeads);
  p[1] = static_cast<uint8_t>((lba % kSectorsPerTrack + 1) | ((cylinder >> 2) & 0xC0));
  p[2] = static_cast<uint8_t>(cylinder);
}

struct Part {
  uint8_t status;
  uint32_t start;
  uint32_t count;
  uint32_t chsStart = UINT32_MAX;  // where the CHS bytes point; the LBA when unset
};

Bytes Sector0(const uint8_t* image, const std::vector<Part>& parts) {
  Bytes s(512, 0);
  std::memcpy(s.data(), image, dh::kBootImageSize);
  PutLe32(s.data() + 440, 0x5EED1234);
  for (size_t i = 0; i < parts.size(); ++i) {
    uint8_t* e = s.data() + 446 + 16 * i;
    const Part& p = parts[i];
    e[0] = p.status;
    PutChs(e + 1, p.chsStart == UINT32_MAX ? p.start : p.chsStart);
    e[4] = 0x07;
    PutChs(e + 5, uint64_t{p.start} + p.count - 1);
    PutLe32(e + 8, p.start);
    PutLe32(e + 12, p.count);
  }
  s[510] = 0x55;
  s[511] = 0xAA;
  return s;
}

struct BootRun {
  std::string console;   // what was written to port E9h
  std::string screen;    // the VGA text screen, one line per row
  bool seen = false;     // the awaited text showed up in time
  bool running = false;  // qemu still ran at the end: the machine never reset
};

// Runs qemu on one raw image with the monitor on stdin/stdout.
class Qemu {
 public:
  Qemu(const std::string& dir, const e2e::Image& image) : dir_(dir) {
    const uint64_t cylinders = std::min<uint64_t>(1024, image.sectors() / kCylinderSectors);
    const std::vector<std::string> args = {
        "timeout", "20", kQemu, "-accel", "tcg", "-m", "32", "-display", "none", "-nic", "none", "-no-reboot",
        "-drive", "file=" + image.path() + ",format=raw,if=none,id=d0",
        "-device", "ide-hd,drive=d0,lcyls=" + std::to_string(cylinders) + ",lheads=255,lsecs=63",
        "-debugcon", "file:" + ConsolePath(), "-monitor", "stdio"};
    ::unlink(ConsolePath().c_str());
    int in[2];
    if (::pipe(in) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      int out = ::open(MonitorPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(out, 1);
      ::dup2(out, 2);
      ::close(in[0]);
      ::close(in[1]);
      ::close(out);
      std::vector<char*> argv;
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      ::execvp(argv[0], argv.data());
      _exit(127);
    }
    ::close(in[0]);
    monitor_ = in[1];
    ::signal(SIGPIPE, SIG_IGN);
  }

  ~Qemu() {
    if (monitor_ >= 0) {
      Send("quit\n");
      ::close(monitor_);
    }
    if (pid_ <= 0) return;
    for (int i = 0; i < 40 && Running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (Running()) {
      ::kill(pid_, SIGTERM);  // timeout passes it on to qemu
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Qemu(const Qemu&) = delete;
  Qemu& operator=(const Qemu&) = delete;

  // Waits until `text` is on the console or the screen (at most 15 s), then
  // half a second more, long enough for a program that resets after its
  // message to end qemu (-no-reboot).
  BootRun WaitFor(const std::string& text) {
    BootRun run;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(15);
    while (pid_ > 0 && Clock::now() < deadline && Running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      run.console = e2e::ReadFileText(ConsolePath());
      run.screen = Screen();
      if (run.console.find(text) != std::string::npos || run.screen.find(text) != std::string::npos) {
        run.seen = true;
        break;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    run.running = Running();
    run.console = e2e::ReadFileText(ConsolePath());
    return run;
  }

 private:
  std::string ConsolePath() const { return dir_ + "/console.txt"; }
  std::string MonitorPath() const { return dir_ + "/monitor.txt"; }

  bool Running() {
    if (exited_) return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == 0) return true;
    exited_ = true;
    return false;
  }

  void Send(const std::string& command) {
    ssize_t n = ::write(monitor_, command.data(), command.size());
    (void)n;
  }

  // Dumps the text buffer at B8000h and reads back every dump line seen so
  // far ("00000000000b8000: 0x53 0x07 ..."); later lines overwrite earlier.
  std::string Screen() {
    Send("xp /4000bx 0xb8000\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    const std::string out = e2e::ReadFileText(MonitorPath());
    size_t end = out.rfind('\n');
    if (end == std::string::npos || end < parsed_) end = parsed_;
    size_t pos = parsed_;
    while (pos < end) {
      size_t eol = out.find('\n', pos);
      ParseDumpLine(out.substr(pos, eol - pos));
      pos = eol + 1;
    }
    parsed_ = end;
    std::string screen;
    for (int row = 0; row < 25; ++row) {
      std::string line;
      for (int col = 0; col < 80; ++col) {
        const uint8_t c = vga_[2 * (80 * row + col)];
        line += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : ' ';
      }
      screen += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return screen;
  }

  void ParseDumpLine(const std::string& line) {
    const size_t colon = line.find("000b8");
    if (colon == std::string::npos) return;
    size_t addressEnd = line.find(':', colon);
    if (addressEnd == std::string::npos) return;
    const unsigned long address = std::strtoul(line.substr(colon, addressEnd - colon).c_str(), nullptr, 16);
    size_t pos = addressEnd;
    for (unsigned long a = address; (pos = line.find("0x", pos)) != std::string::npos; ++a, pos += 2) {
      if (a < 0xB8000 || a >= 0xB8000 + sizeof vga_) break;
      vga_[a - 0xB8000] = static_cast<uint8_t>(std::strtoul(line.substr(pos + 2, 2).c_str(), nullptr, 16));
    }
  }

  std::string dir_;
  pid_t pid_ = -1;
  int monitor_ = -1;
  bool exited_ = false;
  size_t parsed_ = 0;
  uint8_t vga_[4000] = {};
};

struct Program {
  const char* name;
  const uint8_t* image;
};

const Program kPrograms[] = {{"XP", dh::kXpBootImage}, {"Win7", dh::kWin7BootImage}};

class BootQemuTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!e2e::HaveTool(kQemu)) GTEST_SKIP() << kQemu << " is not installed";
    if (!e2e::HaveTool("timeout")) GTEST_SKIP() << "timeout is not installed";
  }

  e2e::Image& Disk(uint64_t sectors, const uint8_t* image, const std::vector<Part>& parts) {
    e2e::Image& disk = machine_.AddDrive(0, sectors);
    disk.Write(0, Sector0(image, parts));
    return disk;
  }

  BootRun Boot(const e2e::Image& disk, const std::string& text) {
    Qemu qemu(machine_.dir(), disk);
    return qemu.WaitFor(text);
  }

  e2e::Machine machine_;
};

TEST_F(BootQemuTest, EachProgramLoadsTheActiveVolumeByItsOwnRoad) {
  // The entry's CHS bytes name sector 3000, its LBA 2048: the XP program
  // reads by CHS inside the BIOS geometry, the Win7 program by LBA.
  const Part active{0x80, 2048, 4096, 3000};
  struct Case {
    const Program& program;
    const char* expected;
  };
  for (const Case& c : {Case{kPrograms[0], "CHS-ROAD"}, Case{kPrograms[1], "LBA-ROAD"}}) {
    SCOPED_TRACE(c.program.name);
    e2e::Image& disk = Disk(kSmallDisk, c.program.image, {{0x00, 63, 1985}, active, {0x00, 8192, 2048}});
    disk.Write(3000, ProbeSector("CHS-ROAD", 2048));
    disk.Write(2048, ProbeSector("LBA-ROAD", 2048));
    const BootRun run = Boot(disk, c.expected);
    EXPECT_TRUE(run.seen) << run.console << "\n" << run.screen;
    EXPECT_EQ(c.expected, run.console);
  }
}

TEST_F(BootQemuTest, AVolumeBeyondCylinder1023BootsByLbaWithBothPrograms) {
  // Cylinder 1024 of 256 heads: beyond any CHS address.  The CHS bytes
  // FE FF FF lead to an empty sector.
  constexpr uint32_t kStart = 16515072;
  for (const Program& p : kPrograms) {
    SCOPED_TRACE(p.name);
    e2e::Image& disk = Disk(kStart + 2 * kCylinderSectors, p.image, {{0x80, kStart, kCylinderSectors}});
    disk.Write(kStart, ProbeSector("FAR-VOLUME", kStart));
    const BootRun run = Boot(disk, "FAR-VOLUME");
    EXPECT_TRUE(run.seen) << run.console << "\n" << run.screen;
    EXPECT_EQ("FAR-VOLUME", run.console);
  }
}

TEST_F(BootQemuTest, FailuresShowTheirMessageAndHalt) {
  struct Case {
    const char* name;
    std::vector<Part> parts;
    bool probeSignature;
    const char* message;
  };
  const Case cases[] = {
      {"two active entries", {{0x80, 63, 1985}, {0x00, 2048, 100}, {0x80, 4096, 100}}, true, kInvalidTable},
      {"status byte 81", {{0x80, 63, 1985}, {0x81, 2048, 100}}, true, kInvalidTable},
      {"first sector without 55 AA", {{0x80, 63, 1985}}, false, kMissingOs},
      {"partition beyond the disk's end", {{0x80, 100000, 2048}}, true, kLoadError},
  };
  for (const Program& p : kPrograms) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(p.name) + ", " + c.name);
      e2e::Image& disk = Disk(kSmallDisk, p.image, c.parts);
      disk.Write(63, ProbeSector("BOOTED", 63, c.probeSignature));
      const BootRun run = Boot(disk, c.message);
      EXPECT_TRUE(run.seen) << run.screen;
      EXPECT_TRUE(run.running) << "the machine reset after the message";
      EXPECT_EQ("", run.console);
      for (const char* other : {kInvalidTable, kLoadError, kMissingOs}) {
        if (other != c.message) {
          EXPECT_EQ(std::string::npos, run.screen.find(other)) << run.screen;
        }
      }
    }
  }
}

TEST_F(BootQemuTest, NoActiveEntryHandsOverToTheBios) {
  for (const Program& p : kPrograms) {
    SCOPED_TRACE(p.name);
    e2e::Image& disk = Disk(kSmallDisk, p.image, {{0x00, 63, 1985}, {0x00, 2048, 100}});
    disk.Write(63, ProbeSector("BOOTED", 63));
    // SeaBIOS's words once INT 18h has tried the remaining boot devices.
    const BootRun run = Boot(disk, "No bootable device");
    EXPECT_TRUE(run.seen) << run.screen;
    EXPECT_EQ("", run.console);
    for (const char* message : {kInvalidTable, kLoadError, kMissingOs}) {
      EXPECT_EQ(std::string::npos, run.screen.find(message)) << run.screen;
    }
  }
}

}  // namespace
