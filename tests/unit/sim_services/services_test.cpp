/* The board's services on a private bus, called as the daemon and its
 * platform layers call them: what each answers and records, and their absent,
 * failing and late faults. */
#include "board_services.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

namespace vboard
{
namespace
{

const std::string OVERLAY = "com.korvi.PrioritizedTextOverlay";
const std::string IMAGE = "com.korvi.ImageControl";
const std::string STREAM = "com.korvi.ImageControlStream";
const std::string VIDEO = "com.korvi.VideoSystem1";
const std::string EVENT = "com.korvi.Event1";
const std::string PROPS = "org.freedesktop.DBus.Properties.";
const std::string FAILED = "org.freedesktop.DBus.Error.Failed";
const std::string INVALID = "org.freedesktop.DBus.Error.InvalidArgs";
const std::string UNKNOWN = "org.freedesktop.DBus.Error.ServiceUnknown";

std::string image(int ch)
{
    return "/com/korvi/ImageControl/" + std::to_string(ch) + "/0";
}

class Services : public testing::Test
{
  protected:
    static void SetUpTestSuite() { g_test_dbus_up(bus = g_test_dbus_new(G_TEST_DBUS_NONE)); }
    static void TearDownTestSuite()
    {
        g_test_dbus_down(bus);
        g_clear_object(&bus);
    }
    void TearDown() override
    {
        stop();
        g_main_loop_unref(loop);
        g_main_context_unref(context);
        g_dbus_connection_close_sync(conn, nullptr, nullptr);
        g_object_unref(conn);
    }
    /* The services and the caller share a connection; calls still go through the bus. */
    void start(ServicesOptions options = {})
    {
        ASSERT_NE(conn, nullptr);
        options.context = context;
        services = std::make_unique<BoardServices>(conn, options);
        loop_thread = std::thread([this] { g_main_loop_run(loop); });
        ASSERT_TRUE(services->wait_ready(10000));
    }
    /* In the board's order: the loop stops first, then the services go. */
    void stop()
    {
        if (loop_thread.joinable()) {
            g_main_loop_quit(loop);
            loop_thread.join();
        }
        services.reset();
    }

    /* A call as busctl makes it, the arguments in GVariant text; the answer
     * printed, or the D-Bus name of the error. */
    std::string call(const std::string &dest, const std::string &path, const std::string &method,
                     const std::string &args)
    {
        const size_t dot = method.rfind('.');
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) body = g_dbus_connection_call_sync(
            conn, dest.c_str(), path.c_str(), method.substr(0, dot).c_str(),
            method.c_str() + dot + 1, g_variant_new_parsed(args.c_str()), nullptr,
            G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
        if (error != nullptr) {
            g_autofree gchar *name = g_dbus_error_get_remote_error(error);
            return name ? name : error->message;
        }
        g_autofree gchar *text = g_variant_print(body, FALSE);
        return text;
    }
    std::string set_text(int object, const std::string &args)
    {
        return call(OVERLAY, "/com/korvi/PrioritizedTextOverlay/" + std::to_string(object),
                    OVERLAY + ".Set", args);
    }
    std::string set_mode(int ch, int mode)
    {
        return call("com.korvi.CaptureMode1", "/com/korvi/CaptureMode1/" + std::to_string(ch),
                    "com.korvi.CaptureMode1.Channel.SetCaptureMode",
                    "(" + std::to_string(mode) + ",)");
    }
    std::string mode(int ch)
    {
        return call(IMAGE, image(ch), PROPS + "Get", "('" + IMAGE + "', 'CaptureMode')");
    }
    std::string set_frequency(int ch, const std::string &hz)
    {
        return call(IMAGE, image(ch), PROPS + "Set",
                    "('" + STREAM + "', 'CaptureFrequency', <'" + hz + "'>)");
    }
    std::string event(const std::string &method, const std::string &args)
    {
        return call(EVENT, "/com/korvi/Event1", EVENT + "." + method, args);
    }
    /* One call of each service, methods and properties mixed; "ok" when answered. */
    std::string probe(Service s)
    {
        const std::string r = s == Service::Overlay        ? set_text(1, "('VIDEO_LOSS', uint32 0)")
                              : s == Service::ImageControl ? set_frequency(0, "50Hz")
                              : s == Service::CaptureMode  ? set_mode(0, 0)
                              : s == Service::Event
                                  ? event("Declare", "('vidhostd', {'channel': <uint32 1>})")
                                  : call(VIDEO, "/com/korvi/VideoSystem1", PROPS + "Get",
                                         "('" + VIDEO + "', 'Started')");
        return r.starts_with("(") ? "ok" : r;
    }

    static inline GTestDBus *bus = nullptr;
    GDBusConnection *conn = g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(bus),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    GMainContext *context = g_main_context_new();
    GMainLoop *loop = g_main_loop_new(context, FALSE);
    std::thread loop_thread;
    std::unique_ptr<BoardServices> services;
};

TEST_F(Services, OverlayKeepsTheTextsOfEachObject)
{
    start();
    for (const char *args :
         {"('VIDEO_LOSS', uint32 0)", "('VIDEO_INPUT_CONFIGURATION_CHANGED', uint32 0)",
          "('VIDEO_LOSS', uint32 7)"})
        EXPECT_EQ(set_text(2, args), "()");
    EXPECT_EQ(call(OVERLAY, "/com/korvi/PrioritizedTextOverlay/2", OVERLAY + ".Unset",
                   "('VIDEO_INPUT_CONFIGURATION_CHANGED',)"),
              "()");
    EXPECT_EQ(set_text(4, "('VIDEO_LOSS', uint32 0)"), "()");
    EXPECT_EQ(set_text(3, R"(('a "b" \\c\n', uint32 1))"), "()");
    const std::string json = services->snapshot().to_json();
    EXPECT_NE(json.find(R"("texts":[{"text":"a \"b\" \\c\n","priority":1}])"), std::string::npos)
        << json;
    std::vector<std::vector<OverlayText>> texts;
    for (int ch = 0; ch < 4; ch++)
        texts.push_back(services->overlay(ch).texts);
    EXPECT_EQ(texts, (std::vector<std::vector<OverlayText>>{
                         {}, {{"VIDEO_LOSS", 7}}, {{"a \"b\" \\c\n", 1}}, {{"VIDEO_LOSS", 0}}}));
}

TEST_F(Services, CaptureModeIsSetZeroBasedAndReadOneBasedBesideItsFrequency)
{
    ServicesOptions options;
    options.capture_modes = {3, 1, 6, 2};
    options.capture_frequencies = {"50Hz", "60Hz", "50Hz", "50Hz"};
    start(options);
    EXPECT_EQ(mode(2), "(<6>,)");
    EXPECT_EQ(set_mode(2, 2) + set_mode(1, 0) + set_mode(0, 5), "()()()");
    for (int m : {6, -1})
        EXPECT_EQ(set_mode(3, m), INVALID) << m;
    EXPECT_EQ(mode(0) + mode(1) + mode(2) + mode(3), "(<6>,)(<1>,)(<3>,)(<2>,)");

    EXPECT_EQ(set_frequency(0, "60Hz"), "()");
    EXPECT_EQ(set_frequency(2, "50 Hz"), INVALID);
    EXPECT_EQ(services->capture(0).capture_frequency, "60Hz");
}

TEST_F(Services, EventsAreDeclaredAndEverySendIsRecordedForItsChannel)
{
    start();
    /* The channel wrapped with its type, as the producer library declares it, or plain. */
    EXPECT_EQ(
        event("Declare", "('vidhostd', {'channel': <{'value': <uint32 3>, 'type': <uint32 1>}>})"),
        "(1,)");
    EXPECT_EQ(event("Declare", "('vidhostd', {'channel': <uint32 4>})"), "(2,)");
    for (const char *args : {"('vidhostd', 1, {'connected': <true>})",
                             "('vidhostd', 1, {'connected': <{'value': <uint32 0>}>})",
                             "('vidhostd', 2, {'connected': <int32 1>})"})
        EXPECT_EQ(event("Send", args), "()");
    EXPECT_EQ(event("Send", "('vidhostd', 99, {'connected': <false>})"), INVALID);

    const ServicesSnapshot snap = services->snapshot();
    std::string seen;
    for (const EventSent &e : snap.events)
        seen += std::to_string(e.channel) + ":" + std::to_string(e.connected) +
                (e.known_id ? " " : "? ");
    EXPECT_EQ(seen, "3:1 3:0 4:1 -1:0? ");
    EXPECT_EQ(snap.last_connected(3), 0);
}

TEST_F(Services, AnAbsentOrFailingServiceFailsAloneAndChangesNothing)
{
    start();
    for (auto [fault, error] : {std::pair{Fault::Absent, UNKNOWN}, {Fault::Failing, FAILED}})
        for (Service s : ALL_SERVICES) {
            services->set_fault(s, fault);
            for (Service other : ALL_SERVICES)
                EXPECT_EQ(probe(other), other == s ? error : "ok")
                    << service_short_name(s) << " " << fault_name(fault) << ", calling "
                    << service_short_name(other);
            services->clear_faults();
            ASSERT_TRUE(services->wait_ready(10000));
            EXPECT_EQ(probe(s), "ok") << service_short_name(s) << " cleared";
        }
    services->set_fault(Service::CaptureMode, Fault::Failing);
    services->set_fault(Service::ImageControl, Fault::Failing);
    EXPECT_EQ(set_mode(3, 5) + " " + set_frequency(3, "60Hz"), FAILED + " " + FAILED);
    services->clear_faults();
    EXPECT_EQ(mode(3) + call(IMAGE, image(3), PROPS + "GetAll", "('" + STREAM + "',)"),
              "(<1>,)({'CaptureFrequency': <'50Hz'>},)");
}

TEST_F(Services, ALateServiceAnswersLaterWithoutHoldingUpTheOthers)
{
    start();
    services->set_fault(Service::ImageControl, Fault::Late, 600000);
    g_dbus_connection_call(conn, IMAGE.c_str(), image(0).c_str(), "org.freedesktop.DBus.Properties",
                           "Get", g_variant_new("(ss)", IMAGE.c_str(), "CaptureMode"), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr, nullptr);
    for (int i = 0; i < 10000 && services->status(Service::ImageControl).calls == 0; i++)
        g_usleep(1000);
    for (Service s : {Service::Overlay, Service::CaptureMode, Service::Event, Service::VideoSystem})
        EXPECT_EQ(probe(s), "ok") << service_short_name(s) << " while a call is held";

    services->set_fault(Service::CaptureMode, Fault::Late, 30);
    services->set_fault(Service::ImageControl, Fault::Late, 30);
    EXPECT_EQ(set_mode(1, 4), "()");
    EXPECT_EQ(mode(1), "(<5>,)");
    services->clear_faults();
    EXPECT_EQ(mode(1), "(<5>,)");
    EXPECT_EQ(services->status(Service::ImageControl).late_replies, 1u) << "the held call waits";
    EXPECT_EQ(services->status(Service::CaptureMode).late_replies, 1u);
    stop();
    EXPECT_EQ(probe(Service::Overlay), UNKNOWN) << "names released";
}

} // namespace
} // namespace vboard
