/* Sync and lock: the lock bits follow the channel's programming, with a delay
 * when it starts to fit and at once when it stops. Timing bytes below are the
 * driver's register tables for registers 0x15..0x1D. */
#include "model_fixture.h"

using namespace vboard;
using namespace vboard_test;

namespace
{

using Timing = std::vector<uint8_t>;
const Timing T_1080P30 = {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x08, 0x98};
const Timing T_1080P25 = {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x0A, 0x50};
const Timing T_720P30 = {0x13, 0x16, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x06, 0x72};
const Timing T_720P30V2 = {0x13, 0x16, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x0C, 0xE4};
const Timing T_PAL = {0x13, 0x5F, 0xBC, 0x17, 0x20, 0x17, 0x00, 0x09, 0x48};
const Timing T_QHDP25 = {0x23, 0x1B, 0x00, 0x38, 0xA0, 0x5A, 0x00, 0x0F, 0x76};
const Timing T_DEFAULT = {0x13, 0x15, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x06, 0x72};

constexpr uint64_t MS = 1000;

class Lock : public ModelTest
{
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        model->set_sync_delay_us(50 * MS);
        model->set_lock_delay_us(300 * MS);
    }

    /* Select the page, set the channel's bit of 0xF5 (half rate), write 0x35
     * and the timing table, as a format setter would. */
    void program(int ch, bool half_rate, uint8_t reg35, const Timing &t)
    {
        bus_write(*model, 0x40, uint8_t(ch));
        bus_update(*model, 0xF5, uint8_t(1 << ch), half_rate ? uint8_t(1 << ch) : 0);
        bus_write(*model, 0x35, reg35);
        bus_write_run(*model, 0x15, t);
    }

    int status(int ch)
    {
        bus_write(*model, 0x40, uint8_t(ch));
        return bus_read(*model, 0x01);
    }
    bool locked(int ch) { return (status(ch) & 0x60) == 0x60; }

    /* Run the clock to the model's next deadline, if any. */
    bool to_deadline()
    {
        const uint64_t d = model->next_deadline_us();
        if (d == UINT64_MAX)
            return false;
        EXPECT_GE(d, clock.now);
        clock.now = d;
        model->poll();
        return true;
    }
};

TEST_F(Lock, SyncComesWithTheSignalLockWithFittingProgramming)
{
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(status(1), 0x04) << "signal present, TVI, nothing seen yet";
    advance_us(50 * MS);
    EXPECT_EQ(status(1), 0x14) << "sync, no lock on the default programming";
    EXPECT_EQ(model->next_deadline_us(), UINT64_MAX);

    program(1, false, 0x05, T_1080P30);
    const uint64_t programmed = clock.now;
    EXPECT_EQ(model->next_deadline_us(), programmed + 300 * MS);
    advance_us(299 * MS);
    EXPECT_FALSE(locked(1));
    ASSERT_TRUE(to_deadline());
    EXPECT_EQ(status(1), 0x74);
    EXPECT_FALSE(locked(0));
    EXPECT_EQ(model->next_deadline_us(), UINT64_MAX);
}

TEST_F(Lock, LockWaitsForSyncWhenProgrammedEarly)
{
    program(0, false, 0x05, T_1080P25);
    model->set_lock_delay_us(10 * MS);
    ASSERT_TRUE(model->plug(0, {Standard::AHD, RES_1080P25}));
    advance_us(10 * MS);
    EXPECT_EQ(status(0) & 0x70, 0x00);
    ASSERT_TRUE(to_deadline());
    EXPECT_EQ(status(0), 0x70) << "sync and lock together, AHD has no TVI bit";
}

TEST_F(Lock, OnlyTheCamerasTimingAndModeLock)
{
    struct Case {
        const char *what;
        Camera cam;
        bool half_rate;
        uint8_t reg35;
        const Timing *timing;
        bool locks;
    } cases[] = {
        {"1080p30 timing", {Standard::TVI, RES_1080P30}, false, 0x05, &T_1080P30, true},
        {"1080p25 timing on 1080p30", {Standard::TVI, RES_1080P30}, false, 0x05, &T_1080P25, false},
        {"1080p30 in half-rate mode", {Standard::TVI, RES_1080P30}, true, 0x25, &T_1080P30, false},
        {"720p30 short lines", {Standard::AHD, RES_720P30}, true, 0x25, &T_720P30, true},
        {"720p30 short lines, full rate",
         {Standard::AHD, RES_720P30},
         false,
         0x05,
         &T_720P30,
         false},
        {"720p30 long lines (0x35 bit 5 free)",
         {Standard::TVI, RES_720P30, true},
         false,
         0x25,
         &T_720P30V2,
         true},
        {"720p30 long lines, short timing",
         {Standard::TVI, RES_720P30, true},
         false,
         0x05,
         &T_720P30,
         false},
        {"PAL", {Standard::CVBS, RES_PAL}, true, 0x25, &T_PAL, true},
        {"PAL, 0x35 bit 5 clear", {Standard::CVBS, RES_PAL}, true, 0x05, &T_PAL, false},
        {"1440p25 AHD", {Standard::AHD, RES_1440P25}, false, 0x15, &T_QHDP25, true},
        {"unnamed type 18", {Standard::TVI, 18}, false, 0x05, &T_1080P30, false},
    };
    for (const auto &c : cases) {
        make(ChipKind::TP2827);
        ASSERT_TRUE(model->plug(2, c.cam)) << c.what;
        program(2, c.half_rate, c.reg35, *c.timing);
        advance_us(2000 * MS);
        EXPECT_EQ(locked(2), c.locks) << c.what;
        EXPECT_EQ(model->channel(2).fits, c.locks) << c.what;
    }
}

TEST_F(Lock, CviProgrammingHasItsOwnLineLength)
{
    ASSERT_TRUE(model->plug(0, {Standard::CVI, RES_1080P30}));
    program(0, false, 0x05, T_1080P30);
    advance_us(1000 * MS);
    EXPECT_FALSE(locked(0)) << "the TVI/AHD timing of 2200 does not fit CVI";
    /* The CVI block rewrites the line length: 0x1C=0x09, 0x1D=0x60. */
    bus_write(*model, 0x1C, 0x09);
    bus_write(*model, 0x1D, 0x60);
    advance_us(300 * MS);
    EXPECT_TRUE(locked(0));
}

TEST_F(Lock, AhdModeFlagInLineRegisterIsNotPartOfTheLength)
{
    ASSERT_TRUE(model->plug(0, {Standard::AHD, RES_1440P25}));
    program(0, false, 0x15, T_QHDP25);
    bus_update(*model, 0x1C, 0x80, 0x80);
    advance_us(300 * MS);
    EXPECT_TRUE(locked(0));
    EXPECT_EQ(model->channel(0).line_length, 3958u);
}

TEST_F(Lock, LossIsImmediate)
{
    ASSERT_TRUE(model->plug(3, {Standard::TVI, RES_1080P30}));
    program(3, false, 0x05, T_1080P30);
    advance_us(400 * MS);
    ASSERT_TRUE(locked(3));

    /* Back to the default format: the lock goes with the write. */
    bus_write_run(*model, 0x15, T_DEFAULT);
    EXPECT_EQ(status(3), 0x14);
    bus_write_run(*model, 0x15, T_1080P30);
    advance_us(400 * MS);
    ASSERT_TRUE(locked(3));

    model->unplug(3);
    EXPECT_EQ(status(3), 0x80);
    EXPECT_FALSE(model->camera(3).has_value());

    /* Plugged again on the same programming: sync, then a fresh lock delay. */
    ASSERT_TRUE(model->plug(3, {Standard::TVI, RES_1080P30}));
    advance_us(299 * MS);
    EXPECT_EQ(status(3), 0x14);
    advance_us(1 * MS);
    EXPECT_TRUE(locked(3));

    /* Another camera on the input drops the lock at once. */
    ASSERT_TRUE(model->plug(3, {Standard::TVI, RES_1080P25}));
    EXPECT_FALSE(locked(3));
}

TEST_F(Lock, BroadcastProgrammingReachesEveryChannel)
{
    for (int ch = 0; ch < NUM_CHANNELS; ch++)
        ASSERT_TRUE(model->plug(ch, {Standard::TVI, RES_1080P25}));
    bus_write(*model, 0x40, 0x04);
    bus_write(*model, 0xF5, 0x00);
    bus_write_run(*model, 0x15, T_1080P25);
    advance_us(300 * MS);
    for (int ch = 0; ch < NUM_CHANNELS; ch++)
        EXPECT_TRUE(locked(ch)) << ch;
    /* A half-rate bit on channel 1 alone unlocks channel 1 alone. */
    bus_write(*model, 0xF5, 0x02);
    for (int ch = 0; ch < NUM_CHANNELS; ch++)
        EXPECT_EQ(locked(ch), ch != 1) << ch;
}

} // namespace
