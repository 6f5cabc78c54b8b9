#include "fake_services.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "journal.h"

namespace testsupport
{

constexpr int channels = 4;
constexpr const char *failure_name = "com.korvi.Test.Error.Refused";

struct FakeServices::State {
    std::mutex mutex;
    std::condition_variable ready_cv;
    bool ready = false;
    bool failed = false;
    int32_t modes[channels] = {};
    std::string frequencies[channels];
    std::function<void()> overlay_hook;

    GTestDBus *test_bus = nullptr;
    std::string address;
    std::thread thread;
    std::atomic<bool> stop{false};
};

namespace
{

FakeServices::State *state = nullptr;
FakeServices *services = nullptr;

int channel_of(void *userdata)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(userdata));
}

int get_capture_mode(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                     void *userdata, sd_bus_error *)
{
    int32_t mode;
    {
        std::lock_guard guard(state->mutex);
        mode = state->modes[channel_of(userdata)];
    }
    return sd_bus_message_append(reply, "i", mode);
}

int get_capture_frequency(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                          void *userdata, sd_bus_error *)
{
    std::string text;
    {
        std::lock_guard guard(state->mutex);
        text = state->frequencies[channel_of(userdata)];
    }
    return sd_bus_message_append(reply, "s", text.c_str());
}

int set_capture_frequency(sd_bus *, const char *, const char *, const char *, sd_bus_message *value,
                          void *userdata, sd_bus_error *error)
{
    const char *text = nullptr;
    int r = sd_bus_message_read(value, "s", &text);
    if (r < 0)
        return r;
    const int channel = channel_of(userdata);
    journal_add("CaptureFrequency(" + std::to_string(channel) + ")=" + text);
    if (services->fail_set_capture_frequency)
        return sd_bus_error_set(error, failure_name, "capture frequency refused");
    std::lock_guard guard(state->mutex);
    state->frequencies[channel] = text;
    return 1;
}

int set_capture_mode(sd_bus_message *message, void *userdata, sd_bus_error *error)
{
    int32_t mode = 0;
    int r = sd_bus_message_read(message, "i", &mode);
    if (r < 0)
        return r;
    const int channel = channel_of(userdata);
    journal_add("SetCaptureMode(" + std::to_string(channel) + ")=" + std::to_string(mode));
    if (services->fail_set_capture_mode)
        return sd_bus_error_set(error, failure_name, "capture mode refused");
    {
        /* Coherent with the image control service: the property reads the
         * mode counted from 1. */
        std::lock_guard guard(state->mutex);
        state->modes[channel] = mode + 1;
    }
    return sd_bus_reply_method_return(message, "");
}

int overlay_call(sd_bus_message *message, void *userdata, sd_bus_error *error, bool set)
{
    const char *text = nullptr;
    uint32_t priority = 0;
    int r = set ? sd_bus_message_read(message, "su", &text, &priority)
                : sd_bus_message_read(message, "s", &text);
    if (r < 0)
        return r;
    std::string entry =
        "Overlay(" + std::to_string(channel_of(userdata)) + ")." + (set ? "Set(" : "Unset(") + text;
    if (set)
        entry += "," + std::to_string(priority);
    journal_add(entry + ")");

    std::function<void()> hook;
    {
        std::lock_guard guard(state->mutex);
        hook = state->overlay_hook;
    }
    if (hook)
        hook();
    if (services->fail_overlay)
        return sd_bus_error_set(error, failure_name, "overlay refused");
    return sd_bus_reply_method_return(message, "");
}

int overlay_set(sd_bus_message *message, void *userdata, sd_bus_error *error)
{
    return overlay_call(message, userdata, error, true);
}

int overlay_unset(sd_bus_message *message, void *userdata, sd_bus_error *error)
{
    return overlay_call(message, userdata, error, false);
}

const sd_bus_vtable image_control_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("CaptureMode", "i", get_capture_mode, 0, 0),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable image_control_stream_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_WRITABLE_PROPERTY("CaptureFrequency", "s", get_capture_frequency, set_capture_frequency,
                             0, 0),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable capture_mode_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SetCaptureMode", "i", "", set_capture_mode, 0),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable overlay_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Set", "su", "", overlay_set, 0),
    SD_BUS_METHOD("Unset", "s", "", overlay_unset, 0),
    SD_BUS_VTABLE_END,
};

/* Connects to the private bus, takes the three names, serves until stopped. */
void serve()
{
    sd_bus *bus = nullptr;
    auto fail = [&] {
        sd_bus_flush_close_unref(bus);
        std::lock_guard guard(state->mutex);
        state->failed = true;
        state->ready_cv.notify_all();
    };
    bool ok = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, state->address.c_str()) >= 0 &&
              sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    for (const char *name :
         {"com.korvi.ImageControl", "com.korvi.CaptureMode1", "com.korvi.PrioritizedTextOverlay"})
        ok = ok && sd_bus_request_name(bus, name, 0) >= 0;
    for (intptr_t i = 0; ok && i < channels; i++) {
        auto *data = reinterpret_cast<void *>(i);
        g_autofree gchar *image = g_strdup_printf("/com/korvi/ImageControl/%d/0", int(i));
        g_autofree gchar *capture = g_strdup_printf("/com/korvi/CaptureMode1/%d", int(i));
        g_autofree gchar *overlay =
            g_strdup_printf("/com/korvi/PrioritizedTextOverlay/%d", int(i + 1));
        ok = sd_bus_add_object_vtable(bus, nullptr, image, "com.korvi.ImageControl",
                                      image_control_vtable, data) >= 0 &&
             sd_bus_add_object_vtable(bus, nullptr, image, "com.korvi.ImageControlStream",
                                      image_control_stream_vtable, data) >= 0 &&
             sd_bus_add_object_vtable(bus, nullptr, capture, "com.korvi.CaptureMode1.Channel",
                                      capture_mode_vtable, data) >= 0 &&
             sd_bus_add_object_vtable(bus, nullptr, overlay, "com.korvi.PrioritizedTextOverlay",
                                      overlay_vtable, reinterpret_cast<void *>(i + 1)) >= 0;
    }
    if (!ok) {
        fail();
        return;
    }
    {
        std::lock_guard guard(state->mutex);
        state->ready = true;
        state->ready_cv.notify_all();
    }
    /* The wait is bounded so that a stop request is seen. */
    while (!state->stop) {
        int r = sd_bus_process(bus, nullptr);
        if (r < 0)
            break;
        if (r == 0)
            sd_bus_wait(bus, 100000);
    }
    sd_bus_flush_close_unref(bus);
}

class BusTeardown : public ::testing::Environment
{
  public:
    void TearDown() override
    {
        if (state == nullptr)
            return;
        state->stop = true;
        if (state->thread.joinable())
            state->thread.join();
        if (state->test_bus != nullptr) {
            g_test_dbus_down(state->test_bus);
            g_object_unref(state->test_bus);
        }
        delete state;
        state = nullptr;
        delete services;
        services = nullptr;
    }
};

[[maybe_unused]] ::testing::Environment *const teardown =
    ::testing::AddGlobalTestEnvironment(new BusTeardown);

} // namespace

FakeServices &FakeServices::get()
{
    if (services == nullptr) {
        state = new State;
        services = new FakeServices;
        state->test_bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(state->test_bus);
        state->address = g_test_dbus_get_bus_address(state->test_bus);
        state->thread = std::thread(serve);
        std::unique_lock lock(state->mutex);
        if (!state->ready_cv.wait_for(lock, std::chrono::seconds(20),
                                      [] { return state->ready || state->failed; }) ||
            state->failed)
            throw std::runtime_error("the fake services could not start on the private bus");
    }
    services->reset();
    return *services;
}

void FakeServices::reset(int32_t capture_mode)
{
    fail_set_capture_mode = false;
    fail_set_capture_frequency = false;
    fail_overlay = false;
    make_system_bus_unreachable(false);
    std::lock_guard guard(state->mutex);
    for (int i = 0; i < channels; i++) {
        state->modes[i] = capture_mode;
        state->frequencies[i].clear();
    }
    state->overlay_hook = nullptr;
}

void FakeServices::set_capture_mode(int channel, int32_t mode)
{
    std::lock_guard guard(state->mutex);
    state->modes[channel] = mode;
}

int32_t FakeServices::capture_mode(int channel)
{
    std::lock_guard guard(state->mutex);
    return state->modes[channel];
}

std::string FakeServices::capture_frequency(int channel)
{
    std::lock_guard guard(state->mutex);
    return state->frequencies[channel];
}

void FakeServices::set_overlay_hook(std::function<void()> hook)
{
    std::lock_guard guard(state->mutex);
    state->overlay_hook = std::move(hook);
}

void FakeServices::make_system_bus_unreachable(bool unreachable)
{
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS",
             unreachable ? "unix:path=/nonexistent/vinmand-test/system_bus_socket"
                         : state->address.c_str(),
             TRUE);
}

} // namespace testsupport
