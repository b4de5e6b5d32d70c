#include "platform/clock.h"

#include <unistd.h>

namespace corvid {

timespec SystemClock::Monotonic()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

void SystemClock::SleepMicroseconds(unsigned int microseconds)
{
    usleep(microseconds);
}

} // namespace corvid
