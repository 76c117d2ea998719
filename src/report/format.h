// The size and number texts shared by every report.
#pragma once

#include <cstdint>
#include <string>

namespace dh {

namespace platform {
class Machine;
}

// "465.76GB": two decimals in the locale of the user of `machine`, then the
// unit word.
std::string FormatSizeText(platform::Machine& machine, int64_t bytes);
// "465G": about four characters for table columns.
std::string FormatSizeCompact(int64_t bytes);
// A right-aligned number with ',' every three digits, width - 1 characters.
std::string FormatGroupedCount(uint32_t value, int width);

}  // namespace dh
