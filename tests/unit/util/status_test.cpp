/* The status pass: the chip's and the capture driver's view combined, and the
 * reporting of changes only. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "overlay.h"
#include "stand_ins.h"
#include "support/fake_services.h"
#include "support/journal.h"
#include "test_decoder.h"
#include "util.h"

using testing::ElementsAre;
using testing::IsEmpty;
using namespace testsupport;

namespace
{

class StatusTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        log_capture_install();
        stand_in::reset();
        journal_take();
        logs_take();
    }

    /* One status pass as the manager runs it: under the lock, every channel. */
    void status_pass()
    {
        g_mutex_lock(td.get()->lock);
        for (int i = 0; i < MAX_SOURCES; i++)
            update_channel_video_status(td.get(), i);
        g_mutex_unlock(td.get()->lock);
    }

    void set_video(int i, int32_t chip, int driver)
    {
        td.video_status[i] = chip;
        stand_in::check_no_video_result[i] = driver;
    }

    TestDecoder td;
};

TEST_F(StatusTest, VideoNeedsBothTheChipAndTheCaptureDriver)
{
    /* Start with video reported on every channel, configured. */
    for (int i = 0; i < MAX_SOURCES; i++) {
        td.make_fixed(i, VT_PAL, CM_PAL);
        td.channel(i).configured = 1;
        set_video(i, 1, 0);
    }
    status_pass();
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(0)=1 locked", "event(1)=1 locked",
                                                       "event(2)=1 locked", "event(3)=1 locked"));
    journal_take();

    set_video(0, 1, 0);  /* both see video */
    set_video(1, 1, 1);  /* chip locked, capture driver sees none */
    set_video(2, 1, -1); /* chip locked, driver statistic missing */
    set_video(3, 0, 0);  /* chip sees none */
    status_pass();

    EXPECT_THAT(journal_matching("event"),
                ElementsAre("event(1)=0 locked", "event(2)=0 locked", "event(3)=0 locked"));
    EXPECT_EQ(td.channel(0).configured, 1);
    for (int i = 1; i < MAX_SOURCES; i++) {
        EXPECT_EQ(td.channel(i).configured, 0) << i;
        EXPECT_EQ(td.channel(i).detected_type, VT_NONE) << i;
    }
}

TEST_F(StatusTest, BothSourcesAreAskedInOrderOnEveryPass)
{
    set_video(0, 0, 0);
    set_video(1, 1, 1);
    status_pass();
    auto entries = journal_take();
    std::vector<std::string> asked;
    for (auto &entry : entries)
        if (entry.rfind("video_status", 0) == 0 || entry.rfind("check_no_video", 0) == 0)
            asked.push_back(entry);
    EXPECT_THAT(asked,
                ElementsAre("video_status(0) locked", "check_no_video(0)", "video_status(1) locked",
                            "check_no_video(1)", "video_status(2) locked", "check_no_video(2)",
                            "video_status(3) locked", "check_no_video(3)"));
}

TEST_F(StatusTest, OnlyChangesAreReported)
{
    td.make_fixed(2, VT_NTSC, CM_NTSC);
    td.channel(2).configured = 1;

    /* No video from the start: the state is already "no video". */
    set_video(2, 0, 0);
    status_pass();
    EXPECT_THAT(journal_matching("event"), IsEmpty());
    EXPECT_THAT(journal_matching("detected"), IsEmpty());
    journal_take();

    /* Video arrives: one report, the fixed channel's detected type follows. */
    set_video(2, 1, 0);
    status_pass();
    status_pass();
    EXPECT_THAT(journal_matching("detected"), ElementsAre("detected(2)=9 locked"));
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(2)=1 locked"));
    EXPECT_EQ(td.channel(2).detected_type, VT_NTSC);
    journal_take();

    /* Lost: one report, and the channel is to be configured again. */
    set_video(2, 1, 1);
    status_pass();
    status_pass();
    EXPECT_THAT(journal_matching("detected"), ElementsAre("detected(2)=30 locked"));
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(2)=0 locked"));
    EXPECT_EQ(td.channel(2).detected_type, VT_NONE);
    EXPECT_EQ(td.channel(2).configured, 0);
}

TEST_F(StatusTest, AutomaticChannelKeepsItsDetectedType)
{
    td.make_searching(0, CM_PAL);
    td.channel(0).detected_type = VT_720P30;
    set_video(0, 1, 0);
    status_pass();
    set_video(0, 0, 0);
    status_pass();
    EXPECT_THAT(journal_matching("detected"), IsEmpty());
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(0)=1 locked", "event(0)=0 locked"));
    EXPECT_EQ(td.channel(0).detected_type, VT_720P30);
}

TEST_F(StatusTest, LossIsIgnoredOnAChannelWhoseCaptureModeWasChanged)
{
    td.make_fixed(1, VT_1080P25, CM_1080P);
    td.channel(1).configured = 1;
    td.channel(1).capture_mode_changed = 1;
    set_video(1, 1, 0);
    status_pass();
    journal_take();

    set_video(1, 0, 1);
    status_pass();
    EXPECT_THAT(journal_matching("event"), IsEmpty());
    EXPECT_THAT(journal_matching("detected"), IsEmpty());
    EXPECT_EQ(td.channel(1).configured, 1);
    EXPECT_EQ(td.channel(1).detected_type, VT_1080P25);
    /* The overlay still holds "video present": a report of video changes
     * nothing. */
    EXPECT_EQ(overlay_set_no_video(td.get()->overlay, 1, 0), 1);
}

TEST_F(StatusTest, FailedEventIsLoggedAndNotRetried)
{
    td.make_fixed(3, VT_PAL, CM_PAL);
    stand_in::events_fail = true;
    set_video(3, 1, 0);
    status_pass();
    status_pass();
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(3)=1 locked"));
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Failed to send video connected event for channel 3"),
              1);
    /* The new state stands. */
    EXPECT_EQ(td.channel(3).detected_type, VT_PAL);
}

TEST_F(StatusTest, ReportOfPresentVideoAfterTheStatusPassChangesNothing)
{
    /* The status pass already reported video for a searching channel; the
     * report made when its lock is accepted sends nothing more. */
    td.make_searching(0, CM_PAL);
    set_video(0, 1, 0);
    status_pass();
    g_mutex_lock(td.get()->lock);
    set_channel_no_video(td.get(), 0, 0);
    g_mutex_unlock(td.get()->lock);
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(0)=1 locked"));
}

TEST(StatusDeathTest, MissingDecoderStopsNamingTheSource)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(update_channel_video_status(nullptr, 0),
                 "decoders/util\\.cpp:[0-9]+:.*update_channel_video_status.*\\(dec\\)");
}

} // namespace
