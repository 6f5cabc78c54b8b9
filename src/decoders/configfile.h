/* Each video input's configuration across restarts, kept in a GLib key file
 * with one group "Channel N" per channel and mirrored in a process-wide table
 * that also remembers what the file was last written with. No locking of its
 * own: callers hold the decoder's lock. */
#pragma once

#include <cstdint>

struct Channel;

#define CONFIG_FILE_PATH "/etc/encoder/video.conf"

/* Writes a new file with default contents (every channel automatic, standard
 * VS_NONE, resolution VT_AUTO) and resets the table to VT_PAL, VS_CVBS,
 * automatic, not configured. */
bool config_file_create(const char *path);
bool config_file_create();

/* Reads the file into the table and writes back any keys it had to add.
 * False when the file can't be read or parsed (the table is then untouched),
 * or when the completed file can't be written back. */
bool config_file_load(const char *path);
bool config_file_load();

/* Writes the channel's standard, resolution (its DetectState's), auto and
 * configured values into its group when they differ from what the table says
 * the file holds; true without touching the file when they don't. False when
 * the file no longer exists (nothing is written) or the write fails. */
bool config_file_save_channel(Channel *channel, const char *path);
bool config_file_save_channel(Channel *channel);

int32_t config_file_get_video_type(uint32_t channel);
int32_t config_file_get_video_standard(uint32_t channel);
uint8_t config_file_get_auto(uint32_t channel);
uint8_t config_file_get_channel_configured(uint32_t channel);
