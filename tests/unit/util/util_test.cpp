/* The lock pass and the overlay module against link-time stand-ins for the
 * modules they call, a scripted decoder, and fakes of the capture mode, image
 * control and text overlay services on a private bus in place of the system
 * bus. Every call is journalled, most with " locked" or " unlocked" for whether
 * the decoder's lock was held. */
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include <gio/gio.h>
#include <systemd/sd-bus.h>

#include "cam_no_video.h"
#include "configfile.h"
#include "dbus_binding.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "overlay.h"
#include "tp28xx.h"
#include "util.h"
#include "video_input_type.h"

using Calls = std::vector<std::string>;

struct ugpio_t {
};

namespace
{

/* The journal takes entries from the code under test and the services' thread. */
std::mutex mutex;
Calls journal;
std::function<void()> call_hook;          /* runs inside every call, before the answer */
std::atomic<int> refuse_capture_mode{-1}; /* answered with an error: this channel's */
std::atomic<bool> refuse_overlay{false};  /* and every overlay call */
GTestDBus *test_bus = nullptr;
std::thread server;
std::atomic<bool> stop{false};

void journal_add(std::string entry)
{
    std::lock_guard guard(mutex);
    journal.push_back(std::move(entry));
}

Calls journal_take()
{
    std::lock_guard guard(mutex);
    return std::exchange(journal, {});
}

void set_call_hook(std::function<void()> hook)
{
    std::lock_guard guard(mutex);
    call_hook = std::move(hook);
}

/* The services journal "SetCaptureMode(<channel>)=<argument>",
 * "CaptureFrequency(<channel>)=<text>", "Overlay(<object>).Set(<text>,<priority>)" and
 * "Overlay(<object>).Unset(<text>)". */
int serve(sd_bus_message *m, void *, sd_bus_error *)
{
    const char *path = sd_bus_message_get_path(m), *text = nullptr;
    if (path == nullptr || !sd_bus_message_is_method_call(m, nullptr, nullptr))
        return 0;
    int n = 0, mode = 0;
    unsigned priority = 0;
    std::string entry;
    bool refuse = false;
    const bool set = sd_bus_message_is_method_call(m, nullptr, "Set");
    if (sscanf(path, "/com/korvi/CaptureMode1/%d", &n) == 1 &&
        sd_bus_message_read(m, "i", &mode) >= 0) {
        entry = "SetCaptureMode(" + std::to_string(n) + ")=" + std::to_string(mode);
        refuse = refuse_capture_mode == n;
    } else if (sscanf(path, "/com/korvi/ImageControl/%d/0", &n) == 1 &&
               sd_bus_message_read(m, "ssv", nullptr, nullptr, "s", &text) >= 0) {
        entry = "CaptureFrequency(" + std::to_string(n) + ")=" + text;
    } else if (sscanf(path, "/com/korvi/PrioritizedTextOverlay/%d", &n) == 1 &&
               (set ? sd_bus_message_read(m, "su", &text, &priority)
                    : sd_bus_message_read(m, "s", &text)) >= 0) {
        entry = "Overlay(" + std::to_string(n) + ")." + (set ? "Set(" : "Unset(") + text +
                (set ? "," + std::to_string(priority) : "") + ")";
        refuse = refuse_overlay;
    } else {
        return 0;
    }
    journal_add(entry);
    std::unique_lock guard(mutex);
    auto hook = call_hook;
    guard.unlock();
    if (hook)
        hook();
    if (refuse)
        return sd_bus_reply_method_errorf(m, "com.korvi.Test.Error.Refused", "refused");
    return sd_bus_reply_method_return(m, "");
}

void start_bus()
{
    test_bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(test_bus);
    const char *address = g_test_dbus_get_bus_address(test_bus);
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address, TRUE);
    sd_bus *bus = nullptr;
    bool ok = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address) >= 0 &&
              sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
              sd_bus_add_filter(bus, nullptr, serve, nullptr) >= 0;
    for (const char *name :
         {"com.korvi.ImageControl", "com.korvi.CaptureMode1", "com.korvi.PrioritizedTextOverlay"})
        ok = ok && sd_bus_request_name(bus, name, 0) >= 0;
    g_assert_true(ok);
    server = std::thread([bus] {
        while (!stop) {
            const int r = sd_bus_process(bus, nullptr);
            if (r < 0)
                break;
            if (r == 0)
                sd_bus_wait(bus, 100000); /* bounded, so that stop is seen */
        }
        sd_bus_flush_close_unref(bus);
    });
    std::atexit([] {
        stop = true;
        server.join();
        g_test_dbus_down(test_bus);
        g_clear_object(&test_bus);
    });
}

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

    Decoder dec{};
    Channel ch[MAX_SOURCES]{};
    DetectState states[MAX_SOURCES]{};
    GMutex lock;
    DetectScript detect[MAX_SOURCES]{};
} *td = nullptr;

void add(const std::string &what, const Channel *c, const std::string &rest = "")
{
    const bool held = !g_mutex_trylock(&td->lock);
    if (!held)
        g_mutex_unlock(&td->lock);
    journal_add(what + "(" + std::to_string(c->index) + ")" + rest +
                (held ? " locked" : " unlocked"));
}

TestDecoder::TestDecoder()
{
    td = this;
    if (test_bus == nullptr)
        start_bus();
    refuse_capture_mode = -1;
    refuse_overlay = false;
    set_call_hook(nullptr);
    journal_take();
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
        g_autofree gchar *args =
            g_strdup_printf(" %d,%d,%d,%d configured=%d", s, t, a, in, c->configured);
        add("set_video_standard", c, args);
        return 0;
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
/* The manager thread and the status pass are not run here; these only complete the link. */
int check_no_video(int32_t) { return 1; }
void decoder_enable_irq(Decoder *) {}
ugpio_t *gpio_irq_open(void) { return nullptr; }
int gpio_irq_poll(ugpio_t *, int) { return 0; }
void gpio_irq_close(ugpio_t *) {}
// clang-format on

namespace
{

/* Per channel: configured, capture mode, and whether its capture mode was
 * changed, which marks the channel and shows the overlay's text. */
void expect_channels(TestDecoder &t, std::array<int, MAX_SOURCES> configured,
                     std::array<int, MAX_SOURCES> mode, std::array<int, MAX_SOURCES> changed)
{
    overlay_evaluate(t.dec.overlay);
    const Calls shown = journal_take();
    for (int i = 0; i < MAX_SOURCES; i++) {
        EXPECT_EQ(t.ch[i].configured, configured[i]) << i;
        EXPECT_EQ(t.ch[i].capture_mode, mode[i]) << i;
        EXPECT_EQ(t.ch[i].capture_mode_changed, changed[i]) << i;
        const auto text =
            "Overlay(" + std::to_string(i + 1) + ").Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)";
        EXPECT_EQ(std::count(shown.begin(), shown.end(), text), changed[i]) << i;
    }
}

TEST(LockPass, AutomaticChannelsDetectUnderTheLockAndFixedOnesApplyWithoutIt)
{
    TestDecoder t;
    t.set(0, 1, VT_AUTO, CM_PAL);
    t.detect[0] = {VT_1080P25, VS_AHD, LS_LOCKED};
    t.set(1, 1, VT_AUTO, CM_PAL);
    t.detect[1] = {VT_720P25, VS_TVI, LS_CONFIRM}; /* not locked yet */
    t.set(2, 0, VT_NTSC, CM_PAL);
    t.set(3, 1, VT_PAL, CM_PAL); /* VT_UNKNOWN keeps the capture mode but can't be used */
    t.detect[3] = {VT_UNKNOWN, VS_CVBS, LS_LOCKED};
    update_video_lock(&t.dec);
    // clang-format off
    EXPECT_EQ(journal_take(), (Calls{
        "detect(0) locked", "detected(0)=3 locked", "SetCaptureMode(0)=2", "set_video_standard(0) 1,3,1,1 configured=1 locked",
        "video_type(0) locked", "input_type(0)=3 locked", "CaptureFrequency(0)=50Hz", "event(0)=1 locked", "save(0) configured=1 locked",
        "detect(1) locked", "detected(1)=30 locked", "save(1) configured=0 locked",
        "video_type(2) unlocked", "input_type(2)=9 unlocked", "CaptureFrequency(2)=60Hz", "SetCaptureMode(2)=1",
        "detect(3) locked", "detected(3)=32 locked", "save(3) configured=0 locked"}));
    // clang-format on
    expect_channels(t, {1, 0, 1, 0}, {CM_1080P, CM_PAL, CM_NTSC, CM_PAL}, {1, 0, 1, 0});
    EXPECT_EQ(t.ch[0].video_type, VT_1080P25);
    EXPECT_EQ(t.ch[3].video_type, VT_PAL);
}

TEST(LockPass, FixedChannelIsAppliedOnceEvenWhenItsCaptureModeIsRefused)
{
    TestDecoder t;
    t.set(0, 0, VT_DISABLED, CM_QHD); /* left alone, though its capture mode differs */
    t.set(1, 0, VT_720P25, CM_PAL);
    t.set(2, 1, VT_PAL, CM_PAL);
    t.ch[2].configured = 1; /* an automatic channel already applied */
    refuse_capture_mode = 1;
    update_video_lock(&t.dec);
    EXPECT_EQ(journal_take(), (Calls{"video_type(1) unlocked", "input_type(1)=5 unlocked",
                                     "CaptureFrequency(1)=50Hz", "SetCaptureMode(1)=3"}));
    expect_channels(t, {0, 1, 1, 0}, {CM_QHD, CM_PAL, CM_PAL, CM_PAL}, {0, 0, 0, 0});
    update_video_lock(&t.dec);
    EXPECT_EQ(journal_take(), Calls{}) << "a failed capture mode is not retried";
}

Calls evaluate(OverlayHandler *o_h)
{
    overlay_evaluate(o_h);
    return journal_take();
}
std::string at(int object, const char *call)
{
    return "Overlay(" + std::to_string(object) + ")." + call;
}
const char *const loss = "Set(VIDEO_LOSS,0)", *const back = "Unset(VIDEO_LOSS)",
                  *const changed = "Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)";

TEST(Overlay, EachEvaluationShowsOnlyWhatChangedInChannelOrderAndNothingIsRetried)
{
    TestDecoder t;
    OverlayHandler *o_h = t.dec.overlay;
    /* Every channel starts without video: the setter answers 1 for no change. */
    EXPECT_EQ(overlay_set_no_video(o_h, 1, 1), 1);
    struct Step {
        std::vector<std::pair<uint32_t, int>> no_video;
        std::vector<uint32_t> config_changed;
        Calls calls;
        bool refused = false;
    } const steps[] = {
        {{{0, 0}, {2, 0}}, {3, 0}, {at(1, changed), at(2, loss), at(4, changed)}},
        {{{1, 0}}, {}, {at(2, back)}},
        {{{2, 7}}, {}, {at(3, loss)}}, /* any non-zero state is no video */
        {{{2, 0}}, {}, {at(3, back)}},
        {{{2, 1}, {2, 0}}, {}, {}}, /* lost and back between two evaluations */
        {{{1, 1}}, {}, {at(2, loss)}},
        /* A configuration change wins over returning video, leaves the loss
         * text as it is for good, and is shown only once. */
        {{{1, 0}}, {1}, {at(2, changed)}},
        {{{0, 1}, {1, 1}}, {0}, {}},
        {{{2, 1}}, {}, {at(3, loss)}, true}, /* refused, and not made again */
        {{}, {}, {}},
    };
    for (size_t i = 0; i < std::size(steps); i++) {
        for (auto [ch, state] : steps[i].no_video)
            EXPECT_EQ(overlay_set_no_video(o_h, ch, state), 0) << "step " << i;
        for (auto ch : steps[i].config_changed)
            overlay_set_config_changed(o_h, ch);
        refuse_overlay = steps[i].refused;
        EXPECT_EQ(evaluate(o_h), steps[i].calls) << "step " << i;
    }
}

TEST(Overlay, MutexIsFreeWhileTheServiceIsCalled)
{
    TestDecoder t;
    OverlayHandler *o_h = t.dec.overlay;
    /* The service's handler waits for another thread to record a state: with
     * the mutex held across the call, that wait would run out. */
    for (uint32_t i = 1; i < 4; i++)
        overlay_set_no_video(o_h, i, 0);
    std::promise<void> recorded;
    std::mutex m; /* orders the hook's writes before the reads below */
    std::thread recorder;
    bool in_time = false;
    set_call_hook([&] {
        std::lock_guard guard(m);
        recorder = std::thread([&] {
            overlay_set_no_video(o_h, 3, 1);
            recorded.set_value();
        });
        in_time =
            recorded.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    });
    EXPECT_EQ(evaluate(o_h), (Calls{at(1, loss)}));
    set_call_hook(nullptr);
    std::lock_guard guard(m);
    recorder.join();
    EXPECT_TRUE(in_time);
    EXPECT_EQ(evaluate(o_h), (Calls{at(4, loss)}));
}

} // namespace
