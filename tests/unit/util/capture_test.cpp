/* The capture pipeline's mode and frequency, against the fake services. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder.h"
#include "decoder_types.h"
#include "log_capture.h"
#include "support/fake_bus.h"
#include "util.h"

using fake::journal_take;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

TEST(Capture, ModeIsReadPerChannelAndSetCountedFromZero)
{
    fake::bus_reset();
    fake::bus_set_capture_mode(3, CM_QHD);
    EXPECT_EQ(get_capture_mode_index(3), CM_QHD);
    EXPECT_EQ(get_capture_mode_index(1), CM_PAL);

    EXPECT_GE(set_capture_mode(CM_QHD, 2), 0);
    EXPECT_GE(set_capture_mode(CM_PAL, 0), 0);
    EXPECT_GE(set_capture_mode(CM_1080P, 1), 0);
    EXPECT_THAT(journal_take(),
                ElementsAre("SetCaptureMode(2)=5", "SetCaptureMode(0)=0", "SetCaptureMode(1)=2"));
    EXPECT_EQ(get_capture_mode_index(2), CM_QHD);
}

TEST(Capture, FrequencyFollowsTheFamilyOfTheVideoType)
{
    fake::bus_reset();
    const std::pair<int32_t, const char *> cases[] = {
        {VT_PAL, "50Hz"},     {VT_1080P25, "50Hz"},  {VT_4K12, "50Hz"},    {VT_720P25, "50Hz"},
        {VT_1440P25, "50Hz"}, {VT_NTSC, "60Hz"},     {VT_1440P30, "60Hz"}, {VT_1080P30, "60Hz"},
        {VT_NONE, "60Hz"},    {VT_DISABLED, "60Hz"},
    };
    for (int i = 0; const auto &[type, text] : cases) {
        Channel channel{};
        channel.index = i++ % 4;
        channel.video_type = type;
        EXPECT_GE(set_capture_frequency(&channel), 0);
        EXPECT_THAT(journal_take(),
                    ElementsAre("CaptureFrequency(" + std::to_string(channel.index) + ")=" + text))
            << "video type " << type;
    }
}

TEST(Capture, FailuresAreNegativeAndLogged)
{
    fake::bus_reset();
    fake::refuse_capture_mode = true;
    EXPECT_LT(set_capture_mode(CM_NTSC, 1), 0);
    EXPECT_EQ(get_capture_mode_index(1), CM_PAL);
    /* Channel 7 has no object. */
    EXPECT_LT(get_capture_mode_index(7), 0);

    fake::bus_make_unreachable(true);
    Channel channel{};
    channel.video_type = VT_PAL;
    EXPECT_LT(get_capture_mode_index(0), 0);
    EXPECT_LT(set_capture_mode(CM_PAL, 0), 0);
    EXPECT_LT(set_capture_frequency(&channel), 0);
    EXPECT_THAT(journal_take(), ElementsAre("SetCaptureMode(1)=1"));

    const std::pair<unsigned, const char *> expected[] = {
        {G_LOG_LEVEL_INFO,
         "set_capture_mode Unable to set SetCaptureMode on channel 1 capture mode refused"},
        {G_LOG_LEVEL_INFO, "get_capture_mode_index Unable to get CaptureModeIndex on channel 7 .+"},
        {G_LOG_LEVEL_INFO, "get_capture_mode_index Failed to acquire bus \\(-[0-9]+\\)"},
        {G_LOG_LEVEL_INFO, "set_capture_mode Failed to acquire bus \\(-[0-9]+\\)"},
        {G_LOG_LEVEL_WARNING, "set_capture_frequency: Failed to acquire bus \\(-[0-9]+\\)"},
    };
    const auto logs = log_capture_messages();
    ASSERT_EQ(logs.size(), std::size(expected));
    for (size_t i = 0; i < logs.size(); i++) {
        EXPECT_THAT(logs[i].text, testing::MatchesRegex(expected[i].second));
        EXPECT_EQ(logs[i].level, expected[i].first) << logs[i].text;
    }
}

} // namespace
