#include "dbus_binding.h"

#include <cstdarg>

#include "decoder.h"
#include "decoder_types.h"
#include "gpio.h"
#include "korvi_log.h"
#include "tp28xx.h"
#include "util.h"

namespace
{

const GDBusErrorEntry encoder_error_entries[] = {
    {ENCODER_ERROR_SYSTEM, "com.korvi.Encoder.Error.System"},
    {ENCODER_ERROR_INVALID_ARGUMENT, "com.korvi.Encoder.Error.InvalidArgument"},
    {ENCODER_ERROR_INVALID_STANDARD, "com.korvi.Encoder.Error.InvalidStandard"},
    {ENCODER_ERROR_INVALID_AUTO_MODE, "com.korvi.Encoder.Error.InvalidAutoMode"},
    {ENCODER_ERROR_INVALID_RESOLUTION, "com.korvi.Encoder.Error.InvalidResolution"},
};

/* Step 3 of every handler: answer with the error if one was set. */
gboolean finish(GDBusMethodInvocation *invocation, GError *error)
{
    if (error != nullptr) {
        g_dbus_method_invocation_return_gerror(invocation, error);
        g_error_free(error);
    }
    return TRUE;
}

/* Image controls. The chip takes one byte; the channel keeps the value as the
 * client sent it. */
struct ImageControl {
    const char *name;      /* for the failure reply */
    const char *range_msg; /* nullptr: no range test */
    int32_t (*apply)(Channel *, uint32_t);
    uint32_t Channel::*field;
    void (*complete)(DbusEncoder *, GDBusMethodInvocation *);
};

int32_t apply_saturation(Channel *c, uint32_t v)
{
    return decoder_set_saturation(c, v & 0xff);
}
int32_t apply_brightness(Channel *c, uint32_t v)
{
    return decoder_set_brightness(c, v & 0xff);
}
int32_t apply_contrast(Channel *c, uint32_t v)
{
    return decoder_set_contrast(c, v & 0xff);
}
int32_t apply_hue(Channel *c, uint32_t v)
{
    return decoder_set_hue(c, static_cast<uint32_t>(static_cast<int8_t>(v & 0xff)));
}
int32_t apply_sharpness(Channel *c, uint32_t v)
{
    return decoder_set_sharpness(c, v & 0xff);
}

const ImageControl saturation = {"saturation", "Invalid saturation value", apply_saturation,
                                 &Channel::saturation, dbus_encoder_complete_set_saturation};
const ImageControl brightness = {"brightness", "Invalid brightness value", apply_brightness,
                                 &Channel::brightness, dbus_encoder_complete_set_brightness};
const ImageControl contrast = {"contrast", "Invalid contrast value", apply_contrast,
                               &Channel::contrast, dbus_encoder_complete_set_contrast};
const ImageControl hue = {"hue", "Invalid hue value", apply_hue, &Channel::hue,
                          dbus_encoder_complete_set_hue};
const ImageControl sharpness = {"sharpness", "Invalid sharpness value", apply_sharpness,
                                &Channel::sharpness, dbus_encoder_complete_set_sharpness};

/* A store into a channel field outside a slot call: the manager thread reads
 * the records under the decoder's lock, so the store takes it too. */
template <typename T>
void store_locked(Channel *channel, T Channel::*field, T value)
{
    g_mutex_lock(channel->decoder->lock);
    channel->*field = value;
    g_mutex_unlock(channel->decoder->lock);
}

gboolean handle_image_control(const ImageControl &control, DbusEncoder *object,
                              GDBusMethodInvocation *invocation, gint channel_nr, guint value,
                              gpointer user_data)
{
    GError *error = nullptr;
    Channel *channel = encoder_get_channel(static_cast<Decoder *>(user_data), channel_nr, &error);
    if (channel == nullptr)
        return finish(invocation, error);
    if (value > 100) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_INVALID_ARGUMENT, "%s",
                          control.range_msg);
        return finish(invocation, error);
    }
    if (control.apply(channel, value) != 0) {
        /* The chip did not take the value: a fault of the system, not of
         * the request, and the stored value stays as it was. */
        encoder_set_error(ENCODER_SYSTEM_ERROR, &error, ENCODER_ERROR_SYSTEM, "Failed to set %s",
                          control.name);
        return finish(invocation, error);
    }
    store_locked(channel, control.field, static_cast<uint32_t>(value));
    control.complete(object, invocation);
    return finish(invocation, error);
}

#define IMAGE_CONTROL_HANDLER(name)                                                                \
    gboolean on_set_##name(DbusEncoder *object, GDBusMethodInvocation *invocation, gint channel,   \
                           guint value, gpointer user_data)                                        \
    {                                                                                              \
        return handle_image_control(name, object, invocation, channel, value, user_data);          \
    }

IMAGE_CONTROL_HANDLER(saturation)
IMAGE_CONTROL_HANDLER(brightness)
IMAGE_CONTROL_HANDLER(contrast)
IMAGE_CONTROL_HANDLER(hue)
IMAGE_CONTROL_HANDLER(sharpness)

gboolean handle_offset(int32_t (*apply)(Channel *, int32_t), int32_t Channel::*field,
                       const char *name, void (*complete)(DbusEncoder *, GDBusMethodInvocation *),
                       DbusEncoder *object, GDBusMethodInvocation *invocation, gint channel_nr,
                       gint value, gpointer user_data)
{
    GError *error = nullptr;
    Channel *channel = encoder_get_channel(static_cast<Decoder *>(user_data), channel_nr, &error);
    if (channel == nullptr)
        return finish(invocation, error);
    /* The chip takes the low byte as a signed offset. */
    if (apply(channel, static_cast<int8_t>(value & 0xff)) != 0) {
        encoder_set_error(ENCODER_SYSTEM_ERROR, &error, ENCODER_ERROR_SYSTEM, "Failed to set %s",
                          name);
        return finish(invocation, error);
    }
    store_locked(channel, field, static_cast<int32_t>(value));
    complete(object, invocation);
    return finish(invocation, error);
}

gboolean on_set_xoffset(DbusEncoder *object, GDBusMethodInvocation *invocation, gint channel,
                        gint value, gpointer user_data)
{
    return handle_offset(decoder_set_xoffset, &Channel::xoffset, "x offset",
                         dbus_encoder_complete_set_xoffset, object, invocation, channel, value,
                         user_data);
}

gboolean on_set_yoffset(DbusEncoder *object, GDBusMethodInvocation *invocation, gint channel,
                        gint value, gpointer user_data)
{
    return handle_offset(decoder_set_yoffset, &Channel::yoffset, "y offset",
                         dbus_encoder_complete_set_yoffset, object, invocation, channel, value,
                         user_data);
}

gboolean on_set_video_termination(DbusEncoder *object, GDBusMethodInvocation *invocation,
                                  gint channel_nr, gint level, gpointer user_data)
{
    GError *error = nullptr;
    Channel *channel = encoder_get_channel(static_cast<Decoder *>(user_data), channel_nr, &error);
    if (channel == nullptr)
        return finish(invocation, error);
    if (gpio_set_video_termination(channel_nr, level) != 0) {
        encoder_set_error(ENCODER_SYSTEM_ERROR, &error, ENCODER_ERROR_SYSTEM,
                          "Failed to set video termination");
        return finish(invocation, error);
    }
    dbus_encoder_complete_set_video_termination(object, invocation);
    return finish(invocation, error);
}

/* Switches the coupled channel (0 or 2) when a UHD format comes or goes on
 * channel 0: UHD takes channel 2's share of the chip. */
int32_t apply_uhd_coupling(Decoder *dec, int32_t channel_nr, int32_t auto_mode, int32_t resolution,
                           int32_t previous)
{
    Channel *channel0 = &dec->channels[0];
    Channel *channel2 = &dec->channels[2];

    if (channel_nr == 0) {
        if (auto_mode == 0 && video_type_is_uhd(resolution))
            return decoder_set_video_standard(channel2, VS_DISABLED, VT_DISABLED, 0, 0);
        if (video_type_is_uhd(previous))
            return decoder_set_video_standard(channel2, VS_NONE, VT_AUTO, 1, 0);
        return 0;
    }
    if (channel_nr == 2 && previous == VT_DISABLED) {
        g_mutex_lock(dec->lock);
        bool channel0_uhd = video_type_is_uhd(channel0->video_type);
        g_mutex_unlock(dec->lock);
        if (channel0_uhd)
            return decoder_set_video_standard(channel0, VS_NONE, VT_AUTO, 1, 0);
    }
    return 0;
}

gboolean on_set_video_standard(DbusEncoder *object, GDBusMethodInvocation *invocation,
                               gint channel_nr, gint auto_mode, const gchar *standard_text,
                               const gchar *resolution_text, gpointer user_data)
{
    Decoder *dec = static_cast<Decoder *>(user_data);
    GError *error = nullptr;
    Channel *channel = encoder_get_channel(dec, channel_nr, &error);
    if (channel == nullptr)
        return finish(invocation, error);

    korvi_info("%s%s channel: %d, auto_mode: %d, standard: %s, resolution: %s",
               "on_set_video_standard", channel_nr, auto_mode,
               standard_text ? standard_text : "None", resolution_text ? resolution_text : "None");

    int32_t standard = VS_NONE;
    int32_t resolution = VT_AUTO;
    if (auto_mode != 1) {
        if (auto_mode != 0) {
            encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_INVALID_AUTO_MODE,
                              "Not a valid auto mode");
            return finish(invocation, error);
        }
        standard = video_standard_from_string(standard_text);
        resolution = video_type_from_string(resolution_text);
        int32_t valid =
            is_valid_combo(dec->dec_chip == video_tp2827, standard, resolution, channel->index);
        if (valid == -1) {
            encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_INVALID_STANDARD,
                              "Not a valid video standard");
            return finish(invocation, error);
        }
        if (valid == -ENOENT) {
            encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_INVALID_RESOLUTION,
                              "Not a valid video resolution");
            return finish(invocation, error);
        }
    }

    g_mutex_lock(dec->lock);
    int32_t previous = channel->video_type;
    g_mutex_unlock(dec->lock);

    if (decoder_set_video_standard(channel, standard, resolution, static_cast<uint8_t>(auto_mode),
                                   0) != 0) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_SYSTEM,
                          "Not a valid video standard");
        return finish(invocation, error);
    }
    if (apply_uhd_coupling(dec, channel_nr, auto_mode, resolution, previous) != 0) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_SYSTEM,
                          "Failed to change UHD settings");
        return finish(invocation, error);
    }
    dbus_encoder_complete_set_video_standard(object, invocation);
    return finish(invocation, error);
}

/* The standard and resolution texts of a channel's listing entry. */
void config_texts(const Channel *channel, const char **standard, const char **resolution)
{
    const DetectState *state = channel->chip_state;
    if (state == nullptr || state->lock_state != LS_LOCKED) {
        *standard = "none";
        *resolution = "none";
        return;
    }
    *resolution = video_type_to_string(state->resolution);
    if (video_type_is_valid(state->resolution) || state->resolution == VT_DISABLED)
        *standard = video_standard_to_string(channel->standard);
    else
        *standard = "none";
}

gboolean on_list_config(DbusEncoder *object, GDBusMethodInvocation *invocation, gpointer user_data)
{
    g_assert(user_data);
    Decoder *dec = static_cast<Decoder *>(user_data);
    GError *error = nullptr;

    if (dec->channels == nullptr) {
        encoder_set_error(ENCODER_SYSTEM_ERROR, &error, ENCODER_ERROR_SYSTEM, "System error");
        return finish(invocation, error);
    }
    if (dec->nbr_channels < 1) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_INVALID_ARGUMENT,
                          "Wrong number of channels");
        return finish(invocation, error);
    }

    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(uuuuuiissbb)"));
    /* One snapshot of all channels: the manager thread changes the records
     * under the same lock. */
    g_mutex_lock(dec->lock);
    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        const Channel *c = &dec->channels[i];
        const char *standard;
        const char *resolution;
        config_texts(c, &standard, &resolution);
        g_variant_builder_add(&builder, "(uuuuuiissbb)", c->saturation, c->brightness, c->contrast,
                              c->hue, c->sharpness, c->xoffset, c->yoffset, standard, resolution,
                              static_cast<gboolean>(c->auto_mode != 0),
                              static_cast<gboolean>(c->capture_mode_changed != 0));
    }
    g_mutex_unlock(dec->lock);
    GVariant *config = g_variant_builder_end(&builder);
    if (config == nullptr) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_SYSTEM,
                          "Unable to list configuration");
        return finish(invocation, error);
    }
    dbus_encoder_complete_list_config(object, invocation, config);
    return finish(invocation, error);
}

gboolean on_list_supported_resolutions(DbusEncoder *object, GDBusMethodInvocation *invocation,
                                       gpointer user_data)
{
    Decoder *dec = static_cast<Decoder *>(user_data);
    GError *error = nullptr;

    if (dec == nullptr || dec->channels == nullptr) {
        encoder_set_error(ENCODER_SYSTEM_ERROR, &error, ENCODER_ERROR_SYSTEM, "System error");
        return finish(invocation, error);
    }
    if (dec->nbr_channels < 1) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_INVALID_ARGUMENT,
                          "Wrong number of channels");
        return finish(invocation, error);
    }
    int32_t count = 0;
    const char *const *list = get_supported_resolutions(dec->dec_chip == video_tp2827, &count);
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(s)"));
    for (int32_t i = 0; i < count; i++)
        g_variant_builder_add(&builder, "(s)", list[i]);
    GVariant *resolutions = g_variant_builder_end(&builder);
    if (resolutions == nullptr) {
        encoder_set_error(ENCODER_CLIENT_ERROR, &error, ENCODER_ERROR_SYSTEM,
                          "Unable to list configuration");
        return finish(invocation, error);
    }
    dbus_encoder_complete_list_supported_resolutions(object, invocation, resolutions);
    return finish(invocation, error);
}

gboolean on_get_video_properties(DbusEncoder *object, GDBusMethodInvocation *invocation,
                                 gint channel_nr, gpointer user_data)
{
    GError *error = nullptr;
    Channel *channel = encoder_get_channel(static_cast<Decoder *>(user_data), channel_nr, &error);
    if (channel == nullptr)
        return finish(invocation, error);

    g_mutex_lock(channel->decoder->lock);
    int32_t type = channel->video_type;
    bool changed = channel->capture_mode_changed != 0;
    g_mutex_unlock(channel->decoder->lock);

    bool is_sd = video_type_is_sd(type);
    dbus_encoder_complete_get_video_properties(
        object, invocation, is_sd, video_type_to_capture_standard(type), is_sd ? 2.75 : 1.0,
        video_type_to_frame_rate(type), changed);
    return finish(invocation, error);
}

} // namespace

GQuark encoder_error_quark(void)
{
    static gsize quark = 0;
    g_dbus_error_register_error_domain("encoder-error-quark", &quark, encoder_error_entries,
                                       G_N_ELEMENTS(encoder_error_entries));
    return static_cast<GQuark>(quark);
}

void encoder_set_error(EncoderErrorKind kind, GError **error, int code, const char *format, ...)
{
    if (error == nullptr || *error != nullptr)
        return;
    va_list args;
    va_start(args, format);
    g_autofree gchar *message = g_strdup_vprintf(format, args);
    va_end(args);
    *error = g_error_new_literal(encoder_error_quark(), code, message);
    if (kind == ENCODER_SYSTEM_ERROR)
        korvi_error("%s%s", message);
    else
        korvi_info("%s%s", message);
}

Channel *encoder_get_channel(Decoder *dec, int32_t channel, GError **error)
{
    if (dec == nullptr || dec->channels == nullptr) {
        encoder_set_error(ENCODER_SYSTEM_ERROR, error, ENCODER_ERROR_SYSTEM, "System error");
        return nullptr;
    }
    if (channel < 0 || channel >= dec->nbr_channels) {
        encoder_set_error(ENCODER_CLIENT_ERROR, error, ENCODER_ERROR_INVALID_ARGUMENT,
                          "Wrong number of channels");
        return nullptr;
    }
    return &dec->channels[channel];
}

DbusEncoder *encoder_object_new(Decoder *dec)
{
    DbusEncoder *object = dbus_encoder_skeleton_new();
    struct {
        const char *signal;
        GCallback handler;
    } const handlers[] = {
        {"handle-set-saturation", G_CALLBACK(on_set_saturation)},
        {"handle-set-brightness", G_CALLBACK(on_set_brightness)},
        {"handle-set-contrast", G_CALLBACK(on_set_contrast)},
        {"handle-set-hue", G_CALLBACK(on_set_hue)},
        {"handle-set-sharpness", G_CALLBACK(on_set_sharpness)},
        {"handle-set-xoffset", G_CALLBACK(on_set_xoffset)},
        {"handle-set-yoffset", G_CALLBACK(on_set_yoffset)},
        {"handle-set-video-termination", G_CALLBACK(on_set_video_termination)},
        {"handle-set-video-standard", G_CALLBACK(on_set_video_standard)},
        {"handle-list-config", G_CALLBACK(on_list_config)},
        {"handle-get-video-properties", G_CALLBACK(on_get_video_properties)},
        {"handle-list-supported-resolutions", G_CALLBACK(on_list_supported_resolutions)},
    };
    for (const auto &h : handlers)
        g_signal_connect(object, h.signal, h.handler, dec);
    return object;
}

void export_video_objects(Decoder *dec, GDBusObjectManagerServer *manager)
{
    if (dec == nullptr) {
        korvi_warning("%sUnable to export video objects");
        return;
    }
    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        Channel *channel = &dec->channels[i];
        g_autofree gchar *path = g_strdup_printf("/com/korvi/Encoder/%d", i);
        DbusObjectSkeleton *object = dbus_object_skeleton_new(path);
        channel->video_object = dbus_encoder_video_skeleton_new();
        dbus_object_skeleton_set_encoder_video(object, channel->video_object);
        video_object_set_video_type(channel);
        video_object_set_detected_type(channel);
        g_dbus_object_manager_server_export(manager, G_DBUS_OBJECT_SKELETON(object));
        g_object_unref(object);
    }
}

void unexport_video_objects(Decoder *dec, GDBusObjectManagerServer *manager)
{
    if (dec == nullptr || dec->channels == nullptr)
        return;
    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        Channel *channel = &dec->channels[i];
        if (channel->video_object == nullptr)
            continue;
        g_autofree gchar *path = g_strdup_printf("/com/korvi/Encoder/%d", i);
        g_dbus_object_manager_server_unexport(manager, path);
        g_clear_object(&channel->video_object);
    }
}

void video_object_set_video_type(Channel *channel)
{
    if (channel->video_object == nullptr)
        return;
    int32_t mode = get_capture_mode_index(channel->index);
    dbus_encoder_video_set_video_type(channel->video_object,
                                      capture_mode_to_capture_standard(mode));
}

void video_object_set_detected_type(Channel *channel)
{
    if (channel->video_object == nullptr)
        return;
    const char *text =
        capture_standard_to_string(video_type_to_capture_standard(channel->detected_type));
    dbus_encoder_video_set_detected_type(channel->video_object, text);
}
