/* The manager thread's life: start and stop, interrupts, where a stop request
 * is seen, and the guard on the fields the fixed-configuration step updates.
 * gpio_irq_poll answers at once, so passes follow each other without waiting;
 * the tests wait for states with a deadline. */
#include <chrono>
#include <functional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "korvi_log.h"
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

bool wait_until(const std::function<bool()> &done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* The thread's own messages, in order. */
std::vector<std::string> manager_messages()
{
    std::vector<std::string> found;
    for (auto &message : log_messages())
        if (message.find("anager thread") != std::string::npos)
            found.push_back(message);
    return found;
}

class ManagerThreadTest : public testing::Test
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

    void TearDown() override
    {
        /* A failed expectation must not leave the thread running. */
        manager_thread_stop(thread);
    }

    void stop()
    {
        manager_thread_stop(thread);
        thread = nullptr;
    }

    FakeServices *bus = nullptr;
    TestDecoder td;
    GThread *thread = nullptr;
};

TEST_F(ManagerThreadTest, NoDecoderNoThread)
{
    EXPECT_EQ(manager_thread_start(nullptr), nullptr);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "No valid video decoder to use"), 1);
    manager_thread_stop(nullptr);
    EXPECT_THAT(manager_messages(), IsEmpty());
}

TEST_F(ManagerThreadTest, PassesRunUntilStopped)
{
    td.make_fixed(0, VT_PAL, CM_PAL);
    thread = manager_thread_start(td.get());
    ASSERT_NE(thread, nullptr);
    ASSERT_TRUE(wait_until([&] { return td.video_status_calls >= 3 * MAX_SOURCES; }));
    stop();

    auto entries = journal_take();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.front(), "enable_irq locked");
    EXPECT_EQ(stand_in::enable_irq_thread_name(), "vinmand manager");
    EXPECT_EQ(stand_in::irq_last_timeout_ms, 2000);
    /* No interrupt arrived: the status was never read. */
    EXPECT_EQ(td.irq_status_calls, 0);

    /* The overlay was brought in line once; later passes change nothing. */
    std::vector<std::string> overlay;
    for (auto &entry : entries)
        if (entry.rfind("Overlay", 0) == 0)
            overlay.push_back(entry);
    EXPECT_THAT(overlay,
                ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)", "Overlay(2).Set(VIDEO_LOSS,0)",
                            "Overlay(3).Set(VIDEO_LOSS,0)", "Overlay(4).Set(VIDEO_LOSS,0)"));

    EXPECT_THAT(manager_messages(),
                ElementsAre("Starting manager thread", "Stopping manager thread",
                            "Manager thread exit", "Stopped manager thread"));
    EXPECT_EQ(stand_in::irq_opens, 1);
    EXPECT_EQ(stand_in::irq_closes, 1);
    EXPECT_FALSE(stand_in::irq_close_wrong_handle);
}

TEST_F(ManagerThreadTest, WithoutInterruptLineTheThreadEndsAtOnce)
{
    stand_in::irq_open_fails = true;
    thread = manager_thread_start(td.get());
    ASSERT_NE(thread, nullptr);
    stop();
    EXPECT_EQ(stand_in::irq_opens, 1);
    EXPECT_EQ(stand_in::irq_polls, 0);
    EXPECT_EQ(stand_in::irq_closes, 0);
    EXPECT_THAT(journal_take(), IsEmpty());
    EXPECT_THAT(manager_messages(),
                ElementsAre("Starting manager thread", "Stopping manager thread",
                            "Stopped manager thread"));
}

TEST_F(ManagerThreadTest, OnlyAVideoLossOrDetectInterruptStartsAPass)
{
    stand_in::irq_poll_result = 1;
    td.irq_mask = 1 | 4;
    thread = manager_thread_start(td.get());
    ASSERT_NE(thread, nullptr);
    ASSERT_TRUE(wait_until([&] { return td.irq_status_calls >= 2; }));
    EXPECT_EQ(td.video_status_calls, 0);

    td.irq_mask = 2 | 4;
    ASSERT_TRUE(wait_until([&] { return td.video_status_calls >= MAX_SOURCES; }));
    stop();
    EXPECT_THAT(journal_matching("irq_status unlocked"), IsEmpty());
    EXPECT_THAT(journal_matching("irq_status locked"), testing::Not(IsEmpty()));
}

TEST_F(ManagerThreadTest, StopDuringTheLockPassSkipsTheOverlayEvaluation)
{
    td.make_searching(0, CM_PAL);
    td.on_detect = [](Channel *) { manager_stop_requested.store(1); };

    thread = manager_thread_start(td.get());
    ASSERT_NE(thread, nullptr);
    /* The thread ends on its own; stopping only joins it. */
    ASSERT_TRUE(wait_until([] { return stand_in::irq_closes == 1; }));
    stop();

    EXPECT_EQ(td.detect_calls, 1);
    /* The lock pass and the status pass completed for every channel. */
    EXPECT_THAT(journal_matching("save("), ElementsAre("save(0) configured=0 locked"));
    EXPECT_EQ(td.video_status_calls, MAX_SOURCES);
    EXPECT_THAT(journal_matching("Overlay"), IsEmpty());
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Manager thread exit"), 1);
}

TEST_F(ManagerThreadTest, StopDuringTheOverlayEvaluationLetsItComplete)
{
    bus->set_overlay_hook([] { manager_stop_requested.store(1); });

    thread = manager_thread_start(td.get());
    ASSERT_NE(thread, nullptr);
    ASSERT_TRUE(wait_until([] { return stand_in::irq_closes == 1; }));
    stop();

    EXPECT_THAT(journal_matching("Overlay"),
                ElementsAre("Overlay(1).Set(VIDEO_LOSS,0)", "Overlay(2).Set(VIDEO_LOSS,0)",
                            "Overlay(3).Set(VIDEO_LOSS,0)", "Overlay(4).Set(VIDEO_LOSS,0)"));
    /* One pass only: the loop ended at its next check. */
    EXPECT_EQ(td.video_status_calls, MAX_SOURCES);
    EXPECT_EQ(stand_in::irq_polls, 1);
}

TEST_F(ManagerThreadTest, FixedStepFieldsAreReadableUnderTheLockWhileItRuns)
{
    /* A fixed channel without video goes back to Pending on every status pass,
     * so the fixed-configuration step runs on every pass while this thread
     * reads its fields as a D-Bus handler would: under the lock. Under TSan an
     * unguarded update in the step is reported. */
    td.make_fixed(0, VT_PAL, CM_PAL);
    td.make_fixed(1, VT_NTSC, CM_PAL);
    thread = manager_thread_start(td.get());
    ASSERT_NE(thread, nullptr);

    int applied_seen = 0;
    int pending_seen = 0;
    ASSERT_TRUE(wait_until([&] {
        g_mutex_lock(td.get()->lock);
        const Channel &c = td.channel(0);
        (c.configured ? applied_seen : pending_seen)++;
        const int32_t mode = td.channel(1).capture_mode;
        const uint8_t changed = td.channel(1).capture_mode_changed;
        g_mutex_unlock(td.get()->lock);
        EXPECT_TRUE(mode == CM_PAL || (mode == CM_NTSC && changed == 1));
        return td.video_status_calls >= 10 * MAX_SOURCES;
    }));
    stop();

    EXPECT_GT(applied_seen + pending_seen, 0);
    /* Channel 1's capture mode was set once and its loss is not acted on. */
    EXPECT_EQ(td.channel(1).capture_mode, CM_NTSC);
    EXPECT_EQ(td.channel(1).configured, 1);
    EXPECT_THAT(journal_matching("SetCaptureMode"), ElementsAre("SetCaptureMode(1)=1"));
    /* Channel 0 was applied again after each loss. */
    EXPECT_GE(journal_matching("video_type(0)").size(), 5u);
}

} // namespace
