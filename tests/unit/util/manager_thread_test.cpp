/* The manager thread: start and stop, interrupts, where a stop request is
 * seen, and the guard on the fields the fixed-configuration step updates.
 * gpio_irq_poll answers at once, so passes follow each other; the tests wait
 * for journalled states with a deadline. */
#include <chrono>
#include <functional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "fakes.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "util.h"

using fake::journal_matching;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

bool wait_until(const std::function<bool()> &done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

size_t count(const std::string &prefix)
{
    return journal_matching(prefix).size();
}

std::vector<std::string> manager_messages()
{
    std::vector<std::string> found;
    for (auto &m : log_capture_messages())
        if (m.text.find("anager thread") != std::string::npos)
            found.push_back(m.text);
    return found;
}

const char *const all_lost[] = {"Overlay(1).Set(VIDEO_LOSS,0)", "Overlay(2).Set(VIDEO_LOSS,0)",
                                "Overlay(3).Set(VIDEO_LOSS,0)", "Overlay(4).Set(VIDEO_LOSS,0)"};

class ManagerThread : public testing::Test
{
  protected:
    /* A failed expectation must not leave the thread running. */
    void TearDown() override { stop(); }
    void start()
    {
        thread = manager_thread_start(td.get());
        ASSERT_NE(thread, nullptr);
    }
    void stop()
    {
        manager_thread_stop(thread);
        thread = nullptr;
    }

    TestDecoder td;
    GThread *thread = nullptr;
};

TEST_F(ManagerThread, PassesRunUntilStopped)
{
    td.set(0, 0, VT_PAL, CM_PAL);
    start();
    ASSERT_TRUE(wait_until([] { return count("video_status") >= 3 * MAX_SOURCES; }));
    stop();

    const auto entries = fake::journal_take();
    ASSERT_GE(entries.size(), 3u);
    EXPECT_EQ(entries[0], "irq_open");
    EXPECT_EQ(entries[1], "enable_irq locked vinmand manager");
    EXPECT_EQ(entries[2], "irq_poll(2000)");
    EXPECT_EQ(entries.back(), "irq_close");
    /* No interrupt arrived: the status was never read. The overlay was
     * brought in line once; later passes changed nothing. */
    std::vector<std::string> overlay;
    for (auto &entry : entries) {
        EXPECT_NE(entry, "irq_status locked");
        EXPECT_NE(entry, "video_status(0) unlocked") << "the status pass holds the lock";
        if (entry.starts_with("Overlay"))
            overlay.push_back(entry);
    }
    EXPECT_THAT(overlay, testing::ElementsAreArray(all_lost));
    EXPECT_THAT(manager_messages(),
                ElementsAre("Starting manager thread", "Stopping manager thread",
                            "Manager thread exit", "Stopped manager thread"));
}

TEST_F(ManagerThread, WithoutDecoderNoThreadWithoutInterruptLineNoPass)
{
    EXPECT_EQ(manager_thread_start(nullptr), nullptr);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "No valid video decoder to use"), 1u);
    manager_thread_stop(nullptr);
    EXPECT_THAT(manager_messages(), IsEmpty());

    stand_in::irq_open_fails = true;
    start();
    stop();
    EXPECT_THAT(fake::journal_take(), ElementsAre("irq_open"));
    EXPECT_THAT(manager_messages(),
                ElementsAre("Starting manager thread", "Stopping manager thread",
                            "Stopped manager thread"));
}

TEST_F(ManagerThread, OnlyAVideoLossOrDetectInterruptStartsAPass)
{
    stand_in::irq_poll_result = 1;
    td.irq_mask = 1 | 4;
    start();
    ASSERT_TRUE(wait_until([] { return count("irq_status") >= 2; }));
    EXPECT_EQ(count("video_status"), 0u);

    td.irq_mask = 2 | 4;
    ASSERT_TRUE(wait_until([] { return count("video_status") >= MAX_SOURCES; }));
    stop();
    EXPECT_THAT(journal_matching("irq_status unlocked"), IsEmpty());
}

TEST_F(ManagerThread, StopDuringTheLockPassSkipsTheOverlayEvaluation)
{
    td.set(0, 1, VT_AUTO, CM_PAL);
    td.on_detect = [](Channel *) { manager_stop_requested.store(1); };
    start();
    /* The thread ends on its own; stopping only joins it. */
    ASSERT_TRUE(wait_until([] { return count("irq_close") == 1; }));
    stop();

    EXPECT_THAT(journal_matching("save("), ElementsAre("save(0) configured=0 locked"));
    EXPECT_EQ(count("video_status"), size_t(MAX_SOURCES));
    EXPECT_THAT(journal_matching("Overlay"), IsEmpty());
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Manager thread exit"), 1u);
}

TEST_F(ManagerThread, StopDuringTheOverlayEvaluationLetsItComplete)
{
    fake::bus_set_call_hook([] { manager_stop_requested.store(1); });
    start();
    ASSERT_TRUE(wait_until([] { return count("irq_close") == 1; }));
    stop();
    EXPECT_THAT(journal_matching("Overlay"), testing::ElementsAreArray(all_lost));
    EXPECT_EQ(count("irq_poll"), 1u);
}

/* A relaxed flag orders nothing for TSan. */
bool spin_until(const std::atomic<bool> &flag)
{
    return wait_until([&] { return flag.load(std::memory_order_relaxed); });
}

TEST_F(ManagerThread, FixedStepFieldsAreUpdatedUnderTheLock)
{
    /* While the fixed-configuration step waits for SetCaptureMode, another
     * thread reads the channel's fields as a D-Bus handler would: under the
     * lock. The two threads hand over through relaxed flags only, so the
     * step's updates after the call race with that read unless they are made
     * under the lock too; TSan reports it. Channel 0 has no video, so its step
     * runs again on every pass. */
    td.set(0, 0, VT_PAL, CM_PAL);
    td.set(1, 0, VT_NTSC, CM_PAL);
    std::atomic<bool> asked{false}, read{false};
    std::pair<int, int> seen{-1, -1}; /* channel 1's configured and capture mode */
    std::thread handler([&] {
        if (!spin_until(asked))
            return;
        g_mutex_lock(td.get()->lock);
        seen = {td.channel(1).configured, td.channel(1).capture_mode};
        g_mutex_unlock(td.get()->lock);
        read.store(true, std::memory_order_relaxed);
    });
    fake::bus_set_call_hook([&] {
        asked.store(true, std::memory_order_relaxed);
        spin_until(read);
    });
    start();
    ASSERT_TRUE(wait_until([] { return count("video_status") >= 10 * MAX_SOURCES; }));
    stop();
    handler.join();

    EXPECT_EQ(seen, std::make_pair(0, int(CM_PAL))) << "read during the call";
    EXPECT_EQ(td.channel(1).capture_mode, CM_NTSC);
    EXPECT_EQ(td.channel(1).configured, 1) << "its loss is not acted on";
    EXPECT_THAT(journal_matching("SetCaptureMode"), ElementsAre("SetCaptureMode(1)=1"));
    EXPECT_GE(count("video_type(0)"), 5u) << "applied again after each loss";
}

} // namespace
