// Warnings: one line each on standard error, "diskhold: warning: TEXT", so
// that listings and reports on standard output keep their bytes.  A disk
// may be opened several times in one run (counted, loaded, searched for a
// volume); a text already given in the run is not given again.
#pragma once

#include <string>

namespace dh {

void Warn(const std::string& text);

}  // namespace dh
