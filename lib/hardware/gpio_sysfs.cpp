#include "hardware/gpio_sysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <fmt/format.h>

#include "hardware/context.h"
#include "platform/assert.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"

namespace {

std::string ErrorText(std::uint32_t pin, const char* operation, int error)
{
    return fmt::format("GPIO{} {}: {} ({})", pin, operation, error, std::strerror(error));
}

} // namespace

GpioSysfs::BadReadException::BadReadException(std::uint32_t pin, const char* operation, int error)
    : GpioBase::Exception(ErrorText(pin, operation, error))
{
}

GpioSysfs::BadWriteException::BadWriteException(std::uint32_t pin, const char* operation,
                                                 int error)
    : GpioBase::Exception(ErrorText(pin, operation, error))
{
}

GpioSysfs::GpioSysfs(std::uint32_t pin) : m_pin(pin)
{
    const Context& context = *Context::GetInstance();
    const std::string pin_dir = context.Path(fmt::format("{}/gpio{}", GPIO_SYSFS_PATH, pin));
    boost::system::error_code ignored;
    if (!boost::filesystem::exists(pin_dir, ignored)) {
        try {
            const corvid::UniqueFd exporter =
                corvid::OpenThrow(context.Path(fmt::format("{}/export", GPIO_SYSFS_PATH)), O_WRONLY);
            const std::string text = fmt::format("{}\n", pin);
            corvid::write_all_throw(exporter.Get(), text.data(), text.size());
        } catch (const std::exception& e) {
            corvid::PrintGuarded("Failed to export GPIO{}: {}\n", pin, e.what());
            throw;
        }
    }
    m_value_fd = corvid::OpenThrow(pin_dir + "/value", O_RDWR);
    m_direction_fd = corvid::OpenThrow(pin_dir + "/direction", O_RDWR);
    char direction = 0;
    if (corvid::read_all_throw(m_direction_fd.Get(), &direction, 1) != 1)
        throw std::runtime_error("short read on GPIO direction");
    m_is_output = direction != 'i';
}

void GpioSysfs::Initialize(GPIO_MODE mode, GPIO_STATE state)
{
    constexpr const char* FILE = "lib/hardware/gpio_sysfs.cpp";
    constexpr const char* FUNCTION =
        "void GpioSysfs::Initialize(GpioBase::GPIO_MODE, GpioBase::GPIO_STATE)";
    switch (mode) {
    case GPIO_MODE_INPUT:
        SetInput();
        return;
    case GPIO_MODE_OUTPUT:
        switch (state) {
        case GPIO_STATE_LOW:
            SetLow();
            return;
        case GPIO_STATE_HIGH:
            SetHigh();
            return;
        case GPIO_STATE_RELEASED:
            SetInput();
            return;
        }
        CORVID_ASSERT(false, FILE, 130, FUNCTION, "false");
    case GPIO_MODE_SPECIAL:
        CORVID_ASSERT(false, FILE, 135, FUNCTION, "false");
    }
    CORVID_ASSERT(false, FILE, 138, FUNCTION, "false");
}

bool GpioSysfs::Read()
{
    if (::lseek(m_value_fd.Get(), 0, SEEK_SET) < 0)
        throw corvid::ErrnoException(errno, "gpio seek");
    char level = 0;
    const ssize_t n = ::read(m_value_fd.Get(), &level, 1);
    if (n < 0)
        throw BadReadException(m_pin, "Failed read", errno);
    if (n == 0)
        throw BadReadException(m_pin, "Failed read", EAGAIN);
    if (level == '0')
        return false;
    if (level == '1')
        return true;
    throw std::runtime_error("Unexpected value when reading GPIO");
}

void GpioSysfs::Drive(char level)
{
    if (!m_is_output) {
        if (::write(m_direction_fd.Get(), "out", 3) < 3)
            throw BadWriteException(m_pin, "Failed write", errno);
        m_is_output = true;
    }
    if (::write(m_value_fd.Get(), &level, 1) != 1)
        throw BadWriteException(m_pin, "Failed write", errno);
}

void GpioSysfs::SetHigh()
{
    Drive('1');
}

void GpioSysfs::SetLow()
{
    Drive('0');
}

void GpioSysfs::SetInput()
{
    if (!m_is_output)
        return;
    // Written at the file's current position, without seeking.
    if (::write(m_direction_fd.Get(), "in", 2) < 2)
        throw BadWriteException(m_pin, "Failed write", errno);
    m_is_output = false;
}
