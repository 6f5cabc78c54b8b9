/* Format read-out, the per-channel detection steps, video status and the
 * interrupt registers. */
#include "tp28xx_rig.h"

namespace
{

/* Status register 0x01: video with all lock bits plus the TVI bit; no video. */
constexpr uint8_t LOCKED_TVI = 0x74;
constexpr uint8_t NO_VIDEO = 0x80;

struct FormatCase {
    uint8_t id, status, s, a, b; /* 0xFF; 0x01; 0x03; first and second detail of 0x04 */
    uint8_t cvi_reg;             /* reads 0xFF */
    int32_t type, standard;
    uint8_t short_line;
    size_t reads; /* of the status 0x01 and the sync registers 0x8A..0xA1 */
};

TEST(Tp28xxReadFormat, ClassesDetailValuesAndStandards)
{
    const FormatCase cases[] = {
        {0x27, LOCKED_TVI, 0x02, 0x00, 0x00, 0x00, VT_1080P30, VS_TVI, 0, 1},
        {0x27, 0x70, 0x02, 0x00, 0x00, 0x92, VT_1080P30, VS_CVI, 0, 25},
        {0x27, 0x70, 0x01, 0x00, 0x00, 0x90, 1, VS_AHD, 0, 25}, /* 0x90 does not count */
        {0x27, LOCKED_TVI, 0x06, 0x00, 0x00, 0x00, 6, VS_CVBS, 0, 1},
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x93, 0x00, VT_NTSC, VS_CVBS, 0, 0},
        {0x27, 0x70, 0x0C, 0x00, 0x7C, 0x00, VT_720P30, VS_AHD, 1, 0}, /* code 59: fallback */
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x67, 0x00, VT_720P30, VS_TVI, 1, 1},
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x5D, 0x00, 4, VS_TVI, 0, 1}, /* only for the newer chip */
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x7B, 0x00, VT_720P25, VS_TVI, 1, 1},
        {0x27, LOCKED_TVI, 0x04, 0x00, 0x22, 0x00, 4, VS_TVI, 0, 1}, /* code 50: no type */
        {0x36, LOCKED_TVI, 0x00, 0x5D, 0x00, 0x00, VT_1440P30, VS_TVI, 0, 1},
        {0x37, LOCKED_TVI, 0x02, 0x8C, 0x00, 0x00, VT_4K15, VS_TVI, 0, 1}, /* bit 8 ignored */
        {0x36, LOCKED_TVI, 0x03, 0x47, 0x00, 0x00, VT_1080P25, VS_TVI, 0, 1},
        {0x36, LOCKED_TVI, 0x03, 0x8D, 0x00, 0x00, VT_4K12, VS_TVI, 0, 1},
        {0x36, LOCKED_TVI, 0x03, 0x10, 0x00, 0x00, 3, VS_TVI, 0, 1},
        {0x36, 0x70, 0x04, 0x7B, 0x5D, 0x00, 18, VS_AHD, 0, 0},
    };
    for (const FormatCase &c : cases) {
        Rig rig(0x27);
        rig.chip.set(ANY_PAGE, 0xFF, c.id);
        rig.chip.set(ANY_PAGE, 0xFD, c.id == 0x27 ? 0x05 : 0x01);
        rig.chip.set(1, 0x01, c.status);
        rig.chip.set(1, 0x03, c.s);
        if (c.cvi_reg)
            rig.chip.set(1, c.cvi_reg, 0xFF);
        rig.chip.script_reads(1, 0x04, {c.a, c.b});
        tp28xx_set_page(rig.dec->i2c_fd, 1);
        rig.chip.clear_log();
        int32_t type = -1, standard = -1;
        uint8_t line = 0xAA;
        tp28xx_read_format(rig.dec->i2c_fd, &type, &standard, &line);
        SCOPED_TRACE(testing::Message() << "0xFF " << int(c.id) << " 0x03 " << int(c.s) << " a "
                                        << int(c.a) << " b " << int(c.b));
        EXPECT_EQ(std::tuple(type, standard, line), std::tuple(c.type, c.standard, c.short_line));
        size_t reads = 0;
        for (const auto &t : rig.chip.transactions())
            reads += t.kind == fakechip::Transaction::READ &&
                     (t.reg == 0x01 || (t.reg >= 0x8A && t.reg <= 0xA1));
        EXPECT_EQ(reads, c.reads);
    }
}

/* ---- The detection state machine, on channel 1 ---------------------------- */

using Result = std::pair<int32_t, int32_t>; /* type, standard */

Result step(Rig &rig, int ch = 1)
{
    Result r{-100, -100};
    rig.scoped([&] { tp28xx_detect_video_type(rig.ch(ch), &r.first, &r.second); });
    return r;
}

/* lock_state, settle_count, recheck_count, confirm_count */
std::tuple<int, int, int, int> counts(Rig &rig)
{
    const DetectState *p = rig.st(1);
    return {p->lock_state, p->settle_count, p->recheck_count, p->confirm_count};
}

/* Writes other than the page select and the detail index 0x2F. */
W programming_writes(Rig &rig)
{
    W out;
    for (const auto &w : rig.chip.writes())
        if (w.reg != 0x40 && w.reg != 0x2F)
            out.push_back(w);
    return out;
}

/* A 1080p30 TVI camera appears: detected, programmed, to be confirmed. */
void detect(Rig &rig)
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
    EXPECT_EQ(rig.chip.get(1, 0x1C) * 256 + rig.chip.get(1, 0x1D), 2200);
}

/* Three settle steps, then four recheck steps; before_last runs before the
 * last, which reads the standard again. */
void count_down(
    Rig &rig, const std::function<void()> &before_last = [] {})
{
    for (int i = 2; i >= 0; i--) {
        step(rig);
        EXPECT_EQ(counts(rig), std::tuple(LS_CONFIRM, i, 4, 10));
    }
    for (int i = 3; i >= 0; i--) {
        if (i == 0)
            before_last();
        step(rig);
        EXPECT_EQ(counts(rig), std::tuple(LS_CONFIRM, 0, i, 10));
    }
}

void lock(Rig &rig)
{
    detect(rig);
    count_down(rig);
    EXPECT_EQ(step(rig), (Result{VT_1080P30, VS_TVI}));
    ASSERT_EQ(rig.st(1)->lock_state, LS_LOCKED);
}

void expect_loss(Rig &rig, Result r)
{
    EXPECT_EQ(r, (Result{VT_AUTO, VS_NONE}));
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(p->lock_state, p->resolution, p->last_detected, p->channel_mode),
              std::tuple(LS_SEARCH, VT_AUTO, VT_NONE, 2));
    /* The default format on channel 1's page. */
    EXPECT_EQ(rig.chip.get(1, 0x16), 0x15);
    EXPECT_EQ(rig.chip.get(1, 0x1D), 0x72);
}

TEST(Tp28xxDetect, SearchWithoutVideoOrInFixedModeChangesNothing)
{
    Rig rig(0x27);
    rig.ch(1)->video_type = VT_1080P25;
    rig.ch(1)->standard = VS_AHD;
    rig.chip.set(1, 0x01, NO_VIDEO);
    EXPECT_EQ(step(rig), (Result{VT_1080P25, VS_AHD}));
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
    EXPECT_EQ(rig.chip.count_reads(0x01), 11u);
    EXPECT_EQ(rig.chip.writes(), (W{{4, 0x40, 0x01}, {1, 0x40, 0x04}}));

    rig.ch(1)->auto_mode = 0;
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x02);
    step(rig);
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
    EXPECT_TRUE(programming_writes(rig).empty());
}

TEST(Tp28xxDetect, DetectSettleRecheckConfirmLockAndLoss)
{
    Rig rig(0x27);
    detect(rig);
    /* Before the last recheck the TVI bit goes and 0x91 shows a CVI sync. */
    count_down(rig, [&] {
        rig.chip.set(1, 0x01, 0x70);
        rig.chip.set(1, 0x91, 0xFF);
    });
    EXPECT_EQ(rig.ch(1)->standard, VS_CVI);
    EXPECT_EQ(step(rig), (Result{VT_1080P30, VS_CVI}));
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);

    rig.chip.clear_log();
    EXPECT_EQ(step(rig), (Result{VT_AUTO, VS_CVI})); /* locked and unchanged: only looks */
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    EXPECT_TRUE(programming_writes(rig).empty());

    rig.chip.set(1, 0x01, NO_VIDEO);
    rig.chip.fail_reads(1, 0x01, 3); /* failed reads count as no video */
    expect_loss(rig, step(rig));
}

TEST(Tp28xxDetect, StandardChangedAtConfirmationSearchesAgain)
{
    Rig rig(0x27);
    detect(rig);
    count_down(rig);
    rig.chip.set(1, 0x01, 0x70);
    rig.chip.set(1, 0x93, 0xFF);
    EXPECT_EQ(step(rig), (Result{VT_AUTO, VS_TVI}));
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
}

TEST(Tp28xxDetect, ElevenFailedConfirmationsRejectThenSearch)
{
    Rig rig(0x27);
    detect(rig);
    rig.chip.set(1, 0x01, 0x24); /* video and lock bit 5, never 5 and 6 together */
    count_down(rig);
    for (int i = 9; i >= 0; i--) {
        EXPECT_EQ(step(rig).first, VT_AUTO);
        EXPECT_EQ(counts(rig), std::tuple(LS_CONFIRM, 0, 0, i));
    }
    EXPECT_EQ(step(rig).first, VT_UNKNOWN);
    EXPECT_EQ(rig.st(1)->lock_state, LS_REJECTED);
    EXPECT_EQ(rig.st(1)->resolution, VT_UNKNOWN);
    EXPECT_EQ(rig.chip.get(1, 0x16), 0x15); /* default format */
    expect_loss(rig, step(rig));
}

TEST(Tp28xxDetect, LossFromConfirmAndFromLocked)
{
    {
        Rig rig(0x27);
        detect(rig);
        rig.chip.set(1, 0x01, NO_VIDEO);
        expect_loss(rig, step(rig));
    }
    /* Locked: another format, or video without any lock bit. */
    for (const auto &[reg, value] : {std::pair{0x03, 0x03}, std::pair{0x01, 0x04}}) {
        Rig rig(0x27);
        lock(rig);
        rig.chip.set(1, uint8_t(reg), uint8_t(value));
        expect_loss(rig, step(rig));
    }
}

TEST(Tp28xxDetect, TypesZeroAndOneAreRejected)
{
    Rig rig(0x27);
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x01);
    EXPECT_EQ(step(rig).first, VT_UNKNOWN);
    EXPECT_EQ(rig.st(1)->lock_state, LS_REJECTED);
    EXPECT_EQ(rig.st(1)->channel_mode, 0); /* nothing programmed */
}

TEST(Tp28xxDetect, Tp2826ProgramsOnlySdFormats)
{
    Rig rig(0x26);
    for (int ch : {1, 2}) { /* 720p25 with the short line */
        rig.chip.set(ch, 0x01, LOCKED_TVI);
        rig.chip.set(ch, 0x03, 0x0D);
    }
    EXPECT_EQ(step(rig, 1).first, VT_AUTO);
    const DetectState *p = rig.st(1);
    EXPECT_EQ(std::tuple(p->lock_state, p->resolution, p->last_detected, p->channel_mode),
              std::tuple(LS_CONFIRM, VT_UNKNOWN, VT_720P25, 0));
    rig.ch(2)->video_type = VT_UNKNOWN;
    EXPECT_EQ(step(rig, 2).first, VT_UNKNOWN);
    EXPECT_EQ(rig.st(2)->lock_state, LS_REJECTED);

    /* PAL with the TP2826's own setter: no output clock. */
    rig.chip.set(3, 0x01, 0x70);
    rig.chip.set(3, 0x03, 0x04);
    rig.chip.set(3, 0x04, 0x94);
    rig.chip.clear_log();
    step(rig, 3);
    EXPECT_EQ(std::tuple(rig.st(3)->lock_state, rig.st(3)->resolution, rig.ch(3)->standard),
              std::tuple(LS_CONFIRM, VT_PAL, VS_CVBS));
    EXPECT_EQ(rig.st(3)->channel_mode, 1);
    EXPECT_TRUE(rig.chip.writes(0xFB).empty());
    EXPECT_EQ(rig.chip.get(3, 0x35), 0x25);
}

/* ---- Status, interrupts, channel mode ------------------------------------- */

TEST(Tp28xxStatus, VideoStatusNeedsVideoAndALockBit)
{
    Rig rig(0x27);
    for (const auto &[reg, expected] :
         {std::pair{0xF0, 0}, {0x70, 1}, {0x10, 1}, {0x40, 1}, {0x00, 0}, {0x8F, 0}, {0x0F, 0}}) {
        rig.chip.set(2, 0x01, uint8_t(reg));
        rig.scoped([&] { EXPECT_EQ(tp28xx_video_status(rig.ch(2)), expected) << reg; });
    }
    rig.chip.set(2, 0x01, 0x70);
    rig.chip.fail_reads(2, 0x01, 1);
    EXPECT_EQ(tp28xx_video_status(rig.ch(2)), 0);
}

TEST(Tp28xxStatus, IrqStatusReportsGroupsAndClearsThem)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0xB5, 0x05);
    EXPECT_EQ(tp28xx_irq_status(rig.dec), 2);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Got video loss/detect on channel 0"), 1u);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Got video loss/detect on channel 2"), 1u);
    EXPECT_EQ(log_capture_messages().size(), 2u);
    EXPECT_SEQ(rig.chip, "?B4 ?B5 ?B6 B4=FF B5=FF B6=FF", 0x04);

    rig.chip.set(ANY_PAGE, 0xB4, 0x01);
    rig.chip.set(ANY_PAGE, 0xB5, 0x00);
    rig.chip.set(ANY_PAGE, 0xB6, 0x80);
    EXPECT_EQ(tp28xx_irq_status(rig.dec), 5);

    /* A failed read counts as a non-zero group with every channel. */
    log_capture_clear();
    rig.chip.set(ANY_PAGE, 0xB4, 0x00);
    rig.chip.set(ANY_PAGE, 0xB6, 0x00);
    rig.chip.fail_reads(ANY_PAGE, 0xB5, 1);
    EXPECT_EQ(tp28xx_irq_status(rig.dec), 2);
    EXPECT_EQ(log_capture_messages().size(), 1u + 4u);
}

TEST(Tp28xxStatus, EnableIrqTouchesTheChannelsTwoBits)
{
    Rig rig(0x27);
    const struct {
        int ch, flag;
        uint8_t after;
    } steps[] = {{2, 1, 0x30}, {3, 1, 0xF0}, {2, 0, 0xC0}, {0, 1, 0xC3}, {3, 0, 0x03}};
    for (const auto &s : steps) {
        EXPECT_EQ(tp28xx_enable_irq(rig.ch(s.ch), s.flag), 0);
        EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xB8), s.after) << s.ch << " " << s.flag;
    }
    EXPECT_TRUE(rig.chip.writes(0x40).empty());
    rig.chip.set_offline(true);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(1), 1), -1);
    rig.chip.set_offline(false);
}

} // namespace
