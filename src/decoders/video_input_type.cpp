#include "video_input_type.h"

#include "capcore.h"
#include "decoder.h"
#include "decoder_types.h"

void update_video_input_type(Channel *channel)
{
    g_assert(channel);

    /* The video system only tells SD PAL (1) and NTSC (2) apart from the rest
     * (0). */
    int32_t capture_standard = video_type_to_capture_standard(channel->video_type);
    guint32 value = capture_standard <= CS_NTSC ? static_cast<guint32>(capture_standard + 1) : 0;
    gchar *key = g_strdup_printf("video_type%d", channel->index + 1);
    GError *error = nullptr;

    CapcoreSystem *system = capcore_system_new(&error);
    if (system == nullptr) {
        if (error != nullptr) {
            g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "%s:%s",
                  "Failed to update video_type: ", error->message);
            g_error_free(error);
        }
        g_free(key);
        return;
    }

    if (capcore_system_wait_for_started(system, &error)) {
        CapcoreMap *map = capcore_map_new();
        CapcoreInput *input = capcore_input_new(0, &error);
        if (input != nullptr) {
            capcore_map_set_uint32(map, key, value);
            capcore_input_set_settings(input, map, &error);
            g_object_unref(input);
        }
        if (map != nullptr)
            g_object_unref(map);
    }

    if (error != nullptr) {
        g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "%s:%s",
              "Failed to update video_type: ", error->message);
        g_error_free(error);
    }
    g_free(key);
    g_object_unref(system);
}
