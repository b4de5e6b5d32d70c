// A monotonic clock that moves only when the code under test sleeps and
// keeps the sleeps, or, after UseSystemClock, reads and sleeps on the
// system's own clock.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/clock.h"

class FakeClock : public corvid::Clock {
public:
    timespec Monotonic() override
    {
        return m_system ? m_system->Monotonic() : timespec{time_t(now_ns / 1'000'000'000), long(now_ns % 1'000'000'000)};
    }
    void SleepMicroseconds(unsigned int microseconds) override
    {
        sleeps.push_back(microseconds);
        if (m_system)
            m_system->SleepMicroseconds(microseconds);
        else
            now_ns += std::uint64_t(microseconds) * 1000;
    }
    std::uint64_t NowNanoseconds()
    {
        const timespec now = Monotonic();
        return std::uint64_t(now.tv_sec) * 1'000'000'000 + std::uint64_t(now.tv_nsec);
    }
    void UseSystemClock() { m_system.emplace(); }

    std::uint64_t now_ns = 1'000'000'000;
    std::vector<unsigned int> sleeps;

private:
    std::optional<corvid::SystemClock> m_system;
};
