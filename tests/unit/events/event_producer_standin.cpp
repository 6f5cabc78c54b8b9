#include "event_producer_standin.h"

#include <gio/gio.h>

#include "event_producer.h"

struct EventProducer {
    std::string name;
};

struct EventDeclaration {
    unsigned channel = 0;
    std::map<std::string, int> types;
};

struct Event {
    int id;
    int connected = -1;
};

namespace standin
{

std::vector<std::string> calls;
bool producer_new_fails = false;
std::set<int> failing_declarations;
std::map<int, int> declare_results;
std::map<int, unsigned> channel_of_id;
std::set<int> unpreparable_ids;
int send_result = TRUE;
std::string send_error;
std::vector<SentEvent> sent;
int live_producers = 0;
int live_declarations = 0;
int live_events = 0;

namespace
{
int declarations_created = 0;
int declare_calls = 0;

std::string text(const char *s)
{
    return s != nullptr ? s : "-";
}
} // namespace

void reset()
{
    calls.clear();
    producer_new_fails = false;
    failing_declarations.clear();
    declare_results.clear();
    channel_of_id.clear();
    unpreparable_ids.clear();
    send_result = TRUE;
    send_error.clear();
    sent.clear();
    live_producers = live_declarations = live_events = 0;
    declarations_created = declare_calls = 0;
}

std::vector<std::string> calls_starting(const std::string &prefix)
{
    std::vector<std::string> out;
    for (const auto &call : calls)
        if (call.rfind(prefix, 0) == 0)
            out.push_back(call);
    return out;
}

} // namespace standin

using standin::calls;
using standin::text;

EventProducer *event_producer_new(const gchar *name)
{
    calls.push_back("producer_new " + text(name));
    if (standin::producer_new_fails)
        return nullptr;
    standin::live_producers++;
    return new EventProducer{name};
}

void event_producer_free(EventProducer *producer)
{
    calls.push_back("producer_free");
    standin::live_producers--;
    delete producer;
}

EventDeclaration *event_declaration_new(GError **error)
{
    calls.push_back(std::string("declaration_new ") + (error == nullptr ? "NULL" : "error"));
    if (standin::failing_declarations.count(++standin::declarations_created) != 0) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no declaration");
        return nullptr;
    }
    standin::live_declarations++;
    return new EventDeclaration;
}

void event_declaration_free(EventDeclaration *declaration)
{
    calls.push_back("declaration_free");
    standin::live_declarations--;
    delete declaration;
}

gboolean event_declaration_add_key_value(EventDeclaration *declaration, const gchar *key,
                                         gconstpointer value, gint value_type)
{
    std::string shown;
    if (value_type == EVENT_VALUE_TYPE_STRING)
        shown = "s:" + text(static_cast<const char *>(value));
    else if (value_type == EVENT_VALUE_TYPE_UINT32)
        shown = "u:" + std::to_string(*static_cast<const guint32 *>(value));
    else
        shown = "?";
    calls.push_back("add_key_value " + text(key) + " " + shown + " " + std::to_string(value_type));
    if (value_type == EVENT_VALUE_TYPE_UINT32 && g_strcmp0(key, "channel") == 0)
        declaration->channel = *static_cast<const guint32 *>(value);
    declaration->types[key] = value_type;
    return TRUE;
}

gboolean event_declaration_add_key(EventDeclaration *declaration, const gchar *key, gint value_type)
{
    calls.push_back("add_key " + text(key) + " " + std::to_string(value_type));
    declaration->types[key] = value_type;
    return TRUE;
}

gboolean event_declaration_set_name_space(EventDeclaration *, const gchar *key,
                                          const gchar *name_space)
{
    calls.push_back("set_name_space " + text(key) + " " + text(name_space));
    return TRUE;
}

gboolean event_declaration_set_nice_names(EventDeclaration *, const gchar *key,
                                          const gchar *key_nice_name, const gchar *value_nice_name)
{
    calls.push_back("set_nice_names " + text(key) + " " + text(key_nice_name) + " " +
                    text(value_nice_name));
    return TRUE;
}

gboolean event_declaration_add_key_tag(EventDeclaration *, const gchar *key, const gchar *tag)
{
    calls.push_back("add_key_tag " + text(key) + " " + text(tag));
    return TRUE;
}

gboolean event_declaration_set_property(EventDeclaration *, const gchar *source_key,
                                        const gchar *data_key, guint flags)
{
    calls.push_back("set_property " + text(source_key) + " " + text(data_key) + " " +
                    std::to_string(flags));
    return TRUE;
}

gint event_producer_declare(EventProducer *, EventDeclaration *declaration)
{
    calls.push_back("declare");
    int n = ++standin::declare_calls;
    auto it = standin::declare_results.find(n);
    int id = it != standin::declare_results.end() ? it->second : 100 + n;
    standin::channel_of_id[id] = declaration->channel;
    return id;
}

Event *event_producer_prepare_event(EventProducer *, gint declaration_id)
{
    calls.push_back("prepare_event " + std::to_string(declaration_id));
    if (standin::unpreparable_ids.count(declaration_id) != 0)
        return nullptr;
    standin::live_events++;
    return new Event{declaration_id};
}

gboolean event_set_value(Event *event, const gchar *key, gconstpointer value)
{
    int v = *static_cast<const gboolean *>(value);
    calls.push_back("set_value " + text(key) + " " + std::to_string(v));
    if (g_strcmp0(key, "connected") == 0)
        event->connected = v;
    return TRUE;
}

gboolean event_producer_send_event(EventProducer *, Event *event, GError **error)
{
    calls.push_back(std::string("send_event") + (error == nullptr ? " NULL" : ""));
    if (error != nullptr && *error != nullptr)
        calls.push_back("send_event with an error already set");
    standin::sent.push_back({event->id, event->connected});
    if (!standin::send_error.empty())
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, standin::send_error.c_str());
    return standin::send_result;
}

void event_free(Event *event)
{
    calls.push_back("event_free");
    standin::live_events--;
    delete event;
}
