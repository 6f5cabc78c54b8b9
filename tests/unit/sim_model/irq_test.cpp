/* Interrupt status 0xB5, enable 0xB8 and the interrupt line. */
#include "model_fixture.h"

#include <atomic>

using namespace vboard;
using namespace vboard_test;

namespace
{

constexpr uint64_t MS = 1000;

class Interrupts : public ModelTest
{
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        model->set_irq_callback([this] { edges++; });
    }
    int video_status() { return bus_read(*model, 0xB5); }
    void clear_all()
    {
        bus_write(*model, 0xB4, 0xFF);
        bus_write(*model, 0xB5, 0xFF);
        bus_write(*model, 0xB6, 0xFF);
    }
    int edges = 0;
};

TEST_F(Interrupts, NothingWhileDisabled)
{
    ASSERT_TRUE(model->plug(0, {Standard::TVI, RES_1080P30}));
    model->unplug(0);
    EXPECT_EQ(video_status(), 0);
    EXPECT_FALSE(model->irq_pending());
    EXPECT_EQ(edges, 0);
}

TEST_F(Interrupts, EnabledChannelRaisesItsBitAndOneEdge)
{
    bus_update(*model, 0xB8, 0x30, 0x30); /* channel 2 */
    EXPECT_TRUE(model->channel(2).irq_enabled);
    EXPECT_FALSE(model->channel(1).irq_enabled);

    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(video_status(), 0) << "channel 1 is not enabled";
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(video_status(), 0x04);
    EXPECT_TRUE(model->irq_pending());
    EXPECT_EQ(edges, 1);

    /* The line is already high: a second event sets the bit, no new edge. */
    model->unplug(2);
    EXPECT_EQ(edges, 1);

    clear_all();
    EXPECT_EQ(video_status(), 0);
    EXPECT_FALSE(model->irq_pending());
    ASSERT_TRUE(model->plug(2, {Standard::AHD, RES_1080P25}));
    EXPECT_EQ(edges, 2);
    EXPECT_EQ(model->counters().irq_edges, 2u);
}

TEST_F(Interrupts, EitherEnableBitOfTheChannelWill)
{
    bus_write(*model, 0xB8, 0x80); /* bit 2n+1 of channel 3 only */
    ASSERT_TRUE(model->plug(3, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(video_status(), 0x08);
}

TEST_F(Interrupts, LockAndLossAreEvents)
{
    bus_write(*model, 0xB8, 0x03);
    ASSERT_TRUE(model->plug(0, {Standard::TVI, RES_1080P30}));
    clear_all();
    bus_write(*model, 0x40, 0x00);
    bus_write_run(*model, 0x15, {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x08, 0x98});
    advance_us(100 * MS);
    EXPECT_EQ(video_status(), 0) << "sync alone is no event";
    advance_us(300 * MS);
    EXPECT_EQ(video_status(), 0x01) << "lock";
    EXPECT_EQ(edges, 2);
    clear_all();
    bus_write(*model, 0x1D, 0x72);
    EXPECT_EQ(video_status(), 0x01) << "loss by reprogramming";
    EXPECT_EQ(edges, 3);
}

TEST_F(Interrupts, GroupsAreWriteOneToClear)
{
    bus_write(*model, 0xB8, 0xFF);
    ASSERT_TRUE(model->plug(0, {Standard::TVI, RES_1080P30}));
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    ASSERT_EQ(video_status(), 0x05);
    bus_write(*model, 0xB5, 0x01);
    EXPECT_EQ(video_status(), 0x04);
    EXPECT_TRUE(model->irq_pending());
    bus_write(*model, 0xB5, 0x00);
    EXPECT_EQ(video_status(), 0x04);
    bus_write(*model, 0xB5, 0xFF);
    EXPECT_EQ(video_status(), 0x00);
    EXPECT_EQ(bus_read(*model, 0xB8), 0xFF) << "the enable register is plain";
}

TEST_F(Interrupts, AbsentChipKeepsTheLineLow)
{
    bus_write(*model, 0xB8, 0xFF);
    model->set_absent(true);
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_FALSE(model->irq_pending());
    EXPECT_EQ(edges, 0);
}

TEST_F(Interrupts, CallbackMayCallBackIntoTheModel)
{
    std::atomic<int> seen{-1};
    model->set_irq_callback([&] { seen = bus_read(*model, 0xB5); });
    bus_write(*model, 0xB8, 0x0C);
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(seen.load(), 0x02);
}

} // namespace
