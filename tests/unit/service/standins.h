/* Recording stand-ins for the modules the decoder object and the Encoder
 * service call, and a fake chip driver behind the operation slots. */
#pragma once

#include <string>
#include <vector>

#include "decoder.h"

struct Standins {
    /* Every call, in order, as text ("set_capture_mode(3,0)"). */
    std::vector<std::string> calls;

    /* Answers of the stand-ins. */
    bool chip_present = true;
    int32_t dec_chip = video_tp2827;
    bool transmit_ptz = true;
    bool events_ok = true;
    bool overlay_ok = true;
    bool send_ok = true;
    bool config_loads = true;
    int32_t config_standard[MAX_SOURCES] = {3, 3, 3, 3};
    int32_t config_type[MAX_SOURCES] = {8, 8, 8, 8};
    uint8_t config_auto[MAX_SOURCES] = {1, 1, 1, 1};
    int32_t capture_mode[MAX_SOURCES] = {1, 1, 1, 1};
    int set_capture_mode_result = 0;
    int termination_result = 0;
    int cpuid = 1;
    int setup_channel_fails_on = -1;
    int32_t slot_result = 0;        /* image-control slots */
    int32_t standard_fails_on = -1; /* set_video_standard fails on this channel */

    /* What the image-control slots received, per slot name. */
    std::vector<std::pair<std::string, int64_t>> slot_values;
};

extern Standins standins;

void standins_reset();
/* Calls recorded whose text starts with the prefix. */
std::vector<std::string> calls_starting(const std::string &prefix);
