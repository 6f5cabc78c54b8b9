/* The overlay module against a fake prioritized text overlay service on a
 * private bus: what it records, which calls each evaluation makes and in what
 * order, and that its mutex is free while a call is under way. */
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korvi_log.h"
#include "overlay.h"
#include "support/fake_services.h"
#include "support/journal.h"

using testing::ElementsAre;
using testing::IsEmpty;
using namespace testsupport;

namespace
{

class OverlayTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        log_capture_install();
        bus = &FakeServices::get();
        o_h = overlay_init();
        ASSERT_NE(o_h, nullptr);
        journal_take();
        logs_take();
    }

    void TearDown() override { overlay_deinit(o_h); }

    /* Every channel reported with video, and that shown: no text set. */
    void all_clear()
    {
        for (uint32_t i = 0; i < 4; i++)
            overlay_set_no_video(o_h, i, 0);
        overlay_evaluate(o_h);
        journal_take();
    }

    FakeServices *bus = nullptr;
    OverlayHandler *o_h = nullptr;
};

TEST_F(OverlayTest, EveryChannelStartsWithoutVideo)
{
    for (uint32_t i = 0; i < 4; i++) {
        EXPECT_EQ(overlay_set_no_video(o_h, i, 1), 1) << i;
        EXPECT_EQ(overlay_set_no_video(o_h, i, 0), 0) << i;
        EXPECT_EQ(overlay_set_no_video(o_h, i, 0), 1) << i;
        EXPECT_EQ(overlay_set_no_video(o_h, i, 1), 0) << i;
    }
    /* Any non-zero state means no video. */
    EXPECT_EQ(overlay_set_no_video(o_h, 2, 7), 1);
}

TEST_F(OverlayTest, FirstEvaluationShowsLossWhereNoVideoWasReported)
{
    overlay_set_no_video(o_h, 1, 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(),
                ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)", "Overlay(3).Set(VIDEO_LOSS,0)",
                            "Overlay(4).Set(VIDEO_LOSS,0)"));
    /* In line now: no further call. */
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), IsEmpty());
}

TEST_F(OverlayTest, LossAndReturnAreShownAndUnshown)
{
    all_clear();
    overlay_set_no_video(o_h, 2, 1);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(3).Set(VIDEO_LOSS,0)"));

    overlay_set_no_video(o_h, 2, 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(3).Unset(VIDEO_LOSS)"));

    /* Lost and back between two evaluations: nothing to change. */
    overlay_set_no_video(o_h, 2, 1);
    overlay_set_no_video(o_h, 2, 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), IsEmpty());
}

TEST_F(OverlayTest, ConfigurationChangeIsShownOnceAndForGood)
{
    all_clear();
    EXPECT_EQ(overlay_set_config_changed(o_h, 1), 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(2).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));

    overlay_evaluate(o_h);
    overlay_set_no_video(o_h, 1, 1);
    overlay_evaluate(o_h);
    overlay_set_no_video(o_h, 1, 0);
    overlay_evaluate(o_h);
    EXPECT_EQ(overlay_set_config_changed(o_h, 1), 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), IsEmpty());

    /* The other channels go on as before. */
    overlay_set_no_video(o_h, 0, 1);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)"));
}

TEST_F(OverlayTest, ConfigurationChangeWinsOverReturningVideoAndLeavesLossSet)
{
    /* Channel 0 shows "VIDEO_LOSS". */
    overlay_evaluate(o_h);
    journal_take();

    overlay_set_no_video(o_h, 0, 0);
    overlay_set_config_changed(o_h, 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(1).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));

    overlay_evaluate(o_h);
    overlay_set_no_video(o_h, 0, 1);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), IsEmpty());
}

TEST_F(OverlayTest, ChannelsAreServedInIndexOrderWithTheirOwnTexts)
{
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_no_video(o_h, 2, 0);
    overlay_set_config_changed(o_h, 3);
    overlay_set_config_changed(o_h, 0);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(1).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)",
                                            "Overlay(2).Set(VIDEO_LOSS,0)",
                                            "Overlay(4).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
}

TEST_F(OverlayTest, FailedCallsAreLoggedOnceAndNotRetried)
{
    bus->fail_overlay = true;
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_no_video(o_h, 1, 0);
    overlay_set_config_changed(o_h, 3);
    overlay_evaluate(o_h);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(3).Set(VIDEO_LOSS,0)",
                                            "Overlay(4).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
    auto logs = logs_take();
    ASSERT_EQ(logs.size(), 2u);
    for (auto &line : logs) {
        EXPECT_EQ(line.level, static_cast<int>(KORVI_LOG_LEVEL_ERROR));
        EXPECT_THAT(line.message,
                    testing::MatchesRegex("prioritized_text_overlay: Call failed \\(-[0-9]+\\)"));
    }
}

TEST_F(OverlayTest, WithoutSystemBusEachChangeIsLoggedOnce)
{
    bus->make_system_bus_unreachable(true);
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_no_video(o_h, 1, 0);
    overlay_set_no_video(o_h, 2, 0);
    overlay_evaluate(o_h);
    overlay_evaluate(o_h);
    auto logs = logs_take();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_THAT(logs[0].message, testing::MatchesRegex("prioritized_text_overlay Failed to "
                                                       "acquire bus \\(-[0-9]+\\)"));
    bus->make_system_bus_unreachable(false);
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), IsEmpty());
}

TEST_F(OverlayTest, MutexIsFreeWhileTheServiceIsCalled)
{
    /* While the service handles the call, another thread records a state. If
     * the mutex were held across the call, the recording would wait for the
     * call and the call for the recording. */
    all_clear();
    std::mutex recorder_mutex;
    std::thread recorder;
    std::promise<void> recorded;
    auto done = recorded.get_future();
    std::atomic<bool> recorded_in_time{false};
    bus->set_overlay_hook([&] {
        std::lock_guard guard(recorder_mutex);
        if (recorder.joinable())
            return;
        recorder = std::thread([&] {
            overlay_set_no_video(o_h, 3, 1);
            recorded.set_value();
        });
        recorded_in_time = done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    });
    overlay_set_no_video(o_h, 0, 1);
    overlay_evaluate(o_h);
    bus->set_overlay_hook(nullptr);
    {
        std::lock_guard guard(recorder_mutex);
        ASSERT_TRUE(recorder.joinable());
        recorder.join();
    }
    EXPECT_TRUE(recorded_in_time);

    /* Channel 3's loss was recorded during the pass and is shown by the next. */
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)"));
    overlay_evaluate(o_h);
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(4).Set(VIDEO_LOSS,0)"));
}

TEST_F(OverlayTest, InitAndDeinitSayWhatTheyDo)
{
    OverlayHandler *other = overlay_init();
    ASSERT_NE(other, nullptr);
    overlay_deinit(other);
    overlay_deinit(nullptr);
    auto logs = logs_take();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0].message, "Init overlay handler");
    EXPECT_EQ(logs[1].message, "Deinit overlay handler");
    EXPECT_EQ(logs[0].level, G_LOG_LEVEL_INFO);
}

TEST(OverlayDeathTest, MissingHandleStops)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(overlay_evaluate(nullptr),
                 "decoders/overlay\\.cpp:[0-9]+:.*overlay_evaluate.*o_h");
    EXPECT_DEATH(overlay_set_no_video(nullptr, 0, 1), "o_h");
    EXPECT_DEATH(overlay_set_config_changed(nullptr, 0), "o_h");
}

} // namespace
