#include "platform/clock.h"

#include <cerrno>

namespace corvid {

timespec SystemClock::Monotonic()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// To a deadline on the monotonic clock, taken again after each handler
// (EINTR); no other failure can arise with a valid absolute deadline.
void SystemClock::SleepMicroseconds(unsigned int microseconds)
{
    timespec deadline = Monotonic();
    deadline.tv_sec += static_cast<time_t>(microseconds / 1000000);
    deadline.tv_nsec += static_cast<long>(microseconds % 1000000) * 1000;
    if (deadline.tv_nsec >= 1000000000) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= 1000000000;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

} // namespace corvid
