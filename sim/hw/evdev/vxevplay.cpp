// vxevplay: plays a fixed script against the GPIO event device, so that the
// simulated player's scenarios can prove the runner's timing verdicts with
// writes and button waits whose timing is known.
//
//   vxevplay [--device PATH] STEP...
//     TYPE:CODE:VALUE  one 24-byte input event, in one write(2)
//     sleep:MS         sleeps MS milliseconds after the previous step
//     key:PIN:MS       asks for the input levels (EVIOCGKEY) every
//                      millisecond until input PIN is 1; fails after MS ms
//
// The device (default /dev/input/veltrix-gpio) is opened before the first
// step and closed after the last. Exit status: 0, 1 when a step failed,
// 2 for a wrong command line.
#include <linux/input.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

void SleepMs(long ms) {
    timespec ts{ms / 1000, ms % 1000 * 1'000'000};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

std::int64_t NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1'000'000;
}

// The fields of a step "a:b[:c]" as numbers; false if it has other text.
bool Fields(const std::string& text, std::vector<long>& out) {
    out.clear();
    const char* p = text.c_str();
    for (;;) {
        char* end = nullptr;
        errno = 0;
        out.push_back(std::strtol(p, &end, 0));
        if (end == p || errno)
            return false;
        if (*end == '\0')
            return true;
        if (*end != ':')
            return false;
        p = end + 1;
    }
}

int Usage() {
    std::fputs("usage: vxevplay [--device PATH] STEP...\n"
               "  TYPE:CODE:VALUE  write one event\n"
               "  sleep:MS         sleep MS milliseconds\n"
               "  key:PIN:MS       wait until input PIN is 1, at most MS milliseconds\n",
               stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string device = "/dev/input/veltrix-gpio";
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--device") == 0) {
        device = argv[2];
        first = 3;
    }
    if (first >= argc)
        return Usage();
    const int fd = open(device.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::perror(device.c_str());
        return 1;
    }
    std::vector<long> f;
    for (int i = first; i < argc; ++i) {
        const std::string step = argv[i];
        if (step.rfind("sleep:", 0) == 0 && Fields(step.substr(6), f) && f.size() == 1) {
            SleepMs(f[0]);
        } else if (step.rfind("key:", 0) == 0 && Fields(step.substr(4), f) && f.size() == 2 &&
                   f[0] >= 0 && f[0] < 32) {
            const int code = static_cast<int>(f[0]) + 8;  // pin n is code n + 8
            const std::int64_t until = NowMs() + f[1];
            for (;;) {
                std::uint8_t keys[KEY_MAX / 8 + 1] = {};
                if (ioctl(fd, EVIOCGKEY(sizeof keys), keys) < 0) {
                    std::perror("EVIOCGKEY");
                    return 1;
                }
                if (keys[code / 8] >> code % 8 & 1)
                    break;
                if (NowMs() >= until) {
                    std::fprintf(stderr, "vxevplay: input %ld not pressed within %ld ms\n", f[0],
                                 f[1]);
                    return 1;
                }
                SleepMs(1);
            }
        } else if (Fields(step, f) && f.size() == 3) {
            input_event e{};
            e.type = static_cast<std::uint16_t>(f[0]);
            e.code = static_cast<std::uint16_t>(f[1]);
            e.value = static_cast<std::int32_t>(f[2]);
            if (write(fd, &e, sizeof e) != static_cast<ssize_t>(sizeof e)) {
                std::perror(("vxevplay: write " + step).c_str());
                return 1;
            }
        } else {
            std::fprintf(stderr, "vxevplay: not a step: %s\n", step.c_str());
            return Usage();
        }
    }
    close(fd);
    return 0;
}
