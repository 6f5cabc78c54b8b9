#include "overlay.h"

#include <cstdint>
#include <memory>

#include <glib.h>

#include "decoder.h"
#include "korvi_log.h"
#include "sdbus_ptr.h"

/* Per channel index: what was last shown on the overlay service and what the
 * daemon core last reported. The arrays are guarded by `mutex`, which is held
 * only for short updates and never across a call to the overlay service. */
struct OverlayHandler {
    uint8_t shown_no_video[MAX_SOURCES];       /* 1: "VIDEO_LOSS" set */
    uint8_t no_video[MAX_SOURCES];             /* 1: no video */
    uint8_t config_changed[MAX_SOURCES];       /* 1: capture configuration changed */
    uint8_t config_changed_shown[MAX_SOURCES]; /* 1: "VIDEO_INPUT_CONFIGURATION_CHANGED" set */
    GMutex *mutex;
};

namespace
{

constexpr const char *overlay_destination = "com.korvi.PrioritizedTextOverlay";
constexpr const char *overlay_interface = "com.korvi.PrioritizedTextOverlay";
constexpr const char *text_video_loss = "VIDEO_LOSS";
constexpr const char *text_config_changed = "VIDEO_INPUT_CONFIGURATION_CHANGED";

class MutexGuard
{
  public:
    explicit MutexGuard(GMutex *mutex) : mutex_(mutex) { g_mutex_lock(mutex_); }
    ~MutexGuard() { g_mutex_unlock(mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

  private:
    GMutex *mutex_;
};

/* One call to the overlay service: "Set" (text, priority 0) or "Unset" (text)
 * on the channel's object, numbered from 1. Failures are logged; nothing is
 * retried. */
void prioritized_text_overlay(uint32_t channel, int set, const char *text)
{
    g_autofree gchar *path = g_strdup_printf("/com/korvi/PrioritizedTextOverlay/%u", channel + 1);
    const char *member = set ? "Set" : "Unset";

    sd_bus *raw_bus = nullptr;
    int r = sd_bus_open_system(&raw_bus);
    BusPtr bus(raw_bus);
    if (r < 0) {
        korvi_error("%s%s Failed to acquire bus (%d)", __func__, r);
        return;
    }

    sd_bus_message *raw_call = nullptr;
    r = sd_bus_message_new_method_call(bus.get(), &raw_call, overlay_destination, path,
                                       overlay_interface, member);
    MessagePtr call(raw_call);
    if (r < 0) {
        korvi_error("%s%s: Failed to create bus message (%d)", __func__, r);
        return;
    }

    r = sd_bus_message_append(call.get(), "s", text);
    if (r >= 0 && set)
        r = sd_bus_message_append(call.get(), "u", static_cast<uint32_t>(0));
    if (r < 0) {
        korvi_error("%s%s: Failed to append to bus message (%d)", __func__, r);
        return;
    }

    BusError error;
    sd_bus_message *raw_reply = nullptr;
    /* All bits set: wait for the reply without a time limit. */
    r = sd_bus_call(bus.get(), call.get(), UINT64_MAX, &error.error, &raw_reply);
    MessagePtr reply(raw_reply);
    if (r < 0)
        korvi_error("%s%s: Call failed (%d)", __func__, r);
}

} // namespace

OverlayHandler *overlay_init(void)
{
    korvi_info("%sInit overlay handler");

    OverlayHandler *o_h = g_try_new0(OverlayHandler, 1);
    if (o_h == nullptr)
        return nullptr;
    /* Every channel starts without video, as the connected = false events that
     * the decoder sends at creation say. */
    for (auto &entry : o_h->no_video)
        entry = 1;

    o_h->mutex = g_try_new0(GMutex, 1);
    if (o_h->mutex == nullptr) {
        g_free(o_h);
        return nullptr;
    }
    g_mutex_init(o_h->mutex);
    return o_h;
}

void overlay_deinit(OverlayHandler *o_h)
{
    if (o_h == nullptr)
        return;
    korvi_info("%sDeinit overlay handler");
    /* Wait for a holder of the mutex to leave before it goes away. */
    g_mutex_lock(o_h->mutex);
    g_mutex_unlock(o_h->mutex);
    g_mutex_clear(o_h->mutex);
    g_free(o_h->mutex);
    g_free(o_h);
}

int overlay_set_no_video(OverlayHandler *o_h, uint32_t channel, int no_video)
{
    g_assert(o_h);
    g_assert(channel < MAX_SOURCES);
    const uint8_t state = no_video ? 1 : 0;

    MutexGuard guard(o_h->mutex);
    if (o_h->no_video[channel] == state)
        return 1;
    o_h->no_video[channel] = state;
    return 0;
}

int overlay_set_config_changed(OverlayHandler *o_h, uint32_t channel)
{
    g_assert(o_h);
    g_assert(channel < MAX_SOURCES);

    MutexGuard guard(o_h->mutex);
    o_h->config_changed[channel] = 1;
    return 0;
}

void overlay_evaluate(OverlayHandler *o_h)
{
    g_assert(o_h);

    /* Snapshot under the mutex; the calls below are made without it, so that
     * the status logic is never held up by a slow overlay service. */
    uint8_t differs[MAX_SOURCES] = {};
    uint8_t loss[MAX_SOURCES] = {};
    uint8_t pending[MAX_SOURCES] = {};
    uint8_t changed_shown[MAX_SOURCES] = {};
    {
        MutexGuard guard(o_h->mutex);
        for (uint32_t i = 0; i < MAX_SOURCES; i++) {
            differs[i] = o_h->shown_no_video[i] != o_h->no_video[i];
            loss[i] = differs[i] && o_h->no_video[i] != 0;
            pending[i] = o_h->config_changed[i] == 1 && o_h->config_changed_shown[i] == 0;
            changed_shown[i] = o_h->config_changed_shown[i];
        }
    }

    /* Only this function, on the manager thread, writes config_changed_shown,
     * so the snapshot of it is still current here. Once the configuration
     * change is shown, "VIDEO_LOSS" is left as it is for good. */
    for (uint32_t i = 0; i < MAX_SOURCES; i++) {
        if (pending[i]) {
            prioritized_text_overlay(i, 1, text_config_changed);
            MutexGuard guard(o_h->mutex);
            o_h->config_changed_shown[i] = 1;
        } else if (differs[i] && !changed_shown[i]) {
            prioritized_text_overlay(i, loss[i], text_video_loss);
            MutexGuard guard(o_h->mutex);
            o_h->shown_no_video[i] = loss[i];
        }
    }
}
