// The simulated player's GPIO event device: the state and the evdev protocol
// of /dev/input/veltrix-gpio, without the character-device plumbing, so that
// the server (vxevdev.cpp) and the unit tests drive the same code.
//
// Pin n (0..31) is event code n + 8. The device answers the evdev queries
// with bitmaps of codes:
//   EVIOCGBIT(EV_KEY)  codes 8..39   input pins offered
//   EVIOCGBIT(EV_LED)  codes 8..39   output pins offered
//                      codes 40..71  pins whose mode can be set
//   EVIOCGKEY          codes 8..39   input levels
//   EVIOCGLED          codes 8..39   output levels
//                      codes 40..71  pins whose mode is not 0
// and takes 24-byte input events of type EV_LED: code n + 8 drives output
// pin n, code n + 40 sets the mode of pin n (0 input, 1 output, 2 other),
// code n + 72 its option, which only the log keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxsim {

constexpr int kPins = 32;
constexpr int kLevelCode = 8;    // EV_LED code of pin 0's output level
constexpr int kModeCode = 40;    // EV_LED code of pin 0's mode
constexpr int kOptionCode = 72;  // EV_LED code of pin 0's option
constexpr std::size_t kEventSize = 24;

// When a scheduled level change happens: `at_ms` milliseconds after the
// device's epoch.
struct TimedLevel {
    int pin;
    bool level;
    std::int64_t at_ms;
};

enum class Epoch { kFirstWrite, kFirstOpen, kStart };

struct DeviceConfig {
    std::uint32_t inputs = 0x1000;
    std::uint32_t outputs = 0x200;
    std::uint32_t configurable = 0;
    std::uint32_t levels = 0;  // input levels until the schedule changes them
    std::vector<TimedLevel> schedule;
    Epoch epoch = Epoch::kFirstWrite;
    std::string name = "vxsim gpio";
};

// The answer to an ioctl: a negative errno, or a result and the bytes to
// copy to the caller.
struct IoctlReply {
    int result = 0;
    std::vector<std::uint8_t> data;
};

class EventDevice {
public:
    // Every line goes to `log` without its newline; times are CLOCK_MONOTONIC
    // nanoseconds and are passed in, so the device never reads a clock.
    using Log = std::function<void(std::string_view)>;

    EventDevice(DeviceConfig config, Log log);

    void Ready(std::int64_t now);
    void Open(std::int64_t now, std::uint64_t handle, int pid);
    void Close(std::int64_t now, std::uint64_t handle);
    // Takes whole events; returns the bytes consumed or a negative errno.
    long Write(std::int64_t now, const void* data, std::size_t size);
    IoctlReply Ioctl(std::int64_t now, unsigned int cmd, const void* in, std::size_t in_size,
                     std::size_t out_size);

    // Applies the scheduled level changes due at `now`, each logged with the
    // time it was due; every entry point above does this first.
    void Advance(std::int64_t now);
    // When the next scheduled change is due, if the epoch has begun.
    std::optional<std::int64_t> NextDeadline() const;

    std::uint32_t levels() const { return levels_; }

private:
    void Begin(std::int64_t now);
    void Emit(std::int64_t now, std::string_view what);
    void Apply(int type, int code, std::int32_t value);

    DeviceConfig config_;
    Log log_;
    std::optional<std::int64_t> epoch_;
    std::size_t next_ = 0;  // first schedule entry not applied yet
    std::uint32_t levels_;
    std::uint32_t driven_ = 0;
    std::uint32_t moded_ = 0;  // pins whose mode is not 0
};

// The server's command line, without argv[0]; throws std::invalid_argument
// with a message naming the offending option.
struct ServerOptions {
    DeviceConfig device;
    std::string log_path;
    std::string devname = "input/veltrix-gpio";
    std::string pid_file;
    bool daemon = false;
    bool debug = false;
};
ServerOptions ParseServerOptions(const std::vector<std::string>& args);
extern const char kServerUsage[];

}  // namespace vxsim
