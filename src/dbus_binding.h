/* The Encoder object's handlers, its error replies, and the per-channel video
 * objects. */
#pragma once

#include <cstdint>
#include <gio/gio.h>

#include "dbus_encoder.h"

struct Channel;
struct Decoder;

/* Error codes of the encoder_error_quark domain. */
enum {
    ENCODER_ERROR_SYSTEM = 10,
    ENCODER_ERROR_INVALID_ARGUMENT = 20,
    ENCODER_ERROR_INVALID_STANDARD = 31,
    ENCODER_ERROR_INVALID_AUTO_MODE = 32,
    ENCODER_ERROR_INVALID_RESOLUTION = 33,
};

/* Client errors are logged at info level, system errors at error level. */
enum EncoderErrorKind {
    ENCODER_CLIENT_ERROR,
    ENCODER_SYSTEM_ERROR,
};

/* The error domain; its codes travel on the bus as com.korvi.Encoder.Error.*. */
GQuark encoder_error_quark(void);

/* Sets *error unless it already holds one (the first error of a call wins) and
 * logs the message. */
void encoder_set_error(EncoderErrorKind kind, GError **error, int code, const char *format, ...)
    G_GNUC_PRINTF(4, 5);

/* The channel record, or nullptr with *error set. */
Channel *encoder_get_channel(Decoder *dec, int32_t channel, GError **error);

/* A new Encoder interface object with every method handler connected, each
 * with the decoder as user data. */
DbusEncoder *encoder_object_new(Decoder *dec);

/* One object "/com/korvi/Encoder/N" per channel, carrying the video interface
 * (held in Channel.video_object), exported into the object manager. */
void export_video_objects(Decoder *dec, GDBusObjectManagerServer *manager);
void unexport_video_objects(Decoder *dec, GDBusObjectManagerServer *manager);

/* Publish the channel's video type (the capture standard of its capture
 * pipeline's mode, asked afresh) and detected type (the capture standard text
 * of detected_type). Nothing happens while the channel has no video object. */
void video_object_set_video_type(Channel *channel);
void video_object_set_detected_type(Channel *channel);
