#include "harness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace e2e {

Image::Image(std::string path, uint64_t sectors) : path_(std::move(path)), sectors_(sectors) {
  int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(sectors * kSector)) != 0) {
    throw std::runtime_error("cannot create image " + path_);
  }
  ::close(fd);
}

void Image::Write(uint64_t lba, const std::vector<uint8_t>& bytes) const {
  int fd = ::open(path_.c_str(), O_RDWR);
  if (fd < 0) throw std::runtime_error("cannot open " + path_);
  ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(lba * kSector));
  ::close(fd);
  if (n != static_cast<ssize_t>(bytes.size())) throw std::runtime_error("short write to " + path_);
}

std::vector<uint8_t> Image::Read(uint64_t lba, uint64_t count) const {
  std::vector<uint8_t> out(count * kSector);
  int fd = ::open(path_.c_str(), O_RDONLY);
  if (fd < 0) throw std::runtime_error("cannot open " + path_);
  ssize_t n = ::pread(fd, out.data(), out.size(), static_cast<off_t>(lba * kSector));
  ::close(fd);
  if (n < 0) n = 0;
  out.resize(static_cast<size_t>(n));
  return out;
}

std::vector<uint8_t> Entry(uint8_t boot, uint8_t type, uint32_t start, uint32_t count) {
  std::vector<uint8_t> e(16, 0);
  e[0] = boot;
  e[1] = 0xFE;
  e[2] = 0xFF;
  e[3] = 0xFF;
  e[4] = type;
  e[5] = 0xFE;
  e[6] = 0xFF;
  e[7] = 0xFF;
  for (int i = 0; i < 4; ++i) {
    e[8 + i] = static_cast<uint8_t>(start >> (8 * i));
    e[12 + i] = static_cast<uint8_t>(count >> (8 * i));
  }
  return e;
}

std::vector<uint8_t> Mbr(const std::vector<std::vector<uint8_t>>& entries, uint32_t signature) {
  std::vector<uint8_t> s(512, 0);
  s[0] = 0x33;
  s[1] = 0xC0;
  for (int i = 0; i < 4; ++i) s[440 + i] = static_cast<uint8_t>(signature >> (8 * i));
  for (size_t i = 0; i < entries.size() && i < 4; ++i) {
    for (size_t j = 0; j < 16 && j < entries[i].size(); ++j) s[446 + 16 * i + j] = entries[i][j];
  }
  s[510] = 0x55;
  s[511] = 0xAA;
  return s;
}

Bytes Ebr(const Bytes& logical, const Bytes& link) {
  Bytes s = Mbr({logical, link.empty() ? Bytes(16, 0) : link}, 0);
  s[0] = s[1] = 0;
  return s;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

void PutLe(Bytes& b, size_t at, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
}

Machine::Machine(const std::string& parent) {
  std::string tmpl = parent + "/diskhold-e2e-XXXXXX";
  char* d = ::mkdtemp(tmpl.data());
  if (!d) throw std::runtime_error("mkdtemp failed in " + parent);
  dir_ = d;
}

Machine::~Machine() {
  if (std::getenv("DISKHOLD_KEEP_TEMP")) return;
  std::string cmd = "rm -rf '" + dir_ + "'";
  int rc = std::system(cmd.c_str());
  (void)rc;
}

Image& Machine::AddDrive(int number, uint64_t sectors, const std::map<std::string, std::string>& keys) {
  std::string name = "disk" + std::to_string(number) + ".img";
  drives_[number] = Image(PathOf(name), sectors);
  driveKeys_[number] = keys;
  return drives_[number];
}

std::string Machine::WriteMachineFile() const {
  std::ostringstream f;
  f << "[machine]\n";
  if (machineKeys_.count("codepage") == 0) f << "codepage = 437\n";
  for (const auto& [k, v] : machineKeys_) {
    if (!v.empty()) f << k << " = " << v << "\n";
  }
  for (const auto& [n, img] : drives_) {
    f << "\n[drive " << n << "]\n";
    f << "image = disk" << n << ".img\n";
    for (const auto& [k, v] : driveKeys_.at(n)) f << k << " = " << v << "\n";
  }
  f << extra_;
  std::string path = PathOf("machine.ini");
  WriteFileText(path, f.str());
  return path;
}

Result Machine::Run(const std::vector<std::string>& args, const std::string& input) const {
  return RunProgram(DiskholdPath(), args, input, WriteMachineFile(), dir_, processEnv_);
}

std::vector<std::string> WrapperWords() {
  std::vector<std::string> words;
  const char* env = std::getenv("DISKHOLD_WRAPPER");
  if (env == nullptr) return words;
  std::istringstream in(env);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

Result RunProgram(const std::string& program, const std::vector<std::string>& args, const std::string& input,
                  const std::string& machineFile, const std::string& workDir,
                  const std::map<std::string, std::string>& env) {
  // A wrapper (valgrind, say) runs the program as its own argument; it is
  // found on PATH, the program keeps the path it was given.
  const std::vector<std::string> wrapper = WrapperWords();
  int inPipe[2], outPipe[2], errPipe[2];
  if (::pipe(inPipe) || ::pipe(outPipe) || ::pipe(errPipe)) throw std::runtime_error("pipe failed");
  pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::dup2(inPipe[0], 0);
    ::dup2(outPipe[1], 1);
    ::dup2(errPipe[1], 2);
    for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) ::close(fd);
    if (!workDir.empty() && ::chdir(workDir.c_str()) != 0) _exit(126);
    if (machineFile.empty()) {
      ::unsetenv("DISKHOLD_MACHINE");
    } else {
      ::setenv("DISKHOLD_MACHINE", machineFile.c_str(), 1);
    }
    for (const auto& [name, value] : env) {
      if (value.empty()) {
        ::unsetenv(name.c_str());
      } else {
        ::setenv(name.c_str(), value.c_str(), 1);
      }
    }
    std::vector<char*> argv;
    for (const auto& w : wrapper) argv.push_back(const_cast<char*>(w.c_str()));
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (wrapper.empty()) {
      ::execv(program.c_str(), argv.data());
    } else {
      ::execvp(argv[0], argv.data());
    }
    _exit(127);
  }
  ::close(inPipe[0]);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  ::signal(SIGPIPE, SIG_IGN);

  Result r;
  size_t written = 0;
  if (input.empty()) {
    ::close(inPipe[1]);
    inPipe[1] = -1;
  }
  bool outOpen = true, errOpen = true;
  // Under a wrapper such as valgrind a run takes many times longer.
  time_t deadline = ::time(nullptr) + (wrapper.empty() ? 60 : 600);
  while (outOpen || errOpen) {
    std::vector<pollfd> fds;
    if (outOpen) fds.push_back({outPipe[0], POLLIN, 0});
    if (errOpen) fds.push_back({errPipe[0], POLLIN, 0});
    if (inPipe[1] >= 0) fds.push_back({inPipe[1], POLLOUT, 0});
    int pr = ::poll(fds.data(), fds.size(), 1000);
    if (::time(nullptr) > deadline) {
      ::kill(pid, SIGKILL);
      break;
    }
    if (pr <= 0) continue;
    for (const auto& p : fds) {
      if (!p.revents) continue;
      if (p.fd == inPipe[1]) {
        ssize_t n = ::write(inPipe[1], input.data() + written, input.size() - written);
        if (n > 0) written += static_cast<size_t>(n);
        if (n < 0 || written >= input.size()) {
          ::close(inPipe[1]);
          inPipe[1] = -1;
        }
        continue;
      }
      char buf[65536];
      ssize_t n = ::read(p.fd, buf, sizeof buf);
      if (n <= 0) {
        if (p.fd == outPipe[0]) outOpen = false;
        else errOpen = false;
        continue;
      }
      (p.fd == outPipe[0] ? r.out : r.err).append(buf, static_cast<size_t>(n));
    }
  }
  if (inPipe[1] >= 0) ::close(inPipe[1]);
  ::close(outPipe[0]);
  ::close(errPipe[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::string DiskholdPath() {
  const char* env = std::getenv("DISKHOLD_EXE_OVERRIDE");
  return env ? env : DISKHOLD_EXE;
}

int ResultOf(const Result& r) {
  const size_t at = r.out.rfind("Result:");
  return at == std::string::npos ? -99999 : std::atoi(r.out.c_str() + at + 7);
}

std::string ReadFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFileText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool HaveTool(const std::string& name) {
  std::string cmd = "command -v " + name + " >/dev/null 2>&1 || test -x /sbin/" + name + " || test -x /usr/sbin/" + name;
  return std::system(cmd.c_str()) == 0;
}

std::string Shell(const std::string& command, int* status) {
  std::string out;
  std::string full = "PATH=\"$PATH:/sbin:/usr/sbin\"; " + command;
  FILE* p = ::popen(full.c_str(), "r");
  if (!p) {
    if (status) *status = -1;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int rc = ::pclose(p);
  if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

std::string ShellOk(const std::string& command) {
  int status = 0;
  std::string out = Shell(command + " 2>&1", &status);
  EXPECT_EQ(status, 0) << command << "\n" << out;
  return out;
}

}  // namespace e2e
