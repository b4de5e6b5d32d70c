#include "event_device.hpp"

#include <linux/input.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <utility>

namespace vxsim {
namespace {

// A bitmap of `size` bytes with the bits of each mask set from its first code.
std::vector<std::uint8_t> Bitmap(std::size_t size,
                                 std::initializer_list<std::pair<int, std::uint32_t>> fields) {
    std::vector<std::uint8_t> out(size);
    for (auto [first, mask] : fields) {
        for (int i = 0; i < 32; ++i) {
            const std::size_t code = first + i;
            if (mask >> i & 1 && code / 8 < size)
                out[code / 8] |= 1u << code % 8;
        }
    }
    return out;
}

template <typename T>
IoctlReply Value(const T& value, std::size_t size) {
    IoctlReply r;
    r.data.resize(std::min(size, sizeof value));
    std::memcpy(r.data.data(), &value, r.data.size());
    return r;
}

IoctlReply Bits(std::vector<std::uint8_t> bits) {
    const int n = static_cast<int>(bits.size());
    return {n, std::move(bits)};
}

}  // namespace

EventDevice::EventDevice(DeviceConfig config, Log log)
    : config_(std::move(config)), log_(std::move(log)), levels_(config_.levels) {
    std::stable_sort(config_.schedule.begin(), config_.schedule.end(),
                     [](const TimedLevel& a, const TimedLevel& b) { return a.at_ms < b.at_ms; });
}

void EventDevice::Emit(std::int64_t now, std::string_view what) {
    std::string line = std::to_string(now);
    line += ' ';
    line += what;
    log_(line);
}

void EventDevice::Begin(std::int64_t now) {
    if (epoch_)
        return;
    epoch_ = now;
    Emit(now, "start");
}

std::optional<std::int64_t> EventDevice::NextDeadline() const {
    if (!epoch_ || next_ >= config_.schedule.size())
        return std::nullopt;
    return *epoch_ + config_.schedule[next_].at_ms * 1'000'000;
}

void EventDevice::Advance(std::int64_t now) {
    for (auto due = NextDeadline(); due && *due <= now; due = NextDeadline()) {
        const TimedLevel& t = config_.schedule[next_++];
        levels_ = t.level ? levels_ | 1u << t.pin : levels_ & ~(1u << t.pin);
        Emit(*due, (t.level ? "press " : "release ") + std::to_string(t.pin));
    }
}

void EventDevice::Ready(std::int64_t now) {
    Emit(now, "ready");
    if (config_.epoch == Epoch::kStart)
        Begin(now);
}

void EventDevice::Open(std::int64_t now, std::uint64_t handle, int pid) {
    if (config_.epoch == Epoch::kFirstOpen)
        Begin(now);
    Advance(now);
    Emit(now, "open " + std::to_string(handle) + " " + std::to_string(pid));
}

void EventDevice::Close(std::int64_t now, std::uint64_t handle) {
    Advance(now);
    Emit(now, "close " + std::to_string(handle));
}

long EventDevice::Write(std::int64_t now, const void* data, std::size_t size) {
    if (size < kEventSize)
        return -EINVAL;
    if (config_.epoch == Epoch::kFirstWrite)
        Begin(now);
    Advance(now);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    const std::size_t count = size / kEventSize;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint16_t type, code;
        std::int32_t value;
        const std::uint8_t* e = bytes + i * kEventSize;  // 16 bytes of time come first
        std::memcpy(&type, e + 16, 2);
        std::memcpy(&code, e + 18, 2);
        std::memcpy(&value, e + 20, 4);
        Emit(now, "write " + std::to_string(type) + " " + std::to_string(code) + " " +
                      std::to_string(value));
        Apply(type, code, value);
    }
    return static_cast<long>(count * kEventSize);
}

// As the input core does, events for codes the device does not offer change
// nothing.
void EventDevice::Apply(int type, int code, std::int32_t value) {
    if (type != EV_LED || code < kLevelCode || code >= kOptionCode)
        return;
    const int pin = (code - kLevelCode) % kPins;
    const std::uint32_t bit = 1u << pin;
    if (code < kModeCode) {
        if (config_.outputs & bit)
            driven_ = value ? driven_ | bit : driven_ & ~bit;
    } else if (config_.configurable & bit) {
        moded_ = value ? moded_ | bit : moded_ & ~bit;
    }
}

IoctlReply EventDevice::Ioctl(std::int64_t now, unsigned int cmd, const void* in,
                              std::size_t in_size, std::size_t out_size) {
    Advance(now);
    if (cmd == EVIOCGRAB)
        return {in && in_size >= sizeof(int) ? 0 : -EFAULT, {}};
    if (_IOC_TYPE(cmd) != 'E' || _IOC_DIR(cmd) != _IOC_READ)
        return {-EINVAL, {}};
    const std::size_t size = std::min<std::size_t>(_IOC_SIZE(cmd), out_size);
    const unsigned int nr = _IOC_NR(cmd);
    if (nr >= _IOC_NR(EVIOCGBIT(0, 0)) && nr < _IOC_NR(EVIOCGBIT(EV_MAX + 1, 0))) {
        switch (nr - _IOC_NR(EVIOCGBIT(0, 0))) {
        case 0:
            return Bits(Bitmap(size, {{0, 1u << EV_SYN | 1u << EV_KEY | 1u << EV_LED}}));
        case EV_KEY:
            return Bits(Bitmap(size, {{kLevelCode, config_.inputs}}));
        case EV_LED:
            return Bits(Bitmap(size, {{kLevelCode, config_.outputs},
                                      {kModeCode, config_.configurable}}));
        default:
            return Bits(Bitmap(size, {}));
        }
    }
    switch (nr) {
    case _IOC_NR(EVIOCGVERSION):
        return Value(EV_VERSION, size);
    case _IOC_NR(EVIOCGID):
        return Value(input_id{BUS_VIRTUAL, 0, 0, 1}, size);
    case _IOC_NR(EVIOCGNAME(0)): {
        std::vector<std::uint8_t> name(config_.name.begin(), config_.name.end());
        name.push_back(0);
        name.resize(std::min(name.size(), size));
        return Bits(std::move(name));
    }
    case _IOC_NR(EVIOCGPHYS(0)):
    case _IOC_NR(EVIOCGUNIQ(0)):
        return {-ENOENT, {}};
    case _IOC_NR(EVIOCGKEY(0)):
        return Bits(Bitmap(size, {{kLevelCode, levels_}}));
    case _IOC_NR(EVIOCGLED(0)):
        return Bits(Bitmap(size, {{kLevelCode, driven_}, {kModeCode, moded_}}));
    case _IOC_NR(EVIOCGPROP(0)):
    case _IOC_NR(EVIOCGSND(0)):
    case _IOC_NR(EVIOCGSW(0)):
        return Bits(Bitmap(size, {}));
    default:
        return {-EINVAL, {}};
    }
}

// ------------------------------------------------------------ command line

const char kServerUsage[] =
    "usage: vxevdev --log FILE [--inputs MASK] [--outputs MASK] [--configurable MASK]\n"
    "               [--levels MASK] [--press PIN@MS]... [--release PIN@MS]...\n"
    "               [--epoch write|open|start] [--devname NAME] [--name TEXT]\n"
    "               [--daemon] [--pid-file FILE] [--debug]\n"
    "Serves the GPIO event device /dev/NAME (default input/veltrix-gpio) through CUSE.\n"
    "Masks have bit n for pin n (event code n + 8); defaults: inputs 0x1000, outputs\n"
    "0x200, configurable 0, levels 0. --press/--release set input PIN's level to 1/0\n"
    "MS milliseconds after the epoch: the first write to the device (default), the\n"
    "first open, or the start of the server. Every write and level change is logged\n"
    "to FILE as \"<CLOCK_MONOTONIC ns> <what> ...\". With --daemon the command returns\n"
    "once the device node exists, leaving the server in the background.\n";

namespace {

std::uint64_t Number(const std::string& option, const std::string& text, std::uint64_t max) {
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end || errno ||
        v > max)
        throw std::invalid_argument(option + ": '" + text + "' is not a number up to " +
                                    std::to_string(max));
    return v;
}

TimedLevel Timed(const std::string& option, const std::string& text, bool level) {
    const auto at = text.find('@');
    if (at == std::string::npos)
        throw std::invalid_argument(option + ": expected PIN@MS, got '" + text + "'");
    return {static_cast<int>(Number(option, text.substr(0, at), kPins - 1)), level,
            static_cast<std::int64_t>(Number(option, text.substr(at + 1), 1'000'000'000))};
}

}  // namespace

ServerOptions ParseServerOptions(const std::vector<std::string>& args) {
    ServerOptions o;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string option = args[i], value;
        const auto eq = option.find('=');
        const bool inline_value = option.rfind("--", 0) == 0 && eq != std::string::npos;
        if (inline_value) {
            value = option.substr(eq + 1);
            option.resize(eq);
        }
        if (option == "--daemon" || option == "--debug") {
            if (inline_value)
                throw std::invalid_argument(option + " takes no value");
            (option == "--daemon" ? o.daemon : o.debug) = true;
            continue;
        }
        if (!inline_value) {
            if (i + 1 == args.size())
                throw std::invalid_argument(option + " needs a value");
            value = args[++i];
        }
        DeviceConfig& d = o.device;
        if (option == "--log")
            o.log_path = value;
        else if (option == "--pid-file")
            o.pid_file = value;
        else if (option == "--devname")
            o.devname = value;
        else if (option == "--name")
            d.name = value;
        else if (option == "--inputs")
            d.inputs = Number(option, value, 0xffffffff);
        else if (option == "--outputs")
            d.outputs = Number(option, value, 0xffffffff);
        else if (option == "--configurable")
            d.configurable = Number(option, value, 0xffffffff);
        else if (option == "--levels")
            d.levels = Number(option, value, 0xffffffff);
        else if (option == "--press" || option == "--release")
            d.schedule.push_back(Timed(option, value, option == "--press"));
        else if (option == "--epoch" && value == "write")
            d.epoch = Epoch::kFirstWrite;
        else if (option == "--epoch" && value == "open")
            d.epoch = Epoch::kFirstOpen;
        else if (option == "--epoch" && value == "start")
            d.epoch = Epoch::kStart;
        else if (option == "--epoch")
            throw std::invalid_argument("--epoch: expected write, open or start");
        else
            throw std::invalid_argument("unknown option " + option);
    }
    if (o.log_path.empty())
        throw std::invalid_argument("--log FILE is required");
    if (o.devname.empty() || o.devname[0] == '/' || o.devname.find("..") != std::string::npos)
        throw std::invalid_argument("--devname: a name below /dev such as input/veltrix-gpio");
    for (const TimedLevel& t : o.device.schedule) {
        if (!(o.device.inputs >> t.pin & 1))
            throw std::invalid_argument("pin " + std::to_string(t.pin) +
                                        " is scheduled but not an input (see --inputs)");
    }
    return o;
}

}  // namespace vxsim
