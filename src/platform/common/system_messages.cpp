// A small copy of the system message table: the error codes that the disk,
// file, registry, privilege and locale calls of the program can report.
#include "platform/common/system_messages.h"

#include <cstddef>

namespace dh::platform {
namespace {

struct MessageEntry {
  uint32_t code;
  const char* text;
};

// Kept sorted by code; the texts are the US-English system texts.
constexpr MessageEntry kMessages[] = {
    {0, "The operation completed successfully."},
    {1, "Incorrect function."},
    {2, "The system cannot find the file specified."},
    {3, "The system cannot find the path specified."},
    {4, "The system cannot open the file."},
    {5, "Access is denied."},
    {6, "The handle is invalid."},
    {8, "Not enough memory resources are available to process this command."},
    {13, "The data is invalid."},
    {14, "Not enough memory resources are available to complete this operation."},
    {15, "The system cannot find the drive specified."},
    {19, "The media is write protected."},
    {20, "The system cannot find the device specified."},
    {21, "The device is not ready."},
    {23, "Data error (cyclic redundancy check)."},
    {25, "The drive cannot locate a specific area or track on the disk."},
    {27, "The drive cannot find the sector requested."},
    {29, "The system cannot write to the specified device."},
    {30, "The system cannot read from the specified device."},
    {31, "A device attached to the system is not functioning."},
    {32, "The process cannot access the file because it is being used by another process."},
    {38, "Reached the end of the file."},
    {39, "The disk is full."},
    {50, "The request is not supported."},
    {55, "The specified network resource or device is no longer available."},
    {80, "The file exists."},
    {87, "The parameter is incorrect."},
    {110, "The system cannot open the device or file specified."},
    {112, "There is not enough space on the disk."},
    {120, "This function is not supported on this system."},
    {122, "The data area passed to a system call is too small."},
    {123, "The filename, directory name, or volume label syntax is incorrect."},
    {126, "The specified module could not be found."},
    {127, "The specified procedure could not be found."},
    {131, "An attempt was made to move the file pointer before the beginning of the file."},
    {170, "The requested resource is in use."},
    {183, "Cannot create a file when that file already exists."},
    {203, "The system could not find the environment option that was entered."},
    {206, "The filename or extension is too long."},
    {234, "More data is available."},
    {267, "The directory name is invalid."},
    {1112, "No media in drive."},
    {1117, "The request could not be performed because of an I/O device error."},
    {1167, "The device is not connected."},
    {1300, "Not all privileges or groups referenced are assigned to the caller."},
    {1314, "A required privilege is not held by the client."},
    {1392, "The file or directory is corrupted and unreadable."},
    {1393, "The disk structure is corrupted and unreadable."},
    {1785, "The disk media is not recognized. It may not be formatted."},
};

}  // namespace

bool WindowsMessageText(uint32_t code, std::string* text) {
  for (const MessageEntry& entry : kMessages) {
    if (entry.code == code) {
      if (text != nullptr) *text = std::string(entry.text) + "\r\n";
      return true;
    }
  }
  return false;
}

}  // namespace dh::platform
