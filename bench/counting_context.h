// The context of an in-process pass over a saved unit: live paths under the
// unit's root, its partition images behind wrappers that count what the
// pass reads from each, a fixed address for eth0 and the system clock.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/event_device.h"
#include "platform/clock.h"
#include "platform/nand_access.h"
#include "platform/posix_helpers.h"

namespace bench {

// A partition that passes every operation to another and counts the bytes
// its reads return and the read calls.
class CountingNand final : public NandAccess {
public:
    explicit CountingNand(NandAccess::Pointer inner) : m_inner(std::move(inner)) {}

    std::size_t bytes_read = 0;
    std::size_t reads = 0;

    int ReadOob(std::uint64_t offset, void* buffer, std::size_t length) override
    {
        return m_inner->ReadOob(offset, buffer, length);
    }
    int WriteOob(std::uint64_t offset, const void* buffer, std::size_t length) override
    {
        return m_inner->WriteOob(offset, buffer, length);
    }
    std::size_t GetEraseSize() const override { return m_inner->GetEraseSize(); }
    std::size_t GetOobSize() const override { return m_inner->GetOobSize(); }
    std::size_t GetWriteSize() const override { return m_inner->GetWriteSize(); }
    std::size_t GetTotalSize() const override { return m_inner->GetTotalSize(); }
    bool IsBadBlock(std::uint64_t offset) override { return m_inner->IsBadBlock(offset); }
    bool IsOobErased(std::uint64_t offset) override { return m_inner->IsOobErased(offset); }
    int MarkBadBlock(std::uint64_t offset) override { return m_inner->MarkBadBlock(offset); }
    int EraseBlock(std::uint64_t offset) override { return m_inner->EraseBlock(offset); }
    std::size_t Read(std::uint64_t offset, void* buffer, std::size_t length) override
    {
        const std::size_t got = m_inner->Read(offset, buffer, length);
        bytes_read += got;
        ++reads;
        return got;
    }
    void Write(std::uint64_t offset, const void* buffer, std::size_t length) override
    {
        m_inner->Write(offset, buffer, length);
    }

private:
    NandAccess::Pointer m_inner;
};

// An address written "02:00:00:00:00:01".
inline corvid::HardwareAddress ParseAddress(const std::string& text)
{
    corvid::HardwareAddress mac{};
    unsigned octets[6] = {};
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x", &octets[0], &octets[1], &octets[2], &octets[3],
                    &octets[4], &octets[5]) != 6)
        throw std::runtime_error("not a hardware address: " + text);
    for (std::size_t i = 0; i < mac.size(); ++i)
        mac[i] = static_cast<std::uint8_t>(octets[i]);
    return mac;
}

class CountingContext final : public Context {
public:
    CountingContext(const std::string& root, std::map<std::string, std::shared_ptr<CountingNand>> partitions,
                    const corvid::HardwareAddress& eth0)
        : Context(corvid::RootDir(root)), m_partitions(std::move(partitions)), m_eth0(eth0)
    {
        // Another unit: its environment is loaded afresh.
        ForgetBootloaderEnvironment();
    }

    NandAccess::Pointer OpenPartition(const std::string& name) override
    {
        const auto found = m_partitions.find(name);
        if (found == m_partitions.end())
            throw std::runtime_error("Failed to find NAND partition named '" + name + "'");
        return found->second;
    }
    // The images are the partitions' own; the whole device reads the same.
    NandAccess::Pointer OpenWholeDevice(const std::string& name) override { return OpenPartition(name); }
    // A healthy unit never shows a failure pattern.
    std::unique_ptr<EventDevice> OpenGpioEventDevice(int) override
    {
        throw corvid::ErrnoException(ENOENT, Path(GPIO_EVENT_DEVICE_PATH));
    }
    corvid::HardwareAddress GetInterfaceAddress(const std::string& name) override
    {
        if (name != "eth0")
            throw corvid::ErrnoException(ENODEV);
        return m_eth0;
    }
    corvid::Clock& GetClock() override { return m_clock; }

private:
    std::map<std::string, std::shared_ptr<CountingNand>> m_partitions;
    corvid::HardwareAddress m_eth0;
    corvid::SystemClock m_clock;
};

} // namespace bench
