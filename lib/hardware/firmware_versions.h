// The firmware versions of the boot report: the boot loader's first images,
// the running boot loader, the rescue kernel and the operating system, and
// the unit's serial number. Each getter but the operating-system version
// prints its own failure on standard error and returns a fixed fallback.
#pragma once

#include <string>

// Partitions and files the versions are read from.
inline constexpr const char* BOOTLOADER_PARTITION = "flash0.bolt";
inline constexpr const char* RESCUE_KERNEL_PARTITION = "flash0.rescue";
inline constexpr const char* VERSION_FILE_PATH = "/etc/veltrix-version";

namespace bolt {

// The information text of the first images.
struct FirstImagesInfo {
    std::string version;                  // key "version"; empty when absent
    std::string minimum_firmware_version; // key "minimum_firmware_version"
};

// Reads the information text of the first images in flash0.bolt (whole
// device, good blocks only): the word at 0xD068 must be 0, the word at
// 0xD06C is their start S (a multiple of the erase size), and the 1 KiB at
// S + 0xFFC00 holds "key=value;..." after optional 0xFF bytes, up to a zero
// byte. Throws std::runtime_error "First images are not in first partition"
// or "First images do not start on an erase block boundary" (each also
// printed on standard error, the second without line end) and whatever
// opening and reading the partition throws.
FirstImagesInfo GetFirstImagesInfo();

} // namespace bolt

// The version of the first images, or "unavailable" after printing
// "Failed to get BOLT firstimages version: <why>\n" for a std::exception.
std::string GetFirstImagesVersion();

// The boot-loader version of the board identity, normalised: a text that
// starts with a digit as it is, else what follows its first '-'. Empty:
// "Empty boot version from boot loader. Bad.\n" and "0.0.0"; neither digit
// nor '-': "Boot version in incorrect format: '<text>'\n" and the text.
std::string GetBootloaderVersion();
// The normalisation on its own, for a given text.
std::string NormaliseBootloaderVersion(const std::string& text);

// The description of the last note of type 1 named "veltrix" in the rescue
// kernel's ELF image (flash0.rescue, plain or gzip), empty when there is
// none; "0.0.0" after printing "Unable to read rescue kernel version: <why>\n"
// on any failure.
std::string GetRescueKernelVersion();

// The content of /etc/veltrix-version without NUL, TAB, LF, VT, CR and SPACE
// at either end. A missing file throws corvid::ErrnoException.
std::string GetOperatingSystemVersion();

// VX_SERIAL of the boot-loader environment when VX_FORMAT is exactly "1",
// else empty.
std::string GetSerialNumber();

// A digit-aware order of version texts: -1, 0 or 1. Runs of digits compare
// as unsigned 32-bit numbers (1.01 equals 1.1); a run whose value wraps
// around throws std::range_error "Version string has out of range number".
int CompareVersions(const std::string& a, const std::string& b);
