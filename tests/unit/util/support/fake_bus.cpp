#include "fake_bus.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "log_capture.h"

namespace fake
{

std::atomic<bool> refuse_capture_mode{false}, refuse_overlay{false};

namespace
{

std::mutex mutex;
std::vector<std::string> journal;
std::function<void()> call_hook;
GTestDBus *test_bus = nullptr;
std::thread server;
std::atomic<bool> stop{false};

std::function<void()> current_hook()
{
    std::lock_guard guard(mutex);
    return call_hook;
}

/* Every call to one of the services' objects lands here. */
int serve(sd_bus_message *m, void *, sd_bus_error *)
{
    const char *path = sd_bus_message_get_path(m);
    if (path == nullptr || !sd_bus_message_is_method_call(m, nullptr, nullptr))
        return 0;
    int n = 0, mode = 0;
    unsigned priority = 0;
    const char *iface = nullptr, *property = nullptr, *text = nullptr;
    std::string entry;
    std::atomic<bool> *refuse = nullptr;
    const bool set = sd_bus_message_is_method_call(m, nullptr, "Set");
    if (sscanf(path, "/com/korvi/CaptureMode1/%d", &n) == 1 &&
        sd_bus_message_read(m, "i", &mode) >= 0) {
        entry = "SetCaptureMode(" + std::to_string(n) + ")=" + std::to_string(mode);
        refuse = &refuse_capture_mode;
    } else if (sscanf(path, "/com/korvi/ImageControl/%d/0", &n) == 1 &&
               sd_bus_message_read(m, "ssv", &iface, &property, "s", &text) >= 0) {
        entry = "CaptureFrequency(" + std::to_string(n) + ")=" + text;
    } else if (sscanf(path, "/com/korvi/PrioritizedTextOverlay/%d", &n) == 1 &&
               (set ? sd_bus_message_read(m, "su", &text, &priority)
                    : sd_bus_message_read(m, "s", &text)) >= 0) {
        entry = "Overlay(" + std::to_string(n) + ")." + (set ? "Set(" : "Unset(") + text +
                (set ? "," + std::to_string(priority) : "") + ")";
        refuse = &refuse_overlay;
    } else {
        return 0;
    }
    journal_add(entry);
    if (auto hook = current_hook())
        hook();
    if (refuse != nullptr && *refuse)
        return sd_bus_reply_method_errorf(m, "com.korvi.Test.Error.Refused", "refused");
    return sd_bus_reply_method_return(m, "");
}

void start()
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
    if (!ok) {
        sd_bus_flush_close_unref(bus);
        throw std::runtime_error("the fake services could not start on the private bus");
    }
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
}

struct Teardown : ::testing::Environment {
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
    std::copy_if(journal.begin(), journal.end(), std::back_inserter(found),
                 [&](const std::string &e) { return e.starts_with(prefix); });
    return found;
}

void bus_reset()
{
    if (test_bus == nullptr)
        start();
    refuse_capture_mode = refuse_overlay = false;
    bus_set_call_hook(nullptr);
    journal_take();
    log_capture_start();
}

void bus_set_call_hook(std::function<void()> hook)
{
    std::lock_guard guard(mutex);
    call_hook = std::move(hook);
}

} // namespace fake
