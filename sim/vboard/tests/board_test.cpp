/* The board's state machine without FUSE: what the device files would see. */
#include <cerrno>
#include <gtest/gtest.h>
#include <sstream>

#include "board.h"
#include "control.h"

using namespace vboard;

namespace
{

struct ManualClock {
    uint64_t now = 1000000;
};

BoardOptions options(ManualClock *clock)
{
    BoardOptions o;
    o.run_timer = false;
    o.clock = [clock] { return clock->now; };
    return o;
}

int read_reg(Board &b, uint8_t reg)
{
    uint8_t v = 0;
    if (b.i2c_write(0x44, &reg, 1) != 1)
        return -1;
    return b.i2c_read(0x44, &v, 1) == 1 ? v : -1;
}

int write_reg(Board &b, uint8_t reg, uint8_t value)
{
    uint8_t buf[2] = {reg, value};
    return b.i2c_write(0x44, buf, 2);
}

} // namespace

TEST(BoardI2c, AddressesArePerTransferAndBindingChecksTheRange)
{
    ManualClock clock;
    Board b(options(&clock));
    EXPECT_EQ(b.i2c_bind(0x80), -EINVAL);
    EXPECT_EQ(b.i2c_bind(0x45), 0);
    /* A file bound elsewhere does not move another file's address. */
    uint8_t reg = 0xff, v = 0;
    EXPECT_EQ(b.i2c_write(0x45, &reg, 1), -ENXIO);
    EXPECT_EQ(read_reg(b, 0xff), 0x27);
    EXPECT_EQ(b.i2c_read(0x45, &v, 1), -ENXIO);
    EXPECT_EQ(read_reg(b, 0xfe), 0x28);
}

TEST(BoardGpio, ResetPulseHoldsTheChipAndRestoresPowerOnRegisters)
{
    ManualClock clock;
    Board b(options(&clock));
    int power_on = read_reg(b, 0x10);
    ASSERT_EQ(write_reg(b, 0x10, power_on ^ 0xff), 2);
    EXPECT_EQ(b.gpio_write(LINE_RESET, GpioAttr::Value, "1\n"), 0);
    EXPECT_EQ(read_reg(b, 0x10), -1); /* off the bus while held */
    EXPECT_EQ(b.gpio_write(LINE_RESET, GpioAttr::Value, "0"), 0);
    EXPECT_EQ(read_reg(b, 0x10), power_on);
    EXPECT_EQ(b.resets(), 1u);
    /* Writing the same level again is no new pulse. */
    EXPECT_EQ(b.gpio_write(LINE_RESET, GpioAttr::Value, "0"), 0);
    EXPECT_EQ(b.resets(), 1u);
    EXPECT_EQ(b.gpio_state(LINE_RESET).value_writes, 3u);
}

TEST(BoardGpio, InterruptEdgesCountOnlyWithARisingEdgeSetting)
{
    ManualClock clock;
    Board b(options(&clock));
    int notified = 0;
    b.set_irq_notifier([&] { notified++; });
    ASSERT_EQ(write_reg(b, 0xb8, 0xff), 2);

    Camera cam{Standard::TVI, RES_1080P30, false};
    b.chip().plug(0, cam); /* edge setting "none": no edge for pollers */
    EXPECT_EQ(b.gpio_read(LINE_INTERRUPT, GpioAttr::Value), "1\n");
    EXPECT_EQ(b.gpio_events(LINE_INTERRUPT), 0u);
    EXPECT_EQ(notified, 0);

    ASSERT_EQ(write_reg(b, 0xb5, 0xff), 2);
    EXPECT_EQ(b.gpio_read(LINE_INTERRUPT, GpioAttr::Value), "0\n");
    EXPECT_EQ(b.gpio_write(LINE_INTERRUPT, GpioAttr::Edge, "rising"), 0);
    b.chip().unplug(0);
    EXPECT_EQ(b.gpio_events(LINE_INTERRUPT), 1u);
    EXPECT_EQ(notified, 1);
    EXPECT_EQ(b.gpio_read(LINE_INTERRUPT, GpioAttr::Edge), "rising\n");
}

TEST(BoardGpio, SysfsRulesForDirectionValueAndEdge)
{
    ManualClock clock;
    Board b(options(&clock));
    EXPECT_EQ(b.gpio_write(LINE_INTERRUPT, GpioAttr::Value, "1"), -EPERM);
    EXPECT_EQ(b.gpio_write(LINE_TERM2, GpioAttr::Edge, "rising"), -EIO);
    EXPECT_EQ(b.gpio_write(LINE_TERM2, GpioAttr::Direction, "sideways"), -EINVAL);
    EXPECT_EQ(b.gpio_write(LINE_TERM2, GpioAttr::Value, "x"), -EINVAL);
    EXPECT_EQ(b.gpio_write(LINE_INTERRUPT, GpioAttr::Edge, "up"), -EINVAL);
    EXPECT_EQ(b.gpio_write(LINE_TERM2, GpioAttr::Direction, "high"), 0);
    EXPECT_EQ(b.gpio_read(LINE_TERM2, GpioAttr::Value), "1\n");
    EXPECT_EQ(b.gpio_read(LINE_TERM2, GpioAttr::Direction), "out\n");
}

TEST(BoardCaptureDriver, StatisticsFollowTheLockAndFaults)
{
    ManualClock clock;
    Board b(options(&clock));
    Camera cam{Standard::TVI, RES_1080P30, false};
    b.chip().plug(2, cam);
    EXPECT_EQ(b.stats_content(2), "1\n");
    /* Program channel 2 for 1080p30: line length 2200. */
    ASSERT_EQ(write_reg(b, 0x40, 0x02), 2);
    ASSERT_EQ(write_reg(b, 0x1c, 0x08), 2);
    ASSERT_EQ(write_reg(b, 0x1d, 0x98), 2);
    clock.now += 5000000;
    b.chip().poll();
    EXPECT_EQ(b.stats_content(2), "0\n");
    EXPECT_EQ(b.stats_content(1), "1\n");

    EXPECT_TRUE(b.command({"fault", "stats", "empty", "2"}).ok);
    EXPECT_EQ(b.stats_content(2), "");
    EXPECT_TRUE(b.stats_present(2));
    EXPECT_TRUE(b.command({"fault", "stats", "missing", "2"}).ok);
    EXPECT_FALSE(b.stats_present(2));
    EXPECT_TRUE(b.command({"fault", "clear"}).ok);
    EXPECT_EQ(b.stats_content(2), "0\n");

    b.chip().unplug(2);
    EXPECT_EQ(b.stats_content(2), "1\n");
}

TEST(BoardCaptureDriver, CamIoctlRecordsItsValueUnlessFailing)
{
    ManualClock clock;
    Board b(options(&clock));
    EXPECT_EQ(b.cam_ioctl(2, 1), 0);
    EXPECT_EQ(b.cam_state(2).last_value, 1u);
    EXPECT_FALSE(b.cam_state(1).last_value);
    EXPECT_TRUE(b.command({"fault", "cam", "fail", "2"}).ok);
    EXPECT_EQ(b.cam_ioctl(2, 0), -EIO);
    EXPECT_EQ(b.cam_state(2).ioctls, 1u);
    EXPECT_EQ(b.command({"get", "cam-ioctl", "2"}).text, "1");
}

TEST(BoardCommands, FaultsAndCamerasFromTheControlSocket)
{
    ManualClock clock;
    BoardOptions o = options(&clock);
    o.cpuid = false;
    Board b(o);
    EXPECT_FALSE(b.gpio_present(LINE_CPUID));
    EXPECT_TRUE(b.command({"fault", "gpio", "missing", "video_term_1"}).ok);
    EXPECT_FALSE(b.gpio_present(LINE_TERM1));
    EXPECT_TRUE(b.command({"fault", "clear"}).ok);
    EXPECT_TRUE(b.gpio_present(LINE_TERM1));
    EXPECT_FALSE(b.gpio_present(LINE_CPUID)); /* clearing faults adds no line */

    EXPECT_TRUE(b.command({"fault", "chip", "nack", "0xff"}).ok);
    EXPECT_EQ(read_reg(b, 0xff), -1);
    EXPECT_EQ(read_reg(b, 0xfe), 0x28);
    EXPECT_TRUE(b.command({"fault", "chip", "absent"}).ok);
    EXPECT_EQ(read_reg(b, 0xfe), -1);
    EXPECT_TRUE(b.command({"fault", "clear"}).ok);
    EXPECT_EQ(read_reg(b, 0xff), 0x27);

    EXPECT_FALSE(b.command({"fault", "chip", "nack", "0x100"}).ok);
    EXPECT_FALSE(b.command({"fault", "gpio", "missing", "nope"}).ok);
    EXPECT_FALSE(b.command({"fault", "service", "overlay", "absent"}).ok); /* no services */
    EXPECT_FALSE(b.command({"plug", "4", "tvi", "pal"}).ok);
    EXPECT_FALSE(b.command({"plug", "0", "cvbs", "1080p30"}).ok);
    EXPECT_TRUE(b.command({"plug", "3", "ahd", "720p25", "long"}).ok);
    EXPECT_EQ(b.command({"get", "camera", "3"}).text, "ahd 720p25 long");
    EXPECT_TRUE(b.command({"unplug", "3"}).ok);
    EXPECT_EQ(b.command({"get", "camera", "3"}).text, "-");
    EXPECT_FALSE(b.command({"frobnicate"}).ok);
}

TEST(BoardCommands, RegsShowTheBankAsTheChipHoldsIt)
{
    ManualClock clock;
    Board b(options(&clock));
    ASSERT_EQ(write_reg(b, 0x40, 0x01), 2);
    ASSERT_EQ(write_reg(b, 0x12, 0xab), 2);
    auto r = b.command({"regs", "1"});
    ASSERT_TRUE(r.ok);
    size_t row = r.text.find("\n10: ");
    ASSERT_NE(row, std::string::npos);
    std::istringstream line(r.text.substr(row + 1, r.text.find('\n', row + 1) - row - 1));
    std::string label, v0, v1, v2;
    line >> label >> v0 >> v1 >> v2;
    EXPECT_EQ(v2, "ab");
    EXPECT_EQ(b.command({"regs", "0"}).text.find(" ab"), std::string::npos);
}

TEST(ControlProtocol, ArgumentsSurviveSpacesAndEmptyWords)
{
    std::string bytes = std::string("wait\0log\0two words\0\0", 20);
    auto args = control_parse(bytes);
    ASSERT_EQ(args.size(), 4u);
    EXPECT_EQ(args[2], "two words");
    EXPECT_EQ(args[3], "");
}
