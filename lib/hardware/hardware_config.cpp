#include "hardware/hardware_config.h"

#include <exception>

#include "hardware/blessings.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/gpio_sysfs.h"
#include "hardware/srb.h"
#include "hardware/vx_device_data.h"
#include "platform/trace.h"

HardwareConfig::HardwareConfig()
{
    ReadBoardIdentity();
    const BootloaderEnvironment environment = GetBootloaderEnvironment();

    if (!environment.HasSrb()) {
        corvid::PrintGuarded("SRB not valid. Please run manufacturing test.\n");
        m_hardware_bitfield = 0;
        return;
    }

    m_hardware_bitfield = environment.HardwareFlags();
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
    ApplyBlessings(environment.Serial());
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
    if (const Capability* capability = FindBlessing(name))
        m_hardware_bitfield = (m_hardware_bitfield | capability->set) & ~capability->clear;
    else
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
