/* The status pass: the chip's and the capture driver's view combined, and the
 * reporting of changes only. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "fakes.h"
#include "log_capture.h"
#include "overlay.h"
#include "util.h"

using fake::journal_matching;
using fake::journal_take;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

void set_video(TestDecoder &td, int i, int32_t chip, int driver)
{
    td.video_status[i] = chip;
    stand_in::no_video[i] = driver;
}

TEST(StatusPass, VideoNeedsBothTheChipAndTheCaptureDriverAskedEveryTime)
{
    TestDecoder td;
    for (int i = 0; i < MAX_SOURCES; i++) {
        td.set(i, 0, VT_PAL, CM_PAL);
        td.channel(i).configured = 1;
        set_video(td, i, 1, 0);
    }
    td.status_pass();
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(0)=1 locked", "event(1)=1 locked",
                                                       "event(2)=1 locked", "event(3)=1 locked"));
    journal_take();

    set_video(td, 1, 1, 1);  /* the capture driver sees none */
    set_video(td, 2, 1, -1); /* its statistic is missing */
    set_video(td, 3, 0, 0);  /* the chip sees none */
    td.status_pass();
    EXPECT_THAT(journal_take(),
                ElementsAre("video_status(0) locked", "check_no_video(0)", "video_status(1) locked",
                            "check_no_video(1)", "detected(1)=30 locked", "event(1)=0 locked",
                            "video_status(2) locked", "check_no_video(2)", "detected(2)=30 locked",
                            "event(2)=0 locked", "video_status(3) locked", "check_no_video(3)",
                            "detected(3)=30 locked", "event(3)=0 locked"));
    EXPECT_EQ(td.channel(0).configured, 1);
    for (int i = 1; i < MAX_SOURCES; i++)
        EXPECT_EQ(td.channel(i).configured, 0) << i;
}

TEST(StatusPass, OnlyChangesAreReported)
{
    /* Channel 0 automatic (its detected type belongs to the lock pass),
     * channel 2 fixed. Both start, as reported, without video. */
    TestDecoder td;
    td.set(0, 1, VT_720P30, CM_720P);
    td.channel(0).detected_type = VT_720P30;
    td.set(2, 0, VT_NTSC, CM_NTSC);
    td.channel(0).configured = td.channel(2).configured = 1;
    td.status_pass();
    EXPECT_THAT(journal_matching("event"), IsEmpty());
    EXPECT_THAT(journal_matching("detected"), IsEmpty());

    set_video(td, 0, 1, 0);
    set_video(td, 2, 1, 0);
    td.status_pass();
    td.status_pass();
    EXPECT_THAT(journal_matching("detected"), ElementsAre("detected(2)=9 locked"));
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(0)=1 locked", "event(2)=1 locked"));
    journal_take();

    set_video(td, 0, 0, 0);
    set_video(td, 2, 1, 1);
    td.status_pass();
    td.status_pass();
    EXPECT_THAT(journal_matching("detected"), ElementsAre("detected(2)=30 locked"));
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(0)=0 locked", "event(2)=0 locked"));
    EXPECT_EQ(td.channel(0).detected_type, VT_720P30);
    EXPECT_EQ(td.channel(0).configured, 0);
    EXPECT_EQ(td.channel(2).configured, 0);
}

TEST(StatusPass, LossIsIgnoredOnAChannelWhoseCaptureModeWasChanged)
{
    TestDecoder td;
    td.set(1, 0, VT_1080P25, CM_1080P);
    td.channel(1).configured = 1;
    td.channel(1).capture_mode_changed = 1;
    set_video(td, 1, 1, 0);
    td.status_pass();
    journal_take();

    set_video(td, 1, 0, 1);
    td.status_pass();
    EXPECT_THAT(journal_matching("event"), IsEmpty());
    EXPECT_THAT(journal_matching("detected"), IsEmpty());
    EXPECT_EQ(td.channel(1).configured, 1);
    /* The overlay was not told either: it still holds "video present". */
    EXPECT_EQ(overlay_set_no_video(td.get()->overlay, 1, 0), 1);
}

TEST(StatusPass, FailedEventIsLoggedAndNotRetried)
{
    TestDecoder td;
    td.set(3, 0, VT_PAL, CM_PAL);
    stand_in::events_fail = true;
    set_video(td, 3, 1, 0);
    td.status_pass();
    td.status_pass();
    EXPECT_THAT(journal_matching("event"), ElementsAre("event(3)=1 locked"));
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Failed to send video connected event for channel 3"),
              1u);
    EXPECT_EQ(td.channel(3).detected_type, VT_PAL);
}

} // namespace
