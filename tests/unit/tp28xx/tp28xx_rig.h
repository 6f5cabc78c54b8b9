/* A decoder on the fake chip as tp28xx_create leaves it but for the bus: the
 * chip identified, slots filled, four channels set up, page 0x04 selected and
 * log messages captured. At its end every page-scoped operation of the test
 * must have put the page register back. */
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "fake_chip.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "tp28xx.h"

using fakechip::ANY_PAGE;

/* What tp28xx_set_default_format writes. */
inline const std::string DEFAULT_FORMAT = "07=C0 0B=C0 21=84 38=00 39=1C 3A=32 3B=26 26&01=00 "
                                          "06&04=00 35=05 36=05 15=13 16=15 17=00 18=19 19=D0 "
                                          "1A=25 1B=00 1C=06 1D=72";

struct Rig {
    fakechip::FakeChip chip;
    GMutex chip_lock;
    Channel channels[4] = {};
    Decoder dec = {};

    explicit Rig(uint8_t chip_id = 0x27)
    {
        log_capture_start();
        chip.set_identity(chip_id);
        g_mutex_init(&chip_lock);
        dec.chip_lock = &chip_lock;
        dec.i2c_fd = chip.fd();
        dec.dec_chip = tp28xx_detect_chip(dec.i2c_fd);
        tp28xx_fill_decoder(&dec);
        for (int i = 0; i < 4; i++) {
            channels[i].index = i;
            channels[i].decoder = &dec;
            channels[i].video_type = VT_AUTO;
            channels[i].auto_mode = 1;
            EXPECT_EQ(dec.ops.setup_channel(&channels[i]), 1);
        }
        chip.set(ANY_PAGE, 0x40, 0x04);
        chip.clear_log();
        log_capture_clear();
    }
    ~Rig()
    {
        EXPECT_EQ(chip.unrestored_pages(), 0) << "page register not restored";
        for (Channel &c : channels)
            g_free(c.chip_state);
        g_mutex_clear(&chip_lock);
    }

    Channel *ch(int i) { return &channels[i]; }
    DetectState *st(int i) { return channels[i].chip_state; }
    int line_length(int page) { return chip.get(page, 0x1C) * 256 + chip.get(page, 0x1D); }
};
