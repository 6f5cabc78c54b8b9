/* The Encoder service's handlers on a private bus, called the way a client
 * calls them, with the real generated binding. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <gio/gio.h>

#include "dbus_binding.h"
#include "decoder.h"
#include "decoder_types.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "standins.h"
#include "tp28xx.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

constexpr const char *kPath = "/com/korvi/Encoder";
constexpr const char *kIface = "com.korvi.Encoder";

/* One private bus for the whole executable. */
class PrivateBus : public ::testing::Environment
{
  public:
    void SetUp() override
    {
        bus_ = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus_);
        address = g_test_dbus_get_bus_address(bus_);
    }
    void TearDown() override
    {
        g_test_dbus_down(bus_);
        g_object_unref(bus_);
    }
    static inline std::string address;

  private:
    GTestDBus *bus_ = nullptr;
};

GDBusConnection *connect_bus()
{
    GError *error = nullptr;
    GDBusConnection *c = g_dbus_connection_new_for_address_sync(
        PrivateBus::address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    g_assert_no_error(error);
    return c;
}

struct Reply {
    GVariant *value = nullptr;
    GError *error = nullptr;
    bool done = false;

    ~Reply()
    {
        if (value)
            g_variant_unref(value);
        if (error)
            g_error_free(error);
    }
    bool ok() const { return error == nullptr; }
    std::string error_name() const
    {
        g_autofree gchar *name = error ? g_dbus_error_get_remote_error(error) : nullptr;
        return name ? name : "";
    }
    std::string error_message() const
    {
        if (!error)
            return "";
        GError copy = *error;
        g_autofree gchar *msg = g_strdup(error->message);
        GError *e = g_error_copy(&copy);
        g_dbus_error_strip_remote_error(e);
        std::string text = e->message;
        g_error_free(e);
        return text;
    }
};

class Handlers : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        log_capture_start();
        standins_reset();
        setup_decoder();
    }

    void setup_decoder()
    {
        dec_ = decoder_create();
        ASSERT_NE(dec_, nullptr);
        server_ = connect_bus();
        client_ = connect_bus();
        encoder_ = encoder_object_new(dec_);
        dbus_encoder_set_multi_device_properties(encoder_, gpio_cpuid());
        ASSERT_TRUE(g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(encoder_), server_,
                                                     kPath, nullptr));
        manager_ = g_dbus_object_manager_server_new(kPath);
        export_video_objects(dec_, manager_);
        g_dbus_object_manager_server_set_connection(manager_, server_);
        standins.calls.clear();
    }

    void TearDown() override { teardown_decoder(); }

    void teardown_decoder()
    {
        if (manager_) {
            unexport_video_objects(dec_, manager_);
            g_dbus_object_manager_server_set_connection(manager_, nullptr);
            g_clear_object(&manager_);
        }
        if (encoder_) {
            g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(encoder_));
            g_clear_object(&encoder_);
        }
        if (dec_)
            decoder_exit(dec_);
        dec_ = nullptr;
        g_clear_object(&client_);
        g_clear_object(&server_);
    }

    static gboolean gpio_cpuid() { return standins.cpuid != 0; }

    /* Calls a method and runs the main context until the answer arrives. */
    void call(Reply &r, const char *path, const char *iface, const char *method, GVariant *params)
    {
        g_dbus_connection_call(
            client_, g_dbus_connection_get_unique_name(server_), path, iface, method, params,
            nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
            [](GObject *source, GAsyncResult *res, gpointer data) {
                auto *reply = static_cast<Reply *>(data);
                reply->value =
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), res, &reply->error);
                reply->done = true;
            },
            &r);
        while (!r.done)
            g_main_context_iteration(nullptr, TRUE);
    }
    void call(Reply &r, const char *method, GVariant *params)
    {
        call(r, kPath, kIface, method, params);
    }

    void expect_error(const char *method, GVariant *params, const std::string &name,
                      const std::string &message)
    {
        Reply r;
        call(r, method, params);
        ASSERT_FALSE(r.ok()) << method << " was accepted";
        EXPECT_EQ(r.error_name(), name) << method;
        EXPECT_EQ(r.error_message(), message) << method;
    }
    void expect_ok(const char *method, GVariant *params)
    {
        Reply r;
        call(r, method, params);
        EXPECT_TRUE(r.ok()) << method << ": " << r.error_message();
    }

    GVariant *property(const char *path, const char *iface, const char *name)
    {
        Reply r;
        call(r, path, "org.freedesktop.DBus.Properties", "Get", g_variant_new("(ss)", iface, name));
        EXPECT_TRUE(r.ok()) << r.error_message();
        if (!r.ok())
            return nullptr;
        GVariant *v = nullptr;
        g_variant_get(r.value, "(v)", &v);
        return v;
    }

    /* Locks a channel on a format the way the driver would. */
    void lock_channel(int ch, int32_t standard, int32_t type)
    {
        Channel &c = dec_->channels[ch];
        c.standard = standard;
        c.video_type = type;
        c.chip_state->resolution = type;
        c.chip_state->lock_state = LS_LOCKED;
    }

    Decoder *dec_ = nullptr;
    GDBusConnection *server_ = nullptr;
    GDBusConnection *client_ = nullptr;
    DbusEncoder *encoder_ = nullptr;
    GDBusObjectManagerServer *manager_ = nullptr;
};

const std::string kInvalidArgument = "com.korvi.Encoder.Error.InvalidArgument";
const std::string kSystem = "com.korvi.Encoder.Error.System";
const std::string kInvalidStandard = "com.korvi.Encoder.Error.InvalidStandard";
const std::string kInvalidResolution = "com.korvi.Encoder.Error.InvalidResolution";
const std::string kInvalidAutoMode = "com.korvi.Encoder.Error.InvalidAutoMode";

TEST_F(Handlers, ImageControlsCheckTheirRangeAndKeepTheOldValueOnRefusal)
{
    struct Case {
        const char *method;
        uint32_t Channel::*field;
        const char *message;
    } const cases[] = {
        {"SetSaturation", &Channel::saturation, "Invalid saturation value"},
        {"SetBrightness", &Channel::brightness, "Invalid brightness value"},
        {"SetContrast", &Channel::contrast, "Invalid contrast value"},
        {"SetHue", &Channel::hue, "Invalid hue value"},
        {"SetSharpness", &Channel::sharpness, "Invalid sharpness value"},
    };
    for (const Case &c : cases) {
        expect_ok(c.method, g_variant_new("(iu)", 2, 100u));
        EXPECT_EQ(dec_->channels[2].*c.field, 100u) << c.method;
        expect_error(c.method, g_variant_new("(iu)", 2, 101u), kInvalidArgument, c.message);
        /* -1 from a client that thinks in signed numbers. */
        expect_error(c.method, g_variant_new("(iu)", 2, 0xffffffffu), kInvalidArgument, c.message);
        EXPECT_EQ(dec_->channels[2].*c.field, 100u) << c.method;
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, c.message), 2u) << c.method;
    }
    /* Only the accepted values reached the chip. */
    EXPECT_EQ(standins.slot_values.size(), 5u);
}

TEST_F(Handlers, UnknownChannelsAreRefused)
{
    for (int ch : {-1, 4}) {
        expect_error("SetSaturation", g_variant_new("(iu)", ch, 5u), kInvalidArgument,
                     "Wrong number of channels");
        expect_error("SetXOffset", g_variant_new("(ii)", ch, 5), kInvalidArgument,
                     "Wrong number of channels");
        expect_error("SetVideoTermination", g_variant_new("(ii)", ch, 1), kInvalidArgument,
                     "Wrong number of channels");
        expect_error("SetVideoStandard", g_variant_new("(iiss)", ch, 1, "", ""), kInvalidArgument,
                     "Wrong number of channels");
        expect_error("GetVideoProperties", g_variant_new("(i)", ch), kInvalidArgument,
                     "Wrong number of channels");
    }
    EXPECT_THAT(standins.calls, IsEmpty());
}

TEST_F(Handlers, ValuesAreReducedForTheChipButKeptAsSent)
{
    expect_ok("SetXOffset", g_variant_new("(ii)", 1, 200));
    expect_ok("SetYOffset", g_variant_new("(ii)", 1, -300));
    expect_ok("SetHue", g_variant_new("(iu)", 1, 100u));
    EXPECT_THAT(standins.calls,
                ElementsAre("set_xoffset(1,-56)", "set_yoffset(1,-44)", "set_hue(1,100)"));
    EXPECT_EQ(dec_->channels[1].xoffset, 200);
    EXPECT_EQ(dec_->channels[1].yoffset, -300);

    Reply r;
    call(r, "ListConfig", nullptr);
    ASSERT_TRUE(r.ok());
    g_autoptr(GVariant) list = g_variant_get_child_value(r.value, 0);
    g_autoptr(GVariant) entry = g_variant_get_child_value(list, 1);
    gint32 x, y;
    g_variant_get_child(entry, 5, "i", &x);
    g_variant_get_child(entry, 6, "i", &y);
    EXPECT_EQ(x, 200);
    EXPECT_EQ(y, -300);
}

TEST_F(Handlers, ChipFailureIsASystemErrorAndChangesNothing)
{
    uint32_t before = dec_->channels[0].contrast;
    standins.slot_result = -1;
    expect_error("SetContrast", g_variant_new("(iu)", 0, 10u), kSystem, "Failed to set contrast");
    expect_error("SetXOffset", g_variant_new("(ii)", 0, 10), kSystem, "Failed to set x offset");
    EXPECT_EQ(dec_->channels[0].contrast, before);
    EXPECT_EQ(dec_->channels[0].xoffset, 0);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Failed to set contrast"), 1u);
}

TEST_F(Handlers, TerminationWritesTheLineOfTheChannel)
{
    expect_ok("SetVideoTermination", g_variant_new("(ii)", 3, 1));
    standins.termination_result = -1;
    expect_error("SetVideoTermination", g_variant_new("(ii)", 0, 0), kSystem,
                 "Failed to set video termination");
    EXPECT_THAT(standins.calls,
                ElementsAre("gpio_set_video_termination(3,1)", "gpio_set_video_termination(0,0)"));
}

TEST_F(Handlers, VideoStandardRequestsAreJudgedBeforeAnythingChanges)
{
    struct Case {
        int ch;
        int auto_mode;
        const char *standard;
        const char *resolution;
        const std::string &name;
        const char *message;
    } const refused[] = {
        {0, 2, "tvi", "1080p30", kInvalidAutoMode, "Not a valid auto mode"},
        {0, -1, "tvi", "1080p30", kInvalidAutoMode, "Not a valid auto mode"},
        {0, 0, "cvbs", "720p25", kInvalidStandard, "Not a valid video standard"},
        {0, 0, "tvi", "ntsc", kInvalidStandard, "Not a valid video standard"},
        {0, 0, "CVBS", "pal", kInvalidStandard, "Not a valid video standard"},
        {0, 0, "disabled", "disabled", kInvalidStandard, "Not a valid video standard"},
        {0, 0, "tvi", "disabled", kInvalidResolution, "Not a valid video resolution"},
        {0, 0, "tvi", "abc", kInvalidResolution, "Not a valid video resolution"},
        {1, 0, "ahd", "4k15", kInvalidResolution, "Not a valid video resolution"},
        {0, 0, "cvbs", "1440p30", kInvalidStandard, "Not a valid video standard"},
    };
    for (const Case &c : refused)
        expect_error("SetVideoStandard",
                     g_variant_new("(iiss)", c.ch, c.auto_mode, c.standard, c.resolution), c.name,
                     c.message);
    EXPECT_THAT(calls_starting("set_video_standard"), IsEmpty());
    EXPECT_THAT(calls_starting("config_file_save_channel"), IsEmpty());

    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 3, 0, "ahd", "1440p15"));
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 1, 0, "ahd", "720p25"));
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 2, 1, "abc", ""));
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "on_set_video_standard channel: 2, auto_mode: 1, "
                                          "standard: abc, resolution: "),
              1u);
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(3,1,24,0,0)", "set_video_standard(1,1,5,0,0)",
                            "set_video_standard(2,5,31,1,0)"));
}

TEST_F(Handlers, FixedRequestMakesTheCapturePipelineFollow)
{
    /* The pipeline is in PAL mode; 1080p25 needs mode 3. */
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 1, 0, "tvi", "1080p25"));
    EXPECT_THAT(standins.calls,
                ElementsAre("set_video_standard(1,0,3,0,0)", "set_capture_mode(3,1)",
                            "overlay_set_config_changed(1)", "get_capture_mode_index(1)",
                            "update_video_input_type(1)", "set_capture_frequency(1)",
                            "config_file_save_channel(1)"));
    EXPECT_EQ(dec_->channels[1].capture_mode, 3);
    EXPECT_EQ(dec_->channels[1].capture_mode_changed, 1);
    g_autoptr(GVariant) video_type =
        property("/com/korvi/Encoder/1", "com.korvi.Encoder.Video", "VideoType");
    EXPECT_EQ(g_variant_get_int32(video_type), CS_HDTV1080P);

    /* The same request again changes nothing but still saves. */
    standins.calls.clear();
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 1, 0, "tvi", "1080p25"));
    EXPECT_THAT(standins.calls,
                ElementsAre("set_video_standard(1,0,3,0,0)", "config_file_save_channel(1)"));
}

TEST_F(Handlers, RefusedCaptureModeLeavesTheChannelUnmarked)
{
    standins.set_capture_mode_result = -5;
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "cvbs", "ntsc"));
    EXPECT_THAT(calls_starting("overlay_set_config_changed"), IsEmpty());
    EXPECT_EQ(dec_->channels[0].capture_mode, 1);
    EXPECT_EQ(dec_->channels[0].capture_mode_changed, 0);
}

TEST_F(Handlers, DecoderRefusalStillSaves)
{
    standins.standard_fails_on = 1;
    expect_error("SetVideoStandard", g_variant_new("(iiss)", 1, 0, "ahd", "1080p30"), kSystem,
                 "Not a valid video standard");
    /* A refused format is the client's doing: logged at info level. */
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Not a valid video standard"), 1u);
    EXPECT_EQ(calls_starting("config_file_save_channel").size(), 1u);
}

TEST_F(Handlers, UhdOnChannelZeroSwitchesChannelTwo)
{
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "cvi", "4k12"));
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(0,2,10,0,0)", "set_video_standard(2,4,33,0,0)"));
    EXPECT_EQ(dec_->channels[2].video_type, VT_DISABLED);
    EXPECT_EQ(dec_->channels[2].configured, 1);

    /* Leaving UHD brings channel 2 back to automatic detection. */
    standins.calls.clear();
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "cvi", "1080p25"));
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(0,2,3,0,0)", "set_video_standard(2,5,31,1,0)"));

    /* Back to 4K, then automatic mode on channel 0 frees channel 2 too. */
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "tvi", "4k15"));
    standins.calls.clear();
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 0, 1, "", ""));
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(0,5,31,1,0)", "set_video_standard(2,5,31,1,0)"));
}

TEST_F(Handlers, NewRequestOnDisabledChannelTwoFreesChannelZero)
{
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "ahd", "4k15"));
    standins.calls.clear();
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 2, 1, "", ""));
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(2,5,31,1,0)", "set_video_standard(0,5,31,1,0)"));

    /* A channel 0 that locked on 4K by itself, with channel 2 never
     * disabled, is not touched by requests for channel 2. */
    lock_channel(0, VS_TVI, VT_4K15);
    standins.calls.clear();
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 2, 0, "cvbs", "ntsc"));
    EXPECT_THAT(calls_starting("set_video_standard"), ElementsAre("set_video_standard(2,3,9,0,0)"));
    lock_channel(0, VS_TVI, VT_1080P30);

    /* A channel 0 that is not UHD stays as it is. */
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 2, 0, "cvbs", "pal"));
    standins.calls.clear();
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 2, 1, "", ""));
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(2,5,31,1,0)"));
}

TEST_F(Handlers, FailedCoupledChangeIsReported)
{
    standins.standard_fails_on = 2;
    expect_error("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "cvi", "4k12"), kSystem,
                 "Failed to change UHD settings");
    /* The requested channel has changed all the same. */
    EXPECT_EQ(dec_->channels[0].video_type, VT_4K12);
}

TEST_F(Handlers, ConfigurationListingShowsWhatTheChipWasSetUpFor)
{
    lock_channel(0, VS_CVBS, VT_NTSC);
    /* Channel 1: fixed but not locked. */
    dec_->channels[1].auto_mode = 0;
    dec_->channels[1].standard = VS_TVI;
    dec_->channels[2].standard = VS_DISABLED;
    dec_->channels[2].chip_state->resolution = VT_DISABLED;
    dec_->channels[2].chip_state->lock_state = LS_LOCKED;
    lock_channel(3, VS_AHD, 14); /* a valid type without a text */
    dec_->channels[3].capture_mode_changed = 1;

    Reply r;
    call(r, "ListConfig", nullptr);
    ASSERT_TRUE(r.ok());
    g_autoptr(GVariant) list = g_variant_get_child_value(r.value, 0);
    ASSERT_EQ(g_variant_n_children(list), 4u);
    struct Want {
        const char *standard;
        const char *resolution;
        gboolean auto_mode;
        gboolean changed;
    } const want[] = {
        {"cvbs", "ntsc", TRUE, FALSE},
        {"none", "none", FALSE, FALSE},
        {"disabled", "disabled", TRUE, FALSE},
        {"ahd", "none", TRUE, TRUE},
    };
    for (int i = 0; i < 4; i++) {
        guint32 sat, bri, con, hue, sha;
        gint32 x, y;
        const gchar *standard, *resolution;
        gboolean auto_mode, changed;
        g_autoptr(GVariant) entry = g_variant_get_child_value(list, i);
        g_variant_get(entry, "(uuuuuii&s&sbb)", &sat, &bri, &con, &hue, &sha, &x, &y, &standard,
                      &resolution, &auto_mode, &changed);
        EXPECT_STREQ(standard, want[i].standard) << "channel " << i;
        EXPECT_STREQ(resolution, want[i].resolution) << "channel " << i;
        EXPECT_EQ(auto_mode, want[i].auto_mode) << "channel " << i;
        EXPECT_EQ(changed, want[i].changed) << "channel " << i;
    }

    /* Locked on a marker type: no standard either. */
    lock_channel(3, VS_AHD, VT_AUTO);
    Reply again;
    call(again, "ListConfig", nullptr);
    g_autoptr(GVariant) list2 = g_variant_get_child_value(again.value, 0);
    g_autoptr(GVariant) entry3 = g_variant_get_child_value(list2, 3);
    const gchar *standard, *resolution;
    g_variant_get_child(entry3, 7, "&s", &standard);
    g_variant_get_child(entry3, 8, "&s", &resolution);
    EXPECT_STREQ(standard, "none");
    EXPECT_STREQ(resolution, "none");
}

TEST_F(Handlers, VideoPropertiesFollowTheChannelType)
{
    struct Case {
        int32_t type;
        gboolean is_sd;
        gint32 capture_standard;
        double sd_factor;
        double frame_rate;
    } const cases[] = {
        {VT_NTSC, TRUE, 1, 2.75, 30.0},
        {VT_4K12, FALSE, 7, 1.0, 12.5},
        {VT_AUTO, FALSE, -1, 1.0, 20.0},
    };
    dec_->channels[1].capture_mode_changed = 1;
    for (const Case &c : cases) {
        dec_->channels[1].video_type = c.type;
        Reply r;
        call(r, "GetVideoProperties", g_variant_new("(i)", 1));
        ASSERT_TRUE(r.ok());
        gboolean is_sd, changed;
        gint32 cs;
        double sd, fr;
        g_variant_get(r.value, "(biddb)", &is_sd, &cs, &sd, &fr, &changed);
        EXPECT_EQ(is_sd, c.is_sd) << c.type;
        EXPECT_EQ(cs, c.capture_standard) << c.type;
        EXPECT_DOUBLE_EQ(sd, c.sd_factor) << c.type;
        EXPECT_DOUBLE_EQ(fr, c.frame_rate) << c.type;
        EXPECT_TRUE(changed);
    }
}

std::vector<std::string> resolutions(GVariant *reply)
{
    std::vector<std::string> texts;
    g_autoptr(GVariant) list = g_variant_get_child_value(reply, 0);
    for (gsize i = 0; i < g_variant_n_children(list); i++) {
        const gchar *text;
        g_variant_get_child(list, i, "(&s)", &text);
        texts.emplace_back(text);
    }
    return texts;
}

TEST_F(Handlers, ResolutionListsDependOnTheChip)
{
    Reply r;
    call(r, "ListSupportedResolutions", nullptr);
    ASSERT_TRUE(r.ok());
    EXPECT_THAT(resolutions(r.value), ElementsAre("pal", "ntsc", "720p25", "720p30", "1080p25",
                                                  "1080p30", "1440p25", "1440p30", "4k12", "4k15"));

    teardown_decoder();
    standins_reset();
    standins.dec_chip = video_tp2826;
    setup_decoder();
    Reply r2;
    call(r2, "ListSupportedResolutions", nullptr);
    ASSERT_TRUE(r2.ok());
    EXPECT_THAT(resolutions(r2.value), ElementsAre("pal", "ntsc"));

    /* The TP2826 takes SD over CVBS only. */
    expect_ok("SetVideoStandard", g_variant_new("(iiss)", 3, 0, "cvbs", "pal"));
    expect_error("SetVideoStandard", g_variant_new("(iiss)", 0, 0, "tvi", "1080p30"),
                 kInvalidResolution, "Not a valid video resolution");
}

TEST_F(Handlers, VideoObjectsShowEachChannel)
{
    Reply r;
    call(r, kPath, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr);
    ASSERT_TRUE(r.ok());
    g_autoptr(GVariant) objects = g_variant_get_child_value(r.value, 0);
    std::vector<std::string> paths;
    for (gsize i = 0; i < g_variant_n_children(objects); i++) {
        const gchar *path;
        g_variant_get_child(objects, i, "{&o@a{sa{sv}}}", &path, nullptr);
        paths.emplace_back(path);
    }
    std::sort(paths.begin(), paths.end());
    EXPECT_THAT(paths, ElementsAre("/com/korvi/Encoder/0", "/com/korvi/Encoder/1",
                                   "/com/korvi/Encoder/2", "/com/korvi/Encoder/3"));

    g_autoptr(GVariant) detected =
        property("/com/korvi/Encoder/0", "com.korvi.Encoder.Video", "DetectedType");
    EXPECT_STREQ(g_variant_get_string(detected, nullptr), "none");

    /* Detected types and the capture pipeline's mode as published. */
    Channel *c = &dec_->channels[2];
    c->detected_type = VT_1440P15;
    video_object_set_detected_type(c);
    g_autoptr(GVariant) qhd =
        property("/com/korvi/Encoder/2", "com.korvi.Encoder.Video", "DetectedType");
    EXPECT_STREQ(g_variant_get_string(qhd, nullptr), "HDTVQHD");
    standins.capture_mode[2] = 5;
    video_object_set_video_type(c);
    g_autoptr(GVariant) video_type =
        property("/com/korvi/Encoder/2", "com.korvi.Encoder.Video", "VideoType");
    EXPECT_EQ(g_variant_get_int32(video_type), CS_HDTV4K);
    standins.capture_mode[2] = -22; /* the service did not answer */
    video_object_set_video_type(c);
    g_autoptr(GVariant) fallback =
        property("/com/korvi/Encoder/2", "com.korvi.Encoder.Video", "VideoType");
    EXPECT_EQ(g_variant_get_int32(fallback), CS_PAL);

    g_autoptr(GVariant) multi = property(kPath, kIface, "MultiDeviceProperties");
    EXPECT_TRUE(g_variant_get_boolean(multi));

    /* A second unexport finds nothing to do. */
    unexport_video_objects(dec_, manager_);
    unexport_video_objects(dec_, manager_);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(dec_->channels[i].video_object, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new PrivateBus);
    return RUN_ALL_TESTS();
}
