#include "test_decoder.h"

#include <string>

#include "decoder_types.h"
#include "overlay.h"
#include "stand_ins.h"
#include "support/journal.h"

using testsupport::journal_add;

namespace
{

TestDecoder *current = nullptr;

std::string marker(Channel *channel)
{
    return stand_in::lock_held(channel->decoder) ? " locked" : " unlocked";
}

std::string ch(Channel *channel)
{
    return "(" + std::to_string(channel->index) + ")";
}

void fake_detect_video_type(Channel *channel, int32_t *video_type, int32_t *standard)
{
    journal_add("detect" + ch(channel) + marker(channel));
    current->detect_calls++;
    const DetectScript &script = current->detect[channel->index];
    *video_type = script.type;
    *standard = script.standard;
    channel->chip_state->lock_state = script.lock_state;
    if (current->on_detect)
        current->on_detect(channel);
}

int32_t fake_set_video_standard(Channel *channel, int32_t standard, int32_t video_type,
                                uint8_t auto_mode, uint8_t internal)
{
    journal_add("set_video_standard" + ch(channel) + " std=" + std::to_string(standard) +
                " type=" + std::to_string(video_type) + " auto=" + std::to_string(auto_mode) +
                " internal=" + std::to_string(internal) +
                " configured=" + std::to_string(channel->configured) + marker(channel));
    channel->auto_mode = auto_mode;
    channel->video_type = video_type;
    channel->standard = standard;
    channel->chip_state->resolution = video_type;
    return 0;
}

int32_t fake_video_status(Channel *channel)
{
    journal_add("video_status" + ch(channel) + marker(channel));
    current->video_status_calls++;
    return current->video_status[channel->index];
}

int32_t fake_enable_irq(Channel *, int32_t)
{
    return 0;
}

int32_t fake_irq_status(Decoder *dec)
{
    journal_add(std::string("irq_status") + (stand_in::lock_held(dec) ? " locked" : " unlocked"));
    current->irq_status_calls++;
    return current->irq_mask;
}

} // namespace

TestDecoder::TestDecoder()
{
    current = this;
    stand_in::decoder = &dec_;
    g_mutex_init(&lock_);
    dec_.name = "test decoder";
    dec_.dec_chip = video_tp2827;
    dec_.nbr_channels = MAX_SOURCES;
    dec_.channels = channels_;
    dec_.ops.detect_video_type = fake_detect_video_type;
    dec_.ops.set_video_standard = fake_set_video_standard;
    dec_.ops.video_status = fake_video_status;
    dec_.ops.enable_irq = fake_enable_irq;
    dec_.ops.irq_status = fake_irq_status;
    dec_.i2c_fd = -1;
    dec_.lock = &lock_;
    dec_.events = stand_in::events_handle();
    dec_.overlay = overlay_init();
    for (int i = 0; i < MAX_SOURCES; i++) {
        video_status[i] = 0;
        Channel &c = channels_[i];
        c.index = i;
        c.decoder = &dec_;
        c.detected_type = -1;
        c.chip_state = &states_[i];
        make_disabled(i);
    }
}

TestDecoder::~TestDecoder()
{
    overlay_deinit(dec_.overlay);
    g_mutex_clear(&lock_);
    current = nullptr;
    stand_in::decoder = nullptr;
}

void TestDecoder::make_searching(int i, int32_t capture_mode)
{
    Channel &c = channels_[i];
    c.auto_mode = 1;
    c.configured = 0;
    c.video_type = VT_AUTO;
    c.standard = VS_NONE;
    c.capture_mode = capture_mode;
    c.capture_mode_changed = 0;
}

void TestDecoder::make_fixed(int i, int32_t video_type, int32_t capture_mode)
{
    Channel &c = channels_[i];
    c.auto_mode = 0;
    c.configured = 0;
    c.video_type = video_type;
    c.standard = video_type_is_sd(video_type) ? VS_CVBS : VS_TVI;
    c.capture_mode = capture_mode;
    c.capture_mode_changed = 0;
}

void TestDecoder::make_disabled(int i)
{
    make_fixed(i, VT_DISABLED, CM_PAL);
    channels_[i].standard = VS_DISABLED;
}
