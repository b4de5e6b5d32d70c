// The context of a test: live paths under a scratch root, partitions held
// in memory, a fake clock. Constructing one registers it for the process
// (and so, in the code under test, for Context::GetInstance()).
#pragma once

#include <map>
#include <memory>
#include <string>

#include "hardware/context.h"
#include "support/fake_clock.h"
#include "support/fake_event_device.h"
#include "support/fake_nand.h"
#include "support/programs.h"

namespace vxtest_detail {
// Holds the scratch root; a base so that it exists before Context needs it.
struct ScratchRoot {
    vxtest::TempDir dir;
};
} // namespace vxtest_detail

class FakeContext : private vxtest_detail::ScratchRoot, public Context {
public:
    FakeContext();

    // Writes a file at a live path below the root ("/proc/meminfo").
    std::string WriteFile(const std::string& live_path, const std::string& content,
                          unsigned mode = 0644);

    // Makes a partition called name; OpenPartition and OpenWholeDevice hand
    // it out. Unknown names fail as a missing /proc/mtd row does.
    std::shared_ptr<FakeNand> AddPartition(const std::string& name, std::size_t total_size,
                                           std::size_t erase_size, std::size_t write_size = 2048);

    NandAccess::Pointer OpenPartition(const std::string& name) override;
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override;
    std::unique_ptr<EventDevice> OpenGpioEventDevice(int type) override;
    FakeClock& GetClock() override { return m_clock; }

    // The GPIO event device both sides open.
    FakeGpioBoard& GpioBoard() { return m_gpio; }

    const std::string& RootPath() const { return dir.Path(); }

private:
    std::map<std::string, std::shared_ptr<FakeNand>> m_partitions;
    FakeClock m_clock;
    FakeGpioBoard m_gpio;
};
