/* Counts the I2C transactions (register reads and writes) of each chip driver
 * operation on the fake chip. Figures only. */
#include <cstdio>
#include <functional>
#include <glib.h>

#include "decoder_types.h"
#include "fake_chip.h"
#include "tp28xx.h"

namespace
{

void measure(fakechip::FakeChip &chip, const char *what, const std::function<void()> &op)
{
    chip.clear_log();
    op();
    size_t reads = 0;
    const auto log = chip.transactions();
    for (const auto &t : log)
        reads += t.kind == fakechip::Transaction::READ;
    printf("%-40s %5zu transactions (%4zu reads, %4zu writes)\n", what, log.size(), reads,
           log.size() - reads);
}

void run(uint8_t chip_id)
{
    fakechip::FakeChip chip;
    chip.set_identity(chip_id, 0x05);
    chip.set(fakechip::ANY_PAGE, 0xB6, 0x0F); /* PTZ completion at once */
    GMutex chip_lock;
    g_mutex_init(&chip_lock);
    Channel channels[4] = {};
    Decoder dec{};
    dec.chip_lock = &chip_lock;
    dec.i2c_fd = chip.fd();
    dec.dec_chip = tp28xx_detect_chip(dec.i2c_fd);
    tp28xx_fill_decoder(&dec);
    dec.channels = channels;
    printf("== %s\n", dec.name);
    measure(chip, "common initialisation", [&] { tp28xx_common_init(dec.i2c_fd, dec.dec_chip); });
    for (int i = 0; i < 4; i++) {
        channels[i].index = i;
        channels[i].decoder = &dec;
        channels[i].auto_mode = 1;
        measure(chip, "setup_channel", [&] { tp28xx_setup_channel(&channels[i]); });
    }
    Channel *c = &channels[0];
    for (int32_t type : {VT_1080P30, VT_1080P25, VT_720P30, VT_720P25, VT_PAL, VT_NTSC, VT_4K12,
                         VT_4K15, VT_1440P15, VT_1440P25, VT_1440P30}) {
        for (uint8_t short_line : {0, 1}) {
            for (int32_t standard : {VS_TVI, VS_AHD, VS_CVI}) {
                if (short_line && type != VT_720P30 && type != VT_720P25)
                    continue;
                char label[64];
                snprintf(label, sizeof label, "format %s %s%s", video_type_to_string(type),
                         video_standard_to_string(standard), short_line ? " short line" : "");
                c->chip_state->channel_mode = 0;
                tp28xx_set_page(dec.i2c_fd, 0);
                measure(chip, label,
                        [&] { tp28xx_apply_video_format(c, standard, type, short_line); });
            }
        }
    }
    /* Channel 2 locked on 1080p30 TVI with its camera still there, then gone. */
    c = &channels[2];
    chip.set(2, 0x01, 0x74);
    chip.set(2, 0x03, 0x02);
    c->chip_state->lock_state = LS_LOCKED;
    c->chip_state->last_detected = VT_1080P30;
    int32_t type, standard;
    measure(chip, "detection step, locked", [&] { tp28xx_detect_video_type(c, &type, &standard); });
    chip.set(2, 0x01, 0x80);
    measure(chip, "detection step, loss", [&] { tp28xx_detect_video_type(c, &type, &standard); });
    measure(chip, "video_status", [&] { tp28xx_video_status(c); });
    measure(chip, "irq_status", [&] { tp28xx_irq_status(&dec); });
    measure(chip, "set_brightness", [&] { tp28xx_set_brightness(c, 40); });
    measure(chip, "set_sharpness", [&] { tp28xx_set_sharpness(c, 40); });
    const uint8_t record[5] = {1, 0x00, 0xFF, 0x01, 0x80};
    if (dec.ops.transmit_ptz)
        measure(chip, "PTZ record", [&] { tp28xx_transmit_ptz(&dec, record, 5); });
    for (Channel &ch : channels)
        g_free(ch.chip_state);
    g_mutex_clear(&chip_lock);
}

} // namespace

int main()
{
    g_log_set_writer_func(
        [](GLogLevelFlags, const GLogField *, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
        nullptr, nullptr);
    run(0x27);
    run(0x26);
}
