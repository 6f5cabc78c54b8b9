/* The event producer library against a fake event service on a private bus. */
#include <gtest/gtest.h>
#include <mutex>

#include "event_producer.h"
#include "test_bus.h"

namespace
{

const char *EVENT1_XML = R"(<node>
  <interface name="com.korvi.Event1">
    <method name="Declare">
      <arg direction="in" type="s" name="producer"/>
      <arg direction="in" type="a{sv}" name="declaration"/>
      <arg direction="out" type="i" name="id"/>
    </method>
    <method name="Send">
      <arg direction="in" type="s" name="producer"/>
      <arg direction="in" type="i" name="id"/>
      <arg direction="in" type="a{sv}" name="values"/>
    </method>
  </interface>
</node>)";

/* What the fake service received, as GVariant text. */
struct Received {
    std::mutex mutex;
    std::vector<std::string> declares; /* the (s a{sv}) parameters */
    std::vector<std::string> sends;    /* the (s i a{sv}) parameters */
    int next_id = 41;
    bool fail_sends = false;
};

testbus::PrivateSystemBus *bus;

class EventProducerTest : public testing::Test
{
  protected:
    static void SetUpTestSuite() { bus = new testbus::PrivateSystemBus(); }
    static void TearDownTestSuite()
    {
        delete bus;
        bus = nullptr;
    }

    void start_service()
    {
        testbus::ServiceObject object;
        object.path = "/com/korvi/Event1";
        object.introspection_xml = EVENT1_XML;
        object.on_method = [this](const gchar *method, GVariant *params,
                                  GDBusMethodInvocation *invocation) {
            g_autofree gchar *text = g_variant_print(params, TRUE);
            std::lock_guard lock(received.mutex);
            if (g_strcmp0(method, "Declare") == 0) {
                received.declares.emplace_back(text);
                g_dbus_method_invocation_return_value(invocation,
                                                      g_variant_new("(i)", received.next_id++));
            } else if (received.fail_sends) {
                g_dbus_method_invocation_return_dbus_error(invocation, "com.korvi.Event1.Error",
                                                           "Event queue full");
            } else {
                received.sends.emplace_back(text);
                g_dbus_method_invocation_return_value(invocation, nullptr);
            }
        };
        service = std::make_unique<testbus::ServiceThread>(bus->address(), "com.korvi.Event1",
                                                           std::vector{object});
    }

    /* The declaration the daemon makes for its channel 3. */
    static EventDeclaration *channel_declaration()
    {
        EventDeclaration *decl = event_declaration_new(nullptr);
        EXPECT_NE(decl, nullptr);
        guint32 channel = 3;
        EXPECT_TRUE(event_declaration_add_key_value(decl, "topic0", "VideoEncoder",
                                                    EVENT_VALUE_TYPE_STRING));
        EXPECT_TRUE(event_declaration_set_name_space(decl, "topic0", "tns1"));
        EXPECT_TRUE(event_declaration_set_nice_names(decl, "topic0", nullptr, "Video encoder"));
        EXPECT_TRUE(
            event_declaration_add_key_value(decl, "channel", &channel, EVENT_VALUE_TYPE_UINT32));
        EXPECT_TRUE(event_declaration_set_nice_names(decl, "channel", "Channel", nullptr));
        EXPECT_TRUE(event_declaration_add_key_tag(decl, "channel", "onvif-source"));
        EXPECT_TRUE(event_declaration_add_key(decl, "connected", EVENT_VALUE_TYPE_BOOLEAN));
        EXPECT_TRUE(event_declaration_add_key_tag(decl, "connected", "onvif-data"));
        EXPECT_TRUE(event_declaration_add_key_tag(decl, "connected", "property-state"));
        EXPECT_TRUE(event_declaration_set_property(decl, nullptr, nullptr, 0));
        return decl;
    }

    Received received;
    std::unique_ptr<testbus::ServiceThread> service;
};

TEST_F(EventProducerTest, DeclarationReachesTheServiceAsDocumented)
{
    start_service();
    EventProducer *producer = event_producer_new("vidhostd");
    ASSERT_NE(producer, nullptr);
    EventDeclaration *decl = channel_declaration();

    EXPECT_EQ(event_producer_declare(producer, decl), 41);
    /* The declaration stays the caller's and can be declared again. */
    EXPECT_EQ(event_producer_declare(producer, decl), 42);
    event_declaration_free(decl);

    std::lock_guard lock(received.mutex);
    ASSERT_EQ(received.declares.size(), 2u);
    EXPECT_EQ(received.declares[0],
              "('vidhostd', {'keys': <{"
              "'topic0': <{'type': <uint32 4>, 'value': <'VideoEncoder'>, "
              "'namespace': <'tns1'>, 'value-nice-name': <'Video encoder'>}>, "
              "'channel': <{'type': <uint32 1>, 'value': <uint32 3>, "
              "'key-nice-name': <'Channel'>, 'tags': <['onvif-source']>}>, "
              "'connected': <{'type': <uint32 2>, "
              "'tags': <['onvif-data', 'property-state']>}>}>, "
              "'property': <true>})");
    EXPECT_EQ(received.declares[1], received.declares[0]);
    event_producer_free(producer);
}

TEST_F(EventProducerTest, EventsCarryTheirValues)
{
    start_service();
    EventProducer *producer = event_producer_new("vidhostd");
    EventDeclaration *decl = channel_declaration();
    gint id = event_producer_declare(producer, decl);
    event_declaration_free(decl);
    ASSERT_EQ(id, 41);

    Event *event = event_producer_prepare_event(producer, id);
    ASSERT_NE(event, nullptr);
    gboolean connected = TRUE;
    EXPECT_TRUE(event_set_value(event, "connected", &connected));
    g_autoptr(GError) error = nullptr;
    EXPECT_TRUE(event_producer_send_event(producer, event, &error));
    EXPECT_EQ(error, nullptr);
    /* Any non-zero boolean is true; a later value replaces the earlier one. */
    connected = 5;
    EXPECT_TRUE(event_set_value(event, "connected", &connected));
    EXPECT_TRUE(event_producer_send_event(producer, event, nullptr));
    connected = FALSE;
    EXPECT_TRUE(event_set_value(event, "connected", &connected));
    EXPECT_TRUE(event_producer_send_event(producer, event, nullptr));
    event_free(event);

    /* An event with no value set sends an empty dictionary. */
    event = event_producer_prepare_event(producer, id);
    EXPECT_TRUE(event_producer_send_event(producer, event, nullptr));
    event_free(event);

    std::lock_guard lock(received.mutex);
    EXPECT_EQ(received.sends, (std::vector<std::string>{"('vidhostd', 41, {'connected': <true>})",
                                                        "('vidhostd', 41, {'connected': <true>})",
                                                        "('vidhostd', 41, {'connected': <false>})",
                                                        "('vidhostd', 41, @a{sv} {})"}));
    event_producer_free(producer);
}

TEST_F(EventProducerTest, ValuesAreCheckedAgainstTheDeclaration)
{
    start_service();
    EventProducer *producer = event_producer_new("vidhostd");
    EventDeclaration *decl = channel_declaration();
    gint id = event_producer_declare(producer, decl);
    event_declaration_free(decl);

    /* Only declared identifiers give events. */
    EXPECT_EQ(event_producer_prepare_event(producer, -1), nullptr);
    EXPECT_EQ(event_producer_prepare_event(producer, id + 1), nullptr);
    EXPECT_EQ(event_producer_prepare_event(nullptr, id), nullptr);

    Event *event = event_producer_prepare_event(producer, id);
    ASSERT_NE(event, nullptr);
    guint32 channel = 2;
    gboolean yes = TRUE;
    EXPECT_FALSE(event_set_value(event, "channel", &channel)) << "fixed by the declaration";
    EXPECT_FALSE(event_set_value(event, "power", &yes)) << "not declared";
    EXPECT_FALSE(event_set_value(event, "connected", nullptr));
    EXPECT_TRUE(event_producer_send_event(producer, event, nullptr));
    event_free(event);

    std::lock_guard lock(received.mutex);
    EXPECT_EQ(received.sends.back(), "('vidhostd', 41, @a{sv} {})");
    event_producer_free(producer);
}

TEST_F(EventProducerTest, DeclarationBuildingRejectsBadInput)
{
    EXPECT_EQ(event_producer_new(nullptr), nullptr);
    EXPECT_EQ(event_producer_new(""), nullptr);

    EventDeclaration *decl = event_declaration_new(nullptr);
    ASSERT_NE(decl, nullptr);
    guint32 one = 1;
    EXPECT_TRUE(event_declaration_add_key_value(decl, "channel", &one, EVENT_VALUE_TYPE_UINT32));
    EXPECT_FALSE(event_declaration_add_key_value(decl, "channel", &one, EVENT_VALUE_TYPE_UINT32))
        << "duplicate key";
    EXPECT_FALSE(event_declaration_add_key(decl, "channel", EVENT_VALUE_TYPE_BOOLEAN));
    EXPECT_FALSE(event_declaration_add_key(decl, "other", 3)) << "unknown type";
    EXPECT_FALSE(event_declaration_add_key_value(decl, "other", nullptr, EVENT_VALUE_TYPE_STRING));
    EXPECT_FALSE(event_declaration_add_key_value(decl, "other", "\xff", EVENT_VALUE_TYPE_STRING))
        << "not UTF-8";
    EXPECT_FALSE(event_declaration_add_key(decl, "", EVENT_VALUE_TYPE_BOOLEAN));

    EXPECT_FALSE(event_declaration_set_name_space(decl, "other", "tns1"));
    EXPECT_FALSE(event_declaration_set_nice_names(decl, "other", "Other", nullptr));
    EXPECT_FALSE(event_declaration_add_key_tag(decl, "other", "tag"));
    EXPECT_FALSE(event_declaration_set_property(decl, "other", nullptr, 0));
    EXPECT_FALSE(event_declaration_set_property(decl, nullptr, nullptr, 1));
    EXPECT_TRUE(event_declaration_set_property(decl, "channel", "channel", 0));
    event_declaration_free(decl);
    event_declaration_free(nullptr);
    event_producer_free(nullptr);
    event_free(nullptr);
}

TEST_F(EventProducerTest, PropertyKeysAreSentWhenNamed)
{
    start_service();
    EventProducer *producer = event_producer_new("p");
    EventDeclaration *decl = event_declaration_new(nullptr);
    guint32 one = 1;
    event_declaration_add_key_value(decl, "source", &one, EVENT_VALUE_TYPE_UINT32);
    event_declaration_add_key(decl, "state", EVENT_VALUE_TYPE_BOOLEAN);
    event_declaration_set_property(decl, "source", "state", 0);
    EXPECT_GE(event_producer_declare(producer, decl), 0);
    event_declaration_free(decl);

    std::lock_guard lock(received.mutex);
    ASSERT_EQ(received.declares.size(), 1u);
    EXPECT_EQ(received.declares[0],
              "('p', {'keys': <{'source': <{'type': <uint32 1>, 'value': <uint32 1>}>, "
              "'state': <{'type': <uint32 2>}>}>, 'property': <true>, "
              "'property-source': <'source'>, 'property-data': <'state'>})");
    event_producer_free(producer);
}

TEST_F(EventProducerTest, ServiceFailuresAreResultsNotAborts)
{
    /* No service owns the name yet. */
    EventProducer *producer = event_producer_new("vidhostd");
    EventDeclaration *decl = channel_declaration();
    EXPECT_EQ(event_producer_declare(producer, decl), -1);

    start_service();
    gint id = event_producer_declare(producer, decl);
    event_declaration_free(decl);
    ASSERT_GE(id, 0);

    Event *event = event_producer_prepare_event(producer, id);
    gboolean connected = TRUE;
    event_set_value(event, "connected", &connected);
    {
        std::lock_guard lock(received.mutex);
        received.fail_sends = true;
    }
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(event_producer_send_event(producer, event, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_NE(strstr(error->message, "Event queue full"), nullptr) << error->message;
    g_clear_error(&error);

    /* The service goes away. */
    service.reset();
    EXPECT_FALSE(event_producer_send_event(producer, event, &error));
    EXPECT_NE(error, nullptr);
    g_clear_error(&error);
    EXPECT_FALSE(event_producer_send_event(producer, nullptr, &error));
    EXPECT_NE(error, nullptr);
    event_free(event);
    event_producer_free(producer);
}

TEST_F(EventProducerTest, UnreachableBusIsAnError)
{
    std::string saved = bus->address();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/vinman-test-bus", 1);
    EventProducer *producer = event_producer_new("vidhostd");
    EventDeclaration *decl = channel_declaration();
    EXPECT_EQ(event_producer_declare(producer, decl), -1);
    event_declaration_free(decl);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", saved.c_str(), 1);
    event_producer_free(producer);
}

} // namespace
