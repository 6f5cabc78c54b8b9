/* One stateful "video connected" event per channel. */
#pragma once

#include <cstdint>
#include <glib.h>

struct EncoderEvents;

EncoderEvents *encoder_events_create(uint32_t nbr_channels);
void encoder_events_free(EncoderEvents *events);
/* Non-zero on success; 0 when the event could not be prepared or sent. */
int encoder_events_send_video_connected(EncoderEvents *events, uint32_t channel,
                                        gboolean connected);
