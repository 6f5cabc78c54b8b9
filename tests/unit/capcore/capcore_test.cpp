/* The video-system client waiting for the video system to start, against the
 * board's service on a private bus standing in for the system bus. */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "board_services.h"
#include "capcore.h"

namespace
{

using vboard::Service;

/* The result of one wait, and the error's domain and code when it failed. */
std::tuple<bool, GQuark, int> wait(CapcoreSystem *system)
{
    g_autoptr(GError) error = nullptr;
    const bool started = capcore_system_wait_for_started(system, &error);
    EXPECT_EQ(started, error == nullptr);
    return {started, error ? error->domain : 0, error ? error->code : 0};
}

TEST(VideoSystem, WaitsForTheStartOnlyWhileItIsDueAndTellsATimeOutFromAnAbsentService)
{
    GTestDBus *bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus);
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(bus), TRUE);
    /* The layer's shared connection outlives the private bus: it must not take
     * the test process down with it. */
    GDBusConnection *shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    ASSERT_NE(shared, nullptr);
    g_dbus_connection_set_exit_on_close(shared, FALSE);
    GDBusConnection *conn = g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(bus),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    ASSERT_NE(conn, nullptr);
    GMainContext *context = g_main_context_new();
    GMainLoop *loop = g_main_loop_new(context, FALSE);
    vboard::ServicesOptions options;
    options.video_system_started = false;
    options.context = context;
    auto services = std::make_unique<vboard::BoardServices>(conn, options);
    std::thread loop_thread([loop] { g_main_loop_run(loop); });
    ASSERT_TRUE(services->wait_ready(10000));

    g_autoptr(GError) error = nullptr;
    CapcoreSystem *system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr) << error->message;
    capcore_system_set_start_timeout(system, 200);
    EXPECT_EQ(wait(system), std::tuple(false, G_IO_ERROR, int(G_IO_ERROR_TIMED_OUT)));

    /* A start while the caller waits ends the wait. */
    capcore_system_set_start_timeout(system, 20000);
    std::thread starter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        services->set_video_system_started(true);
    });
    EXPECT_EQ(wait(system), std::tuple(true, GQuark(0), 0));
    starter.join();

    /* Started already: one read answers, with no subscription made and dropped. */
    const uint64_t calls = services->status(Service::VideoSystem).calls;
    EXPECT_EQ(wait(system), std::tuple(true, GQuark(0), 0));
    EXPECT_EQ(services->status(Service::VideoSystem).calls, calls + 1);

    services->set_fault(Service::VideoSystem, vboard::Fault::Absent);
    EXPECT_EQ(wait(system), std::tuple(false, G_DBUS_ERROR, int(G_DBUS_ERROR_SERVICE_UNKNOWN)));

    g_object_unref(system);
    g_main_loop_quit(loop);
    loop_thread.join();
    services.reset();
    g_main_loop_unref(loop);
    g_main_context_unref(context);
    g_dbus_connection_close_sync(conn, nullptr, nullptr);
    g_object_unref(conn);
    g_object_unref(shared);
    g_test_dbus_down(bus);
    g_object_unref(bus);
}

} // namespace
