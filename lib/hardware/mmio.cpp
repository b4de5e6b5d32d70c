#include "hardware/mmio.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <stdexcept>

#include <fmt/format.h>

#include "hardware/context.h"
#include "platform/posix_helpers.h"

MmioBase::MmioBase()
{
    corvid::UniqueFd fd = corvid::OpenThrow(Context::GetInstance()->Path(MEM_DEVICE_PATH), O_RDWR);
    void* address = ::mmap(nullptr, MMIO_LENGTH, PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(),
                           static_cast<off_t>(MMIO_PHYSICAL_ADDRESS));
    if (address == MAP_FAILED)
        throw corvid::ErrnoException(errno); // fd closes the device
    m_mapping = corvid::UniqueMapping(address, MMIO_LENGTH);
    m_fd = std::move(fd);
}

MmioBase::~MmioBase()
{
    m_mapping.Reset();
    m_fd.Reset();
}

std::uint32_t MmioBase::Read32(std::size_t offset) const
{
    if (offset >= m_mapping.Length())
        throw std::out_of_range("MMIO offset out of range");
    return *reinterpret_cast<const volatile std::uint32_t*>(static_cast<const char*>(m_mapping.Get()) +
                                                             offset);
}

namespace {

std::string Volts(std::uint32_t thousandths)
{
    return fmt::format("{:0.3f}V", thousandths / 1000.0);
}

std::string Celsius(std::uint32_t thousandths)
{
    return fmt::format("{:0.3f}C", static_cast<std::int32_t>(thousandths) / 1000.0);
}

std::string PowerState(std::uint32_t state)
{
    static constexpr const char* STATES[] = {"Initializing", "Tracking",    "BBM Active",
                                             "BBCM Engaged", "AC restored", "Failed to initialize"};
    return state < std::size(STATES) ? STATES[state] : "Unknown";
}

// Most significant byte first: as characters when the first is above 0x2F.
std::string Revision(std::uint32_t word)
{
    const auto b = [&](int i) { return static_cast<std::uint8_t>(word >> (8 * i)); };
    if (b(3) > 0x2F)
        return fmt::format("{:c}.{:c}.{:c}.{:c}", char(b(3)), char(b(2)), char(b(1)), char(b(0)));
    return fmt::format("{}.{}.{}.{}", b(3), b(2), b(1), b(0));
}

} // namespace

std::map<std::string, std::string> ConvertAvsStatus(const AvsStatusWords& w)
{
    std::map<std::string, std::string> status;
    status.emplace("Magic", fmt::format("0x{:08x}", w[13]));
    status.emplace("Status", w[13] == AVS_RUNNING_MAGIC ? "Enabled" : "Disabled");
    status.emplace("T0", Celsius(w[3]));
    status.emplace("V0", Volts(w[2]));
    status.emplace("PV0", Volts(w[4]));
    status.emplace("MV0", Volts(w[5]));
    status.emplace("T1", Celsius(w[15]));
    status.emplace("V1", Volts(w[14]));
    status.emplace("PV1", Volts(w[16]));
    status.emplace("MV1", Volts(w[17]));
    status.emplace("Power State", PowerState(w[11]));
    status.emplace("Heartbeat", fmt::format("{}", w[12]));
    status.emplace("Revision", Revision(w[10]));
    return status;
}

std::map<std::string, std::string> ReadAvsStatus()
{
    AvsStatusWords words;
    {
        const MmioBase registers;
        for (std::size_t i = 0; i < words.size(); ++i)
            words[i] = registers.Read32(AVS_STATUS_OFFSET + 4 * i);
    }
    return ConvertAvsStatus(words);
}
