// The layers of src/ only point down: each folder includes its own headers
// and those of layers below it, never one of its own layer or above.  Only
// the platform layer includes an operating system's headers; only the table
// drivers (mbr/, gpt/) name their concrete tables or cast to a type; only
// the app and platform layers read the global machine.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>

namespace {

namespace fs = std::filesystem;

// From the bottom up.
const std::map<std::string, int> kLayers = {
    {"base", 0}, {"platform", 1}, {"disk", 2}, {"mbr", 3}, {"gpt", 3},   {"vdisk", 3},
    {"edit", 4}, {"sectors", 4},  {"report", 4}, {"app", 5},
};

std::string TopFolder(const fs::path& relative) { return relative.begin()->string(); }

TEST(Layering, IncludesPointDownAndEachLayerKeepsToItsOwn) {
  const fs::path src = fs::path(DISKHOLD_SOURCE_DIR) / "src";
  // A build run elsewhere (the Windows tests under Wine) may not see the tree.
  if (!fs::is_directory(src)) GTEST_SKIP() << "no source tree at " << src;
  const std::regex quoted(R"(^\s*#\s*include\s*"([^"]+)\")");
  const std::regex system(R"(^\s*#\s*include\s*<([^>]+)>)");
  const std::regex pastTheDriver(R"(\b(MbrTable|GptOf)\s*\(|\bdynamic_cast\b)");
  const std::regex globalMachine(R"(\bHost\s*\(\s*\))");
  const std::regex comment(R"(^\s*//)");
  const std::regex osHeader(R"(^(windows\.h|winioctl\.h|unistd\.h|fcntl\.h|termios\.h|dirent\.h|sys/.*|linux/.*)$)");
  int files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(src)) {
    if (!entry.is_regular_file()) continue;
    const std::string ext = entry.path().extension().string();
    if (ext != ".h" && ext != ".cpp") continue;
    const fs::path relative = fs::relative(entry.path(), src);
    const std::string folder = TopFolder(relative);
    const auto layer = kLayers.find(folder);
    ASSERT_NE(layer, kLayers.end()) << "a folder outside the layers: " << relative;
    ++files;
    std::ifstream in(entry.path());
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
      ++number;
      std::smatch m;
      const bool code = !std::regex_search(line, comment);
      EXPECT_FALSE(code && folder != "mbr" && folder != "gpt" && std::regex_search(line, pastTheDriver))
          << relative.string() << ":" << number << " reaches past the table driver";
      EXPECT_FALSE(code && folder != "app" && folder != "platform" && std::regex_search(line, globalMachine))
          << relative.string() << ":" << number << " reads the global machine instead of the one handed down";
      if (std::regex_search(line, m, quoted)) {
        const fs::path included(m[1].str());
        const std::string target = TopFolder(included);
        const auto targetLayer = kLayers.find(target);
        // Headers beside the file (a backend's own) are its folder's.
        if (targetLayer == kLayers.end()) continue;
        const bool down = targetLayer->second < layer->second || target == folder;
        EXPECT_TRUE(down) << relative.string() << ":" << number << " includes " << included.string();
      } else if (std::regex_search(line, m, system) && folder != "platform") {
        EXPECT_FALSE(std::regex_match(m[1].str(), osHeader))
            << relative.string() << ":" << number << " includes the system header " << m[1].str();
      }
    }
  }
  EXPECT_GT(files, 50);
}

}  // namespace
