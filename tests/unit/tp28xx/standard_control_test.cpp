/* set_video_standard's state changes, the format dispatch, image controls
 * with the picture offsets, and the PTZ entry. */
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "korvi_log.h"
#include "tp28xx_rig.h"

using fakechip::ANY_PAGE;
using fakechip::RegWrite;
using fakechip::Transaction;
using W = std::vector<RegWrite>;

namespace
{

int32_t set_standard(Rig &rig, int ch, int32_t standard, int32_t type, uint8_t auto_mode,
                     uint8_t internal)
{
    int32_t result = -100;
    rig.scoped([&] {
        result = tp28xx_set_video_standard(rig.ch(ch), standard, type, auto_mode, internal);
    });
    return result;
}

W without_page_writes(const W &writes)
{
    W out;
    for (const auto &w : writes)
        if (w.reg != 0x40)
            out.push_back(w);
    return out;
}

TEST(Tp28xxSetStandard, BackToAutomaticDetection)
{
    Rig rig(0x27);
    Channel *c = rig.ch(2);
    c->video_type = VT_1080P25;
    c->standard = VS_AHD;
    c->configured = 1;
    c->auto_mode = 0;
    rig.st(2)->lock_state = LS_LOCKED;
    rig.st(2)->resolution = VT_1080P25;
    rig.st(2)->channel_mode = 1;
    rig.chip.set(ANY_PAGE, 0xF5, 0x04);
    rig.chip.set(2, 0x35, 0x25);

    EXPECT_EQ(set_standard(rig, 2, VS_TVI, VT_720P30, 1, 0), 0);
    EXPECT_EQ(c->video_type, VT_AUTO);
    EXPECT_EQ(c->standard, VS_AHD);
    EXPECT_EQ(c->configured, 0);
    EXPECT_EQ(c->auto_mode, 1);
    EXPECT_EQ(rig.st(2)->lock_state, LS_SEARCH);
    EXPECT_EQ(rig.st(2)->resolution, VT_1080P25);
    /* Channel mode 2 and the default format on the channel's page. */
    EXPECT_EQ(rig.st(2)->channel_mode, 2);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xF5), 0x00);
    EXPECT_EQ(rig.chip.get(2, 0x35), 0x05);
    EXPECT_EQ(rig.chip.get(2, 0x16), 0x15);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO,
                        "Set Video Standard, channel: 2, auto: 1, resolution: 4, standard: 0"),
              1u);
}

TEST(Tp28xxSetStandard, DisabledProgramsNothing)
{
    /* A client's fixed choice, and the start-up of an automatic channel. */
    const std::pair<uint8_t, uint8_t> calls[] = {{0, 0}, {1, 1}};
    for (const auto &[auto_mode, internal] : calls) {
        Rig rig(0x27);
        Channel *c = rig.ch(1);
        EXPECT_EQ(set_standard(rig, 1, VS_TVI, VT_DISABLED, auto_mode, internal), 0);
        EXPECT_EQ(c->video_type, VT_DISABLED);
        EXPECT_EQ(c->standard, VS_DISABLED);
        EXPECT_EQ(c->configured, 1);
        EXPECT_EQ(c->auto_mode, auto_mode);
        EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
        EXPECT_EQ(rig.st(1)->resolution, VT_DISABLED);
        /* Only the page switch and its restore. */
        EXPECT_EQ(rig.chip.writes(), (W{{0, 0x40, 0x01}, {1, 0x40, 0x00}}));
    }
}

TEST(Tp28xxSetStandard, ProgrammedFormat)
{
    Rig rig(0x27);
    Channel *c = rig.ch(2);
    c->configured = 1;
    EXPECT_EQ(set_standard(rig, 2, VS_AHD, VT_1080P25, 0, 0), 0);
    EXPECT_EQ(c->video_type, VT_1080P25);
    EXPECT_EQ(c->standard, VS_AHD);
    EXPECT_EQ(c->configured, 0);
    const DetectState *p = rig.st(2);
    EXPECT_EQ(p->lock_state, LS_LOCKED);
    EXPECT_EQ(p->resolution, VT_1080P25);
    EXPECT_EQ(p->last_detected, VT_1080P25);
    EXPECT_EQ(p->confirm_count, 10);
    EXPECT_EQ(p->channel_mode, 2);
    /* Everything went to channel 2's page: the 1080p25 line length and the
     * AHD block's 0x0D. */
    for (const auto &w : without_page_writes(rig.chip.writes())) {
        if (w.reg != 0xF5 && w.reg != 0xFA && w.reg != 0xFB) {
            EXPECT_EQ(w.page, 0x02) << "register " << int(w.reg);
        }
    }
    EXPECT_EQ(rig.chip.get(2, 0x1C), 0x0A);
    EXPECT_EQ(rig.chip.get(2, 0x1D), 0x50);
    EXPECT_EQ(rig.chip.get(2, 0x0D), 0x73);
}

TEST(Tp28xxSetStandard, LockAcceptedByTheManagerKeepsConfigured)
{
    Rig rig(0x27);
    Channel *c = rig.ch(0);
    c->configured = 1;
    EXPECT_EQ(set_standard(rig, 0, VS_TVI, VT_1080P30, 1, 1), 0);
    EXPECT_EQ(c->configured, 1);
    EXPECT_EQ(c->auto_mode, 1);
    EXPECT_EQ(c->video_type, VT_1080P30);
    EXPECT_EQ(rig.st(0)->lock_state, LS_LOCKED);

    c->configured = 0;
    EXPECT_EQ(set_standard(rig, 0, VS_TVI, VT_1080P25, 1, 1), 0);
    EXPECT_EQ(c->configured, 0);
}

TEST(Tp28xxSetStandard, RefusedFormatChangesOnlyTheChannelMode)
{
    Rig rig(0x27);
    Channel *c = rig.ch(3);
    c->video_type = VT_720P25;
    c->standard = VS_CVI;
    c->configured = 1;
    rig.st(3)->lock_state = LS_CONFIRM;
    rig.st(3)->resolution = VT_720P25;
    rig.st(3)->channel_mode = 1;
    rig.chip.set(ANY_PAGE, 0xF5, 0x08);
    rig.chip.set(3, 0x35, 0x25);

    EXPECT_EQ(set_standard(rig, 3, VS_TVI, 12, 0, 0), -1);
    EXPECT_EQ(c->video_type, VT_720P25);
    EXPECT_EQ(c->standard, VS_CVI);
    EXPECT_EQ(c->configured, 0);
    EXPECT_EQ(rig.st(3)->lock_state, LS_CONFIRM);
    EXPECT_EQ(rig.st(3)->resolution, VT_UNKNOWN);
    EXPECT_EQ(without_page_writes(rig.chip.writes()),
              (W{{3, 0x2F, 0x0E}, {3, 0x35, 0x05}, {0x03, 0xF5, 0x00}}));

    /* With automatic mode the configured flag stays. */
    c->configured = 1;
    EXPECT_EQ(set_standard(rig, 3, VS_TVI, VT_NONE, 1, 1), -1);
    EXPECT_EQ(c->configured, 1);
}

TEST(Tp28xxApplyFormat, ShortLineChoosesThe720pVariant)
{
    Rig rig(0x27);
    tp28xx_set_page(rig.dec->i2c_fd, 1);
    EXPECT_EQ(tp28xx_apply_video_format(rig.ch(1), VS_TVI, VT_720P30, 1), 0);
    EXPECT_EQ(rig.st(1)->channel_mode, 1);
    EXPECT_EQ(rig.chip.get(1, 0x1C) * 256 + rig.chip.get(1, 0x1D), 1650);
    EXPECT_EQ(rig.chip.get(1, 0x39), 0x18); /* hd720 block */

    EXPECT_EQ(tp28xx_apply_video_format(rig.ch(1), VS_TVI, VT_720P30, 0), 0);
    EXPECT_EQ(rig.st(1)->channel_mode, 2);
    EXPECT_EQ(rig.chip.get(1, 0x1C) * 256 + rig.chip.get(1, 0x1D), 3300);
    EXPECT_EQ(rig.chip.get(1, 0x39), 0x1C); /* hd block */

    EXPECT_EQ(tp28xx_apply_video_format(rig.ch(1), VS_TVI, VT_720P25, 1), 0);
    EXPECT_EQ(rig.chip.get(1, 0x1C) * 256 + rig.chip.get(1, 0x1D), 1980);
}

TEST(Tp28xxApplyFormat, OffsetsSurviveAFormatChange)
{
    Rig rig(0x27);
    Channel *c = rig.ch(1);
    c->xoffset = 5;
    c->yoffset = 0x1FD; /* low 8 bits: -3 */
    tp28xx_set_page(rig.dec->i2c_fd, 1);
    EXPECT_EQ(tp28xx_apply_video_format(c, VS_TVI, VT_1080P30, 0), 0);
    /* 1080p30 starts at 0x0D3 horizontally and 0x29 vertically. */
    EXPECT_EQ(tp28xx_base_hstart(c->base_position), 0xD3);
    EXPECT_EQ(tp28xx_base_vstart(c->base_position), 0x29u);
    EXPECT_EQ(rig.chip.get(1, 0x16), 0xD8);
    EXPECT_EQ(rig.chip.get(1, 0x15) & 0x70, 0x00);
    EXPECT_EQ(rig.chip.get(1, 0x18), 0x2C);
}

TEST(Tp28xxApplyFormat, DisabledIsAProgrammingError)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Rig rig(0x27);
    EXPECT_DEATH(tp28xx_apply_video_format(rig.ch(0), VS_TVI, VT_DISABLED, 0),
                 "resolution != VT_DISABLED");
}

/* ---- Image controls ------------------------------------------------------ */

uint8_t control(Rig &rig, int ch, uint8_t reg, const std::function<int32_t(Channel *)> &set)
{
    rig.chip.clear_log();
    rig.scoped([&] { EXPECT_EQ(set(rig.ch(ch)), 0); });
    const W writes = rig.chip.writes_of(reg);
    EXPECT_EQ(writes.size(), 1u);
    if (writes.empty())
        return 0;
    EXPECT_EQ(writes[0].page, ch);
    return writes[0].value;
}

TEST(Tp28xxImage, GainControlsRoundToNearest)
{
    Rig rig(0x27);
    const std::pair<uint32_t, uint8_t> cases[] = {
        {0, 0x00}, {1, 0x01}, {50, 0x40}, {99, 0x7E}, {100, 0x7F},
    };
    for (const auto &[v, expected] : cases) {
        EXPECT_EQ(control(rig, 1, 0x12, [v](Channel *c) { return tp28xx_set_saturation(c, v); }),
                  expected)
            << v;
        EXPECT_EQ(control(rig, 2, 0x11, [v](Channel *c) { return tp28xx_set_contrast(c, v); }),
                  expected)
            << v;
    }
}

TEST(Tp28xxImage, BrightnessCoversTheScaleWithoutAJump)
{
    Rig rig(0x27);
    const std::pair<uint32_t, uint8_t> cases[] = {
        {50, 0xFF}, {51, 0x00}, {100, 0x3F}, {0, 0xC0}, {49, 0xFE},
    };
    for (const auto &[v, expected] : cases)
        EXPECT_EQ(control(rig, 0, 0x10, [v](Channel *c) { return tp28xx_set_brightness(c, v); }),
                  expected)
            << v;
    /* As a signed offset the register rises by one or two per step. */
    int previous = -1000;
    for (uint32_t v = 0; v <= 100; v++) {
        const int now = static_cast<int8_t>(
            control(rig, 0, 0x10, [v](Channel *c) { return tp28xx_set_brightness(c, v); }));
        if (v > 0) {
            EXPECT_GE(now - previous, 1) << v;
            EXPECT_LE(now - previous, 2) << v;
        }
        previous = now;
    }
}

TEST(Tp28xxImage, HueAndSharpness)
{
    Rig rig(0x27);
    const std::pair<uint8_t, uint8_t> hues[] = {{0, 0x80}, {50, 0xFF}, {100, 0x7F}};
    for (const auto &[v, expected] : hues)
        EXPECT_EQ(control(rig, 3, 0x13, [v](Channel *c) { return tp28xx_set_hue(c, v); }),
                  expected);

    const struct {
        uint8_t before;
        uint32_t value;
        uint8_t after;
    } sharp[] = {{0xE5, 100, 0xFF}, {0x1F, 0, 0x00}, {0xA0, 50, 0xAF}};
    for (const auto &s : sharp) {
        rig.chip.set(1, 0x14, s.before);
        const uint32_t v = s.value;
        EXPECT_EQ(control(rig, 1, 0x14, [v](Channel *c) { return tp28xx_set_sharpness(c, v); }),
                  s.after);
    }
    /* A failed read keeps bits 5 to 7 as ones. */
    rig.chip.fail_reads(1, 0x14, 1);
    EXPECT_EQ(control(rig, 1, 0x14, [](Channel *c) { return tp28xx_set_sharpness(c, 0); }), 0xE0);
}

TEST(Tp28xxImage, FailedWriteIsReported)
{
    Rig rig(0x27);
    rig.chip.set_offline(true);
    EXPECT_EQ(tp28xx_set_saturation(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_brightness(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_contrast(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_hue(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_sharpness(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_yoffset(rig.ch(0), 10), -1);
    rig.chip.set_offline(false);
    /* chip_lock was released on every path. */
    EXPECT_TRUE(g_mutex_trylock(rig.dec->chip_lock));
    g_mutex_unlock(rig.dec->chip_lock);
}

/* Reads the base position the way a format change does, from 0x15, 0x16
 * and 0x18 on the channel's page. */
void load_base(Rig &rig, int ch, uint8_t r15, uint8_t r16, uint8_t r18)
{
    rig.chip.set(ch, 0x15, r15);
    rig.chip.set(ch, 0x16, r16);
    rig.chip.set(ch, 0x18, r18);
    tp28xx_set_page(rig.dec->i2c_fd, ch);
    tp28xx_read_base_position(rig.dec->i2c_fd, ch, &rig.ch(ch)->base_position);
    tp28xx_set_page(rig.dec->i2c_fd, 0);
}

TEST(Tp28xxImage, HorizontalOffsetIsClampedAndSigned)
{
    Rig rig(0x27);
    load_base(rig, 2, 0x33, 0xFC, 0x29); /* hstart 0x3FC = 1020 */
    EXPECT_EQ(tp28xx_base_hstart(rig.ch(2)->base_position), 1020);
    rig.scoped([&] { EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), 10), 0); });
    EXPECT_EQ(rig.chip.get(2, 0x15), 0x33); /* 1023: bits 8-10 stay 3, low nibble kept */
    EXPECT_EQ(rig.chip.get(2, 0x16), 0xFF);

    load_base(rig, 2, 0x71, 0xF8, 0x29); /* 0x7F8 = 2040, held as -8 */
    EXPECT_EQ(tp28xx_base_hstart(rig.ch(2)->base_position), -8);
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), 10), 0);
    EXPECT_EQ(rig.chip.get(2, 0x15), 0x01);
    EXPECT_EQ(rig.chip.get(2, 0x16), 0x02);

    load_base(rig, 2, 0x40, 0x00, 0x29); /* 0x400: -1024, the lower limit */
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), -5), 0);
    EXPECT_EQ(rig.chip.get(2, 0x15), 0x40);
    EXPECT_EQ(rig.chip.get(2, 0x16), 0x00);

    /* Offsets act on the format's position: twice 5 is once 5. */
    load_base(rig, 1, 0x13, 0x16, 0x19);
    rig.chip.clear_log();
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(1), 5), 0);
    const W once = rig.chip.writes();
    rig.chip.clear_log();
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(1), 5), 0);
    EXPECT_EQ(rig.chip.writes(), once);
    EXPECT_EQ(rig.chip.get(1, 0x16), 0x1B);
    EXPECT_EQ(rig.chip.writes_of(0x16), (W{{1, 0x16, 0x1B}}));
}

TEST(Tp28xxImage, VerticalOffsetMovesUpAndIsClamped)
{
    Rig rig(0x27);
    load_base(rig, 3, 0x13, 0x16, 0x29);
    const std::pair<int32_t, uint8_t> cases[] = {{50, 0x00}, {-300, 0xFF}, {5, 0x24}, {-5, 0x2E}};
    for (const auto &[offset, expected] : cases) {
        const int32_t o = offset;
        EXPECT_EQ(control(rig, 3, 0x18, [o](Channel *c) { return tp28xx_set_yoffset(c, o); }),
                  expected)
            << offset;
    }
}

/* ---- PTZ entry -------------------------------------------------------------- */

TEST(Tp28xxPtz, RecordGoesToItsChannelAndThePageIsRestored)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0xB6, 0x02); /* completion bit of channel 1 at once */
    tp28xx_set_page(rig.dec->i2c_fd, 2);
    rig.chip.clear_log();
    const uint8_t record[5] = {0x01, 0x00, 0xFF, 0x01, 0x80};
    rig.scoped([&] { tp28xx_transmit_ptz(rig.dec, record, sizeof record); });

    const auto log = rig.chip.transactions();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), (Transaction{Transaction::READ, 0x02, 0x40, 0x02}));
    EXPECT_EQ(log.back(), (Transaction{Transaction::WRITE, 0x01, 0x40, 0x02}));
    /* The data bytes in their registers: second, first, fourth, third. */
    W data;
    for (const auto &w : rig.chip.writes())
        if (w.reg >= 0x55 && w.reg <= 0x60 && (w.value != 0))
            data.push_back(w);
    EXPECT_EQ(data, (W{{1, 0x55, 0xDB},
                       {1, 0x56, 0x6D},
                       {1, 0x57, 0xB6},
                       {1, 0x58, 0x92},
                       {1, 0x59, 0x49},
                       {1, 0x5A, 0x24},
                       {1, 0x5B, 0xD2},
                       {1, 0x5C, 0x49},
                       {1, 0x5D, 0x24},
                       {1, 0x5E, 0x92},
                       {1, 0x5F, 0x49},
                       {1, 0x60, 0x26}}));
    /* Sent twice. */
    EXPECT_EQ(rig.chip.writes_of(0xB6), (W{{1, 0xB6, 0x02}, {1, 0xB6, 0x02}}));
    EXPECT_TRUE(g_mutex_trylock(rig.dec->chip_lock));
    g_mutex_unlock(rig.dec->chip_lock);
}

TEST(Tp28xxPtz, RecordSizeIsChecked)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Rig rig(0x27);
    const uint8_t record[6] = {0};
    EXPECT_DEATH(tp28xx_transmit_ptz(rig.dec, record, 6), "size == 5");
}

} // namespace
