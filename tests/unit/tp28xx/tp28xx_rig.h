/* A decoder on the fake chip, as tp28xx_create leaves it but for the bus:
 * chip identified from the fake's registers, slots filled, four channels set
 * up through setup_channel, and page 0x04 selected as after the common
 * initialisation. The driver's log messages are captured. */
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "decoder.h"
#include "decoder_types.h"
#include "fake_chip.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "tp28xx.h"

using fakechip::ANY_PAGE;
using W = std::vector<fakechip::RegWrite>;

/* What tp28xx_set_default_format writes, with 0x26 and 0x06 updated. */
inline const std::string DEFAULT_FORMAT = "07=C0 0B=C0 21=84 38=00 39=1C 3A=32 3B=26 26&01=00 "
                                          "06&04=00 35=05 36=05 15=13 16=15 17=00 18=19 19=D0 "
                                          "1A=25 1B=00 1C=06 1D=72";

struct Rig {
    fakechip::FakeChip chip;
    Decoder *dec;

    explicit Rig(uint8_t chip_id = 0x27, uint8_t revision = 0x05)
    {
        log_capture_start();
        dec = g_new0(Decoder, 1);
        chip.set_identity(chip_id, revision);
        dec->chip_lock = g_new0(GMutex, 1);
        g_mutex_init(dec->chip_lock);
        dec->i2c_fd = chip.release_fd();
        dec->dec_chip = tp28xx_detect_chip(dec->i2c_fd);
        tp28xx_fill_decoder(dec);
        dec->channels = g_new0(Channel, dec->nbr_channels);
        for (int i = 0; i < dec->nbr_channels; i++) {
            Channel *c = &dec->channels[i];
            c->index = i;
            c->decoder = dec;
            c->video_type = VT_AUTO;
            c->detected_type = -1;
            c->standard = VS_NONE;
            c->auto_mode = 1;
            EXPECT_EQ(dec->ops.setup_channel(c), 1);
        }
        chip.set(ANY_PAGE, 0x40, 0x04);
        chip.clear_log();
        log_capture_clear();
    }
    ~Rig()
    {
        for (int i = 0; i < dec->nbr_channels; i++)
            g_free(dec->channels[i].chip_state);
        g_free(dec->channels);
        tp28xx_close(dec);
        g_free(dec);
    }

    Channel *ch(int i) { return &dec->channels[i]; }
    DetectState *st(int i) { return dec->channels[i].chip_state; }

    /* Runs a page-scoped operation: the page register must hold the same
     * value afterwards as before. */
    void scoped(const std::function<void()> &op)
    {
        const uint8_t before = chip.page();
        op();
        EXPECT_EQ(chip.page(), before) << "page register not restored";
    }
};
