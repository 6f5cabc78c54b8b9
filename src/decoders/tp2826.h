/* What only the TP2826 has: its output port set-up and its own PAL and NTSC setters.
 * Every other format uses the TP2827 setters (tp2827.h). */
#pragma once

#include <cstdint>

#include "tp2827.h"

/* Programs the output ports on the current page, then each channel's page;
 * mode must be SDR_2CH. Leaves the page of channel 3 selected. */
void tp2826_setup_video_output(int32_t fd, int32_t mode);

/* Select the channel's page (left selected) and program PAL or NTSC. Unlike
 * the TP2827 setters they have no output clock step. */
void tp2826_video_mode_set_PAL(int32_t fd, int32_t channel);
void tp2826_video_mode_set_NTSC(int32_t fd, int32_t channel);
