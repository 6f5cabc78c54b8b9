#include "configfile.h"

#include <glib.h>

#include "confutils.h"
#include "decoder.h"
#include "decoder_types.h"
#include "tp28xx.h"

namespace
{

struct ChannelConfig {
    int32_t video_type;
    int32_t standard;
    uint8_t auto_mode;
    uint8_t configured;
};

ChannelConfig config_table[MAX_SOURCES];

constexpr mode_t file_mode = 0644;

/* Values used for keys that are missing or unreadable when the file is read. */
constexpr int32_t missing_standard = VS_CVBS;
constexpr int32_t missing_resolution = VT_PAL;

gchar *group_name(int32_t channel)
{
    return g_strdup_printf("Channel %d", channel);
}

bool write_key_file(GKeyFile *key_file, const char *path)
{
    gsize length = 0;
    g_autofree gchar *data = g_key_file_to_data(key_file, &length, nullptr);
    if (data == nullptr)
        return false;
    g_autoptr(GError) error = nullptr;
    return confutils_set_file_contents_with_sync_mode(path, data, static_cast<gssize>(length),
                                                      file_mode, &error) != FALSE;
}

/* Reads an integer key, or sets it to the fallback when it is missing or not an
 * integer. Returns the value in effect. */
int32_t get_or_set_integer(GKeyFile *key_file, const gchar *group, const gchar *key,
                           int32_t fallback, bool *changed)
{
    g_autoptr(GError) error = nullptr;
    gint value = g_key_file_get_integer(key_file, group, key, &error);
    if (error == nullptr)
        return value;
    g_key_file_set_integer(key_file, group, key, fallback);
    *changed = true;
    return fallback;
}

bool get_or_set_boolean(GKeyFile *key_file, const gchar *group, const gchar *key, bool fallback,
                        bool *changed)
{
    g_autoptr(GError) error = nullptr;
    gboolean value = g_key_file_get_boolean(key_file, group, key, &error);
    if (error == nullptr)
        return value != FALSE;
    g_key_file_set_boolean(key_file, group, key, fallback);
    *changed = true;
    return fallback;
}

} // namespace

bool config_file_create(const char *path)
{
    g_autoptr(GKeyFile) key_file = g_key_file_new();

    for (int32_t i = 0; i < MAX_SOURCES; i++) {
        g_autofree gchar *group = group_name(i);
        g_key_file_set_integer(key_file, group, "standard", VS_NONE);
        g_key_file_set_integer(key_file, group, "resolution", VT_AUTO);
        g_key_file_set_boolean(key_file, group, "auto", TRUE);
        g_key_file_set_boolean(key_file, group, "configured", FALSE);
        /* The table deliberately differs from the file: a channel that starts
         * from a new file searches in automatic mode, and its first save then
         * always finds something to write. */
        config_table[i] = {VT_PAL, VS_CVBS, 1, 0};
    }
    return write_key_file(key_file, path);
}

bool config_file_load(const char *path)
{
    g_autoptr(GKeyFile) key_file = g_key_file_new();
    if (!g_key_file_load_from_file(key_file, path, G_KEY_FILE_NONE, nullptr))
        return false;

    bool changed = false;
    for (int32_t i = 0; i < MAX_SOURCES; i++) {
        g_autofree gchar *group = group_name(i);
        ChannelConfig row;
        row.standard = get_or_set_integer(key_file, group, "standard", missing_standard, &changed);
        row.video_type =
            get_or_set_integer(key_file, group, "resolution", missing_resolution, &changed);
        bool auto_mode = get_or_set_boolean(key_file, group, "auto", true, &changed);
        /* A fixed channel's format was set by someone on purpose, so with no
         * word on it, it counts as configured; an automatic one as not. */
        bool configured = get_or_set_boolean(key_file, group, "configured", !auto_mode, &changed);
        row.auto_mode = auto_mode ? 1 : 0;
        row.configured = configured ? 1 : 0;
        config_table[i] = row;
    }
    if (!changed)
        return true;
    return write_key_file(key_file, path);
}

bool config_file_save_channel(Channel *channel, const char *path)
{
    g_assert(channel != nullptr);
    g_assert(channel->chip_state != nullptr);
    g_assert(channel->index >= 0 && channel->index < MAX_SOURCES);

    ChannelConfig wanted = {channel->chip_state->resolution, channel->standard, channel->auto_mode,
                            channel->configured};
    ChannelConfig &row = config_table[channel->index];
    if (row.video_type == wanted.video_type && row.standard == wanted.standard &&
        row.auto_mode == wanted.auto_mode && row.configured == wanted.configured)
        return true;

    g_autoptr(GKeyFile) key_file = g_key_file_new();
    g_autoptr(GError) error = nullptr;
    if (!g_key_file_load_from_file(key_file, path, G_KEY_FILE_NONE, &error)) {
        /* A file removed behind our back stays removed until the daemon
         * restarts and writes the default file; any other read failure is
         * replaced by this channel's group. */
        if (g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
            return false;
        g_key_file_unref(key_file);
        key_file = g_key_file_new();
    }

    g_autofree gchar *group = group_name(channel->index);
    g_key_file_set_integer(key_file, group, "standard", wanted.standard);
    g_key_file_set_integer(key_file, group, "resolution", wanted.video_type);
    g_key_file_set_boolean(key_file, group, "auto", wanted.auto_mode != 0);
    g_key_file_set_boolean(key_file, group, "configured", wanted.configured != 0);

    gsize length = 0;
    g_autofree gchar *data = g_key_file_to_data(key_file, &length, nullptr);
    if (data == nullptr)
        return false;
    g_autoptr(GError) write_error = nullptr;
    gboolean written = confutils_set_file_contents_with_sync_mode(
        path, data, static_cast<gssize>(length), file_mode, &write_error);
    /* The row follows the request even when the write failed, so the same
     * values are not retried on every pass: only a later change writes again. */
    row = wanted;
    return written != FALSE;
}

bool config_file_create()
{
    return config_file_create(CONFIG_FILE_PATH);
}

bool config_file_load()
{
    return config_file_load(CONFIG_FILE_PATH);
}

bool config_file_save_channel(Channel *channel)
{
    return config_file_save_channel(channel, CONFIG_FILE_PATH);
}

int32_t config_file_get_video_type(uint32_t channel)
{
    g_assert(channel < MAX_SOURCES);
    return config_table[channel].video_type;
}

int32_t config_file_get_video_standard(uint32_t channel)
{
    g_assert(channel < MAX_SOURCES);
    return config_table[channel].standard;
}

uint8_t config_file_get_auto(uint32_t channel)
{
    g_assert(channel < MAX_SOURCES);
    return config_table[channel].auto_mode;
}

uint8_t config_file_get_channel_configured(uint32_t channel)
{
    g_assert(channel < MAX_SOURCES);
    return config_table[channel].configured;
}
