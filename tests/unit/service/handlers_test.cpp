/* The Encoder service's handlers on a private bus, called the way a client
 * calls them, with the real generated binding and decoder object. The modules
 * they reach are replaced at link time by stand-ins that record each call, and
 * the chip driver by slots that behave as the daemon relies on. */
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
    int32_t capture_mode[MAX_SOURCES] = {1, 1, 1, 1};
    int set_capture_mode_result = 0;
    int32_t slot_result = 0;        /* the x offset slot */
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

Calls calls_starting(std::initializer_list<std::string> prefixes)
{
    Calls found;
    for (const auto &c : standins.calls)
        for (const auto &p : prefixes)
            if (c.starts_with(p))
                found.push_back(c);
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
    if (auto_mode == 1 && internal == 0) {
        c->video_type = VT_AUTO;
        c->chip_state->lock_state = LS_SEARCH;
        return 0;
    }
    c->chip_state->resolution = c->video_type = type;
    c->chip_state->lock_state = LS_LOCKED;
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
    dec->ops.set_xoffset = [](Channel *c, int32_t v) { call("set_xoffset(%d,%d)", c->index, v); return standins.slot_result; };
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
    call("config_file_save_channel(%d) %d,%d,%d,%d", c->index, c->standard, c->video_type, c->auto_mode,
         c->configured);
    return true;
}
int32_t config_file_get_video_type(uint32_t) { return VT_AUTO; }
int32_t config_file_get_video_standard(uint32_t) { return VS_NONE; }
uint8_t config_file_get_auto(uint32_t) { return 1; }
int32_t get_capture_mode_index(int32_t ch) { call("capture_mode_get(%d)", ch); return standins.capture_mode[ch]; }
int set_capture_mode(int32_t capture_mode, int32_t channel)
{
    call("capture_mode_set(%d,%d)", capture_mode, channel);
    if (standins.set_capture_mode_result >= 0)
        standins.capture_mode[channel] = capture_mode;
    return standins.set_capture_mode_result;
}
int set_capture_frequency(Channel *c) { call("capture_frequency_set(%d)", c->index); return 0; }
void set_channel_no_video(Decoder *, int32_t, int) {}
void update_video_input_type(Channel *c) { call("update_video_input_type(%d)", c->index); }
// clang-format on

namespace
{

constexpr const char *kPath = "/com/korvi/Encoder";

GDBusConnection *connect_bus(const char *address)
{
    return g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
}

struct Reply {
    GVariant *value = nullptr;
    GError *error = nullptr;
    ~Reply()
    {
        g_clear_pointer(&value, g_variant_unref);
        g_clear_error(&error);
    }
};

class Handlers : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { g_test_dbus_up(bus_ = g_test_dbus_new(G_TEST_DBUS_NONE)); }
    static void TearDownTestSuite()
    {
        g_test_dbus_down(bus_);
        g_clear_object(&bus_);
    }
    void SetUp() override { setup_decoder(); }
    void TearDown() override { teardown_decoder(); }

    void setup_decoder()
    {
        log_capture_start();
        standins = Standins();
        dec_ = decoder_create();
        ASSERT_NE(dec_, nullptr);
        conn_ = connect_bus(g_test_dbus_get_bus_address(bus_)); /* calls itself via the bus */
        ASSERT_NE(conn_, nullptr);
        encoder_ = encoder_object_new(dec_);
        ASSERT_TRUE(g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(encoder_), conn_,
                                                     kPath, nullptr));
        manager_ = g_dbus_object_manager_server_new(kPath);
        export_video_objects(dec_, manager_);
        g_dbus_object_manager_server_set_connection(manager_, conn_);
        standins.calls.clear();
    }
    void teardown_decoder()
    {
        unexport_video_objects(dec_, manager_);
        g_dbus_object_manager_server_set_connection(manager_, nullptr);
        g_clear_object(&manager_);
        g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(encoder_));
        g_clear_object(&encoder_);
        decoder_exit(dec_);
        g_clear_object(&conn_);
    }

    /* Calls a method the way a client does and runs the main context until
     * the answer arrives. */
    void call(Reply &r, const char *method, GVariant *params)
    {
        bool done = false;
        auto on_reply = [&](GObject *source, GAsyncResult *res) {
            r.value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), res, &r.error);
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
    }
    void expect_ok(int ch, int auto_mode, const char *standard, const char *resolution)
    {
        Reply r;
        call(r, "SetVideoStandard", g_variant_new("(iiss)", ch, auto_mode, standard, resolution));
        EXPECT_EQ(r.error, nullptr) << standard << " " << resolution << ": " << r.error->message;
    }
    /* The standard calls that reached the chip since the last look. */
    Calls standard_calls()
    {
        Calls c = calls_starting({"set_video_standard"});
        standins.calls.clear();
        return c;
    }
    /* Locks a channel on a format the way the driver would. */
    void lock_channel(int ch, int32_t standard, int32_t type, int32_t lock_state = LS_LOCKED)
    {
        Channel &c = dec_->channels[ch];
        c.standard = standard;
        c.video_type = c.chip_state->resolution = type;
        c.chip_state->lock_state = lock_state;
    }

    static inline GTestDBus *bus_ = nullptr;
    Decoder *dec_ = nullptr;
    GDBusConnection *conn_ = nullptr;
    DbusEncoder *encoder_ = nullptr;
    GDBusObjectManagerServer *manager_ = nullptr;
};

/* Failures the board cannot bring about: no channel table, no channels, a slot
 * or the standard programming refusing, and texts the handlers must judge in
 * the right order. */
enum Fault { NONE, SLOT_FAILS, CH1_REFUSES, CH2_REFUSES, NO_TABLE, NO_CHANNELS };

TEST_F(Handlers, EveryFailureHasItsCodeMessageNameAndLogLevel)
{
    const unsigned info = G_LOG_LEVEL_INFO, error = korvi_log_level_bits(KORVI_LOG_LEVEL_ERROR);
    struct Row {
        Fault setup;
        const char *method, *params;
        int code;
        const char *name, *message;
        unsigned level;
        Calls reached; /* calls of the chip slots and the save */
        // clang-format off
    } const rows[] = {
        {NO_TABLE, "SetHue", "(0, uint32 5)", 10, "System", "System error", error, {}},
        {NO_TABLE, "ListConfig", "()", 10, "System", "System error", error, {}},
        {NO_TABLE, "ListSupportedResolutions", "()", 10, "System", "System error", error, {}},
        {NO_CHANNELS, "ListConfig", "()", 20, "InvalidArgument", "Wrong number of channels", info, {}},
        {NO_CHANNELS, "ListSupportedResolutions", "()", 20, "InvalidArgument", "Wrong number of channels", info, {}},
        {SLOT_FAILS, "SetXOffset", "(0, 10)", 10, "System", "Failed to set x offset", error, {"set_xoffset(0,10)"}},
        {NONE, "SetVideoStandard", "(0, -1, 'tvi', '1080p30')", 32, "InvalidAutoMode", "Not a valid auto mode", info, {}},
        {NONE, "SetVideoStandard", "(0, 0, 'CVBS', 'pal')", 31, "InvalidStandard", "Not a valid video standard", info, {}},
        {NONE, "SetVideoStandard", "(0, 0, 'disabled', 'disabled')", 31, "InvalidStandard", "Not a valid video standard", info, {}},
        {NONE, "SetVideoStandard", "(0, 0, 'cvbs', '1440p30')", 31, "InvalidStandard", "Not a valid video standard", info, {}},
        {CH1_REFUSES, "SetVideoStandard", "(1, 0, 'ahd', '1080p30')", 10, "System", "Not a valid video standard", info,
         {"set_video_standard(1,1,2,0,0)", "config_file_save_channel(1) 5,31,1,0"}},
        /* Channel 0 is taken and saved before channel 2 is switched off. */
        {CH2_REFUSES, "SetVideoStandard", "(0, 0, 'cvi', '4k12')", 10, "System", "Failed to change UHD settings", info,
         {"set_video_standard(0,2,10,0,0)", "config_file_save_channel(0) 2,10,0,0",
          "set_video_standard(2,4,33,0,0)", "config_file_save_channel(2) 5,31,1,0"}},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.method) + row.params);
        teardown_decoder();
        setup_decoder();
        standins.slot_result = row.setup == SLOT_FAILS ? -1 : 0;
        standins.standard_fails_on = row.setup == CH1_REFUSES   ? 1
                                     : row.setup == CH2_REFUSES ? 2
                                                                : -1;
        Channel *const channels = dec_->channels;
        if (row.setup == NO_TABLE)
            dec_->channels = nullptr;
        if (row.setup == NO_CHANNELS)
            dec_->nbr_channels = 0;
        Reply r;
        call(r, row.method, g_variant_new_parsed(row.params));
        dec_->channels = channels;
        dec_->nbr_channels = MAX_SOURCES;

        ASSERT_NE(r.error, nullptr);
        EXPECT_TRUE(g_error_matches(r.error, encoder_error_quark(), row.code)) << r.error->code;
        g_autofree gchar *name = g_dbus_error_get_remote_error(r.error);
        EXPECT_EQ(std::string(name), std::string("com.korvi.Encoder.Error.") + row.name);
        g_dbus_error_strip_remote_error(r.error);
        EXPECT_STREQ(r.error->message, row.message);
        EXPECT_EQ(log_count(row.level, row.message), 1u);
        EXPECT_EQ(calls_starting({"set_", "config_file_save"}), row.reached);
        for (int i = 0; i < MAX_SOURCES; i++)
            EXPECT_EQ(dec_->channels[i].xoffset, 0) << i;
    }
}

TEST_F(Handlers, StandardsReachTheChipAsTypedValuesAndUhdCouplesChannelsZeroAndTwo)
{
    expect_ok(3, 0, "ahd", "1440p15"); /* taken on channel 3 though not listed */
    expect_ok(2, 1, "abc", "");        /* automatic: the texts are not looked at */
    EXPECT_THAT(standard_calls(),
                ElementsAre("set_video_standard(3,1,24,0,0)", "set_video_standard(2,5,31,1,0)"));
    /* Channel 0 leaving UHD for another fixed format gives channel 2 back. */
    expect_ok(0, 0, "cvi", "4k12");
    standard_calls();
    expect_ok(0, 0, "cvi", "1080p25");
    EXPECT_THAT(standard_calls(),
                ElementsAre("set_video_standard(0,2,3,0,0)", "set_video_standard(2,5,31,1,0)"));
    /* Channel 2 leaving "disabled" sends channel 0 back to searching. */
    expect_ok(0, 0, "ahd", "4k15");
    standard_calls();
    expect_ok(2, 1, "", "");
    EXPECT_THAT(standard_calls(),
                ElementsAre("set_video_standard(2,5,31,1,0)", "set_video_standard(0,5,31,1,0)"));
    /* Channel 0 in UHD by itself, channel 2 never disabled: left alone. */
    lock_channel(0, VS_TVI, VT_4K15);
    expect_ok(2, 0, "cvbs", "ntsc");
    EXPECT_THAT(standard_calls(), ElementsAre("set_video_standard(2,3,9,0,0)"));
    /* Channel 2 disabled, channel 0 no longer UHD: left alone too. */
    expect_ok(0, 0, "cvi", "4k12");
    lock_channel(0, VS_TVI, VT_1080P30);
    standard_calls();
    expect_ok(2, 1, "", "");
    EXPECT_THAT(standard_calls(), ElementsAre("set_video_standard(2,5,31,1,0)"));
}

TEST_F(Handlers, FixedRequestMakesTheCapturePipelineFollowAndARepeatPublishesNothing)
{
    /* The pipeline is in PAL mode; 1080p25 needs mode 3. The type is
     * published after the switch, so it is read back from the new mode. */
    expect_ok(1, 0, "tvi", "1080p25");
    EXPECT_THAT(standins.calls,
                ElementsAre("set_video_standard(1,0,3,0,0)", "capture_mode_set(3,1)",
                            "overlay_set_config_changed(1)", "capture_mode_get(1)",
                            "update_video_input_type(1)", "capture_frequency_set(1)",
                            "config_file_save_channel(1) 0,3,0,0"));
    EXPECT_EQ(dec_->channels[1].capture_mode, 3);
    EXPECT_EQ(dec_->channels[1].capture_mode_changed, 1);

    standins.calls.clear();
    expect_ok(1, 0, "tvi", "1080p25");
    EXPECT_THAT(standins.calls, ElementsAre("set_video_standard(1,0,3,0,0)",
                                            "config_file_save_channel(1) 0,3,0,0"));

    /* A refused capture mode leaves the channel unmarked. */
    standins.set_capture_mode_result = -5;
    expect_ok(0, 0, "cvbs", "ntsc");
    EXPECT_THAT(calls_starting({"capture_mode_set", "overlay"}),
                ElementsAre("capture_mode_set(2,0)"));
    EXPECT_EQ(dec_->channels[0].capture_mode, 1);
    EXPECT_EQ(dec_->channels[0].capture_mode_changed, 0);
}

TEST_F(Handlers, ListConfigNamesOnlyALockedFormatWithAText)
{
    struct Row {
        int32_t standard, type, lock_state;
        const char *standard_text, *resolution_text;
    } const rows[] = {
        {VS_TVI, VT_720P30, LS_CONFIRM, "none", "none"}, /* not locked yet */
        {VS_AHD, 14, LS_LOCKED, "ahd", "none"},          /* a valid type without a text */
        {VS_AHD, VT_AUTO, LS_LOCKED, "none", "none"},    /* locked on a marker type */
    };
    dec_->channels[1].auto_mode = 0;
    dec_->channels[1].capture_mode_changed = 1;
    for (const Row &row : rows) {
        lock_channel(1, row.standard, row.type, row.lock_state);
        Reply r;
        call(r, "ListConfig", nullptr);
        ASSERT_EQ(r.error, nullptr);
        g_autoptr(GVariant) list = g_variant_get_child_value(r.value, 0);
        ASSERT_EQ(g_variant_n_children(list), 4u);
        const gchar *standard, *resolution;
        gboolean auto_mode, changed;
        g_variant_get_child(list, 1, "(uuuuuii&s&sbb)", nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, &standard, &resolution, &auto_mode, &changed);
        EXPECT_STREQ(standard, row.standard_text) << row.type;
        EXPECT_STREQ(resolution, row.resolution_text) << row.type;
        EXPECT_FALSE(auto_mode);
        EXPECT_TRUE(changed);
    }
}

} // namespace
