/* The chip on the bus: addressing, identification, pages, read-only
 * registers, faults, counters and reset. */
#include "model_fixture.h"

#include <thread>

using namespace vboard;
using namespace vboard_test;

namespace
{

using Bus = ModelTest;

TEST_F(Bus, IdentifiesBothChips)
{
    EXPECT_EQ(bus_read(*model, 0xFE), 0x28);
    EXPECT_EQ(bus_read(*model, 0xFF), 0x27);
    model->set_revision(0x05);
    EXPECT_EQ(bus_read(*model, 0xFD), 0x05);

    make(ChipKind::TP2826);
    EXPECT_EQ(bus_read(*model, 0xFE), 0x28);
    EXPECT_EQ(bus_read(*model, 0xFF), 0x26);
    /* Identification reads the same on every page. */
    bus_write(*model, 0x40, 0x40);
    EXPECT_EQ(bus_read(*model, 0xFF), 0x26);
}

TEST_F(Bus, OnlyAddress0x44Answers)
{
    const uint8_t reg = 0xFE;
    uint8_t v = 0;
    ASSERT_EQ(model->set_address(0x45), 0) << "binding itself always succeeds";
    EXPECT_EQ(model->write(&reg, 1), -ENXIO);
    EXPECT_EQ(model->read(&v, 1), -ENXIO);
    ASSERT_EQ(model->set_address(0x88), 0) << "the 8-bit form is another address";
    EXPECT_EQ(bus_read(*model, 0xFE), -1);
    ASSERT_EQ(model->set_address(0x44), 0);
    EXPECT_EQ(bus_read(*model, 0xFE), 0x28);
    const Counters c = model->counters();
    EXPECT_EQ(c.failed, 3u);
    EXPECT_EQ(c.address_sets, 4u); /* the fixture's own included */
}

TEST_F(Bus, PagesSelectChannelBanks)
{
    for (uint8_t ch = 0; ch < 4; ch++) {
        bus_write(*model, 0x40, ch);
        bus_write(*model, 0x10, uint8_t(0xA0 + ch)); /* per channel */
        bus_write(*model, 0xF7, uint8_t(0x50 + ch)); /* global */
    }
    for (uint8_t ch = 0; ch < 4; ch++) {
        bus_write(*model, 0x40, ch);
        EXPECT_EQ(bus_read(*model, 0x40), ch);
        EXPECT_EQ(bus_read(*model, 0x10), 0xA0 + ch);
        EXPECT_EQ(bus_read(*model, 0xF7), 0x53) << "last write wins on a global";
        EXPECT_EQ(model->reg(ch, 0x10), 0xA0 + ch);
    }
}

TEST_F(Bus, BroadcastPageWritesAllReadsChannel0)
{
    bus_write(*model, 0x40, 0x01);
    bus_write(*model, 0x12, 0x11);
    bus_write(*model, 0x40, 0x04);
    bus_write(*model, 0x13, 0x77);
    for (uint8_t ch = 0; ch < 4; ch++)
        EXPECT_EQ(model->reg(ch, 0x13), 0x77) << int(ch);
    EXPECT_EQ(bus_read(*model, 0x12), 0x00) << "channel 0's bank, not channel 1's";
    bus_write(*model, 0x40, 0x00);
    bus_write(*model, 0x12, 0x22);
    bus_write(*model, 0x40, 0x04);
    EXPECT_EQ(bus_read(*model, 0x12), 0x22);
}

TEST_F(Bus, AuxiliaryAndUnmappedPages)
{
    bus_write(*model, 0x40, 0x40);
    bus_update(*model, 0x1F, 0x60, 0x60);
    bus_write(*model, 0x40, 0x10);
    bus_write(*model, 0x1F, 0x0A);
    bus_write(*model, 0x40, 0x40);
    EXPECT_EQ(bus_read(*model, 0x1F), 0x60);
    EXPECT_EQ(bus_read(*model, 0x01), 0x00) << "no status in an auxiliary bank";
    for (uint8_t ch = 0; ch < 4; ch++)
        EXPECT_EQ(model->reg(ch, 0x1F), 0x00);
    EXPECT_EQ(model->reg(0x10, 0x1F), 0x0A);

    bus_write(*model, 0x40, 0x07);
    bus_write(*model, 0x10, 0x99);
    EXPECT_EQ(bus_read(*model, 0x10), 0x00);
    EXPECT_EQ(bus_read(*model, 0xFE), 0x28);
    for (uint8_t page : {0x00, 0x01, 0x02, 0x03, 0x10, 0x40})
        EXPECT_EQ(model->reg(page, 0x10), 0x00) << int(page);
}

TEST_F(Bus, StatusAndIdentificationAreReadOnly)
{
    ASSERT_TRUE(model->plug(0, {Standard::TVI, RES_1080P30}));
    bus_write(*model, 0x40, 0x00);
    const int status = bus_read(*model, 0x01);
    const int format = bus_read(*model, 0x03);
    bus_write(*model, 0x01, 0xFF);
    bus_write(*model, 0x03, 0xFF);
    bus_write(*model, 0xFE, 0x00);
    bus_write(*model, 0xFF, 0x00);
    EXPECT_EQ(bus_read(*model, 0x01), status);
    EXPECT_EQ(bus_read(*model, 0x03), format);
    EXPECT_EQ(bus_read(*model, 0xFE), 0x28);
    EXPECT_EQ(bus_read(*model, 0xFF), 0x27);
    /* The data port shows the detail value the index register selects. */
    bus_write(*model, 0x2F, 0x0E);
    EXPECT_EQ(bus_read(*model, 0x04), 0x46);
    bus_write(*model, 0x2F, 0x55);
    EXPECT_EQ(bus_read(*model, 0x04), 0x00);
}

TEST_F(Bus, MultiByteTransfersAutoIncrement)
{
    bus_write(*model, 0x40, 0x02);
    const uint8_t run[4] = {0x30, 0x01, 0x02, 0x03};
    ASSERT_EQ(model->write(run, 4), 4);
    const uint8_t reg = 0x30;
    ASSERT_EQ(model->write(&reg, 1), 1);
    uint8_t got[3] = {};
    ASSERT_EQ(model->read(got, 3), 3);
    EXPECT_EQ(got[0], 0x01);
    EXPECT_EQ(got[1], 0x02);
    EXPECT_EQ(got[2], 0x03);
    /* The pointer wraps from 0xFF to 0x00. */
    const uint8_t top = 0xFE;
    ASSERT_EQ(model->write(&top, 1), 1);
    ASSERT_EQ(model->read(got, 3), 3);
    EXPECT_EQ(got[0], 0x28);
    EXPECT_EQ(got[1], 0x27);
    EXPECT_EQ(got[2], model->reg(0x02, 0x00));
}

TEST_F(Bus, Faults)
{
    model->set_absent(true);
    EXPECT_EQ(bus_read(*model, 0xFE), -1);
    const uint8_t wr[2] = {0x10, 0x01};
    EXPECT_EQ(model->write(wr, 2), -ENXIO);
    model->set_absent(false);
    model->set_nack_all(true);
    EXPECT_EQ(model->write(wr, 2), -EREMOTEIO);
    model->set_nack_all(false);

    model->set_nack_register(0x1C);
    const uint8_t ptr = 0x1C;
    EXPECT_EQ(model->write(&ptr, 1), -EREMOTEIO);
    EXPECT_FALSE(bus_write(*model, 0x1C, 0x08));
    const uint8_t across[3] = {0x1B, 0x00, 0x00};
    EXPECT_EQ(model->write(across, 3), -EREMOTEIO) << "a run over the register";
    EXPECT_EQ(bus_read(*model, 0x1B), 0x00);
    uint8_t two[2];
    EXPECT_EQ(model->read(two, 2), -EREMOTEIO) << "pointer now at 0x1C";
    EXPECT_EQ(model->reg(0, 0x1C), 0x06) << "failed writes changed nothing";
    model->set_nack_register(-1);
    EXPECT_TRUE(bus_write(*model, 0x1C, 0x08));
    EXPECT_EQ(model->counters().failed, 7u);
}

TEST_F(Bus, CountsByKindAndPage)
{
    const Counters before = model->counters();
    bus_write(*model, 0x40, 0x03);
    bus_read(*model, 0x10);
    bus_read(*model, 0x10);
    bus_write(*model, 0x10, 0x01);
    bus_write(*model, 0x40, 0x04);
    bus_write(*model, 0x10, 0x02);
    const Counters c = model->counters();
    EXPECT_EQ(c.pointer_writes - before.pointer_writes, 2u);
    EXPECT_EQ(c.reads - before.reads, 2u);
    EXPECT_EQ(c.register_writes - before.register_writes, 4u);
    EXPECT_EQ(c.reg_reads[3][0x10], 2u);
    EXPECT_EQ(c.reg_writes[3][0x10], 1u);
    EXPECT_EQ(c.reg_writes[PAGE_SLOT_BROADCAST][0x10], 1u);
    EXPECT_EQ(c.reg_writes[0][0x40], 1u) << "page write counted on the page it left";
    EXPECT_EQ(c.reg_writes[3][0x40], 1u);
}

TEST_F(Bus, ResetRestoresPowerOnValues)
{
    std::array<std::array<uint8_t, 256>, 6> power_on;
    const uint8_t pages[6] = {0x00, 0x01, 0x02, 0x03, 0x10, 0x40};
    for (int i = 0; i < 6; i++)
        power_on[i] = model->bank(pages[i]);
    EXPECT_EQ(power_on[0][0x40], 0x00);
    EXPECT_EQ(power_on[1][0x1C] << 8 | power_on[1][0x1D], 1650);

    bus_write(*model, 0xB8, 0xFF);
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    bus_write(*model, 0x40, 0x04);
    for (int r = 0x05; r <= 0x3F; r++)
        bus_write(*model, uint8_t(r), uint8_t(r * 3));
    bus_write_run(*model, 0x15, {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x08, 0x98});
    bus_write(*model, 0x40, 0x40);
    bus_write(*model, 0x3C, 0x3F);
    bus_write(*model, 0xF7, 0x22);
    clock.now += 1000000;
    ASSERT_TRUE(model->irq_pending());
    ASSERT_EQ(model->channel(1).status, 0x74);

    model->reset();
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30})) << "same camera again";
    model->reset();
    clock.now += 1000000;
    for (int i = 0; i < 6; i++) {
        auto now = model->bank(pages[i]);
        auto want = power_on[i];
        if (pages[i] == 0x01) { /* the camera's status is no power-on value */
            for (uint8_t r : {0x01, 0x03, 0x04, 0x91, 0x92, 0x93})
                now[r] = want[r] = 0;
        }
        EXPECT_EQ(now, want) << "page " << int(pages[i]);
    }
    EXPECT_FALSE(model->irq_pending());
    EXPECT_TRUE(model->camera(1).has_value()) << "cameras are not part of the chip";
    EXPECT_EQ(model->channel(1).status, 0x14) << "synced, no longer locked";
}

TEST_F(Bus, ResetLineSilencesTheChipWhileAsserted)
{
    bus_write(*model, 0x40, 0x02);
    bus_write(*model, 0x10, 0x5A);
    model->set_reset_line(true);
    EXPECT_EQ(bus_read(*model, 0x40), -1);
    EXPECT_EQ(model->reg(0x02, 0x10), 0x00) << "reset on assertion";
    model->set_reset_line(false);
    EXPECT_EQ(bus_read(*model, 0x40), 0x00);
    bus_write(*model, 0x40, 0x02);
    bus_write(*model, 0x10, 0x5A);
    model->set_reset_line(false);
    EXPECT_EQ(model->reg(0x02, 0x10), 0x5A) << "releasing alone resets nothing";
}

TEST_F(Bus, ConcurrentCallersSeeConsistentState)
{
    model->set_lock_delay_us(0);
    std::atomic<bool> bad{false};
    std::thread plugger([&] {
        for (int i = 0; i < 500; i++) {
            model->plug(i % 4, {Standard::TVI, RES_1080P30});
            model->unplug(i % 4);
            model->poll();
        }
    });
    std::thread reader([&] {
        for (int i = 0; i < 500; i++) {
            /* Read identification with one combined transfer so that the
             * pointer cannot be moved between pointer write and read. */
            if (model->reg(0x00, 0xFE) != 0x28)
                bad = true;
            model->counters();
            model->next_deadline_us();
        }
    });
    for (int i = 0; i < 500; i++)
        if (bus_read(*model, 0xFF) != 0x27)
            bad = true;
    plugger.join();
    reader.join();
    EXPECT_FALSE(bad);
}

} // namespace
