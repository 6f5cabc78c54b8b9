/* PTZ: what the camera receives when the driver loads the transmit buffer and
 * pulses the start bit, following the transmission sequence of the 2827. */
#include "model_fixture.h"

using namespace vboard;
using namespace vboard_test;

namespace
{

/* Three-symbols-per-bit encoding into three registers. */
void encode(ChipModel &m, uint8_t first, uint8_t byte)
{
    uint32_t word = 0;
    for (int bit = 7; bit >= 0; bit--)
        word = word << 3 | ((byte >> bit & 1) ? 6 : 4);
    bus_write(m, first, uint8_t(word >> 16));
    bus_write(m, uint8_t(first + 1), uint8_t(word >> 8));
    bus_write(m, uint8_t(first + 2), uint8_t(word & 0xFE));
}

class Ptz : public ModelTest
{
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        model->set_ptz_time_us(1500);
    }

    void set_mode(uint8_t channel)
    {
        bus_write(*model, 0x40, channel);
        const std::pair<uint8_t, uint8_t> list[] = {
            {0x6F, 0x42}, {0x70, 0x40}, {0x71, 0x00}, {0xC0, 0x00}, {0xC1, 0x00}, {0xC2, 0x0F},
            {0xC3, 0x10}, {0xC4, 0x00}, {0xC5, 0x00}, {0xC6, 0x4A}, {0xC7, 0xF0}, {0xC8, 0x6F}};
        for (auto [r, v] : list)
            bus_write(*model, r, v);
        bus_update(*model, 0x71, 0x20, 0x20);
    }

    void load(const uint8_t *rec)
    {
        for (int r = 0x55; r <= 0x6C; r++)
            bus_write(*model, uint8_t(r), 0x00);
        encode(*model, 0x55, rec[2]);
        encode(*model, 0x58, rec[1]);
        encode(*model, 0x5B, rec[4]);
        encode(*model, 0x5E, rec[3]);
    }

    /* One start pulse; returns the number of 0xB6 reads until the channel's
     * bit showed (0 if it never did), the clock moving 2 ms per retry. */
    int trigger(uint8_t channel)
    {
        const uint8_t mask = channel < 8 ? uint8_t(1u << channel) : 0;
        bus_write(*model, 0xB6, mask);
        const int ctrl = bus_read(*model, 0x6F);
        bus_write(*model, 0x6F, uint8_t(ctrl | 0x01));
        bus_write(*model, 0x6F, uint8_t(ctrl & 0xFE));
        for (int i = 1; i <= 100; i++) {
            if (bus_read(*model, 0xB6) & mask)
                return i;
            clock.now += 2000;
        }
        return 0;
    }

    void transmit(const uint8_t *rec)
    {
        const int saved = bus_read(*model, 0x40);
        set_mode(rec[0]);
        load(rec);
        completions.push_back(trigger(rec[0]));
        completions.push_back(trigger(rec[0]));
        bus_write(*model, 0x40, uint8_t(saved));
    }

    std::vector<int> completions;
};

TEST_F(Ptz, ExampleRecordArrivesAsSentTwice)
{
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    bus_write(*model, 0x40, 0x02);
    const uint8_t rec[5] = {0x01, 0x00, 0xFF, 0x01, 0x80};
    transmit(rec);
    EXPECT_EQ(completions, (std::vector<int>{2, 2})) << "complete after one symbol time";
    const PtzRecord want{0x01, 0x00, 0xFF, 0x01, 0x80};
    EXPECT_EQ(model->ptz_received(1), (std::vector<PtzRecord>{want, want}));
    EXPECT_TRUE(model->ptz_received(0).empty());
    EXPECT_EQ(bus_read(*model, 0x40), 0x02) << "page restored";
    EXPECT_EQ(model->counters().ptz_transmissions, 2u);
}

TEST_F(Ptz, EveryByteValueSurvives)
{
    ASSERT_TRUE(model->plug(0, {Standard::AHD, RES_720P25}));
    model->set_ptz_time_us(0);
    std::vector<PtzRecord> want;
    for (int v = 0; v < 256; v += 5) {
        const uint8_t rec[5] = {0, uint8_t(v), uint8_t(255 - v), uint8_t(v ^ 0x5A), uint8_t(v * 7)};
        transmit(rec);
        want.push_back({rec[0], rec[1], rec[2], rec[3], rec[4]});
        want.push_back(want.back());
    }
    EXPECT_EQ(model->ptz_received(0), want);
}

TEST_F(Ptz, NothingWithoutTransmitterOrOnTheOtherChip)
{
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    /* Buffer loaded and pulsed, but 0x71 bit 5 never set. */
    bus_write(*model, 0x40, 0x02);
    const uint8_t rec[5] = {0x02, 0x11, 0x22, 0x33, 0x44};
    load(rec);
    EXPECT_EQ(trigger(2), 0);
    EXPECT_TRUE(model->ptz_received(2).empty());

    make(ChipKind::TP2826);
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    transmit(rec);
    EXPECT_EQ(completions.back(), 0);
    EXPECT_TRUE(model->ptz_received(2).empty());
    EXPECT_EQ(model->counters().ptz_transmissions, 0u);
}

TEST_F(Ptz, NoCameraOrGarbledBufferIsSentButNotUnderstood)
{
    const uint8_t rec[5] = {0x03, 0x01, 0x02, 0x03, 0x04};
    transmit(rec);
    EXPECT_EQ(completions, (std::vector<int>{2, 2}));
    EXPECT_TRUE(model->ptz_received(3).empty());

    ASSERT_TRUE(model->plug(3, {Standard::TVI, RES_1080P30}));
    set_mode(3);
    load(rec);
    bus_write(*model, 0x5C, 0xFF); /* symbols 111 */
    EXPECT_GT(trigger(3), 0);
    EXPECT_TRUE(model->ptz_received(3).empty());
    EXPECT_EQ(model->counters().ptz_garbled, 1u);
}

TEST_F(Ptz, ChannelAbove3UsesThePageItSelects)
{
    for (int ch = 0; ch < NUM_CHANNELS; ch++)
        ASSERT_TRUE(model->plug(ch, {Standard::TVI, RES_1080P30}));
    /* 7 selects the broadcast page: every camera gets it, but bit 7 of 0xB6
     * never shows. 9 selects the 0x40 bank: nothing is sent. */
    const uint8_t to_all[5] = {0x04, 0xA5, 0x00, 0xFF, 0x01};
    bus_write(*model, 0x40, 0x04);
    set_mode(0x04);
    load(to_all);
    EXPECT_EQ(trigger(7), 0);
    for (int ch = 0; ch < NUM_CHANNELS; ch++) {
        const auto got = model->ptz_received(ch);
        ASSERT_EQ(got.size(), 1u) << ch;
        EXPECT_EQ(got[0], (PtzRecord{uint8_t(ch), 0xA5, 0x00, 0xFF, 0x01}));
    }
    const uint8_t aux[5] = {0x09, 1, 2, 3, 4};
    transmit(aux);
    EXPECT_EQ(completions, (std::vector<int>{0, 0}));
    EXPECT_EQ(model->ptz_received(0).size(), 1u);
}

} // namespace
