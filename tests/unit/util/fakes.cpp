#include "fakes.h"

#include <string>

#include <sys/prctl.h>

#include "cam_no_video.h"
#include "configfile.h"
#include "dbus_binding.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "overlay.h"
#include "util.h"
#include "video_input_type.h"

using fake::journal_add;

struct EncoderEvents {
};
struct ugpio_t {
};

namespace stand_in
{
std::atomic<int> no_video[MAX_SOURCES];
std::atomic<bool> events_fail;
std::atomic<bool> irq_open_fails;
std::atomic<int> irq_poll_result;
} // namespace stand_in

namespace
{

TestDecoder *current = nullptr;
EncoderEvents events;
ugpio_t irq_line;

std::string at(Channel *ch, const char *what)
{
    return std::string(what) + "(" + std::to_string(ch->index) + ")";
}

std::string held()
{
    return current->lock_held() ? " locked" : " unlocked";
}

void fake_detect(Channel *ch, int32_t *type, int32_t *standard)
{
    journal_add(at(ch, "detect") + held());
    const DetectScript &script = current->detect[ch->index];
    *type = script.type;
    *standard = script.standard;
    ch->chip_state->lock_state = script.lock_state;
    if (current->on_detect)
        current->on_detect(ch);
}

int32_t fake_set_video_standard(Channel *ch, int32_t standard, int32_t type, uint8_t auto_mode,
                                uint8_t internal)
{
    journal_add(at(ch, "set_video_standard") + " std=" + std::to_string(standard) +
                " type=" + std::to_string(type) + " auto=" + std::to_string(auto_mode) +
                " internal=" + std::to_string(internal) +
                " configured=" + std::to_string(ch->configured) + held());
    return 0;
}

int32_t fake_video_status(Channel *ch)
{
    journal_add(at(ch, "video_status") + held());
    return current->video_status[ch->index];
}

int32_t fake_irq_status(Decoder *)
{
    journal_add("irq_status" + held());
    return current->irq_mask;
}

} // namespace

void video_object_set_video_type(Channel *ch)
{
    journal_add(at(ch, "video_type") + held());
}

void video_object_set_detected_type(Channel *ch)
{
    journal_add(at(ch, "detected") + "=" + std::to_string(ch->detected_type) + held());
}

int encoder_events_send_video_connected(EncoderEvents *e, uint32_t channel, gboolean connected)
{
    journal_add("event(" + std::to_string(channel) + ")=" + std::to_string(connected) +
                (e == &events ? "" : " wrong-handle") + held());
    return stand_in::events_fail ? 0 : 1;
}

void update_video_input_type(Channel *ch)
{
    journal_add(at(ch, "input_type") + "=" + std::to_string(ch->video_type) + held());
}

bool config_file_save_channel(Channel *ch)
{
    journal_add(at(ch, "save") + " configured=" + std::to_string(ch->configured) + held());
    return true;
}

int check_no_video(int32_t channel)
{
    journal_add("check_no_video(" + std::to_string(channel) + ")");
    return stand_in::no_video[channel];
}

void decoder_enable_irq(Decoder *)
{
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    journal_add("enable_irq" + held() + " " + name);
}

ugpio_t *gpio_irq_open(void)
{
    journal_add("irq_open");
    return stand_in::irq_open_fails ? nullptr : &irq_line;
}

int gpio_irq_poll(ugpio_t *, int timeout_ms)
{
    journal_add("irq_poll(" + std::to_string(timeout_ms) + ")");
    return stand_in::irq_poll_result;
}

void gpio_irq_close(ugpio_t *ctx)
{
    journal_add(ctx == &irq_line ? "irq_close" : "irq_close wrong-handle");
}

TestDecoder::TestDecoder()
{
    current = this;
    fake::bus_reset();
    for (auto &v : stand_in::no_video)
        v = 0;
    stand_in::events_fail = false;
    stand_in::irq_open_fails = false;
    stand_in::irq_poll_result = 0;
    g_mutex_init(&lock_);
    dec_.nbr_channels = MAX_SOURCES;
    dec_.channels = channels_;
    dec_.ops.detect_video_type = fake_detect;
    dec_.ops.set_video_standard = fake_set_video_standard;
    dec_.ops.video_status = fake_video_status;
    dec_.ops.irq_status = fake_irq_status;
    dec_.lock = &lock_;
    dec_.events = &events;
    dec_.overlay = overlay_init();
    for (int i = 0; i < MAX_SOURCES; i++) {
        video_status[i] = 0;
        detect[i] = {VT_NONE, VS_NONE, LS_SEARCH};
        channels_[i].index = i;
        channels_[i].decoder = &dec_;
        channels_[i].detected_type = -1;
        channels_[i].chip_state = &states_[i];
        set(i, 0, VT_DISABLED, CM_PAL);
    }
}

TestDecoder::~TestDecoder()
{
    overlay_deinit(dec_.overlay);
    g_mutex_clear(&lock_);
    current = nullptr;
}

void TestDecoder::set(int i, uint8_t auto_mode, int32_t video_type, int32_t capture_mode)
{
    Channel &c = channels_[i];
    c.auto_mode = auto_mode;
    c.configured = 0;
    c.video_type = video_type;
    c.standard = VS_NONE;
    c.capture_mode = capture_mode;
    c.capture_mode_changed = 0;
}

bool TestDecoder::lock_held()
{
    if (!g_mutex_trylock(&lock_))
        return true;
    g_mutex_unlock(&lock_);
    return false;
}

void TestDecoder::status_pass()
{
    g_mutex_lock(&lock_);
    for (int i = 0; i < MAX_SOURCES; i++)
        update_channel_video_status(&dec_, i);
    g_mutex_unlock(&lock_);
}
