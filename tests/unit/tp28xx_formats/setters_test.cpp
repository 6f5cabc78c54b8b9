/* Every format setter, with each transmission standard it treats differently,
 * against register sequences transcribed from the chip's programming tables. */
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder_types.h"
#include "fake_chip.h"
#include "golden.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "tp2826.h"
#include "tp2827.h"

using golden::but;
using golden::cat;
using golden::parse;
using golden::Seq;
using golden::timing;

namespace
{

/* ---- Shared blocks ---- */

Seq hd()
{
    return parse("0B=C0 0C=03 0D=50 20=30 21=84 22=36 23=3C 25=FF 26=05 27=2D 28=00 2B=60 "
                 "2C=0A 2D=30 2E=70 30=48 31=BB 32=2E 33=90 38=00 39=1C 3A=32 3B=26 "
                 "13=00 14&60=00");
}

Seq hd720()
{
    return but(hd(), "0C=13 39=18");
}

Seq block_4k()
{
    return parse("0B=C0 0C=03 0D=50 20=60 21=84 22=36 23=3C 25=FF 26=05 27=AD 28=00 2B=60 "
                 "2C=0A 2D=58 2E=70 30=74 31=59 32=BD 33=60 38=40 39=48 3A=12 3B=26 "
                 "13=00 14&60=00");
}

Seq qhd()
{
    return parse("13=00 14&60=00 0B=C0 0C=03 0D=50 15=23 16=1B 18=38 20=50 21=84 22=36 "
                 "23=3C 25=FF 26=05 27=AD 28=00 2B=60 2C=0A 2D=58 2E=70 30=74 31=58 32=9F "
                 "33=60 38=40 39=48 3A=12 3B=26");
}

Seq ntsc()
{
    return parse("0B=C0 0C=13 0D=50 20=40 21=84 22=36 23=3C 25=FF 26=05 27=2D 28=00 2B=70 "
                 "2C=2A 2D=68 2E=57 30=62 31=BB 32=96 33=C0 38=00 39=04 3A=32 3B=26 18=12 "
                 "13=00 14&60=00");
}

Seq pal()
{
    return parse("0B=C0 0C=13 0D=51 20=48 21=84 22=37 23=3F 25=FF 26=05 27=2D 28=00 2B=70 "
                 "2C=2A 2D=64 2E=56 30=7A 31=4A 32=4D 33=F0 38=00 39=04 3A=32 3B=26 18=17 "
                 "13=00 14&60=00");
}

Seq qhd15()
{
    return parse("13=00, 14&60=00, 0B=C0, 0C=03, 15=23, 16=18, 17=00, 18=37, 19=A0, 1A=5A, "
                 "1C=0C, 1D=E4, 20=50, 21=84, 22=36, 23=3C, 25=FF, 26=05, 27=2D, 28=00, "
                 "2B=60, 2C=0A, 2D=48, 2E=70, 30=48, 31=BA, 32=2E, 33=90, 38=00, 39=1C, "
                 "3A=32, 3B=25, 80=52, 81=18, 82=38, 83=D8, 84=28, 88=58");
}

/* ---- Standard blocks ---- */

Seq ahd_1080p25()
{
    return parse("02&04=04, 15=01, 16=F0, 18=2A, 0D=73, 20=3C, 21=46, 25=FE, 26=0D, 2C=3A, "
                 "2D=54, 2E=40, 30=A5, 31=86, 32=FB, 33=60");
}
Seq ahd_1080p30()
{
    return but(ahd_1080p25(), "0D=72, 20=38, 31=95, 32=E0");
}

Seq cvi_1080p25()
{
    return parse("13=40, 20=50, 26=01, 27=5A, 28=04, 2B=60, 2D=54, 2E=40, 30=41, 31=82, "
                 "32=27, 33=A2, 15=13, 16=60, 17=80, 18=29, 19=38, 1A=47, 1C=09, 1D=60");
}
Seq cvi_1080p30()
{
    return but(cvi_1080p25(), "20=3C, 2D=4C, 33=A4");
}

Seq ahd_720p25()
{
    return parse("02&04=04, 0D=71, 18=1B, 20=40, 21=46, 25=FE, 26=01, 2C=3A, 2D=5A, 2E=40, "
                 "30=9E, 31=20, 32=10, 33=90");
}
Seq ahd_720p30()
{
    return but(ahd_720p25(), "0D=70, 30=9D, 31=CA, 32=01, 33=D0");
}

Seq cvi_720p25()
{
    return parse("13=40, 20=3A, 26=01, 27=5A, 28=04, 2B=60, 2D=36, 2E=40, 30=48, 31=67, "
                 "32=6F, 33=33, 15=13, 16=0A, 17=00, 18=19, 19=D0, 1A=25, 1C=06, 1D=7A");
}
Seq cvi_720p30()
{
    return but(cvi_720p25(), "20=30, 2D=37, 33=30, 16=08, 1D=72");
}

Seq cvi_4k12()
{
    return parse("0C=03, 0D=50, 14&60=00, 13=40, 15=23, 16=F8, 18=50, 20=68, 21=84, 22=36, "
                 "23=3C, 25=FF, 26=05, 27=DA, 28=00, 2B=60, 2C=0A, 2D=84, 2E=50, 30=75, "
                 "31=39, 32=C0, 33=32, 38=40, 39=48, 3A=12, 3B=26, 1C=13, 1D=10");
}

Seq ahd_4k15()
{
    return parse("14&40=40, 13=00, 15=13, 16=74, 20=50, 26=05, 27=AD, 2B=60, 2D=58, 2E=48, "
                 "30=48, 31=68, 32=43, 33=00, 39=40");
}

Seq cvi_4k15()
{
    return parse("14&60=00, 13=40, 20=50, 21=86, 22=38, 26=05, 27=DA, 2D=84, 2E=50, 30=75, "
                 "31=39, 32=C0, 33=31, 39=48");
}

Seq ahd_qhdp15()
{
    return parse("14&40=40, 13=00, 20=38, 21=46, 25=FE, 26=01, 2D=44, 2E=40, 30=29, 31=68, "
                 "32=78, 33=10, 38=40, 39=40, 3A=12");
}

Seq ahd_qhdp25()
{
    return parse("14&60=00, 1C&80=80, 0D=70, 13=00, 15=23, 16=16, 18=32, 20=80, 21=86, "
                 "22=36, 25=FF, 26=05, 27=AD, 2B=60, 2D=A0, 2E=40, 30=48, 31=6F, 32=B5, "
                 "33=80, 39=40");
}
Seq ahd_qhdp30()
{
    return but(ahd_qhdp25(), "31=6A, 32=BE");
}

Seq cvi_qhdp25()
{
    return parse("14&60=00, 13=40, 15=13, 16=D8, 18=30, 1C=0C, 1D=80, 20=50, 21=86, 22=38, "
                 "26=05, 27=DA, 2D=6C, 2E=50, 30=75, 31=39, 32=C0, 33=3B, 39=48");
}
Seq cvi_qhdp30()
{
    return but(cvi_qhdp25(), "16=FA, 18=38, 33=31");
}

/* ---- Closing steps ---- */

Seq clock(int channel, int clock_no)
{
    static const char *const clock0[] = {"FA&07=00", "FB&07=00", "FA&70=00", "FB&70=00"};
    static const char *const clock1[] = {"FA&07=01", "FB&07=01", "FA&70=10", "FB&70=10"};
    return parse(clock_no == 0 ? clock0[channel] : clock1[channel]);
}

Seq uhd()
{
    return parse("02&88=08 F6=00 F7=44 FA&07=00 FA&70=00 F4&04=04");
}

/* The page select of the channel. */
Seq page(int channel)
{
    return parse("40=0" + std::to_string(channel));
}

using Setter = std::function<void(int32_t fd, int32_t channel, uint8_t standard)>;

struct SetterCase {
    const char *name;
    Setter setter;
    int channel;
    int standard;
    std::function<Seq(int channel, int standard)> expected;
};

void PrintTo(const SetterCase &c, std::ostream *os)
{
    *os << c.name;
}

Seq by_standard(int standard, Seq ahd, Seq cvi)
{
    if (standard == VS_AHD)
        return ahd;
    if (standard == VS_CVI)
        return cvi;
    return {};
}

Seq expect_1080p30(int ch, int std)
{
    return cat({page(ch), parse("35=05"), timing("03 D3 80 29 38 47 00 08 98"), parse("02&17=00"),
                hd(), by_standard(std, ahd_1080p30(), cvi_1080p30()), clock(ch, 0)});
}

Seq expect_1080p25(int ch, int std)
{
    return cat({page(ch), parse("35=05"), timing("03 D3 80 29 38 47 00 0A 50"), parse("02&17=00"),
                hd(), by_standard(std, ahd_1080p25(), cvi_1080p25()), clock(ch, 0)});
}

Seq expect_720p30v2(int ch, int)
{
    return cat({page(ch), parse("35=25"), timing("13 16 00 19 D0 25 00 0C E4"), parse("02&17=02"),
                hd(), clock(ch, 0)});
}

Seq expect_720p25v2(int ch, int)
{
    return cat({page(ch), parse("35=05"), timing("13 16 00 19 D0 25 00 0F 78"), parse("02&17=02"),
                hd(), clock(ch, 0)});
}

Seq expect_720p30(int ch, int std)
{
    return cat({page(ch), parse("35=25"), timing("13 16 00 19 D0 25 00 06 72"), parse("02&17=02"),
                hd720(), by_standard(std, ahd_720p30(), cvi_720p30()), clock(ch, 1)});
}

Seq expect_720p25(int ch, int std)
{
    return cat({page(ch), parse("35=25"), timing("13 16 00 19 D0 25 00 07 BC"), parse("02&17=02"),
                hd720(), by_standard(std, ahd_720p25(), cvi_720p25()), clock(ch, 1)});
}

Seq expect_ntsc_2827(int ch, int)
{
    return cat({page(ch), parse("35=25"), timing("13 4E BC 15 F0 07 00 09 38"), parse("02&17=07"),
                ntsc(), clock(ch, 1)});
}

Seq expect_pal_2827(int ch, int)
{
    return cat({page(ch), parse("35=25"), timing("13 5F BC 17 20 17 00 09 48"), parse("02&17=07"),
                pal(), clock(ch, 1)});
}

Seq expect_ntsc_2826(int ch, int)
{
    return cat({page(ch), parse("35=25"), timing("13 4E BC 15 F0 07 00 09 38"), parse("07&07=07"),
                ntsc()});
}

/* The TP2826's PAL setter updates 0x07 like its NTSC setter does. */
Seq expect_pal_2826(int ch, int)
{
    return cat(
        {page(ch), parse("35=25"), timing("13 5F BC 17 20 17 00 09 48"), parse("07&07=07"), pal()});
}

Seq expect_4k12(int ch, int std)
{
    return cat({page(ch), parse("35=18 36=CA 02&17=10"), timing("13 BD 00 50 70 8F 00 14 9E"),
                block_4k(), by_standard(std, {}, cvi_4k12()), uhd()});
}

Seq expect_4k15(int ch, int std)
{
    return cat({page(ch), parse("35=18 36=CA 02&17=10"), timing("13 BD 00 50 70 8F 00 11 2E"),
                block_4k(), by_standard(std, ahd_4k15(), cvi_4k15()), uhd()});
}

Seq expect_qhdp15(int ch, int std)
{
    return cat({page(ch), parse("35=15 36=DC"), timing("13 0F 00 32 A0 5A 00 0C E4"),
                parse("02&17=00"), qhd15(), by_standard(std, ahd_qhdp15(), {}), clock(ch, 0)});
}

Seq expect_qhdp25(int ch, int std)
{
    return cat({page(ch), parse("35=15 36=DC 02&17=10"), timing("23 1B 00 38 A0 5A 00 0F 76"),
                qhd(), by_standard(std, ahd_qhdp25(), cvi_qhdp25()), uhd()});
}

Seq expect_qhdp30(int ch, int std)
{
    return cat({page(ch), parse("35=15 36=DC 02&17=10"), timing("23 1B 00 38 A0 5A 00 0C E2"),
                qhd(), by_standard(std, ahd_qhdp30(), cvi_qhdp30()), uhd()});
}

Setter sd(void (*setter)(int32_t, int32_t))
{
    return [setter](int32_t fd, int32_t channel, uint8_t) { setter(fd, channel); };
}

/* Each setter with every standard that it programs differently, on channels
 * that exercise each output clock register. */
const SetterCase setter_cases[] = {
    {"1080P30_TVI_ch0", tp2827_video_mode_set_1080P30, 0, VS_TVI, expect_1080p30},
    {"1080P30_AHD_ch1", tp2827_video_mode_set_1080P30, 1, VS_AHD, expect_1080p30},
    {"1080P30_CVI_ch2", tp2827_video_mode_set_1080P30, 2, VS_CVI, expect_1080p30},
    {"1080P30_CVBS_ch3", tp2827_video_mode_set_1080P30, 3, VS_CVBS, expect_1080p30},
    {"1080P25_TVI_ch3", tp2827_video_mode_set_1080P25, 3, VS_TVI, expect_1080p25},
    {"1080P25_AHD_ch0", tp2827_video_mode_set_1080P25, 0, VS_AHD, expect_1080p25},
    {"1080P25_CVI_ch1", tp2827_video_mode_set_1080P25, 1, VS_CVI, expect_1080p25},
    {"720P30V2_TVI_ch2", tp2827_video_mode_set_720P30V2, 2, VS_TVI, expect_720p30v2},
    {"720P30V2_AHD_ch0", tp2827_video_mode_set_720P30V2, 0, VS_AHD, expect_720p30v2},
    {"720P25V2_CVI_ch1", tp2827_video_mode_set_720P25V2, 1, VS_CVI, expect_720p25v2},
    {"720P25V2_TVI_ch3", tp2827_video_mode_set_720P25V2, 3, VS_TVI, expect_720p25v2},
    {"720P30_TVI_ch0", tp2827_video_mode_set_720P30, 0, VS_TVI, expect_720p30},
    {"720P30_AHD_ch1", tp2827_video_mode_set_720P30, 1, VS_AHD, expect_720p30},
    {"720P30_CVI_ch2", tp2827_video_mode_set_720P30, 2, VS_CVI, expect_720p30},
    {"720P25_TVI_ch3", tp2827_video_mode_set_720P25, 3, VS_TVI, expect_720p25},
    {"720P25_AHD_ch2", tp2827_video_mode_set_720P25, 2, VS_AHD, expect_720p25},
    {"720P25_CVI_ch0", tp2827_video_mode_set_720P25, 0, VS_CVI, expect_720p25},
    {"NTSC_2827_ch0", sd(tp2827_video_mode_set_NTSC), 0, VS_CVBS, expect_ntsc_2827},
    {"NTSC_2827_ch3", sd(tp2827_video_mode_set_NTSC), 3, VS_CVBS, expect_ntsc_2827},
    {"PAL_2827_ch1", sd(tp2827_video_mode_set_PAL), 1, VS_CVBS, expect_pal_2827},
    {"PAL_2827_ch2", sd(tp2827_video_mode_set_PAL), 2, VS_CVBS, expect_pal_2827},
    {"NTSC_2826_ch1", sd(tp2826_video_mode_set_NTSC), 1, VS_CVBS, expect_ntsc_2826},
    {"PAL_2826_ch3", sd(tp2826_video_mode_set_PAL), 3, VS_CVBS, expect_pal_2826},
    {"4K12_TVI_ch0", tp2827_video_mode_set_4K12, 0, VS_TVI, expect_4k12},
    {"4K12_AHD_ch0", tp2827_video_mode_set_4K12, 0, VS_AHD, expect_4k12},
    {"4K12_CVI_ch0", tp2827_video_mode_set_4K12, 0, VS_CVI, expect_4k12},
    {"4K15_TVI_ch0", tp2827_video_mode_set_4K15, 0, VS_TVI, expect_4k15},
    {"4K15_AHD_ch0", tp2827_video_mode_set_4K15, 0, VS_AHD, expect_4k15},
    {"4K15_CVI_ch0", tp2827_video_mode_set_4K15, 0, VS_CVI, expect_4k15},
    {"QHDP15_TVI_ch1", tp2827_video_mode_set_QHDP15, 1, VS_TVI, expect_qhdp15},
    {"QHDP15_AHD_ch0", tp2827_video_mode_set_QHDP15, 0, VS_AHD, expect_qhdp15},
    {"QHDP15_CVI_ch3", tp2827_video_mode_set_QHDP15, 3, VS_CVI, expect_qhdp15},
    {"QHDP25_TVI_ch0", tp2827_video_mode_set_QHDP25, 0, VS_TVI, expect_qhdp25},
    {"QHDP25_AHD_ch0", tp2827_video_mode_set_QHDP25, 0, VS_AHD, expect_qhdp25},
    {"QHDP25_CVI_ch0", tp2827_video_mode_set_QHDP25, 0, VS_CVI, expect_qhdp25},
    {"QHDP30_TVI_ch0", tp2827_video_mode_set_QHDP30, 0, VS_TVI, expect_qhdp30},
    {"QHDP30_AHD_ch0", tp2827_video_mode_set_QHDP30, 0, VS_AHD, expect_qhdp30},
    {"QHDP30_CVI_ch0", tp2827_video_mode_set_QHDP30, 0, VS_CVI, expect_qhdp30},
};

/* A chip with every register holding a distinct value, so that the merged
 * value of each bit update shows which bits it replaced. */
class SetterTest : public ::testing::TestWithParam<SetterCase>
{
  protected:
    void SetUp() override
    {
        for (int reg = 0; reg < 256; reg++)
            if (reg != 0x40)
                chip.set(fakechip::ANY_PAGE, uint8_t(reg), uint8_t(reg ^ 0x5A));
        chip.set(fakechip::ANY_PAGE, 0x40, 0x04);
        chip.clear_log();
        log_capture_start();
    }

    fakechip::FakeChip chip;
};

TEST_P(SetterTest, WritesTheFormatsRegisterSequence)
{
    const SetterCase &c = GetParam();
    c.setter(chip.fd(), c.channel, uint8_t(c.standard));

    const auto transactions = chip.transactions();
    const Seq expected = c.expected(c.channel, c.standard);
    EXPECT_THAT(golden::render_actual(transactions),
                ::testing::ElementsAreArray(golden::render_expected(expected, transactions, 0x04)));
    /* The setter leaves the channel's page selected. */
    EXPECT_EQ(chip.page(), c.channel);
}

INSTANTIATE_TEST_SUITE_P(AllSetters, SetterTest, ::testing::ValuesIn(setter_cases),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

/* ---- 4K and QHD 25/30 outside channel 0 ---- */

struct UhdSetter {
    const char *name;
    void (*setter)(int32_t, int32_t, uint8_t);
};

class UhdOnOtherChannels : public ::testing::TestWithParam<UhdSetter>
{
};

TEST_P(UhdOnOtherChannels, AreRefusedWithoutTouchingTheChip)
{
    fakechip::FakeChip chip;
    chip.set(fakechip::ANY_PAGE, 0x40, 0x04);
    for (int channel = 1; channel < 4; channel++) {
        log_capture_start();
        chip.clear_log();
        GetParam().setter(chip.fd(), channel, VS_AHD);
        EXPECT_THAT(chip.transactions(), ::testing::IsEmpty()) << "channel " << channel;
        EXPECT_EQ(chip.page(), 0x04);
        const auto messages = log_capture_messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].text,
                  "4K/QHD input is not allowed on channel " + std::to_string(channel));
        EXPECT_EQ(messages[0].level, korvi_log_level_bits(KORVI_LOG_LEVEL_ERROR));
    }
}

INSTANTIATE_TEST_SUITE_P(ChannelZeroOnly, UhdOnOtherChannels,
                         ::testing::Values(UhdSetter{"4K12", tp2827_video_mode_set_4K12},
                                           UhdSetter{"4K15", tp2827_video_mode_set_4K15},
                                           UhdSetter{"QHDP25", tp2827_video_mode_set_QHDP25},
                                           UhdSetter{"QHDP30", tp2827_video_mode_set_QHDP30}),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

/* QHD at 15 frames/s is not restricted to channel 0. */
TEST(QhdP15, IsProgrammedOnAnyChannel)
{
    fakechip::FakeChip chip;
    log_capture_start();
    tp2827_video_mode_set_QHDP15(chip.fd(), 2, VS_TVI);
    EXPECT_EQ(chip.page(), 2);
    EXPECT_EQ(chip.get(2, 0x88), 0x58);
    EXPECT_THAT(log_capture_messages(), ::testing::IsEmpty());
}

/* What a whole setter leaves in the chip: later writes win over the timing
 * table, and the other channels' pages are untouched. */
TEST(SetterEffect, CviBlockOverridesTheTimingTableOnItsOwnPageOnly)
{
    fakechip::FakeChip chip;
    tp2827_video_mode_set_720P30(chip.fd(), 1, VS_CVI);
    /* Line length from the CVI block (0x0672), start 0x08 instead of 0x16. */
    EXPECT_EQ(chip.get(1, 0x16), 0x08);
    EXPECT_EQ(chip.get(1, 0x1C), 0x06);
    EXPECT_EQ(chip.get(1, 0x1D), 0x72);
    EXPECT_EQ(chip.get(1, 0x13), 0x40);
    for (int other : {0, 2, 3}) {
        EXPECT_EQ(chip.get(other, 0x16), 0x00) << "page " << other;
        EXPECT_EQ(chip.get(other, 0x35), 0x00) << "page " << other;
    }
}

} // namespace
