/* The lock pass: detection steps of automatic channels, the fixed-configuration
 * step, and the channels it leaves alone. */
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
using testing::ElementsAreArray;
using testing::IsEmpty;
using Calls = std::vector<std::string>;

namespace
{

std::string lock_message(int32_t type, int ch, int32_t standard)
{
    return "Accepted lock on new video type, update video config file: type " +
           std::to_string(type) + " on channel " + std::to_string(ch) +
           ", video type = " + std::to_string(standard);
}

std::string config_changed(int ch)
{
    return "Overlay(" + std::to_string(ch + 1) + ").Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)";
}

struct Channelset {
    int ch;
    int32_t capture_mode, video_type, detected_type;
};
struct Outcome {
    uint8_t configured;
    int32_t video_type, capture_mode;
    uint8_t changed; /* capture mode set: the channel marked and the overlay told */
};
struct DetectionCase {
    const char *what;
    Channelset before;
    DetectScript chip;
    bool refuse_capture_mode;
    Calls calls;
    Outcome after;
};

// clang-format off
const DetectionCase detection_cases[] = {
    {"chip not locked", {1, CM_PAL, VT_AUTO, -1}, {VT_720P25, VS_TVI, LS_CONFIRM}, false,
     {"detect(1) locked", "detected(1)=30 locked", "save(1) configured=0 locked"},
     {0, VT_AUTO, CM_PAL, 0}},
    {"locked, capture mode set", {0, CM_PAL, VT_AUTO, -1}, {VT_1080P25, VS_AHD, LS_LOCKED}, false,
     {"detect(0) locked", "detected(0)=3 locked", "SetCaptureMode(0)=2",
      "set_video_standard(0) std=1 type=3 auto=1 internal=1 configured=1 locked",
      "video_type(0) locked", "input_type(0)=3 locked", "CaptureFrequency(0)=50Hz",
      "event(0)=1 locked", "save(0) configured=1 locked"},
     {1, VT_1080P25, CM_1080P, 1}},
    {"locked, type and capture mode unchanged", {2, CM_1080P, VT_1080P25, VT_1080P25},
     {VT_1080P25, VS_AHD, LS_LOCKED}, false,
     {"detect(2) locked", "set_video_standard(2) std=1 type=3 auto=1 internal=1 configured=1 locked",
      "video_type(2) locked", "input_type(2)=3 locked", "CaptureFrequency(2)=50Hz",
      "event(2)=1 locked", "save(2) configured=1 locked"},
     {1, VT_1080P25, CM_1080P, 0}},
    {"capture mode refused: the type is taken over, the lock is not", {0, CM_PAL, VT_AUTO, -1},
     {VT_1080P25, VS_AHD, LS_LOCKED}, true,
     {"detect(0) locked", "detected(0)=3 locked", "SetCaptureMode(0)=2", "save(0) configured=0 locked"},
     {0, VT_1080P25, CM_PAL, 0}},
    /* VT_UNKNOWN's capture mode is CM_PAL, which the channel has: only the
     * type keeps the lock from being accepted. */
    {"locked on a type that is not valid", {3, CM_PAL, VT_PAL, -1}, {VT_UNKNOWN, VS_CVBS, LS_LOCKED},
     false, {"detect(3) locked", "detected(3)=32 locked", "save(3) configured=0 locked"},
     {0, VT_PAL, CM_PAL, 0}},
};
// clang-format on

TEST(LockPass, DetectionStep)
{
    for (const auto &c : detection_cases) {
        SCOPED_TRACE(c.what);
        TestDecoder td;
        const int ch = c.before.ch;
        td.set(ch, 1, c.before.video_type, c.before.capture_mode);
        td.channel(ch).detected_type = c.before.detected_type;
        td.detect[ch] = c.chip;
        fake::refuse_capture_mode = c.refuse_capture_mode;

        update_video_lock(td.get());

        EXPECT_THAT(journal_take(), ElementsAreArray(c.calls));
        const Channel &got = td.channel(ch);
        EXPECT_EQ(got.configured, c.after.configured);
        EXPECT_EQ(got.video_type, c.after.video_type);
        EXPECT_EQ(got.capture_mode, c.after.capture_mode);
        EXPECT_EQ(got.capture_mode_changed, c.after.changed);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, lock_message(c.chip.type, ch, c.chip.standard)),
                  c.chip.lock_state == LS_LOCKED ? 1u : 0u);
        EXPECT_FALSE(td.lock_held());
        overlay_evaluate(td.get()->overlay);
        EXPECT_EQ(journal_matching(config_changed(ch)).size(), c.after.changed);
    }
}

struct FixedCase {
    int ch;
    int32_t video_type, capture_mode;
    bool refuse_capture_mode;
    Calls calls;
    int32_t capture_mode_after;
    uint8_t changed;
};

// clang-format off
const FixedCase fixed_cases[] = {
    {1, VT_NTSC, CM_PAL, false, {"video_type(1) unlocked", "input_type(1)=9 unlocked",
     "CaptureFrequency(1)=60Hz", "SetCaptureMode(1)=1"}, CM_NTSC, 1},
    /* Applied all the same, and not retried. */
    {0, VT_720P25, CM_PAL, true, {"video_type(0) unlocked", "input_type(0)=5 unlocked",
     "CaptureFrequency(0)=50Hz", "SetCaptureMode(0)=3"}, CM_PAL, 0},
    {2, VT_PAL, CM_PAL, false, {"video_type(2) unlocked", "input_type(2)=8 unlocked",
     "CaptureFrequency(2)=50Hz"}, CM_PAL, 0},
    /* The capture mode could not be read at start-up. */
    {3, VT_1080P30, -2, false, {"video_type(3) unlocked", "input_type(3)=2 unlocked",
     "CaptureFrequency(3)=60Hz", "SetCaptureMode(3)=2"}, CM_1080P, 1},
};
// clang-format on

TEST(LockPass, FixedChannelIsAppliedOnceWithoutTheLock)
{
    for (const auto &c : fixed_cases) {
        SCOPED_TRACE(c.ch);
        TestDecoder td;
        td.set(c.ch, 0, c.video_type, c.capture_mode);
        fake::refuse_capture_mode = c.refuse_capture_mode;

        update_video_lock(td.get());
        EXPECT_THAT(journal_take(), ElementsAreArray(c.calls));
        EXPECT_EQ(td.channel(c.ch).configured, 1);
        EXPECT_EQ(td.channel(c.ch).capture_mode, c.capture_mode_after);
        EXPECT_EQ(td.channel(c.ch).capture_mode_changed, c.changed);

        update_video_lock(td.get());
        EXPECT_THAT(journal_take(), IsEmpty());
        overlay_evaluate(td.get()->overlay);
        EXPECT_EQ(journal_matching(config_changed(c.ch)).size(), c.changed);
    }
}

TEST(LockPass, ChannelsAreVisitedInOrderAndOnlyUnconfiguredOnesAreWorkedOn)
{
    TestDecoder td;
    td.set(0, 0, VT_DISABLED, CM_QHD); /* with a capture mode that differs */
    td.set(1, 1, VT_PAL, CM_PAL);
    td.channel(1).configured = 1; /* locked */
    td.set(2, 0, VT_PAL, CM_PAL);
    td.set(3, 1, VT_AUTO, CM_PAL);
    td.detect[0] = td.detect[1] = {VT_PAL, VS_CVBS, LS_LOCKED};

    update_video_lock(td.get());
    EXPECT_THAT(journal_take(),
                ElementsAre("video_type(2) unlocked", "input_type(2)=8 unlocked",
                            "CaptureFrequency(2)=50Hz", "detect(3) locked", "detected(3)=30 locked",
                            "save(3) configured=0 locked"));
    /* Channel 2 is applied now. */
    update_video_lock(td.get());
    EXPECT_THAT(journal_take(), ElementsAre("detect(3) locked", "detected(3)=30 locked",
                                            "save(3) configured=0 locked"));
    EXPECT_EQ(td.channel(0).configured, 0);
}

} // namespace
