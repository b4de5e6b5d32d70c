// What this unit is and may do: the 64-bit hardware capability bitfield,
// the OEM identity and the board identity. Derived once, by the
// constructor, from "/proc/boardid", the boot-loader environment's signed
// manufacturing record (SRB) and the blessings of the device-data partition.
#pragma once

#include <cstdint>
#include <string>

#include "hardware/capabilities.h"
#include "platform/singleton.h"

// The privileged bits that only a validly signed SRB may carry.
inline constexpr std::uint64_t HW_PRIVILEGED = 0xC0030000000;

// The GPIO line that tells whether the fitted SSD is supported (high: yes).
inline constexpr unsigned int SSD_DETECT_GPIO = 64;

class HardwareConfig : public corvid::Singleton<HardwareConfig> {
public:
    // Registers the instance and derives the configuration (messages on
    // standard error, each through the guarded print):
    //   no SRB (VX_FORMAT not "1"): "SRB not valid. Please run manufacturing
    //     test.\n" and a bitfield of 0;
    //   otherwise VX_HWFLAGS (all ones when absent; 0 becomes 0x100000000 with
    //   "Hardware configuration bitfield is zero. Please reprogram SRB\n"),
    //   bit 32 set, OEM "Norva" adds bits 32 and 38, an SRB that does not
    //   verify loses the privileged bits ("SRB is not signed. Modifying
    //   hardware config: <why>\n" when it had any), bit 43 set, then the
    //   blessings applied ("Hardware bitfield: before: 0x.. after: 0x..
    //   blessings enumeration\n" when they changed it; "Failed to enumerate
    //   blessings: <why>\n" when the partition fails).
    // A board identity that cannot be opened counts as an empty one (no Secure
    // ID), reported as "<3>Board identity unavailable: <why>\n".
    HardwareConfig();

    std::int64_t GetBoardId() const { return m_board_id; }
    std::uint64_t GetHardwareBitfield() const { return m_hardware_bitfield; }
    const std::string& GetFamily() const { return m_family; }
    const std::string& GetBoltVersion() const { return m_bolt_version; }
    const std::string& GetBootloaderVersion() const { return m_bootloader_version; }
    const std::string& GetOemId() const { return m_oem_id; }
    // The model name of the boot report: VX_OEM_MODEL, empty when absent.
    std::string GetModelName() const { return m_oem_model; }
    const std::string& GetSoc() const { return m_soc; }
    bool GetSecureKeys() const { return m_secure_keys; }
    bool GetSecureBoot() const { return m_secure_boot; }
    bool IsConfigured() const { return m_configured; }
    bool IsSrbValid() const { return m_srb_valid; }
    const std::string& GetSecureId() const { return m_secure_id; }

    // The blessing handler: applies the capability (CAPABILITIES) whose
    // blessing is name, ignoring ASCII case; an unknown name prints
    // "HardwareConfig: Unknown blessing: '<name>'\n".
    void ApplyBlessing(const std::string& name);

    // Empty when the fitted SSD is supported (GPIO line 64 reads high), else
    // "Incompatible SSD detected. This player only supports NVMe/PCIe SSDs."
    std::string CheckSsd();

private:
    void ReadBoardIdentity();
    void ApplyBlessings(const std::string& serial);

    std::int64_t m_board_id = -1;
    std::uint64_t m_hardware_bitfield = 0;
    std::string m_family;
    std::string m_bolt_version;
    std::string m_bootloader_version;
    std::string m_oem_id;
    std::string m_oem_model;
    std::string m_soc;
    bool m_secure_keys = false;
    bool m_secure_boot = false;
    bool m_configured = false;
    bool m_srb_valid = false;
    std::string m_secure_id;
};
