#include "support/fake_context.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "platform/posix_helpers.h"

FakeContext::FakeContext() : Context(corvid::RootDir(dir.Path())) {}

std::string FakeContext::WriteFile(const std::string& live_path, const std::string& content,
                                   unsigned mode)
{
    const std::filesystem::path path = Path(live_path);
    std::filesystem::create_directories(path.parent_path());
    return dir.WriteFile(path.lexically_relative(dir.Path()).string(), content, mode);
}

std::shared_ptr<FakeNand> FakeContext::AddPartition(const std::string& name,
                                                    std::size_t total_size,
                                                    std::size_t erase_size,
                                                    std::size_t write_size)
{
    return m_partitions[name] = FakeNand::Create(total_size, erase_size, write_size);
}

NandAccess::Pointer FakeContext::OpenPartition(const std::string& name)
{
    const auto found = m_partitions.find(name);
    if (found == m_partitions.end())
        throw std::runtime_error("Failed to find NAND partition named '" + name + "'");
    return found->second;
}

NandAccess::Pointer FakeContext::OpenWholeDevice(const std::string& name)
{
    return OpenPartition(name);
}

std::unique_ptr<EventDevice> FakeContext::OpenGpioEventDevice(int type)
{
    if (!m_gpio.present)
        throw corvid::ErrnoException(ENOENT, Path(GPIO_EVENT_DEVICE_PATH));
    return std::make_unique<FakeEventDevice>(m_gpio, m_clock, type);
}
