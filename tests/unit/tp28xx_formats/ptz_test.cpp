/* PTZ transmission: the byte encoding, the transmitter set-up and the whole
 * send sequence of one record, and the completion wait. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_chip.h"
#include "golden.h"
#include "log_capture.h"
#include "tp2827.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace
{

using fakechip::RegWrite;

struct Encoding {
    uint8_t byte;
    uint8_t first, second, third;
};

class PtzEncodeTest : public ::testing::TestWithParam<Encoding>
{
};

TEST_P(PtzEncodeTest, ThreeSymbolsPerBitMostSignificantFirst)
{
    fakechip::FakeChip chip;
    chip.set(fakechip::ANY_PAGE, 0x40, 0x01);
    const Encoding e = GetParam();
    tp2827_ptz_encode_byte(chip.fd(), 0x58, e.byte);
    EXPECT_THAT(chip.writes(), ElementsAre(RegWrite{1, 0x58, e.first}, RegWrite{1, 0x59, e.second},
                                           RegWrite{1, 0x5A, e.third}));
}

INSTANTIATE_TEST_SUITE_P(Examples, PtzEncodeTest,
                         ::testing::Values(Encoding{0x00, 0x92, 0x49, 0x24},
                                           Encoding{0xFF, 0xDB, 0x6D, 0xB6},
                                           Encoding{0x01, 0x92, 0x49, 0x26},
                                           Encoding{0x80, 0xD2, 0x49, 0x24},
                                           Encoding{0xA5, 0xD3, 0x49, 0xA6}));

TEST(PtzEncode, RegisterNumbersWrapWithinEightBits)
{
    fakechip::FakeChip chip;
    tp2827_ptz_encode_byte(chip.fd(), 0xFE, 0xFF);
    EXPECT_THAT(chip.writes(), ElementsAre(RegWrite{0, 0xFE, 0xDB}, RegWrite{0, 0xFF, 0x6D},
                                           RegWrite{0, 0x00, 0xB6}));
}

/* The record 01 00 FF 01 80: channel 1, data bytes 00 FF 01 80. */
TEST(PtzSend, RecordOnChannelOneByteForByte)
{
    fakechip::FakeChip chip;
    chip.set(fakechip::ANY_PAGE, 0x40, 0x04);
    chip.set(fakechip::ANY_PAGE, 0x71, 0x81);
    /* The first transmission completes on the third poll (a bit of another
     * channel does not count); the second finds its bit at once. */
    chip.script_reads(1, 0xB6, {0x00, 0x04, 0x02});
    chip.clear_log();

    const uint8_t record[5] = {0x01, 0x00, 0xFF, 0x01, 0x80};
    tp2827_set_ptz_mode(chip.fd(), record[0], PTZ_HDA_CVBS);
    tp2827_ptz_send(chip.fd(), record[0], record + 1);

    const std::string expected =
        /* transmitter mode on the channel's page */
        "40=01 6F=42 70=40 71=00 C0=00 C1=00 C2=0F C3=10 C4=00 C5=00 C6=4A C7=F0 C8=6F 71&20=20 "
        /* transmit registers cleared */
        "55=00 56=00 57=00 58=00 59=00 5A=00 5B=00 5C=00 5D=00 5E=00 5F=00 60=00 "
        "61=00 62=00 63=00 64=00 65=00 66=00 67=00 68=00 69=00 6A=00 6B=00 6C=00 "
        /* data bytes 2, 1, 4, 3 */
        "55=DB 56=6D 57=B6  58=92 59=49 5A=24  5B=D2 5C=49 5D=24  5E=92 5F=49 60=26 "
        /* first transmission: start pulse on 0x6F (holding 0x42), three polls */
        "B6=02 6F&01=01 6F=42 ?B6 ?B6 ?B6 "
        /* second transmission */
        "B6=02 6F&01=01 6F=42 ?B6";
    const auto log = chip.transactions();
    EXPECT_THAT(golden::render_actual(log),
                ElementsAreArray(golden::render_expected(golden::parse(expected), log, 0x04)));
    EXPECT_EQ(chip.get(1, 0x71), 0x20);
}

TEST(PtzTrigger, FailedReadsStillPulseAndEndTheWait)
{
    fakechip::FakeChip chip;
    log_capture_start(); /* the failed reads' messages */
    chip.set(fakechip::ANY_PAGE, 0x40, 0x02);
    chip.fail_reads(fakechip::ANY_PAGE, 0x6F, 1);
    chip.fail_reads(fakechip::ANY_PAGE, 0xB6, 1);
    tp2827_ptz_trigger(chip.fd(), 2);
    EXPECT_THAT(chip.writes(), ElementsAre(RegWrite{2, 0xB6, 0x04}, RegWrite{2, 0x6F, 0xFF},
                                           RegWrite{2, 0x6F, 0xFE}));
    EXPECT_EQ(chip.count_reads(0xB6), 1u);
}

/* Channel 8 has no completion bit in the 8-bit register: the wait runs to its
 * limit of 100 polls. */
TEST(PtzTrigger, WaitGivesUpAfterAHundredPolls)
{
    fakechip::FakeChip chip;
    tp2827_ptz_trigger(chip.fd(), 8);
    EXPECT_EQ(chip.writes_of(0xB6), (std::vector<RegWrite>{{0, 0xB6, 0x00}}));
    EXPECT_EQ(chip.count_reads(0xB6), 100u);
}

TEST(PtzModeDeathTest, OnlyTheHdaCvbsModeIsKnown)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(tp2827_set_ptz_mode(-1, 0, PTZ_HDA_CVBS - 1), "mod == PTZ_HDA_CVBS");
}

} // namespace
