/* Register primitives, page select, probe, initialisation, set_video_standard's
 * state changes, the format dispatch, image controls with the picture offsets,
 * and PTZ transmission. */
#include "tp2827.h"
#include "tp28xx_rig.h"

namespace
{

TEST(I2cAccess, PrimitivesAndPageSelect)
{
    log_capture_start();
    fakechip::FakeChip chip;
    chip.set(0, 0x1F, 0xFF);
    chip.script(0x10, {-1});
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), -1);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), 0); /* a value of 0 is no failure */
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x1A5, 0x2FF), 0);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x1F, 0x60, 0x00), 0);
    const uint8_t data[3] = {0x11, 0x22, 0x33};
    i2c_write_regs(chip.fd(), 0xFE, data, 3);
    i2c_write_regs(chip.fd(), 0x15, data, 0);
    EXPECT_SEQ(chip, "?10 ?10 A5=FF ?1F 1F=9F FE=11 FF=22 00=33", 0);
    chip.set_offline(true);
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x10, 0x01), -1);
    i2c_write_regs(chip.fd(), 0x15, data, 3); /* goes on after each failure */
    chip.set_offline(false);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to read data"), 1u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to send data"), 4u);

    for (const auto &[page, value] :
         {std::pair{3, 0x03}, {PAGE_ALL, 0x04}, {5, 0x10}, {9, 0x40}, {7, 0x04}, {-1, 0x04}}) {
        tp28xx_set_page(chip.fd(), page);
        EXPECT_EQ(chip.page(), value) << "page identifier " << page;
    }
}

TEST(Tp28xxProbe, IdentifiesBothChipsAndFillsTheSlots)
{
    log_capture_start();
    const std::tuple<uint8_t, uint8_t, int32_t, const char *> cases[] = {
        {0x28, 0x27, video_tp2827, "Detected TP2827 rev 0x2705"},
        {0x28, 0x26, video_tp2826, "Detected TP2826 rev 0x2605"},
        {0x28, 0x25, 0, nullptr},
        {0x29, 0x27, 0, nullptr}};
    for (const auto &[family, id, expected, text] : cases) {
        fakechip::FakeChip chip;
        chip.set_identity(id);
        chip.set(ANY_PAGE, 0xFE, family);
        log_capture_clear();
        EXPECT_EQ(tp28xx_detect_chip(chip.fd()), expected);
        EXPECT_SEQ(chip, family == 0x28 ? "?FE ?FF ?FF ?FD" : "?FE", 0);
        EXPECT_EQ(log_capture_messages().size(), text ? 1u : 0u);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, text ? text : "-"), text ? 1u : 0u);
    }
    Rig tp2826(0x26), tp2827(0x27);
    EXPECT_STREQ(tp2826.dec.name, "Techpoint 2826");
    EXPECT_EQ(tp2826.dec.ops.transmit_ptz, nullptr);
    EXPECT_STREQ(tp2827.dec.name, "Techpoint 2827");
    EXPECT_EQ(tp2827.dec.ops.transmit_ptz, tp28xx_transmit_ptz);
    /* Channel defaults: brightness 0, contrast and saturation 50, hue 0, sharpness 0. */
    std::vector<int> image;
    for (uint8_t reg = 0x10; reg <= 0x14; reg++)
        image.push_back(tp2827.chip.get(2, reg));
    EXPECT_EQ(image, (std::vector<int>{0xC0, 0x40, 0x40, 0x80, 0x00}));
}

TEST(Tp28xxInit, CommonInitialisationOfEachChip)
{
    const std::pair<uint8_t, std::string> outputs[] = {
        {0x27, "F5=00 F1=00 4F=03 44=47 FA=88 FB=88 F4=00 F6=00 F7=22 F8=11 F9=33 50=00 51=00 "
               "52=00 53=00 F3=77 F2=77 44=07 4D=0F 4E=0F 02=C8"},
        {0x26, "F5=0F F1=04 4D=07 4E=05 4F=03 44=47 FA=88 FB=88 F6=01 F8=23 50=00 51=00 52=00 "
               "53=00 F3=77 F2=77 44=07 4D=07 4E=05 "
               "40=00 02=CF 34=10 40=01 02=CF 34=11 40=02 02=CF 34=10 40=03 02=CF 34=11"}};
    for (const auto &[id, output] : outputs) {
        Rig rig(id);
        rig.chip.set(ANY_PAGE, 0x44, 0x15); /* 0x44 gets bit 6 pulsed, then exactly this back */
        for (uint8_t reg : {0x06, 0x26, 0x1F, 0x3C}) /* bits that the updates must keep */
            rig.chip.set(ANY_PAGE, reg, 0xC3);
        tp28xx_common_init(rig.dec.i2c_fd, rig.dec.dec_chip);
        EXPECT_SEQ(rig.chip,
                   "40=04 4D=00 4E=00 ?44 44=55 44=15 42=00 43=12 44=07 45=49 BA=00 BB=00 6F=00 "
                   "A7=00 " +
                       DEFAULT_FORMAT + " " + output + " 40=40 1F&60=60 3C&3F=3F 40=04",
                   0x04);
    }
}

TEST(Tp28xxSetStandard, StateTable)
{
    /* Channel 3 runs 720p25 CVI in channel mode 1, confirming, configured. */
    const std::string refused = "?40 40=03 ?FF ?FD ?03 2F=0E ?04 35&20=00 F5&08=00 40=04";
    using State = std::tuple<int32_t, int32_t, uint8_t, int32_t, int32_t>;
    const std::string fresh = "?40 40=03 35&20=00 F5&08=00 " + DEFAULT_FORMAT + " 40=04";
    const struct {
        uint8_t auto_mode, internal;
        int32_t type, standard, result;
        State after;      /* video_type, standard, configured, lock_state, resolution */
        std::string chip; /* the whole sequence; empty: a programmed format */
    } cases[] = {
        /* clang-format off */
        {1, 0, VT_720P30, VS_TVI, 0, {VT_AUTO, VS_CVI, 0, LS_SEARCH, VT_720P25}, fresh},
        {0, 0, VT_DISABLED, VS_TVI, 0, {VT_DISABLED, VS_DISABLED, 1, LS_LOCKED, VT_DISABLED}, "?40 40=03 40=04"},
        {0, 0, VT_1080P25, VS_AHD, 0, {VT_1080P25, VS_AHD, 0, LS_LOCKED, VT_1080P25}, ""},
        {1, 1, VT_1080P30, VS_TVI, 0, {VT_1080P30, VS_TVI, 1, LS_LOCKED, VT_1080P30}, ""},
        {0, 0, 12, VS_TVI, -1, {VT_720P25, VS_CVI, 0, LS_CONFIRM, VT_UNKNOWN}, refused},
        {1, 1, VT_NONE, VS_TVI, -1, {VT_720P25, VS_CVI, 1, LS_CONFIRM, VT_UNKNOWN}, refused},
        /* clang-format on */
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " auto " << int(c.auto_mode));
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
        EXPECT_EQ(tp28xx_set_video_standard(ch, c.standard, c.type, c.auto_mode, c.internal),
                  c.result);
        EXPECT_EQ(State(ch->video_type, ch->standard, ch->configured, p->lock_state, p->resolution),
                  c.after);
        EXPECT_EQ(ch->auto_mode, c.auto_mode);
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
        EXPECT_EQ(rig.line_length(3), c.type == VT_1080P25 ? 2640 : 2200);
        for (const auto &t : rig.chip.log())
            EXPECT_TRUE(!t.write || t.page == 3 || t.reg == 0x40 || t.reg >= 0xF5)
                << "register " << int(t.reg) << " on page " << int(t.page);
    }
}

TEST(Tp28xxApplyFormat, ShortLineChoosesThe720pVariantAndOffsetsStay)
{
    Rig rig(0x27);
    rig.ch(1)->xoffset = 5;
    rig.ch(1)->yoffset = 0x1FD; /* low 8 bits: -3 */
    tp28xx_set_page(rig.dec.i2c_fd, 1);
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
        EXPECT_EQ(std::tuple(rig.line_length(1), rig.chip.get(1, 0x39)),
                  std::tuple(c.line_length, c.r39));
        EXPECT_EQ(rig.chip.count(true, 0xF5), c.mode_writes);
        EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xF5), c.mode == 1 ? 0x02 : 0x00);
        /* The format starts at 0x116 and line 0x19; the offsets act on that. */
        EXPECT_EQ(
            std::tuple(rig.chip.get(1, 0x15) & 0x70, rig.chip.get(1, 0x16), rig.chip.get(1, 0x18)),
            std::tuple(0x10, 0x1B, 0x1C));
    }
}

/* ---- Image controls ---------------------------------------------------------- */

using Control = int32_t (*)(Channel *, uint32_t);

TEST(Tp28xxImage, ControlsScaleIntoTheirRegister)
{
    const Control hue = [](Channel *c, uint32_t v) { return tp28xx_set_hue(c, uint8_t(v)); };
    const struct {
        Control set;
        uint8_t reg, before;
        std::vector<std::pair<uint32_t, uint8_t>> values; /* value, register */
    } cases[] = {
        /* clang-format off */
        {tp28xx_set_saturation, 0x12, 0, {{0, 0x00}, {1, 0x01}, {50, 0x40}, {99, 0x7E}, {100, 0x7F}}},
        {tp28xx_set_contrast, 0x11, 0, {{50, 0x40}, {100, 0x7F}}},
        {tp28xx_set_brightness, 0x10, 0, {{50, 0xFF}, {51, 0x00}, {100, 0x3F}, {49, 0xFE}, {0, 0xC0}}},
        {hue, 0x13, 0, {{0, 0x80}, {50, 0xFF}, {100, 0x7F}}},
        {tp28xx_set_sharpness, 0x14, 0xE5, {{100, 0xFF}}},
        {tp28xx_set_sharpness, 0x14, 0x1F, {{0, 0x00}}},
        {tp28xx_set_sharpness, 0x14, 0xA0, {{50, 0xAF}}},
        /* clang-format on */
    };
    Rig rig(0x27);
    int ch = 0;
    for (const auto &c : cases) {
        for (const auto &[value, expected] : c.values) {
            ch = (ch + 1) % 4;
            rig.chip.set(ch, c.reg, c.before);
            rig.chip.set(ANY_PAGE, 0x40, uint8_t((ch + 1) % 4)); /* to be put back afterwards */
            rig.chip.clear_log();
            EXPECT_EQ(c.set(rig.ch(ch), value), 0);
            EXPECT_EQ(rig.chip.get(ch, c.reg), expected) << int(c.reg) << " value " << value;
            EXPECT_EQ(rig.chip.count(true, c.reg), 1u);
        }
    }
    /* A failed read of 0x14 keeps bits 5 to 7 as ones. */
    rig.chip.script(0x14, {-1});
    EXPECT_EQ(tp28xx_set_sharpness(rig.ch(1), 0), 0);
    EXPECT_EQ(rig.chip.get(1, 0x14), 0xE0);

    rig.chip.set_offline(true);
    EXPECT_EQ(tp28xx_set_contrast(rig.ch(0), 10), -1);
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(0), 10), -1);
    rig.chip.set_offline(false);
}

/* The base position as a format change reads it from 0x15, 0x16 and 0x18. */
void load_base(Rig &rig, int ch, uint8_t r15, uint8_t r16, uint8_t r18)
{
    rig.chip.set(ch, 0x15, r15);
    rig.chip.set(ch, 0x16, r16);
    rig.chip.set(ch, 0x18, r18);
    tp28xx_set_page(rig.dec.i2c_fd, ch);
    tp28xx_read_base_position(rig.dec.i2c_fd, ch, &rig.ch(ch)->base_position);
    tp28xx_set_page(rig.dec.i2c_fd, PAGE_ALL);
}

TEST(Tp28xxImage, OffsetsAreClampedAndActOnTheFormatsPosition)
{
    Rig rig(0x27);
    const struct {
        uint8_t r15, r16; /* the format's position */
        int32_t offset;
        uint8_t new15, new16;
    } xs[] = {
        {0x33, 0xFC, 10, 0x33, 0xFF}, /* 1020 + 10: 1023, low nibble of 0x15 kept */
        {0x71, 0xF8, 10, 0x01, 0x02}, /* 2040 is -8: 2 */
        {0x40, 0x00, -5, 0x40, 0x00}, /* -1024 is the lower limit */
        {0x13, 0x16, 5, 0x13, 0x1B},
    };
    for (const auto &c : xs) {
        load_base(rig, 2, c.r15, c.r16, 0x29);
        EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), c.offset), 0);
        EXPECT_EQ(std::tuple(rig.chip.get(2, 0x15), rig.chip.get(2, 0x16)),
                  std::tuple(c.new15, c.new16));
    }
    /* Twice 5 leaves the chip where once 5 does. */
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), 5), 0);
    EXPECT_EQ(rig.chip.get(2, 0x16), 0x1B);

    load_base(rig, 3, 0x13, 0x16, 0x29);
    for (const auto &[offset, r18] : {std::pair{50, 0x00}, {-300, 0xFF}, {5, 0x24}, {-5, 0x2E}}) {
        EXPECT_EQ(tp28xx_set_yoffset(rig.ch(3), offset), 0);
        EXPECT_EQ(rig.chip.get(3, 0x18), r18) << offset;
    }
}

/* ---- PTZ ------------------------------------------------------------------------ */

TEST(Tp28xxPtz, RecordOnChannelOneByteForByte)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0x40, 0x02);
    /* The first transmission completes on the third poll (a bit of another
     * channel does not count); the second finds its bit at once. */
    rig.chip.script(0xB6, {0x00, 0x04, 0x02});
    const uint8_t record[5] = {0x01, 0x00, 0xFF, 0x01, 0x80};
    tp28xx_transmit_ptz(&rig.dec, record, sizeof record);
    EXPECT_SEQ(rig.chip,
               "?40 40=01 6F=42 70=40 71=00 C0=00 C1=00 C2=0F C3=10 C4=00 C5=00 C6=4A C7=F0 "
               "C8=6F 71&20=20 55=00 56=00 57=00 58=00 59=00 5A=00 5B=00 5C=00 5D=00 5E=00 "
               "5F=00 60=00 61=00 62=00 63=00 64=00 65=00 66=00 67=00 68=00 69=00 6A=00 6B=00 "
               "6C=00 55=DB 56=6D 57=B6 58=92 59=49 5A=24 5B=D2 5C=49 5D=24 5E=92 5F=49 60=26 "
               "B6=02 ?6F 6F=43 6F=42 ?B6 ?B6 ?B6 B6=02 ?6F 6F=43 6F=42 ?B6 40=02",
               0x02);
}

} // namespace
