// The program's name, version and banner texts.
#pragma once

namespace dh {

constexpr const char* kProgramTitle = " Diskhold - Version 3.0.83";
constexpr const char* kPlatformName = "Windows";
constexpr const char* kReleaseDate = "  Mar 15, 2011";
// The maker's notice printed under the banner.
constexpr const char* kMakerNotice = "Partition table and boot record utility - (c) 2026 The Diskhold developers";

}  // namespace dh
