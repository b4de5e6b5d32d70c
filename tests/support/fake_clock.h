// A monotonic clock that moves only when the code under test sleeps; it
// keeps the sleeps and can act after each (to raise a signal, say). With
// UseSystemClock it reads and sleeps on the system's own clock instead, for
// the tests of what real signals do to real waits.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/clock.h"

class FakeClock : public corvid::Clock {
public:
    timespec Monotonic() override
    {
        const std::uint64_t ns = NowNanoseconds();
        return {time_t(ns / 1'000'000'000), long(ns % 1'000'000'000)};
    }
    void SleepMicroseconds(unsigned int microseconds) override
    {
        sleeps.push_back(microseconds);
        if (m_system)
            m_system->SleepMicroseconds(microseconds);
        else
            now_ns += std::uint64_t(microseconds) * 1000;
        if (on_sleep)
            on_sleep(NowNanoseconds());
    }
    std::uint64_t NowNanoseconds() const
    {
        if (!m_system)
            return now_ns;
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return std::uint64_t(now.tv_sec) * 1'000'000'000 + std::uint64_t(now.tv_nsec);
    }
    void UseSystemClock() { m_system = std::make_unique<corvid::SystemClock>(); }

    std::uint64_t now_ns = 1'000'000'000;
    std::vector<unsigned int> sleeps;
    std::function<void(std::uint64_t ns)> on_sleep;

private:
    std::unique_ptr<corvid::SystemClock> m_system;
};
