// A monotonic clock that moves only when the code under test sleeps; it
// keeps the sleeps and can act after each (to raise a signal, say).
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/clock.h"

class FakeClock : public corvid::Clock {
public:
    timespec Monotonic() override { return {time_t(now_ns / 1'000'000'000), long(now_ns % 1'000'000'000)}; }
    void SleepMicroseconds(unsigned int microseconds) override
    {
        sleeps.push_back(microseconds);
        now_ns += std::uint64_t(microseconds) * 1000;
        if (on_sleep)
            on_sleep(now_ns);
    }
    std::uint64_t NowNanoseconds() const { return now_ns; }

    std::uint64_t now_ns = 1'000'000'000;
    std::vector<unsigned int> sleeps;
    std::function<void(std::uint64_t ns)> on_sleep;
};
