#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capcore_standin.h"
#include "decoder.h"
#include "decoder_types.h"
#include "video_input_type.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

struct LogLine {
    guint level;
    std::string message;
};
std::vector<LogLine> logged;

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    logged.push_back({static_cast<guint>(level & G_LOG_LEVEL_MASK), message});
}

class VideoInputType : public testing::Test
{
  protected:
    void SetUp() override
    {
        standin::reset();
        logged.clear();
        g_log_set_default_handler(capture_log, nullptr);
    }
    void TearDown() override
    {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        EXPECT_EQ(standin::live_objects, 0) << "an object was not released";
    }
    void update(int32_t index, int32_t video_type)
    {
        Channel channel = {};
        channel.index = index;
        channel.video_type = video_type;
        update_video_input_type(&channel);
    }
    /* The one warning logged, or "" when there was none. */
    std::string warning()
    {
        if (logged.empty())
            return "";
        EXPECT_EQ(logged.size(), 1u);
        EXPECT_EQ(logged[0].level, static_cast<guint>(G_LOG_LEVEL_WARNING));
        return logged[0].message;
    }
};

TEST_F(VideoInputType, SdPalAndNtscAreTold)
{
    update(0, VT_PAL);
    EXPECT_THAT(standin::calls,
                ElementsAre("system_new", "wait_for_started", "map_new", "input_new 0",
                            "map_set_uint32 video_type1 1", "set_settings", "unref input",
                            "unref map", "unref system"));
    EXPECT_EQ(warning(), "");

    standin::calls.clear();
    update(3, VT_NTSC);
    EXPECT_THAT(standin::calls, testing::Contains("map_set_uint32 video_type4 2"));
    EXPECT_THAT(standin::calls, testing::Contains("input_new 0")) << "always input 0";
}

TEST_F(VideoInputType, EverythingElseIsZero)
{
    for (int32_t type : {VT_1080P25, VT_720P30, VT_4K15, VT_1440P30, VT_NONE, VT_DISABLED}) {
        standin::calls.clear();
        update(1, type);
        EXPECT_THAT(standin::calls, testing::Contains("map_set_uint32 video_type2 0")) << type;
    }
    EXPECT_EQ(warning(), "");
}

TEST_F(VideoInputType, UnreachableVideoSystem)
{
    standin::system_new = standin::Outcome::FailWithError;
    standin::error_text = "Could not connect: No such file or directory";
    update(0, VT_PAL);
    EXPECT_THAT(standin::calls, ElementsAre("system_new"));
    /* The text ends in ": " and the format adds its own colon. */
    EXPECT_EQ(warning(),
              "Failed to update video_type: :Could not connect: No such file or directory");

    logged.clear();
    standin::calls.clear();
    standin::system_new = standin::Outcome::FailWithoutError;
    update(0, VT_PAL);
    EXPECT_THAT(standin::calls, ElementsAre("system_new"));
    EXPECT_EQ(warning(), "");
}

TEST_F(VideoInputType, VideoSystemNotStarted)
{
    standin::wait_for_started = standin::Outcome::FailWithError;
    standin::error_text = "timed out";
    update(2, VT_NTSC);
    EXPECT_THAT(standin::calls, ElementsAre("system_new", "wait_for_started", "unref system"));
    EXPECT_EQ(warning(), "Failed to update video_type: :timed out");

    logged.clear();
    standin::calls.clear();
    standin::wait_for_started = standin::Outcome::FailWithoutError;
    update(2, VT_NTSC);
    EXPECT_THAT(standin::calls, ElementsAre("system_new", "wait_for_started", "unref system"));
    EXPECT_EQ(warning(), "");
}

TEST_F(VideoInputType, InputUnavailable)
{
    standin::input_new = standin::Outcome::FailWithError;
    standin::error_text = "no input";
    update(0, VT_PAL);
    EXPECT_THAT(standin::calls, ElementsAre("system_new", "wait_for_started", "map_new",
                                            "input_new 0", "unref map", "unref system"));
    EXPECT_EQ(warning(), "Failed to update video_type: :no input");
}

TEST_F(VideoInputType, SettingRefused)
{
    standin::set_settings = standin::Outcome::FailWithError;
    standin::error_text = "GDBus.Error:com.korvi.Error.Busy: busy";
    update(1, VT_PAL);
    EXPECT_THAT(standin::calls,
                ElementsAre("system_new", "wait_for_started", "map_new", "input_new 0",
                            "map_set_uint32 video_type2 1", "set_settings", "unref input",
                            "unref map", "unref system"));
    EXPECT_EQ(warning(), "Failed to update video_type: :GDBus.Error:com.korvi.Error.Busy: busy");

    /* A refusal without an error goes unreported. */
    logged.clear();
    standin::set_settings = standin::Outcome::FailWithoutError;
    update(1, VT_PAL);
    EXPECT_EQ(warning(), "");
}

} // namespace
