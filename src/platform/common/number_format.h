// Locale number formatting as Windows does it, for the backends that have no
// GetNumberFormatA of their own (the Linux backend and the simulated machine).
#pragma once

#include <string>

#include "platform/platform.h"

namespace dh::platform {

// What GetNumberFormatA makes of `value` with the explicit format `f`.
// `value` is a decimal text: an optional leading '-', digits and at most one
// '.'.  Returns false (the Windows error would be 87, invalid parameter) when
// the text or the format is not acceptable; `out` is then left alone.
bool FormatNumberLikeWindows(const std::string& value, const NumberFormat& f, std::string* out);

}  // namespace dh::platform
