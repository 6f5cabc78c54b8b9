/* The capture pipeline's mode and frequency, against fake image control and
 * capture mode services on a private bus. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder.h"
#include "decoder_types.h"
#include "korvi_log.h"
#include "support/fake_services.h"
#include "support/journal.h"
#include "util.h"

using testing::ElementsAre;
using testing::IsEmpty;
using namespace testsupport;

namespace
{

class CaptureTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        log_capture_install();
        bus = &FakeServices::get();
        journal_take();
        logs_take();
    }

    Channel channel_with(int32_t index, int32_t video_type)
    {
        Channel channel{};
        channel.index = index;
        channel.video_type = video_type;
        return channel;
    }

    FakeServices *bus = nullptr;
};

TEST_F(CaptureTest, CaptureModeIsReadPerChannel)
{
    bus->set_capture_mode(0, CM_1080P);
    bus->set_capture_mode(2, CM_QHD);
    EXPECT_EQ(get_capture_mode_index(0), CM_1080P);
    EXPECT_EQ(get_capture_mode_index(1), CM_PAL);
    EXPECT_EQ(get_capture_mode_index(2), CM_QHD);
}

TEST_F(CaptureTest, SetCaptureModeSendsTheModeCountedFromZero)
{
    EXPECT_GE(set_capture_mode(CM_QHD, 2), 0);
    EXPECT_GE(set_capture_mode(CM_PAL, 0), 0);
    EXPECT_GE(set_capture_mode(CM_1080P, 3), 0);
    EXPECT_THAT(journal_take(),
                ElementsAre("SetCaptureMode(2)=5", "SetCaptureMode(0)=0", "SetCaptureMode(3)=2"));
    /* The service is coherent: the mode set is the mode read back. */
    EXPECT_EQ(get_capture_mode_index(2), CM_QHD);
    EXPECT_EQ(get_capture_mode_index(3), CM_1080P);
}

TEST_F(CaptureTest, SetCaptureModeRefusedIsNegativeAndLogged)
{
    bus->fail_set_capture_mode = true;
    EXPECT_LT(set_capture_mode(CM_NTSC, 1), 0);
    EXPECT_EQ(get_capture_mode_index(1), CM_PAL);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "set_capture_mode Unable to set SetCaptureMode on "
                                          "channel 1 capture mode refused"),
              1);
}

TEST_F(CaptureTest, FrequencyFollowsTheFamilyOfTheVideoType)
{
    struct Case {
        int32_t video_type;
        const char *text;
    } cases[] = {
        {VT_PAL, "50Hz"},     {VT_1080P25, "50Hz"},  {VT_4K12, "50Hz"},    {VT_720P25, "50Hz"},
        {VT_1440P25, "50Hz"}, {VT_NTSC, "60Hz"},     {VT_1440P30, "60Hz"}, {VT_1080P30, "60Hz"},
        {VT_NONE, "60Hz"},    {VT_DISABLED, "60Hz"}, {VT_1440P15, "60Hz"},
    };
    for (const auto &c : cases) {
        Channel channel = channel_with(1, c.video_type);
        EXPECT_GE(set_capture_frequency(&channel), 0) << c.video_type;
        EXPECT_EQ(bus->capture_frequency(1), c.text) << "video type " << c.video_type;
    }
    /* Each channel's own object. */
    Channel third = channel_with(3, VT_PAL);
    set_capture_frequency(&third);
    EXPECT_EQ(bus->capture_frequency(3), "50Hz");
    EXPECT_EQ(bus->capture_frequency(0), "");
}

TEST_F(CaptureTest, FrequencyRefusedIsNegativeAndLoggedAsWarning)
{
    bus->fail_set_capture_frequency = true;
    Channel channel = channel_with(2, VT_NTSC);
    EXPECT_LT(set_capture_frequency(&channel), 0);
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING,
                        "set_capture_frequency: Unable to set 'CaptureFrequency' on channel '2'. "
                        "Error msg: capture frequency refused"),
              1);
}

TEST_F(CaptureTest, AbsentServiceGivesNegativeResults)
{
    /* Channel 7 has no object on the image control service. */
    EXPECT_LT(get_capture_mode_index(7), 0);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "get_capture_mode_index Unable to get CaptureModeIndex "
                                          "on channel 7 "),
              1);
    EXPECT_LT(set_capture_mode(CM_4K, 7), 0);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "set_capture_mode Unable to set SetCaptureMode on "
                                          "channel 7 "),
              1);
}

TEST_F(CaptureTest, WithoutSystemBusEveryFunctionSaysSoAndFails)
{
    bus->make_system_bus_unreachable(true);
    Channel channel = channel_with(0, VT_PAL);
    EXPECT_LT(get_capture_mode_index(0), 0);
    EXPECT_LT(set_capture_mode(CM_PAL, 0), 0);
    EXPECT_LT(set_capture_frequency(&channel), 0);
    EXPECT_THAT(journal_take(), IsEmpty());

    auto logs = logs_take();
    ASSERT_EQ(logs.size(), 3u);
    EXPECT_THAT(logs[0].message, testing::MatchesRegex("get_capture_mode_index Failed to acquire "
                                                       "bus \\(-[0-9]+\\)"));
    EXPECT_EQ(logs[0].level, G_LOG_LEVEL_INFO);
    EXPECT_THAT(logs[1].message,
                testing::MatchesRegex("set_capture_mode Failed to acquire bus \\(-[0-9]+\\)"));
    EXPECT_EQ(logs[1].level, G_LOG_LEVEL_INFO);
    EXPECT_THAT(logs[2].message, testing::MatchesRegex("set_capture_frequency: Failed to acquire "
                                                       "bus \\(-[0-9]+\\)"));
    EXPECT_EQ(logs[2].level, G_LOG_LEVEL_WARNING);
}

} // namespace
