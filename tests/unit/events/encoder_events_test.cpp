/* The events module against a recording stand-in of the event producer
 * library: every call, release and error message lands in one sequence (a
 * leak is a missing free, and ASan reports the object); results are scripted. */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include "encoder_events.h"
#include "event_producer.h"
#include "korvi_log.h"

namespace
{

std::string calls;
int failing_declaration; /* the n-th declaration created fails */

// clang-format off
std::string text(const char *s) { return s != nullptr ? s : "-"; }
std::string text(long n) { return std::to_string(n); }
// clang-format on
template <typename... Args>
gboolean record(const char *name, Args... args)
{
    calls += (std::string(name) + ... + (" " + text(args))) + "; ";
    return TRUE;
}

/* The calls that declare channel number n. */
std::string declaration(unsigned n)
{
    // clang-format off
    return "declaration_new NULL; add_key_value topic0 s:VideoEncoder 4; set_name_space topic0 tns1; "
           "set_nice_names topic0 - Video encoder; add_key_value topic1 s:Connections 4; set_name_space topic1 tnskorvi; "
           "set_nice_names topic1 - Video connected; add_key_value channel u:" + std::to_string(n) + " 1; "
           "set_nice_names channel Channel -; add_key_tag channel onvif-source; add_key connected 2; "
           "set_nice_names connected Connected -; add_key_tag connected onvif-data; add_key_tag connected property-state; "
           "set_property - - 0; declare; declaration_free; ";
    // clang-format on
}

} // namespace

// clang-format off
struct EventProducer {};
struct EventDeclaration { guint32 channel = 0; };
struct Event {};
EventProducer *event_producer_new(const gchar *name) { record("producer_new", name); return new EventProducer; }
void event_producer_free(EventProducer *p) { delete p; record("producer_free"); }
EventDeclaration *event_declaration_new(GError **error)
{
    record("declaration_new", error ? "error" : "NULL");
    return --failing_declaration == 0 ? nullptr : new EventDeclaration;
}
void event_declaration_free(EventDeclaration *d) { delete d; record("declaration_free"); }
gboolean event_declaration_add_key_value(EventDeclaration *d, const gchar *key, gconstpointer value, gint type)
{
    if (type != EVENT_VALUE_TYPE_UINT32)
        return record("add_key_value", key, ("s:" + text(static_cast<const char *>(value))).c_str(), type);
    d->channel = *static_cast<const guint32 *>(value);
    return record("add_key_value", key, ("u:" + text(d->channel)).c_str(), type);
}
gboolean event_declaration_add_key(EventDeclaration *, const gchar *key, gint type) { return record("add_key", key, type); }
gboolean event_declaration_set_name_space(EventDeclaration *, const gchar *key, const gchar *ns) { return record("set_name_space", key, ns); }
gboolean event_declaration_set_nice_names(EventDeclaration *, const gchar *key, const gchar *key_nice, const gchar *value_nice)
{
    return record("set_nice_names", key, key_nice, value_nice);
}
gboolean event_declaration_add_key_tag(EventDeclaration *, const gchar *key, const gchar *tag) { return record("add_key_tag", key, tag); }
gboolean event_declaration_set_property(EventDeclaration *, const gchar *source, const gchar *data, guint flags)
{
    return record("set_property", source, data, flags);
}
/* The identifier tells the declaration's channel: 100 + channel. Like the
 * library, no event comes from an identifier that was never given out. */
gint event_producer_declare(EventProducer *, EventDeclaration *d) { record("declare"); return 100 + d->channel; }
Event *event_producer_prepare_event(EventProducer *, gint id) { record("prepare_event", id); return id < 100 ? nullptr : new Event; }
gboolean event_set_value(Event *, const gchar *key, gconstpointer value) { return record("set_value", key, *static_cast<const gboolean *>(value)); }
gboolean event_producer_send_event(EventProducer *, Event *, GError **) { return record("send_event"); }
void event_free(Event *event) { delete event; record("event_free"); }
// clang-format on

TEST(EncoderEvents, EachChannelDeclaredInOrderAndSentOnItsOwnDeclaration)
{
    g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
            EXPECT_EQ(guint(level & G_LOG_LEVEL_MASK), guint(KORVI_LOG_LEVEL_ERROR)) << message;
            calls += "error " + std::string(message) + "; ";
        },
        nullptr);
    failing_declaration = 2;
    EncoderEvents *events = encoder_events_create(4);
    ASSERT_NE(events, nullptr);
    EXPECT_EQ(calls, "producer_new vidhostd; " + declaration(1) +
                         "declaration_new NULL; error Failed to declare event for channel 2; " +
                         declaration(3) + declaration(4));
    calls.clear();
    /* Each channel sends on its own declaration; the one whose declaration
     * failed has none to prepare an event from. */
    EXPECT_NE(encoder_events_send_video_connected(events, 2, TRUE), 0);
    EXPECT_NE(encoder_events_send_video_connected(events, 0, 7), 0);
    EXPECT_EQ(encoder_events_send_video_connected(events, 1, TRUE), 0);
    encoder_events_free(events);
    EXPECT_EQ(calls, "prepare_event 103; set_value connected 1; send_event; event_free; "
                     "prepare_event 101; set_value connected 1; send_event; event_free; "
                     "prepare_event -1; error Failed to create Video Connected event; "
                     "producer_free; ");

    g_log_set_default_handler(g_log_default_handler, nullptr);
}
