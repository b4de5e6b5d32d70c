// The context of a test, registered for the process while it lives: live
// paths under a scratch root, partitions held in memory, the GPIO event
// device of a fake board, and a fake clock.
#pragma once

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>

#include "factory/partition_layout.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "platform/posix_helpers.h"
#include "support/fake_clock.h"
#include "support/fake_event_device.h"
#include "support/programs.h"

namespace vxtest_detail {
// Holds the scratch root; a base so that it exists before Context needs it.
struct ScratchRoot {
    vxtest::TempDir dir;
};
} // namespace vxtest_detail

class FakeContext : private vxtest_detail::ScratchRoot, public Context {
public:
    // A new unit: its boot-loader environment is loaded afresh.
    FakeContext() : Context(corvid::RootDir(dir.Path())) { ForgetBootloaderEnvironment(); }

    // Writes a file at a live path ("/proc/meminfo").
    std::string WriteFile(const std::string& live_path, const std::string& content)
    {
        std::filesystem::create_directories(std::filesystem::path(Path(live_path)).parent_path());
        return dir.WriteFile(live_path.substr(1), content);
    }

    // A partition to open; other names fail as a missing /proc/mtd row does.
    std::shared_ptr<MemoryNand> AddPartition(const std::string& name, std::size_t size, std::size_t erase_size)
    {
        return m_partitions[name] = std::make_shared<MemoryNand>(size, erase_size);
    }
    NandAccess::Pointer OpenPartition(const std::string& name) override
    {
        if (m_partitions.count(name) == 0)
            throw std::runtime_error("Failed to find NAND partition named '" + name + "'");
        return m_partitions[name];
    }
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override { return OpenPartition(name); }
    std::unique_ptr<EventDevice> OpenGpioEventDevice(int type) override
    {
        if (!m_gpio.present)
            throw corvid::ErrnoException(ENOENT, Path(GPIO_EVENT_DEVICE_PATH));
        return std::make_unique<FakeEventDevice>(m_gpio, m_clock, type);
    }
    // Interfaces with an address; reading any other fails as a missing one does.
    std::map<std::string, corvid::HardwareAddress> interfaces;
    corvid::HardwareAddress GetInterfaceAddress(const std::string& name) override
    {
        if (interfaces.count(name) == 0)
            throw corvid::ErrnoException(ENODEV);
        return interfaces[name];
    }
    FakeClock& GetClock() override { return m_clock; }
    FakeGpioBoard& GpioBoard() { return m_gpio; }

private:
    std::map<std::string, std::shared_ptr<MemoryNand>> m_partitions;
    FakeClock m_clock;
    FakeGpioBoard m_gpio;
};
