/* Settings of the board's video system.
 *
 * The video system is the service com.korvi.VideoSystem1 on the system bus:
 *   /com/korvi/VideoSystem1           interface com.korvi.VideoSystem1,
 *                                     property Started "b" (read; changes are
 *                                     announced with PropertiesChanged)
 *   /com/korvi/VideoSystem1/Input/N   interface com.korvi.VideoSystem1.Input,
 *                                     SetSettings(a{sv} settings)
 * Settings may only be applied once the video system has started.
 *
 * All three objects are GObjects, released with g_object_unref (g_autoptr
 * works). The system and input objects each hold a reference on the process's
 * shared connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set).
 * Failures are reported through the results and GErrors below; nothing here
 * aborts the process. */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

#define CAPCORE_SERVICE_NAME "com.korvi.VideoSystem1"
#define CAPCORE_SYSTEM_PATH "/com/korvi/VideoSystem1"
#define CAPCORE_SYSTEM_INTERFACE "com.korvi.VideoSystem1"
#define CAPCORE_INPUT_PATH_FORMAT "/com/korvi/VideoSystem1/Input/%u"
#define CAPCORE_INPUT_INTERFACE "com.korvi.VideoSystem1.Input"

/* How long capcore_system_wait_for_started waits unless told otherwise. */
#define CAPCORE_START_TIMEOUT_MS 30000

#define CAPCORE_TYPE_SYSTEM (capcore_system_get_type())
G_DECLARE_FINAL_TYPE(CapcoreSystem, capcore_system, CAPCORE, SYSTEM, GObject)

#define CAPCORE_TYPE_MAP (capcore_map_get_type())
G_DECLARE_FINAL_TYPE(CapcoreMap, capcore_map, CAPCORE, MAP, GObject)

#define CAPCORE_TYPE_INPUT (capcore_input_get_type())
G_DECLARE_FINAL_TYPE(CapcoreInput, capcore_input, CAPCORE, INPUT, GObject)

/* A handle on the video system, or NULL with error set when the system bus
 * can't be reached. */
CapcoreSystem *capcore_system_new(GError **error);
/* Sets how long capcore_system_wait_for_started waits (milliseconds). */
void capcore_system_set_start_timeout(CapcoreSystem *system, guint timeout_ms);
/* Returns TRUE as soon as the video system's Started property is true,
 * waiting for it to become true when it is not yet. FALSE with error set when
 * the service can't be asked or has not started within the time-out
 * (G_IO_ERROR_TIMED_OUT). Blocks the calling thread; runs no other main
 * context than a private one. */
gboolean capcore_system_wait_for_started(CapcoreSystem *system, GError **error);

/* A new, empty settings map. */
CapcoreMap *capcore_map_new(void);
/* Stores the value under the key, replacing an earlier one. */
void capcore_map_set_uint32(CapcoreMap *map, const gchar *key, guint32 value);
/* The settings as an a{sv}, keys in no particular order (a new reference). */
GVariant *capcore_map_to_variant(CapcoreMap *map);

/* The input with the given number, or NULL with error set when the system bus
 * can't be reached. */
CapcoreInput *capcore_input_new(guint index, GError **error);
/* Applies the map's settings to the input (values "u" for uint32). FALSE with
 * error set on failure. */
gboolean capcore_input_set_settings(CapcoreInput *input, CapcoreMap *map, GError **error);

G_END_DECLS
