#include "hardware/hardware_config.h"

#include <algorithm>
#include <cstdlib>
#include <exception>

#include "hardware/blessings.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/gpio_sysfs.h"
#include "hardware/srb.h"
#include "hardware/vx_device_data.h"
#include "platform/trace.h"

namespace {

// The capabilities a blessing can change, in the order they are matched.
struct Capability {
    const char* name;
    std::uint64_t set;
    std::uint64_t clear;
};
constexpr Capability CAPABILITIES[] = {
    {"eac3", 0x30000000, 0},
    {"internal-storage-only", 0x1000000000, 0},
    {"enable-clock-boost", 0x4000000000000, 0},
    {"disable-packet-capture", 0x2000000000, 0},
    {"disable-vxn-cloud", 0x4000000000, 0},
    {"vxear", 0x8000000000, 0},
    {"disable-lldp-reporting", 0x10000000000, 0},
    {"disable-usb-networking", 0x20000000000, 0},
    {"disable-usb-storage", 0x100000000000, 0},
    {"disable-gpio-connector", 0, 0x100},
    {"disable-ir-blaster", 0, 0x10000},
    {"disable-hdmi", 0, 0x1 | 0xE00000000000},
    {"disable-eth1-interface", 0, 0x8000000000000},
    {"enable-dws", 0x20000000000000, 0},
};

// Whole names compared ignoring ASCII case (an embedded NUL is a byte like
// any other, never an end).
bool EqualIgnoringAsciiCase(const std::string& a, const char* b)
{
    const std::string_view other(b);
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    return a.size() == other.size() &&
           std::equal(a.begin(), a.end(), other.begin(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

} // namespace

HardwareConfig::HardwareConfig()
{
    ReadBoardIdentity();
    const BootloaderEnvironment environment = GetBootloaderEnvironment();

    if (environment.Get("VX_FORMAT") != "1") {
        corvid::PrintGuarded("SRB not valid. Please run manufacturing test.\n");
        m_hardware_bitfield = 0;
        return;
    }

    const auto flags = environment.variables.find("VX_HWFLAGS");
    m_hardware_bitfield = flags == environment.variables.end()
                              ? ~std::uint64_t(0)
                              : std::strtoull(flags->second.c_str(), nullptr, 0);
    m_oem_id = environment.Get("VX_OEM_ID");
    m_oem_model = environment.Get("VX_OEM_MODEL");

    if (m_hardware_bitfield == 0) {
        corvid::PrintGuarded("Hardware configuration bitfield is zero. Please reprogram SRB\n");
        m_hardware_bitfield = HW_SRB_CONFIGURED;
    } else {
        m_hardware_bitfield |= HW_SRB_CONFIGURED;
    }
    if (m_oem_id == "Norva")
        m_hardware_bitfield |= HW_SRB_CONFIGURED | HW_NO_VXN_CLOUD;

    try {
        VerifySrb(environment.variables, m_secure_id);
        m_srb_valid = true;
    } catch (const std::exception& e) {
        if (m_hardware_bitfield & HW_PRIVILEGED) {
            corvid::PrintGuarded("SRB is not signed. Modifying hardware config: {}\n", e.what());
            m_hardware_bitfield &= ~HW_PRIVILEGED;
        }
    }

    m_hardware_bitfield |= HW_BLESSINGS_READ;
    ApplyBlessings(environment.Get("VX_SERIAL"));
    m_configured = true;
}

void HardwareConfig::ReadBoardIdentity()
{
    BoardIdentity identity;
    try {
        identity = ReadBoardId(Context::GetInstance()->Path(BOARD_ID_PATH));
    } catch (const std::exception& e) {
        corvid::PrintGuarded("<3>Board identity unavailable: {}\n", e.what());
    }
    m_board_id = identity.id;
    m_family = identity.family;
    m_bolt_version = identity.bolt_version;
    m_bootloader_version = identity.bootloader_version;
    m_secure_keys = identity.secure_keys;
    m_secure_boot = identity.secure_boot;
    m_secure_id = identity.secure_id;
    m_soc = identity.soc;
}

void HardwareConfig::ApplyBlessings(const std::string& serial)
{
    const std::uint64_t before = m_hardware_bitfield;
    try {
        const VeltrixDeviceDataStorageNand storage(
            Context::GetInstance()->OpenPartition(DEVICE_DATA_PARTITION));
        blessings::EnumerateBlessings(storage, m_secure_id, serial,
                                      [this](const std::string& name, const std::string&) {
                                          ApplyBlessing(name);
                                      });
        if (m_hardware_bitfield != before)
            corvid::PrintGuarded(
                "Hardware bitfield: before: 0x{:x} after: 0x{:x} blessings enumeration\n", before,
                m_hardware_bitfield);
    } catch (const std::exception& e) {
        corvid::PrintGuarded("Failed to enumerate blessings: {}\n", e.what());
    }
}

void HardwareConfig::ApplyBlessing(const std::string& name)
{
    for (const Capability& capability : CAPABILITIES) {
        if (EqualIgnoringAsciiCase(name, capability.name)) {
            m_hardware_bitfield = (m_hardware_bitfield | capability.set) & ~capability.clear;
            return;
        }
    }
    corvid::PrintGuarded("HardwareConfig: Unknown blessing: '{}'\n", name);
}

std::string HardwareConfig::CheckSsd()
{
    GpioSysfs detect(SSD_DETECT_GPIO);
    detect.Initialize(GpioBase::GPIO_MODE_INPUT, GpioBase::GPIO_STATE_RELEASED);
    if (detect.Read())
        return std::string();
    return "Incompatible SSD detected. This player only supports NVMe/PCIe SSDs.";
}
