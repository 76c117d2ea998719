// Two small unframed console reports: `info`, a summary block per physical
// disk, and the boot menu of `bootmenu`, which lists the primary partitions
// of the current disk and asks which one to make active.  The activation
// itself is left to the caller.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

class DiskSet;
class Sink;

// The `info` report: every physical disk in turn is selected and shown;
// the last one stays current.
void ShowDiskInfo(DiskSet& disks, Sink& out);

// What the boot menu's user chose.
struct BootMenuChoice {
  // False when the menu had no row to offer and asked nothing.
  bool asked = false;
  // The answer starts with a row's id, 1 up to the last id shown.
  bool valid = false;
  // The answer's leading decimal number (capped, never overflowing); it is
  // not compared with the rows shown.
  int32_t number = 0;
};

// The longest answer looked at; the rest of a longer line is read and
// dropped.
constexpr size_t kBootMenuAnswerLength = 99;

// Shows the menu of the current disk's primary partitions (rows of type
// 0x0F are left out, and their ids with them) and reads one line of
// standard input as the answer; end of input answers like an empty line.
BootMenuChoice RunBootMenu(DiskSet& disks, Sink& out);

// The choice an answer line makes when the last id shown is `lastId`.
BootMenuChoice ReadBootMenuAnswer(const std::string& line, int32_t lastId);

}  // namespace dh
