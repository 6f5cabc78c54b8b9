/* The no-video and configuration-changed texts on each channel's video. */
#pragma once

#include <cstdint>

struct OverlayHandler;

OverlayHandler *overlay_init(void);
void overlay_deinit(OverlayHandler *o_h);
/* Records the state; 1 when it was already the recorded one, 0 when it changed. */
int overlay_set_no_video(OverlayHandler *o_h, uint32_t channel, int no_video);
int overlay_set_config_changed(OverlayHandler *o_h, uint32_t channel);
/* Brings the overlay service in line with the recorded states. */
void overlay_evaluate(OverlayHandler *o_h);
