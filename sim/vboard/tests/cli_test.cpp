#include <gtest/gtest.h>

#include "cli.h"

using namespace vboard;

TEST(CameraOption, ParsesChannelStandardResolutionAndLongLines)
{
    std::string error;
    auto c = parse_camera_option("2:cvi:720p25:long", &error);
    ASSERT_TRUE(c) << error;
    EXPECT_EQ(c->channel, 2);
    EXPECT_EQ(c->camera.standard, Standard::CVI);
    EXPECT_EQ(c->camera.resolution, RES_720P25);
    EXPECT_TRUE(c->camera.long_lines);

    c = parse_camera_option("0:cvbs:ntsc", &error);
    ASSERT_TRUE(c) << error;
    EXPECT_EQ(c->camera.resolution, RES_NTSC);
    EXPECT_FALSE(c->camera.long_lines);
}

TEST(CameraOption, RefusesWhatNoCameraSends)
{
    std::string error;
    for (const char *bad :
         {"4:tvi:pal", "-1:tvi:pal", "0x1:tvi:pal", "0:tvi", "0:tvi:720p25:x", "0:tvi:1080p25:long",
          "0:cvbs:1080p25", "0:hdmi:pal", "0:tvi:8k", "0:tvi:pal:long:x"}) {
        error.clear();
        EXPECT_FALSE(parse_camera_option(bad, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}

TEST(CaptureModeOption, NamesAndNumbers)
{
    std::string error;
    auto m = parse_capture_mode_option("3:qhd", &error);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->channel, 3);
    EXPECT_EQ(m->mode, 6);
    m = parse_capture_mode_option("1:2", &error);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->mode, 2);
    EXPECT_STREQ(capture_mode_text(m->mode), "ntsc");
    EXPECT_FALSE(parse_capture_mode_option("1:0", &error));
    EXPECT_FALSE(parse_capture_mode_option("1:7", &error));
    EXPECT_FALSE(parse_capture_mode_option("1", &error));
}

TEST(ResolutionText, RoundTripsEveryName)
{
    for (const char *name : {"pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p15",
                             "1440p25", "1440p30", "4k12", "4k15"}) {
        auto r = resolution_from_text(name);
        ASSERT_TRUE(r) << name;
        EXPECT_EQ(resolution_text(*r), name);
    }
    EXPECT_FALSE(resolution_from_text("1080P25"));
    EXPECT_EQ(resolution_text(0), "type 0");
}

TEST(JsonQuote, EscapesControlAndQuoteCharacters)
{
    EXPECT_EQ(json_quote("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\n\\u0001\"");
}
