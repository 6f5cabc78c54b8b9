/* The PTZ socket server: 5-byte records (channel index, four data bytes) from
 * local programs, relayed to the camera on that input over coax. */
#pragma once

#include <cstdint>
#include <glib.h>

struct Decoder;

#define PTZ_SOCKET_PATH "/run/vidhostd/coax.socket"
#define PTZ_POLL_TIMEOUT_MS 1000
#define PTZ_RECORD_SIZE 5

struct PtzRecord {
    uint8_t channel;
    uint8_t data[4];
};
static_assert(sizeof(PtzRecord) == PTZ_RECORD_SIZE);

GThread *ptz_ipc_create(Decoder *dec);
GThread *ptz_ipc_create_impl(Decoder *dec, const char *socket_path, int32_t poll_timeout_ms);
/* Stops the server and joins its thread; null is ignored. */
void ptz_ipc_stop(GThread *thread);
gpointer ptz_ipc_runner(gpointer dec);
