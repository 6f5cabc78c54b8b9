/* The chip model as a driver sees it over the bus: identification, pages,
 * the format registers, sync and lock, interrupts, PTZ and reset. The clock
 * is driven by hand. */
#include "chip_model.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

using namespace vboard;

namespace
{

constexpr uint64_t MS = 1000;
enum { VS_TVI, VS_AHD, VS_CVI, VS_CVBS };

using Timing = std::vector<uint8_t>; /* registers 0x15..0x1D, the driver's tables */
const Timing T_1080P30 = {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x08, 0x98};
const Timing T_1080P25 = {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x0A, 0x50};
const Timing T_1080P30_CVI = {0x03, 0xD3, 0x80, 0x29, 0x38, 0x47, 0x00, 0x09, 0x60};
const Timing T_720P30 = {0x13, 0x16, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x06, 0x72};
const Timing T_720P30V2 = {0x13, 0x16, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x0C, 0xE4};
const Timing T_PAL = {0x13, 0x5F, 0xBC, 0x17, 0x20, 0x17, 0x00, 0x09, 0x48};
const Timing T_QHDP25 = {0x23, 0x1B, 0x00, 0x38, 0xA0, 0x5A, 0x00, 0x0F, 0x76};
const Timing T_QHDP25_AHD = {0x23, 0x1B, 0x00, 0x38, 0xA0, 0x5A, 0x00, 0x8F, 0x76};
const Timing T_DEFAULT = {0x13, 0x15, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x06, 0x72};

struct Reading {
    int type, standard, short_line;
    bool operator==(const Reading &) const = default;
};

class Chip : public testing::Test
{
  protected:
    void SetUp() override { make(ChipKind::TP2827); }
    void make(ChipKind kind)
    {
        model = std::make_unique<ChipModel>(kind, [this] { return now; });
        ASSERT_EQ(model->set_address(CHIP_ADDRESS), 0);
    }
    /* One register read as the driver does it: pointer write, 1-byte read. */
    int rd(uint8_t reg)
    {
        uint8_t v = 0;
        return model->write(&reg, 1) == 1 && model->read(&v, 1) == 1 ? v : -1;
    }
    void wr(int reg, int value)
    {
        const uint8_t buf[2] = {uint8_t(reg), uint8_t(value)};
        ASSERT_EQ(model->write(buf, 2), 2);
    }
    void update(int reg, int mask, int value) { wr(reg, (rd(uint8_t(reg)) & ~mask) | value); }
    void wr_run(int first, const std::vector<uint8_t> &bytes)
    {
        for (size_t i = 0; i < bytes.size(); i++)
            wr(first + int(i), bytes[i]);
    }
    void advance_us(uint64_t us)
    {
        now += us;
        model->poll();
    }
    int status(int ch)
    {
        wr(0x40, ch);
        return rd(0x01);
    }
    bool locked(int ch) { return (status(ch) & 0x60) == 0x60; }
    /* What a format setter writes: the channel's bit of 0xF5 (half rate),
     * 0x35, then the timing table. */
    void program(int ch, bool half_rate, uint8_t reg35, const Timing &t)
    {
        wr(0x40, ch);
        update(0xF5, 1 << ch, half_rate ? 1 << ch : 0);
        wr(0x35, reg35);
        wr_run(0x15, t);
    }

    /* The driver's reading of the detector on the selected page, from the
     * register description: format class, detail lookups, class/short-line
     * fallback, then the standard from class 6, the TVI bit or the CVI
     * signature. Only the lookups this chip's formats reach are here; `x` is
     * the extended identity, which neither the 2826 nor the 2827 has. */
    Reading read_format(bool x)
    {
        auto near = [](int v, int lo) { return v == lo || v == lo + 1; };
        const int s = rd(0x03), cls = s & 7;
        wr(0x2F, 0x0E);
        const int a = rd(0x04);
        Reading r{cls, -1, s >> 3 & 1}; /* the fallback */
        if (!(s & 4)) {
            if (x && cls < 2 && near(a, 0x5D))
                r = {cls == 0 ? 26 : 25, -1, 0};
            else if (x && cls >= 2 && near(a, 0x8C))
                r = {cls == 2 ? 11 : 10, -1, 0};
            else if (!x || near(a, cls < 2 ? 0x2E : 0x46))
                r = {cls, -1, 0};
        } else {
            wr(0x2F, 0x09);
            const int b = rd(0x04);
            const int by_b[][3] = {{0x2E, 29, VS_AHD}, {0x38, 28, VS_CVI}, {0x5C, 18, -1},
                                   {0x75, 21, -1},     {0x7B, 5, -1},      {0x93, 9, VS_CVBS},
                                   {0x94, 8, VS_CVBS}};
            for (const auto &e : by_b)
                if (b == e[0])
                    r = {e[1], e[2], e[1] == 5};
            if (b == 0x67 && x && near(a, 0x5D))
                r = {24, -1, 0};
            else if (b == 0x67 && (!x || near(a, 0x2E)))
                r = {4, -1, 1};
        }
        if (r.standard < 0) {
            const int st = rd(0x01);
            const bool cvi = rd(0x91) == 0xFF || rd(0x92) == 0xFF || rd(0x93) == 0xFF;
            r.standard = (rd(0x03) & 7) == 6 ? VS_CVBS : st & 4 ? VS_TVI : cvi ? VS_CVI : VS_AHD;
        }
        return r;
    }

    uint64_t now = 1000000;
    std::unique_ptr<ChipModel> model;
};

TEST_F(Chip, IdentifiesBothChipsOnlyAtItsAddress)
{
    EXPECT_EQ(rd(0xFE), 0x28);
    EXPECT_EQ(rd(0xFF), 0x27);
    wr(0xFF, 0x00);
    EXPECT_EQ(rd(0xFF), 0x27) << "read-only";
    make(ChipKind::TP2826);
    wr(0x40, 0x02);
    EXPECT_EQ(rd(0xFE), 0x28);
    EXPECT_EQ(rd(0xFF), 0x26) << "on every page";
    ASSERT_EQ(model->set_address(0x45), 0);
    EXPECT_EQ(rd(0xFE), -1);
}

TEST_F(Chip, PagesSelectChannelBanksAndTheBroadcastPageWritesAll)
{
    for (int ch = 0; ch < 4; ch++) {
        wr(0x40, ch);
        wr(0x10, 0xA0 + ch); /* per channel */
        wr(0xF7, 0x50 + ch); /* global */
    }
    for (int ch = 0; ch < 4; ch++) {
        wr(0x40, ch);
        EXPECT_EQ(rd(0x40), ch);
        EXPECT_EQ(rd(0x10), 0xA0 + ch);
        EXPECT_EQ(rd(0xF7), 0x53);
    }
    wr(0x40, 0x04);
    EXPECT_EQ(rd(0x10), 0xA0) << "the broadcast page reads channel 0";
    wr(0x13, 0x77);
    for (uint8_t ch = 0; ch < 4; ch++)
        EXPECT_EQ(model->reg(ch, 0x13), 0x77) << int(ch);
    wr(0x40, 0x07);
    wr(0x10, 0x99);
    EXPECT_EQ(rd(0x10), 0x00) << "an unmapped page";
}

TEST_F(Chip, EachCameraFormatReadsBackWithItsTypeStandardAndShortLineFlag)
{
    auto check = [&](Camera cam, bool x, Reading want) {
        ASSERT_TRUE(model->plug(2, cam));
        wr(0x40, 2);
        EXPECT_EQ(read_format(x), want) << standard_name(cam.standard) << " type " << cam.resolution
                                        << (cam.long_lines ? " long" : "");
    };
    const std::pair<Standard, int> hd[] = {
        {Standard::TVI, VS_TVI}, {Standard::AHD, VS_AHD}, {Standard::CVI, VS_CVI}};
    for (auto [st, vs] : hd) {
        for (int res : {0, 1, 2, 3, 7, 18, 21})
            check({st, res}, false, {res, vs, 0});
        for (int res : {4, 5}) {
            check({st, res, false}, false, {res, vs, 1});
            check({st, res, true}, false, {res, vs, 0});
        }
        for (int res : {10, 11, 24, 25, 26})
            check({st, res}, true, {res, vs, 0});
    }
    check({Standard::CVBS, 8}, false, {8, VS_CVBS, 0});
    check({Standard::CVBS, 9}, false, {9, VS_CVBS, 0});
    check({Standard::CVBS, 6}, false, {6, VS_CVBS, 0});
    check({Standard::CVI, 28}, false, {28, VS_CVI, 0});
    check({Standard::AHD, 29}, false, {29, VS_AHD, 0});
    /* Without the extended identity 4K and 1440p read as lower formats. */
    check({Standard::TVI, 10}, false, {3, VS_TVI, 0});
    check({Standard::TVI, 11}, false, {2, VS_TVI, 0});
    check({Standard::TVI, 24}, false, {4, VS_TVI, 1});
    check({Standard::TVI, 25}, false, {1, VS_TVI, 0});
    check({Standard::TVI, 26}, false, {0, VS_TVI, 0});

    model->unplug(2);
    EXPECT_EQ(status(2), 0x80) << "an empty input has no video";
}

TEST_F(Chip, SyncComesWithTheSignalLockAfterTheDelayLossAtOnce)
{
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(status(1), 0x04) << "signal present, TVI";
    advance_us(50 * MS);
    EXPECT_EQ(status(1), 0x14) << "sync, no lock on the power-on programming";
    EXPECT_EQ(model->next_deadline_us(), UINT64_MAX);

    program(1, false, 0x05, T_1080P30);
    EXPECT_EQ(model->next_deadline_us(), now + 300 * MS);
    advance_us(299 * MS);
    EXPECT_FALSE(locked(1));
    advance_us(1 * MS);
    EXPECT_EQ(status(1), 0x74);
    wr_run(0x15, T_DEFAULT);
    EXPECT_EQ(status(1), 0x14) << "reprogrammed";
    wr_run(0x15, T_1080P30);
    advance_us(300 * MS);
    ASSERT_TRUE(locked(1));

    model->unplug(1);
    EXPECT_EQ(status(1), 0x80);
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    advance_us(299 * MS);
    EXPECT_EQ(status(1), 0x14) << "plugged again: a fresh lock delay";
    advance_us(1 * MS);
    EXPECT_TRUE(locked(1));
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P25}));
    EXPECT_FALSE(locked(1)) << "another camera";
}

TEST_F(Chip, OnlyProgrammingThatFitsTheCameraLocks)
{
    struct Case {
        const char *what;
        Camera cam;
        bool half_rate;
        uint8_t reg35;
        const Timing &timing;
        bool locks;
    } cases[] = {
        {"1080p30", {Standard::TVI, RES_1080P30}, false, 0x05, T_1080P30, true},
        {"1080p25 timing", {Standard::TVI, RES_1080P30}, false, 0x05, T_1080P25, false},
        {"half rate", {Standard::TVI, RES_1080P30}, true, 0x25, T_1080P30, false},
        {"CVI line length", {Standard::CVI, RES_1080P30}, false, 0x05, T_1080P30_CVI, true},
        {"TVI timing on CVI", {Standard::CVI, RES_1080P30}, false, 0x05, T_1080P30, false},
        {"720p30 short lines", {Standard::AHD, RES_720P30}, true, 0x25, T_720P30, true},
        {"full rate", {Standard::AHD, RES_720P30}, false, 0x05, T_720P30, false},
        {"720p30 long lines", {Standard::TVI, RES_720P30, true}, false, 0x25, T_720P30V2, true},
        {"short timing", {Standard::TVI, RES_720P30, true}, false, 0x05, T_720P30, false},
        {"PAL", {Standard::CVBS, RES_PAL}, true, 0x25, T_PAL, true},
        {"0x35 bit 5 clear", {Standard::CVBS, RES_PAL}, true, 0x05, T_PAL, false},
        {"1440p25", {Standard::AHD, RES_1440P25}, false, 0x15, T_QHDP25, true},
        {"AHD flag in 0x1C", {Standard::AHD, RES_1440P25}, false, 0x15, T_QHDP25_AHD, true},
        {"unnamed type 18", {Standard::TVI, 18}, false, 0x05, T_1080P30, false},
    };
    for (const auto &c : cases) {
        make(ChipKind::TP2827);
        ASSERT_TRUE(model->plug(2, c.cam)) << c.what;
        program(2, c.half_rate, c.reg35, c.timing);
        advance_us(2000 * MS);
        EXPECT_EQ(locked(2), c.locks) << c.what;
    }
}

TEST_F(Chip, InterruptsOnlyWhenEnabledAndClearedByWritingOnes)
{
    int edges = 0;
    model->set_irq_callback([&] { edges++; });
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(rd(0xB5), 0);
    EXPECT_FALSE(model->irq_pending());

    wr(0xB8, 0x20); /* channel 2, by its upper bit */
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    EXPECT_EQ(rd(0xB5), 0x04);
    EXPECT_TRUE(model->irq_pending());
    model->unplug(2);
    EXPECT_EQ(edges, 1) << "the line was already high";
    wr(0xB5, 0x00);
    EXPECT_EQ(rd(0xB5), 0x04);
    wr(0xB5, 0xFF);
    EXPECT_EQ(rd(0xB5), 0x00);
    EXPECT_FALSE(model->irq_pending());

    /* Lock and loss of lock are events too. */
    wr(0x40, 2);
    wr_run(0x15, T_1080P30);
    ASSERT_TRUE(model->plug(2, {Standard::TVI, RES_1080P30}));
    wr(0xB5, 0xFF);
    advance_us(300 * MS);
    EXPECT_EQ(rd(0xB5), 0x04);
    wr(0xB5, 0xFF);
    wr(0x1D, 0x72);
    EXPECT_EQ(rd(0xB5), 0x04);
    EXPECT_EQ(edges, 4);
}

TEST_F(Chip, PtzRecordReachesTheCameraAsSent)
{
    const uint8_t rec[5] = {0x01, 0x00, 0xFF, 0x01, 0x80}; /* channel, data 1 to 4 */
    auto send = [&] {
        wr(0x40, rec[0]);
        update(0x71, 0x20, 0x20); /* transmitter on */
        /* Data bytes 2, 1, 4, 3 from 0x55, each as eight 3-bit symbols, MSB
         * first: 110 for a 1, 100 for a 0. */
        const int order[4] = {2, 1, 4, 3};
        for (int k = 0; k < 4; k++) {
            uint32_t word = 0;
            for (int bit = 7; bit >= 0; bit--)
                word = word << 3 | (rec[order[k]] >> bit & 1 ? 6 : 4);
            wr_run(0x55 + 3 * k, {uint8_t(word >> 16), uint8_t(word >> 8), uint8_t(word)});
        }
        wr(0xB6, 0xFF);
        const int ctrl = rd(0x6F);
        wr(0x6F, ctrl | 1);
        wr(0x6F, ctrl & ~1);
    };
    model->set_ptz_time_us(1500);
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    for (int n = 0; n < 2; n++) {
        send();
        EXPECT_EQ(rd(0xB6), 0x00) << "not before the symbol time";
        advance_us(1500);
        EXPECT_EQ(rd(0xB6), 0x02);
    }
    const PtzRecord want{0x01, 0x00, 0xFF, 0x01, 0x80};
    EXPECT_EQ(model->ptz_received(1), (std::vector<PtzRecord>{want, want}));
    EXPECT_TRUE(model->ptz_received(0).empty());
}

TEST_F(Chip, ResetRestoresPowerOnValues)
{
    const uint8_t pages[6] = {0x00, 0x01, 0x02, 0x03, 0x10, 0x40};
    std::array<std::array<uint8_t, 256>, 6> power_on;
    for (int i = 0; i < 6; i++)
        power_on[i] = model->bank(pages[i]);
    EXPECT_EQ(power_on[1][0x1C] << 8 | power_on[1][0x1D], 1650) << "the default format";

    wr(0xB8, 0xFF);
    ASSERT_TRUE(model->plug(1, {Standard::TVI, RES_1080P30}));
    wr(0x40, 0x04);
    for (int r = 0x05; r <= 0x3F; r++)
        wr(r, r * 3);
    wr_run(0x15, T_1080P30);
    wr(0x40, 0x10);
    wr(0x1F, 0x0A);
    wr(0x40, 0x40);
    wr(0xF7, 0x22);
    advance_us(1000 * MS);
    ASSERT_EQ(model->channel(1).status, 0x74);
    ASSERT_TRUE(model->irq_pending());

    model->reset();
    for (int i = 0; i < 6; i++) {
        auto got = model->bank(pages[i]);
        if (pages[i] == 0x01) /* the camera's status is no power-on value */
            for (uint8_t r : {0x01, 0x03, 0x04, 0x91, 0x92, 0x93})
                got[r] = power_on[i][r];
        EXPECT_EQ(got, power_on[i]) << "page " << int(pages[i]);
    }
    EXPECT_FALSE(model->irq_pending());
    EXPECT_TRUE(model->camera(1).has_value()) << "cameras are not part of the chip";
    EXPECT_EQ(model->channel(1).status, 0x14) << "synced, no longer locked";
}

} // namespace
