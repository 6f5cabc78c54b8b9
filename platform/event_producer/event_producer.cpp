#include "event_producer.h"

#include <gio/gio.h>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace
{

struct VariantUnref {
    void operator()(GVariant *v) const { g_variant_unref(v); }
};
/* Owns one reference of a (sunk) variant. */
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

VariantPtr take(GVariant *v)
{
    return VariantPtr(g_variant_ref_sink(v));
}

struct KeyDeclaration {
    std::string name;
    gint type = 0;
    VariantPtr value; /* the fixed value, if any */
    std::optional<std::string> name_space;
    std::optional<std::string> key_nice_name;
    std::optional<std::string> value_nice_name;
    std::vector<std::string> tags;
};

/* What the producer keeps of a declared key. */
struct KeyType {
    gint type = 0;
    bool fixed = false;
};
using KeyTypes = std::map<std::string, KeyType>;

bool known_type(gint type)
{
    return type == EVENT_VALUE_TYPE_UINT32 || type == EVENT_VALUE_TYPE_BOOLEAN ||
           type == EVENT_VALUE_TYPE_STRING;
}

/* The value as a variant of the type's D-Bus type, nullptr when it can't be. */
VariantPtr make_value(gconstpointer value, gint type)
{
    if (value == nullptr)
        return nullptr;
    switch (type) {
    case EVENT_VALUE_TYPE_UINT32:
        return take(g_variant_new_uint32(*static_cast<const guint32 *>(value)));
    case EVENT_VALUE_TYPE_BOOLEAN:
        return take(g_variant_new_boolean(*static_cast<const gboolean *>(value) != 0));
    case EVENT_VALUE_TYPE_STRING: {
        const auto *text = static_cast<const gchar *>(value);
        if (!g_utf8_validate(text, -1, nullptr))
            return nullptr;
        return take(g_variant_new_string(text));
    }
    default:
        return nullptr;
    }
}

struct ConnectionDeleter {
    void operator()(GDBusConnection *connection) const { g_object_unref(connection); }
};
using ConnectionPtr = std::unique_ptr<GDBusConnection, ConnectionDeleter>;

/* Calls go over the process's shared connection to the system bus, the one
 * the daemon's own service is on, rather than a private one each: a private
 * connection costs a connect and an authentication for every event, and each
 * one closed leaves a little of GLib's worker state behind, which adds up over
 * months of cameras coming and going. */
ConnectionPtr open_system_bus(GError **error)
{
    return ConnectionPtr(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
}

/* One call to the event service; the reply or nullptr with error set. */
VariantPtr call_service(const gchar *method, GVariant *parameters, const GVariantType *reply_type,
                        GError **error)
{
    VariantPtr params = take(parameters);
    ConnectionPtr connection = open_system_bus(error);
    if (!connection)
        return nullptr;
    GVariant *reply = g_dbus_connection_call_sync(
        connection.get(), EVENT_SERVICE_NAME, EVENT_SERVICE_PATH, EVENT_SERVICE_INTERFACE, method,
        params.get(), reply_type, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);
    return VariantPtr(reply);
}

} // namespace

struct EventProducer {
    std::string name;
    std::map<gint, KeyTypes> declarations;
};

struct EventDeclaration {
    std::vector<KeyDeclaration> keys;
    bool property = false;
    std::optional<std::string> property_source;
    std::optional<std::string> property_data;

    KeyDeclaration *find(const gchar *key)
    {
        if (key == nullptr)
            return nullptr;
        for (auto &k : keys)
            if (k.name == key)
                return &k;
        return nullptr;
    }
};

struct Event {
    gint id = -1;
    KeyTypes types;
    std::vector<std::pair<std::string, VariantPtr>> values;
};

EventProducer *event_producer_new(const gchar *name)
{
    if (name == nullptr || *name == '\0' || !g_utf8_validate(name, -1, nullptr))
        return nullptr;
    auto *producer = new (std::nothrow) EventProducer;
    if (producer != nullptr)
        producer->name = name;
    return producer;
}

void event_producer_free(EventProducer *producer)
{
    delete producer;
}

EventDeclaration *event_declaration_new(GError **error)
{
    auto *declaration = new (std::nothrow) EventDeclaration;
    if (declaration == nullptr)
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "Out of memory");
    return declaration;
}

void event_declaration_free(EventDeclaration *declaration)
{
    delete declaration;
}

static gboolean add_key(EventDeclaration *declaration, const gchar *key, gint value_type,
                        VariantPtr value)
{
    if (declaration == nullptr || key == nullptr || *key == '\0' ||
        !g_utf8_validate(key, -1, nullptr) || !known_type(value_type) ||
        declaration->find(key) != nullptr)
        return FALSE;
    KeyDeclaration k;
    k.name = key;
    k.type = value_type;
    k.value = std::move(value);
    declaration->keys.push_back(std::move(k));
    return TRUE;
}

gboolean event_declaration_add_key_value(EventDeclaration *declaration, const gchar *key,
                                         gconstpointer value, gint value_type)
{
    VariantPtr v = make_value(value, value_type);
    if (!v)
        return FALSE;
    return add_key(declaration, key, value_type, std::move(v));
}

gboolean event_declaration_add_key(EventDeclaration *declaration, const gchar *key, gint value_type)
{
    return add_key(declaration, key, value_type, nullptr);
}

static bool valid_text(const gchar *text)
{
    return text != nullptr && g_utf8_validate(text, -1, nullptr);
}

gboolean event_declaration_set_name_space(EventDeclaration *declaration, const gchar *key,
                                          const gchar *name_space)
{
    KeyDeclaration *k = declaration ? declaration->find(key) : nullptr;
    if (k == nullptr || !valid_text(name_space))
        return FALSE;
    k->name_space = name_space;
    return TRUE;
}

gboolean event_declaration_set_nice_names(EventDeclaration *declaration, const gchar *key,
                                          const gchar *key_nice_name, const gchar *value_nice_name)
{
    KeyDeclaration *k = declaration ? declaration->find(key) : nullptr;
    if (k == nullptr || (key_nice_name != nullptr && !valid_text(key_nice_name)) ||
        (value_nice_name != nullptr && !valid_text(value_nice_name)))
        return FALSE;
    if (key_nice_name != nullptr)
        k->key_nice_name = key_nice_name;
    if (value_nice_name != nullptr)
        k->value_nice_name = value_nice_name;
    return TRUE;
}

gboolean event_declaration_add_key_tag(EventDeclaration *declaration, const gchar *key,
                                       const gchar *tag)
{
    KeyDeclaration *k = declaration ? declaration->find(key) : nullptr;
    if (k == nullptr || !valid_text(tag))
        return FALSE;
    k->tags.emplace_back(tag);
    return TRUE;
}

gboolean event_declaration_set_property(EventDeclaration *declaration, const gchar *source_key,
                                        const gchar *data_key, guint flags)
{
    if (declaration == nullptr || flags != 0)
        return FALSE;
    if ((source_key != nullptr && declaration->find(source_key) == nullptr) ||
        (data_key != nullptr && declaration->find(data_key) == nullptr))
        return FALSE;
    declaration->property = true;
    if (source_key != nullptr)
        declaration->property_source = source_key;
    if (data_key != nullptr)
        declaration->property_data = data_key;
    return TRUE;
}

/* The declaration a{sv} described in the header. */
static GVariant *declaration_to_variant(const EventDeclaration *declaration)
{
    GVariantBuilder keys;
    g_variant_builder_init(&keys, G_VARIANT_TYPE_VARDICT);
    for (const auto &k : declaration->keys) {
        GVariantBuilder entry;
        g_variant_builder_init(&entry, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&entry, "{sv}", "type",
                              g_variant_new_uint32(static_cast<guint32>(k.type)));
        if (k.value)
            g_variant_builder_add(&entry, "{sv}", "value", k.value.get());
        if (k.name_space)
            g_variant_builder_add(&entry, "{sv}", "namespace",
                                  g_variant_new_string(k.name_space->c_str()));
        if (k.key_nice_name)
            g_variant_builder_add(&entry, "{sv}", "key-nice-name",
                                  g_variant_new_string(k.key_nice_name->c_str()));
        if (k.value_nice_name)
            g_variant_builder_add(&entry, "{sv}", "value-nice-name",
                                  g_variant_new_string(k.value_nice_name->c_str()));
        if (!k.tags.empty()) {
            GVariantBuilder tags;
            g_variant_builder_init(&tags, G_VARIANT_TYPE_STRING_ARRAY);
            for (const auto &tag : k.tags)
                g_variant_builder_add(&tags, "s", tag.c_str());
            g_variant_builder_add(&entry, "{sv}", "tags", g_variant_builder_end(&tags));
        }
        g_variant_builder_add(&keys, "{sv}", k.name.c_str(), g_variant_builder_end(&entry));
    }

    GVariantBuilder top;
    g_variant_builder_init(&top, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&top, "{sv}", "keys", g_variant_builder_end(&keys));
    if (declaration->property) {
        g_variant_builder_add(&top, "{sv}", "property", g_variant_new_boolean(TRUE));
        if (declaration->property_source)
            g_variant_builder_add(&top, "{sv}", "property-source",
                                  g_variant_new_string(declaration->property_source->c_str()));
        if (declaration->property_data)
            g_variant_builder_add(&top, "{sv}", "property-data",
                                  g_variant_new_string(declaration->property_data->c_str()));
    }
    return g_variant_builder_end(&top);
}

gint event_producer_declare(EventProducer *producer, EventDeclaration *declaration)
{
    if (producer == nullptr || declaration == nullptr)
        return -1;
    g_autoptr(GError) error = nullptr;
    VariantPtr reply = call_service(
        "Declare",
        g_variant_new("(s@a{sv})", producer->name.c_str(), declaration_to_variant(declaration)),
        G_VARIANT_TYPE("(i)"), &error);
    if (!reply) {
        g_warning("Failed to declare an event of %s: %s", producer->name.c_str(), error->message);
        return -1;
    }
    gint id = -1;
    g_variant_get(reply.get(), "(i)", &id);
    if (id < 0) {
        g_warning("The event service gave %s the invalid identifier %d", producer->name.c_str(),
                  id);
        return -1;
    }
    KeyTypes types;
    for (const auto &k : declaration->keys)
        types[k.name] = KeyType{k.type, static_cast<bool>(k.value)};
    producer->declarations[id] = std::move(types);
    return id;
}

Event *event_producer_prepare_event(EventProducer *producer, gint declaration_id)
{
    if (producer == nullptr)
        return nullptr;
    auto it = producer->declarations.find(declaration_id);
    if (it == producer->declarations.end())
        return nullptr;
    auto *event = new (std::nothrow) Event;
    if (event == nullptr)
        return nullptr;
    event->id = declaration_id;
    event->types = it->second;
    return event;
}

gboolean event_set_value(Event *event, const gchar *key, gconstpointer value)
{
    if (event == nullptr || key == nullptr)
        return FALSE;
    auto it = event->types.find(key);
    if (it == event->types.end() || it->second.fixed)
        return FALSE;
    VariantPtr v = make_value(value, it->second.type);
    if (!v)
        return FALSE;
    for (auto &[name, old] : event->values) {
        if (name == key) {
            old = std::move(v);
            return TRUE;
        }
    }
    event->values.emplace_back(key, std::move(v));
    return TRUE;
}

gboolean event_producer_send_event(EventProducer *producer, Event *event, GError **error)
{
    if (producer == nullptr || event == nullptr) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            "No producer or no event to send");
        return FALSE;
    }
    GVariantBuilder values;
    g_variant_builder_init(&values, G_VARIANT_TYPE_VARDICT);
    for (const auto &[name, v] : event->values)
        g_variant_builder_add(&values, "{sv}", name.c_str(), v.get());
    VariantPtr reply =
        call_service("Send", g_variant_new("(sia{sv})", producer->name.c_str(), event->id, &values),
                     G_VARIANT_TYPE_UNIT, error);
    return reply ? TRUE : FALSE;
}

void event_free(Event *event)
{
    delete event;
}
