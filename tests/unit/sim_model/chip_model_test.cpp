/* The chip model as a driver sees it over the bus, on a clock driven by hand. */
#include "chip_model.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <tuple>
#include <vector>

using namespace vboard;

namespace
{

constexpr uint64_t MS = 1000;
enum { VS_TVI, VS_AHD, VS_CVI, VS_CVBS };

class Chip : public testing::Test
{
  protected:
    void SetUp() override { make(ChipKind::TP2827); }
    void make(ChipKind kind)
    {
        model = std::make_unique<ChipModel>(kind, [this] { return now; });
        ASSERT_EQ(model->set_address(CHIP_ADDRESS), 0);
    }
    int rd(uint8_t reg) /* pointer write, then a 1-byte read */
    {
        uint8_t v = 0;
        return model->write(&reg, 1) == 1 && model->read(&v, 1) == 1 ? v : -1;
    }
    void wr(int reg, int value)
    {
        const uint8_t buf[2] = {uint8_t(reg), uint8_t(value)};
        ASSERT_EQ(model->write(buf, 2), 2);
    }
    int status(int ch, uint64_t after_ms = 0) /* 0x01 of a channel, after a wait */
    {
        now += after_ms * MS;
        wr(0x40, ch);
        return rd(0x01);
    }
    /* What a format setter writes: 0xF5's half-rate bit, 0x35, the line length. */
    void program(int ch, bool half_rate, int reg35, int line)
    {
        wr(0x40, ch);
        wr(0xF5, (rd(0xF5) & ~(1 << ch)) | (half_rate ? 1 << ch : 0));
        wr(0x35, reg35);
        wr(0x1C, line >> 8);
        wr(0x1D, line & 0xFF);
    }
    /* The driver's reading: the class and its short-line flag, or the detail value
     * for bit 2; the standard from that, class 6, the TVI bit or the CVI signature. */
    std::array<int, 3> read_format(Camera cam) /* type, standard, short-line flag */
    {
        EXPECT_TRUE(model->plug(2, cam));
        wr(0x40, 2);
        const int s = rd(0x03), cls = s & 7;
        std::array r{cls, -1, s & 4 ? s >> 3 & 1 : 0};
        const int by_b[][3] = {{0x2E, 29, VS_AHD}, {0x38, 28, VS_CVI}, {0x5C, 18, -1},
                               {0x67, 4, -1},      {0x75, 21, -1},     {0x7B, 5, -1},
                               {0x93, 9, VS_CVBS}, {0x94, 8, VS_CVBS}};
        wr(0x2F, 0x09);
        for (const auto &e : by_b)
            if (s & 4 && rd(0x04) == e[0])
                r = {e[1], e[2], e[1] == 4 || e[1] == 5};
        const bool cvi = rd(0x91) == 0xFF || rd(0x92) == 0xFF || rd(0x93) == 0xFF;
        if (r[1] < 0)
            r[1] = cls == 6 ? VS_CVBS : rd(0x01) & 4 ? VS_TVI : cvi ? VS_CVI : VS_AHD;
        return r;
    }

    uint64_t now = 1000000;
    std::unique_ptr<ChipModel> model;
};

TEST_F(Chip, IdentityPagedBanksAndPowerOnValuesAfterReset)
{
    auto banks = [&] {
        return std::array{model->bank(0), model->bank(1),    model->bank(2),
                          model->bank(3), model->bank(0x10), model->bank(0x40)};
    };
    const auto power_on = banks();
    wr(0xFF, 0x00); /* read-only */
    EXPECT_EQ(rd(0xFE) << 8 | rd(0xFF), 0x2827);
    for (int ch = 0; ch < 4; ch++) {
        wr(0x40, ch);
        wr(0x10, 0xA0 + ch); /* per channel */
        wr(0xF7, 0x50 + ch); /* global */
    }
    wr(0x40, 0x04);
    wr(0x13, 0x77); /* broadcast */
    EXPECT_EQ(rd(0x10), 0xA0) << "the broadcast page reads channel 0";
    for (int page : {0x07, 0x10, 0x40}) {
        wr(0x40, page);
        wr(0x10, 0x99);
        EXPECT_EQ(rd(0x10), page == 0x07 ? 0x00 : 0x99) << "an unmapped page, then the others";
    }
    for (int ch = 0; ch < 4; ch++) {
        wr(0x40, ch);
        EXPECT_EQ(rd(0x10) << 16 | rd(0x13) << 8 | rd(0xF7), (0xA0 + ch) << 16 | 0x7753) << ch;
    }
    model->reset();
    EXPECT_EQ(banks(), power_on);
    make(ChipKind::TP2826);
    EXPECT_EQ(rd(0xFF), 0x26);
}

TEST_F(Chip, EachCameraFormatReadsBackWithItsTypeStandardAndShortLineFlag)
{
    auto check = [&](Camera cam, std::array<int, 3> want) {
        EXPECT_EQ(read_format(cam), want) << int(cam.standard) << cam.long_lines << cam.resolution;
    };
    for (auto [st, vs] :
         {std::pair{Standard::TVI, VS_TVI}, {Standard::AHD, VS_AHD}, {Standard::CVI, VS_CVI}}) {
        for (int res : {0, 1, 2, 3, 7, 18, 21})
            check({st, res}, {res, vs, 0});
        for (int res : {4, 5})
            for (bool long_lines : {false, true})
                check({st, res, long_lines}, {res, vs, !long_lines});
        check({st, 10}, {3, vs, 0}); /* no extended identity: 4K and 1440p read lower */
        check({st, 24}, {4, vs, 1});
        check({st, 26}, {0, vs, 0});
    }
    for (int res : {6, 8, 9})
        check({Standard::CVBS, res}, {res, VS_CVBS, 0});
    check({Standard::CVI, 28}, {28, VS_CVI, 0});
    check({Standard::AHD, 29}, {29, VS_AHD, 0});
}

TEST_F(Chip, LocksAfterTheDelayOnFittingProgrammingOnlyAndLosesItOnMisfitAndReset)
{
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(status(1), 0x04) << "signal present, TVI";
    EXPECT_EQ(status(1, 50), 0x14) << "sync, no lock on the power-on programming";
    program(1, false, 0x05, 2200);
    EXPECT_EQ(model->next_deadline_us(), now + 300 * MS);
    EXPECT_EQ(status(1, 299), 0x14);
    EXPECT_EQ(status(1, 1), 0x74);
    wr(0x1D, 0x72);
    EXPECT_EQ(status(1), 0x14) << "a lock just gained drops at once";
    /* A settled lock rides out the line lengths a format rewrite passes through. */
    wr(0x1D, 0x98);
    now += 600 * MS;
    wr(0x1D, 0x72);
    now += MS;
    wr(0x1D, 0x98);
    EXPECT_EQ(status(1), 0x74) << "a moment's misfit";
    wr(0x1D, 0x72);
    EXPECT_EQ(status(1, 300), 0x14) << "a lasting misfit";
    wr(0x1D, 0x98);
    EXPECT_EQ(status(1, 300), 0x74);
    model->reset();
    EXPECT_EQ(status(1), 0x14) << "after a reset the camera stays, synced, no longer locked";

    /* Misfits a driver could make (the fitting formats lock on the board). */
    const std::tuple<const char *, Camera, bool, int, int, bool> cases[] = {
        {"half rate", {Standard::TVI, RES_1080P30}, true, 0x25, 2200, false},
        {"TVI line on CVI", {Standard::CVI, RES_1080P30}, false, 0x05, 2200, false},
        {"short lines at full rate", {Standard::AHD, RES_720P30}, false, 0x05, 1650, false},
        {"0x35 bit 5 clear", {Standard::CVBS, RES_PAL}, true, 0x05, 2376, false},
    };
    for (const auto &[what, cam, half_rate, reg35, line, locks] : cases) {
        make(ChipKind::TP2827);
        ASSERT_TRUE(model->plug(2, cam)) << what;
        program(2, half_rate, reg35, line);
        EXPECT_EQ((status(2, 2000) & 0x60) == 0x60, locks) << what;
    }
}

TEST_F(Chip, InterruptsOnlyWhenEnabledClearedByOnesAndPtzDecodedToWhatWasSent)
{
    int edges = 0;
    model->set_irq_callback([&] { edges++; });
    std::vector<int> seen; /* 0xB5, and 0xB6 at the end */
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    seen.push_back(rd(0xB5)); /* channel 1 not enabled */
    wr(0xB8, 0x20);           /* channel 2, by its upper bit */
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    model->unplug(2);
    wr(0xB5, 0x00);
    seen.push_back(rd(0xB5));
    wr(0xB5, 0xFF);
    seen.push_back(rd(0xB5) | model->irq_pending());
    program(2, false, 0x05, 2200); /* lock and loss of lock are events too */
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    wr(0xB5, 0xFF);
    now += 300 * MS;
    seen.push_back(rd(0xB5));
    wr(0xB5, 0xFF);
    wr(0x1D, 0x72);
    seen.push_back(rd(0xB5));
    /* Data bytes 2, 1, 4, 3 = 0xFF, 0x00, 0x80, 0x01, three registers each; no edge. */
    const int sent[] = {0xDB, 0x6D, 0xB6, 0x92, 0x49, 0x24, 0xD2, 0x49, 0x24, 0x92, 0x49, 0x26};
    for (int i = 0; i < 12; i++)
        wr(0x55 + i, sent[i]);
    wr(0x71, 0x20);
    wr(0x6F, 0x01);
    now += 1000 * MS;
    seen.push_back(rd(0xB6));
    model->reset();
    seen.push_back(rd(0xB5) | rd(0xB6) | rd(0xB8) | model->irq_pending());
    EXPECT_EQ(seen, (std::vector<int>{0x00, 0x04, 0x00, 0x04, 0x04, 0x04, 0x00}));
    EXPECT_EQ(edges, 4) << "plug, plug, lock, loss; the unplug came while the line was high";
    EXPECT_EQ(model->ptz_received(2), (std::vector<PtzRecord>{{2, 0x00, 0xFF, 0x01, 0x80}}));
}

} // namespace
