#include "util.h"

#include <cstring>
#include <memory>

#include <glib.h>

#include "cam_no_video.h"
#include "configfile.h"
#include "dbus_binding.h"
#include "decoder.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "korvi_log.h"
#include "overlay.h"
#include "sdbus_ptr.h"
#include "tp28xx.h"
#include "video_input_type.h"

std::atomic<int> manager_stop_requested{0};

namespace
{

/* The manager waits this long for the chip's interrupt before it examines the
 * channels anyway, and lets the chip settle this long after an interrupt. */
constexpr int irq_poll_timeout_ms = 2000;
constexpr gulong irq_settle_us = 100000;
/* irq_status bit: video loss or detect on at least one channel. */
constexpr int32_t irq_video_loss_detect = 2;

constexpr const char *image_control_destination = "com.korvi.ImageControl";
constexpr const char *image_control_interface = "com.korvi.ImageControl";
constexpr const char *image_control_stream_interface = "com.korvi.ImageControlStream";
constexpr const char *capture_mode_destination = "com.korvi.CaptureMode1";
constexpr const char *capture_mode_interface = "com.korvi.CaptureMode1.Channel";

class DecoderLock
{
  public:
    explicit DecoderLock(Decoder *dec) : lock_(dec->lock) { g_mutex_lock(lock_); }
    ~DecoderLock() { g_mutex_unlock(lock_); }
    DecoderLock(const DecoderLock &) = delete;
    DecoderLock &operator=(const DecoderLock &) = delete;

  private:
    GMutex *lock_;
};

bool chip_locked(const Channel *ch)
{
    return ch->chip_state != nullptr && ch->chip_state->lock_state == LS_LOCKED;
}

/* One detection step of an automatic channel that is not configured yet.
 * Called with the decoder's lock held, which covers the calls to the other
 * services that accepting a lock makes. */
void detection_step(Decoder *dec, Channel *ch)
{
    int32_t type = VT_NONE;
    int32_t standard = ch->standard;
    if (dec->ops.detect_video_type != nullptr)
        dec->ops.detect_video_type(ch, &type, &standard);

    if (!chip_locked(ch)) {
        ch->detected_type = VT_NONE;
        video_object_set_detected_type(ch);
        config_file_save_channel(ch);
        return;
    }

    if (ch->detected_type != type) {
        ch->detected_type = type;
        video_object_set_detected_type(ch);
    }

    const int32_t mode = video_type_to_capture_mode(type);
    if (ch->capture_mode != mode && set_capture_mode(mode, ch->index) >= 0) {
        overlay_set_config_changed(dec->overlay, static_cast<uint32_t>(ch->index));
        ch->capture_mode_changed = 1;
        ch->capture_mode = mode;
    }

    if (ch->video_type != type && video_type_is_valid(type))
        ch->video_type = type;

    if (ch->capture_mode == mode && ch->video_type == type) {
        /* Accept the lock. configured goes first: set_video_standard with
         * internal = 1 leaves it as it finds it. */
        ch->configured = 1;
        if (dec->ops.set_video_standard != nullptr)
            dec->ops.set_video_standard(ch, standard, type, 1, 1);
        video_object_set_video_type(ch);
        update_video_input_type(ch);
        set_capture_frequency(ch);
        set_channel_no_video(dec, ch->index, 0);
    } else {
        /* The capture mode could not be set, or the chip reports a type that
         * can't be used: keep searching on the next pass. */
        ch->configured = 0;
    }

    korvi_info("%sAccepted lock on new video type, update video config file: type %d on channel "
               "%d, video type = %d",
               type, ch->index, standard);
    config_file_save_channel(ch);
}

/* Applies a fixed channel's configuration. The calls to the other services are
 * made without the decoder's lock: they block for as long as those services
 * take, and the main thread's handlers must not wait for them. The D-Bus
 * handlers read capture_mode, capture_mode_changed and configured under the
 * lock, so the step reads and writes those fields under the lock too, in two
 * short sections around the calls. A client that changes the channel's
 * standard in between takes effect on its own terms: its own path sets the
 * capture mode and configured again. */
void fixed_configuration_step(Decoder *dec, Channel *ch)
{
    video_object_set_video_type(ch);
    update_video_input_type(ch);
    set_capture_frequency(ch);

    int32_t video_type;
    int32_t capture_mode;
    {
        DecoderLock lock(dec);
        video_type = ch->video_type;
        capture_mode = ch->capture_mode;
    }

    const int32_t mode = video_type_to_capture_mode(video_type);
    bool mode_set = false;
    if (capture_mode != mode && set_capture_mode(mode, ch->index) >= 0) {
        overlay_set_config_changed(dec->overlay, static_cast<uint32_t>(ch->index));
        mode_set = true;
    }

    DecoderLock lock(dec);
    if (mode_set) {
        ch->capture_mode = mode;
        ch->capture_mode_changed = 1;
    }
    /* Applied even when the capture mode could not be set: not retried. */
    ch->configured = 1;
}

} // namespace

/* ---- Capture mode and frequency ---------------------------------------------- */

int32_t get_capture_mode_index(int32_t channel)
{
    int32_t result = -1;
    g_autofree gchar *path = g_strdup_printf("/com/korvi/ImageControl/%d/0", channel);

    sd_bus *raw_bus = nullptr;
    result = sd_bus_open_system(&raw_bus);
    BusPtr bus(raw_bus);
    if (result < 0) {
        korvi_info("%s%s Failed to acquire bus (%d)", __func__, result);
        return result;
    }

    BusError error;
    sd_bus_message *raw_reply = nullptr;
    result =
        sd_bus_get_property(bus.get(), image_control_destination, path, image_control_interface,
                            "CaptureMode", &error.error, &raw_reply, "i");
    MessagePtr reply(raw_reply);
    if (result < 0) {
        korvi_info("%s%s Unable to get CaptureModeIndex on channel %d %s", __func__, channel,
                   error.message(result));
        return result;
    }

    int32_t value = 0;
    if (sd_bus_message_read(reply.get(), "i", &value) < 0)
        korvi_info("%s%s Unable to read value of channel %d CaptureMode", __func__, channel);
    else
        result = value;
    return result;
}

int set_capture_frequency(Channel *video)
{
    g_assert(video);
    g_autofree gchar *frequency =
        g_strdup_printf("%dHz", video_type_to_mains_frequency(video->video_type));

    sd_bus *raw_bus = nullptr;
    int r = sd_bus_open_system(&raw_bus);
    BusPtr bus(raw_bus);
    if (r < 0) {
        korvi_warning("%s%s: Failed to acquire bus (%d)", __func__, r);
        return r;
    }

    g_autofree gchar *path = g_strdup_printf("/com/korvi/ImageControl/%d/0", video->index);
    BusError error;
    r = sd_bus_set_property(bus.get(), image_control_destination, path,
                            image_control_stream_interface, "CaptureFrequency", &error.error, "s",
                            frequency);
    if (r < 0)
        korvi_warning("%s%s: Unable to set 'CaptureFrequency' on channel '%d'. Error msg: %s",
                      __func__, video->index, error.message(r));
    return r;
}

int set_capture_mode(int32_t capture_mode, int32_t channel)
{
    g_autofree gchar *path = g_strdup_printf("/com/korvi/CaptureMode1/%d", channel);

    sd_bus *raw_bus = nullptr;
    int r = sd_bus_open_system(&raw_bus);
    BusPtr bus(raw_bus);
    if (r < 0) {
        korvi_info("%s%s Failed to acquire bus (%d)", __func__, r);
        return r;
    }

    /* The service counts its modes from 0. */
    BusError error;
    r = sd_bus_call_method(bus.get(), capture_mode_destination, path, capture_mode_interface,
                           "SetCaptureMode", &error.error, nullptr, "i", capture_mode - 1);
    if (r < 0)
        korvi_info("%s%s Unable to set SetCaptureMode on channel %d %s", __func__, channel,
                   error.message(r));
    return r;
}

/* ---- Channel video status ------------------------------------------------------ */

void set_channel_no_video(Decoder *dec, int32_t channel, int no_video)
{
    g_assert(dec);
    g_assert(channel >= 0 && channel < dec->nbr_channels);
    Channel *ch = &dec->channels[channel];
    const int state = no_video ? 1 : 0;

    /* The overlay module remembers the last reported state: only a change is
     * reported. */
    if (overlay_set_no_video(dec->overlay, static_cast<uint32_t>(channel), state))
        return;

    /* An automatic channel's detected type belongs to the lock pass. */
    if (ch->auto_mode == 0) {
        ch->detected_type = state ? VT_NONE : ch->video_type;
        video_object_set_detected_type(ch);
    }

    if (!encoder_events_send_video_connected(dec->events, static_cast<uint32_t>(channel),
                                             state ? FALSE : TRUE))
        korvi_warning("%sFailed to send video connected event for channel %d", channel);
}

void update_channel_video_status(Decoder *dec, int32_t channel)
{
    g_assert(dec);
    g_assert(channel >= 0 && channel < dec->nbr_channels);
    Channel *ch = &dec->channels[channel];

    /* Both are asked on every pass: the chip can hold its lock while the
     * capture driver already sees no video. */
    const int32_t status = dec->ops.video_status != nullptr ? dec->ops.video_status(ch) : 0;
    const int driver_no_video = check_no_video(channel);

    if (status != 0 && driver_no_video == 0) {
        set_channel_no_video(dec, channel, 0);
    } else if (ch->capture_mode_changed == 1) {
        /* The daemon changed this channel's capture mode itself; the loss that
         * follows a mode switch is not a reason to search again. */
    } else {
        set_channel_no_video(dec, channel, 1);
        ch->configured = 0;
    }
}

/* ---- Manager thread ------------------------------------------------------------- */

void update_video_lock(Decoder *dec)
{
    g_assert(dec);
    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        Channel *ch = &dec->channels[i];
        bool pending;
        {
            DecoderLock lock(dec);
            if (ch->auto_mode != 0 && ch->configured == 0) {
                detection_step(dec, ch);
                continue;
            }
            pending = ch->auto_mode == 0 && ch->video_type != VT_DISABLED && ch->configured == 0;
        }
        if (pending)
            fixed_configuration_step(dec, ch);
    }
}

gpointer manager_thread_run(gpointer data)
{
    auto *dec = static_cast<Decoder *>(data);

    ugpio_t *irq = gpio_irq_open();
    if (irq == nullptr)
        return nullptr;

    {
        DecoderLock lock(dec);
        decoder_enable_irq(dec);
    }

    for (;;) {
        if (manager_stop_requested.load(std::memory_order_seq_cst))
            break;

        if (gpio_irq_poll(irq, irq_poll_timeout_ms)) {
            g_usleep(irq_settle_us);
            int32_t mask = 0;
            {
                DecoderLock lock(dec);
                if (dec->ops.irq_status != nullptr)
                    mask = dec->ops.irq_status(dec);
            }
            if ((mask & irq_video_loss_detect) == 0)
                continue;
        }

        if (manager_stop_requested.load(std::memory_order_seq_cst))
            break;

        update_video_lock(dec);

        {
            DecoderLock lock(dec);
            for (int32_t i = 0; i < dec->nbr_channels; i++)
                update_channel_video_status(dec, i);
        }

        if (manager_stop_requested.load(std::memory_order_seq_cst))
            break;

        overlay_evaluate(dec->overlay);
    }

    korvi_info("%sManager thread exit");
    gpio_irq_close(irq);
    return nullptr;
}

GThread *manager_thread_start(Decoder *dec)
{
    if (dec == nullptr) {
        korvi_error("%sNo valid video decoder to use");
        return nullptr;
    }
    korvi_info("%sStarting manager thread");
    manager_stop_requested.store(0, std::memory_order_seq_cst);
    return g_thread_try_new("vinmand manager", manager_thread_run, dec, nullptr);
}

void manager_thread_stop(GThread *thread)
{
    if (thread == nullptr)
        return;
    korvi_info("%sStopping manager thread");
    manager_stop_requested.store(1, std::memory_order_seq_cst);
    g_thread_join(thread);
    korvi_info("%sStopped manager thread");
}
