/* The video system's per-input "video_type" setting against a recording
 * stand-in of the video system library: every call, release and warning is
 * recorded in one sequence, and failures are scripted. */
#include <gtest/gtest.h>

#include "capcore.h"
#include "decoder.h"
#include "decoder_types.h"
#include "video_input_type.h"

namespace
{

std::string calls;   /* each call, release or warning followed by "; " */
std::string failing; /* the call that fails, if any */

bool fails(const std::string &call, GError **error)
{
    calls += call + "; ";
    if (call.rfind(failing, 0) != 0 || failing.empty())
        return false;
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_FAILED, "%s refused", failing.c_str());
    return true;
}

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    EXPECT_EQ(level & G_LOG_LEVEL_MASK, G_LOG_LEVEL_WARNING) << message;
    calls += "warning " + std::string(message) + "; ";
}

} // namespace

/* Stand-in objects record their release. */
#define STAND_IN(Type, prefix, name)                                                               \
    struct _##Type {                                                                               \
        GObject parent;                                                                            \
    };                                                                                             \
    G_DEFINE_TYPE(Type, prefix, G_TYPE_OBJECT)                                                     \
    void prefix##_init(Type *) {}                                                                  \
    void prefix##_class_init(Type##Class *klass)                                                   \
    {                                                                                              \
        G_OBJECT_CLASS(klass)->finalize = [](GObject *object) {                                    \
            calls += "free " name "; ";                                                            \
            G_OBJECT_CLASS(prefix##_parent_class)->finalize(object);                               \
        };                                                                                         \
    }
STAND_IN(CapcoreSystem, capcore_system, "system")
STAND_IN(CapcoreMap, capcore_map, "map")
STAND_IN(CapcoreInput, capcore_input, "input")

CapcoreSystem *capcore_system_new(GError **error)
{
    if (fails("system_new", error))
        return nullptr;
    return CAPCORE_SYSTEM(g_object_new(CAPCORE_TYPE_SYSTEM, nullptr));
}
gboolean capcore_system_wait_for_started(CapcoreSystem *, GError **error)
{
    return !fails("wait_for_started", error);
}
CapcoreMap *capcore_map_new(void)
{
    calls += "map_new; ";
    return CAPCORE_MAP(g_object_new(CAPCORE_TYPE_MAP, nullptr));
}
void capcore_map_set_uint32(CapcoreMap *, const gchar *key, guint32 value)
{
    calls += "map_set " + std::string(key) + " " + std::to_string(value) + "; ";
}
CapcoreInput *capcore_input_new(guint index, GError **error)
{
    if (fails("input_new " + std::to_string(index), error))
        return nullptr;
    return CAPCORE_INPUT(g_object_new(CAPCORE_TYPE_INPUT, nullptr));
}
gboolean capcore_input_set_settings(CapcoreInput *, CapcoreMap *, GError **error)
{
    return !fails("set_settings", error);
}

class VideoInputType : public testing::Test
{
  protected:
    void SetUp() override { g_log_set_default_handler(capture_log, nullptr); }
    void TearDown() override { g_log_set_default_handler(g_log_default_handler, nullptr); }
};

TEST_F(VideoInputType, TellsSdPalAndNtscApartFromTheRest)
{
    const struct {
        int32_t index, video_type;
        std::string setting;
    } cases[] = {
        {0, VT_PAL, "video_type1 1"},     {3, VT_NTSC, "video_type4 2"},
        {1, VT_1080P25, "video_type2 0"}, {2, VT_4K15, "video_type3 0"},
        {0, VT_NONE, "video_type1 0"},    {0, VT_DISABLED, "video_type1 0"},
    };
    for (const auto &c : cases) {
        calls.clear();
        Channel channel = {};
        channel.index = c.index;
        channel.video_type = c.video_type;
        update_video_input_type(&channel);
        EXPECT_EQ(calls, "system_new; wait_for_started; map_new; input_new 0; map_set " +
                             c.setting + "; set_settings; free input; free map; free system; ");
    }
}

TEST_F(VideoInputType, FailuresAreWarningsAndReleaseEverything)
{
    const std::string warning = "warning Failed to update video_type: :";
    const std::pair<std::string, std::string> cases[] = {
        {"system_new", "system_new; " + warning + "system_new refused; "},
        {"wait_for_started",
         "system_new; wait_for_started; " + warning + "wait_for_started refused; free system; "},
        {"input_new", "system_new; wait_for_started; map_new; input_new 0; free map; " + warning +
                          "input_new refused; free system; "},
        {"set_settings", "system_new; wait_for_started; map_new; input_new 0; map_set "
                         "video_type1 1; set_settings; free input; free map; " +
                             warning + "set_settings refused; free system; "},
    };
    for (const auto &[step, expected] : cases) {
        calls.clear();
        failing = step;
        Channel channel = {};
        channel.video_type = VT_PAL;
        update_video_input_type(&channel);
        EXPECT_EQ(calls, expected);
    }
    failing.clear();
}
