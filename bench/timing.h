// Timing helpers of the benchmarks.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace vxbench {

// Mean time of one call of f, in microseconds, over enough calls to last
// about a quarter of a second, after one call to warm up.
inline double MicrosecondsPerCall(const std::function<void()>& f)
{
    using Clock = std::chrono::steady_clock;
    f();
    std::size_t calls = 0;
    const auto start = Clock::now();
    auto now = start;
    while (now - start < std::chrono::milliseconds(250)) {
        f();
        ++calls;
        now = Clock::now();
    }
    return std::chrono::duration<double, std::micro>(now - start).count() / double(calls);
}

} // namespace vxbench
