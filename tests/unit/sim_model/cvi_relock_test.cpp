/* A settled lock rides out a driver rewriting the channel's CVI format, whose
 * timing table leaves a TVI line length until the CVI block follows. */
#include "chip_model.h"

#include <gtest/gtest.h>

using namespace vboard;

TEST(ChipLock, SettledLockRidesOutAFormatRewriteButNotLastingWrongProgramming)
{
    uint64_t now = 1000000;
    ChipModel chip(ChipKind::TP2827, [&] { return now; });
    ASSERT_EQ(chip.set_address(CHIP_ADDRESS), 0);
    auto wr = [&](int reg, int value) {
        const uint8_t buf[2] = {uint8_t(reg), uint8_t(value)};
        ASSERT_EQ(chip.write(buf, 2), 2);
    };
    /* Line length: 1080p25 timing (2640 clocks), then the CVI block's 2400. */
    const int cvi_1080p25[][2] = {{0x1C, 0x0A}, {0x1D, 0x50}, {0x1C, 0x09}, {0x1D, 0x60}};
    wr(0xB8, 0x0C);
    wr(0x40, 1);
    ASSERT_TRUE(chip.plug(1, {Standard::CVI, RES_1080P25}));
    for (auto [reg, value] : cvi_1080p25)
        wr(reg, value);
    now += 2000000;
    ASSERT_EQ(chip.channel(1).status, 0x70);
    wr(0xB5, 0xFF);
    for (auto [reg, value] : cvi_1080p25) {
        now += 500;
        wr(reg, value);
    }
    EXPECT_EQ(chip.channel(1).status, 0x70) << "the lock holds through the rewrite";
    EXPECT_EQ(chip.reg(0x01, 0xB5), 0x00);
    wr(0x1C, 0x0A);
    wr(0x1D, 0x50);
    now += 300000;
    EXPECT_EQ(chip.channel(1).status, 0x10) << "TVI line length left in place";
    EXPECT_EQ(chip.reg(0x01, 0xB5), 0x02);
}
