#include "stand_ins.h"

#include <mutex>
#include <string>

#include <sys/prctl.h>

#include "configfile.h"
#include "dbus_binding.h"
#include "encoder_events.h"
#include "gpio.h"
#include "support/journal.h"
#include "video_input_type.h"

using testsupport::journal_add;

struct EncoderEvents {
    int unused;
};
struct ugpio_t {
    int unused;
};

namespace stand_in
{

std::atomic<int> check_no_video_result[MAX_SOURCES];
std::atomic<bool> events_fail{false};
std::atomic<bool> irq_open_fails{false};
std::atomic<int> irq_poll_result{0};
std::atomic<int> irq_polls{0};
std::atomic<int> irq_last_timeout_ms{0};
std::atomic<int> irq_opens{0};
std::atomic<int> irq_closes{0};
std::atomic<bool> irq_close_wrong_handle{false};
Decoder *decoder = nullptr;

namespace
{

EncoderEvents events_object;
ugpio_t irq_line;
std::mutex name_mutex;
std::string thread_name;

std::string marker(Channel *channel)
{
    return lock_held(channel->decoder) ? " locked" : " unlocked";
}

std::string ch(int32_t index)
{
    return "(" + std::to_string(index) + ")";
}

} // namespace

void reset()
{
    for (auto &result : check_no_video_result)
        result = 0;
    events_fail = false;
    irq_open_fails = false;
    irq_poll_result = 0;
    irq_polls = 0;
    irq_last_timeout_ms = 0;
    irq_opens = 0;
    irq_closes = 0;
    irq_close_wrong_handle = false;
    std::lock_guard guard(name_mutex);
    thread_name.clear();
}

bool lock_held(Decoder *dec)
{
    if (!g_mutex_trylock(dec->lock))
        return true;
    g_mutex_unlock(dec->lock);
    return false;
}

EncoderEvents *events_handle()
{
    return &events_object;
}

std::string enable_irq_thread_name()
{
    std::lock_guard guard(name_mutex);
    return thread_name;
}

} // namespace stand_in

using stand_in::ch;
using stand_in::marker;

void video_object_set_video_type(Channel *channel)
{
    journal_add("video_type" + ch(channel->index) + marker(channel));
}

void video_object_set_detected_type(Channel *channel)
{
    journal_add("detected" + ch(channel->index) + "=" + std::to_string(channel->detected_type) +
                marker(channel));
}

int encoder_events_send_video_connected(EncoderEvents *events, uint32_t channel, gboolean connected)
{
    journal_add("event" + ch(static_cast<int32_t>(channel)) + "=" + std::to_string(connected) +
                (events == &stand_in::events_object ? "" : " wrong-handle") +
                (stand_in::lock_held(stand_in::decoder) ? " locked" : " unlocked"));
    return stand_in::events_fail ? 0 : 1;
}

void update_video_input_type(Channel *channel)
{
    journal_add("input_type" + ch(channel->index) + "=" + std::to_string(channel->video_type) +
                marker(channel));
}

bool config_file_save_channel(Channel *channel)
{
    journal_add("save" + ch(channel->index) + " configured=" + std::to_string(channel->configured) +
                marker(channel));
    return true;
}

int check_no_video(int32_t channel)
{
    journal_add("check_no_video" + ch(channel));
    return stand_in::check_no_video_result[channel];
}

void decoder_enable_irq(Decoder *dec)
{
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    {
        std::lock_guard guard(stand_in::name_mutex);
        stand_in::thread_name = name;
    }
    journal_add(std::string("enable_irq") + (stand_in::lock_held(dec) ? " locked" : " unlocked"));
}

ugpio_t *gpio_irq_open(void)
{
    stand_in::irq_opens++;
    return stand_in::irq_open_fails ? nullptr : &stand_in::irq_line;
}

int gpio_irq_poll(ugpio_t *ctx, int timeout_ms)
{
    (void)ctx;
    stand_in::irq_last_timeout_ms = timeout_ms;
    stand_in::irq_polls++;
    return stand_in::irq_poll_result;
}

void gpio_irq_close(ugpio_t *ctx)
{
    if (ctx != &stand_in::irq_line)
        stand_in::irq_close_wrong_handle = true;
    stand_in::irq_closes++;
}
