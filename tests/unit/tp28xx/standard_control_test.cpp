/* set_video_standard's state changes, the format dispatch, image controls
 * with the picture offsets, and PTZ transmission. */
#include "tp2827.h"
#include "tp28xx_rig.h"

namespace
{

struct StandardCase {
    const char *name;
    uint8_t auto_mode, internal;
    int32_t type, standard;
    int32_t result, video_type_after, standard_after;
    uint8_t configured_after;
    int32_t lock_after, resolution_after;
    std::string chip; /* the whole sequence; empty: a programmed format, see line_length */
    int line_length;
};

TEST(Tp28xxSetStandard, StateTable)
{
    const std::string refused = "?40 40=03 ?FF ?FD ?03 2F=0E ?04 35&20=00 F5&08=00 40=04";
    const StandardCase cases[] = {
        {"back to automatic", 1, 0, VT_720P30, VS_TVI, 0, VT_AUTO, VS_CVI, 0, LS_SEARCH, VT_720P25,
         "?40 40=03 35&20=00 F5&08=00 " + DEFAULT_FORMAT + " 40=04", 0},
        {"disabled", 0, 0, VT_DISABLED, VS_TVI, 0, VT_DISABLED, VS_DISABLED, 1, LS_LOCKED,
         VT_DISABLED, "?40 40=03 40=04", 0},
        {"disabled at start-up", 1, 1, VT_DISABLED, VS_AHD, 0, VT_DISABLED, VS_DISABLED, 1,
         LS_LOCKED, VT_DISABLED, "?40 40=03 40=04", 0},
        {"fixed format", 0, 0, VT_1080P25, VS_AHD, 0, VT_1080P25, VS_AHD, 0, LS_LOCKED, VT_1080P25,
         "", 2640},
        {"lock accepted", 1, 1, VT_1080P30, VS_TVI, 0, VT_1080P30, VS_TVI, 1, LS_LOCKED, VT_1080P30,
         "", 2200},
        {"refused", 0, 0, 12, VS_TVI, -1, VT_720P25, VS_CVI, 0, LS_CONFIRM, VT_UNKNOWN, refused, 0},
        {"refused, automatic", 1, 1, VT_NONE, VS_TVI, -1, VT_720P25, VS_CVI, 1, LS_CONFIRM,
         VT_UNKNOWN, refused, 0},
    };
    for (const StandardCase &c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig(0x27);
        Channel *ch = rig.ch(3);
        DetectState *p = rig.st(3);
        ch->video_type = VT_720P25;
        ch->standard = VS_CVI;
        ch->configured = 1;
        *p = DetectState{};
        p->lock_state = LS_CONFIRM;
        p->resolution = VT_720P25;
        p->channel_mode = 1;
        rig.chip.set(ANY_PAGE, 0xF5, 0x08);
        rig.chip.set(3, 0x35, 0x25);
        rig.chip.clear_log();

        rig.scoped([&] {
            EXPECT_EQ(tp28xx_set_video_standard(ch, c.standard, c.type, c.auto_mode, c.internal),
                      c.result);
        });
        EXPECT_EQ(
            std::tuple(ch->video_type, ch->standard, ch->configured, ch->auto_mode),
            std::tuple(c.video_type_after, c.standard_after, c.configured_after, c.auto_mode));
        EXPECT_EQ(std::tuple(p->lock_state, p->resolution),
                  std::tuple(c.lock_after, c.resolution_after));
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO,
                            "Set Video Standard, channel: 3, auto: " + std::to_string(c.auto_mode) +
                                ", resolution: " + std::to_string(c.type) +
                                ", standard: " + std::to_string(c.standard)),
                  1u);
        if (!c.chip.empty()) {
            EXPECT_SEQ(rig.chip, c.chip, 0x04);
            continue;
        }
        EXPECT_EQ(std::tuple(p->last_detected, p->confirm_count, p->channel_mode),
                  std::tuple(c.type, 10, 2));
        EXPECT_EQ(rig.chip.get(3, 0x1C) * 256 + rig.chip.get(3, 0x1D), c.line_length);
        for (const auto &w : rig.chip.writes())
            EXPECT_TRUE(w.page == 3 || w.reg == 0x40 || w.reg == 0xF5 || w.reg == 0xFA ||
                        w.reg == 0xFB)
                << "register " << int(w.reg) << " on page " << int(w.page);
    }
}

TEST(Tp28xxApplyFormat, ShortLineChoosesThe720pVariantAndTheChannelMode)
{
    Rig rig(0x27);
    tp28xx_set_page(rig.dec->i2c_fd, 1);
    const struct {
        int32_t type;
        uint8_t short_line;
        int mode, line_length;
        uint8_t r39;        /* 0x18 in the hd720 block, 0x1C in hd */
        size_t mode_writes; /* the channel mode is written only when it changes */
    } cases[] = {{VT_720P30, 1, 1, 1650, 0x18, 1},
                 {VT_720P30, 0, 2, 3300, 0x1C, 1},
                 {VT_720P25, 0, 2, 3960, 0x1C, 0},
                 {VT_720P25, 1, 1, 1980, 0x18, 1}};
    for (const auto &c : cases) {
        rig.chip.clear_log();
        EXPECT_EQ(tp28xx_apply_video_format(rig.ch(1), VS_TVI, c.type, c.short_line), 0);
        EXPECT_EQ(rig.st(1)->channel_mode, c.mode);
        EXPECT_EQ(rig.chip.get(1, 0x1C) * 256 + rig.chip.get(1, 0x1D), c.line_length);
        EXPECT_EQ(rig.chip.get(1, 0x39), c.r39);
        EXPECT_EQ(rig.chip.writes(0xF5).size(), c.mode_writes);
        EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xF5), c.mode == 1 ? 0x02 : 0x00);
    }
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

/* ---- Image controls ---------------------------------------------------------- */

using Control = int32_t (*)(Channel *, uint32_t);

TEST(Tp28xxImage, ControlsScaleIntoTheirRegister)
{
    const Control hue = [](Channel *c, uint32_t v) { return tp28xx_set_hue(c, uint8_t(v)); };
    const struct {
        Control set;
        uint8_t reg;
        uint32_t value;
        int before; /* the register's value, -1 for any */
        uint8_t expected;
    } cases[] = {
        {tp28xx_set_saturation, 0x12, 0, -1, 0x00},
        {tp28xx_set_saturation, 0x12, 1, -1, 0x01},
        {tp28xx_set_saturation, 0x12, 50, -1, 0x40},
        {tp28xx_set_saturation, 0x12, 99, -1, 0x7E},
        {tp28xx_set_saturation, 0x12, 100, -1, 0x7F},
        {tp28xx_set_contrast, 0x11, 1, -1, 0x01},
        {tp28xx_set_contrast, 0x11, 50, -1, 0x40},
        {tp28xx_set_contrast, 0x11, 99, -1, 0x7E},
        {tp28xx_set_brightness, 0x10, 50, -1, 0xFF},
        {tp28xx_set_brightness, 0x10, 51, -1, 0x00},
        {tp28xx_set_brightness, 0x10, 100, -1, 0x3F},
        {tp28xx_set_brightness, 0x10, 49, -1, 0xFE},
        {tp28xx_set_brightness, 0x10, 0, -1, 0xC0},
        {hue, 0x13, 0, -1, 0x80},
        {hue, 0x13, 50, -1, 0xFF},
        {hue, 0x13, 100, -1, 0x7F},
        {tp28xx_set_sharpness, 0x14, 100, 0xE5, 0xFF},
        {tp28xx_set_sharpness, 0x14, 0, 0x1F, 0x00},
        {tp28xx_set_sharpness, 0x14, 50, 0xA0, 0xAF},
    };
    Rig rig(0x27);
    int ch = 0;
    for (const auto &c : cases) {
        ch = (ch + 1) % 4;
        if (c.before >= 0)
            rig.chip.set(ch, c.reg, uint8_t(c.before));
        rig.chip.clear_log();
        rig.scoped([&] { EXPECT_EQ(c.set(rig.ch(ch), c.value), 0); });
        EXPECT_EQ(rig.chip.writes(c.reg), (W{{uint8_t(ch), c.reg, c.expected}}))
            << "register " << int(c.reg) << " value " << c.value;
    }
    /* A failed read of 0x14 keeps bits 5 to 7 as ones. */
    rig.chip.fail_reads(1, 0x14, 1);
    rig.chip.clear_log();
    EXPECT_EQ(tp28xx_set_sharpness(rig.ch(1), 0), 0);
    EXPECT_EQ(rig.chip.writes(0x14), (W{{1, 0x14, 0xE0}}));
}

TEST(Tp28xxImage, FailedWriteIsReportedAndTheLockReleased)
{
    Rig rig(0x27);
    rig.chip.set_offline(true);
    for (Control set :
         {tp28xx_set_saturation, tp28xx_set_brightness, tp28xx_set_contrast, tp28xx_set_sharpness})
        EXPECT_EQ(set(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_hue(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_yoffset(rig.ch(0), 10), -1);
    rig.chip.set_offline(false);
    EXPECT_TRUE(g_mutex_trylock(rig.dec->chip_lock));
    g_mutex_unlock(rig.dec->chip_lock);
}

/* The base position as a format change reads it from 0x15, 0x16 and 0x18. */
void load_base(Rig &rig, int ch, uint8_t r15, uint8_t r16, uint8_t r18)
{
    rig.chip.set(ch, 0x15, r15);
    rig.chip.set(ch, 0x16, r16);
    rig.chip.set(ch, 0x18, r18);
    tp28xx_set_page(rig.dec->i2c_fd, ch);
    tp28xx_read_base_position(rig.dec->i2c_fd, ch, &rig.ch(ch)->base_position);
    tp28xx_set_page(rig.dec->i2c_fd, PAGE_ALL);
}

TEST(Tp28xxImage, OffsetsAreClampedAndActOnTheFormatsPosition)
{
    Rig rig(0x27);
    const struct {
        uint8_t r15, r16, r18; /* the format's position */
        int32_t offset;
        uint8_t new15, new16;
    } xs[] = {
        {0x33, 0xFC, 0x29, 10, 0x33, 0xFF}, /* 1020 + 10: 1023, low nibble of 0x15 kept */
        {0x71, 0xF8, 0x29, 10, 0x01, 0x02}, /* 2040 is -8: 2 */
        {0x40, 0x00, 0x29, -5, 0x40, 0x00}, /* -1024 is the lower limit */
        {0x13, 0x16, 0x19, 5, 0x13, 0x1B},
    };
    for (const auto &c : xs) {
        load_base(rig, 2, c.r15, c.r16, c.r18);
        rig.scoped([&] { EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), c.offset), 0); });
        EXPECT_EQ(std::pair(rig.chip.get(2, 0x15), rig.chip.get(2, 0x16)),
                  std::pair(c.new15, c.new16));
    }
    /* Twice 5 leaves the chip where once 5 does. */
    rig.chip.clear_log();
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), 5), 0);
    EXPECT_EQ(rig.chip.writes(0x16), (W{{2, 0x16, 0x1B}}));

    load_base(rig, 3, 0x13, 0x16, 0x29);
    for (const auto &[offset, r18] : {std::pair{50, 0x00}, {-300, 0xFF}, {5, 0x24}, {-5, 0x2E}}) {
        rig.scoped([&] { EXPECT_EQ(tp28xx_set_yoffset(rig.ch(3), offset), 0); });
        EXPECT_EQ(rig.chip.get(3, 0x18), r18) << offset;
    }
}

/* ---- PTZ ------------------------------------------------------------------------ */

TEST(Tp28xxPtz, RecordOnChannelOneByteForByte)
{
    Rig rig(0x27);
    rig.chip.set(1, 0x71, 0x81);
    /* The first transmission completes on the third poll (a bit of another
     * channel does not count); the second finds its bit at once. */
    rig.chip.script_reads(1, 0xB6, {0x00, 0x04, 0x02});
    const uint8_t record[5] = {0x01, 0x00, 0xFF, 0x01, 0x80};
    rig.scoped([&] { tp28xx_transmit_ptz(rig.dec, record, sizeof record); });
    EXPECT_SEQ(rig.chip,
               "?40 40=01 6F=42 70=40 71=00 C0=00 C1=00 C2=0F C3=10 C4=00 C5=00 C6=4A C7=F0 "
               "C8=6F 71&20=20 55=00 56=00 57=00 58=00 59=00 5A=00 5B=00 5C=00 5D=00 5E=00 "
               "5F=00 60=00 61=00 62=00 63=00 64=00 65=00 66=00 67=00 68=00 69=00 6A=00 6B=00 "
               "6C=00 55=DB 56=6D 57=B6 58=92 59=49 5A=24 5B=D2 5C=49 5D=24 5E=92 5F=49 60=26 "
               "B6=02 ?6F 6F=43 6F=42 ?B6 ?B6 ?B6 B6=02 ?6F 6F=43 6F=42 ?B6 40=04",
               0x04);
    EXPECT_EQ(rig.chip.get(1, 0x71), 0x20);
    EXPECT_TRUE(g_mutex_trylock(rig.dec->chip_lock));
    g_mutex_unlock(rig.dec->chip_lock);
}

TEST(Tp28xxPtz, EncodingWrapsRegisterNumbers)
{
    fakechip::FakeChip chip;
    tp2827_ptz_encode_byte(chip.fd(), 0xFE, 0xA5);
    EXPECT_EQ(chip.writes(), (W{{0, 0xFE, 0xD3}, {0, 0xFF, 0x49}, {0, 0x00, 0xA6}}));
}

TEST(Tp28xxPtz, TriggerAfterFailedReadsAndWithoutCompletion)
{
    log_capture_start();
    fakechip::FakeChip chip;
    chip.set(ANY_PAGE, 0x40, 0x02);
    chip.fail_reads(ANY_PAGE, 0x6F, 1);
    chip.fail_reads(ANY_PAGE, 0xB6, 1);
    tp2827_ptz_trigger(chip.fd(), 2);
    EXPECT_EQ(chip.writes(), (W{{2, 0xB6, 0x04}, {2, 0x6F, 0xFF}, {2, 0x6F, 0xFE}}));
    EXPECT_EQ(chip.count_reads(0xB6), 1u);

    /* Channel 8 has no bit in the 8-bit register: the wait runs to its limit. */
    chip.clear_log();
    tp2827_ptz_trigger(chip.fd(), 8);
    EXPECT_EQ(chip.writes(0xB6), (W{{2, 0xB6, 0x00}}));
    EXPECT_EQ(chip.count_reads(0xB6), 100u);
}

} // namespace
