/* The video system's per-input "video_type" setting against a recording
 * stand-in of the video system library: every call, release and warning lands
 * in one sequence, and one call can be made to fail. */
#include <gtest/gtest.h>

#include "capcore.h"
#include "decoder.h"
#include "decoder_types.h"
#include "video_input_type.h"

namespace
{

std::string calls, failing;

bool fails(const std::string &call, GError **error)
{
    calls += call + "; ";
    if (failing.empty() || !call.starts_with(failing))
        return false;
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_FAILED, "%s refused", failing.c_str());
    return true;
}

/* A plain GObject that records its release. */
template <typename T>
T *object(const char *name)
{
    GObject *o = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    g_object_weak_ref(
        o,
        [](gpointer n, GObject *) {
            calls += "free " + std::string(static_cast<char *>(n)) + "; ";
        },
        const_cast<char *>(name));
    return reinterpret_cast<T *>(o);
}

} // namespace

// clang-format off
CapcoreSystem *capcore_system_new(GError **e) { return fails("system_new", e) ? nullptr : object<CapcoreSystem>("system"); }
gboolean capcore_system_wait_for_started(CapcoreSystem *, GError **e) { return !fails("wait_for_started", e); }
CapcoreMap *capcore_map_new(void) { calls += "map_new; "; return object<CapcoreMap>("map"); }
void capcore_map_set_uint32(CapcoreMap *, const gchar *key, guint32 value) { calls += "map_set " + std::string(key) + " " + std::to_string(value) + "; "; }
CapcoreInput *capcore_input_new(guint n, GError **e) { return fails("input_new " + std::to_string(n), e) ? nullptr : object<CapcoreInput>("input"); }
gboolean capcore_input_set_settings(CapcoreInput *, CapcoreMap *, GError **e) { return !fails("set_settings", e); }
// clang-format on

TEST(VideoInputType, ValuePerTypeAndEveryFailureWarnedAndReleased)
{
    g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
            EXPECT_EQ(level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_WARNING) << message;
            calls += "warning " + std::string(message) + "; ";
        },
        nullptr);
    const std::string ok = "system_new; wait_for_started; map_new; input_new 0; map_set ",
                      done = "; set_settings; free input; free map; ",
                      warning = "warning Failed to update video_type: :";
    /* Only SD PAL (1) and NTSC (2) are told apart; everything goes to input 0. */
    const struct {
        int32_t index, video_type;
        const char *failing;
        std::string calls;
    } cases[] = {
        {0, VT_PAL, "", ok + "video_type1 1" + done + "free system; "},
        {3, VT_NTSC, "", ok + "video_type4 2" + done + "free system; "},
        {1, VT_1080P25, "", ok + "video_type2 0" + done + "free system; "},
        {2, VT_NONE, "", ok + "video_type3 0" + done + "free system; "},
        {0, VT_PAL, "system_new", "system_new; " + warning + "system_new refused; "},
        {0, VT_PAL, "wait_for_started",
         "system_new; wait_for_started; " + warning + "wait_for_started refused; free system; "},
        {0, VT_PAL, "input_new",
         "system_new; wait_for_started; map_new; input_new 0; free map; " + warning +
             "input_new refused; free system; "},
        {0, VT_PAL, "set_settings",
         ok + "video_type1 1" + done + warning + "set_settings refused; free system; "},
    };
    for (const auto &c : cases) {
        calls.clear();
        failing = c.failing;
        Channel channel = {};
        channel.index = c.index;
        channel.video_type = c.video_type;
        update_video_input_type(&channel);
        EXPECT_EQ(calls, c.calls) << c.failing;
    }
    g_log_set_default_handler(g_log_default_handler, nullptr);
}
