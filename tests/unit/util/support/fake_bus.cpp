#include "fake_bus.h"

#include <mutex>
#include <stdexcept>
#include <thread>

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "log_capture.h"

namespace fake
{

std::atomic<bool> refuse_capture_mode{false};
std::atomic<bool> refuse_overlay{false};

namespace
{

constexpr const char *refused = "com.korvi.Test.Error.Refused";

std::mutex mutex;
std::vector<std::string> journal;
int32_t modes[4];
std::function<void()> call_hook;

GTestDBus *test_bus = nullptr;
std::string address;
std::thread server;
std::atomic<bool> stop{false};

void run_hook()
{
    std::function<void()> hook;
    {
        std::lock_guard guard(mutex);
        hook = call_hook;
    }
    if (hook)
        hook();
}

int channel_of(void *userdata)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(userdata));
}

/* CaptureMode, or an empty CaptureFrequency: the frequency is only written. */
int get(sd_bus *, const char *, const char *, const char *property, sd_bus_message *reply,
        void *userdata, sd_bus_error *)
{
    std::lock_guard guard(mutex);
    if (g_str_equal(property, "CaptureFrequency"))
        return sd_bus_message_append(reply, "s", "");
    return sd_bus_message_append(reply, "i", modes[channel_of(userdata)]);
}

int set_frequency(sd_bus *, const char *, const char *, const char *, sd_bus_message *value,
                  void *userdata, sd_bus_error *)
{
    const char *text = nullptr;
    int r = sd_bus_message_read(value, "s", &text);
    if (r >= 0)
        journal_add("CaptureFrequency(" + std::to_string(channel_of(userdata)) + ")=" + text);
    return r;
}

int set_mode(sd_bus_message *message, void *userdata, sd_bus_error *error)
{
    int32_t mode = 0;
    int r = sd_bus_message_read(message, "i", &mode);
    if (r < 0)
        return r;
    journal_add("SetCaptureMode(" + std::to_string(channel_of(userdata)) +
                ")=" + std::to_string(mode));
    run_hook();
    if (refuse_capture_mode)
        return sd_bus_error_set(error, refused, "capture mode refused");
    {
        /* The property reads the mode counted from 1. */
        std::lock_guard guard(mutex);
        modes[channel_of(userdata)] = mode + 1;
    }
    return sd_bus_reply_method_return(message, "");
}

int overlay_call(sd_bus_message *message, void *userdata, sd_bus_error *error)
{
    const bool set = sd_bus_message_is_method_call(message, nullptr, "Set");
    const char *text = nullptr;
    uint32_t priority = 0;
    int r = set ? sd_bus_message_read(message, "su", &text, &priority)
                : sd_bus_message_read(message, "s", &text);
    if (r < 0)
        return r;
    journal_add("Overlay(" + std::to_string(channel_of(userdata)) + ")." +
                (set ? "Set(" : "Unset(") + text + (set ? "," + std::to_string(priority) : "") +
                ")");
    run_hook();
    if (refuse_overlay)
        return sd_bus_error_set(error, refused, "overlay refused");
    return sd_bus_reply_method_return(message, "");
}

const sd_bus_vtable image_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("CaptureMode", "i", get, 0, 0),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable stream_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_WRITABLE_PROPERTY("CaptureFrequency", "s", get, set_frequency, 0, 0),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable mode_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SetCaptureMode", "i", "", set_mode, 0),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable overlay_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Set", "su", "", overlay_call, 0),
    SD_BUS_METHOD("Unset", "s", "", overlay_call, 0),
    SD_BUS_VTABLE_END,
};

/* Connects, takes the names and registers the objects on this thread; the
 * server thread then only serves. */
void start()
{
    test_bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(test_bus);
    address = g_test_dbus_get_bus_address(test_bus);
    sd_bus *bus = nullptr;
    bool ok = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
              sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    for (const char *name :
         {"com.korvi.ImageControl", "com.korvi.CaptureMode1", "com.korvi.PrioritizedTextOverlay"})
        ok = ok && sd_bus_request_name(bus, name, 0) >= 0;
    for (int i = 0; i < 4; i++) {
        auto *data = reinterpret_cast<void *>(intptr_t(i));
        const std::string image = "/com/korvi/ImageControl/" + std::to_string(i) + "/0";
        const std::string mode = "/com/korvi/CaptureMode1/" + std::to_string(i);
        const std::string text = "/com/korvi/PrioritizedTextOverlay/" + std::to_string(i + 1);
        ok = ok &&
             sd_bus_add_object_vtable(bus, nullptr, image.c_str(), "com.korvi.ImageControl",
                                      image_vtable, data) >= 0 &&
             sd_bus_add_object_vtable(bus, nullptr, image.c_str(), "com.korvi.ImageControlStream",
                                      stream_vtable, data) >= 0 &&
             sd_bus_add_object_vtable(bus, nullptr, mode.c_str(), "com.korvi.CaptureMode1.Channel",
                                      mode_vtable, data) >= 0 &&
             sd_bus_add_object_vtable(bus, nullptr, text.c_str(),
                                      "com.korvi.PrioritizedTextOverlay", overlay_vtable,
                                      reinterpret_cast<void *>(intptr_t(i + 1))) >= 0;
    }
    if (!ok) {
        sd_bus_flush_close_unref(bus);
        throw std::runtime_error("the fake services could not start on the private bus");
    }
    server = std::thread([bus] {
        while (!stop) {
            int r = sd_bus_process(bus, nullptr);
            if (r < 0)
                break;
            if (r == 0)
                sd_bus_wait(bus, 100000); /* bounded, so that stop is seen */
        }
        sd_bus_flush_close_unref(bus);
    });
}

class Teardown : public ::testing::Environment
{
    void TearDown() override
    {
        if (test_bus == nullptr)
            return;
        stop = true;
        server.join();
        g_test_dbus_down(test_bus);
        g_clear_object(&test_bus);
    }
};
[[maybe_unused]] ::testing::Environment *const teardown =
    ::testing::AddGlobalTestEnvironment(new Teardown);

} // namespace

void journal_add(std::string entry)
{
    std::lock_guard guard(mutex);
    journal.push_back(std::move(entry));
}

std::vector<std::string> journal_take()
{
    std::lock_guard guard(mutex);
    return std::exchange(journal, {});
}

std::vector<std::string> journal_matching(const std::string &prefix)
{
    std::lock_guard guard(mutex);
    std::vector<std::string> found;
    for (auto &entry : journal)
        if (entry.starts_with(prefix))
            found.push_back(entry);
    return found;
}

void bus_reset()
{
    if (test_bus == nullptr)
        start();
    refuse_capture_mode = false;
    refuse_overlay = false;
    bus_make_unreachable(false);
    {
        std::lock_guard guard(mutex);
        for (auto &mode : modes)
            mode = 1;
        call_hook = nullptr;
        journal.clear();
    }
    log_capture_start();
}

void bus_set_capture_mode(int channel, int32_t mode)
{
    std::lock_guard guard(mutex);
    modes[channel] = mode;
}

void bus_set_call_hook(std::function<void()> hook)
{
    std::lock_guard guard(mutex);
    call_hook = std::move(hook);
}

void bus_make_unreachable(bool unreachable)
{
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS",
             unreachable ? "unix:path=/nonexistent/vinmand-test/bus" : address.c_str(), TRUE);
}

} // namespace fake
