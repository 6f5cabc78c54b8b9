/* TP2827 format programming, output port set-up and PTZ transmission. The
 * format setters are also used by the TP2826 for every format but PAL and NTSC. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/* Output modes of the chips' video output ports. */
enum {
    SDR_1CH = 0, /* the TP2827's */
    SDR_2CH = 1, /* the TP2826's */
};

/* The PTZ transmitter mode; the only one the daemon uses. */
enum {
    PTZ_HDA_CVBS = 3,
};

/* One step of a register sequence: with mask 0 a plain write of value, else
 * an update of the bits under mask (read, modify, write). */
struct RegStep {
    uint8_t reg;
    uint8_t mask;
    uint8_t value;
};

constexpr RegStep reg_write(uint8_t reg, uint8_t value)
{
    return RegStep{reg, 0x00, value};
}
constexpr RegStep reg_update(uint8_t reg, uint8_t mask, uint8_t value)
{
    return RegStep{reg, mask, value};
}

/* Runs the steps in order on the current page. Failed transfers are logged by
 * the primitives and do not stop the sequence. */
void tp2827_run_steps(int32_t fd, std::span<const RegStep> steps);

/* What a format setter does after selecting the channel's page, as data. */
enum class SetterClosing {
    NONE,    /* no closing step */
    CLOCK_0, /* output clock 0 of the channel */
    CLOCK_1, /* output clock 1 of the channel */
    UHD,     /* tp2827_output_uhd */
};

struct FormatSetter {
    std::span<const RegStep> first = {};  /* 0x35 (and 0x36) */
    const uint8_t *timing = nullptr;      /* nine bytes for registers 0x15..0x1D */
    std::span<const RegStep> output = {}; /* the update of 0x02 (or 0x07) */
    bool output_before_timing = false;    /* 4K and QHD 25/30 update 0x02 first */
    std::span<const RegStep> shared = {}; /* the shared block */
    std::span<const RegStep> ahd = {};    /* VS_AHD block, empty if none */
    std::span<const RegStep> cvi = {};    /* VS_CVI block, empty if none */
    SetterClosing closing = SetterClosing::NONE;
    bool channel0_only = false; /* 4K12, 4K15, QHDP25, QHDP30 */
};

/* Runs a setter on the channel's page (selected here and left selected). */
void tp2827_run_setter(int32_t fd, int32_t channel, uint8_t standard, const FormatSetter &setter);

/* The TP2827's SD setters, on which the TP2826 builds its own. */
extern const FormatSetter tp2827_setter_pal;
extern const FormatSetter tp2827_setter_ntsc;

/* Programs the output ports on the current page; mode must be SDR_1CH. */
void tp2827_setup_video_output(int32_t fd, int32_t mode);

/* The format setters: each selects the channel's page (and leaves it selected),
 * then writes its first registers, its timing table, its shared block, the
 * block of the standard where it has one and its closing step. standard is a
 * VideoStandard; only VS_AHD and VS_CVI have blocks of their own. */
void tp2827_video_mode_set_1080P30(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_1080P25(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_720P30(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_720P25(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_720P30V2(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_720P25V2(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_PAL(int32_t fd, int32_t channel);
void tp2827_video_mode_set_NTSC(int32_t fd, int32_t channel);
/* 4K and the 25/30 frames/s QHD formats are decoded on channel 0 only; on
 * another channel they log an error and write nothing. */
void tp2827_video_mode_set_4K12(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_4K15(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_QHDP15(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_QHDP25(int32_t fd, int32_t channel, uint8_t standard);
void tp2827_video_mode_set_QHDP30(int32_t fd, int32_t channel, uint8_t standard);

/* The shared register blocks of the setters, on the current page. ntsc and pal
 * are also the TP2826's. */
void tp2827_common_hd(int32_t fd);
void tp2827_common_hd720(int32_t fd);
void tp2827_common_4k(int32_t fd);
void tp2827_common_qhd(int32_t fd);
void tp2827_common_ntsc(int32_t fd);
void tp2827_common_pal(int32_t fd);

/* Output set-up of the 4K and QHD 25/30 formats; ends by raising the no-video
 * flag of capture device 2. */
void tp2827_output_uhd(int32_t fd);

/* PTZ over coax. set_ptz_mode selects the channel's page and programs the
 * transmitter (mode must be PTZ_HDA_CVBS); ptz_send loads the four data bytes
 * and transmits them twice; ptz_encode_byte writes one byte as 24 bits into
 * three registers from reg on; ptz_trigger starts one transmission and waits
 * (at most 100 polls 2 ms apart) for the channel's completion bit. */
void tp2827_set_ptz_mode(int32_t fd, int32_t channel, int32_t mod);
void tp2827_ptz_send(int32_t fd, int32_t channel, const uint8_t *data);
void tp2827_ptz_encode_byte(int32_t fd, uint8_t reg, uint8_t byte);
void tp2827_ptz_trigger(int32_t fd, int32_t channel);
