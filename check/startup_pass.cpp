#include "check/startup_pass.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>

#include "check/driver.h"
#include "check/hardware_failure.h"
#include "hardware/blessings.h"
#include "hardware/context.h"
#include "hardware/firmware_versions.h"
#include "hardware/hardware_config.h"
#include "hardware/mmio.h"
#include "hardware/vx_device_data.h"
#include "platform/posix_helpers.h"
#include "platform/replace_file.h"
#include "platform/trace.h"

namespace {

// The largest 16-bit revision: an absent VX_HWREV reads as it, larger ones are
// clamped to it.
constexpr unsigned long HWREV_MAX = 65535;

bool IsDirectory(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

void WarnAboutSsd(HardwareConfig& config)
{
    const std::string warning = config.CheckSsd();
    if (!warning.empty())
        corvid::PrintPlain("<3>{}", warning);
}

std::string LabelRevision(const BootloaderEnvironment& environment)
{
    if (!environment.HasSrb()) {
        corvid::PrintPlain("SRB IS NOT SET. RUN MANUFACTURING TEST.");
        return "NO-SRB";
    }
    unsigned long revision = HWREV_MAX;
    if (environment.variables.count("VX_HWREV"))
        revision = std::min(std::strtoul(environment.Get("VX_HWREV").c_str(), nullptr, 0), HWREV_MAX);
    if (revision <= 25) {
        std::string label = "REV@";
        label[3] = static_cast<char>(label[3] + revision);
        return label;
    }
    return "REV" + std::to_string(revision);
}

void CheckEthernet(std::uint64_t hardware_bitfield)
{
    if (!(hardware_bitfield & HW_ETHERNET))
        return;
    Context& context = *Context::GetInstance();
    if (!IsDirectory(context.Path(std::string("/sys/class/net/") + ETHERNET_INTERFACE)))
        throw HardwareFailure("Ethernet device not found", ERROR_LED_ETHERNET);
    const corvid::HardwareAddress mac = context.GetInterfaceAddress(ETHERNET_INTERFACE);
    const bool all_zero = mac == corvid::HardwareAddress{};
    if (all_zero || (mac[0] & 1))
        throw HardwareFailure("Ethernet interface has invalid MAC address", ERROR_LED_ETHERNET);
}

std::vector<std::string> CollectBlessings(const BootloaderEnvironment& environment, const std::string& secure_id)
{
    const VeltrixDeviceDataStorageNand storage(Context::GetInstance()->OpenPartition(DEVICE_DATA_PARTITION));
    std::vector<std::string> names;
    blessings::EnumerateBlessings(storage, secure_id, environment.Serial(),
                                  [&names](const std::string& name, const std::string&) { names.push_back(name); });
    return names;
}

BootVersions GatherVersions(const HardwareConfig& config)
{
    BootVersions versions;
    versions.bootloader = GetBootloaderVersion();
    versions.first_images = GetFirstImagesVersion();
    versions.rescue_kernel = GetRescueKernelVersion();
    versions.operating_system = GetOperatingSystemVersion();
    versions.model = config.GetModelName();
    versions.serial = GetSerialNumber();
    return versions;
}

void PrintSummary(const BootSummary& summary)
{
    std::string blessings;
    for (const std::string& name : summary.blessings)
        blessings += (blessings.empty() ? " bl=" : ",") + name;
    const BootVersions& versions = summary.versions;
    corvid::PrintPlain("<6>VELTRIX boot={} firstimages={} rescue={} mission={} model={} {} serial={} hw={:x} "
                       "sk={:d} sb={:d}{}\n",
                       versions.bootloader, versions.first_images, versions.rescue_kernel,
                       versions.operating_system, versions.model, summary.revision, versions.serial,
                       summary.hardware_flags, summary.secure_keys, summary.secure_boot, blessings);
}

void PrintAvsReport(std::map<std::string, std::string> avs)
{
    std::string line;
    for (const char* key : AVS_LINE_KEYS)
        line += std::string(key) + "=" + avs[key] + " ";
    corvid::PrintPlain("<6>AVS {}", line);
}

std::string FormatBanner(const HardwareConfig& config)
{
    const std::string model = config.GetModelName();
    const std::string serial = GetSerialNumber();
    return fmt::format("Veltrix {} {} v{}\r\n\n", model, serial, GetOperatingSystemVersion());
}

void WriteIssueFile(const std::string& banner)
{
    corvid::ReplaceFile(Context::GetInstance()->Path(ISSUE_FILE_PATH), banner, 0644);
}

void RunStartupPass(const BootReport& report)
{
    CheckMemory();
    HardwareConfig& config = *HardwareConfig::GetInstance();
    WarnAboutSsd(config);
    const BootloaderEnvironment environment = GetBootloaderEnvironment();
    BootSummary summary;
    summary.revision = LabelRevision(environment);
    CheckEthernet(config.GetHardwareBitfield());
    summary.blessings = CollectBlessings(environment, config.GetSecureId());
    summary.versions = GatherVersions(config);
    summary.hardware_flags = environment.HardwareFlags();
    summary.secure_keys = config.GetSecureKeys();
    summary.secure_boot = config.GetSecureBoot();
    report.summary(summary);
    report.avs(ReadAvsStatus());
    report.banner(FormatBanner(config));
}

void RunStartupPass(const BannerWriter& write_banner)
{
    BootReport report;
    report.banner = write_banner;
    RunStartupPass(report);
}
