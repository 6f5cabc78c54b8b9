/* The event producer library against a fake event service on a private bus. */
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>

#include "event_producer.h"
#include "test_bus.h"

namespace
{

const char *EVENT1_XML = R"(<node><interface name="com.korvi.Event1">
  <method name="Declare"><arg direction="in" type="s"/><arg direction="in" type="a{sv}"/>
    <arg direction="out" type="i"/></method>
  <method name="Send"><arg direction="in" type="s"/><arg direction="in" type="i"/>
    <arg direction="in" type="a{sv}"/></method>
</interface></node>)";

class EventProducerTest : public testing::Test
{
  protected:
    static void SetUpTestSuite() { bus = new testbus::PrivateSystemBus(); }
    static void TearDownTestSuite() { delete bus; }

    /* The fake service records each call's parameters as GVariant text. */
    void start_service()
    {
        auto on_method = [this](const gchar *method, GVariant *params,
                                GDBusMethodInvocation *invocation) {
            g_autofree gchar *text = g_variant_print(params, TRUE);
            std::lock_guard lock(mutex);
            received.emplace_back(text);
            if (g_strcmp0(method, "Declare") == 0)
                g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 41));
            else if (fail_sends)
                g_dbus_method_invocation_return_dbus_error(invocation, "com.korvi.Event1.Error",
                                                           "Event queue full");
            else
                g_dbus_method_invocation_return_value(invocation, nullptr);
        };
        service = std::make_unique<testbus::ServiceThread>(
            bus->address(), "com.korvi.Event1",
            std::vector<testbus::ServiceObject>{{"/com/korvi/Event1", EVENT1_XML, on_method, {}}});
    }

    static inline testbus::PrivateSystemBus *bus;
    std::mutex mutex;
    std::vector<std::string> received;
    std::atomic<bool> fail_sends{false};
    std::unique_ptr<testbus::ServiceThread> service;
};

/* The declaration the daemon makes for a channel, less one topic. */
TEST_F(EventProducerTest, DeclarationAndEventsReachTheService)
{
    start_service();
    EventProducer *producer = event_producer_new("vidhostd");
    EventDeclaration *decl = event_declaration_new(nullptr);
    guint32 channel = 3;
    event_declaration_add_key_value(decl, "topic0", "VideoEncoder", EVENT_VALUE_TYPE_STRING);
    event_declaration_set_name_space(decl, "topic0", "tns1");
    event_declaration_set_nice_names(decl, "topic0", nullptr, "Video encoder");
    event_declaration_add_key_value(decl, "channel", &channel, EVENT_VALUE_TYPE_UINT32);
    event_declaration_set_nice_names(decl, "channel", "Channel", nullptr);
    event_declaration_add_key_tag(decl, "channel", "onvif-source");
    event_declaration_add_key(decl, "connected", EVENT_VALUE_TYPE_BOOLEAN);
    event_declaration_add_key_tag(decl, "connected", "onvif-data");
    event_declaration_add_key_tag(decl, "connected", "property-state");
    event_declaration_set_property(decl, nullptr, nullptr, 0);
    gint id = event_producer_declare(producer, decl);
    event_declaration_free(decl);
    ASSERT_EQ(id, 41);

    Event *event = event_producer_prepare_event(producer, id);
    ASSERT_NE(event, nullptr);
    EXPECT_FALSE(event_set_value(event, "channel", &channel)) << "fixed by the declaration";
    /* Any non-zero boolean is true; a later value replaces the earlier one. */
    for (gboolean connected : {5, FALSE}) {
        EXPECT_TRUE(event_set_value(event, "connected", &connected));
        EXPECT_TRUE(event_producer_send_event(producer, event, nullptr));
    }
    event_free(event);
    event_producer_free(producer);

    std::lock_guard lock(mutex);
    EXPECT_EQ(received, (std::vector<std::string>{
                            "('vidhostd', {'keys': <{"
                            "'topic0': <{'type': <uint32 4>, 'value': <'VideoEncoder'>, "
                            "'namespace': <'tns1'>, 'value-nice-name': <'Video encoder'>}>, "
                            "'channel': <{'type': <uint32 1>, 'value': <uint32 3>, "
                            "'key-nice-name': <'Channel'>, 'tags': <['onvif-source']>}>, "
                            "'connected': <{'type': <uint32 2>, "
                            "'tags': <['onvif-data', 'property-state']>}>}>, "
                            "'property': <true>})",
                            "('vidhostd', 41, {'connected': <true>})",
                            "('vidhostd', 41, {'connected': <false>})"}));
}

TEST_F(EventProducerTest, ServiceFailuresAreResults)
{
    EventProducer *producer = event_producer_new("vidhostd");
    EventDeclaration *decl = event_declaration_new(nullptr);
    event_declaration_add_key(decl, "connected", EVENT_VALUE_TYPE_BOOLEAN);
    EXPECT_EQ(event_producer_declare(producer, decl), -1) << "no service yet";

    start_service();
    Event *event = event_producer_prepare_event(producer, event_producer_declare(producer, decl));
    ASSERT_NE(event, nullptr);
    event_declaration_free(decl);
    fail_sends = true;
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(event_producer_send_event(producer, event, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->message, "GDBus.Error:com.korvi.Event1.Error: Event queue full");
    event_free(event);
    event_producer_free(producer);
}

} // namespace
