#include "capcore.h"

namespace
{

/* The handles share the process's connection to the system bus, the one the
 * daemon's own service is on, rather than opening a private one each: the
 * daemon makes a handle for every settings change, and each private
 * connection closed leaves a little of GLib's worker state behind. */
GDBusConnection *open_system_bus(GError **error)
{
    return g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error);
}

} // namespace

/* ---- system ---- */

struct _CapcoreSystem {
    GObject parent_instance;
    GDBusConnection *connection;
    guint start_timeout_ms;
};

G_DEFINE_TYPE(CapcoreSystem, capcore_system, G_TYPE_OBJECT)

static void capcore_system_dispose(GObject *object)
{
    g_clear_object(&CAPCORE_SYSTEM(object)->connection);
    G_OBJECT_CLASS(capcore_system_parent_class)->dispose(object);
}

static void capcore_system_class_init(CapcoreSystemClass *klass)
{
    G_OBJECT_CLASS(klass)->dispose = capcore_system_dispose;
}

static void capcore_system_init(CapcoreSystem *self)
{
    self->start_timeout_ms = CAPCORE_START_TIMEOUT_MS;
}

CapcoreSystem *capcore_system_new(GError **error)
{
    GDBusConnection *connection = open_system_bus(error);
    if (connection == nullptr)
        return nullptr;
    auto *system = static_cast<CapcoreSystem *>(g_object_new(CAPCORE_TYPE_SYSTEM, nullptr));
    system->connection = connection;
    return system;
}

void capcore_system_set_start_timeout(CapcoreSystem *system, guint timeout_ms)
{
    g_return_if_fail(CAPCORE_IS_SYSTEM(system));
    system->start_timeout_ms = timeout_ms;
}

namespace
{

/* Reads Started: 1 or 0, -1 with error set. */
int read_started(GDBusConnection *connection, GError **error)
{
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        connection, CAPCORE_SERVICE_NAME, CAPCORE_SYSTEM_PATH, "org.freedesktop.DBus.Properties",
        "Get", g_variant_new("(ss)", CAPCORE_SYSTEM_INTERFACE, "Started"), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);
    if (reply == nullptr)
        return -1;
    g_autoptr(GVariant) value = nullptr;
    g_variant_get(reply, "(v)", &value);
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
        g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                    "The video system's Started property has type %s, not b",
                    g_variant_get_type_string(value));
        return -1;
    }
    return g_variant_get_boolean(value) ? 1 : 0;
}

struct StartWait {
    bool changed = false;
    bool timed_out = false;
};

void on_properties_changed(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                           const gchar *, GVariant *, gpointer user_data)
{
    static_cast<StartWait *>(user_data)->changed = true;
}

gboolean on_start_timeout(gpointer user_data)
{
    static_cast<StartWait *>(user_data)->timed_out = true;
    return G_SOURCE_REMOVE;
}

} // namespace

gboolean capcore_system_wait_for_started(CapcoreSystem *system, GError **error)
{
    if (!CAPCORE_IS_SYSTEM(system) || system->connection == nullptr) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            "No video system handle");
        return FALSE;
    }

    /* Once the video system runs, which is nearly always, one read answers.
     * Only a system still starting is watched for its change signal: the
     * daemon asks on every change of input type, and every subscription made
     * and dropped leaves some of GLib's bookkeeping behind on the shared
     * connection. */
    int started = read_started(system->connection, error);
    if (started != 0)
        return started == 1;

    /* Signals are delivered on the context that is the thread's default when
     * subscribing: a private one, iterated only here. Started is read again
     * once the subscription is in place, so a start in between is not
     * missed. */
    GMainContext *context = g_main_context_new();
    g_main_context_push_thread_default(context);
    StartWait wait;
    guint subscription = g_dbus_connection_signal_subscribe(
        system->connection, CAPCORE_SERVICE_NAME, "org.freedesktop.DBus.Properties",
        "PropertiesChanged", CAPCORE_SYSTEM_PATH, CAPCORE_SYSTEM_INTERFACE,
        G_DBUS_SIGNAL_FLAGS_NONE, on_properties_changed, &wait, nullptr);
    GSource *timeout = g_timeout_source_new(system->start_timeout_ms);
    g_source_set_callback(timeout, on_start_timeout, &wait, nullptr);
    g_source_attach(timeout, context);

    started = read_started(system->connection, error);
    while (started == 0) {
        g_main_context_iteration(context, TRUE);
        if (wait.changed) {
            wait.changed = false;
            started = read_started(system->connection, error);
        } else if (wait.timed_out) {
            g_set_error(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT,
                        "The video system has not started within %u ms", system->start_timeout_ms);
            started = -1;
        }
    }

    g_source_destroy(timeout);
    g_source_unref(timeout);
    g_dbus_connection_signal_unsubscribe(system->connection, subscription);
    /* Let the unsubscription finish its work on this context before it goes. */
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    return started == 1;
}

/* ---- settings map ---- */

struct _CapcoreMap {
    GObject parent_instance;
    GVariantDict *settings;
};

G_DEFINE_TYPE(CapcoreMap, capcore_map, G_TYPE_OBJECT)

static void capcore_map_finalize(GObject *object)
{
    g_variant_dict_unref(CAPCORE_MAP(object)->settings);
    G_OBJECT_CLASS(capcore_map_parent_class)->finalize(object);
}

static void capcore_map_class_init(CapcoreMapClass *klass)
{
    G_OBJECT_CLASS(klass)->finalize = capcore_map_finalize;
}

static void capcore_map_init(CapcoreMap *self)
{
    self->settings = g_variant_dict_new(nullptr);
}

CapcoreMap *capcore_map_new(void)
{
    return static_cast<CapcoreMap *>(g_object_new(CAPCORE_TYPE_MAP, nullptr));
}

void capcore_map_set_uint32(CapcoreMap *map, const gchar *key, guint32 value)
{
    g_return_if_fail(CAPCORE_IS_MAP(map));
    g_return_if_fail(key != nullptr);
    g_variant_dict_insert_value(map->settings, key, g_variant_new_uint32(value));
}

GVariant *capcore_map_to_variant(CapcoreMap *map)
{
    g_return_val_if_fail(CAPCORE_IS_MAP(map), nullptr);
    /* Ending a dictionary empties it: start a new one from the result. */
    GVariant *settings = g_variant_ref_sink(g_variant_dict_end(map->settings));
    g_variant_dict_unref(map->settings);
    map->settings = g_variant_dict_new(settings);
    return settings;
}

/* ---- input ---- */

struct _CapcoreInput {
    GObject parent_instance;
    GDBusConnection *connection;
    gchar *path;
};

G_DEFINE_TYPE(CapcoreInput, capcore_input, G_TYPE_OBJECT)

static void capcore_input_dispose(GObject *object)
{
    g_clear_object(&CAPCORE_INPUT(object)->connection);
    G_OBJECT_CLASS(capcore_input_parent_class)->dispose(object);
}

static void capcore_input_finalize(GObject *object)
{
    g_free(CAPCORE_INPUT(object)->path);
    G_OBJECT_CLASS(capcore_input_parent_class)->finalize(object);
}

static void capcore_input_class_init(CapcoreInputClass *klass)
{
    G_OBJECT_CLASS(klass)->dispose = capcore_input_dispose;
    G_OBJECT_CLASS(klass)->finalize = capcore_input_finalize;
}

static void capcore_input_init(CapcoreInput *) {}

CapcoreInput *capcore_input_new(guint index, GError **error)
{
    GDBusConnection *connection = open_system_bus(error);
    if (connection == nullptr)
        return nullptr;
    auto *input = static_cast<CapcoreInput *>(g_object_new(CAPCORE_TYPE_INPUT, nullptr));
    input->connection = connection;
    input->path = g_strdup_printf(CAPCORE_INPUT_PATH_FORMAT, index);
    return input;
}

gboolean capcore_input_set_settings(CapcoreInput *input, CapcoreMap *map, GError **error)
{
    if (!CAPCORE_IS_INPUT(input) || input->connection == nullptr || !CAPCORE_IS_MAP(map)) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            "No input or no settings");
        return FALSE;
    }
    g_autoptr(GVariant) settings = capcore_map_to_variant(map);
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        input->connection, CAPCORE_SERVICE_NAME, input->path, CAPCORE_INPUT_INTERFACE,
        "SetSettings", g_variant_new("(@a{sv})", settings), G_VARIANT_TYPE_UNIT,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);
    return reply != nullptr;
}
