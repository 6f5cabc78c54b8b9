/* A private message bus, the board's services on their own main loop thread,
 * and a client connection that calls them the way the daemon does. */
#pragma once

#include "board_services.h"

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gio/gio.h>
#include <gtest/gtest.h>

namespace vboard::test
{

struct VariantUnref {
    void operator()(GVariant *v) const { g_variant_unref(v); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

struct CallResult {
    VariantPtr value;       /* the reply body, when the call succeeded */
    std::string error_name; /* the D-Bus error name, when it failed */

    bool ok() const { return value != nullptr; }
};

inline constexpr const char *OVERLAY_BUS = "com.korvi.PrioritizedTextOverlay";
inline constexpr const char *IMAGE_BUS = "com.korvi.ImageControl";
inline constexpr const char *CAPTURE_BUS = "com.korvi.CaptureMode1";
inline constexpr const char *EVENT_BUS = "com.korvi.Event1";
inline constexpr const char *VIDEO_BUS = "com.korvi.VideoSystem1";
inline constexpr const char *ERROR_FAILED = "org.freedesktop.DBus.Error.Failed";
inline constexpr const char *ERROR_INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr const char *ERROR_SERVICE_UNKNOWN = "org.freedesktop.DBus.Error.ServiceUnknown";

inline std::string overlay_path(int object) // object 1..4
{
    return "/com/korvi/PrioritizedTextOverlay/" + std::to_string(object);
}
inline std::string image_path(int index)
{
    return "/com/korvi/ImageControl/" + std::to_string(index) + "/0";
}
inline std::string capture_path(int index)
{
    return "/com/korvi/CaptureMode1/" + std::to_string(index);
}

class ServicesTest : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        bus_ = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus_);
    }

    static void TearDownTestSuite()
    {
        g_test_dbus_down(bus_);
        g_object_unref(bus_);
        bus_ = nullptr;
    }

    void SetUp() override
    {
        service_conn_ = connect();
        client_ = connect();
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
    }

    void TearDown() override
    {
        /* Destroyed while the loop thread runs: the teardown is handed to it. */
        services_.reset();
        if (loop_thread_.joinable()) {
            g_main_loop_quit(loop_);
            loop_thread_.join();
        }
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
        for (GDBusConnection *c : {client_, service_conn_}) {
            g_dbus_connection_close_sync(c, nullptr, nullptr);
            g_object_unref(c);
        }
    }

    static GDBusConnection *connect()
    {
        g_autoptr(GError) error = nullptr;
        GDBusConnection *c = g_dbus_connection_new_for_address_sync(
            g_test_dbus_get_bus_address(bus_),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        g_assert_no_error(error);
        return c;
    }

    /* Creates the services (before their loop runs), starts the loop thread
     * and waits until every name is owned. */
    void start(ServicesOptions options = {})
    {
        options.context = context_;
        services_ = std::make_unique<BoardServices>(service_conn_, options);
        loop_thread_ = std::thread([this] { g_main_loop_run(loop_); });
        ASSERT_TRUE(services_->wait_ready(10000));
    }

    CallResult call(const char *bus, const std::string &path, const char *iface, const char *method,
                    GVariant *params, const char *reply_type = nullptr)
    {
        g_autoptr(GError) error = nullptr;
        CallResult r;
        r.value.reset(g_dbus_connection_call_sync(client_, bus, path.c_str(), iface, method, params,
                                                  reply_type ? G_VARIANT_TYPE(reply_type) : nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error));
        if (error != nullptr) {
            g_autofree gchar *name = g_dbus_error_get_remote_error(error);
            r.error_name = name ? name : error->message;
        }
        return r;
    }

    CallResult get_property(const char *bus, const std::string &path, const char *iface,
                            const char *name)
    {
        return call(bus, path, "org.freedesktop.DBus.Properties", "Get",
                    g_variant_new("(ss)", iface, name), "(v)");
    }

    CallResult set_property(const char *bus, const std::string &path, const char *iface,
                            const char *name, GVariant *value)
    {
        return call(bus, path, "org.freedesktop.DBus.Properties", "Set",
                    g_variant_new("(ssv)", iface, name, value));
    }

    /* Unpacks the "(v)" of a property Get. */
    static VariantPtr property_value(const CallResult &r)
    {
        if (!r.ok())
            return nullptr;
        GVariant *v = nullptr;
        g_variant_get(r.value.get(), "(v)", &v);
        return VariantPtr(v);
    }

    int32_t capture_mode_property(int index)
    {
        auto v = property_value(
            get_property(IMAGE_BUS, image_path(index), "com.korvi.ImageControl", "CaptureMode"));
        return v ? g_variant_get_int32(v.get()) : -1000;
    }

    /* Iterates this thread's default context until cond holds or the
     * deadline passes; returns cond's last value. */
    static bool iterate_until(const std::function<bool()> &cond, unsigned timeout_ms = 10000)
    {
        bool expired = false;
        GSource *timer = g_timeout_source_new(timeout_ms);
        g_source_set_callback(
            timer,
            [](gpointer data) -> gboolean {
                *static_cast<bool *>(data) = true;
                return G_SOURCE_REMOVE;
            },
            &expired, nullptr);
        g_source_attach(timer, nullptr);
        /* Wakes the loop now and then for states that change on other threads. */
        GSource *tick = g_timeout_source_new(5);
        g_source_set_callback(
            tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
        g_source_attach(tick, nullptr);
        while (!cond() && !expired)
            g_main_context_iteration(nullptr, TRUE);
        for (GSource *s : {timer, tick}) {
            g_source_destroy(s);
            g_source_unref(s);
        }
        return cond();
    }

    static inline GTestDBus *bus_ = nullptr;
    GDBusConnection *service_conn_ = nullptr;
    GDBusConnection *client_ = nullptr;
    GMainContext *context_ = nullptr;
    GMainLoop *loop_ = nullptr;
    std::thread loop_thread_;
    std::unique_ptr<BoardServices> services_;
};

} // namespace vboard::test
