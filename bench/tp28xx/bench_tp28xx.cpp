/* Counts the I2C transactions (register reads and writes) of each chip driver
 * operation on the fake chip, and the time each took there. Figures only. */
#include <chrono>
#include <cstdio>
#include <functional>
#include <glib.h>

#include "decoder_types.h"
#include "fake_chip.h"
#include "tp28xx.h"

namespace
{

GLogWriterOutput quiet(GLogLevelFlags, const GLogField *, gsize, gpointer)
{
    return G_LOG_WRITER_HANDLED;
}

struct Bench {
    fakechip::FakeChip chip;
    Decoder *dec;
    Channel channels[4] = {};

    explicit Bench(uint8_t chip_id)
    {
        chip.set_identity(chip_id, 0x05);
        chip.set(fakechip::ANY_PAGE, 0xB6, 0x0F); /* PTZ completion at once */
        dec = g_new0(Decoder, 1);
        dec->chip_lock = g_new0(GMutex, 1);
        g_mutex_init(dec->chip_lock);
        dec->i2c_fd = chip.release_fd();
        dec->dec_chip = tp28xx_detect_chip(dec->i2c_fd);
        tp28xx_fill_decoder(dec);
        dec->channels = channels;
        for (int i = 0; i < 4; i++) {
            channels[i].index = i;
            channels[i].decoder = dec;
            channels[i].auto_mode = 1;
            channels[i].video_type = VT_AUTO;
            dec->ops.setup_channel(&channels[i]);
        }
    }
    ~Bench()
    {
        for (auto &c : channels)
            g_free(c.chip_state);
        tp28xx_close(dec);
        g_free(dec);
    }

    void measure(const char *what, const std::function<void()> &op)
    {
        chip.clear_log();
        const auto start = std::chrono::steady_clock::now();
        op();
        const auto end = std::chrono::steady_clock::now();
        size_t reads = 0, writes = 0;
        for (const auto &t : chip.transactions())
            (t.kind == fakechip::Transaction::READ ? reads : writes)++;
        printf("%-34s %5zu transactions (%4zu reads, %4zu writes) %9.3f ms\n", what, reads + writes,
               reads, writes, std::chrono::duration<double, std::milli>(end - start).count());
    }
};

} // namespace

int main()
{
    g_log_set_writer_func(quiet, nullptr, nullptr);
    for (uint8_t id : {0x27, 0x26}) {
        Bench b(id);
        printf("== %s\n", b.dec->name);
        b.measure("common initialisation",
                  [&] { tp28xx_common_init(b.dec->i2c_fd, b.dec->dec_chip); });
        b.measure("setup_channel", [&] {
            g_free(b.channels[1].chip_state);
            tp28xx_setup_channel(&b.channels[1]);
        });
        const struct {
            const char *name;
            int32_t type;
            uint8_t short_line;
        } formats[] = {
            {"1080p30", VT_1080P30, 0},
            {"1080p25", VT_1080P25, 0},
            {"720p30", VT_720P30, 1},
            {"720p25", VT_720P25, 1},
            {"720p30 (long line)", VT_720P30, 0},
            {"720p25 (long line)", VT_720P25, 0},
            {"pal", VT_PAL, 0},
            {"ntsc", VT_NTSC, 0},
            {"4k12", VT_4K12, 0},
            {"4k15", VT_4K15, 0},
            {"1440p15", VT_1440P15, 0},
            {"1440p25", VT_1440P25, 0},
            {"1440p30", VT_1440P30, 0},
        };
        for (const auto &f : formats) {
            for (int32_t standard : {VS_TVI, VS_AHD, VS_CVI}) {
                char label[64];
                snprintf(label, sizeof label, "format %s %s", f.name,
                         video_standard_to_string(standard));
                Channel *c = &b.channels[0];
                c->chip_state->channel_mode = 0;
                tp28xx_set_page(b.dec->i2c_fd, 0);
                b.measure(label,
                          [&] { tp28xx_apply_video_format(c, standard, f.type, f.short_line); });
            }
        }
        /* A channel locked on 1080p30 TVI with its camera still there. */
        Channel *c = &b.channels[2];
        b.chip.set(2, 0x01, 0x74);
        b.chip.set(2, 0x03, 0x02);
        c->chip_state->lock_state = LS_LOCKED;
        c->chip_state->last_detected = VT_1080P30;
        int32_t type, standard;
        b.measure("detection step, locked, video",
                  [&] { tp28xx_detect_video_type(c, &type, &standard); });
        c->chip_state->lock_state = LS_SEARCH;
        b.chip.set(2, 0x01, 0x80);
        b.measure("detection step, searching, no video",
                  [&] { tp28xx_detect_video_type(c, &type, &standard); });
        b.measure("video_status", [&] { tp28xx_video_status(c); });
        b.measure("irq_status", [&] { tp28xx_irq_status(b.dec); });
        b.measure("set_brightness", [&] { tp28xx_set_brightness(c, 40); });
        b.measure("set_sharpness", [&] { tp28xx_set_sharpness(c, 40); });
        if (b.dec->ops.transmit_ptz) {
            const uint8_t record[5] = {1, 0x00, 0xFF, 0x01, 0x80};
            b.measure("PTZ record", [&] { tp28xx_transmit_ptz(b.dec, record, 5); });
        }
    }
    return 0;
}
