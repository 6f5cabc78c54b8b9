#include "standins.h"

#include <glib.h>

#include "configfile.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "overlay.h"
#include "tp28xx.h"
#include "util.h"
#include "video_input_type.h"

Standins standins;

namespace
{

char events_token;
char overlay_token;

void call(const char *format, ...) G_GNUC_PRINTF(1, 2);
void call(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_autofree gchar *text = g_strdup_vprintf(format, args);
    va_end(args);
    standins.calls.emplace_back(text);
}

int32_t fake_setup_channel(Channel *channel)
{
    call("setup_channel(%d)", channel->index);
    if (channel->index == standins.setup_channel_fails_on)
        return 0;
    channel->chip_state = g_new0(DetectState, 1);
    channel->chip_state->resolution = VT_AUTO;
    return 1;
}

/* The driver's contract for set_video_standard, as the daemon relies on it. */
int32_t fake_set_video_standard(Channel *channel, int32_t standard, int32_t type, uint8_t auto_mode,
                                uint8_t internal)
{
    call("set_video_standard(%d,%d,%d,%d,%d)", channel->index, standard, type, auto_mode, internal);
    DetectState *state = channel->chip_state;
    if (channel->index == standins.standard_fails_on) {
        state->resolution = VT_UNKNOWN;
        return -1;
    }
    channel->auto_mode = auto_mode;
    if (auto_mode == 1 && internal == 0) {
        channel->video_type = VT_AUTO;
        channel->configured = 0;
        state->lock_state = LS_SEARCH;
        return 0;
    }
    if (auto_mode == 0)
        channel->configured = 0;
    if (type == VT_DISABLED) {
        state->resolution = VT_DISABLED;
        state->lock_state = LS_LOCKED;
        channel->standard = VS_DISABLED;
        channel->video_type = VT_DISABLED;
        channel->configured = 1;
        return 0;
    }
    state->resolution = type;
    state->lock_state = LS_LOCKED;
    channel->standard = standard;
    channel->video_type = type;
    return 0;
}

template <typename T>
int32_t record_slot(const char *name, Channel *channel, T value)
{
    call("%s(%d,%lld)", name, channel->index, static_cast<long long>(value));
    standins.slot_values.emplace_back(name, static_cast<int64_t>(value));
    return standins.slot_result;
}

int32_t fake_saturation(Channel *c, uint32_t v)
{
    return record_slot("set_saturation", c, v);
}
int32_t fake_brightness(Channel *c, uint32_t v)
{
    return record_slot("set_brightness", c, v);
}
int32_t fake_contrast(Channel *c, uint32_t v)
{
    return record_slot("set_contrast", c, v);
}
int32_t fake_hue(Channel *c, uint8_t v)
{
    return record_slot("set_hue", c, v);
}
int32_t fake_sharpness(Channel *c, uint32_t v)
{
    return record_slot("set_sharpness", c, v);
}
int32_t fake_xoffset(Channel *c, int32_t v)
{
    return record_slot("set_xoffset", c, v);
}
int32_t fake_yoffset(Channel *c, int32_t v)
{
    return record_slot("set_yoffset", c, v);
}
int32_t fake_video_status(Channel *c)
{
    call("video_status(%d)", c->index);
    return 1;
}
int32_t fake_enable_irq(Channel *c, int32_t enable)
{
    call("enable_irq(%d,%d)", c->index, enable);
    return 0;
}
void fake_transmit_ptz(Decoder *, const uint8_t *, size_t) {}

} // namespace

void standins_reset()
{
    standins = Standins();
}

std::vector<std::string> calls_starting(const std::string &prefix)
{
    std::vector<std::string> found;
    for (const auto &c : standins.calls)
        if (c.rfind(prefix, 0) == 0)
            found.push_back(c);
    return found;
}

/* GPIO lines. */
int gpio_reset_decoder(void)
{
    call("gpio_reset_decoder");
    return 0;
}
int gpio_setup_irq(void)
{
    call("gpio_setup_irq");
    return 0;
}
int gpio_set_video_termination(int channel, int value)
{
    call("gpio_set_video_termination(%d,%d)", channel, value);
    return standins.termination_result;
}
int gpio_has_cpuid_bit0(void)
{
    return standins.cpuid;
}

/* The chip driver's construction. */
Decoder *tp28xx_create(void)
{
    call("tp28xx_create");
    if (!standins.chip_present)
        return nullptr;
    Decoder *dec = g_new0(Decoder, 1);
    dec->name = "fake";
    dec->dec_chip = standins.dec_chip;
    dec->nbr_channels = MAX_SOURCES;
    dec->i2c_fd = -1;
    dec->ops.setup_channel = fake_setup_channel;
    dec->ops.transmit_ptz = standins.transmit_ptz ? fake_transmit_ptz : nullptr;
    dec->ops.set_saturation = fake_saturation;
    dec->ops.set_brightness = fake_brightness;
    dec->ops.set_contrast = fake_contrast;
    dec->ops.set_hue = fake_hue;
    dec->ops.set_sharpness = fake_sharpness;
    dec->ops.set_xoffset = fake_xoffset;
    dec->ops.set_yoffset = fake_yoffset;
    dec->ops.set_video_standard = fake_set_video_standard;
    dec->ops.video_status = fake_video_status;
    dec->ops.enable_irq = fake_enable_irq;
    return dec;
}
void tp28xx_close(Decoder *)
{
    call("tp28xx_close");
}

/* Events and overlay. */
EncoderEvents *encoder_events_create(uint32_t nbr_channels)
{
    call("encoder_events_create(%u)", nbr_channels);
    return standins.events_ok ? reinterpret_cast<EncoderEvents *>(&events_token) : nullptr;
}
void encoder_events_free(EncoderEvents *events)
{
    call("encoder_events_free(%s)", events ? "handle" : "null");
}
int encoder_events_send_video_connected(EncoderEvents *, uint32_t channel, gboolean connected)
{
    call("send_video_connected(%u,%d)", channel, connected);
    return standins.send_ok ? 1 : 0;
}
OverlayHandler *overlay_init(void)
{
    call("overlay_init");
    return standins.overlay_ok ? reinterpret_cast<OverlayHandler *>(&overlay_token) : nullptr;
}
void overlay_deinit(OverlayHandler *o_h)
{
    call("overlay_deinit(%s)", o_h ? "handle" : "null");
}
int overlay_set_config_changed(OverlayHandler *, uint32_t channel)
{
    call("overlay_set_config_changed(%u)", channel);
    return 0;
}

/* Configuration file. */
bool config_file_load()
{
    call("config_file_load");
    return standins.config_loads;
}
bool config_file_create()
{
    call("config_file_create");
    return true;
}
bool config_file_save_channel(Channel *channel)
{
    call("config_file_save_channel(%d)", channel->index);
    return true;
}
int32_t config_file_get_video_type(uint32_t channel)
{
    return standins.config_type[channel];
}
int32_t config_file_get_video_standard(uint32_t channel)
{
    return standins.config_standard[channel];
}
uint8_t config_file_get_auto(uint32_t channel)
{
    return standins.config_auto[channel];
}

/* Capture pipeline, channel status, video input type. */
int32_t get_capture_mode_index(int32_t channel)
{
    call("get_capture_mode_index(%d)", channel);
    return standins.capture_mode[channel];
}
int set_capture_mode(int32_t capture_mode, int32_t channel)
{
    call("set_capture_mode(%d,%d)", capture_mode, channel);
    if (standins.set_capture_mode_result >= 0)
        standins.capture_mode[channel] = capture_mode;
    return standins.set_capture_mode_result;
}
int set_capture_frequency(Channel *video)
{
    call("set_capture_frequency(%d)", video->index);
    return 0;
}
void set_channel_no_video(Decoder *, int32_t channel, int no_video)
{
    call("set_channel_no_video(%d,%d)", channel, no_video);
}
void update_video_input_type(Channel *channel)
{
    call("update_video_input_type(%d)", channel->index);
}
