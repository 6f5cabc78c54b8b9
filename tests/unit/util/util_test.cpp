/* The lock pass and the status pass, against link-time
 * stand-ins for the modules they call, a scripted decoder, the real overlay
 * module and the fake services (support/fake_bus.h). Calls are journalled,
 * most with " locked" or " unlocked" for whether the decoder's lock was held. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cam_no_video.h"
#include "configfile.h"
#include "dbus_binding.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "log_capture.h"
#include "overlay.h"
#include "support/fake_bus.h"
#include "tp28xx.h"
#include "util.h"
#include "video_input_type.h"

using fake::journal_matching;
using fake::journal_take;
using testing::ElementsAre;
using testing::IsEmpty;
using Calls = std::vector<std::string>;

struct ugpio_t {
};

namespace
{

struct DetectScript {
    int32_t type, standard, lock_state;
};

/* Four channels, all fixed and disabled until a test sets them. */
struct TestDecoder {
    TestDecoder();
    ~TestDecoder()
    {
        overlay_deinit(dec.overlay);
        g_mutex_clear(&lock);
    }
    void set(int i, uint8_t auto_mode, int32_t video_type, int32_t capture_mode)
    {
        ch[i].auto_mode = auto_mode;
        ch[i].video_type = video_type;
        ch[i].capture_mode = capture_mode;
    }
    void status_pass()
    {
        g_mutex_lock(&lock);
        for (int i = 0; i < MAX_SOURCES; i++)
            update_channel_video_status(&dec, i);
        g_mutex_unlock(&lock);
    }

    Decoder dec{};
    Channel ch[MAX_SOURCES]{};
    DetectState states[MAX_SOURCES]{};
    GMutex lock;
    DetectScript detect[MAX_SOURCES]{};
    int32_t chip_video[MAX_SOURCES]{};
    int driver_no_video[MAX_SOURCES]{}; /* 0 video, 1 none, -1 no file */
};

TestDecoder *td = nullptr;

void add(const std::string &what, const Channel *c, const std::string &rest = "")
{
    const bool held = !g_mutex_trylock(&td->lock);
    if (!held)
        g_mutex_unlock(&td->lock);
    fake::journal_add(what + "(" + std::to_string(c->index) + ")" + rest +
                      (held ? " locked" : " unlocked"));
}

TestDecoder::TestDecoder()
{
    td = this;
    fake::bus_reset();
    g_mutex_init(&lock);
    dec.nbr_channels = MAX_SOURCES;
    dec.channels = ch;
    dec.lock = &lock;
    dec.overlay = overlay_init();
    dec.ops.detect_video_type = [](Channel *c, int32_t *type, int32_t *standard) {
        add("detect", c);
        *type = td->detect[c->index].type;
        *standard = td->detect[c->index].standard;
        c->chip_state->lock_state = td->detect[c->index].lock_state;
    };
    dec.ops.set_video_standard = [](Channel *c, int32_t s, int32_t t, uint8_t a, uint8_t in) {
        add("set_video_standard", c,
            " " + std::to_string(s) + "," + std::to_string(t) + "," + std::to_string(a) + "," +
                std::to_string(in) + " configured=" + std::to_string(c->configured));
        return 0;
    };
    dec.ops.video_status = [](Channel *c) {
        add("video_status", c);
        return td->chip_video[c->index];
    };
    for (int i = 0; i < MAX_SOURCES; i++) {
        ch[i].index = i;
        ch[i].decoder = &dec;
        ch[i].detected_type = -1;
        ch[i].chip_state = &states[i];
        detect[i] = {VT_NONE, VS_NONE, LS_SEARCH};
        set(i, 0, VT_DISABLED, CM_PAL);
    }
}

} // namespace

// clang-format off
void video_object_set_video_type(Channel *c) { add("video_type", c); }
void video_object_set_detected_type(Channel *c) { add("detected", c, "=" + std::to_string(c->detected_type)); }
int encoder_events_send_video_connected(EncoderEvents *, uint32_t channel, gboolean connected)
{
    add("event", &td->ch[channel], "=" + std::to_string(connected));
    return 1;
}
void update_video_input_type(Channel *c) { add("input_type", c, "=" + std::to_string(c->video_type)); }
bool config_file_save_channel(Channel *c) { add("save", c, " configured=" + std::to_string(c->configured)); return true; }
int check_no_video(int32_t channel)
{
    fake::journal_add("check_no_video(" + std::to_string(channel) + ")");
    return td->driver_no_video[channel];
}
/* The manager thread is not run here; these only complete the link. */
void decoder_enable_irq(Decoder *) {}
ugpio_t *gpio_irq_open(void) { return nullptr; }
int gpio_irq_poll(ugpio_t *, int) { return 0; }
void gpio_irq_close(ugpio_t *) {}
// clang-format on

namespace
{

std::string config_changed(int ch)
{
    return "Overlay(" + std::to_string(ch + 1) + ").Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)";
}

TEST(LockPass, DetectionStepOfAnAutomaticChannel)
{
    const std::string d0 = "detect(0) locked", dd0 = "detected(0)=3 locked",
                      mode0 = "SetCaptureMode(0)=2";
    struct Case {
        const char *what;
        int ch;
        int32_t capture_mode, video_type;
        DetectScript chip;
        bool refuse_capture_mode;
        Calls calls;
        uint8_t configured;
        int32_t video_type_after, capture_mode_after;
        uint8_t changed; /* capture mode set: the channel marked and the overlay told */
        // clang-format off
    } const cases[] = {
        /* Not locked yet: the detected type is cleared and the channel saved. */
        {"pending", 1, CM_PAL, VT_AUTO, {VT_720P25, VS_TVI, LS_CONFIRM}, false,
         {"detect(1) locked", "detected(1)=30 locked", "save(1) configured=0 locked"}, 0, VT_AUTO, CM_PAL, 0},
        /* Everything a lock sets off happens under the decoder's lock. */
        {"locked, capture mode set", 0, CM_PAL, VT_AUTO, {VT_1080P25, VS_AHD, LS_LOCKED}, false,
         {d0, dd0, mode0, "set_video_standard(0) 1,3,1,1 configured=1 locked", "video_type(0) locked",
          "input_type(0)=3 locked", "CaptureFrequency(0)=50Hz", "event(0)=1 locked", "save(0) configured=1 locked"},
         1, VT_1080P25, CM_1080P, 1},
        {"capture mode failed: type taken over, lock not", 0, CM_PAL, VT_AUTO, {VT_1080P25, VS_AHD, LS_LOCKED},
         true, {d0, dd0, mode0, "save(0) configured=0 locked"}, 0, VT_1080P25, CM_PAL, 0},
        /* VT_UNKNOWN's capture mode is the channel's: only the type is in the way. */
        {"type not valid", 3, CM_PAL, VT_PAL, {VT_UNKNOWN, VS_CVBS, LS_LOCKED}, false,
         {"detect(3) locked", "detected(3)=32 locked", "save(3) configured=0 locked"}, 0, VT_PAL, CM_PAL, 0},
    };
    // clang-format on
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TestDecoder t;
        t.set(c.ch, 1, c.video_type, c.capture_mode);
        t.detect[c.ch] = c.chip;
        fake::refuse_capture_mode = c.refuse_capture_mode;
        update_video_lock(&t.dec);
        EXPECT_EQ(journal_take(), c.calls);
        EXPECT_EQ(t.ch[c.ch].configured, c.configured);
        EXPECT_EQ(t.ch[c.ch].video_type, c.video_type_after);
        EXPECT_EQ(t.ch[c.ch].capture_mode, c.capture_mode_after);
        EXPECT_EQ(t.ch[c.ch].capture_mode_changed, c.changed);
        overlay_evaluate(t.dec.overlay);
        EXPECT_EQ(journal_matching(config_changed(c.ch)).size(), c.changed);
    }
}

TEST(LockPass, FixedChannelIsAppliedOnceWithoutTheLockAndOthersAreLeftAlone)
{
    TestDecoder t;
    t.set(0, 0, VT_DISABLED, CM_QHD); /* with a capture mode that differs */
    t.set(1, 0, VT_NTSC, CM_PAL);
    t.set(2, 1, VT_PAL, CM_PAL);
    t.ch[2].configured = 1; /* an automatic channel already applied */
    t.set(3, 0, VT_720P25, CM_PAL);
    fake::bus_set_call_hook([] {
        if (journal_matching("SetCaptureMode(3)").size() == 1)
            fake::refuse_capture_mode = true;
    });
    update_video_lock(&t.dec);
    EXPECT_EQ(journal_take(), (Calls{"video_type(1) unlocked", "input_type(1)=9 unlocked",
                                     "CaptureFrequency(1)=60Hz", "SetCaptureMode(1)=1",
                                     "video_type(3) unlocked", "input_type(3)=5 unlocked",
                                     "CaptureFrequency(3)=50Hz", "SetCaptureMode(3)=3"}));
    const int32_t modes[] = {CM_QHD, CM_NTSC, CM_PAL, CM_PAL};
    const uint8_t configured[] = {0, 1, 1, 1}, changed[] = {0, 1, 0, 0};
    overlay_evaluate(t.dec.overlay);
    for (int i = 0; i < MAX_SOURCES; i++) {
        EXPECT_EQ(t.ch[i].capture_mode, modes[i]) << i;
        EXPECT_EQ(t.ch[i].configured, configured[i]) << i;
        EXPECT_EQ(t.ch[i].capture_mode_changed, changed[i]) << i;
        EXPECT_EQ(journal_matching(config_changed(i)).size(), changed[i]) << i;
    }
    journal_take();
    update_video_lock(&t.dec);
    EXPECT_THAT(journal_take(), IsEmpty()) << "a failed capture mode is not retried";
}

TEST(StatusPass, VideoNeedsTheChipAndTheCaptureDriverAndOnlyChangesReport)
{
    TestDecoder t;
    for (int i = 0; i < MAX_SOURCES; i++) {
        t.set(i, i == 0, VT_PAL, CM_PAL);
        t.ch[i].configured = 1;
    }
    t.ch[0].detected_type = VT_720P30; /* automatic: its detected type is the lock pass's */
    t.ch[3].capture_mode_changed = 1;  /* its loss is not acted on */
    /* Rows: chip and capture driver per channel, then the calls of two passes. */
    struct Step {
        int32_t chip[MAX_SOURCES];
        int driver[MAX_SOURCES];
        Calls events;
        // clang-format off
    } const steps[] = {
        {{0, 0, 0, 0}, {0, 0, 0, 0}, {}}, /* every channel starts without video */
        {{1, 1, 1, 1}, {0, 0, 0, 0},
         {"event(0)=1", "detected(1)=8", "event(1)=1", "detected(2)=8", "event(2)=1", "detected(3)=8", "event(3)=1"}},
        {{1, 1, 1, 0}, {0, 1, -1, 1}, {"detected(1)=30", "event(1)=0", "detected(2)=30", "event(2)=0"}},
        {{0, 1, 1, 0}, {0, 1, -1, 1}, {"event(0)=0"}},
    };
    // clang-format on
    for (size_t s = 0; s < std::size(steps); s++) {
        for (int i = 0; i < MAX_SOURCES; i++) {
            t.chip_video[i] = steps[s].chip[i];
            t.driver_no_video[i] = steps[s].driver[i];
        }
        t.status_pass();
        t.status_pass();
        Calls got;
        size_t driver_asked = 0;
        for (auto &entry : journal_take()) {
            driver_asked += entry.starts_with("check_no_video");
            EXPECT_THAT(entry, testing::Not(testing::EndsWith(" unlocked")));
            if (entry.starts_with("event") || entry.starts_with("detected"))
                got.push_back(entry.substr(0, entry.find(' ')));
        }
        EXPECT_EQ(got, steps[s].events) << "step " << s;
        EXPECT_EQ(driver_asked, 2u * MAX_SOURCES) << "the capture driver is asked on every pass";
    }
    EXPECT_EQ(t.ch[3].configured, 1);
}

} // namespace
