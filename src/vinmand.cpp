/* vinmand: the video input manager daemon of the encoder. */
#include <csignal>
#include <gio/gio.h>
#include <glib-unix.h>

#include "dbus_binding.h"
#include "decoder.h"
#include "gpio.h"
#include "korvi_log.h"
#include "ptz_ipc.h"
#include "util.h"

#define ENCODER_BUS_NAME "com.korvi.Encoder"
#define ENCODER_OBJECT_PATH "/com/korvi/Encoder"

namespace
{

GMainLoop *main_loop = nullptr;
DbusEncoder *encoder_object = nullptr;
GDBusObjectManagerServer *object_manager = nullptr;
GThread *manager_thread = nullptr;

gboolean on_terminate_signal(gpointer user_data)
{
    korvi_info("%sRecived signal '%s', shutting down.", static_cast<const char *>(user_data));
    if (main_loop != nullptr)
        g_main_loop_quit(main_loop);
    return G_SOURCE_REMOVE;
}

void on_bus_acquired(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
    Decoder *dec = static_cast<Decoder *>(user_data);

    korvi_info("%sConnection open for '%s' on D-Bus message bus.", name);

    encoder_object = encoder_object_new(dec);
    dbus_encoder_set_multi_device_properties(encoder_object, gpio_has_cpuid_bit0() != 0);
    g_autoptr(GError) error = nullptr;
    if (!g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(encoder_object), connection,
                                          ENCODER_OBJECT_PATH, &error))
        korvi_warning("%sFailed to export object '%s' on D-Bus message bus : %s",
                      ENCODER_OBJECT_PATH, error->message);

    object_manager = g_dbus_object_manager_server_new(ENCODER_OBJECT_PATH);
    export_video_objects(dec, object_manager);
    g_dbus_object_manager_server_set_connection(object_manager, connection);

    manager_thread = manager_thread_start(dec);
    if (manager_thread == nullptr) {
        korvi_error("%sCannot create the manager thread.");
        g_main_loop_quit(main_loop);
    }
}

void on_name_acquired(GDBusConnection *, const gchar *name, gpointer)
{
    korvi_info("%sAcquired '%s' on D-Bus message bus.", name);
}

void on_name_lost(GDBusConnection *connection, const gchar *name, gpointer)
{
    if (connection == nullptr) {
        korvi_error("%sCould not connect to the D-Bus message bus.");
        return;
    }
    korvi_error("%sCould not acquire '%s' on D-Bus message bus.", name);
    if (encoder_object != nullptr)
        g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(encoder_object));
}

bool ignore_signals(void)
{
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    action.sa_flags = 0;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGHUP);
    sigaddset(&action.sa_mask, SIGPIPE);
    return sigaction(SIGHUP, &action, nullptr) == 0 && sigaction(SIGPIPE, &action, nullptr) == 0;
}

void release_bus_objects(Decoder *dec)
{
    if (object_manager != nullptr) {
        unexport_video_objects(dec, object_manager);
        g_dbus_object_manager_server_set_connection(object_manager, nullptr);
        g_clear_object(&object_manager);
    }
    if (encoder_object != nullptr) {
        g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(encoder_object));
        g_clear_object(&encoder_object);
    }
}

int release_exit(Decoder *dec)
{
    korvi_info("%svinmand cleaning up.");
    decoder_exit(dec);
    korvi_info("%svinmand stopped.");
    korvi_log_cleanup();
    return 0;
}

int short_exit(void)
{
    korvi_info("%svinmand stopped.");
    korvi_log_cleanup();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    korvi_log_syslog(argc, argv);

    if (!ignore_signals()) {
        korvi_error("%sFailed to set up signal handlers.");
        return short_exit();
    }
    g_unix_signal_add(SIGTERM, on_terminate_signal, const_cast<char *>("SIGTERM"));
    g_unix_signal_add(SIGINT, on_terminate_signal, const_cast<char *>("SIGINT"));

    korvi_info("%sStarting vinmand.");

    Decoder *dec = decoder_create();
    if (dec == nullptr) {
        korvi_error("%sNo valid decoder setup.");
        return short_exit();
    }

    GThread *ptz_thread = nullptr;
    if (dec->ops.transmit_ptz != nullptr) {
        ptz_thread = ptz_ipc_create(dec);
        if (ptz_thread == nullptr) {
            korvi_error("%sCannot create the PTZ thread.");
            return release_exit(dec);
        }
    }

    main_loop = g_main_loop_new(nullptr, FALSE);
    guint owner_id =
        g_bus_own_name(G_BUS_TYPE_SYSTEM, ENCODER_BUS_NAME,
                       static_cast<GBusNameOwnerFlags>(G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT |
                                                       G_BUS_NAME_OWNER_FLAGS_REPLACE),
                       on_bus_acquired, on_name_acquired, on_name_lost, dec, nullptr);

    g_main_loop_run(main_loop);

    korvi_info("%svinmand stopping.");
    g_bus_unown_name(owner_id);
    g_main_loop_unref(main_loop);
    main_loop = nullptr;

    manager_thread_stop(manager_thread);
    manager_thread = nullptr;
    ptz_ipc_stop(ptz_thread);

    release_bus_objects(dec);
    return release_exit(dec);
}
