/* The video system library against a fake video system service on a private
 * bus, and the video input type setting through it. */
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>

#include "capcore.h"
#include "decoder.h"
#include "decoder_types.h"
#include "test_bus.h"
#include "video_input_type.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

const char *SYSTEM_XML = R"(<node>
  <interface name="com.korvi.VideoSystem1">
    <property name="Started" type="b" access="read"/>
  </interface>
</node>)";

const char *INPUT_XML = R"(<node>
  <interface name="com.korvi.VideoSystem1.Input">
    <method name="SetSettings">
      <arg direction="in" type="a{sv}" name="settings"/>
    </method>
  </interface>
</node>)";

testbus::PrivateSystemBus *bus;

std::vector<std::string> warnings;

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    if (level & G_LOG_LEVEL_WARNING)
        warnings.emplace_back(message);
}

class Capcore : public testing::Test
{
  protected:
    static void SetUpTestSuite() { bus = new testbus::PrivateSystemBus(); }
    static void TearDownTestSuite()
    {
        delete bus;
        bus = nullptr;
    }
    void SetUp() override
    {
        warnings.clear();
        g_log_set_default_handler(capture_log, nullptr);
    }
    void TearDown() override
    {
        service.reset();
        g_log_set_default_handler(g_log_default_handler, nullptr);
    }

    void start_service()
    {
        testbus::ServiceObject system;
        system.path = "/com/korvi/VideoSystem1";
        system.introspection_xml = SYSTEM_XML;
        system.on_get_property = [this](GDBusConnection *connection, const gchar *,
                                        GError **) -> GVariant * {
            started_reads++;
            if (!started && start_when_read) {
                /* Start once the client has looked, as a late video system
                 * would, and announce it. */
                GSource *idle = g_idle_source_new();
                struct Start {
                    Capcore *self;
                    GDBusConnection *connection;
                };
                g_source_set_callback(
                    idle,
                    [](gpointer data) -> gboolean {
                        auto *start = static_cast<Start *>(data);
                        start->self->started = true;
                        GVariantBuilder changed;
                        g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
                        g_variant_builder_add(&changed, "{sv}", "Started",
                                              g_variant_new_boolean(TRUE));
                        g_dbus_connection_emit_signal(
                            start->connection, nullptr, "/com/korvi/VideoSystem1",
                            "org.freedesktop.DBus.Properties", "PropertiesChanged",
                            g_variant_new("(sa{sv}as)", "com.korvi.VideoSystem1", &changed,
                                          nullptr),
                            nullptr);
                        return G_SOURCE_REMOVE;
                    },
                    new Start{this, G_DBUS_CONNECTION(g_object_ref(connection))},
                    [](gpointer data) {
                        auto *start = static_cast<Start *>(data);
                        g_object_unref(start->connection);
                        delete start;
                    });
                g_source_attach(idle, g_main_context_get_thread_default());
                g_source_unref(idle);
            }
            return g_variant_new_boolean(started.load());
        };
        testbus::ServiceObject input;
        input.path = "/com/korvi/VideoSystem1/Input/0";
        input.introspection_xml = INPUT_XML;
        input.on_method = [this](const gchar *, GVariant *params,
                                 GDBusMethodInvocation *invocation) {
            if (refuse_settings) {
                g_dbus_method_invocation_return_dbus_error(
                    invocation, "com.korvi.VideoSystem1.Error.Busy", "Pipeline busy");
                return;
            }
            g_autofree gchar *text = g_variant_print(params, TRUE);
            std::lock_guard lock(mutex);
            settings.emplace_back(text);
            g_dbus_method_invocation_return_value(invocation, nullptr);
        };
        service = std::make_unique<testbus::ServiceThread>(bus->address(), "com.korvi.VideoSystem1",
                                                           std::vector{system, input});
    }

    std::vector<std::string> received_settings()
    {
        std::lock_guard lock(mutex);
        return settings;
    }

    std::atomic<bool> started{true};
    std::atomic<bool> start_when_read{false};
    std::atomic<bool> refuse_settings{false};
    std::atomic<int> started_reads{0};
    std::mutex mutex;
    std::vector<std::string> settings;
    std::unique_ptr<testbus::ServiceThread> service;
};

TEST_F(Capcore, SettingsReachTheInput)
{
    start_service();
    g_autoptr(GError) error = nullptr;
    g_autoptr(CapcoreSystem) system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr) << error->message;
    EXPECT_TRUE(capcore_system_wait_for_started(system, &error));
    EXPECT_EQ(error, nullptr);

    g_autoptr(CapcoreMap) map = capcore_map_new();
    capcore_map_set_uint32(map, "video_type1", 7);
    capcore_map_set_uint32(map, "video_type1", 1); /* replaces */
    g_autoptr(CapcoreInput) input = capcore_input_new(0, &error);
    ASSERT_NE(input, nullptr);
    EXPECT_TRUE(capcore_input_set_settings(input, map, &error));
    EXPECT_EQ(error, nullptr);
    /* The map is still whole after being applied. */
    EXPECT_TRUE(capcore_input_set_settings(input, map, &error));
    EXPECT_THAT(received_settings(),
                ElementsAre("({'video_type1': <uint32 1>},)", "({'video_type1': <uint32 1>},)"));
}

TEST_F(Capcore, WaitFollowsALateStart)
{
    started = false;
    start_when_read = true;
    start_service();
    g_autoptr(GError) error = nullptr;
    g_autoptr(CapcoreSystem) system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr);
    EXPECT_TRUE(capcore_system_wait_for_started(system, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_GE(started_reads.load(), 2) << "Started is read again after the change";
}

TEST_F(Capcore, WaitGivesUpWhenNeverStarted)
{
    started = false;
    start_service();
    g_autoptr(GError) error = nullptr;
    g_autoptr(CapcoreSystem) system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr);
    capcore_system_set_start_timeout(system, 50);
    EXPECT_FALSE(capcore_system_wait_for_started(system, &error));
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
}

TEST_F(Capcore, AbsentOrRefusingServiceIsAnError)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(CapcoreSystem) system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr) << "the bus itself is there";
    EXPECT_FALSE(capcore_system_wait_for_started(system, &error));
    ASSERT_NE(error, nullptr);
    g_clear_error(&error);

    g_autoptr(CapcoreMap) map = capcore_map_new();
    g_autoptr(CapcoreInput) input = capcore_input_new(0, &error);
    ASSERT_NE(input, nullptr);
    EXPECT_FALSE(capcore_input_set_settings(input, map, &error));
    ASSERT_NE(error, nullptr);
    g_clear_error(&error);

    start_service();
    refuse_settings = true;
    EXPECT_FALSE(capcore_input_set_settings(input, map, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_THAT(error->message, HasSubstr("Pipeline busy"));
}

TEST_F(Capcore, UnreachableBusIsAnError)
{
    std::string saved = bus->address();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/vinman-test-bus", 1);
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(capcore_system_new(&error), nullptr);
    EXPECT_NE(error, nullptr);
    g_clear_error(&error);
    EXPECT_EQ(capcore_input_new(0, &error), nullptr);
    EXPECT_NE(error, nullptr);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", saved.c_str(), 1);
}

TEST_F(Capcore, VideoInputTypeEndToEnd)
{
    start_service();
    Channel channel = {};
    channel.index = 3;
    channel.video_type = VT_NTSC;
    update_video_input_type(&channel);
    channel.index = 0;
    channel.video_type = VT_1080P25;
    update_video_input_type(&channel);
    EXPECT_THAT(received_settings(),
                ElementsAre("({'video_type4': <uint32 2>},)", "({'video_type1': <uint32 0>},)"));
    EXPECT_TRUE(warnings.empty());

    refuse_settings = true;
    update_video_input_type(&channel);
    EXPECT_THAT(warnings, ElementsAre(StartsWith("Failed to update video_type: :")));
    EXPECT_THAT(warnings[0], HasSubstr("Pipeline busy"));
}

} // namespace
