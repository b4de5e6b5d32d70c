// Device-level tests of the simulated player's hardware, run in the guest:
// the vxgpio module's lines through the legacy sysfs interface, and the
// vxevdev server's /dev/input/veltrix-gpio, used as the check uses them.
// Each group skips itself where its kernel part is missing.
#include <gtest/gtest.h>
#include <linux/input.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

bool Exists(const char* path) { return access(path, F_OK) == 0; }

bool Put(const char* path, const std::string& text) {
    std::ofstream f(path);
    return f << text << std::flush ? true : false;
}

std::int64_t Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
}

TEST(GpioChip, Line64AsTheCheckReadsIt) {
    if (!Exists("/sys/module/vxgpio"))
        GTEST_SKIP() << "the vxgpio module is not loaded";
    auto levels = [](std::uint32_t mask) {
        ASSERT_TRUE(Put("/sys/module/vxgpio/parameters/levels", std::to_string(mask)));
    };
    levels(0);
    if (!Exists("/sys/class/gpio/gpio64")) {
        ASSERT_TRUE(Put("/sys/class/gpio/export", "64\n"));
    }
    const int value = open("/sys/class/gpio/gpio64/value", O_RDWR | O_CLOEXEC);
    const int direction = open("/sys/class/gpio/gpio64/direction", O_RDWR | O_CLOEXEC);
    char c = 0;
    ASSERT_EQ(read(direction, &c, 1), 1);
    EXPECT_EQ(c, 'i');
    auto level = [&] { return lseek(value, 0, SEEK_SET) == 0 && read(value, &c, 1) == 1 ? c : '?'; };
    EXPECT_EQ(level(), '0');
    levels(1);
    EXPECT_EQ(level(), '1');
    levels(0xfffffffe);  // the other lines' levels do not leak into line 64
    EXPECT_EQ(level(), '0');
    ASSERT_EQ(pwrite(direction, "out", 3, 0), 3);  // an output reads back what it drives
    EXPECT_EQ(level(), '0');
    ASSERT_EQ(pwrite(value, "1", 1, 0), 1);
    levels(0);
    EXPECT_EQ(level(), '1');
    ASSERT_EQ(pwrite(direction, "in", 2, 0), 2);
    EXPECT_EQ(level(), '0');
    close(value);
    close(direction);
    EXPECT_FALSE(Put("/sys/class/gpio/export", "96\n"));  // the chip ends at 95
    Put("/sys/class/gpio/unexport", "64\n");
}

constexpr char kNode[] = "/dev/input/veltrix-gpio";
constexpr char kLog[] = "/tmp/hw_device_tests.log";

// A server with inputs 0 and 12 (0 high), outputs 9 and 31, pins 0 and 1
// configurable, and pin 12 pressed from 300 to 400 ms after the first write.
struct EventDevice : testing::Test {
    int fd = -1;
    void SetUp() override {
        if (!Exists("/dev/cuse"))
            GTEST_SKIP() << "no /dev/cuse";
        ASSERT_EQ(std::system(VXEVDEV_PATH " --daemon --log /tmp/hw_device_tests.log --pid-file "
                              "/tmp/hw_device_tests.pid --inputs 0x1001 --outputs 0x80000200 "
                              "--configurable 3 --levels 1 --press 12@300 --release 12@400"), 0);
        fd = open(kNode, O_RDWR | O_CLOEXEC);  // there as soon as the daemon returns
        ASSERT_GE(fd, 0) << kNode;
    }
    void TearDown() override {
        close(fd);
        pid_t pid = 0;
        if (!(std::ifstream("/tmp/hw_device_tests.pid") >> pid))
            return;
        kill(pid, SIGTERM);
        for (int i = 0; i < 500 && Exists(kNode); ++i)
            usleep(10'000);
        EXPECT_FALSE(Exists(kNode)) << "the node outlived its server";
        EXPECT_EQ(Logged("exit").size(), 1u) << "the log is complete";
    }
    // The times of the log lines "<time> what".
    static std::vector<std::int64_t> Logged(const std::string& what) {
        std::ifstream in(kLog);
        std::vector<std::int64_t> times;
        std::int64_t t;
        std::string rest;
        while (in >> t && std::getline(in, rest))
            if (rest == " " + what)
                times.push_back(t);
        return times;
    }
    // Bytes 1..4 (pins) or 5..8 (modes) of a 97-byte query, as the check reads them.
    std::uint32_t Pins(unsigned long request, int first = 1) {
        std::uint8_t b[97] = {};
        EXPECT_EQ(ioctl(fd, request, b), 97);
        return b[first] | b[first + 1] << 8 | b[first + 2] << 16 | std::uint32_t{b[first + 3]} << 24;
    }
    ssize_t Send(int code, int value) {
        const input_event e{{}, EV_LED, static_cast<std::uint16_t>(code), value};
        return write(fd, &e, sizeof e);
    }
};

TEST_F(EventDevice, QueriesAndWrites) {
    EXPECT_EQ(Pins(EVIOCGBIT(EV_KEY, 97)), 0x1001u);
    EXPECT_EQ(Pins(EVIOCGBIT(EV_LED, 97)), 0x80000200u);
    EXPECT_EQ(Pins(EVIOCGBIT(EV_LED, 97), 5), 0x3u);
    EXPECT_EQ(Pins(EVIOCGKEY(97)), 0x1u);
    EXPECT_EQ(Pins(EVIOCGLED(97)), 0x0u);
    EXPECT_EQ(Send(31 + 8, 1), 24);
    EXPECT_EQ(Pins(EVIOCGLED(97)), 0x80000000u);
    char buf[24];
    EXPECT_EQ(write(fd, buf, 10), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(read(fd, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EAGAIN);
}

// Each write is stamped while its writer waits for it.
TEST_F(EventDevice, WritesAreStampedOnTime) {
    std::vector<std::int64_t> called, returned;
    for (int i = 0; i < 20; ++i) {
        usleep(i % 2 ? 1000 : 30'000);
        called.push_back(Now());
        ASSERT_EQ(Send(9 + 8, 1), 24);
        returned.push_back(Now());
    }
    const std::vector<std::int64_t> stamped = Logged("write 17 17 1");
    ASSERT_EQ(stamped.size(), called.size());
    std::int64_t late = 0;
    for (std::size_t i = 0; i < stamped.size(); ++i) {
        EXPECT_LE(called[i], stamped[i]);
        EXPECT_LE(stamped[i], returned[i]);
        late = std::max(late, stamped[i] - called[i]);
    }
    std::printf("writes stamped at most %.3f ms after the call\n", late / 1e6);
}

TEST_F(EventDevice, PressAndReleaseOnTime) {
    const std::int64_t sent = Now();
    ASSERT_EQ(Send(9 + 8, 1), 24);
    const std::int64_t start = Logged("start").at(0);
    for (const auto& [level, ms] : {std::pair{1u, 300}, std::pair{0u, 400}}) {
        std::int64_t asked = 0, seen = 0;
        while (!seen && Now() - sent < 2'000'000'000) {
            const std::int64_t t = Now();
            ((Pins(EVIOCGKEY(97)) >> 12 & 1) == level ? seen : asked) = t;
        }
        const std::int64_t due = start + ms * 1'000'000LL;
        EXPECT_EQ(Logged(level ? "press 12" : "release 12"), std::vector{due});
        EXPECT_LT(asked, due) << "the level changed early";
        EXPECT_LT(seen - due, 20'000'000) << "the level changed late";
        std::printf("pin 12 -> %u due at %d ms: the last query without it started %.3f ms "
                    "before, the first with it %.3f ms after\n",
                    level, ms, (due - asked) / 1e6, (seen - due) / 1e6);
    }
}

}  // namespace
