/* The video system library against a fake video system service on a private
 * bus, and the video input type setting through it. */
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>

#include "capcore.h"
#include "decoder.h"
#include "decoder_types.h"
#include "test_bus.h"
#include "video_input_type.h"

namespace
{

const char *SYSTEM_XML = R"(<node><interface name="com.korvi.VideoSystem1">
  <property name="Started" type="b" access="read"/></interface></node>)";
const char *INPUT_XML = R"(<node><interface name="com.korvi.VideoSystem1.Input">
  <method name="SetSettings"><arg direction="in" type="a{sv}"/></method></interface></node>)";

std::string warnings;

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    if (level & G_LOG_LEVEL_WARNING)
        warnings += message;
}

class Capcore : public testing::Test
{
  protected:
    static void SetUpTestSuite() { bus = new testbus::PrivateSystemBus(); }
    static void TearDownTestSuite() { delete bus; }
    void SetUp() override
    {
        warnings.clear();
        g_log_set_default_handler(capture_log, nullptr);
    }
    void TearDown() override { g_log_set_default_handler(g_log_default_handler, nullptr); }

    /* A video system that is not started until Started is first read; it then
     * starts at once and announces it. Settings are refused until then. */
    void start_service()
    {
        auto on_get = [this](GDBusConnection *connection, const gchar *, GError **) {
            bool was = never_start || started.exchange(true);
            if (!was)
                g_dbus_connection_emit_signal(
                    connection, nullptr, "/com/korvi/VideoSystem1",
                    "org.freedesktop.DBus.Properties", "PropertiesChanged",
                    g_variant_new_parsed("('com.korvi.VideoSystem1', {'Started': <true>}, @as [])"),
                    nullptr);
            return g_variant_new_boolean(was && !never_start);
        };
        auto on_set = [this](const gchar *, GVariant *params, GDBusMethodInvocation *invocation) {
            if (refuse_settings || !started)
                return g_dbus_method_invocation_return_dbus_error(
                    invocation, "com.korvi.VideoSystem1.Error.Busy", "Pipeline busy");
            g_autofree gchar *text = g_variant_print(params, TRUE);
            std::lock_guard lock(mutex);
            settings += text;
            g_dbus_method_invocation_return_value(invocation, nullptr);
        };
        service = std::make_unique<testbus::ServiceThread>(
            bus->address(), "com.korvi.VideoSystem1",
            std::vector<testbus::ServiceObject>{
                {"/com/korvi/VideoSystem1", SYSTEM_XML, {}, on_get},
                {"/com/korvi/VideoSystem1/Input/0", INPUT_XML, on_set, {}}});
    }

    std::string take_settings()
    {
        std::lock_guard lock(mutex);
        return std::exchange(settings, "");
    }

    /* Waits until the bus has no client left but the service and this
     * process's shared connection. */
    static bool connections_closed()
    {
        g_autoptr(GDBusConnection) own = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        for (int tries = 0; tries < 500; tries++, g_usleep(10000)) {
            g_autoptr(GVariant) names = g_dbus_connection_call_sync(
                own, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "ListNames", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
            g_autofree gchar *text = g_variant_print(names, FALSE);
            int clients = 0;
            for (const char *p = text; (p = strstr(p, "':")) != nullptr; p++)
                clients++;
            if (clients == 2)
                return true;
        }
        return false;
    }

    static inline testbus::PrivateSystemBus *bus;
    std::atomic<bool> started{false}, never_start{false}, refuse_settings{false};
    std::mutex mutex;
    std::string settings;
    std::unique_ptr<testbus::ServiceThread> service;
};

TEST_F(Capcore, SettingsAreAppliedAfterALateStart)
{
    start_service();
    g_autoptr(GError) error = nullptr;
    g_autoptr(CapcoreSystem) system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr) << error->message;
    capcore_system_set_start_timeout(system, 5000);
    EXPECT_TRUE(capcore_system_wait_for_started(system, &error));
    EXPECT_EQ(error, nullptr);

    g_autoptr(CapcoreMap) map = capcore_map_new();
    capcore_map_set_uint32(map, "video_type1", 7);
    capcore_map_set_uint32(map, "video_type1", 1);
    g_autoptr(CapcoreInput) input = capcore_input_new(0, &error);
    ASSERT_NE(input, nullptr);
    EXPECT_TRUE(capcore_input_set_settings(input, map, &error));
    EXPECT_EQ(take_settings(), "({'video_type1': <uint32 1>},)");
}

TEST_F(Capcore, WaitGivesUpWhenNeverStarted)
{
    never_start = true;
    start_service();
    g_autoptr(GError) error = nullptr;
    g_autoptr(CapcoreSystem) system = capcore_system_new(&error);
    ASSERT_NE(system, nullptr);
    capcore_system_set_start_timeout(system, 50);
    EXPECT_FALSE(capcore_system_wait_for_started(system, &error));
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
}

TEST_F(Capcore, VideoInputTypeTellsSdPalAndNtscApart)
{
    start_service();
    struct Case {
        int32_t index, video_type;
        const char *setting;
    } cases[] = {
        /* The first update finds the video system not yet started; the last
         * update is refused. */
        {0, VT_PAL, "({'video_type1': <uint32 1>},)"},
        {3, VT_NTSC, "({'video_type4': <uint32 2>},)"},
        {1, VT_1080P25, "({'video_type2': <uint32 0>},)"},
        {2, VT_720P30, "({'video_type3': <uint32 0>},)"},
        {0, VT_4K15, "({'video_type1': <uint32 0>},)"},
        {0, VT_NONE, "({'video_type1': <uint32 0>},)"},
    };
    Channel channel = {};
    for (const auto &c : cases) {
        channel.index = c.index;
        channel.video_type = c.video_type;
        update_video_input_type(&channel);
        EXPECT_EQ(take_settings(), c.setting) << c.video_type;
        EXPECT_TRUE(connections_closed()) << "a connection was left open";
    }
    EXPECT_EQ(warnings, "");

    refuse_settings = true;
    update_video_input_type(&channel);
    EXPECT_EQ(warnings, "Failed to update video_type: :GDBus.Error:"
                        "com.korvi.VideoSystem1.Error.Busy: Pipeline busy");
}

} // namespace
