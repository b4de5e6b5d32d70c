// The start-up pass: one function per step, in the order the pass runs
// them. Each reads its live sources through the process's context, so the
// check and "vxtool report" (a returned player's images in place of the
// live partitions) run the very same steps; only where the banner goes
// differs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "hardware/bootloader_environment.h"
#include "hardware/hardware_config.h"

// Where the login banner is written.
inline constexpr const char* ISSUE_FILE_PATH = "/etc/issue";
// The interface the Ethernet check looks at.
inline constexpr const char* ETHERNET_INTERFACE = "eth0";

// The firmware versions and identity texts of the boot report, gathered in
// this order.
struct BootVersions {
    std::string bootloader;
    std::string first_images;
    std::string rescue_kernel;
    std::string operating_system;
    std::string model;
    std::string serial;
};

// The summary line's fields (step 11), in the order the line gives them.
struct BootSummary {
    BootVersions versions;
    std::string revision;            // step 5's label
    std::uint64_t hardware_flags = 0; // step 10
    bool secure_keys = false, secure_boot = false;
    std::vector<std::string> blessings; // the valid blessings' names, in the order granted
};

// Step 3: prints "<3>" and the hardware configuration's SSD warning, if it
// has one (a plain print: its failure reaches the outermost handlers).
void WarnAboutSsd(HardwareConfig& config);

// Step 5: "REV@" raised by VX_HWREV (0 to 25), "REV<n>" from 26 on (clamped
// to 65535; 65535 when absent), both only when VX_FORMAT is exactly "1";
// otherwise "NO-SRB", after printing "SRB IS NOT SET. RUN MANUFACTURING
// TEST." without a line end.
std::string LabelRevision(const BootloaderEnvironment& environment);

// Step 6, for models with an Ethernet port (HW_ETHERNET): eth0 must be a
// directory under /sys/class/net and its address a unicast one that is not
// all zeros; each failure is a HardwareFailure with pattern 7. An address
// that cannot be read throws the reader's ErrnoException.
void CheckEthernet(std::uint64_t hardware_bitfield);

// Steps 7 and 8: the names the device-data partition's valid blessings
// grant this unit, in the order granted. The serial number is VX_SERIAL as
// it stands.
std::vector<std::string> CollectBlessings(const BootloaderEnvironment& environment, const std::string& secure_id);

// Step 9: the versions, the model name (the configuration's) and the serial
// number.
BootVersions GatherVersions(const HardwareConfig& config);

// Step 11: "<6>VELTRIX boot=... sk=N sb=N" and the blessing suffix ("" for
// none, " bl=a" for one, " bl=a,b" for two), then the line end.
void PrintSummary(const BootSummary& summary);

// The AVS status values that step 12 reports, in its order.
inline constexpr const char* AVS_LINE_KEYS[] = {"Revision", "V0", "T0", "PV0", "MV0"};

// Step 12: "<6>AVS " and "KEY=VALUE " for Revision, V0, T0, PV0 and MV0 (an
// absent key an empty value), without a line end.
void PrintAvsReport(std::map<std::string, std::string> avs);

// Step 13's text: "Veltrix <model> <serial> v<os version>\r\n\n", read afresh.
std::string FormatBanner(const HardwareConfig& config);

// Replaces /etc/issue with the banner, mode 0644 (corvid::ReplaceFile): a
// reader sees the old banner or the new one; a FIFO or a link there is
// replaced, never opened or followed.
void WriteIssueFile(const std::string& banner);

using BannerWriter = std::function<void(const std::string& banner)>;

// Where the pass's report goes: the check prints the summary and the AVS
// line (PrintSummary, PrintAvsReport) and writes the banner to /etc/issue.
struct BootReport {
    std::function<void(const BootSummary&)> summary = PrintSummary;
    std::function<void(const std::map<std::string, std::string>& avs)> avs = PrintAvsReport;
    BannerWriter banner;
};

// Steps 2 to 13 (the hardware configuration, step 1, is the caller's):
// every check and the boot report, each of its three parts handed to
// report. Step 3 reaches the configuration through GetInstance() (the
// pointer check applies) and the pass hands it to the steps; step 10, the
// hardware flags, is the environment's BootloaderEnvironment::HardwareFlags.
// A failed step throws to the caller's outermost handlers.
void RunStartupPass(const BootReport& report);
// The check's report with the banner given to write_banner.
void RunStartupPass(const BannerWriter& write_banner);
