/* I2C transactions (register reads and writes) of each driver operation on the fake chip. */
#include <cstdio>
#include <functional>
#include <string>

#include "fake_chip.h"

static void run(uint8_t chip_id)
{
    fakechip::FakeDecoder d(chip_id);
    fakechip::FakeChip &chip = d.chip;
    Decoder &dec = d.dec;
    Channel *channels = d.channels;
    chip.set(fakechip::ANY_PAGE, 0xB6, 0x0F); /* PTZ completion at once */
    const auto measure = [&](const std::string &what, const std::function<void()> &op) {
        chip.clear_log();
        op();
        printf("%-40s %5zu transactions\n", what.c_str(), chip.log().size());
    };
    printf("== %s\n", dec.name);
    measure("common initialisation", [&] { tp28xx_common_init(dec.i2c_fd, dec.dec_chip); });
    for (int32_t type : {VT_1080P30, VT_1080P25, VT_720P30, VT_720P25, VT_PAL, VT_NTSC, VT_4K12,
                         VT_4K15, VT_1440P15, VT_1440P25, VT_1440P30})
        for (int32_t standard : {VS_TVI, VS_AHD, VS_CVI})
            for (uint8_t short_line = 0; short_line <= (type == VT_720P30 || type == VT_720P25);
                 short_line++) {
                channels[0].chip_state->channel_mode = 0;
                measure(
                    std::string("format ") + video_type_to_string(type) + " " +
                        video_standard_to_string(standard) + (short_line ? " short line" : ""),
                    [&] { tp28xx_apply_video_format(&channels[0], standard, type, short_line); });
            }
    /* Channel 2 locked on 1080p30 TVI with its camera still there, then gone. */
    Channel *c = &channels[2];
    chip.set(2, 0x01, 0x74);
    chip.set(2, 0x03, 0x02);
    c->chip_state->lock_state = LS_LOCKED;
    c->chip_state->last_detected = VT_1080P30;
    int32_t type, standard;
    measure("detection step, video", [&] { tp28xx_detect_video_type(c, &type, &standard); });
    chip.set(2, 0x01, 0x80);
    measure("detection step, no video", [&] { tp28xx_detect_video_type(c, &type, &standard); });
    measure("video_status", [&] { tp28xx_video_status(c); });
    const uint8_t record[5] = {1, 0x00, 0xFF, 0x01, 0x80};
    if (dec.ops.transmit_ptz)
        measure("PTZ record", [&] { tp28xx_transmit_ptz(&dec, record, 5); });
}

int main()
{
    g_log_set_writer_func(
        [](GLogLevelFlags, const GLogField *, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
        nullptr, nullptr);
    run(0x27);
    run(0x26);
}
