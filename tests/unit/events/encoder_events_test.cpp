/* The events module against a recording stand-in of the event producer
 * library: every call, release and error message is recorded in one sequence
 * (a leak is a missing free, and ASan reports the object), and results are
 * scripted. */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include "encoder_events.h"
#include "event_producer.h"
#include "korvi_log.h"

namespace
{

std::string calls; /* each call or error message followed by "; " */
struct Script {
    bool producer_new_fails = false;
    int failing_declaration = 0; /* the n-th declaration created fails */
    std::string send_error = {}; /* non-empty: sending fails with this message */
} script;

std::string text(const char *s)
{
    return s != nullptr ? s : "-";
}
std::string text(long n)
{
    return std::to_string(n);
}

template <typename... Args>
gboolean record(const char *name, Args... args)
{
    calls += (std::string(name) + ... + (" " + text(args))) + "; ";
    return TRUE;
}

/* The calls that declare channel number n. */
std::string declaration_calls(unsigned n)
{
    return "declaration_new NULL; add_key_value topic0 s:VideoEncoder 4; set_name_space topic0 "
           "tns1; set_nice_names topic0 - Video encoder; add_key_value topic1 s:Connections 4; "
           "set_name_space topic1 tnskorvi; set_nice_names topic1 - Video connected; "
           "add_key_value channel u:" +
           std::to_string(n) +
           " 1; set_nice_names channel Channel -; add_key_tag channel onvif-source; add_key "
           "connected 2; set_nice_names connected Connected -; add_key_tag connected onvif-data; "
           "add_key_tag connected property-state; set_property - - 0; declare; declaration_free; ";
}

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    EXPECT_EQ(guint(level & G_LOG_LEVEL_MASK), guint(KORVI_LOG_LEVEL_ERROR)) << message;
    calls += "error " + std::string(message) + "; ";
}

} // namespace

struct EventProducer {
};
struct EventDeclaration {
    guint32 channel = 0;
};
struct Event {
};

EventProducer *event_producer_new(const gchar *name)
{
    record("producer_new", name);
    return script.producer_new_fails ? nullptr : new EventProducer;
}
void event_producer_free(EventProducer *producer)
{
    delete producer;
    record("producer_free");
}
EventDeclaration *event_declaration_new(GError **error)
{
    record("declaration_new", error ? "error" : "NULL");
    return --script.failing_declaration == 0 ? nullptr : new EventDeclaration;
}
void event_declaration_free(EventDeclaration *declaration)
{
    delete declaration;
    record("declaration_free");
}
gboolean event_declaration_add_key_value(EventDeclaration *declaration, const gchar *key,
                                         gconstpointer value, gint type)
{
    if (type != EVENT_VALUE_TYPE_UINT32)
        return record("add_key_value", key, ("s:" + text(static_cast<const char *>(value))).c_str(),
                      type);
    declaration->channel = *static_cast<const guint32 *>(value);
    return record("add_key_value", key, ("u:" + text(declaration->channel)).c_str(), type);
}
gboolean event_declaration_add_key(EventDeclaration *, const gchar *key, gint type)
{
    return record("add_key", key, type);
}
gboolean event_declaration_set_name_space(EventDeclaration *, const gchar *key, const gchar *ns)
{
    return record("set_name_space", key, ns);
}
gboolean event_declaration_set_nice_names(EventDeclaration *, const gchar *key,
                                          const gchar *key_nice, const gchar *value_nice)
{
    return record("set_nice_names", key, key_nice, value_nice);
}
gboolean event_declaration_add_key_tag(EventDeclaration *, const gchar *key, const gchar *tag)
{
    return record("add_key_tag", key, tag);
}
gboolean event_declaration_set_property(EventDeclaration *, const gchar *source_key,
                                        const gchar *data_key, guint flags)
{
    return record("set_property", source_key, data_key, flags);
}
/* The identifier tells the declaration's channel: 100 + channel. Like the
 * library, no event comes from an identifier that was never given out. */
gint event_producer_declare(EventProducer *, EventDeclaration *declaration)
{
    record("declare");
    return 100 + declaration->channel;
}
Event *event_producer_prepare_event(EventProducer *, gint declaration_id)
{
    record("prepare_event", declaration_id);
    return declaration_id < 100 ? nullptr : new Event;
}
gboolean event_set_value(Event *, const gchar *key, gconstpointer value)
{
    return record("set_value", key, *static_cast<const gboolean *>(value));
}
gboolean event_producer_send_event(EventProducer *, Event *, GError **error)
{
    record("send_event");
    if (script.send_error.empty())
        return TRUE;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, script.send_error.c_str());
    return FALSE;
}
void event_free(Event *event)
{
    delete event;
    record("event_free");
}

class EncoderEventsTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        calls.clear();
        script = {};
        g_log_set_default_handler(capture_log, nullptr);
    }
    void TearDown() override { g_log_set_default_handler(g_log_default_handler, nullptr); }
};

TEST_F(EncoderEventsTest, CreationDeclaresEveryChannelInOrder)
{
    encoder_events_free(encoder_events_create(4));
    EXPECT_EQ(calls, "producer_new vidhostd; " + declaration_calls(1) + declaration_calls(2) +
                         declaration_calls(3) + declaration_calls(4) + "producer_free; ");
    script.producer_new_fails = true;
    EXPECT_EQ(encoder_events_create(4), nullptr);
}

TEST_F(EncoderEventsTest, EachChannelSendsOnItsOwnDeclaration)
{
    script.failing_declaration = 2;
    EncoderEvents *events = encoder_events_create(4);
    ASSERT_NE(events, nullptr);
    EXPECT_EQ(calls, "producer_new vidhostd; " + declaration_calls(1) +
                         "declaration_new NULL; error Failed to declare event for channel 2; " +
                         declaration_calls(3) + declaration_calls(4));
    calls.clear();
    EXPECT_NE(encoder_events_send_video_connected(events, 2, TRUE), 0);
    EXPECT_NE(encoder_events_send_video_connected(events, 0, 7), 0);
    /* The channel whose declaration failed has none to prepare an event from. */
    EXPECT_EQ(encoder_events_send_video_connected(events, 1, TRUE), 0);
    script.send_error = "The name is not activatable";
    EXPECT_EQ(encoder_events_send_video_connected(events, 3, FALSE), 0);
    EXPECT_EQ(calls, "prepare_event 103; set_value connected 1; send_event; event_free; "
                     "prepare_event 101; set_value connected 1; send_event; event_free; "
                     "prepare_event -1; error Failed to create Video Connected event; "
                     "prepare_event 104; set_value connected 0; send_event; error Failed to send "
                     "Video Connected event: The name is not activatable; event_free; ");
    encoder_events_free(events);
}
