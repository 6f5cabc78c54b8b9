#include "decoder.h"

#include <glib-object.h>

#include "configfile.h"
#include "dbus_binding.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "korvi_log.h"
#include "overlay.h"
#include "tp28xx.h"
#include "util.h"
#include "video_input_type.h"

namespace
{

/* Calls a slot under the decoder's lock. */
template <typename Slot, typename Value>
int32_t call_locked(Channel *channel, Slot DecoderOps::*slot, Value value)
{
    if (channel == nullptr || channel->decoder == nullptr)
        return -1;
    Decoder *dec = channel->decoder;
    if (dec->ops.*slot == nullptr)
        return -1;
    g_mutex_lock(dec->lock);
    int32_t result = (dec->ops.*slot)(channel, value);
    g_mutex_unlock(dec->lock);
    return result;
}

/* The channel's identity and its starting values from the capture pipeline
 * and the configuration. */
void init_channel(Decoder *dec, int32_t i, bool new_config)
{
    Channel *channel = &dec->channels[i];
    channel->index = i;
    channel->decoder = dec;
    channel->configured = 0;
    channel->capture_mode = get_capture_mode_index(i);
    channel->capture_mode_changed = 0;
    channel->standard = config_file_get_video_standard(i);
    channel->video_type = config_file_get_video_type(i);
    channel->detected_type = -1;
    channel->auto_mode = new_config ? 1 : config_file_get_auto(i);
}

} // namespace

Decoder *decoder_create(void)
{
    gpio_reset_decoder();
    gpio_setup_irq();

    Decoder *dec = tp28xx_create();
    if (dec == nullptr) {
        korvi_error("%sstill no valid video source");
        return nullptr;
    }
    g_assert(dec->nbr_channels >= 1 && dec->nbr_channels <= MAX_SOURCES);

    /* g_try_new0: out of memory ends the creation instead of the process. */
    dec->lock = g_try_new0(GMutex, 1);
    if (dec->lock == nullptr) {
        decoder_exit(dec);
        return nullptr;
    }
    g_mutex_init(dec->lock);

    dec->events = encoder_events_create(dec->nbr_channels);
    if (dec->events == nullptr) {
        decoder_exit(dec);
        return nullptr;
    }
    dec->overlay = overlay_init();
    if (dec->overlay == nullptr) {
        decoder_exit(dec);
        return nullptr;
    }

    /* No other thread exists yet; the lock is held all the same so that every
     * slot is called the way the slots expect. */
    g_mutex_lock(dec->lock);

    bool new_config = false;
    if (!config_file_load()) {
        config_file_create();
        new_config = true;
    }

    dec->channels = g_try_new0(Channel, dec->nbr_channels);
    if (dec->channels == nullptr) {
        g_mutex_unlock(dec->lock);
        decoder_exit(dec);
        return nullptr;
    }
    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        Channel *channel = &dec->channels[i];
        init_channel(dec, i, new_config);
        if (dec->ops.setup_channel(channel) == 0) {
            korvi_warning("%ssetup_channel failed for channel %d", i);
            g_mutex_unlock(dec->lock);
            decoder_exit(dec);
            return nullptr;
        }
        /* Fixed channels with a format, and switched-off channels whatever
         * their mode, are programmed now; the rest wait for the manager. */
        if ((channel->auto_mode == 0 && video_type_is_valid(channel->video_type)) ||
            channel->video_type == VT_DISABLED)
            dec->ops.set_video_standard(channel, channel->standard, channel->video_type,
                                        channel->auto_mode, 1);
        if (!encoder_events_send_video_connected(dec->events, i, FALSE))
            korvi_warning("%sFailed to send video connected event for channel %d", i);
    }

    g_mutex_unlock(dec->lock);
    return dec;
}

void decoder_exit(Decoder *dec)
{
    g_assert(dec);

    if (dec->lock != nullptr) {
        g_mutex_clear(dec->lock);
        g_free(dec->lock);
        dec->lock = nullptr;
    }
    if (dec->channels != nullptr) {
        for (int32_t i = 0; i < dec->nbr_channels; i++) {
            Channel *channel = &dec->channels[i];
            g_free(channel->chip_state);
            channel->chip_state = nullptr;
            g_clear_object(&channel->video_object);
        }
        g_free(dec->channels);
        dec->channels = nullptr;
    }
    overlay_deinit(dec->overlay);
    dec->overlay = nullptr;
    encoder_events_free(dec->events);
    dec->events = nullptr;
    tp28xx_close(dec);
    g_free(dec);
}

void decoder_enable_irq(Decoder *dec)
{
    g_assert(dec);

    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        Channel *channel = &dec->channels[i];
        dec->ops.enable_irq(channel, 1);
        if (channel->auto_mode == 0)
            set_channel_no_video(dec, i, dec->ops.video_status(channel) == 0 ? 1 : 0);
    }
}

int32_t decoder_set_saturation(Channel *channel, uint32_t value)
{
    return call_locked(channel, &DecoderOps::set_saturation, value);
}

int32_t decoder_set_brightness(Channel *channel, uint32_t value)
{
    return call_locked(channel, &DecoderOps::set_brightness, value);
}

int32_t decoder_set_contrast(Channel *channel, uint32_t value)
{
    return call_locked(channel, &DecoderOps::set_contrast, value);
}

int32_t decoder_set_hue(Channel *channel, uint32_t value)
{
    /* The chip's hue register takes one byte. */
    return call_locked(channel, &DecoderOps::set_hue, static_cast<uint8_t>(value & 0xff));
}

int32_t decoder_set_sharpness(Channel *channel, uint32_t value)
{
    return call_locked(channel, &DecoderOps::set_sharpness, value);
}

int32_t decoder_set_xoffset(Channel *channel, int32_t value)
{
    return call_locked(channel, &DecoderOps::set_xoffset, value);
}

int32_t decoder_set_yoffset(Channel *channel, int32_t value)
{
    return call_locked(channel, &DecoderOps::set_yoffset, value);
}

int32_t decoder_set_video_standard(Channel *channel, int32_t standard, int32_t video_type,
                                   uint8_t auto_mode, uint8_t internal)
{
    if (channel == nullptr || channel->decoder == nullptr ||
        channel->decoder->ops.set_video_standard == nullptr)
        return -1;
    Decoder *dec = channel->decoder;

    g_mutex_lock(dec->lock);
    int32_t previous = channel->video_type;
    int32_t result =
        dec->ops.set_video_standard(channel, standard, video_type, auto_mode, internal);
    int32_t capture_mode = channel->capture_mode;
    int32_t current = channel->video_type;
    g_mutex_unlock(dec->lock);

    if (auto_mode == 0) {
        /* The other services are called without the lock: they block on the
         * bus. Only the field updates take it. */
        int32_t wanted = video_type_to_capture_mode(video_type);
        if (wanted != capture_mode && set_capture_mode(wanted, channel->index) >= 0) {
            overlay_set_config_changed(dec->overlay, channel->index);
            g_mutex_lock(dec->lock);
            channel->capture_mode = wanted;
            channel->capture_mode_changed = 1;
            g_mutex_unlock(dec->lock);
        }
        if (video_type_is_valid(current) && current != previous) {
            video_object_set_video_type(channel);
            update_video_input_type(channel);
            set_capture_frequency(channel);
        }
    }

    g_mutex_lock(dec->lock);
    config_file_save_channel(channel);
    g_mutex_unlock(dec->lock);
    return result;
}
