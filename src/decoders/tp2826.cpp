/* What only the TP2826 has: the output port set-up in two-channel SDR mode and the
 * chip's own PAL and NTSC setters. */
#include "tp2826.h"

#include <glib.h>

#include "decoder.h"
#include "decoder_types.h"
#include "tp28xx.h"

namespace
{

constexpr auto W = reg_write;
constexpr auto U = reg_update;

/* clang-format off */
/* Common to all channels, on the page selected by the caller. 0xF6 takes the
 * mode itself and is written separately. */
constexpr RegStep output_sdr_2ch_before_mode[] = {
    W(0xF5, 0x0F), W(0xF1, 0x04), W(0x4D, 0x07), W(0x4E, 0x05), W(0x4F, 0x03), W(0x44, 0x47),
    W(0xFA, 0x88), W(0xFB, 0x88),
};
constexpr uint8_t OUTPUT_MODE_REG = 0xF6;
constexpr RegStep output_sdr_2ch_after_mode[] = {
    W(0xF8, 0x23), W(0x50, 0x00), W(0x51, 0x00), W(0x52, 0x00), W(0x53, 0x00), W(0xF3, 0x77),
    W(0xF2, 0x77), W(0x44, 0x07), W(0x4D, 0x07), W(0x4E, 0x05),
};

/* Per channel, on the channel's page: channels 0 and 2 take 0x34=0x10,
 * channels 1 and 3 take 0x34=0x11. */
constexpr RegStep output_channel_slot0[] = {W(0x02, 0xCF), W(0x34, 0x10)};
constexpr RegStep output_channel_slot1[] = {W(0x02, 0xCF), W(0x34, 0x11)};

/* The TP2826 sets its SD output format in the low bits of 0x07 instead of
 * 0x02. PAL gets the same update as NTSC: both SD formats need the same
 * output format (the TP2827's PAL and NTSC setters write the same value to
 * 0x02), and without it a PAL channel would keep whatever the previous format
 * or the default format left in 0x07, so that PAL after NTSC and PAL after a
 * reset would differ. */
constexpr RegStep out_sd[] = {U(0x07, 0x07, 0x07)};
/* clang-format on */

/* The TP2826 SD setters are the TP2827 ones with 0x07 updated instead of 0x02
 * and without the output clock step, which the TP2826 does not have. */
FormatSetter tp2826_setter(const FormatSetter &tp2827)
{
    FormatSetter setter = tp2827;
    setter.output = out_sd;
    setter.closing = SetterClosing::NONE;
    return setter;
}

} // namespace

void tp2826_setup_video_output(int32_t fd, int32_t mode)
{
    g_assert(mode == SDR_2CH);
    tp2827_run_steps(fd, output_sdr_2ch_before_mode);
    i2c_write_reg(fd, OUTPUT_MODE_REG, static_cast<uint32_t>(mode));
    tp2827_run_steps(fd, output_sdr_2ch_after_mode);

    for (int32_t channel = 0; channel < MAX_SOURCES; channel++) {
        tp28xx_set_page(fd, channel);
        tp2827_run_steps(fd, (channel & 1) ? std::span<const RegStep>(output_channel_slot1)
                                           : std::span<const RegStep>(output_channel_slot0));
    }
}

void tp2826_video_mode_set_PAL(int32_t fd, int32_t channel)
{
    tp2827_run_setter(fd, channel, VS_CVBS, tp2826_setter(tp2827_setter_pal));
}

void tp2826_video_mode_set_NTSC(int32_t fd, int32_t channel)
{
    tp2827_run_setter(fd, channel, VS_CVBS, tp2826_setter(tp2827_setter_ntsc));
}
