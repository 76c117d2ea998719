// Reader of machine files.  Strict on purpose: a misspelt key or a bad
// number in a test machine would otherwise give a machine other than the one
// its author meant, and the test would check the wrong thing.
#include "platform/sim/machine_file.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <set>

#include "base/text.h"

namespace dh::platform::sim {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string Trim(const std::string& s) {
  size_t begin = 0;
  size_t end = s.size();
  while (begin < end && IsBlank(s[begin])) ++begin;
  while (end > begin && IsBlank(s[end - 1])) --end;
  return s.substr(begin, end - begin);
}

std::string Lower(std::string s) {
  for (char& c : s) c = LowerAscii(c);
  return s;
}

bool EqualsIgnoreCase(const std::string& a, const std::string& b) { return Lower(a) == Lower(b); }

// A '#' or ';' at the start of a line or after a blank starts a comment; one
// inside a word is data (device paths such as \??\STORAGE#RemovableMedia#...).
std::string StripComment(const std::string& line) {
  for (size_t i = 0; i < line.size(); ++i) {
    if ((line[i] == '#' || line[i] == ';') && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t')) {
      return line.substr(0, i);
    }
  }
  return line;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decimal, or hexadecimal with "0x"; no sign, nothing above `max`.
bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t* out) {
  std::string t = Trim(text);
  unsigned base = 10;
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
    base = 16;
    t = t.substr(2);
  }
  if (t.empty()) return false;
  uint64_t value = 0;
  for (char c : t) {
    const int digit = HexValue(c);
    if (digit < 0 || static_cast<unsigned>(digit) >= base) return false;
    if (value > (max - static_cast<uint64_t>(digit)) / base) return false;
    value = value * base + static_cast<uint64_t>(digit);
  }
  *out = value;
  return true;
}

// A hexadecimal number with or without "0x".
bool ParseHex(const std::string& text, uint64_t max, uint64_t* out) {
  std::string t = Trim(text);
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) t = t.substr(2);
  return ParseUnsigned("0x" + t, max, out);
}

bool ParseBool(const std::string& text, bool* out) {
  const std::string t = Lower(text);
  if (t == "yes" || t == "true" || t == "on" || t == "1") {
    *out = true;
    return true;
  }
  if (t == "no" || t == "false" || t == "off" || t == "0") {
    *out = false;
    return true;
  }
  return false;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    const size_t at = text.find(separator, start);
    parts.push_back(Trim(text.substr(start, at == std::string::npos ? std::string::npos : at - start)));
    if (at == std::string::npos) return parts;
    start = at + 1;
  }
}

// Separators may need blanks that trimming would eat, so they may be quoted.
std::string Unquote(const std::string& value) {
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') return value.substr(1, value.size() - 2);
  return value;
}

// A volume GUID "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", braces optional;
// returned with braces.  Real mount managers give nothing else, and the
// program sizes its buffers for names of that length.
bool ParseGuid(const std::string& text, std::string* out) {
  std::string t = text;
  if (t.size() >= 2 && t.front() == '{' && t.back() == '}') t = t.substr(1, t.size() - 2);
  if (t.size() != 36) return false;
  for (size_t i = 0; i < t.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? t[i] != '-' : HexValue(t[i]) < 0) return false;
  }
  *out = "{" + t + "}";
  return true;
}

// The grouping as LOCALE_SGROUPING spells it.  Given as the NUMBERFMT number
// (0, 1..9, 32) or directly in the locale form ("3;0", "3;2;0").
bool ParseGrouping(const std::string& text, std::string* out) {
  if (text.find(';') == std::string::npos) {
    uint64_t n = 0;
    if (!ParseUnsigned(text, 99, &n)) return false;
    if (n == 0) {
      *out = "0";
    } else if (n <= 9) {
      *out = std::to_string(n) + ";0";
    } else if (n == 32) {
      *out = "3;2;0";
    } else {
      return false;
    }
    return true;
  }
  // The program reads locale items into 9-character buffers.
  if (text.size() > 8) return false;
  for (const std::string& part : Split(text, ';')) {
    if (part.size() != 1 || part[0] < '0' || part[0] > '9') return false;
  }
  *out = text;
  return true;
}

enum class Section { None, Machine, Environment, Drive, Volume };

class Parser {
 public:
  Parser(const std::string& filePath, MachineDescription* out) : path_(filePath), out_(out) {}

  bool Run(const std::string& text, std::string* error) {
    size_t start = 0;
    int lineNumber = 0;
    while (start <= text.size() && ok_) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(start, end - start);
      ++lineNumber;
      line_ = lineNumber;
      if (lineNumber == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line = line.substr(3);
      Line(Trim(StripComment(line)));
      if (end == text.size()) break;
      start = end + 1;
    }
    if (ok_) Finish();
    if (!ok_ && error != nullptr) *error = error_;
    return ok_;
  }

 private:
  bool Fail(int line, const std::string& message) {
    if (ok_) {
      error_ = path_ + ", line " + std::to_string(line) + ": " + message;
      ok_ = false;
    }
    return false;
  }
  bool Fail(const std::string& message) { return Fail(line_, message); }

  void Line(const std::string& line) {
    if (line.empty()) return;
    if (line.front() == '[') {
      if (line.back() != ']') {
        Fail("a section header must end with ']'");
        return;
      }
      SectionHeader(Trim(line.substr(1, line.size() - 2)));
      return;
    }
    const size_t eq = line.find('=');
    if (eq == std::string::npos) {
      Fail("expected \"key = value\" or a [section]");
      return;
    }
    const std::string key = Trim(line.substr(0, eq));
    const std::string value = Trim(line.substr(eq + 1));
    if (key.empty()) {
      Fail("a key name is missing before '='");
      return;
    }
    if (section_ == Section::None) {
      Fail("key \"" + key + "\" stands before any section");
      return;
    }
    const std::string lowerKey = Lower(key);
    if (!keysSeen_.insert(lowerKey).second) {
      Fail("key \"" + key + "\" is given twice in " + sectionName_);
      return;
    }
    switch (section_) {
      case Section::Machine: MachineKey(lowerKey, value); break;
      case Section::Environment: AddEnvironment(key, value); break;
      case Section::Drive: DriveKey(lowerKey, value); break;
      case Section::Volume: VolumeKey(lowerKey, value); break;
      case Section::None: break;
    }
  }

  void SectionHeader(const std::string& inside) {
    size_t split = 0;
    while (split < inside.size() && !IsBlank(inside[split])) ++split;
    const std::string name = Lower(inside.substr(0, split));
    const std::string argument = Trim(inside.substr(split));
    sectionName_ = "[" + inside + "]";
    keysSeen_.clear();
    if (name == "machine" || name == "environment") {
      if (!argument.empty()) {
        Fail("section " + sectionName_ + " takes no argument");
        return;
      }
      const Section kind = name == "machine" ? Section::Machine : Section::Environment;
      if (!sectionsSeen_.insert(name).second) {
        Fail("section [" + name + "] is given twice");
        return;
      }
      section_ = kind;
      return;
    }
    if (name == "drive") {
      uint64_t number = 0;
      bool digitsOnly = !argument.empty() && std::all_of(argument.begin(), argument.end(),
                                                         [](char c) { return c >= '0' && c <= '9'; });
      if (!digitsOnly || !ParseUnsigned(argument, 99, &number)) {
        Fail("drive numbers run from 0 to 99: " + sectionName_);
        return;
      }
      if (!sectionsSeen_.insert("drive " + std::to_string(number)).second) {
        Fail("section [drive " + std::to_string(number) + "] is given twice");
        return;
      }
      out_->drives.emplace_back();
      drive_ = &out_->drives.back();
      drive_->number = static_cast<int>(number);
      drive_->line = line_;
      section_ = Section::Drive;
      return;
    }
    if (name == "volume") {
      std::string letter = argument;
      if (letter.size() == 2 && letter[1] == ':') letter.pop_back();
      if (letter.size() != 1 || !((letter[0] >= 'A' && letter[0] <= 'Z') || (letter[0] >= 'a' && letter[0] <= 'z'))) {
        Fail("a volume section needs a drive letter A to Z: " + sectionName_);
        return;
      }
      const char upper = static_cast<char>(letter[0] >= 'a' ? letter[0] - 'a' + 'A' : letter[0]);
      if (!sectionsSeen_.insert(std::string("volume ") + upper).second) {
        Fail(std::string("section [volume ") + upper + "] is given twice");
        return;
      }
      out_->volumes.emplace_back();
      volume_ = &out_->volumes.back();
      volume_->letter = upper;
      volume_->line = line_;
      section_ = Section::Volume;
      return;
    }
    Fail("unknown section " + sectionName_);
  }

  bool Number(const std::string& key, const std::string& value, uint64_t max, uint64_t* out) {
    if (!ParseUnsigned(value, max, out)) {
      return Fail("bad number for " + key + ": \"" + value + "\" (0 to " + std::to_string(max) + ")");
    }
    return true;
  }

  bool Bool(const std::string& key, const std::string& value, bool* out) {
    if (!ParseBool(value, out)) return Fail("bad value for " + key + ": \"" + value + "\" (yes or no)");
    return true;
  }

  void AddEnvironment(const std::string& name, const std::string& value) {
    for (const auto& [existing, unused] : out_->environment) {
      if (EqualsIgnoreCase(existing, name)) {
        Fail("environment variable \"" + name + "\" is given twice");
        return;
      }
    }
    // As on Windows, a variable with an empty value does not exist.
    if (!value.empty()) out_->environment.emplace_back(name, value);
  }

  void MachineKey(const std::string& key, const std::string& value) {
    uint64_t n = 0;
    bool flag = false;
    if (key == "codepage") {
      if (Number(key, value, 0xFFFFFFFFu, &n)) {
        out_->codePage = static_cast<uint32_t>(n);
        out_->hasCodePage = true;
      }
    } else if (key == "elevated") {
      if (Lower(value) == "unknown") {
        out_->elevation = ElevationMode::Unknown;
      } else if (ParseBool(value, &flag)) {
        out_->elevation = flag ? ElevationMode::Yes : ElevationMode::No;
      } else {
        Fail("bad value for elevated: \"" + value + "\" (yes, no or unknown)");
      }
    } else if (key == "version") {
      const size_t dot = value.find('.');
      uint64_t major = 0;
      uint64_t minor = 0;
      const bool good = ParseUnsigned(value.substr(0, dot), 255, &major) &&
                        (dot == std::string::npos || ParseUnsigned(value.substr(dot + 1), 255, &minor));
      if (!good) {
        Fail("bad version \"" + value + "\" (major.minor, such as 6.1)");
        return;
      }
      out_->majorVersion = static_cast<uint32_t>(major);
      out_->minorVersion = static_cast<uint32_t>(minor);
    } else if (key == "computername") {
      out_->computerName = value;
    } else if (key == "systemdrive") {
      AddEnvironment("systemdrive", value);
    } else if (key == "decimal" || key == "thousands") {
      const std::string separator = Unquote(value);
      // Windows keeps at most three characters for either separator.
      if (separator.size() > 3) {
        Fail("a " + key + " separator has at most 3 characters");
        return;
      }
      (key == "decimal" ? out_->decimalSep : out_->thousandSep) = separator;
    } else if (key == "grouping") {
      if (!ParseGrouping(value, &out_->grouping)) Fail("bad grouping \"" + value + "\" (0..9, 32, or as 3;2;0)");
    } else if (key == "leadingzero") {
      if (Number(key, value, 1, &n)) out_->leadingZero = static_cast<uint32_t>(n);
    } else if (key == "negativenumber") {
      if (Number(key, value, 4, &n)) out_->negativeNumber = static_cast<uint32_t>(n);
    } else if (key == "formatengine") {
      const std::string v = Lower(value);
      if (v == "mkntfs") {
        out_->formatEngine = FormatEngineMode::Mkntfs;
      } else if (v == "none") {
        out_->formatEngine = FormatEngineMode::None;
      } else if (v == "noentry") {
        out_->formatEngine = FormatEngineMode::NoEntry;
      } else if (v == "ok") {
        out_->formatEngine = FormatEngineMode::Ok;
      } else if (v == "fail") {
        out_->formatEngine = FormatEngineMode::Fail;
      } else {
        Fail("bad value for formatengine: \"" + value + "\" (mkntfs, none, noentry, ok or fail)");
      }
    } else if (key == "shutdownlog") {
      out_->shutdownLog = value.empty() ? std::string() : ResolveMachinePath(path_, value);
    } else if (key == "tracelog") {
      out_->traceLog = value.empty() ? std::string() : ResolveMachinePath(path_, value);
    } else if (key == "shutdownprivilege") {
      if (Bool(key, value, &flag)) out_->shutdownPrivilege = flag;
    } else {
      Fail("unknown key \"" + key + "\" in [machine]");
    }
  }

  void DriveKey(const std::string& key, const std::string& value) {
    DriveDescription& d = *drive_;
    uint64_t n = 0;
    if (key == "image") {
      if (value.empty()) {
        Fail("image needs a file name");
        return;
      }
      d.image = ResolveMachinePath(path_, value);
      d.imageLine = line_;
    } else if (key == "media") {
      const std::string v = Lower(value);
      if (v == "fixed") {
        d.media = MediaKind::Fixed;
      } else if (v == "removable") {
        d.media = MediaKind::Removable;
      } else if (v == "absent") {
        d.media = MediaKind::Absent;
      } else {
        Fail("bad value for media: \"" + value + "\" (fixed, removable or absent)");
      }
    } else if (key == "heads") {
      if (Number(key, value, 0xFFFFFFFFu, &n)) d.heads = static_cast<uint32_t>(n);
    } else if (key == "sectors") {
      if (Number(key, value, 0xFFFFFFFFu, &n)) d.sectorsPerTrack = static_cast<uint32_t>(n);
    } else if (key == "cylinders") {
      if (Number(key, value, static_cast<uint64_t>(std::numeric_limits<int64_t>::max()), &n)) {
        d.cylinders = static_cast<int64_t>(n);
        d.hasCylinders = true;
      }
    } else if (key == "readonly") {
      Bool(key, value, &d.readOnly);
    } else if (key == "badsectors") {
      BadSectors(value);
    } else if (key == "failwriteafter") {
      if (Number(key, value, 0xFFFFFFFFu, &n)) {
        d.failWriteAfter = n;
        d.hasFailWriteAfter = true;
      }
    } else if (key == "growlimit") {
      if (Number(key, value, std::numeric_limits<uint64_t>::max(), &n)) {
        d.growLimit = n;
        d.hasGrowLimit = true;
      }
    } else if (key == "layout") {
      Layout(value);
    } else if (key == "instance") {
      d.instance = value;
    } else if (key == "friendlyname") {
      d.friendlyName = value;
    } else if (key == "devicedesc") {
      d.deviceDesc = value;
    } else if (key == "parentidprefix") {
      d.parentIdPrefix = value;
    } else {
      Fail("unknown key \"" + key + "\" in " + sectionName_);
    }
  }

  // "100-120,5000": single LBAs and inclusive ranges.
  void BadSectors(const std::string& value) {
    if (value.empty()) return;
    const uint64_t max = std::numeric_limits<uint64_t>::max();
    for (const std::string& item : Split(value, ',')) {
      SectorRange range;
      uint64_t last = 0;
      const size_t dash = item.find('-');
      bool good = false;
      if (dash == std::string::npos) {
        good = ParseUnsigned(item, max, &range.first);
        last = range.first;
      } else {
        good = ParseUnsigned(item.substr(0, dash), max, &range.first) &&
               ParseUnsigned(item.substr(dash + 1), max, &last) && range.first <= last;
      }
      // 0-18446744073709551615 leaves out the very last LBA, which no image reaches.
      range.count = last - range.first == max ? max : last - range.first + 1;
      if (!good) {
        Fail("bad entry \"" + item + "\" in badsectors (LBA or FIRST-LAST, separated by commas)");
        return;
      }
      drive_->badSectors.push_back(range);
    }
  }

  // "TYPE,OFFSET,LENGTH" with a hexadecimal type byte, or "none" for a
  // layout without entries.
  void Layout(const std::string& value) {
    LayoutEntry entry;
    if (Lower(value) != "none") {
      const std::vector<std::string> parts = Split(value, ',');
      uint64_t type = 0;
      const bool good = parts.size() == 3 && ParseHex(parts[0], 0xFF, &type) &&
                        ParseUnsigned(parts[1], std::numeric_limits<uint64_t>::max(), &entry.startingOffset) &&
                        ParseUnsigned(parts[2], std::numeric_limits<uint64_t>::max(), &entry.partitionLength);
      if (!good) {
        Fail("bad layout \"" + value + "\" (TYPE,OFFSET,LENGTH with a hexadecimal type, or none)");
        return;
      }
      entry.partitionType = static_cast<uint8_t>(type);
      entry.present = true;
    }
    drive_->layout = entry;
    drive_->hasLayout = true;
  }

  void VolumeKey(const std::string& key, const std::string& value) {
    VolumeDescription& v = *volume_;
    uint64_t n = 0;
    if (key == "drive") {
      if (Number(key, value, 99, &n)) v.drive = static_cast<int>(n);
    } else if (key == "offset") {
      if (Number(key, value, std::numeric_limits<uint64_t>::max(), &n)) {
        v.offset = n;
        v.hasOffset = true;
      }
    } else if (key == "device") {
      if (value.empty()) {
        Fail("device needs a device path");
        return;
      }
      v.device = value;
    } else if (key == "guid") {
      if (!ParseGuid(value, &v.guid)) {
        Fail("bad guid \"" + value + "\" (xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx, braces optional)");
      }
    } else {
      Fail("unknown key \"" + key + "\" in " + sectionName_);
    }
  }

  // Checks that need the whole file: required keys and cross references.
  void Finish() {
    for (const DriveDescription& d : out_->drives) {
      if (d.image.empty()) {
        Fail(d.line, "[drive " + std::to_string(d.number) + "] has no image");
        return;
      }
    }
    for (const VolumeDescription& v : out_->volumes) {
      const std::string name = std::string("[volume ") + v.letter + "]";
      if (v.hasOffset && !v.device.empty()) {
        Fail(v.line, name + " has both offset and device; give one");
        return;
      }
      if (v.hasOffset && v.drive < 0) {
        Fail(v.line, name + " has an offset but no drive");
        return;
      }
      if (v.drive >= 0 && std::none_of(out_->drives.begin(), out_->drives.end(),
                                       [&](const DriveDescription& d) { return d.number == v.drive; })) {
        Fail(v.line, name + " names drive " + std::to_string(v.drive) + ", which has no [drive] section");
        return;
      }
    }
    std::sort(out_->drives.begin(), out_->drives.end(),
              [](const DriveDescription& a, const DriveDescription& b) { return a.number < b.number; });
    std::sort(out_->volumes.begin(), out_->volumes.end(),
              [](const VolumeDescription& a, const VolumeDescription& b) { return a.letter < b.letter; });
    for (VolumeDescription& v : out_->volumes) {
      if (v.guid.empty()) {
        // Made up but stable, so that tests can expect it.
        static const char kHex[] = "0123456789ABCDEF";
        const auto code = static_cast<unsigned char>(v.letter);
        v.guid = std::string("{00000000-0000-0000-0000-0000000000") + kHex[code >> 4] + kHex[code & 15] + "}";
      }
    }
  }

  std::string path_;
  MachineDescription* out_;
  bool ok_ = true;
  std::string error_;
  int line_ = 0;
  Section section_ = Section::None;
  std::string sectionName_;
  std::set<std::string> sectionsSeen_;
  std::set<std::string> keysSeen_;
  // Point into out_->drives / out_->volumes; valid until the next section
  // adds an element, by which time they are no longer used.
  DriveDescription* drive_ = nullptr;
  VolumeDescription* volume_ = nullptr;
};

}  // namespace

bool ParseMachineFile(const std::string& text, const std::string& filePath, MachineDescription* out,
                      std::string* error) {
  MachineDescription description;
  Parser parser(filePath, &description);
  if (!parser.Run(text, error)) return false;
  *out = std::move(description);
  return true;
}

bool DescribeImageList(const std::string& list, char separator, MachineDescription* out, std::string* error) {
  *out = MachineDescription();
  const std::vector<std::string> images = Split(list, separator);
  // The program looks for at most 100 drives.
  if (images.size() > 100) {
    *error = "DISKHOLD_DISKS lists " + std::to_string(images.size()) + " images; at most 100 drives are possible";
    return false;
  }
  for (size_t i = 0; i < images.size(); ++i) {
    if (images[i].empty()) {
      *error = "DISKHOLD_DISKS has an empty entry (number " + std::to_string(i + 1) + ")";
      return false;
    }
    DriveDescription drive;
    drive.number = static_cast<int>(i);
    drive.image = images[i];
    out->drives.push_back(drive);
  }
  return true;
}

std::string ResolveMachinePath(const std::string& machineFilePath, const std::string& path) {
  const bool absolute = (!path.empty() && (path[0] == '/' || path[0] == '\\')) ||
                        (path.size() >= 2 && path[1] == ':' &&
                         ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z')));
  if (absolute) return path;
  // The machine file may come with either separator (Z:\tmp\x\machine.ini on
  // Windows, /tmp/x/machine.ini elsewhere).
  const size_t slash = machineFilePath.find_last_of("/\\");
  if (slash == std::string::npos) return path;
  return machineFilePath.substr(0, slash + 1) + path;
}

}  // namespace dh::platform::sim
