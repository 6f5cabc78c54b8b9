/* A private message bus that stands in for the system bus, and a thread that
 * serves fake services on it, for the tests of the D-Bus platform layers. */
#pragma once

#include <condition_variable>
#include <functional>
#include <gio/gio.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testbus
{

/* Starts a dbus-daemon of its own and points DBUS_SYSTEM_BUS_ADDRESS at it.
 * One per process, created before any system bus connection. */
class PrivateSystemBus
{
  public:
    PrivateSystemBus();
    ~PrivateSystemBus();
    const std::string &address() const { return address_; }

  private:
    GTestDBus *bus_;
    std::string address_;
};

/* Called on the service thread for each method call; the handler must return
 * a reply or an error on the invocation. */
using MethodHandler = std::function<void(const gchar *method, GVariant *parameters,
                                         GDBusMethodInvocation *invocation)>;
/* Called on the service thread for each property read, with the service's
 * connection; returns a new or floating value, nullptr with error set to
 * refuse. */
using PropertyHandler =
    std::function<GVariant *(GDBusConnection *connection, const gchar *property, GError **error)>;

struct ServiceObject {
    std::string path;
    std::string introspection_xml; /* a <node> with one interface */
    MethodHandler on_method;
    PropertyHandler on_get_property;
};

/* Connects to the bus, registers the objects, owns the name and serves until
 * destroyed. */
class ServiceThread
{
  public:
    ServiceThread(const std::string &address, const std::string &bus_name,
                  std::vector<ServiceObject> objects);
    ~ServiceThread();
    /* Emits a signal from the service's connection. */
    void emit_signal(const std::string &path, const std::string &interface, const std::string &name,
                     GVariant *parameters);

  private:
    void run(const std::string &address, const std::string &bus_name);

    std::vector<ServiceObject> objects_;
    GMainContext *context_ = nullptr;
    GMainLoop *loop_ = nullptr;
    GDBusConnection *connection_ = nullptr;
    std::vector<guint> registrations_;
    std::mutex mutex_;
    std::condition_variable cond_;
    bool ready_ = false;
    std::thread thread_;
};

} // namespace testbus
