/* The Encoder service's handlers on a private bus with the real generated binding and decoder
 * object; the modules they reach are link-time stand-ins that record each call, the chip driver
 * slots that behave as the daemon relies on. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <gio/gio.h>

#include "configfile.h"
#include "dbus_binding.h"
#include "decoder.h"
#include "decoder_types.h"
#include "encoder_events.h"
#include "gpio.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "overlay.h"
#include "tp28xx.h"
#include "util.h"
#include "video_input_type.h"

using ::testing::ElementsAre;
using Calls = std::vector<std::string>;

namespace
{

struct Standins {
    Calls calls;
    int set_capture_mode_result = 0;
    int32_t standard_fails_on = -1; /* set_video_standard fails on this channel */
} standins;
char token;

void call(const char *format, ...) G_GNUC_PRINTF(1, 2);
void call(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_autofree gchar *text = g_strdup_vprintf(format, args);
    va_end(args);
    standins.calls.emplace_back(text);
}

/* The calls so far that start with one of the prefixes; the record is cleared. */
Calls take_calls(std::initializer_list<std::string> prefixes)
{
    Calls found;
    for (const auto &c : standins.calls)
        for (const auto &p : prefixes)
            if (c.starts_with(p))
                found.push_back(c);
    standins.calls.clear();
    return found;
}

/* The driver's contract for set_video_standard, as the daemon relies on it. */
int32_t fake_set_video_standard(Channel *c, int32_t standard, int32_t type, uint8_t auto_mode,
                                uint8_t internal)
{
    call("set_video_standard(%d,%d,%d,%d,%d)", c->index, standard, type, auto_mode, internal);
    if (c->index == standins.standard_fails_on)
        return -1;
    c->auto_mode = auto_mode;
    c->configured = type == VT_DISABLED;
    c->video_type = auto_mode == 1 && internal == 0 ? VT_AUTO : type;
    c->standard = standard;
    return 0;
}

} // namespace

// clang-format off
int gpio_reset_decoder(void) { return 0; }
int gpio_setup_irq(void) { return 0; }
int gpio_set_video_termination(int, int) { return 0; }
Decoder *tp28xx_create(void)
{
    Decoder *dec = g_new0(Decoder, 1);
    dec->dec_chip = video_tp2827;
    dec->nbr_channels = MAX_SOURCES;
    dec->ops.setup_channel = [](Channel *c) { c->chip_state = g_new0(DetectState, 1); return 1; };
    dec->ops.set_video_standard = fake_set_video_standard;
    return dec;
}
void tp28xx_close(Decoder *) {}
EncoderEvents *encoder_events_create(uint32_t) { return reinterpret_cast<EncoderEvents *>(&token); }
void encoder_events_free(EncoderEvents *) {}
int encoder_events_send_video_connected(EncoderEvents *, uint32_t, gboolean) { return 1; }
OverlayHandler *overlay_init(void) { return reinterpret_cast<OverlayHandler *>(&token); }
void overlay_deinit(OverlayHandler *) {}
int overlay_set_config_changed(OverlayHandler *, uint32_t ch) { call("overlay_set_config_changed(%u)", ch); return 0; }
bool config_file_load() { return true; }
bool config_file_create() { return true; }
bool config_file_save_channel(Channel *c)
{
    call("config_file_save_channel(%d) %d,%d,%d,%d", c->index, c->standard, c->video_type, c->auto_mode, c->configured);
    return true;
}
int32_t config_file_get_video_type(uint32_t) { return VT_AUTO; }
int32_t config_file_get_video_standard(uint32_t) { return VS_NONE; }
uint8_t config_file_get_auto(uint32_t) { return 1; }
int32_t get_capture_mode_index(int32_t) { return CM_PAL; }
int set_capture_mode(int32_t mode, int32_t ch) { call("capture_mode_set(%d,%d)", mode, ch); return standins.set_capture_mode_result; }
int set_capture_frequency(Channel *c) { call("capture_frequency_set(%d)", c->index); return 0; }
void set_channel_no_video(Decoder *, int32_t, int) {}
void update_video_input_type(Channel *c) { call("update_video_input_type(%d)", c->index); }
// clang-format on

namespace
{

constexpr const char *kPath = "/com/korvi/Encoder";

class Handlers : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { g_test_dbus_up(bus_ = g_test_dbus_new(G_TEST_DBUS_NONE)); }
    static void TearDownTestSuite()
    {
        g_test_dbus_down(bus_);
        g_clear_object(&bus_);
    }
    void SetUp() override
    {
        log_capture_start();
        standins = Standins();
        dec_ = decoder_create();
        ASSERT_NE(dec_, nullptr);
        /* The test calls itself over the bus. */
        conn_ = g_dbus_connection_new_for_address_sync(
            g_test_dbus_get_bus_address(bus_),
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        ASSERT_NE(conn_, nullptr);
        encoder_ = encoder_object_new(dec_);
        ASSERT_TRUE(g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(encoder_), conn_,
                                                     kPath, nullptr));
    }
    void TearDown() override
    {
        g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(encoder_));
        g_clear_object(&encoder_);
        decoder_exit(dec_);
        g_clear_object(&conn_);
        g_clear_pointer(&value_, g_variant_unref);
        g_clear_error(&error_);
    }

    /* Calls a method and runs the main context until the answer arrives. */
    GError *call(const char *method, GVariant *params)
    {
        g_clear_pointer(&value_, g_variant_unref);
        g_clear_error(&error_);
        bool done = false;
        auto on_reply = [&](GObject *source, GAsyncResult *res) {
            value_ = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), res, &error_);
            done = true;
        };
        g_dbus_connection_call(
            conn_, g_dbus_connection_get_unique_name(conn_), kPath, "com.korvi.Encoder", method,
            params, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
            [](GObject *source, GAsyncResult *res, gpointer data) {
                (*static_cast<decltype(on_reply) *>(data))(source, res);
            },
            &on_reply);
        while (!done)
            g_main_context_iteration(nullptr, TRUE);
        return error_;
    }
    void expect_ok(int ch, int auto_mode, const char *standard, const char *resolution)
    {
        auto *e =
            call("SetVideoStandard", g_variant_new("(iiss)", ch, auto_mode, standard, resolution));
        EXPECT_EQ(e, nullptr) << standard << " " << resolution << ": " << e->message;
    }
    /* Locks a channel on a format the way the driver would. */
    void lock_channel(int ch, int32_t standard, int32_t type)
    {
        Channel &c = dec_->channels[ch];
        c.standard = standard;
        c.video_type = c.chip_state->resolution = type;
        c.chip_state->lock_state = LS_LOCKED;
    }

    static inline GTestDBus *bus_ = nullptr;
    Decoder *dec_ = nullptr;
    GDBusConnection *conn_ = nullptr;
    DbusEncoder *encoder_ = nullptr;
    GVariant *value_ = nullptr;
    GError *error_ = nullptr;
};

/* Failures the board cannot bring about: no channel table, no channels, the
 * standard programming refusing on a channel. */
enum Fault { NONE, CH1_REFUSES, CH2_REFUSES, NO_TABLE, NO_CHANNELS };

TEST_F(Handlers, EveryFailureHasItsCodeMessageNameAndLogLevel)
{
    const unsigned info = G_LOG_LEVEL_INFO, error = korvi_log_level_bits(KORVI_LOG_LEVEL_ERROR);
    struct Row {
        Fault setup;
        const char *method, *params, *reply; /* code, D-Bus error name and message */
        unsigned level;
        Calls reached; /* the standard programming and the saves */
        // clang-format off
    } const rows[] = {
        {NO_TABLE, "SetHue", "(0, uint32 5)", "10 com.korvi.Encoder.Error.System: System error", error, {}},
        {NO_TABLE, "ListConfig", "()", "10 com.korvi.Encoder.Error.System: System error", error, {}},
        {NO_TABLE, "ListSupportedResolutions", "()", "10 com.korvi.Encoder.Error.System: System error", error, {}},
        {NO_CHANNELS, "ListConfig", "()", "20 com.korvi.Encoder.Error.InvalidArgument: Wrong number of channels", info, {}},
        {NO_CHANNELS, "ListSupportedResolutions", "()", "20 com.korvi.Encoder.Error.InvalidArgument: Wrong number of channels", info, {}},
        {NONE, "SetVideoStandard", "(0, -1, 'tvi', '1080p30')", "32 com.korvi.Encoder.Error.InvalidAutoMode: Not a valid auto mode", info, {}},
        {CH1_REFUSES, "SetVideoStandard", "(1, 0, 'ahd', '1080p30')", "10 com.korvi.Encoder.Error.System: Not a valid video standard", info,
         {"set_video_standard(1,1,2,0,0)", "config_file_save_channel(1) 5,31,1,0"}},
        /* Last, as it leaves channel 0 in UHD: channel 0 is taken and saved
         * before channel 2 is switched off. */
        {CH2_REFUSES, "SetVideoStandard", "(0, 0, 'cvi', '4k12')", "10 com.korvi.Encoder.Error.System: Failed to change UHD settings", info,
         {"set_video_standard(0,2,10,0,0)", "config_file_save_channel(0) 2,10,0,0",
          "set_video_standard(2,4,33,0,0)", "config_file_save_channel(2) 5,31,1,0"}},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.method) + row.params);
        log_capture_clear();
        standins.standard_fails_on = row.setup == CH1_REFUSES   ? 1
                                     : row.setup == CH2_REFUSES ? 2
                                                                : -1;
        Channel *const channels = dec_->channels;
        dec_->channels = row.setup == NO_TABLE ? nullptr : channels;
        dec_->nbr_channels = row.setup == NO_CHANNELS ? 0 : MAX_SOURCES;
        GError *e = call(row.method, g_variant_new_parsed(row.params));
        dec_->channels = channels;
        dec_->nbr_channels = MAX_SOURCES;
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->domain, encoder_error_quark());
        g_autofree gchar *name = g_dbus_error_get_remote_error(e);
        g_dbus_error_strip_remote_error(e);
        EXPECT_EQ(std::to_string(e->code) + " " + name + ": " + e->message, row.reply);
        EXPECT_EQ(log_count(row.level, e->message), 1u);
        EXPECT_EQ(take_calls({"set_", "config_file_save"}), row.reached);
    }
}

TEST_F(Handlers, UhdCouplesChannelsZeroAndTwoOnlyWhileOneOfThemIsInItAndListingNamesLockedTypes)
{
    /* Channel 2 leaving "disabled" sends channel 0 back to searching. */
    expect_ok(0, 0, "ahd", "4k15");
    take_calls({"set_video_standard"});
    expect_ok(2, 1, "", "");
    EXPECT_THAT(take_calls({"set_video_standard"}),
                ElementsAre("set_video_standard(2,5,31,1,0)", "set_video_standard(0,5,31,1,0)"));
    /* Channel 0 in UHD by itself, channel 2 never disabled: left alone. */
    lock_channel(0, VS_TVI, VT_4K15);
    expect_ok(2, 0, "cvbs", "ntsc");
    EXPECT_THAT(take_calls({"set_video_standard"}), ElementsAre("set_video_standard(2,3,9,0,0)"));
    /* Channel 2 disabled, channel 0 no longer UHD: left alone too. */
    expect_ok(0, 0, "cvi", "4k12");
    lock_channel(0, VS_TVI, VT_1080P30);
    take_calls({"set_video_standard"});
    expect_ok(2, 1, "", "");
    EXPECT_THAT(take_calls({"set_video_standard"}), ElementsAre("set_video_standard(2,5,31,1,0)"));

    /* A locked type without a text of its own still names its standard. */
    lock_channel(1, VS_AHD, 14);
    ASSERT_EQ(call("ListConfig", nullptr), nullptr);
    g_autoptr(GVariant) list = g_variant_get_child_value(value_, 0);
    const gchar *standard, *resolution;
    g_variant_get_child(list, 1, "(uuuuuii&s&sbb)", nullptr, nullptr, nullptr, nullptr, nullptr,
                        nullptr, nullptr, &standard, &resolution, nullptr, nullptr);
    EXPECT_EQ(std::string(standard) + "/" + resolution, "ahd/none");
}

TEST_F(Handlers, ARepeatedFixedRequestPublishesNothingAndARefusedCaptureModeMarksNothing)
{
    expect_ok(1, 0, "tvi", "1080p25");
    EXPECT_EQ(dec_->channels[1].capture_mode_changed, 1);
    standins.calls.clear();
    expect_ok(1, 0, "tvi", "1080p25");
    EXPECT_THAT(standins.calls, ElementsAre("set_video_standard(1,0,3,0,0)",
                                            "config_file_save_channel(1) 0,3,0,0"));
    standins.set_capture_mode_result = -5;
    expect_ok(0, 0, "cvbs", "ntsc");
    EXPECT_THAT(take_calls({"capture_mode_set", "overlay"}), ElementsAre("capture_mode_set(2,0)"));
    EXPECT_EQ(dec_->channels[0].capture_mode, 1);
    EXPECT_EQ(dec_->channels[0].capture_mode_changed, 0);
}

} // namespace
