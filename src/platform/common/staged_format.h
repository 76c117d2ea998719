// Formatting a volume away from its partition, for disks whose partitions
// have no device node of their own (simulated drives, virtual disk files):
// mkntfs formats a staging file of the partition's size in the host's
// temporary folder, and the place's own writer copies it onto the
// partition, so the disk is written by the one who guards its writes.
#pragma once

#include <string>

#include "platform/platform.h"

namespace dh::platform {

// Runs the whole staged format with `runner` (the machine that opens host
// files and starts mkntfs) and reports its end to `callback` as command 11.
// False when mkntfs could not be started.
bool FormatStaged(Machine& runner, const std::string& label, const FormatPlace& place,
                  const FormatCallback& callback);

// The job mkntfs gets for a place and a host path.
NtfsFormatJob JobForPlace(const FormatPlace& place, const std::string& path, const std::string& label);

// UTF-16 text of the format request as 8-bit text (the label "MYLABEL").
std::string NarrowText(const std::u16string& text);

}  // namespace dh::platform
