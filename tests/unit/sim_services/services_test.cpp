/* The services as the daemon meets them when nothing is wrong: what each call
 * answers and what the board records. */
#include "services_fixture.h"

#include <glib/gstdio.h>

namespace vboard::test
{
namespace
{

class BoardServicesTest : public ServicesTest
{
};

TEST_F(BoardServicesTest, OverlayRecordsTextsPerObjectAndUnsetRemovesThem)
{
    start();
    auto set = [&](int object, const char *text, guint32 priority) {
        return call(OVERLAY_BUS, overlay_path(object), OVERLAY_BUS, "Set",
                    g_variant_new("(su)", text, priority));
    };
    auto unset = [&](int object, const char *text) {
        return call(OVERLAY_BUS, overlay_path(object), OVERLAY_BUS, "Unset",
                    g_variant_new("(s)", text));
    };

    ASSERT_TRUE(set(2, "VIDEO_LOSS", 0).ok());
    /* Object 2 is channel index 1; the others stay empty. */
    EXPECT_EQ(services_->overlay(1).texts, (std::vector<OverlayText>{{"VIDEO_LOSS", 0}}));
    for (int i : {0, 2, 3})
        EXPECT_TRUE(services_->overlay(i).texts.empty()) << "channel index " << i;

    ASSERT_TRUE(set(2, "VIDEO_INPUT_CONFIGURATION_CHANGED", 0).ok());
    /* Setting a shown text again changes its priority, not the list. */
    ASSERT_TRUE(set(2, "VIDEO_LOSS", 7).ok());
    EXPECT_EQ(
        services_->overlay(1).texts,
        (std::vector<OverlayText>{{"VIDEO_LOSS", 7}, {"VIDEO_INPUT_CONFIGURATION_CHANGED", 0}}));

    ASSERT_TRUE(unset(2, "VIDEO_LOSS").ok());
    /* Unsetting a text that is not shown is answered and changes nothing. */
    ASSERT_TRUE(unset(2, "NOT_SHOWN").ok());
    ASSERT_TRUE(set(4, "VIDEO_LOSS", 0).ok());

    OverlayChannel ch1 = services_->overlay(1);
    EXPECT_EQ(ch1.texts, (std::vector<OverlayText>{{"VIDEO_INPUT_CONFIGURATION_CHANGED", 0}}));
    EXPECT_EQ(ch1.set_calls, 3u);
    EXPECT_EQ(ch1.unset_calls, 2u);
    EXPECT_EQ(services_->overlay(3).texts, (std::vector<OverlayText>{{"VIDEO_LOSS", 0}}));

    /* Set without its priority is not the interface's signature. */
    CallResult bad =
        call(OVERLAY_BUS, overlay_path(1), OVERLAY_BUS, "Set", g_variant_new("(s)", "VIDEO_LOSS"));
    EXPECT_EQ(bad.error_name, ERROR_INVALID_ARGS);
    EXPECT_TRUE(services_->overlay(0).texts.empty());
    /* There is no object 0 and no object 5. */
    for (int object : {0, 5})
        EXPECT_FALSE(set(object, "VIDEO_LOSS", 0).ok()) << "object " << object;
}

TEST_F(BoardServicesTest, SetCaptureModeIsZeroBasedAndShowsInTheImageControlProperty)
{
    ServicesOptions options;
    options.capture_modes = {3, 1, 6, 2};
    start(options);

    /* The starting modes, as the daemon reads them at start-up. */
    EXPECT_EQ(capture_mode_property(0), 3);
    EXPECT_EQ(capture_mode_property(1), 1);
    EXPECT_EQ(capture_mode_property(2), 6);
    EXPECT_EQ(capture_mode_property(3), 2);

    ASSERT_TRUE(call(CAPTURE_BUS, capture_path(2), "com.korvi.CaptureMode1.Channel",
                     "SetCaptureMode", g_variant_new("(i)", 2))
                    .ok());
    EXPECT_EQ(capture_mode_property(2), 3);
    EXPECT_EQ(services_->capture(2).capture_mode, 3);
    EXPECT_EQ(services_->capture(2).set_capture_mode_calls, 1u);
    EXPECT_EQ(capture_mode_property(0), 3);
    EXPECT_EQ(capture_mode_property(3), 2);

    /* The extremes of the 0-based range. */
    ASSERT_TRUE(call(CAPTURE_BUS, capture_path(0), "com.korvi.CaptureMode1.Channel",
                     "SetCaptureMode", g_variant_new("(i)", 0))
                    .ok());
    EXPECT_EQ(capture_mode_property(0), 1);
    ASSERT_TRUE(call(CAPTURE_BUS, capture_path(1), "com.korvi.CaptureMode1.Channel",
                     "SetCaptureMode", g_variant_new("(i)", 5))
                    .ok());
    EXPECT_EQ(capture_mode_property(1), 6);

    /* Out of range (a 1-based 6, a negative code) is refused and changes nothing. */
    for (int mode : {6, -1}) {
        CallResult r = call(CAPTURE_BUS, capture_path(3), "com.korvi.CaptureMode1.Channel",
                            "SetCaptureMode", g_variant_new("(i)", mode));
        EXPECT_EQ(r.error_name, ERROR_INVALID_ARGS) << "mode " << mode;
    }
    EXPECT_EQ(capture_mode_property(3), 2);
    EXPECT_EQ(services_->capture(3).set_capture_mode_calls, 0u);

    /* CaptureMode is read-only. */
    EXPECT_FALSE(set_property(IMAGE_BUS, image_path(0), "com.korvi.ImageControl", "CaptureMode",
                              g_variant_new_int32(4))
                     .ok());
    EXPECT_EQ(capture_mode_property(0), 1);
}

TEST_F(BoardServicesTest, CaptureModeChangeIsAnnouncedOnTheImageControlObject)
{
    start();
    struct Seen {
        std::string path;
        int32_t mode = 0;
    } seen;
    guint sub = g_dbus_connection_signal_subscribe(
        client_, nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged", nullptr,
        "com.korvi.ImageControl", G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection *, const gchar *, const gchar *path, const gchar *, const gchar *,
           GVariant *params, gpointer data) {
            auto *s = static_cast<Seen *>(data);
            g_autoptr(GVariant) changed = g_variant_get_child_value(params, 1);
            gint32 mode = 0;
            if (g_variant_lookup(changed, "CaptureMode", "i", &mode)) {
                s->path = path;
                s->mode = mode;
            }
        },
        &seen, nullptr);

    ASSERT_TRUE(call(CAPTURE_BUS, capture_path(1), "com.korvi.CaptureMode1.Channel",
                     "SetCaptureMode", g_variant_new("(i)", 4))
                    .ok());
    EXPECT_TRUE(iterate_until([&] { return seen.mode != 0; }));
    EXPECT_EQ(seen.path, image_path(1));
    EXPECT_EQ(seen.mode, 5);
    g_dbus_connection_signal_unsubscribe(client_, sub);
}

TEST_F(BoardServicesTest, CaptureFrequencyIsWritableAndOnlyTakesFiftyOrSixtyHertz)
{
    ServicesOptions options;
    options.capture_frequencies = {"50Hz", "60Hz", "50Hz", "50Hz"};
    start(options);
    auto frequency = [&](int index) {
        auto v = property_value(get_property(IMAGE_BUS, image_path(index),
                                             "com.korvi.ImageControlStream", "CaptureFrequency"));
        return v ? std::string(g_variant_get_string(v.get(), nullptr)) : std::string("<error>");
    };
    EXPECT_EQ(frequency(0), "50Hz");
    EXPECT_EQ(frequency(1), "60Hz");

    ASSERT_TRUE(set_property(IMAGE_BUS, image_path(0), "com.korvi.ImageControlStream",
                             "CaptureFrequency", g_variant_new_string("60Hz"))
                    .ok());
    EXPECT_EQ(frequency(0), "60Hz");
    EXPECT_EQ(services_->capture(0).capture_frequency, "60Hz");
    EXPECT_EQ(services_->capture(0).frequency_sets, 1u);
    EXPECT_EQ(frequency(2), "50Hz");

    EXPECT_EQ(set_property(IMAGE_BUS, image_path(0), "com.korvi.ImageControlStream",
                           "CaptureFrequency", g_variant_new_string("50 Hz"))
                  .error_name,
              ERROR_INVALID_ARGS);
    EXPECT_FALSE(set_property(IMAGE_BUS, image_path(0), "com.korvi.ImageControlStream",
                              "CaptureFrequency", g_variant_new_int32(50))
                     .ok());
    EXPECT_EQ(frequency(0), "60Hz");
    EXPECT_EQ(services_->capture(0).frequency_sets, 1u);

    /* The frequency lives on the stream interface, not on the image control one. */
    EXPECT_FALSE(
        get_property(IMAGE_BUS, image_path(0), "com.korvi.ImageControl", "CaptureFrequency").ok());
    CallResult all = call(IMAGE_BUS, image_path(1), "org.freedesktop.DBus.Properties", "GetAll",
                          g_variant_new("(s)", "com.korvi.ImageControlStream"), "(a{sv})");
    ASSERT_TRUE(all.ok()) << all.error_name;
    g_autoptr(GVariant) props = g_variant_get_child_value(all.value.get(), 0);
    const gchar *text = nullptr;
    ASSERT_TRUE(g_variant_lookup(props, "CaptureFrequency", "&s", &text));
    EXPECT_STREQ(text, "60Hz");
}

/* A declaration shaped like the producer library's: every key an a{sv}
 * carrying its fixed value (if any) and its description. */
GVariant *declaration_for_channel(guint32 channel)
{
    return g_variant_new_parsed(
        "{'topic0': <{'value': <'VideoEncoder'>, 'type': <uint32 4>, 'namespace': <'tns1'>}>,"
        " 'channel': <{'value': <%u>, 'type': <uint32 1>, 'tags': <['onvif-source']>}>,"
        " 'connected': <{'type': <uint32 2>, 'tags': <['onvif-data', 'property-state']>}>}",
        channel);
}

TEST_F(BoardServicesTest, EventsAreDeclaredAndEverySendIsRecordedPerChannel)
{
    start();
    auto declare = [&](GVariant *declaration) {
        CallResult r = call(EVENT_BUS, "/com/korvi/Event1", EVENT_BUS, "Declare",
                            g_variant_new("(s@a{sv})", "vidhostd", declaration), "(i)");
        gint32 id = -1000;
        if (r.ok())
            g_variant_get(r.value.get(), "(i)", &id);
        return id;
    };
    auto send = [&](gint32 id, GVariant *values) {
        return call(EVENT_BUS, "/com/korvi/Event1", EVENT_BUS, "Send",
                    g_variant_new("(si@a{sv})", "vidhostd", id, values));
    };

    std::vector<int32_t> ids;
    for (guint32 ch = 1; ch <= 4; ch++)
        ids.push_back(declare(declaration_for_channel(ch)));
    ASSERT_EQ(ids.size(), 4u);
    for (size_t i = 0; i < ids.size(); i++) {
        EXPECT_GT(ids[i], 0);
        for (size_t j = 0; j < i; j++)
            EXPECT_NE(ids[i], ids[j]);
    }
    std::vector<EventDeclaration> decls = services_->declarations();
    ASSERT_EQ(decls.size(), 4u);
    EXPECT_EQ(decls[2].id, ids[2]);
    EXPECT_EQ(decls[2].channel, 3);
    EXPECT_EQ(decls[2].producer, "vidhostd");
    EXPECT_NE(decls[2].declaration.find("VideoEncoder"), std::string::npos);

    /* Channel index 2 sends on the declaration of "channel" 3. */
    ASSERT_TRUE(send(ids[2], g_variant_new_parsed("{'connected': <true>}")).ok());
    ASSERT_TRUE(send(ids[2], g_variant_new_parsed("{'connected': <false>}")).ok());
    /* "connected" as a 32-bit integer, wrapped like a declaration key. */
    ASSERT_TRUE(send(ids[0], g_variant_new_parsed("{'connected': <{'value': <uint32 1>}>}")).ok());

    ServicesSnapshot snap = services_->snapshot();
    std::vector<EventSent> ch3 = snap.events_for_channel(3);
    ASSERT_EQ(ch3.size(), 2u);
    EXPECT_EQ(ch3[0].connected, 1);
    EXPECT_EQ(ch3[1].connected, 0);
    EXPECT_LT(ch3[0].seq, ch3[1].seq);
    EXPECT_TRUE(ch3[0].known_id);
    EXPECT_EQ(snap.last_connected(3), 0);
    EXPECT_EQ(snap.last_connected(1), 1);
    EXPECT_EQ(snap.last_connected(2), -1);
    EXPECT_EQ(snap.events_total, 3u);

    /* A send on an id that was never declared is refused but still shown. */
    CallResult r = send(99, g_variant_new_parsed("{'connected': <false>}"));
    EXPECT_EQ(r.error_name, ERROR_INVALID_ARGS);
    std::vector<EventSent> all = services_->events();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_FALSE(all.back().known_id);
    EXPECT_EQ(all.back().channel, -1);
    EXPECT_EQ(services_->status(Service::Event).error_replies, 1u);

    /* A flat declaration with a plain "channel" value is read too. */
    int32_t flat = declare(g_variant_new_parsed("{'channel': <uint32 2>}"));
    ASSERT_GT(flat, 0);
    ASSERT_TRUE(send(flat, g_variant_new_parsed("{'connected': <int32 1>}")).ok());
    EXPECT_EQ(services_->snapshot().last_connected(2), 1);
}

TEST_F(BoardServicesTest, VideoSystemIsStartedAndKeepsTheLatestInputSettings)
{
    start();
    auto started = [&] {
        auto v = property_value(get_property(VIDEO_BUS, "/com/korvi/VideoSystem1",
                                             "com.korvi.VideoSystem1", "Started"));
        return v ? int(g_variant_get_boolean(v.get())) : -1;
    };
    auto set_settings = [&](GVariant *settings) {
        return call(VIDEO_BUS, "/com/korvi/VideoSystem1/Input/0", "com.korvi.VideoSystem1.Input",
                    "SetSettings", g_variant_new("(@a{sv})", settings));
    };
    EXPECT_EQ(started(), 1);

    ASSERT_TRUE(set_settings(g_variant_new_parsed("{'video_type1': <uint32 1>}")).ok());
    ASSERT_TRUE(set_settings(g_variant_new_parsed("{'video_type4': <uint32 2>}")).ok());
    ASSERT_TRUE(set_settings(g_variant_new_parsed("{'video_type1': <uint32 0>}")).ok());

    VideoSystemState vs = services_->video_system();
    EXPECT_EQ(vs.set_settings_calls, 3u);
    EXPECT_EQ(vs.video_type(0), 0);
    EXPECT_EQ(vs.video_type(3), 2);
    EXPECT_FALSE(vs.video_type(1).has_value());
    EXPECT_EQ(vs.settings.at("video_type4").type_string, "u");

    services_->set_video_system_started(false);
    EXPECT_EQ(started(), 0);
    EXPECT_FALSE(services_->video_system().started);
}

TEST_F(BoardServicesTest, SnapshotJsonIsValidAndCarriesAwkwardTexts)
{
    g_autofree gchar *python = g_find_program_in_path("python3");
    start();
    const char *awkward = "quote\" back\\slash\nnew line\t\x01";
    ASSERT_TRUE(
        call(OVERLAY_BUS, overlay_path(1), OVERLAY_BUS, "Set", g_variant_new("(su)", awkward, 3))
            .ok());
    services_->set_fault(Service::Event, Fault::Late, 25);
    std::string json = services_->snapshot().to_json();
    if (python == nullptr)
        GTEST_SKIP() << "no python3 to parse the JSON";

    g_autofree gchar *dir = g_dir_make_tmp("services-json-XXXXXX", nullptr);
    ASSERT_NE(dir, nullptr);
    g_autofree gchar *file = g_build_filename(dir, "snapshot.json", nullptr);
    ASSERT_TRUE(g_file_set_contents(file, json.c_str(), -1, nullptr));
    const char *script = "import json,sys\n"
                         "d=json.load(open(sys.argv[1]))\n"
                         "t=d['overlay'][0]['texts'][0]\n"
                         "e=d['services']['event']\n"
                         "sys.stdout.write(repr((t['text'],t['priority'],e['fault'],e['late_ms'],"
                         "d['capture'][3]['capture_mode'])))\n";
    const char *argv[] = {python, "-c", script, file, nullptr};
    g_autofree gchar *out = nullptr;
    g_autofree gchar *err = nullptr;
    gint status = 0;
    ASSERT_TRUE(g_spawn_sync(nullptr, const_cast<gchar **>(argv), nullptr, G_SPAWN_DEFAULT, nullptr,
                             nullptr, &out, &err, &status, nullptr));
    g_unlink(file);
    g_rmdir(dir);
    ASSERT_EQ(status, 0) << err << "\n" << json;
    EXPECT_STREQ(out, "('quote\" back\\\\slash\\nnew line\\t\\x01', 3, 'late', 25, 1)");
}

TEST(ServiceNames, CommandLineNamesAndBusNamesBothSelectAService)
{
    EXPECT_EQ(service_from_name("overlay"), Service::Overlay);
    EXPECT_EQ(service_from_name("com.korvi.CaptureMode1"), Service::CaptureMode);
    EXPECT_EQ(service_from_name("com.korvi.Event1"), Service::Event);
    EXPECT_FALSE(service_from_name("com.korvi.Event").has_value());
    EXPECT_FALSE(service_from_name("").has_value());
    EXPECT_EQ(fault_from_name("late"), Fault::Late);
    EXPECT_FALSE(fault_from_name("slow").has_value());
}

} // namespace
} // namespace vboard::test
