// Time as the program sees it: the monotonic clock and sleeping. Code that
// waits or measures takes a Clock, so that a test can run it on a clock it
// controls; the program uses SystemClock.
#pragma once

#include <ctime>

namespace corvid {

class Clock {
public:
    virtual ~Clock() = default;
    // CLOCK_MONOTONIC.
    virtual timespec Monotonic() = 0;
    // Suspends the calling thread for the whole time: a signal handler that
    // runs meanwhile does not shorten it.
    virtual void SleepMicroseconds(unsigned int microseconds) = 0;
};

class SystemClock final : public Clock {
public:
    timespec Monotonic() override;
    void SleepMicroseconds(unsigned int microseconds) override;
};

} // namespace corvid
