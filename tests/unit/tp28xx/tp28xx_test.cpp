/* The chip driver on the fake chip, where the virtual board cannot look. */
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_chip.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "tp2826.h"

namespace
{

using fakechip::ANY_PAGE;

/* Status register 0x01: video with all lock bits plus the TVI bit; no video. */
constexpr uint8_t LOCKED_TVI = 0x74, NO_VIDEO = 0x80;

const std::string DEFAULT_FORMAT = "07=C0 0B=C0 21=84 38=00 39=1C 3A=32 3B=26 26&01=00 06&04=00 "
                                   "35=05 36=05 15=13 16=15 17=00 18=19 19=D0 1A=25 1B=00 1C=06 "
                                   "1D=72";

/* Page 0x04 selected and the log captured; every page must be put back. */
struct Rig : fakechip::FakeDecoder {
    explicit Rig(uint8_t chip_id = 0x27) : FakeDecoder((log_capture_start(), chip_id))
    {
        chip.set(ANY_PAGE, 0x40, 0x04);
        chip.clear_log();
        log_capture_clear();
    }
    ~Rig() { EXPECT_EQ(chip.unrestored_pages(), 0) << "page register not restored"; }
    Channel *ch(int i) { return &channels[i]; }
    DetectState *st(int i) { return channels[i].chip_state; }
    int line_length(int page) { return chip.get(page, 0x1C) * 256 + chip.get(page, 0x1D); }
};

TEST(I2cAccess, PrimitivesPageSelectAndProbe)
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
    for (const auto &[family, id] : {std::pair{0x28, 0x25}, {0x29, 0x27}}) { /* neither chip */
        fakechip::FakeChip other;
        other.set_identity(uint8_t(id));
        other.set(ANY_PAGE, 0xFE, uint8_t(family));
        EXPECT_EQ(tp28xx_detect_chip(other.fd()), 0);
        EXPECT_SEQ(other, family == 0x28 ? "?FE ?FF ?FF ?FD" : "?FE", 0);
    }
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

using Setter = void (*)(int32_t fd, int32_t channel, uint8_t standard);
const std::string SET_1080P25 =
    "35=05 15=03 16=D3 17=80 18=29 19=38 1A=47 1B=00 1C=0A 1D=50 02&17=00 0B=C0 0C=03 0D=50 20=30 "
    "21=84 22=36 23=3C 25=FF 26=05 27=2D 28=00 2B=60 2C=0A 2D=30 2E=70 30=48 31=BB 32=2E 33=90 "
    "38=00 39=1C 3A=32 3B=26 13=00 14&60=00 ";
const std::string SET_4K15 =
    "35=18 36=CA 02&17=10 15=13 16=BD 17=00 18=50 19=70 1A=8F 1B=00 1C=11 1D=2E 0B=C0 0C=03 "
    "0D=50 20=60 21=84 22=36 23=3C 25=FF 26=05 27=AD 28=00 2B=60 2C=0A 2D=58 2E=70 30=74 31=59 "
    "32=BD 33=60 38=40 39=48 3A=12 3B=26 13=00 14&60=00 ";

/* Page, updates, blocks, output clocks, TP2826 PAL (0x07, no clock), UHD. */
TEST(Setters, WriteTheFormatsRegisterSequence)
{
    log_capture_start();
    const Setter pal_2826 = [](int32_t fd, int32_t ch, uint8_t) {
        tp2826_video_mode_set_PAL(fd, ch);
    };
    /* setter, standard, channel, what follows the page select */
    const std::tuple<Setter, int, int, std::string> cases[] = {
        {tp2827_video_mode_set_1080P25, VS_AHD, 1,
         SET_1080P25 + "02&04=04 15=01 16=F0 18=2A 0D=73 20=3C 21=46 25=FE 26=0D 2C=3A 2D=54 "
                       "2E=40 30=A5 31=86 32=FB 33=60 FB&07=00"},
        {tp2827_video_mode_set_1080P25, VS_TVI, 2, SET_1080P25 + "FA&70=00"},
        {pal_2826, VS_CVBS, 2,
         "35=25 15=13 16=5F 17=BC 18=17 19=20 1A=17 1B=00 1C=09 1D=48 07&07=07 0B=C0 0C=13 0D=51 "
         "20=48 21=84 22=37 23=3F 25=FF 26=05 27=2D 28=00 2B=70 2C=2A 2D=64 2E=56 30=7A 31=4A "
         "32=4D 33=F0 38=00 39=04 3A=32 3B=26 18=17 13=00 14&60=00"},
        {tp2827_video_mode_set_4K15, VS_CVI, 0,
         SET_4K15 + "14&60=00 13=40 20=50 21=86 22=38 26=05 27=DA 2D=84 2E=50 30=75 31=39 32=C0 "
                    "33=31 39=48 02&88=08 F6=00 F7=44 FA&07=00 FA&70=00 F4&04=04"},
    };
    for (const auto &[set, standard, channel, sequence] : cases) {
        fakechip::FakeChip chip;
        /* Distinct values everywhere show which bits each update replaced. */
        for (int reg = 0; reg < 256; reg++)
            chip.set(ANY_PAGE, uint8_t(reg), uint8_t(reg == 0x40 ? 4 : reg ^ 0x5A));
        set(chip.fd(), channel, uint8_t(standard));
        EXPECT_SEQ(chip, "40=0" + std::to_string(channel) + " " + sequence, 0x04);
        EXPECT_EQ(chip.page(), channel); /* left selected */
    }
    /* The UHD output flags capture device 2, missing on a build machine. */
    if (access("/dev/cam2", F_OK) != 0) {
        EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING,
                            "Failed to open /dev/cam2, code: 2:" + std::string(g_strerror(ENOENT))),
                  1u);
    }
    /* 4K and QHD 25/30 on channels 1 to 3 write nothing, not even the page. */
    fakechip::FakeChip idle;
    log_capture_clear();
    for (int ch = 1; ch <= 3; ch++)
        for (Setter uhd : {tp2827_video_mode_set_4K12, tp2827_video_mode_set_4K15,
                           tp2827_video_mode_set_QHDP25, tp2827_video_mode_set_QHDP30})
            uhd(idle.fd(), ch, VS_TVI);
    EXPECT_TRUE(idle.log().empty());
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "4K/QHD input is not allowed on channel 2"), 4u);
}

TEST(Tp28xxSetStandard, StateTable)
{
    /* Channel 3: 720p25 CVI, mode 1, confirming, configured, offsets to keep. */
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
        ch->xoffset = 5;
        ch->yoffset = 0x1FD; /* low 8 bits: -3 */
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
        g_autofree char *said = g_strdup_printf(
            "Set Video Standard, channel: 3, auto: %d, resolution: %d, standard: %d", c.auto_mode,
            c.type, c.standard);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, said), 1u);
        if (!c.chip.empty()) {
            EXPECT_SEQ(rig.chip, c.chip, 0x04);
            continue;
        }
        EXPECT_EQ(std::tuple(p->last_detected, p->confirm_count, p->channel_mode),
                  std::tuple(c.type, 10, 2));
        EXPECT_EQ(std::tuple(rig.chip.get(3, 0x16), rig.chip.get(3, 0x18)),
                  c.type == VT_1080P25 ? std::tuple(0xF5, 0x2D) : std::tuple(0xD8, 0x2C));
        for (const auto &t : rig.chip.log())
            EXPECT_TRUE(!t.write || t.page == 3 || t.reg == 0x40 || t.reg >= 0xF5)
                << "register " << int(t.reg) << " on page " << int(t.page);
    }
}

using Result = std::pair<int32_t, int32_t>; /* type, standard */

Result step(Rig &rig, int ch = 1)
{
    Result r{-100, -100};
    tp28xx_detect_video_type(rig.ch(ch), &r.first, &r.second);
    return r;
}

/* lock_state, settle_count, recheck_count, confirm_count */
std::tuple<int, int, int, int> counts(Rig &rig)
{
    const DetectState *p = rig.st(1);
    return {p->lock_state, p->settle_count, p->recheck_count, p->confirm_count};
}

/* 1080p30 TVI found, then `steps` of 3 settle and 4 recheck steps (the last reads again). */
void detect(
    Rig &rig, int steps = 7, const std::function<void()> &before_last = [] {})
{
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x02);
    rig.chip.set(1, 0x02, 0x4C);
    EXPECT_EQ(step(rig), (Result{VT_AUTO, VS_TVI}));
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(counts(rig), p->resolution, p->last_detected, p->channel_mode,
                         rig.line_length(1)),
              std::tuple(std::tuple(LS_CONFIRM, 3, 4, 10), VT_1080P30, VT_1080P30, 2, 2200));
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "channel 1 detect: 02 dec_ctrl 4C"), 1u);
    for (int left = 6; left >= 7 - steps; left--) {
        if (left == 0)
            before_last();
        step(rig);
        EXPECT_EQ(counts(rig),
                  std::tuple(LS_CONFIRM, std::max(left - 4, 0), std::min(left, 4), 10));
    }
}

/* Loss puts the default format back and searches again. */
void expect_loss(Rig &rig, Result r)
{
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(r, p->lock_state, p->resolution, p->last_detected, p->channel_mode,
                         rig.chip.get(1, 0x16), rig.line_length(1)),
              std::tuple(Result{VT_AUTO, VS_NONE}, LS_SEARCH, VT_AUTO, VT_NONE, 2, 0x15, 0x672));
}

TEST(Tp28xxDetect, SearchWithoutVideoInFixedModeAndForTypesZeroAndOne)
{
    Rig rig(0x27);
    rig.ch(1)->video_type = VT_1080P25;
    rig.ch(1)->standard = VS_AHD;
    rig.chip.set(1, 0x01, NO_VIDEO);
    EXPECT_EQ(step(rig), (Result{VT_1080P25, VS_AHD}));
    EXPECT_EQ(rig.chip.count(false, 0x01), 11u);
    rig.ch(1)->auto_mode = 0;
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x02);
    step(rig);
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
    EXPECT_EQ(rig.chip.count(true, 0x15), 0u);
    rig.ch(1)->auto_mode = 1; /* types 0 and 1 are rejected before anything is programmed */
    rig.chip.set(1, 0x03, 0x01);
    EXPECT_EQ(step(rig).first, VT_UNKNOWN);
    EXPECT_EQ(std::tuple(rig.st(1)->lock_state, rig.chip.count(true, 0x15)),
              std::tuple(LS_REJECTED, 0u));
}

TEST(Tp28xxDetect, DetectSettleRecheckConfirmLockAndLoss)
{
    Rig rig(0x27);
    /* Before the last recheck the TVI bit goes and 0x91 shows a CVI sync. */
    detect(rig, 7, [&] {
        rig.chip.set(1, 0x01, 0x70);
        rig.chip.set(1, 0x91, 0xFF);
    });
    EXPECT_EQ(rig.ch(1)->standard, VS_CVI);
    EXPECT_EQ(step(rig), (Result{VT_1080P30, VS_CVI}));
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    rig.chip.clear_log();
    EXPECT_EQ(step(rig), (Result{VT_AUTO, VS_CVI})); /* locked and unchanged: only looks */
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    EXPECT_EQ(rig.chip.count(true, 0x15), 0u);
    rig.chip.set(1, 0x01, NO_VIDEO);
    rig.chip.script(0x01, {-1, -1, -1}); /* failed reads count as no video */
    expect_loss(rig, step(rig));
}

TEST(Tp28xxDetect, ElevenFailedConfirmationsRejectThenSearch)
{
    Rig rig(0x27);
    detect(rig);
    rig.chip.set(1, 0x01, 0x24); /* video and lock bit 5, never 5 and 6 together */
    for (int i = 9; i >= 0; i--) {
        EXPECT_EQ(step(rig).first, VT_AUTO);
        EXPECT_EQ(counts(rig), std::tuple(LS_CONFIRM, 0, 0, i));
    }
    EXPECT_EQ(step(rig).first, VT_UNKNOWN);
    EXPECT_EQ(std::tuple(rig.st(1)->lock_state, rig.st(1)->resolution, rig.chip.get(1, 0x16)),
              std::tuple(LS_REJECTED, VT_UNKNOWN, 0x15)); /* and the default format */
    expect_loss(rig, step(rig));
}

TEST(Tp28xxDetect, ChangesAtConfirmationAndWhenLocked)
{
    /* what, settle and recheck steps, locked first, the register changed, loss */
    const std::tuple<const char *, int, bool, uint8_t, uint8_t, bool> cases[] = {
        {"standard changed", 7, false, 0x93, 0xFF, false},
        {"loss while confirming", 0, false, 0x01, NO_VIDEO, true},
        {"another format", 7, true, 0x03, 0x03, true},
        {"no lock bit", 7, true, 0x01, 0x04, true}};
    for (const auto &[name, steps, locked, reg, value, loss] : cases) {
        SCOPED_TRACE(name);
        Rig rig(0x27);
        detect(rig, steps);
        if (locked)
            EXPECT_EQ(step(rig), (Result{VT_1080P30, VS_TVI}));
        else
            rig.chip.set(1, 0x01, 0x70); /* a CVI sync in 0x93 then decides */
        rig.chip.set(1, reg, value);
        if (loss)
            expect_loss(rig, step(rig));
        else
            EXPECT_EQ(std::tuple(step(rig), rig.st(1)->lock_state),
                      std::tuple(Result{VT_AUTO, VS_TVI}, LS_SEARCH));
    }
}

TEST(Tp28xxStatus, IrqStatusAndEnable)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0xB5, 0x05);
    rig.chip.clear_log();
    log_capture_clear();
    EXPECT_EQ(tp28xx_irq_status(&rig.dec), 2);
    for (const char *ch : {"0", "2"})
        EXPECT_EQ(
            log_count(G_LOG_LEVEL_INFO, std::string("Got video loss/detect on channel ") + ch), 1u);
    EXPECT_SEQ(rig.chip, "?B4 ?B5 ?B6 B4=FF B5=FF B6=FF", 0x04);
    /* 0xB4, 0xB5 (-1: a failed read, which counts with every channel), 0xB6. */
    for (const auto &[b4, b5, b6, expected] :
         {std::tuple{0x01, 0, 0x80, 5}, {0x80, 0, 0, 1}, {0, 0, 0x01, 4}, {0, -1, 0, 2}}) {
        rig.chip.set(ANY_PAGE, 0xB4, uint8_t(b4));
        rig.chip.script(0xB5, {b5});
        rig.chip.set(ANY_PAGE, 0xB6, uint8_t(b6));
        EXPECT_EQ(tp28xx_irq_status(&rig.dec), expected);
    }
    EXPECT_EQ(log_capture_messages().size(), 2u + 1u + 4u); /* and the failed read */

    /* Two enable bits per channel in 0xB8, on whatever page is selected. */
    for (const auto &[ch, flag, after] :
         {std::tuple{2, 1, 0x30}, {3, 1, 0xF0}, {2, 0, 0xC0}, {0, 1, 0xC3}, {3, 0, 0x03}}) {
        EXPECT_EQ(tp28xx_enable_irq(rig.ch(ch), flag), 0);
        EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xB8), after) << ch << " " << flag;
    }
    rig.chip.set_offline(true);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(1), 1), -1);
}

TEST(Tp28xxImage, ControlsScaleIntoTheirRegister)
{
    using Control = int32_t (*)(Channel *, uint32_t);
    const Control hue = [](Channel *c, uint32_t v) { return tp28xx_set_hue(c, uint8_t(v)); };
    const Control bri = tp28xx_set_brightness, sat = tp28xx_set_saturation,
                  con = tp28xx_set_contrast, sha = tp28xx_set_sharpness;
    /* control, register, value before, value set, register after */
    const std::tuple<Control, int, int, uint32_t, int> cases[] = {
        {bri, 0x10, 0, 0, 0xC0},  {bri, 0x10, 0, 49, 0xFE},    {bri, 0x10, 0, 50, 0xFF},
        {bri, 0x10, 0, 51, 0x00}, {sat, 0x12, 0, 1, 0x01},     {sat, 0x12, 0, 99, 0x7E},
        {hue, 0x13, 0, 0, 0x80},  {hue, 0x13, 0, 50, 0xFF},    {con, 0x11, 0, 100, 0x7F},
        {sha, 0x14, 0x1F, 0, 0},  {sha, 0x14, 0xE5, 100, 0xFF}};
    Rig rig(0x27);
    int ch = 0;
    for (const auto &[set, reg, before, value, after] : cases) {
        ch = (ch + 1) % 4;
        rig.chip.set(ch, uint8_t(reg), uint8_t(before));
        rig.chip.set(ANY_PAGE, 0x40, uint8_t((ch + 1) % 4)); /* to be put back afterwards */
        rig.chip.clear_log();
        EXPECT_EQ(set(rig.ch(ch), value), 0);
        EXPECT_EQ(rig.chip.get(ch, uint8_t(reg)), after) << reg << " value " << value;
        EXPECT_EQ(rig.chip.count(true, uint8_t(reg)), 1u);
    }
    rig.chip.script(0x14, {-1}); /* a failed read of 0x14 keeps bits 5 to 7 as ones */
    EXPECT_EQ(tp28xx_set_sharpness(rig.ch(1), 0), 0);
    EXPECT_EQ(rig.chip.get(1, 0x14), 0xE0);
    rig.chip.set_offline(true);
    EXPECT_EQ(std::pair(tp28xx_set_contrast(rig.ch(0), 10), tp28xx_set_xoffset(rig.ch(0), 10)),
              std::pair(-1, -1));
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
    /* 0x15 and 0x16 of the format (1020, 2040 as -8, -1024, 0x116), offset; after */
    const std::tuple<uint8_t, uint8_t, int32_t, uint8_t, uint8_t> xs[] = {
        {0x33, 0xFC, 10, 0x33, 0xFF},
        {0x71, 0xF8, 10, 0x01, 0x02},
        {0x40, 0x00, -5, 0x40, 0x00},
        {0x13, 0x16, 5, 0x13, 0x1B}};
    for (const auto &[r15, r16, offset, new15, new16] : xs) {
        load_base(rig, 2, r15, r16, 0x29);
        EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), offset), 0);
        EXPECT_EQ(std::tuple(rig.chip.get(2, 0x15), rig.chip.get(2, 0x16)),
                  std::tuple(new15, new16));
    }
    EXPECT_EQ(tp28xx_set_xoffset(rig.ch(2), 5), 0); /* twice 5 is once 5 */
    EXPECT_EQ(rig.chip.get(2, 0x16), 0x1B);
    load_base(rig, 3, 0x13, 0x16, 0x29);
    for (const auto &[offset, r18] : {std::pair{50, 0x00}, {-300, 0xFF}, {5, 0x24}, {-5, 0x2E}}) {
        EXPECT_EQ(tp28xx_set_yoffset(rig.ch(3), offset), 0);
        EXPECT_EQ(rig.chip.get(3, 0x18), r18) << offset;
    }
}

TEST(Tp28xxPtz, RecordOnChannelOneByteForByte)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0x40, 0x02);
    /* Done on the third poll (channel 2's bit does not count), then at once. */
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
