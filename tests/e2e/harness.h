// Helpers for end-to-end tests: build disk images and a machine file in a
// temporary folder, run the built diskhold on that simulated machine, and
// look at its output, its result and the images' bytes afterwards.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace e2e {

constexpr uint64_t kSector = 512;
using Bytes = std::vector<uint8_t>;
using Args = std::vector<std::string>;

// One sparse image file; sectors are written straight to the file.
class Image {
 public:
  Image() = default;
  Image(std::string path, uint64_t sectors);
  const std::string& path() const { return path_; }
  uint64_t sectors() const { return sectors_; }
  void Write(uint64_t lba, const std::vector<uint8_t>& bytes) const;
  std::vector<uint8_t> Read(uint64_t lba, uint64_t count = 1) const;

 private:
  std::string path_;
  uint64_t sectors_ = 0;
};

// A 16-byte MBR partition entry.
std::vector<uint8_t> Entry(uint8_t boot, uint8_t type, uint32_t start, uint32_t count);
// A sector 0 with boot code 33 C0, a signature, the given entries and 55 AA.
std::vector<uint8_t> Mbr(const std::vector<std::vector<uint8_t>>& entries, uint32_t signature = 0x12345678);
// An EBR: no boot code, the logical partition's entry, the link (none when
// empty) and 55 AA.
Bytes Ebr(const Bytes& logical, const Bytes& link = {});
Bytes Concat(std::initializer_list<Bytes> parts);
// Stores the low `bytes` bytes of `value` little-endian at `at`.
void PutLe(Bytes& b, size_t at, uint64_t value, int bytes);

struct Result {
  std::string out;
  std::string err;
  int status = -1;  // low 8 bits of the exit value, or -1 when killed
};

// A temporary folder holding a machine file and its images.
class Machine {
 public:
  // The machine's folder is made inside `parent`.
  explicit Machine(const std::string& parent = "/tmp");
  ~Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  const std::string& dir() const { return dir_; }
  std::string PathOf(const std::string& name) const { return dir_ + "/" + name; }

  // Adds [drive N] with an image of the given size; extra keys as written.
  Image& AddDrive(int number, uint64_t sectors, const std::map<std::string, std::string>& keys = {});
  Image& drive(int number) { return drives_.at(number); }
  // Free text appended to the machine file (sections of its own).
  void AddText(const std::string& text) { extra_ += text; }
  // Keys of the [machine] section.  The code page is pinned to 437 unless a
  // test sets it, so that outputs never depend on the locale of whoever runs
  // the tests; Set("codepage", "") leaves the key out (the console then
  // follows the terminal, see SetProcessEnv).
  void Set(const std::string& key, const std::string& value) { machineKeys_[key] = value; }
  // An environment variable of the diskhold process (LC_ALL, LANG...); an
  // empty value removes it.
  void SetProcessEnv(const std::string& name, const std::string& value) { processEnv_[name] = value; }

  std::string WriteMachineFile() const;
  // Runs diskhold with the arguments on this machine, stdin from the text
  // (closed at its end), in this folder as the working directory.
  Result Run(const std::vector<std::string>& args, const std::string& input = "") const;

 private:
  std::string dir_;
  std::map<int, Image> drives_;
  std::map<int, std::map<std::string, std::string>> driveKeys_;
  std::map<std::string, std::string> machineKeys_;
  std::map<std::string, std::string> processEnv_;
  std::string extra_;
};

// Runs any program (under the wrapper of DISKHOLD_WRAPPER, when set) with
// arguments and stdin text, with the environment
// variable DISKHOLD_MACHINE set to `machineFile` (unset when empty) and the
// variables of `env` set (removed when their value is empty).
Result RunProgram(const std::string& program, const std::vector<std::string>& args, const std::string& input,
                  const std::string& machineFile, const std::string& workDir,
                  const std::map<std::string, std::string>& env = {});

std::string DiskholdPath();
// The words of the environment variable DISKHOLD_WRAPPER (split at blanks),
// which every run of the program is started under: for instance
// "valgrind --tool=memcheck --error-exitcode=197".  Empty when not set.
std::vector<std::string> WrapperWords();
// The whole value printed by "/result" (the last " Result:" line).
int ResultOf(const Result& r);
inline bool Has(const Result& r, const std::string& text) { return r.out.find(text) != std::string::npos; }
std::string ReadFileText(const std::string& path);
void WriteFileText(const std::string& path, const std::string& text);
// Whether a program is on PATH (for tests that use outside tools).
bool HaveTool(const std::string& name);
// Runs a shell command; returns its stdout, sets status.
std::string Shell(const std::string& command, int* status = nullptr);
// Runs a shell command that must succeed; returns stdout and stderr.
std::string ShellOk(const std::string& command);

}  // namespace e2e
