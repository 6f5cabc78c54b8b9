/* The lock pass: detection steps of automatic channels, the fixed-configuration
 * step, and the channels the pass leaves alone. */
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

const char *const lock_message_1080p25_ch0 =
    "Accepted lock on new video type, update video config file: type 3 on channel 0, "
    "video type = 1";

class LockPassTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        log_capture_install();
        bus = &FakeServices::get();
        stand_in::reset();
        journal_take();
        logs_take();
    }

    /* A chip locked on 1080p25 AHD on the channel. */
    void lock_chip_on_1080p25(int i)
    {
        td.detect[i] = {VT_1080P25, VS_AHD, LS_LOCKED};
        bus->set_capture_mode(i, CM_PAL);
    }

    FakeServices *bus = nullptr;
    TestDecoder td;
};

TEST_F(LockPassTest, SearchingChannelWithoutLockPublishesNoneAndSaves)
{
    td.make_searching(1, CM_PAL);
    td.detect[1] = {VT_720P25, VS_TVI, LS_CONFIRM};

    update_video_lock(td.get());

    EXPECT_THAT(journal_take(), ElementsAre("detect(1) locked", "detected(1)=30 locked",
                                            "save(1) configured=0 locked"));
    Channel &c = td.channel(1);
    EXPECT_EQ(c.detected_type, VT_NONE);
    EXPECT_EQ(c.configured, 0);
    EXPECT_EQ(c.video_type, VT_AUTO);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Accepted lock"), 0);

    /* Still searching: the next pass runs the detection step again. */
    update_video_lock(td.get());
    EXPECT_THAT(journal_matching("detect("), ElementsAre("detect(1) locked"));
    EXPECT_FALSE(stand_in::lock_held(td.get()));
}

TEST_F(LockPassTest, LockIsAcceptedInOrderUnderTheLock)
{
    td.make_searching(0, CM_PAL);
    lock_chip_on_1080p25(0);

    update_video_lock(td.get());

    EXPECT_THAT(journal_take(),
                ElementsAre("detect(0) locked", "detected(0)=3 locked", "SetCaptureMode(0)=2",
                            "set_video_standard(0) std=1 type=3 auto=1 internal=1 configured=1 "
                            "locked",
                            "video_type(0) locked", "input_type(0)=3 locked",
                            "CaptureFrequency(0)=50Hz", "event(0)=1 locked",
                            "save(0) configured=1 locked"));
    Channel &c = td.channel(0);
    EXPECT_EQ(c.configured, 1);
    EXPECT_EQ(c.video_type, VT_1080P25);
    EXPECT_EQ(c.detected_type, VT_1080P25);
    EXPECT_EQ(c.capture_mode, CM_1080P);
    EXPECT_EQ(c.capture_mode_changed, 1);
    EXPECT_EQ(bus->capture_mode(0), CM_1080P);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, lock_message_1080p25_ch0), 1);

    /* Locked: the next pass leaves the channel alone. */
    update_video_lock(td.get());
    EXPECT_THAT(journal_take(), IsEmpty());

    /* The overlay was told of the capture mode change. */
    overlay_evaluate(td.get()->overlay);
    EXPECT_THAT(journal_matching("Overlay(1)"),
                ElementsAre("Overlay(1).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
}

TEST_F(LockPassTest, LockWithUnchangedTypeAndCaptureModeMakesNoExtraCalls)
{
    td.make_searching(2, CM_1080P);
    td.channel(2).detected_type = VT_1080P25;
    td.channel(2).video_type = VT_1080P25;
    td.detect[2] = {VT_1080P25, VS_AHD, LS_LOCKED};

    update_video_lock(td.get());

    /* Neither the detected type nor the capture mode changed: no publication
     * of the detected type, no capture mode request, no overlay change. */
    EXPECT_THAT(journal_take(),
                ElementsAre("detect(2) locked",
                            "set_video_standard(2) std=1 type=3 auto=1 internal=1 configured=1 "
                            "locked",
                            "video_type(2) locked", "input_type(2)=3 locked",
                            "CaptureFrequency(2)=50Hz", "event(2)=1 locked",
                            "save(2) configured=1 locked"));
    EXPECT_EQ(td.channel(2).configured, 1);
    EXPECT_EQ(td.channel(2).capture_mode_changed, 0);
    overlay_evaluate(td.get()->overlay);
    EXPECT_THAT(journal_matching("Overlay(3)"), IsEmpty());
}

TEST_F(LockPassTest, RefusedCaptureModeKeepsAnAutomaticChannelSearching)
{
    td.make_searching(0, CM_PAL);
    lock_chip_on_1080p25(0);
    bus->fail_set_capture_mode = true;

    update_video_lock(td.get());

    EXPECT_THAT(journal_take(), ElementsAre("detect(0) locked", "detected(0)=3 locked",
                                            "SetCaptureMode(0)=2", "save(0) configured=0 locked"));
    Channel &c = td.channel(0);
    EXPECT_EQ(c.configured, 0);
    EXPECT_EQ(c.capture_mode, CM_PAL);
    EXPECT_EQ(c.capture_mode_changed, 0);
    /* The type is taken over although the lock is not accepted. */
    EXPECT_EQ(c.video_type, VT_1080P25);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, lock_message_1080p25_ch0), 1);

    /* Retried on the next pass; once the service accepts, the lock is taken. */
    update_video_lock(td.get());
    EXPECT_THAT(journal_take(), ElementsAre("detect(0) locked", "SetCaptureMode(0)=2",
                                            "save(0) configured=0 locked"));
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, lock_message_1080p25_ch0), 2);

    bus->fail_set_capture_mode = false;
    update_video_lock(td.get());
    EXPECT_EQ(c.configured, 1);
    EXPECT_EQ(c.capture_mode, CM_1080P);
    EXPECT_EQ(c.capture_mode_changed, 1);

    /* No configuration change was recorded for the refused attempts alone. */
    overlay_evaluate(td.get()->overlay);
    EXPECT_THAT(journal_matching("Overlay(1)"),
                ElementsAre("Overlay(1).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
}

TEST_F(LockPassTest, LockedOnATypeThatIsNotValidKeepsSearching)
{
    /* The capture mode of VT_UNKNOWN is the default, CM_PAL, which the channel
     * already has: only the type test keeps the lock from being accepted. */
    td.make_searching(3, CM_PAL);
    td.channel(3).video_type = VT_PAL;
    td.detect[3] = {VT_UNKNOWN, VS_CVBS, LS_LOCKED};

    update_video_lock(td.get());

    EXPECT_THAT(journal_take(), ElementsAre("detect(3) locked", "detected(3)=32 locked",
                                            "save(3) configured=0 locked"));
    EXPECT_EQ(td.channel(3).video_type, VT_PAL);
    EXPECT_EQ(td.channel(3).configured, 0);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Accepted lock on new video type, update video config "
                                          "file: type 32 on channel 3, video type = 3"),
              1);
}

TEST_F(LockPassTest, FixedChannelIsAppliedWithoutTheLock)
{
    td.make_fixed(1, VT_NTSC, CM_PAL);

    update_video_lock(td.get());

    EXPECT_THAT(journal_take(), ElementsAre("video_type(1) unlocked", "input_type(1)=9 unlocked",
                                            "CaptureFrequency(1)=60Hz", "SetCaptureMode(1)=1"));
    Channel &c = td.channel(1);
    EXPECT_EQ(c.configured, 1);
    EXPECT_EQ(c.capture_mode, CM_NTSC);
    EXPECT_EQ(c.capture_mode_changed, 1);
    EXPECT_EQ(td.detect_calls, 0);
    EXPECT_FALSE(stand_in::lock_held(td.get()));

    /* Applied: nothing more on the next pass. */
    update_video_lock(td.get());
    EXPECT_THAT(journal_take(), IsEmpty());

    overlay_evaluate(td.get()->overlay);
    EXPECT_THAT(journal_matching("Overlay(2)"),
                ElementsAre("Overlay(2).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
}

TEST_F(LockPassTest, FixedChannelIsAppliedEvenWhenTheCaptureModeIsRefused)
{
    td.make_fixed(0, VT_720P25, CM_PAL);
    bus->fail_set_capture_mode = true;

    update_video_lock(td.get());

    EXPECT_THAT(journal_take(), ElementsAre("video_type(0) unlocked", "input_type(0)=5 unlocked",
                                            "CaptureFrequency(0)=50Hz", "SetCaptureMode(0)=3"));
    Channel &c = td.channel(0);
    EXPECT_EQ(c.configured, 1);
    EXPECT_EQ(c.capture_mode, CM_PAL);
    EXPECT_EQ(c.capture_mode_changed, 0);

    /* Not retried. */
    update_video_lock(td.get());
    EXPECT_THAT(journal_take(), IsEmpty());
    overlay_evaluate(td.get()->overlay);
    EXPECT_THAT(journal_matching("Overlay(1).Set(VIDEO_INPUT"), IsEmpty());
}

TEST_F(LockPassTest, FixedChannelWithItsCaptureModeAsksNothingOfTheService)
{
    td.make_fixed(2, VT_PAL, CM_PAL);
    update_video_lock(td.get());
    EXPECT_THAT(journal_take(), ElementsAre("video_type(2) unlocked", "input_type(2)=8 unlocked",
                                            "CaptureFrequency(2)=50Hz"));
    EXPECT_EQ(td.channel(2).configured, 1);
    EXPECT_EQ(td.channel(2).capture_mode_changed, 0);
}

TEST_F(LockPassTest, FixedChannelWithUnreadableCaptureModeCountsAsAChange)
{
    /* The service could not be asked at start-up: a negative capture mode. */
    td.make_fixed(3, VT_1080P30, -2);
    update_video_lock(td.get());
    EXPECT_THAT(journal_matching("SetCaptureMode"), ElementsAre("SetCaptureMode(3)=2"));
    EXPECT_EQ(td.channel(3).capture_mode, CM_1080P);
    EXPECT_EQ(td.channel(3).capture_mode_changed, 1);
}

TEST_F(LockPassTest, ConfiguredAndDisabledChannelsAreLeftAlone)
{
    td.make_disabled(0);          /* disabled, fixed */
    td.make_searching(1, CM_PAL); /* locked */
    td.channel(1).configured = 1;
    td.make_fixed(2, VT_PAL, CM_NTSC); /* applied */
    td.channel(2).configured = 1;
    td.make_fixed(3, VT_DISABLED, CM_QHD); /* disabled with a capture mode that differs */
    for (auto &script : td.detect)
        script = {VT_PAL, VS_CVBS, LS_LOCKED};

    update_video_lock(td.get());
    update_video_lock(td.get());

    EXPECT_THAT(journal_take(), IsEmpty());
    EXPECT_EQ(td.detect_calls, 0);
    for (int i = 0; i < MAX_SOURCES; i++) {
        EXPECT_EQ(td.channel(i).detected_type, -1) << i;
        EXPECT_EQ(td.channel(i).capture_mode_changed, 0) << i;
    }
    EXPECT_EQ(td.channel(0).configured, 0);
    EXPECT_EQ(td.channel(3).configured, 0);
}

TEST_F(LockPassTest, ChannelsAreVisitedInIndexOrder)
{
    td.make_searching(2, CM_PAL);
    td.make_fixed(0, VT_PAL, CM_PAL);
    td.make_searching(3, CM_PAL);
    update_video_lock(td.get());
    auto entries = journal_take();
    std::vector<std::string> firsts;
    for (auto &entry : entries)
        if (entry.rfind("video_type(0)", 0) == 0 || entry.rfind("detect(", 0) == 0)
            firsts.push_back(entry);
    EXPECT_THAT(firsts,
                ElementsAre("video_type(0) unlocked", "detect(2) locked", "detect(3) locked"));
}

} // namespace
