/* Producing events for the board's event service.
 *
 * A producer (named after the program, e.g. "vidhostd") declares the kinds of
 * event it will send; each declaration lists keys, some with a fixed value and
 * some whose value each event carries. The service answers a declaration with
 * an identifier; events are then prepared from that identifier, given their
 * per-event values and sent.
 *
 * The service is com.korvi.Event1 on the system bus, object /com/korvi/Event1,
 * interface com.korvi.Event1:
 *   Declare(s producer, a{sv} declaration) -> (i id)
 *   Send(s producer, i id, a{sv} values)
 * Declare and Send are calls over the process's shared connection to the
 * system bus (DBUS_SYSTEM_BUS_ADDRESS when set), made when first needed.
 *
 * The declaration a{sv}:
 *   "keys"      a{sv}  one entry per key, in the order the keys were added;
 *                      each key's variant is an a{sv}:
 *       "type"             u   value type code (EVENT_VALUE_TYPE_*)
 *       "value"            v   the fixed value, for keys added with a value:
 *                              "u" for type 1, "b" for type 2, "s" for type 4
 *       "namespace"        s   name space, when set
 *       "key-nice-name"    s   human-readable key name, when set
 *       "value-nice-name"  s   human-readable value name, when set
 *       "tags"             as  tags in the order added, when any
 *   "property"  b      present and true when the declaration is a property
 *                      (stateful) event
 * Example:
 *   {'keys': <{'topic0': <{'type': <uint32 4>, 'value': <'VideoEncoder'>,
 *                           'namespace': <'tns1'>, 'value-nice-name': <'Video encoder'>}>,
 *              'channel': <{'type': <uint32 1>, 'value': <uint32 1>,
 *                           'key-nice-name': <'Channel'>, 'tags': <['onvif-source']>}>,
 *              'connected': <{'type': <uint32 2>, 'key-nice-name': <'Connected'>,
 *                             'tags': <['onvif-data', 'property-state']>}>}>,
 *    'property': <true>}
 *
 * The values a{sv} of Send holds the values set on the event, keyed by key
 * name, each as a variant of the key's type ("u", "b" or "s"), e.g.
 *   {'connected': <true>}
 *
 * Value pointers passed in point to a guint32 (type 1), a gboolean (type 2,
 * sent as true for any non-zero value) or a NUL-terminated string (type 4).
 * Failures are reported by the results below (and GErrors where a function
 * takes one); nothing here aborts the process. */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/* Value type codes. */
#define EVENT_VALUE_TYPE_UINT32 1
#define EVENT_VALUE_TYPE_BOOLEAN 2
#define EVENT_VALUE_TYPE_STRING 4

#define EVENT_SERVICE_NAME "com.korvi.Event1"
#define EVENT_SERVICE_PATH "/com/korvi/Event1"
#define EVENT_SERVICE_INTERFACE "com.korvi.Event1"

typedef struct EventProducer EventProducer;
typedef struct EventDeclaration EventDeclaration;
typedef struct Event Event;

/* A producer with the given name; NULL for a missing or empty name. Connects
 * to nothing yet. */
EventProducer *event_producer_new(const gchar *name);
/* Frees the producer; NULL is ignored. */
void event_producer_free(EventProducer *producer);

/* A new, empty declaration, or NULL with error set. */
EventDeclaration *event_declaration_new(GError **error);
/* Frees the declaration; NULL is ignored. */
void event_declaration_free(EventDeclaration *declaration);

/* Adds a key with a fixed value of the given type. FALSE when the key exists
 * already, the type is unknown or an argument is missing. */
gboolean event_declaration_add_key_value(EventDeclaration *declaration, const gchar *key,
                                         gconstpointer value, gint value_type);
/* Adds a key whose value each event sets. Same failures. */
gboolean event_declaration_add_key(EventDeclaration *declaration, const gchar *key,
                                   gint value_type);
/* The following three fail (FALSE) for a key that was not added. */
gboolean event_declaration_set_name_space(EventDeclaration *declaration, const gchar *key,
                                          const gchar *name_space);
/* Either name may be NULL: that name is left unset. */
gboolean event_declaration_set_nice_names(EventDeclaration *declaration, const gchar *key,
                                          const gchar *key_nice_name, const gchar *value_nice_name);
gboolean event_declaration_add_key_tag(EventDeclaration *declaration, const gchar *key,
                                       const gchar *tag);
/* Marks the declaration as a property (stateful) event: the service keeps the
 * latest values of each such event as the state of what it describes.
 * source_key and data_key may name the key that identifies the source and the
 * key that carries the state; NULL leaves that to the keys' tags
 * ("onvif-source", "property-state"). flags must be 0. FALSE for an unknown
 * key or non-zero flags. Keys named here are sent as "property-source" and
 * "property-data" (s) next to "property". */
gboolean event_declaration_set_property(EventDeclaration *declaration, const gchar *source_key,
                                        const gchar *data_key, guint flags);

/* Registers the declaration with the event service and returns the
 * identifier the service gave it (>= 0), or -1 when the service could not be
 * reached or refused it (logged as a warning). The declaration stays the
 * caller's; the producer keeps a copy of its keys' types. */
gint event_producer_declare(EventProducer *producer, EventDeclaration *declaration);

/* A new event of a declaration this producer declared, or NULL for an unknown
 * identifier (-1 included). */
Event *event_producer_prepare_event(EventProducer *producer, gint declaration_id);
/* Sets the per-event value of a key declared without a fixed value, typed as
 * the declaration says. FALSE for any other key or a missing argument. */
gboolean event_set_value(Event *event, const gchar *key, gconstpointer value);
/* Sends the event. TRUE on success; FALSE with error set on failure. The event
 * stays the caller's and may be sent again. */
gboolean event_producer_send_event(EventProducer *producer, Event *event, GError **error);
/* Frees the event; NULL is ignored. */
void event_free(Event *event);

G_END_DECLS
