/* The overlay module against the fake text overlay service: which calls each
 * evaluation makes and in what order, and that its mutex is free during a call. */
#include <future>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korvi_log.h"
#include "log_capture.h"
#include "overlay.h"
#include "support/fake_bus.h"

namespace
{

using Calls = std::vector<std::string>;

struct Overlay : testing::Test {
    void SetUp() override { fake::bus_reset(); }
    void TearDown() override { overlay_deinit(o_h); }
    Calls evaluate()
    {
        overlay_evaluate(o_h);
        return fake::journal_take();
    }
    OverlayHandler *o_h = overlay_init();
};

std::string at(int object, const char *call)
{
    return "Overlay(" + std::to_string(object) + ")." + call;
}
const char *const loss = "Set(VIDEO_LOSS,0)", *const back = "Unset(VIDEO_LOSS)",
                  *const changed = "Set(VIDEO_INPUT_CONFIGURATION_CHANGED,0)";

TEST_F(Overlay, EachEvaluationShowsOnlyWhatChangedInChannelOrder)
{
    /* Every channel starts without video: the setter answers 1 for no change. */
    EXPECT_EQ(overlay_set_no_video(o_h, 1, 1), 1);
    struct Step {
        std::vector<std::pair<uint32_t, int>> no_video;
        std::vector<uint32_t> config_changed;
        Calls calls;
    } const steps[] = {
        {{{0, 0}, {2, 0}}, {3, 0}, {at(1, changed), at(2, loss), at(4, changed)}},
        {{}, {}, {}},
        {{{1, 0}}, {}, {at(2, back)}},
        {{{2, 7}}, {}, {at(3, loss)}}, /* any non-zero state is no video */
        {{{2, 0}}, {}, {at(3, back)}},
        {{{2, 1}, {2, 0}}, {}, {}}, /* lost and back between two evaluations */
        {{{1, 1}}, {}, {at(2, loss)}},
        /* A configuration change wins over returning video, leaves the loss
         * text as it is for good, and is shown only once. */
        {{{1, 0}}, {1}, {at(2, changed)}},
        {{{0, 1}, {1, 1}}, {0}, {}},
    };
    for (size_t i = 0; i < std::size(steps); i++) {
        for (auto [ch, state] : steps[i].no_video)
            EXPECT_EQ(overlay_set_no_video(o_h, ch, state), 0) << "step " << i;
        for (auto ch : steps[i].config_changed)
            overlay_set_config_changed(o_h, ch);
        EXPECT_EQ(evaluate(), steps[i].calls) << "step " << i;
    }
}

TEST_F(Overlay, FailedCallsAreLoggedOnceAndNotRetried)
{
    fake::refuse_overlay = true;
    overlay_set_no_video(o_h, 0, 0);
    overlay_set_no_video(o_h, 1, 0);
    overlay_set_config_changed(o_h, 3);
    EXPECT_EQ(evaluate(), (Calls{at(3, loss), at(4, changed)}));
    EXPECT_THAT(evaluate(), testing::IsEmpty());
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
    /* The service's handler waits for another thread to record a state: with
     * the mutex held across the call, that wait would run out. */
    for (uint32_t i = 1; i < 4; i++)
        overlay_set_no_video(o_h, i, 0);
    std::mutex m; /* orders the hook's writes before the reads below */
    std::thread recorder;
    std::promise<void> recorded;
    bool in_time = false;
    fake::bus_set_call_hook([&] {
        std::lock_guard guard(m);
        recorder = std::thread([&] {
            overlay_set_no_video(o_h, 3, 1);
            recorded.set_value();
        });
        in_time =
            recorded.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    });
    EXPECT_EQ(evaluate(), (Calls{at(1, loss)}));
    fake::bus_set_call_hook(nullptr);
    std::lock_guard guard(m);
    ASSERT_TRUE(recorder.joinable());
    recorder.join();
    EXPECT_TRUE(in_time);
    EXPECT_EQ(evaluate(), (Calls{at(4, loss)}));
}

} // namespace
