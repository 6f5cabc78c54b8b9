#include "test_bus.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace testbus
{

PrivateSystemBus::PrivateSystemBus()
{
    bus_ = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus_);
    address_ = g_test_dbus_get_bus_address(bus_);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateSystemBus::~PrivateSystemBus()
{
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
}

namespace
{

void on_method_call(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                    const gchar *method, GVariant *parameters, GDBusMethodInvocation *invocation,
                    gpointer user_data)
{
    static_cast<ServiceObject *>(user_data)->on_method(method, parameters, invocation);
}

GVariant *on_get_property(GDBusConnection *connection, const gchar *, const gchar *, const gchar *,
                          const gchar *property, GError **error, gpointer user_data)
{
    auto *object = static_cast<ServiceObject *>(user_data);
    if (!object->on_get_property) {
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "No property %s", property);
        return nullptr;
    }
    return object->on_get_property(connection, property, error);
}

const GDBusInterfaceVTable vtable = {on_method_call, on_get_property, nullptr, {}};

} // namespace

ServiceThread::ServiceThread(const std::string &address, const std::string &bus_name,
                             std::vector<ServiceObject> objects)
    : objects_(std::move(objects))
{
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    thread_ = std::thread([this, address, bus_name] { run(address, bus_name); });
    std::unique_lock lock(mutex_);
    cond_.wait(lock, [this] { return ready_; });
}

void ServiceThread::run(const std::string &address, const std::string &bus_name)
{
    g_main_context_push_thread_default(context_);
    g_autoptr(GError) error = nullptr;
    auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                   G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    connection_ =
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
    if (connection_ != nullptr) {
        for (auto &object : objects_) {
            g_autoptr(GDBusNodeInfo) node =
                g_dbus_node_info_new_for_xml(object.introspection_xml.c_str(), &error);
            if (node == nullptr)
                break;
            guint id = g_dbus_connection_register_object(connection_, object.path.c_str(),
                                                         node->interfaces[0], &vtable, &object,
                                                         nullptr, &error);
            if (id == 0)
                break;
            registrations_.push_back(id);
        }
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", bus_name.c_str(), 4u), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error ? nullptr : &error);
    }
    EXPECT_EQ(error, nullptr) << error->message;
    {
        std::lock_guard lock(mutex_);
        ready_ = true;
    }
    cond_.notify_all();
    g_main_loop_run(loop_);
    for (guint id : registrations_)
        g_dbus_connection_unregister_object(connection_, id);
    if (connection_ != nullptr) {
        g_dbus_connection_close_sync(connection_, nullptr, nullptr);
        g_clear_object(&connection_);
    }
    /* Dispatch what closing left behind before the context goes. */
    while (g_main_context_iteration(context_, FALSE)) {
    }
    g_main_context_pop_thread_default(context_);
}

ServiceThread::~ServiceThread()
{
    g_main_loop_quit(loop_);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
}

} // namespace testbus
