/* Output port set-ups of both chips, the UHD output and the capture driver's
 * no-video flag. */
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cam_no_video.h"
#include "fake_chip.h"
#include "golden.h"
#include "log_capture.h"
#include "tp2826.h"
#include "tp2827.h"

using ::testing::ElementsAreArray;

namespace
{

class OutputTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        for (int reg = 0; reg < 256; reg++)
            if (reg != 0x40)
                chip.set(fakechip::ANY_PAGE, uint8_t(reg), uint8_t(reg ^ 0xA5));
        chip.set(fakechip::ANY_PAGE, 0x40, 0x04);
        chip.clear_log();
    }

    void expect_sequence(const std::string &expected)
    {
        const auto log = chip.transactions();
        EXPECT_THAT(golden::render_actual(log),
                    ElementsAreArray(golden::render_expected(golden::parse(expected), log, 0x04)));
    }

    fakechip::FakeChip chip;
};

TEST_F(OutputTest, Tp2827SingleChannelSdr)
{
    tp2827_setup_video_output(chip.fd(), SDR_1CH);
    expect_sequence("F5=00 F1=00 4F=03 44=47 FA=88 FB=88 F4=00 F6=00 F7=22 F8=11 F9=33 "
                    "50=00 51=00 52=00 53=00 F3=77 F2=77 44=07 4D=0F 4E=0F 02=C8");
    EXPECT_EQ(chip.page(), 0x04);
}

TEST_F(OutputTest, Tp2826TwoChannelSdrThenEachChannelsPage)
{
    tp2826_setup_video_output(chip.fd(), SDR_2CH);
    expect_sequence("F5=0F F1=04 4D=07 4E=05 4F=03 44=47 FA=88 FB=88 F6=01 F8=23 50=00 51=00 "
                    "52=00 53=00 F3=77 F2=77 44=07 4D=07 4E=05 "
                    "40=00 02=CF 34=10  40=01 02=CF 34=11  40=02 02=CF 34=10  40=03 02=CF 34=11");
    EXPECT_EQ(chip.page(), 0x03);
    EXPECT_EQ(chip.get(0, 0x34), 0x10);
    EXPECT_EQ(chip.get(1, 0x34), 0x11);
    EXPECT_EQ(chip.get(2, 0x34), 0x10);
    EXPECT_EQ(chip.get(3, 0x34), 0x11);
}

/* The no-video flag goes to capture device 2; on a machine without the
 * capture driver its open fails, which is logged and not acted on. */
TEST_F(OutputTest, UhdOutputAndTheCaptureDevicesNoVideoFlag)
{
    log_capture_start();
    tp2827_output_uhd(chip.fd());
    expect_sequence("02&88=08 F6=00 F7=44 FA&07=00 FA&70=00 F4&04=04");
    if (!g_file_test("/dev/cam2", G_FILE_TEST_EXISTS)) {
        EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING,
                            "Failed to open /dev/cam2, code: 2:" + std::string(g_strerror(ENOENT))),
                  1u);
        EXPECT_EQ(log_capture_messages().size(), 1u);
    }
}

TEST(CamSetNoVideo, MissingDeviceIsReportedAndFails)
{
    log_capture_start();
    EXPECT_EQ(cam_set_no_video(97, 1), -1);
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING,
                        "Failed to open /dev/cam97, code: 2:" + std::string(g_strerror(ENOENT))),
              1u);
    EXPECT_EQ(log_capture_messages().size(), 1u);
}

TEST(OutputModeDeathTest, EachChipAcceptsOnlyItsOwnMode)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(tp2827_setup_video_output(-1, SDR_2CH), "mode == SDR_1CH");
    EXPECT_DEATH(tp2826_setup_video_output(-1, SDR_1CH), "mode == SDR_2CH");
}

} // namespace
