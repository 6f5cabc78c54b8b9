/* Shared pieces of the chip driver tests: a capture of the driver's log
 * messages and a decoder built around the fake chip. */
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "decoder.h"
#include "fake_chip.h"
#include "log_capture.h"
#include "tp28xx.h"

/* A decoder on the fake chip, as tp28xx_create would leave it but for the
 * bus: chip fields and slots filled, chip identified from the fake's
 * registers, four channels set up through setup_channel. */
struct Rig {
    fakechip::FakeChip chip;
    Decoder *dec = nullptr;

    /* chip_id 0x26 or 0x27. With init, runs the common initialisation. */
    explicit Rig(uint8_t chip_id = 0x27, bool init = false, uint8_t revision = 0x05);
    ~Rig();

    Channel *ch(int i) { return &dec->channels[i]; }
    DetectState *st(int i) { return dec->channels[i].chip_state; }

    /* Runs a page-scoped operation and checks that the page register holds
     * the same value afterwards as before. */
    void scoped(const std::function<void()> &op);
};
