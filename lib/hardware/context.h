// The context of one run: where the program's live sources are. Library
// code never opens a live path or device by itself; it asks the context
// registered for the process:
//   - Path("/proc/boardid"): a live path joined to the context's root;
//   - OpenPartition / OpenWholeDevice: a NAND partition by its /proc/mtd name;
//   - OpenGpioEventDevice: one side of the board's GPIO event device;
//   - GetInterfaceAddress: a network interface's hardware address;
//   - GetClock(): the monotonic clock and sleeping.
// The program's main constructs a LiveContext (root "/", the MTD devices,
// the system clock) before anything else; tests construct their own.
// Exactly one context lives at a time (it is the corvid::SystemContext of
// the process, which the platform library reads its live paths from).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "hardware/event_device.h"
#include "platform/nand_access.h"
#include "platform/posix_helpers.h"
#include "platform/system_context.h"

class Context : public corvid::SystemContext {
public:
    // The registered context; a fatal assertion when the process registered
    // none, or only the platform's.
    static Context* GetInstance();

    // The partition called name in /proc/mtd, limited to the partition's size.
    virtual NandAccess::Pointer OpenPartition(const std::string& name) = 0;
    // The device of the partition called name, the whole device.
    virtual NandAccess::Pointer OpenWholeDevice(const std::string& name) = 0;

    // The board's GPIO event device, "/dev/input/veltrix-gpio": its key side
    // (EV_KEY, the inputs) or its LED side (EV_LED, the outputs).
    virtual std::unique_ptr<EventDevice> OpenGpioEventDevice(int type) = 0;

    // The hardware address of the network interface called name. Throws
    // corvid::ErrnoException when it cannot be read.
    virtual corvid::HardwareAddress GetInterfaceAddress(const std::string& name) = 0;

protected:
    explicit Context(corvid::RootDir root) : corvid::SystemContext(std::move(root)) {}
};

// The player itself: root "/", the kernel's MTD partitions, the system clock.
class LiveContext : public Context {
public:
    LiveContext() : Context(corvid::RootDir("/")) {}

    NandAccess::Pointer OpenPartition(const std::string& name) override;
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override;
    std::unique_ptr<EventDevice> OpenGpioEventDevice(int type) override;
    corvid::HardwareAddress GetInterfaceAddress(const std::string& name) override;
    corvid::Clock& GetClock() override { return m_clock; }

private:
    corvid::SystemClock m_clock;
};
