/* Format read-out, the per-channel detection steps, video status and the
 * interrupt registers. */
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "korvi_log.h"
#include "tp28xx_rig.h"

using fakechip::ANY_PAGE;
using fakechip::RegWrite;
using W = std::vector<RegWrite>;

namespace
{

/* Status register 0x01: video with all lock bits, plus the TVI bit. */
constexpr uint8_t LOCKED_TVI = 0x74;
constexpr uint8_t NO_VIDEO = 0x80;

struct Format {
    int32_t type = -1;
    int32_t standard = -1;
    uint8_t short_line = 0xAA;
};

Format read_format(Rig &rig, int page)
{
    tp28xx_set_page(rig.dec->i2c_fd, page);
    rig.chip.clear_log();
    Format f;
    tp28xx_read_format(rig.dec->i2c_fd, &f.type, &f.standard, &f.short_line);
    return f;
}

TEST(Tp28xxReadFormat, BasicClassesOnTheTp2827)
{
    Rig rig(0x27);
    rig.chip.set(1, 0x03, 0x02);
    rig.chip.set(1, 0x01, LOCKED_TVI);
    Format f = read_format(rig, 1);
    EXPECT_EQ(f.type, VT_1080P30);
    EXPECT_EQ(f.standard, VS_TVI);
    EXPECT_EQ(f.short_line, 0);
    EXPECT_EQ(rig.chip.count_reads(0x8A), 0u);

    /* Without the TVI bit the sync registers decide: CVI reads 0xFF in one
     * of 0x91..0x93, after the whole run 0x8A..0xA1 is read. */
    rig.chip.set(1, 0x01, 0x70);
    rig.chip.set(1, 0x92, 0xFF);
    f = read_format(rig, 1);
    EXPECT_EQ(f.standard, VS_CVI);
    size_t scanned = 0;
    for (const auto &t : rig.chip.transactions())
        if (t.kind == fakechip::Transaction::READ && t.reg >= 0x8A && t.reg <= 0xA1)
            scanned++;
    EXPECT_EQ(scanned, 24u);

    rig.chip.set(1, 0x92, 0xFE);
    rig.chip.set(1, 0x90, 0xFF); /* outside the three that count */
    EXPECT_EQ(read_format(rig, 1).standard, VS_AHD);

    /* Class 6 is SD: CVBS whatever the other bits say, type from the class. */
    rig.chip.set(1, 0x03, 0x06);
    rig.chip.set(1, 0x04, 0x00);
    f = read_format(rig, 1);
    EXPECT_EQ(f.type, 6);
    EXPECT_EQ(f.standard, VS_CVBS);
}

TEST(Tp28xxReadFormat, ExtendedCodes)
{
    Rig rig(0x27);
    rig.chip.set(0, 0x01, LOCKED_TVI);

    /* 0x93 settles NTSC and CVBS without looking at the status. */
    rig.chip.set(0, 0x03, 0x04);
    rig.chip.set(0, 0x04, 0x93);
    Format f = read_format(rig, 0);
    EXPECT_EQ(f.type, VT_NTSC);
    EXPECT_EQ(f.standard, VS_CVBS);
    EXPECT_EQ(rig.chip.count_reads(0x01), 0u);
    EXPECT_EQ(rig.chip.count_reads(0x8A), 0u);
    EXPECT_EQ(rig.chip.writes(), (W{{0, 0x2F, 0x0E}, {0, 0x2F, 0x09}}));

    /* 0x7C: AHD, but its code has no type: the chip's class and line flag. */
    rig.chip.set(0, 0x03, 0x0C);
    rig.chip.set(0, 0x04, 0x7C);
    f = read_format(rig, 0);
    EXPECT_EQ(f.type, VT_720P30);
    EXPECT_EQ(f.short_line, 1);
    EXPECT_EQ(f.standard, VS_AHD);

    /* 0x67 without the newer silicon: 720p30 with the short line. */
    rig.chip.set(0, 0x03, 0x04);
    rig.chip.set(0, 0x04, 0x67);
    f = read_format(rig, 0);
    EXPECT_EQ(f.type, VT_720P30);
    EXPECT_EQ(f.short_line, 1);
    EXPECT_EQ(f.standard, VS_TVI);

    /* 0x5D means something only on the newer silicon. */
    rig.chip.set(0, 0x04, 0x5D);
    EXPECT_EQ(read_format(rig, 0).type, 0x04 & 7);
}

TEST(Tp28xxReadFormat, NewerSiliconUsesTheDetailValue)
{
    for (uint8_t id : {0x36, 0x37}) { /* bit 8 of the identity word is ignored */
        Rig rig(0x27);
        rig.chip.set(ANY_PAGE, 0xFF, id);
        rig.chip.set(ANY_PAGE, 0xFD, 0x01);
        rig.chip.set(0, 0x01, LOCKED_TVI);
        rig.chip.set(0, 0x03, 0x00);
        rig.chip.set(0, 0x04, 0x5D);
        EXPECT_EQ(read_format(rig, 0).type, VT_1440P30);
        rig.chip.set(0, 0x03, 0x02);
        rig.chip.set(0, 0x04, 0x8C);
        EXPECT_EQ(read_format(rig, 0).type, VT_4K15);
        rig.chip.set(0, 0x03, 0x03);
        rig.chip.set(0, 0x04, 0x47);
        EXPECT_EQ(read_format(rig, 0).type, VT_1080P25);
        /* An unlisted detail value gives no code: fallback to the class. */
        rig.chip.set(0, 0x04, 0x10);
        EXPECT_EQ(read_format(rig, 0).type, 3);

        /* Extended: a (first detail) 0x7B with b 0x5D is AHD code 33. */
        rig.chip.set(0, 0x03, 0x04);
        tp28xx_set_page(rig.dec->i2c_fd, 0);
        rig.chip.script_reads(0, 0x04, {0x7B, 0x5D});
        Format f;
        tp28xx_read_format(rig.dec->i2c_fd, &f.type, &f.standard, nullptr);
        EXPECT_EQ(f.type, 18);
        EXPECT_EQ(f.standard, VS_AHD);
    }
}

TEST(Tp28xxReadFormat, OnlyRequestedOutputsAreRead)
{
    Rig rig(0x27);
    rig.chip.set(0, 0x03, 0x02);
    tp28xx_set_page(rig.dec->i2c_fd, 0);
    rig.chip.clear_log();
    uint8_t line = 9;
    tp28xx_read_format(rig.dec->i2c_fd, nullptr, nullptr, &line);
    EXPECT_EQ(line, 0);
    EXPECT_EQ(rig.chip.count_reads(0x01), 0u);
}

TEST(Tp28xxReadFormat, CodeTranslationEdges)
{
    uint8_t line = 7;
    EXPECT_EQ(format_code_to_video_type(12, &line), VT_720P30);
    EXPECT_EQ(line, 1);
    EXPECT_EQ(format_code_to_video_type(13, &line), VT_720P25);
    EXPECT_EQ(line, 1);
    EXPECT_EQ(format_code_to_video_type(5, &line), VT_720P25);
    EXPECT_EQ(line, 0);
    for (int32_t code : {6, 7, 10, 11, 14, 31, 49, 59, 72, -1})
        EXPECT_EQ(format_code_to_video_type(code, &line), 34) << code;
    EXPECT_EQ(format_code_to_video_type(48, nullptr), VT_4K12);
}

/* ---- The detection state machine ----------------------------------------- */

/* Writes other than the page select and the detail index 0x2F: what a step
 * programs. */
W programming_writes(Rig &rig)
{
    W out;
    for (const auto &w : rig.chip.writes())
        if (w.reg != 0x40 && w.reg != 0x2F)
            out.push_back(w);
    return out;
}

struct StepResult {
    int32_t type;
    int32_t standard;
};

class Tp28xxDetect : public ::testing::Test
{
  protected:
    StepResult step(Rig &rig, int ch)
    {
        StepResult r{-100, -100};
        rig.scoped([&] { tp28xx_detect_video_type(rig.ch(ch), &r.type, &r.standard); });
        return r;
    }

    /* A 1080p30 TVI camera on channel 1 of a TP2827, detected and confirmed
     * up to just before the confirmation test. */
    void detect_1080p30(Rig &rig)
    {
        rig.chip.set(1, 0x01, LOCKED_TVI);
        rig.chip.set(1, 0x03, 0x02);
        rig.chip.set(1, 0x02, 0x4C);
        StepResult r = step(rig, 1);
        EXPECT_EQ(r.type, VT_AUTO);
        EXPECT_EQ(r.standard, VS_TVI);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "channel 1 detect: 02 dec_ctrl 4C"), 1u);
        const DetectState *p = rig.st(1);
        EXPECT_EQ(p->lock_state, LS_CONFIRM);
        EXPECT_EQ(p->resolution, VT_1080P30);
        EXPECT_EQ(p->last_detected, VT_1080P30);
        EXPECT_EQ(p->confirm_count, 10);
        EXPECT_EQ(p->channel_mode, 2);
        /* The 1080p30 line length went to channel 1's page. */
        EXPECT_EQ(rig.chip.get(1, 0x1C), 0x08);
        EXPECT_EQ(rig.chip.get(1, 0x1D), 0x98);
    }

    /* Three settle and four recheck steps; the last re-reads the standard. */
    void count_down(Rig &rig, int32_t standard_at_recheck)
    {
        for (int i = 2; i >= 0; i--) {
            step(rig, 1);
            EXPECT_EQ(rig.st(1)->settle_count, i);
            EXPECT_EQ(rig.st(1)->lock_state, LS_CONFIRM);
        }
        for (int i = 3; i >= 0; i--) {
            if (i == 0) {
                rig.chip.clear_log();
                StepResult r = step(rig, 1);
                EXPECT_EQ(r.standard, standard_at_recheck);
                EXPECT_EQ(rig.ch(1)->standard, standard_at_recheck);
            } else {
                step(rig, 1);
            }
            EXPECT_EQ(rig.st(1)->recheck_count, i);
            EXPECT_EQ(rig.st(1)->lock_state, LS_CONFIRM);
        }
        EXPECT_EQ(rig.st(1)->confirm_count, 10);
    }

    void expect_loss(Rig &rig, StepResult r)
    {
        EXPECT_EQ(r.type, VT_AUTO);
        EXPECT_EQ(r.standard, VS_NONE);
        const DetectState *p = rig.st(1);
        EXPECT_EQ(p->lock_state, LS_SEARCH);
        EXPECT_EQ(p->resolution, VT_AUTO);
        EXPECT_EQ(p->last_detected, VT_NONE);
        EXPECT_EQ(p->channel_mode, 2);
        /* The default format, on channel 1's page. */
        EXPECT_EQ(rig.chip.get(1, 0x16), 0x15);
        EXPECT_EQ(rig.chip.get(1, 0x36), 0x05);
    }
};

TEST_F(Tp28xxDetect, SearchWithoutVideoChangesNothing)
{
    Rig rig(0x27);
    rig.ch(1)->video_type = VT_1080P25;
    rig.ch(1)->standard = VS_AHD;
    rig.chip.set(1, 0x01, NO_VIDEO);
    StepResult r = step(rig, 1);
    EXPECT_EQ(r.type, VT_1080P25);
    EXPECT_EQ(r.standard, VS_AHD);
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
    EXPECT_EQ(rig.chip.count_reads(0x01), 11u);
    /* Only the page select and its restore. */
    EXPECT_EQ(rig.chip.writes(), (W{{0, 0x40, 0x01}, {1, 0x40, 0x00}}));
}

TEST_F(Tp28xxDetect, FixedChannelIsNotDetected)
{
    Rig rig(0x27);
    rig.ch(1)->auto_mode = 0;
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x02);
    step(rig, 1);
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
    EXPECT_TRUE(programming_writes(rig).empty());
}

TEST_F(Tp28xxDetect, DetectSettleRecheckConfirmLock)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    count_down(rig, VS_TVI);
    /* The eighth step after the detection tests the lock bits. */
    StepResult r = step(rig, 1);
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    EXPECT_EQ(r.type, VT_1080P30);
    EXPECT_EQ(r.standard, VS_TVI);

    /* Locked and unchanged: the step only looks. */
    rig.chip.clear_log();
    rig.ch(1)->video_type = VT_1080P30;
    r = step(rig, 1);
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    EXPECT_EQ(r.type, VT_1080P30);
    EXPECT_TRUE(programming_writes(rig).empty());
}

TEST_F(Tp28xxDetect, RecheckFollowsAStandardChange)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    /* Before the last recheck the TVI bit goes and 0x91 shows a CVI sync. */
    for (int i = 0; i < 6; i++)
        step(rig, 1);
    rig.chip.set(1, 0x01, 0x70);
    rig.chip.set(1, 0x91, 0xFF);
    step(rig, 1);
    EXPECT_EQ(rig.ch(1)->standard, VS_CVI);
    step(rig, 1);
    EXPECT_EQ(rig.st(1)->lock_state, LS_LOCKED);
}

TEST_F(Tp28xxDetect, StandardChangedAtConfirmationSearchesAgain)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    count_down(rig, VS_TVI);
    rig.chip.set(1, 0x01, 0x70);
    rig.chip.set(1, 0x93, 0xFF);
    StepResult r = step(rig, 1);
    EXPECT_EQ(rig.st(1)->lock_state, LS_SEARCH);
    EXPECT_EQ(r.type, VT_AUTO);
    EXPECT_EQ(r.standard, VS_TVI);
}

TEST_F(Tp28xxDetect, ElevenFailedConfirmationsReject)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    /* Video and one lock bit, but never bits 5 and 6 together. */
    rig.chip.set(1, 0x01, 0x14);
    count_down(rig, VS_TVI);
    for (int i = 9; i >= 0; i--) {
        StepResult r = step(rig, 1);
        EXPECT_EQ(rig.st(1)->lock_state, LS_CONFIRM);
        EXPECT_EQ(rig.st(1)->confirm_count, i);
        EXPECT_EQ(r.type, VT_AUTO);
    }
    rig.chip.set(1, 0x16, 0xD3);
    StepResult r = step(rig, 1);
    EXPECT_EQ(r.type, VT_UNKNOWN);
    EXPECT_EQ(rig.st(1)->lock_state, LS_REJECTED);
    EXPECT_EQ(rig.st(1)->resolution, VT_UNKNOWN);
    EXPECT_EQ(rig.chip.get(1, 0x16), 0x15); /* default format */

    /* The next step starts over through a loss. */
    r = step(rig, 1);
    expect_loss(rig, r);
}

TEST_F(Tp28xxDetect, LossWhileConfirming)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    rig.chip.set(1, 0x16, 0xD3);
    rig.chip.set(1, 0x01, NO_VIDEO);
    expect_loss(rig, step(rig, 1));
}

TEST_F(Tp28xxDetect, LossWhileLocked)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    count_down(rig, VS_TVI);
    step(rig, 1);
    ASSERT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    rig.chip.set(1, 0x01, NO_VIDEO);
    rig.chip.fail_reads(1, 0x01, 3); /* failed reads count as no video */
    expect_loss(rig, step(rig, 1));
}

TEST_F(Tp28xxDetect, LockedChannelSeeingAnotherFormatSearchesAgain)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    count_down(rig, VS_TVI);
    step(rig, 1);
    ASSERT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    rig.chip.set(1, 0x03, 0x03); /* now 1080p25 */
    expect_loss(rig, step(rig, 1));
}

TEST_F(Tp28xxDetect, LockedChannelWithoutLockBitsSearchesAgain)
{
    Rig rig(0x27);
    detect_1080p30(rig);
    count_down(rig, VS_TVI);
    step(rig, 1);
    ASSERT_EQ(rig.st(1)->lock_state, LS_LOCKED);
    rig.chip.set(1, 0x01, 0x04); /* video, but no lock bit on any try */
    expect_loss(rig, step(rig, 1));
}

TEST_F(Tp28xxDetect, TypesZeroAndOneAreRejected)
{
    Rig rig(0x27);
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x01);
    StepResult r = step(rig, 1);
    EXPECT_EQ(r.type, VT_UNKNOWN);
    EXPECT_EQ(rig.st(1)->lock_state, LS_REJECTED);
    EXPECT_EQ(rig.st(1)->last_detected, 1);
    EXPECT_EQ(rig.st(1)->channel_mode, 0); /* nothing programmed */
}

TEST_F(Tp28xxDetect, Tp2826ProgramsOnlySdFormats)
{
    Rig rig(0x26);
    /* 720p25, short line, from the chip's own class: not programmed. */
    rig.chip.set(1, 0x01, LOCKED_TVI);
    rig.chip.set(1, 0x03, 0x0D);
    StepResult r = step(rig, 1);
    EXPECT_EQ(r.type, VT_AUTO);
    EXPECT_EQ(rig.st(1)->lock_state, LS_CONFIRM);
    EXPECT_EQ(rig.st(1)->resolution, VT_UNKNOWN);
    EXPECT_EQ(rig.st(1)->last_detected, VT_720P25);
    EXPECT_EQ(rig.st(1)->channel_mode, 0);

    /* The same on a channel whose type is unknown is rejected. */
    rig.ch(2)->video_type = VT_UNKNOWN;
    rig.chip.set(2, 0x01, LOCKED_TVI);
    rig.chip.set(2, 0x03, 0x0D);
    r = step(rig, 2);
    EXPECT_EQ(r.type, VT_UNKNOWN);
    EXPECT_EQ(rig.st(2)->lock_state, LS_REJECTED);

    /* PAL is programmed with the TP2826's own setter: no output clock. */
    rig.chip.set(3, 0x01, 0x70);
    rig.chip.set(3, 0x03, 0x04);
    rig.chip.set(3, 0x04, 0x94);
    rig.chip.clear_log();
    r = step(rig, 3);
    EXPECT_EQ(rig.st(3)->lock_state, LS_CONFIRM);
    EXPECT_EQ(rig.st(3)->resolution, VT_PAL);
    EXPECT_EQ(rig.ch(3)->standard, VS_CVBS);
    EXPECT_EQ(rig.st(3)->channel_mode, 1);
    EXPECT_TRUE(rig.chip.writes_of(0xFB).empty());
    EXPECT_EQ(rig.chip.get(3, 0x35), 0x25);
}

/* ---- Status, interrupts ----------------------------------------------- */

TEST(Tp28xxStatus, VideoStatusNeedsVideoAndALockBit)
{
    Rig rig(0x27);
    const std::pair<uint8_t, int32_t> cases[] = {
        {0xF0, 0}, {0x70, 1}, {0x10, 1}, {0x40, 1}, {0x00, 0}, {0x8F, 0}, {0x0F, 0},
    };
    for (const auto &[reg, expected] : cases) {
        rig.chip.set(2, 0x01, reg);
        rig.scoped([&] { EXPECT_EQ(tp28xx_video_status(rig.ch(2)), expected) << int(reg); });
    }
    rig.chip.set(2, 0x01, 0x70);
    rig.chip.fail_reads(2, 0x01, 1);
    EXPECT_EQ(tp28xx_video_status(rig.ch(2)), 0);
    /* No channel state is touched. */
    EXPECT_EQ(rig.st(2)->lock_state, LS_SEARCH);
}

TEST(Tp28xxStatus, IrqStatusReportsGroupsAndClearsThem)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0xB5, 0x05);
    EXPECT_EQ(tp28xx_irq_status(rig.dec), 2);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Got video loss/detect on channel 0"), 1u);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Got video loss/detect on channel 2"), 1u);
    EXPECT_EQ(log_capture_messages().size(), 2u);
    EXPECT_EQ(rig.chip.writes(), (W{{0, 0xB4, 0xFF}, {0, 0xB5, 0xFF}, {0, 0xB6, 0xFF}}));

    rig.chip.set(ANY_PAGE, 0xB4, 0x01);
    rig.chip.set(ANY_PAGE, 0xB5, 0x00);
    rig.chip.set(ANY_PAGE, 0xB6, 0x80);
    EXPECT_EQ(tp28xx_irq_status(rig.dec), 5);

    /* A failed read counts as a non-zero group, all channels logged. */
    log_capture_clear();
    rig.chip.set(ANY_PAGE, 0xB4, 0x00);
    rig.chip.set(ANY_PAGE, 0xB6, 0x00);
    rig.chip.fail_reads(ANY_PAGE, 0xB5, 1);
    EXPECT_EQ(tp28xx_irq_status(rig.dec), 2);
    EXPECT_EQ(log_capture_messages().size(), 1u + 4u); /* the read error and 4 channels */
}

TEST(Tp28xxStatus, EnableIrqTouchesTheChannelsTwoBits)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0xB8, 0x00);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(2), 1), 0);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xB8), 0x30);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(3), 1), 0);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xB8), 0xF0);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(2), 0), 0);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xB8), 0xC0);
    rig.chip.set(ANY_PAGE, 0xB8, 0xFF);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(0), 0), 0);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xB8), 0xFC);
    EXPECT_TRUE(rig.chip.writes_of(0x40).empty());

    rig.chip.set_offline(true);
    EXPECT_EQ(tp28xx_enable_irq(rig.ch(1), 1), -1);
    rig.chip.set_offline(false);
}

TEST(Tp28xxStatus, ChannelModeWritesOnlyOnChange)
{
    Rig rig(0x27);
    rig.chip.set(ANY_PAGE, 0xF5, 0x00);
    tp28xx_set_page(rig.dec->i2c_fd, 2);
    rig.chip.clear_log();
    tp28xx_set_channel_mode(rig.ch(2), 1);
    EXPECT_EQ(rig.chip.get(2, 0x35) & 0x20, 0x20);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xF5), 0x04);
    const size_t after_first = rig.chip.writes().size();
    tp28xx_set_channel_mode(rig.ch(2), 1);
    EXPECT_EQ(rig.chip.writes().size(), after_first);
    tp28xx_set_channel_mode(rig.ch(2), 2);
    EXPECT_EQ(rig.chip.get(2, 0x35) & 0x20, 0x00);
    EXPECT_EQ(rig.chip.get(ANY_PAGE, 0xF5), 0x00);
    EXPECT_EQ(rig.st(2)->channel_mode, 2);
}

} // namespace
