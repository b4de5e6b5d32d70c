#include "hardware/context.h"

#include "hardware/nand_access_linux.h"
#include "platform/assert.h"

Context* Context::GetInstance()
{
    auto* context = dynamic_cast<Context*>(corvid::SystemContext::GetInstance());
    CORVID_ASSERT(context != nullptr, "lib/hardware/context", 9,
                  "static Context* Context::GetInstance()", "context != nullptr");
    return context;
}

NandAccess::Pointer LiveContext::OpenPartition(const std::string& name)
{
    MtdPartition partition = FindMtdPartition(name);
    partition.device = Path(partition.device);
    return LinuxNandAccess::Create(partition);
}

NandAccess::Pointer LiveContext::OpenWholeDevice(const std::string& name)
{
    return LinuxNandAccess::Create(Path(FindMtdPartition(name).device),
                                   LinuxNandAccess::WHOLE_DEVICE);
}

std::unique_ptr<EventDevice> LiveContext::OpenGpioEventDevice(int type)
{
    if (type == EV_KEY)
        return std::make_unique<VeltrixEventDevice>(VeltrixEventDevice::InputSide{});
    return std::make_unique<VeltrixEventDevice>(VeltrixEventDevice::OutputSide{});
}

corvid::HardwareAddress LiveContext::GetInterfaceAddress(const std::string& name)
{
    corvid::HardwareAddress mac;
    corvid::GetInterfaceHardwareAddress(name.c_str(), mac);
    return mac;
}
