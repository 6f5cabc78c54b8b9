/* The overlay module against the fake text overlay service: what it records,
 * which calls each evaluation makes and in what order, and that its mutex is
 * free while a call is under way. */
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korvi_log.h"
#include "log_capture.h"
#include "overlay.h"
#include "support/fake_bus.h"

using fake::journal_take;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const char *const changed = "VIDEO_INPUT_CONFIGURATION_CHANGED";

class Overlay : public testing::Test
{
  protected:
    void SetUp() override
    {
        fake::bus_reset();
        o_h = overlay_init();
        ASSERT_NE(o_h, nullptr);
    }
    void TearDown() override { overlay_deinit(o_h); }

    /* Video on every channel, and that shown. */
    void all_clear()
    {
        for (uint32_t i = 0; i < 4; i++)
            overlay_set_no_video(o_h, i, 0);
        overlay_evaluate(o_h);
        journal_take();
    }
    std::vector<std::string> evaluate()
    {
        overlay_evaluate(o_h);
        return journal_take();
    }

    OverlayHandler *o_h = nullptr;
};

TEST_F(Overlay, EveryChannelStartsWithoutVideo)
{
    for (uint32_t i = 0; i < 4; i++) {
        EXPECT_EQ(overlay_set_no_video(o_h, i, 1), 1) << i;
        EXPECT_EQ(overlay_set_no_video(o_h, i, 0), 0) << i;
        EXPECT_EQ(overlay_set_no_video(o_h, i, 0), 1) << i;
    }
    EXPECT_EQ(overlay_set_no_video(o_h, 2, 7), 0) << "any non-zero state is no video";
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Init overlay handler"), 1u);
}

TEST_F(Overlay, FirstEvaluationServesChannelsInOrderWithTheirOwnTexts)
{
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_no_video(o_h, 2, 0);
    overlay_set_config_changed(o_h, 3);
    overlay_set_config_changed(o_h, 0);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(1).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)",
                                        "Overlay(2).Set(VIDEO_LOSS,0)",
                                        "Overlay(4).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
    EXPECT_THAT(evaluate(), IsEmpty());
}

TEST_F(Overlay, LossAndReturnAreShownAndUnshown)
{
    all_clear();
    overlay_set_no_video(o_h, 2, 1);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(3).Set(VIDEO_LOSS,0)"));
    overlay_set_no_video(o_h, 2, 0);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(3).Unset(VIDEO_LOSS)"));
    /* Lost and back between two evaluations: nothing to change. */
    overlay_set_no_video(o_h, 2, 1);
    overlay_set_no_video(o_h, 2, 0);
    EXPECT_THAT(evaluate(), IsEmpty());
}

TEST_F(Overlay, ConfigurationChangeIsShownOnceAndForGood)
{
    all_clear();
    EXPECT_EQ(overlay_set_config_changed(o_h, 1), 0);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(2).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
    overlay_set_no_video(o_h, 1, 1);
    EXPECT_THAT(evaluate(), IsEmpty());
    overlay_set_no_video(o_h, 1, 0);
    overlay_set_config_changed(o_h, 1);
    EXPECT_THAT(evaluate(), IsEmpty());
    overlay_set_no_video(o_h, 0, 1);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)"));
}

TEST_F(Overlay, ConfigurationChangeWinsOverReturningVideoAndLeavesLossSet)
{
    EXPECT_THAT(evaluate(), testing::Contains("Overlay(1).Set(VIDEO_LOSS,0)"));
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_config_changed(o_h, 0);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(1).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
    overlay_set_no_video(o_h, 0, 1);
    EXPECT_THAT(evaluate(), IsEmpty());
}

TEST_F(Overlay, FailedCallsAreLoggedOnceAndNotRetried)
{
    fake::refuse_overlay = true;
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_no_video(o_h, 1, 0);
    overlay_set_config_changed(o_h, 3);
    log_capture_clear();
    overlay_evaluate(o_h);
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(3).Set(VIDEO_LOSS,0)",
                                        "Overlay(4).Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)"));
    const auto logs = log_capture_messages();
    ASSERT_EQ(logs.size(), 2u);
    for (auto &line : logs) {
        EXPECT_EQ(line.level, korvi_log_level_bits(KORVI_LOG_LEVEL_ERROR));
        EXPECT_THAT(line.text,
                    testing::MatchesRegex("prioritized_text_overlay: Call failed \\(-[0-9]+\\)"));
    }
}

TEST_F(Overlay, MutexIsFreeWhileTheServiceIsCalled)
{
    /* While the service handles the call, another thread records a state. If
     * the mutex were held across the call, each would wait for the other. */
    all_clear();
    std::mutex m;
    std::promise<void> recorded;
    auto done = recorded.get_future();
    std::thread recorder;
    bool in_time = false;
    fake::bus_set_call_hook([&] {
        std::lock_guard guard(m);
        recorder = std::thread([&] {
            overlay_set_no_video(o_h, 3, 1);
            recorded.set_value();
        });
        in_time = done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    });
    overlay_set_no_video(o_h, 0, 1);
    overlay_evaluate(o_h);
    fake::bus_set_call_hook(nullptr);
    {
        std::lock_guard guard(m);
        ASSERT_TRUE(recorder.joinable());
        recorder.join();
        EXPECT_TRUE(in_time);
    }
    /* Channel 3's loss was recorded during the pass and is shown by the next. */
    EXPECT_THAT(journal_take(), ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)"));
    EXPECT_THAT(evaluate(), ElementsAre("Overlay(4).Set(VIDEO_LOSS,0)"));
}

TEST(OverlayDeathTest, MissingHandleStopsNamingTheSource)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(overlay_evaluate(nullptr),
                 "decoders/overlay\\.cpp:[0-9]+:.*overlay_evaluate.*o_h");
}

} // namespace
