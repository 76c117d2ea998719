// The English system message texts of the Windows error codes the program
// can meet, for the backends that have no FormatMessageA of their own.
#pragma once

#include <cstdint>
#include <string>

namespace dh::platform {

// FormatMessageA's text for `code`, ending with "\r\n" as the system's
// message table has it.  False for codes the table does not hold.
bool WindowsMessageText(uint32_t code, std::string* text);

}  // namespace dh::platform
