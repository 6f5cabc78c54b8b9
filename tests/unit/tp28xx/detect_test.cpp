/* Format read-out, the per-channel detection steps, video status and the
 * interrupt registers. */
#include <functional>

#include "tp28xx_rig.h"

namespace
{

/* Status register 0x01: video with all lock bits plus the TVI bit; no video. */
constexpr uint8_t LOCKED_TVI = 0x74;
constexpr uint8_t NO_VIDEO = 0x80;

TEST(Tp28xxReadFormat, ClassesDetailValuesAndStandards)
{
    /* 0xFF, 0x01, 0x03, the two detail values of 0x04, a register of the sync
     * run reading 0xFF; what is reported; reads of 0x01 and of 0x8A..0xA1. */
    const struct {
        uint8_t id, status, s, a, b, cvi_reg;
        int32_t type, standard;
        uint8_t short_line;
        size_t reads;
    } cases[] = {
        /* clang-format off */
        {0x27, LOCKED_TVI, 0x02, 0x00, 0x00, 0x00, VT_1080P30, VS_TVI, 0, 1},
        {0x27, 0x70, 0x02, 0x00, 0x00, 0x92, VT_1080P30, VS_CVI, 0, 25},
        {0x27, 0x70, 0x01, 0x00, 0x00, 0x90, 1, VS_AHD, 0, 25}, /* 0x90 does not count */
        {0x27, LOCKED_TVI, 0x06, 0x00, 0x00, 0x00, 6, VS_CVBS, 0, 1},
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x93, 0x00, VT_NTSC, VS_CVBS, 0, 0},
        {0x27, 0x70, 0x0C, 0x00, 0x7C, 0x00, VT_720P30, VS_AHD, 1, 0}, /* code 59: fallback */
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x5D, 0x00, 4, VS_TVI, 0, 1},   /* only for the newer chip */
        {0x37, LOCKED_TVI, 0x02, 0x8C, 0x00, 0x00, VT_4K15, VS_TVI, 0, 1}, /* bit 8 ignored */
        {0x36, 0x70, 0x04, 0x7B, 0x5D, 0x00, 18, VS_AHD, 0, 0},
        /* clang-format on */
    };
    for (const auto &c : cases) {
        fakechip::FakeChip chip;
        chip.set_identity(c.id, c.id == 0x27 ? 0x05 : 0x01);
        chip.set(0, 0x01, c.status);
        chip.set(0, 0x03, c.s);
        chip.set(0, c.cvi_reg, c.cvi_reg ? 0xFF : 0x00);
        chip.script(0x04, {c.a, c.b});
        int32_t type = -1, standard = -1;
        uint8_t line = 0xAA;
        tp28xx_read_format(chip.fd(), &type, &standard, &line);
        EXPECT_EQ(std::tuple(type, standard, line), std::tuple(c.type, c.standard, c.short_line))
            << int(c.id) << " " << int(c.s) << " " << int(c.a) << " " << int(c.b);
        size_t reads = chip.count(false, 0x01);
        for (uint8_t reg = 0x8A; reg <= 0xA1; reg++)
            reads += chip.count(false, reg);
        EXPECT_EQ(reads, c.reads);
    }
}

/* ---- The detection state machine, on channel 1 ---------------------------- */

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

size_t programming_writes(Rig &rig)
{
    size_t n = 0;
    for (const auto &t : rig.chip.log())
        n += t.write && t.reg != 0x40 && t.reg != 0x2F;
    return n;
}

/* A 1080p30 TVI camera appears and is detected and programmed; then `steps`
 * of the three settle and four recheck steps. before_last runs before the
 * last recheck, which reads the standard again. */
void detect(
    Rig &rig, int steps = 7, const std::function<void()> &before_last = [] {})
{
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x02);
    rig.chip.set(1, 0x02, 0x4C);
    EXPECT_EQ(step(rig), (Result{VT_AUTO, VS_TVI}));
    EXPECT_EQ(counts(rig), std::tuple(LS_CONFIRM, 3, 4, 10));
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(p->resolution, p->last_detected, p->channel_mode),
              std::tuple(VT_1080P30, VT_1080P30, 2));
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "channel 1 detect: 02 dec_ctrl 4C"), 1u);
    EXPECT_EQ(rig.line_length(1), 2200);
    for (int left = 6; left >= 7 - steps; left--) {
        if (left == 0)
            before_last();
        step(rig);
        EXPECT_EQ(counts(rig),
                  std::tuple(LS_CONFIRM, std::max(left - 4, 0), std::min(left, 4), 10));
    }
}

void expect_loss(Rig &rig, Result r)
{
    EXPECT_EQ(r, (Result{VT_AUTO, VS_NONE}));
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(p->lock_state, p->resolution, p->last_detected, p->channel_mode),
              std::tuple(LS_SEARCH, VT_AUTO, VT_NONE, 2));
    EXPECT_EQ(std::tuple(rig.chip.get(1, 0x16), rig.line_length(1)), std::tuple(0x15, 0x672));
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
    EXPECT_EQ(programming_writes(rig), 0u);
    rig.ch(1)->auto_mode = 1; /* types 0 and 1 are rejected before anything is programmed */
    rig.chip.set(1, 0x03, 0x01);
    EXPECT_EQ(step(rig).first, VT_UNKNOWN);
    EXPECT_EQ(std::tuple(rig.st(1)->lock_state, programming_writes(rig)),
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
    EXPECT_EQ(programming_writes(rig), 0u);
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
    const struct {
        const char *name;
        int steps;
        bool locked;
        uint8_t reg, value;
        bool loss;
    } cases[] = {{"standard changed", 7, false, 0x93, 0xFF, false},
                 {"loss while confirming", 0, false, 0x01, NO_VIDEO, true},
                 {"another format", 7, true, 0x03, 0x03, true},
                 {"no lock bit", 7, true, 0x01, 0x04, true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig(0x27);
        detect(rig, c.steps);
        if (c.locked)
            EXPECT_EQ(step(rig), (Result{VT_1080P30, VS_TVI}));
        else
            rig.chip.set(1, 0x01, 0x70); /* a CVI sync in 0x93 then decides */
        rig.chip.set(1, c.reg, c.value);
        if (c.loss)
            expect_loss(rig, step(rig));
        else
            EXPECT_EQ(std::tuple(step(rig), rig.st(1)->lock_state),
                      std::tuple(Result{VT_AUTO, VS_TVI}, LS_SEARCH));
    }
}

TEST(Tp28xxDetect, Tp2826ProgramsOnlySdFormats)
{
    Rig rig(0x26);
    for (int ch : {1, 2}) { /* 720p25 with the short line: not programmed */
        rig.chip.set(ch, 0x01, LOCKED_TVI);
        rig.chip.set(ch, 0x03, 0x0D);
    }
    EXPECT_EQ(step(rig, 1).first, VT_AUTO);
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(p->lock_state, p->resolution, p->last_detected, p->channel_mode),
              std::tuple(LS_CONFIRM, VT_UNKNOWN, VT_720P25, 0));
    rig.ch(2)->video_type = VT_UNKNOWN;
    EXPECT_EQ(std::tuple(step(rig, 2).first, rig.st(2)->lock_state),
              std::tuple(VT_UNKNOWN, LS_REJECTED));

    /* PAL with the TP2826's own setter: no output clock. */
    rig.chip.set(3, 0x01, 0x70);
    rig.chip.set(3, 0x03, 0x04);
    rig.chip.set(3, 0x04, 0x94);
    rig.chip.clear_log();
    step(rig, 3);
    p = rig.st(3);
    EXPECT_EQ(std::tuple(p->lock_state, p->resolution, rig.ch(3)->standard, p->channel_mode),
              std::tuple(LS_CONFIRM, VT_PAL, VS_CVBS, 1));
    EXPECT_EQ(std::tuple(rig.chip.count(true, 0xFB), rig.chip.get(3, 0x35)), std::tuple(0u, 0x25));
}

/* ---- Status and interrupts ------------------------------------------------ */

TEST(Tp28xxStatus, VideoStatusIrqStatusAndEnable)
{
    Rig rig(0x27);
    for (const auto &[reg, expected] : {std::pair{0xF0, 0}, {0x70, 1}, {0x10, 1}, {0x0F, 0}}) {
        rig.chip.set(2, 0x01, uint8_t(reg));
        EXPECT_EQ(tp28xx_video_status(rig.ch(2)), expected) << reg;
    }
    rig.chip.script(0x01, {-1});
    EXPECT_EQ(tp28xx_video_status(rig.ch(2)), 0);

    rig.chip.set(ANY_PAGE, 0xB5, 0x05);
    rig.chip.clear_log();
    log_capture_clear();
    EXPECT_EQ(tp28xx_irq_status(&rig.dec), 2);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Got video loss/detect on channel 0"), 1u);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Got video loss/detect on channel 2"), 1u);
    EXPECT_EQ(log_capture_messages().size(), 2u);
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
    rig.chip.set_offline(false);
}

} // namespace
