/* Faults the board injects into its services: absent, failing, late, and
 * clearing them again. */
#include "services_fixture.h"

namespace vboard::test
{
namespace
{

class ServiceFaultsTest : public ServicesTest
{
  protected:
    /* One call of the kind the daemon makes to each service. */
    CallResult probe(Service service)
    {
        switch (service) {
        case Service::Overlay:
            return call(OVERLAY_BUS, overlay_path(1), OVERLAY_BUS, "Set",
                        g_variant_new("(su)", "VIDEO_LOSS", 0));
        case Service::ImageControl:
            return get_property(IMAGE_BUS, image_path(0), "com.korvi.ImageControl", "CaptureMode");
        case Service::CaptureMode:
            return call(CAPTURE_BUS, capture_path(0), "com.korvi.CaptureMode1.Channel",
                        "SetCaptureMode", g_variant_new("(i)", 0));
        case Service::Event:
            return call(EVENT_BUS, "/com/korvi/Event1", EVENT_BUS, "Declare",
                        g_variant_new_parsed("('vidhostd', {'channel': <uint32 1>})"), "(i)");
        case Service::VideoSystem:
            return call(VIDEO_BUS, "/com/korvi/VideoSystem1/Input/0",
                        "com.korvi.VideoSystem1.Input", "SetSettings",
                        g_variant_new_parsed("({'video_type1': <uint32 1>},)"));
        }
        return {};
    }

    void expect_others_answer(Service faulty)
    {
        for (Service other : ALL_SERVICES) {
            if (other == faulty)
                continue;
            CallResult r = probe(other);
            EXPECT_TRUE(r.ok()) << service_short_name(other) << " while "
                                << service_short_name(faulty) << " is faulty: " << r.error_name;
        }
    }
};

TEST_F(ServiceFaultsTest, AbsentServiceIsUnknownToTheBusUntilCleared)
{
    start();
    for (Service s : ALL_SERVICES) {
        SCOPED_TRACE(service_short_name(s));
        services_->set_fault(s, Fault::Absent);
        EXPECT_FALSE(services_->status(s).name_owned);
        EXPECT_EQ(probe(s).error_name, ERROR_SERVICE_UNKNOWN);
        expect_others_answer(s);

        services_->clear_faults();
        ASSERT_TRUE(services_->wait_ready(10000));
        EXPECT_TRUE(services_->status(s).name_owned);
        CallResult r = probe(s);
        EXPECT_TRUE(r.ok()) << r.error_name;
    }
    /* A call that never reached the service is not counted. */
    EXPECT_EQ(services_->status(Service::Overlay).calls, 1u + (SERVICE_COUNT - 1));
}

TEST_F(ServiceFaultsTest, CaptureModeSetWhileImageControlIsAbsentShowsOnceItReturns)
{
    start();
    services_->set_fault(Service::ImageControl, Fault::Absent);
    ASSERT_TRUE(call(CAPTURE_BUS, capture_path(1), "com.korvi.CaptureMode1.Channel",
                     "SetCaptureMode", g_variant_new("(i)", 3))
                    .ok());
    EXPECT_EQ(
        get_property(IMAGE_BUS, image_path(1), "com.korvi.ImageControl", "CaptureMode").error_name,
        ERROR_SERVICE_UNKNOWN);
    services_->set_fault(Service::ImageControl, Fault::None);
    ASSERT_TRUE(services_->wait_ready(10000));
    EXPECT_EQ(capture_mode_property(1), 4);
}

TEST_F(ServiceFaultsTest, FailingServiceAnswersFailedAndChangesNothing)
{
    ServicesOptions options;
    options.capture_modes = {2, 2, 2, 2};
    start(options);
    for (Service s : ALL_SERVICES) {
        SCOPED_TRACE(service_short_name(s));
        services_->set_fault(s, Fault::Failing);
        EXPECT_EQ(probe(s).error_name, ERROR_FAILED);
        expect_others_answer(s);
        EXPECT_EQ(services_->status(s).error_replies, 1u);
        services_->set_fault(s, Fault::None);
    }

    /* Property reads and writes fail as well as method calls. */
    services_->set_fault(Service::ImageControl, Fault::Failing);
    EXPECT_EQ(set_property(IMAGE_BUS, image_path(2), "com.korvi.ImageControlStream",
                           "CaptureFrequency", g_variant_new_string("60Hz"))
                  .error_name,
              ERROR_FAILED);
    EXPECT_EQ(call(IMAGE_BUS, image_path(2), "org.freedesktop.DBus.Properties", "GetAll",
                   g_variant_new("(s)", "com.korvi.ImageControlStream"))
                  .error_name,
              ERROR_FAILED);
    services_->set_fault(Service::VideoSystem, Fault::Failing);
    EXPECT_EQ(
        get_property(VIDEO_BUS, "/com/korvi/VideoSystem1", "com.korvi.VideoSystem1", "Started")
            .error_name,
        ERROR_FAILED);
    services_->set_fault(Service::CaptureMode, Fault::Failing);
    EXPECT_EQ(call(CAPTURE_BUS, capture_path(3), "com.korvi.CaptureMode1.Channel", "SetCaptureMode",
                   g_variant_new("(i)", 5))
                  .error_name,
              ERROR_FAILED);
    services_->clear_faults();

    /* The failed calls left no trace in the recorded state: only the probes
     * made while each service worked did. */
    ServicesSnapshot snap = services_->snapshot();
    EXPECT_EQ(snap.capture[2].capture_frequency, "50Hz");
    EXPECT_EQ(snap.capture[3].capture_mode, 2);
    EXPECT_EQ(capture_mode_property(3), 2);
    EXPECT_EQ(snap.overlay[0].set_calls, static_cast<uint64_t>(SERVICE_COUNT - 1));
    EXPECT_EQ(snap.declarations.size(), static_cast<size_t>(SERVICE_COUNT - 1));
    EXPECT_EQ(snap.video_system.set_settings_calls, static_cast<uint64_t>(SERVICE_COUNT - 1));
    EXPECT_EQ(snap.status[static_cast<int>(Service::ImageControl)].error_replies, 3u);
    for (Service s : ALL_SERVICES)
        EXPECT_EQ(snap.status[static_cast<int>(s)].fault, Fault::None);
}

struct AsyncReply {
    bool done = false;
    std::string error_name;
    int32_t mode = 0;
};

void on_async_reply(GObject *source, GAsyncResult *result, gpointer data)
{
    auto *reply = static_cast<AsyncReply *>(data);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) value =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (error != nullptr) {
        g_autofree gchar *name = g_dbus_error_get_remote_error(error);
        reply->error_name = name ? name : error->message;
    } else {
        g_autoptr(GVariant) inner = nullptr;
        g_variant_get(value, "(v)", &inner);
        reply->mode = g_variant_get_int32(inner);
    }
    reply->done = true;
}

TEST_F(ServiceFaultsTest, LateServiceAnswersLaterWithoutHoldingUpTheOthers)
{
    ServicesOptions options;
    options.capture_modes = {1, 1, 4, 1};
    start(options);

    /* A call held far longer than this test runs. */
    services_->set_fault(Service::ImageControl, Fault::Late, 600000);
    AsyncReply held;
    g_dbus_connection_call(
        client_, IMAGE_BUS, image_path(0).c_str(), "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", "com.korvi.ImageControl", "CaptureMode"), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, on_async_reply, &held);
    ASSERT_TRUE(iterate_until([&] { return services_->status(Service::ImageControl).calls == 1; }));
    /* Every other service answers while it waits. */
    expect_others_answer(Service::ImageControl);
    EXPECT_EQ(services_->status(Service::ImageControl).late_replies, 0u);

    /* A short delay: the answer comes, with the right value. */
    services_->set_fault(Service::ImageControl, Fault::Late, 30);
    EXPECT_EQ(capture_mode_property(2), 4);
    ServiceStatus st = services_->status(Service::ImageControl);
    EXPECT_EQ(st.late_replies, 1u);
    EXPECT_EQ(st.fault, Fault::Late);
    EXPECT_EQ(st.late_ms, 30u);

    /* A late SetCaptureMode takes effect when it is answered. */
    services_->set_fault(Service::CaptureMode, Fault::Late, 30);
    ASSERT_TRUE(call(CAPTURE_BUS, capture_path(1), "com.korvi.CaptureMode1.Channel",
                     "SetCaptureMode", g_variant_new("(i)", 4))
                    .ok());
    EXPECT_EQ(services_->capture(1).capture_mode, 5);
    EXPECT_EQ(services_->status(Service::CaptureMode).late_replies, 1u);

    /* Cleared: answered at once again (not counted as late). */
    services_->clear_faults();
    EXPECT_EQ(capture_mode_property(1), 5);
    EXPECT_EQ(services_->status(Service::ImageControl).late_replies, 1u);

    /* The held call is still waiting; taking the services down answers it. */
    EXPECT_FALSE(held.done);
    services_.reset();
    ASSERT_TRUE(iterate_until([&] { return held.done; }));
    EXPECT_EQ(held.error_name, "org.freedesktop.DBus.Error.NoReply");
}

TEST_F(ServiceFaultsTest, ServicesTornDownAfterTheirLoopStoppedReleaseTheirNames)
{
    start();
    services_->set_fault(Service::Overlay, Fault::Failing);
    g_main_loop_quit(loop_);
    loop_thread_.join();
    /* No thread iterates the context now: faults and teardown run here. */
    services_->set_fault(Service::Overlay, Fault::Absent);
    EXPECT_EQ(probe(Service::Overlay).error_name, ERROR_SERVICE_UNKNOWN);
    services_.reset();
    for (Service s : ALL_SERVICES)
        EXPECT_EQ(probe(s).error_name, ERROR_SERVICE_UNKNOWN) << service_short_name(s);
}

} // namespace
} // namespace vboard::test
