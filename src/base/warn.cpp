#include "base/warn.h"

#include <cstdio>
#include <set>

namespace dh {

void Warn(const std::string& text) {
  static std::set<std::string> given;
  if (!given.insert(text).second) return;
  std::fflush(stdout);
  std::fprintf(stderr, "diskhold: warning: %s\n", text.c_str());
  std::fflush(stderr);
}

}  // namespace dh
