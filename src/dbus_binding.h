/* The Encoder object's handlers and the per-channel video objects. */
#pragma once

#include <gio/gio.h>

struct Channel;
struct Decoder;

/* One object "/com/korvi/Encoder/N" per channel, carrying the video interface
 * (held in Channel.video_object), exported into the object manager. */
void export_video_objects(Decoder *dec, GDBusObjectManagerServer *manager);
void unexport_video_objects(Decoder *dec, GDBusObjectManagerServer *manager);

/* Publish the channel's video type (the capture standard of its capture mode)
 * and detected type (the capture standard text of detected_type). Nothing
 * happens while the channel has no video object. */
void video_object_set_video_type(Channel *channel);
void video_object_set_detected_type(Channel *channel);
