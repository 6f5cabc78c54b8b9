/* A private message bus that stands in for the system bus, and a thread that
 * serves fake services on it, for the tests of the D-Bus platform layers. */
#pragma once

#include <cstdlib>
#include <functional>
#include <future>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace testbus
{

/* Starts a bus daemon of its own and points DBUS_SYSTEM_BUS_ADDRESS at it.
 * One per process, created before any system bus connection. */
class PrivateSystemBus
{
  public:
    PrivateSystemBus() : bus_(g_test_dbus_new(G_TEST_DBUS_NONE))
    {
        g_test_dbus_up(bus_);
        address_ = g_test_dbus_get_bus_address(bus_);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~PrivateSystemBus()
    {
        g_test_dbus_down(bus_);
        g_object_unref(bus_);
    }
    const std::string &address() const { return address_; }

  private:
    GTestDBus *bus_;
    std::string address_;
};

/* Handlers run on the service thread. A method handler answers the
 * invocation; a property handler returns a new or floating value (it gets the
 * service's connection, e.g. to announce changes). */
struct ServiceObject {
    std::string path;
    std::string introspection_xml; /* a <node> with one interface */
    std::function<void(const gchar *method, GVariant *parameters, GDBusMethodInvocation *)>
        on_method;
    std::function<GVariant *(GDBusConnection *, const gchar *property, GError **)> on_get_property;
};

/* Connects, registers the objects, owns the name and serves until destroyed. */
class ServiceThread
{
  public:
    ServiceThread(const std::string &address, const std::string &bus_name,
                  std::vector<ServiceObject> objects)
        : objects_(std::move(objects)), context_(g_main_context_new()),
          loop_(g_main_loop_new(context_, FALSE))
    {
        thread_ = std::thread([this, address, bus_name] { serve(address, bus_name); });
        ready_.get_future().wait();
    }
    ~ServiceThread()
    {
        g_main_loop_quit(loop_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

  private:
    void serve(const std::string &address, const std::string &bus_name)
    {
        static const GDBusInterfaceVTable vtable = {
            [](GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *method,
               GVariant *parameters, GDBusMethodInvocation *invocation, gpointer object) {
                static_cast<ServiceObject *>(object)->on_method(method, parameters, invocation);
            },
            [](GDBusConnection *connection, const gchar *, const gchar *, const gchar *,
               const gchar *property, GError **error, gpointer object) {
                return static_cast<ServiceObject *>(object)->on_get_property(connection, property,
                                                                             error);
            },
            nullptr,
            {}};
        g_main_context_push_thread_default(context_);
        g_autoptr(GError) error = nullptr;
        auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        g_autoptr(GDBusConnection) connection = g_dbus_connection_new_for_address_sync(
            address.c_str(), flags, nullptr, nullptr, &error);
        for (auto &object : objects_) {
            g_autoptr(GDBusNodeInfo) node =
                g_dbus_node_info_new_for_xml(object.introspection_xml.c_str(), nullptr);
            g_dbus_connection_register_object(connection, object.path.c_str(), node->interfaces[0],
                                              &vtable, &object, nullptr, &error);
        }
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", bus_name.c_str(), 4u), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error ? nullptr : &error);
        EXPECT_EQ(error, nullptr) << error->message;
        ready_.set_value();
        g_main_loop_run(loop_);
        /* Closing drops the name and the objects; dispatch what it leaves. */
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_context_pop_thread_default(context_);
    }

    std::vector<ServiceObject> objects_;
    GMainContext *context_;
    GMainLoop *loop_;
    std::promise<void> ready_;
    std::thread thread_;
};

} // namespace testbus
