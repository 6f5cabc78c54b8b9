/* The TP2826/TP2827 chip driver. */
#pragma once

#include <cstdint>

#include "decoder.h"

/* Detection state of a channel (DetectState.lock_state). */
enum {
    LS_SEARCH = 0,
    LS_CONFIRM = 1,
    LS_LOCKED = 2,
    LS_REJECTED = 3,
};

/* The driver's per-channel detection record, behind Channel.chip_state. */
struct DetectState {
    int32_t lock_state;
    int32_t confirm_count; /* steps left in LS_CONFIRM before giving up */
    int32_t settle_count;  /* steps that only count down */
    int32_t recheck_count; /* steps until the standard is read again */
    int32_t resolution;    /* VideoType programmed; saved as "resolution" */
    int32_t last_detected; /* VideoType last detected; VT_NONE after a loss */
    int32_t channel_mode;  /* 0 (none yet), 1 or 2 */
};
