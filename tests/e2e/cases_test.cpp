// The case files: tests/e2e/cases/*.txt, one GoogleTest test per case.
//
// A case is a script of directives followed by the transcript they gave;
// the test runs the directives on a fresh simulated machine and expects
// the same transcript, byte for byte.  Format, one directive a line:
//
//   == NAME [@ V1 V2 ...]   starts a case; with values it runs once per value
//                           (each $P replaced by it), all with one transcript
//   # ...                   a comment; kept, like blank lines
//   needs TOOL...           the case is skipped when a tool is not on PATH
//   drive N SECTORS [KEY=VALUE...]   [drive N] of the machine file, a sparse image
//   set KEY VALUE           a key of [machine] (codepage is 437 unless set; "" leaves it out)
//   env NAME VALUE          an environment variable of the program ("" removes it)
//   text "..."              text appended to the machine file
//   machinefile NAME|-      runs use that file of the case folder, or none; bare: the made one
//   mbr N [at=LBA] [sig=HEX] [code] [nomark] [chs] ENTRY...
//                           a sector 0 (boot code 33 C0; `code`: a pattern in
//                           bytes 2..439 and 5A A5 in 444..445), ENTRY is
//                           BOOT:TYPE:START:COUNT (hex, hex, decimal, decimal) or -
//   ebr N LBA ENTRY [LINK]  an EBR: no boot code, the logical entry and the link
//   pattern N FIRST COUNT [SALT]   sectors holding their number in bytes 0..7
//                           and (sector * 7 + i * 13 + SALT) after it
//   fill N FIRST COUNT BYTE sectors of one byte value
//   poke LOC BYTES...       bytes at a place; BYTES are hex ("55AA") or "text"
//   gptcrc N                recomputes the CRC of the primary GPT header
//   file NAME [BYTES...]    a file of the case folder (`mkdir NAME` a folder)
//   sh COMMAND              a shell command that must succeed ($DIR, $D0..$D9: the images)
//   show COMMAND            a shell command whose output is part of the transcript
//   run [<INPUT] [~] ARGS   runs diskhold (INPUT with C escapes, given on standard input)
//   dump LOC / sum LOC / cat NAME   bytes in hex, their CRC-32, a file's text
//   use NAME ARGS...        the directives of case NAME of the same file, $1.. replaced
//                           by ARGS (a case whose name starts with _ is not run by itself)
// LOC is dN:LBA[+COUNT] (sectors), dN[:LBA]@BYTE[+LENGTH] or f:NAME[@BYTE[+LENGTH]].
// Transcript lines: "| " standard output (or a directive's output), "! "
// standard error, "= N" a non-zero exit status, "~ dN RANGES" the bytes of an
// image a run changed (all runs but those with `~`).  Control characters are
// written \xHH; "\ no newline" ends output without a line end.  The
// machine's folder reads $DIR.  DISKHOLD_UPDATE_CASES=1 writes the transcripts
// into the case files instead of comparing (run the cases of a file serially).
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "../reference.h"
#include "harness.h"

namespace {

using e2e::Bytes;

struct Case {
  std::string file, name;
  std::vector<std::string> params;
  std::vector<std::string> lines;  // the case's lines after its heading
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.file << ": " << c.name; }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

std::vector<std::string> Words(const std::string& line);

std::vector<Case> LoadCases() {
  std::vector<Case> all;
  std::vector<std::string> files;
  if (DIR* d = ::opendir(DISKHOLD_CASES_DIR)) {
    while (dirent* e = ::readdir(d)) {
      const std::string n = e->d_name;
      if (n.size() > 4 && n.compare(n.size() - 4, 4, ".txt") == 0) files.push_back(n);
    }
    ::closedir(d);
  }
  std::sort(files.begin(), files.end());
  for (const std::string& f : files) {
    for (const std::string& l : Lines(e2e::ReadFileText(std::string(DISKHOLD_CASES_DIR) + "/" + f))) {
      if (l.rfind("== ", 0) == 0) {
        Case c{f, "", {}, {}};
        std::vector<std::string> w = Words(l.substr(3));
        c.name = w.at(0);
        if (w.size() > 2 && w[1] == "@") c.params.assign(w.begin() + 2, w.end());
        all.push_back(c);
      } else if (!all.empty() && all.back().file == f) {
        all.back().lines.push_back(l);
      }
    }
  }
  return all;
}

// Words separated by blanks; "..." groups blanks and takes C escapes.
std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < line.size()) {
    if (line[i] == ' ' || line[i] == '\t') { ++i; continue; }
    std::string w;
    bool quoted = false;
    while (i < line.size() && (quoted || (line[i] != ' ' && line[i] != '\t'))) {
      const char c = line[i++];
      if (c == '"') { quoted = !quoted; continue; }
      if (!quoted || c != '\\' || i >= line.size()) { w += c; continue; }
      const char e = line[i++];
      if (e == 'n') w += '\n';
      else if (e == 'r') w += '\r';
      else if (e == 't') w += '\t';
      else if (e == 'x') { w += static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16)); i += 2; }
      else w += e;
    }
    out.push_back(w);
  }
  return out;
}

bool IsResult(const std::string& l) {
  return l == "|" || l == "!" || l.rfind("| ", 0) == 0 || l.rfind("! ", 0) == 0 || l.rfind("= ", 0) == 0 ||
         l.rfind("~ ", 0) == 0 || l == "\\ no newline";
}

Bytes ParseBytes(const std::vector<std::string>& w, size_t from) {
  Bytes b;
  for (size_t i = from; i < w.size(); ++i) {
    bool hex = !w[i].empty() && w[i].size() % 2 == 0 && w[i].find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (!hex) { b.insert(b.end(), w[i].begin(), w[i].end()); continue; }
    for (size_t k = 0; k < w[i].size(); k += 2) b.push_back(static_cast<uint8_t>(std::stoi(w[i].substr(k, 2), nullptr, 16)));
  }
  return b;
}

Bytes Entry(const std::string& text) {
  if (text == "-") return Bytes(16, 0);
  std::vector<std::string> f;
  std::stringstream in(text);
  for (std::string p; std::getline(in, p, ':');) f.push_back(p);
  return e2e::Entry(static_cast<uint8_t>(std::stoul(f.at(0), nullptr, 16)), static_cast<uint8_t>(std::stoul(f.at(1), nullptr, 16)),
                    static_cast<uint32_t>(std::stoul(f.at(2))), static_cast<uint32_t>(std::stoul(f.at(3))));
}

// The CHS fields of a 255-head, 63-sector geometry for an entry's first and last sector.
void SetChs(uint8_t* e) {
  const uint32_t start = e[8] | e[9] << 8 | e[10] << 16 | static_cast<uint32_t>(e[11]) << 24;
  const uint32_t count = e[12] | e[13] << 8 | e[14] << 16 | static_cast<uint32_t>(e[15]) << 24;
  for (auto [lba, at] : {std::pair<uint32_t, int>{start, 1}, {start + count - 1, 5}}) {
    const uint32_t c = lba / (255 * 63);
    e[at] = static_cast<uint8_t>((lba / 63) % 255);
    e[at + 1] = static_cast<uint8_t>(lba % 63 + 1 + ((c >> 2) & 0xC0));
    e[at + 2] = static_cast<uint8_t>(c & 0xFF);
  }
}

std::string Escaped(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c < 0x20 || c == 0x7F) {
      char b[8];
      std::snprintf(b, sizeof b, "\\x%02x", c);
      out += b;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// The text as transcript lines with the given prefix.
std::string Block(const std::string& text, const char* prefix) {
  if (text.empty()) return "";
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    size_t nl = text.find('\n', at);
    const std::string line = Escaped(text.substr(at, nl == std::string::npos ? std::string::npos : nl - at));
    out += line.empty() ? std::string(prefix, 1) + "\n" : prefix + line + "\n";
    if (nl == std::string::npos) return out + "\\ no newline\n";
    at = nl + 1;
  }
  return out;
}

class Runner {
 public:
  Runner(std::string file, std::string param) : file_(std::move(file)), param_(std::move(param)) {}

  // Runs one directive; returns its transcript lines.
  std::string Do(std::string line) {
    for (size_t at; (at = line.find("$P")) != std::string::npos;) line.replace(at, 2, param_);
    const std::vector<std::string> w = Words(line);
    if (w.empty() || w[0][0] == '#') return "";
    const std::string& op = w[0];
    const std::string rest = line.substr(std::min(line.size(), line.find(op) + op.size() + 1));
    if (op == "use") {
      std::string used;
      for (const Case& c : LoadCases()) {
        if (c.file != file_ || c.name != w[1]) continue;
        for (std::string l : c.lines) {
          for (size_t i = 2; i < 11; ++i) {
            const std::string key = "$" + std::to_string(i - 1);
            const std::string value = i >= w.size() ? "" : w[i].find(' ') == std::string::npos ? w[i] : '"' + w[i] + '"';
            for (size_t at; (at = l.find(key)) != std::string::npos;) l.replace(at, key.size(), value);
          }
          if (!IsResult(l)) used += Do(l);
        }
      }
      return used;
    } else if (op == "needs") {
      for (size_t i = 1; i < w.size(); ++i) {
        if (!e2e::HaveTool(w[i])) skip_ = w[i] + " is not installed";
      }
    } else if (op == "drive") {
      std::map<std::string, std::string> keys;
      for (size_t i = 3; i < w.size(); ++i) keys[w[i].substr(0, w[i].find('='))] = w[i].substr(w[i].find('=') + 1);
      m_.AddDrive(std::stoi(w[1]), std::stoull(w[2]), keys);
    } else if (op == "set") {
      m_.Set(w[1], w.size() > 2 ? w[2] : "");
    } else if (op == "env") {
      env_[w[1]] = w.size() > 2 ? w[2] : "";
      m_.SetProcessEnv(w[1], env_[w[1]]);
    } else if (op == "text") {
      m_.AddText(w[1]);
    } else if (op == "machinefile") {
      machineFile_ = w.size() > 1 ? w[1] : "";
    } else if (op == "mbr") {
      Mbr(w);
    } else if (op == "ebr") {
      Drive(w[1]).Write(std::stoull(w[2]), e2e::Ebr(Entry(w[3]), w.size() > 4 ? Entry(w[4]) : Bytes()));
    } else if (op == "pattern" || op == "fill") {
      const uint64_t first = std::stoull(w[2]), count = std::stoull(w[3]);
      const unsigned value = w.size() > 4 ? static_cast<unsigned>(std::stoul(w[4], nullptr, 16)) : 0;
      Bytes all(count * 512, static_cast<uint8_t>(value));
      for (uint64_t k = 0; op == "pattern" && k < count; ++k) {
        uint8_t* s = all.data() + k * 512;
        for (size_t i = 0; i < 512; ++i) s[i] = static_cast<uint8_t>((first + k) * 7 + i * 13 + value);
        for (int i = 0; i < 8; ++i) s[i] = static_cast<uint8_t>((first + k) >> (8 * i));
      }
      Drive(w[1]).Write(first, all);
    } else if (op == "poke") {
      Put(w[1], ParseBytes(w, 2));
    } else if (op == "gptcrc") {
      Bytes h = Drive(w[1]).Read(1);
      std::fill(h.begin() + 16, h.begin() + 20, 0);
      e2e::PutLe(h, 16, dh::test::ReferenceCrc32(h.data(), 92), 4);
      Drive(w[1]).Write(1, h);
    } else if (op == "file") {
      const Bytes b = ParseBytes(w, 2);
      e2e::WriteFileText(m_.PathOf(w[1]), std::string(b.begin(), b.end()));
    } else if (op == "mkdir") {
      e2e::ShellOk("mkdir -p '" + m_.PathOf(w[1]) + "'");
    } else if (op == "sh" || op == "show") {
      std::string vars = "cd '" + m_.dir() + "' && DIR='" + m_.dir() + "' ";
      for (int n = 0; n < 10; ++n) vars += "D" + std::to_string(n) + "='" + m_.PathOf("disk" + std::to_string(n) + ".img") + "' ";
      int status = 0;
      const std::string out = e2e::Shell(vars + "DISKHOLD_MACHINE='" + m_.PathOf("machine.ini") + "' DISKHOLD='" + e2e::DiskholdPath() + "' bash -c " + Quote(rest) + " 2>&1", &status);
      if (op == "sh") {
        EXPECT_EQ(status, 0) << line << "\n" << out;
        return "";
      }
      return Block(Filter(out), "| ") + (status != 0 ? "= " + std::to_string(status) + "\n" : "");
    } else if (op == "run") {
      return Run(w);
    } else if (op == "dump" || op == "sum") {
      const Bytes b = Get(w[1]);
      char head[64];
      if (op == "sum") {
        std::snprintf(head, sizeof head, "| %zu bytes, crc %08x\n", b.size(), dh::test::ReferenceCrc32(b.data(), b.size()));
        return head;
      }
      std::string out, last;
      bool starred = false;
      for (size_t at = 0; at < b.size(); at += 16) {
        std::string hex;
        for (size_t k = at; k < std::min(b.size(), at + 16); ++k) {
          std::snprintf(head, sizeof head, " %02x", b[k]);
          hex += head;
        }
        if (hex == last && at + 16 < b.size()) {
          if (!starred) out += "| *\n";
          starred = true;
          continue;
        }
        std::snprintf(head, sizeof head, "| %06zx:", at);
        out += head + hex + "\n";
        last = hex;
        starred = false;
      }
      return out.empty() ? "| (nothing)\n" : out;
    } else if (op == "cat") {
      return Block(Filter(e2e::ReadFileText(m_.PathOf(w[1]))), "| ");
    } else {
      ADD_FAILURE() << "unknown directive: " << line;
    }
    return "";
  }

  const std::string& skip() const { return skip_; }

 private:
  static std::string Quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
  }
  std::string Filter(std::string s) const {
    for (size_t at; (at = s.find(m_.dir())) != std::string::npos;) s.replace(at, m_.dir().size(), "$DIR");
    // The formatter's scratch file has a name of its own each run.
    return std::regex_replace(s, std::regex("diskhold-format-[0-9a-f]+"), "diskhold-format-*");
  }
  e2e::Image& Drive(const std::string& n) { return m_.drive(std::stoi(n[0] == 'd' ? n.substr(1) : n)); }

  void Mbr(const std::vector<std::string>& w) {
    uint64_t at = 0;
    uint32_t sig = 0x12345678;
    bool code = false, mark = true, chs = false;
    std::vector<Bytes> entries;
    for (size_t i = 2; i < w.size(); ++i) {
      if (w[i].rfind("at=", 0) == 0) at = std::stoull(w[i].substr(3));
      else if (w[i].rfind("sig=", 0) == 0) sig = static_cast<uint32_t>(std::stoul(w[i].substr(4), nullptr, 16));
      else if (w[i] == "code") code = true;
      else if (w[i] == "nomark") mark = false;
      else if (w[i] == "chs") chs = true;
      else entries.push_back(Entry(w[i]));
    }
    Bytes s = e2e::Mbr(entries, sig);
    for (size_t i = 0; chs && i < entries.size(); ++i) {
      if (s[446 + 16 * i + 12] || s[446 + 16 * i + 13] || s[446 + 16 * i + 14] || s[446 + 16 * i + 15]) SetChs(&s[446 + 16 * i]);
    }
    for (size_t i = 2; code && i < 440; ++i) s[i] = static_cast<uint8_t>(i * 13 + 5);
    if (code) s[444] = 0x5A, s[445] = 0xA5;
    if (!mark) s[510] = 0;
    Drive(w[1]).Write(at, s);
  }

  // A place: the path of its file, its first byte and its length (UINT64_MAX: to the end).
  void Where(const std::string& loc, std::string* path, uint64_t* first, uint64_t* length) {
    std::string spec = loc;
    if (loc.rfind("f:", 0) == 0) {
      const size_t at = loc.find('@');
      *path = m_.PathOf(loc.substr(2, at == std::string::npos ? std::string::npos : at - 2));
      spec = at == std::string::npos ? "@0" : loc.substr(at);
    } else {
      *path = Drive(loc.substr(0, loc.find_first_of(":@"))).path();
      spec = loc.substr(loc.find_first_of(":@"));
    }
    const size_t plus = spec.find('+'), at = spec.find('@', 1);
    const uint64_t unit = spec[0] == ':' && at == std::string::npos ? 512 : 1;
    *first = std::stoull(spec.substr(1)) * (spec[0] == ':' ? 512 : 1) + (at == std::string::npos ? 0 : std::stoull(spec.substr(at + 1)));
    *length = plus != std::string::npos ? std::stoull(spec.substr(plus + 1)) * unit : (unit == 512 ? 512 : UINT64_MAX);
  }
  Bytes Get(const std::string& loc) {
    std::string path;
    uint64_t first, length;
    Where(loc, &path, &first, &length);
    const std::string all = e2e::ReadFileText(path);
    if (first >= all.size()) return {};
    const std::string part = all.substr(first, length);
    return Bytes(part.begin(), part.end());
  }
  void Put(const std::string& loc, const Bytes& b) {
    std::string path;
    uint64_t first, length;
    Where(loc, &path, &first, &length);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0) << loc;
    EXPECT_EQ(::pwrite(fd, b.data(), b.size(), static_cast<off_t>(first)), static_cast<ssize_t>(b.size()));
    ::close(fd);
  }

  std::string Run(const std::vector<std::string>& w) {
    std::string input;
    bool changes = true;
    std::vector<std::string> args;
    for (size_t i = 1; i < w.size(); ++i) {
      if (args.empty() && w[i][0] == '<') input = w[i].substr(1);
      else if (args.empty() && w[i] == "~") changes = false;
      else args.push_back(w[i]);
    }
    std::vector<std::map<uint64_t, std::string>> before;
    for (int n = 0; n < 10; ++n) before.push_back(Pages(m_.PathOf("disk" + std::to_string(n) + ".img")));
    e2e::Result r;
    if (machineFile_.empty()) {
      r = m_.Run(args, input);
    } else {
      r = e2e::RunProgram(e2e::DiskholdPath(), args, input, machineFile_ == "-" ? "" : m_.PathOf(machineFile_), m_.dir(), env_);
    }
    std::string out = Block(Filter(r.out), "| ") + Block(Filter(r.err), "! ");
    if (r.status != 0) out += "= " + std::to_string(r.status) + "\n";
    for (int n = 0; changes && n < 10; ++n) {
      out += Changed("d" + std::to_string(n), before[static_cast<size_t>(n)], Pages(m_.PathOf("disk" + std::to_string(n) + ".img")));
    }
    return out;
  }

  // The non-zero 4 KiB pages of a file, found through its data extents.
  static std::map<uint64_t, std::string> Pages(const std::string& path) {
    std::map<uint64_t, std::string> pages;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return pages;
    const off_t size = ::lseek(fd, 0, SEEK_END);
    pages[UINT64_MAX] = std::to_string(size);
    const std::string zero(4096, '\0');
    std::string page(4096, '\0');
    for (off_t at = 0; at < size;) {
      const off_t data = ::lseek(fd, at, SEEK_DATA);
      if (data < 0) break;
      const off_t hole = ::lseek(fd, data, SEEK_HOLE);
      for (off_t p = data / 4096 * 4096; p < hole; p += 4096) {
        std::fill(page.begin(), page.end(), '\0');
        if (::pread(fd, page.data(), 4096, p) <= 0) break;
        if (page != zero) pages[static_cast<uint64_t>(p)] = page;
      }
      at = hole;
    }
    ::close(fd);
    return pages;
  }

  // "~ dN FIRST-LAST ..." for the byte ranges that differ.
  static std::string Changed(const std::string& name, const std::map<uint64_t, std::string>& a,
                             const std::map<uint64_t, std::string>& b) {
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    uint64_t total = 0;
    const std::string zero(4096, '\0');
    std::map<uint64_t, int> keys;
    for (const auto& [k, v] : a) keys[k];
    for (const auto& [k, v] : b) keys[k];
    std::string out;
    for (const auto& [k, unused] : keys) {
      const auto ia = a.find(k), ib = b.find(k);
      const std::string& x = ia == a.end() ? zero : ia->second;
      const std::string& y = ib == b.end() ? zero : ib->second;
      if (k == UINT64_MAX) {
        if (x != y) out = " size " + (x == zero ? "0" : x) + " -> " + (y == zero ? "0" : y);
        continue;
      }
      for (uint64_t i = 0; i < 4096; ++i) {
        if (x[i] == y[i]) continue;
        ++total;
        if (!ranges.empty() && ranges.back().second + 1 == k + i) ranges.back().second = k + i;
        else ranges.push_back({k + i, k + i});
      }
    }
    if (ranges.empty() && out.empty()) return "";
    for (size_t i = 0; i < ranges.size() && i < 8; ++i) {
      out += " " + std::to_string(ranges[i].first) + (ranges[i].second > ranges[i].first ? "-" + std::to_string(ranges[i].second) : "");
    }
    if (ranges.size() > 8) out += " ... " + std::to_string(ranges.size()) + " ranges, " + std::to_string(total) + " bytes";
    return "~ " + name + out + "\n";
  }

  std::string file_, param_, machineFile_, skip_;
  std::map<std::string, std::string> env_;
  e2e::Machine m_;
};

class Cases : public ::testing::TestWithParam<Case> {};

TEST_P(Cases, Transcript) {
  const Case& c = GetParam();
  const std::vector<std::string> params = c.params.empty() ? std::vector<std::string>{""} : c.params;
  std::string expected;
  for (const std::string& l : c.lines) expected += l + "\n";
  for (const std::string& param : params) {
    SCOPED_TRACE(c.file + ": " + c.name + (param.empty() ? "" : " @ " + param));
    Runner runner(c.file, param);
    std::string actual;
    for (const std::string& l : c.lines) {
      if (IsResult(l)) continue;
      actual += l + "\n" + runner.Do(l);
      if (!runner.skip().empty()) GTEST_SKIP() << runner.skip();
    }
    if (actual == expected) continue;
    const std::string path = std::string(DISKHOLD_CASES_DIR) + "/" + c.file;
    if (std::getenv("DISKHOLD_UPDATE_CASES") != nullptr) {
      std::string text = e2e::ReadFileText(path);
      const size_t head = text.find("\n", text.find("== " + c.name + (c.params.empty() ? "\n" : " "))) + 1;
      const size_t end = text.find("\n== ", head);
      text.replace(head, end == std::string::npos ? std::string::npos : end + 1 - head, actual);
      e2e::WriteFileText(path, text);
      return;
    }
    const std::string saved = ::testing::TempDir() + c.name + ".actual";
    e2e::WriteFileText(saved, actual);
    EXPECT_EQ(expected, actual) << "the transcript differs; it is saved in " << saved;
  }
}

std::vector<Case> Tests() {
  std::vector<Case> all = LoadCases();
  all.erase(std::remove_if(all.begin(), all.end(), [](const Case& c) { return c.name[0] == '_'; }), all.end());
  return all;
}

INSTANTIATE_TEST_SUITE_P(File, Cases, ::testing::ValuesIn(Tests()), [](const auto& info) {
  std::string n = info.param.file.substr(0, info.param.file.size() - 4) + "_" + info.param.name;
  for (char& ch : n) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
  return n;
});

}  // namespace
