#include "event_device.hpp"

#include <gtest/gtest.h>
#include <linux/input.h>

#include <array>
#include <cerrno>
#include <optional>
#include <stdexcept>

namespace vxsim {
namespace {

constexpr std::int64_t kMs = 1'000'000;

struct Device : testing::Test {
    std::vector<std::string> log;
    DeviceConfig config;
    std::optional<EventDevice> dev;

    void SetUp() override {
        config.inputs = 0x80001001;
        config.configurable = 0x3;
    }
    EventDevice& Make() {
        return dev.emplace(config, [this](std::string_view l) { log.emplace_back(l); });
    }
    // The bytes of a query, asked as the check asks: 97 bytes.
    std::vector<std::uint8_t> Query(unsigned int cmd, std::int64_t now = 0) {
        IoctlReply r = dev->Ioctl(now, cmd, nullptr, 0, _IOC_SIZE(cmd));
        EXPECT_EQ(r.result, static_cast<int>(r.data.size()));
        return r.data;
    }
    long Write(std::int64_t now, std::initializer_list<std::array<int, 3>> events) {
        std::vector<input_event> v;
        for (auto [type, code, value] : events)
            v.push_back({{}, static_cast<std::uint16_t>(type), static_cast<std::uint16_t>(code), value});
        return dev->Write(now, v.data(), v.size() * sizeof(input_event));
    }
};

std::vector<std::uint8_t> Bytes97(std::initializer_list<std::pair<int, std::uint8_t>> set) {
    std::vector<std::uint8_t> v(97);
    for (auto [i, b] : set)
        v[i] = b;
    return v;
}

TEST_F(Device, BitmapsPutPinNAtCodeNPlus8) {
    config.levels = 0x1;
    Make();
    EXPECT_EQ(Query(EVIOCGBIT(EV_KEY, 97)), Bytes97({{1, 0x01}, {2, 0x10}, {4, 0x80}}));
    EXPECT_EQ(Query(EVIOCGBIT(EV_LED, 97)), Bytes97({{2, 0x02}, {5, 0x03}}));
    EXPECT_EQ(Query(EVIOCGKEY(97)), Bytes97({{1, 0x01}}));
    EXPECT_EQ(Query(EVIOCGLED(97)), Bytes97({}));
    EXPECT_EQ(Query(EVIOCGBIT(0, 4)), (std::vector<std::uint8_t>{0x03, 0, 0x02, 0}));
    EXPECT_EQ(Query(EVIOCGBIT(EV_KEY, 2)), (std::vector<std::uint8_t>{0, 0x01}));
    EXPECT_EQ(Query(EVIOCGNAME(5)), (std::vector<std::uint8_t>{'v', 'x', 's', 'i', 'm'}));
    EXPECT_EQ(dev->Ioctl(0, EVIOCGABS(0), nullptr, 0, 24).result, -EINVAL);
}

TEST_F(Device, WritesChangeOnlyWhatTheDeviceOffers) {
    Make();
    EXPECT_EQ(Write(5, {{EV_LED, 17, 1}, {EV_LED, 41, 2}}), 48);
    EXPECT_EQ(Write(6, {{EV_LED, 16, 1}, {EV_LED, 42, 1}, {EV_KEY, 17, 0}, {EV_LED, 72 + 9, -7}}),
              96);  // pin 8 is no output, pin 2 not configurable, EV_KEY is not for writing
    EXPECT_EQ(Query(EVIOCGLED(97)), Bytes97({{2, 0x02}, {5, 0x02}}));
    EXPECT_EQ(Write(7, {{EV_LED, 41, 0}, {EV_LED, 17, 0}}), 48);
    EXPECT_EQ(Query(EVIOCGLED(97)), Bytes97({}));

    const std::uint8_t partial[kEventSize + 5] = {};
    EXPECT_EQ(dev->Write(8, partial, kEventSize - 1), -EINVAL);
    EXPECT_EQ(dev->Write(8, partial, sizeof partial), static_cast<long>(kEventSize));
    EXPECT_EQ(log, (std::vector<std::string>{"5 start", "5 write 17 17 1", "5 write 17 41 2",
                                             "6 write 17 16 1", "6 write 17 42 1",
                                             "6 write 1 17 0", "6 write 17 81 -7",
                                             "7 write 17 41 0", "7 write 17 17 0",
                                             "8 write 0 0 0"}));
}

TEST_F(Device, ScheduledLevelsCountFromTheFirstWrite) {
    config.schedule = {{12, false, 3100}, {12, true, 3000}, {0, true, 0}};
    Make();
    dev->Advance(10'000 * kMs);  // no epoch yet: nothing is due
    EXPECT_EQ(dev->NextDeadline(), std::nullopt);
    const std::int64_t t0 = 50 * kMs;
    Write(t0, {{EV_LED, 17, 1}});
    EXPECT_EQ(dev->levels(), 0x1u);  // due at once
    EXPECT_EQ(dev->NextDeadline(), t0 + 3000 * kMs);
    EXPECT_EQ(Query(EVIOCGKEY(97), t0 + 3000 * kMs - 1), Bytes97({{1, 0x01}}));
    EXPECT_EQ(Query(EVIOCGKEY(97), t0 + 3000 * kMs), Bytes97({{1, 0x01}, {2, 0x10}}));
    dev->Advance(t0 + 5000 * kMs);  // late: logged with the time it was due
    EXPECT_EQ(dev->levels(), 0x1u);
    EXPECT_EQ(dev->NextDeadline(), std::nullopt);
    EXPECT_EQ(std::vector<std::string>(log.begin() + 1, log.end()),
              (std::vector<std::string>{"50000000 press 0", "50000000 write 17 17 1",
                                        "3050000000 press 12", "3150000000 release 12"}));
}

TEST_F(Device, OtherEpochs) {
    config.schedule = {{12, true, 10}};
    config.epoch = Epoch::kFirstOpen;
    Make().Ready(1);
    dev->Open(2 * kMs, 1, 99);
    EXPECT_EQ(dev->NextDeadline(), 12 * kMs);
    config.epoch = Epoch::kStart;
    Make().Ready(1);
    EXPECT_EQ(dev->NextDeadline(), 1 + 10 * kMs);
}

TEST(ServerOptions, ParsesAndRejects) {
    const ServerOptions o = ParseServerOptions(
        {"--log", "l", "--inputs=0x3000", "--press", "13@250", "--release=12@0", "--daemon"});
    EXPECT_EQ(o.device.inputs, 0x3000u);
    EXPECT_EQ(o.device.outputs, 0x200u);
    EXPECT_EQ(o.devname, "input/veltrix-gpio");
    ASSERT_EQ(o.device.schedule.size(), 2u);
    EXPECT_EQ(o.device.schedule[0].at_ms, 250);
    EXPECT_FALSE(o.device.schedule[1].level);
    EXPECT_TRUE(o.daemon);
    for (std::vector<std::string> bad : {
             std::vector<std::string>{"--inputs", "1"},  // no --log
             {"--log", "l", "--press", "12"}, {"--log", "l", "--press", "32@1"},
             {"--log", "l", "--press", "0@1"},  // not an input
             {"--log", "l", "--outputs", "0x100000000"}, {"--log", "l", "--levels", "-1"},
             {"--log", "l", "--epoch", "never"}, {"--log", "l", "--devname", "/dev/x"},
             {"--log"}, {"--log", "l", "--daemon=1"}, {"--log", "l", "-f"}})
        EXPECT_THROW(ParseServerOptions(bad), std::invalid_argument) << bad.back();
}

}  // namespace
}  // namespace vxsim
