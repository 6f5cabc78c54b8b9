/* Register primitives, page select, bus set-up, chip identification, common
 * initialisation, channel set-up, and the assertions of programming errors. */
#include <unistd.h>

#include "tp2826.h"
#include "tp2827.h"
#include "tp28xx_rig.h"

namespace
{

class I2cAccess : public ::testing::Test
{
  protected:
    void SetUp() override { log_capture_start(); }
    fakechip::FakeChip chip;
};

TEST_F(I2cAccess, ReadWriteAndUpdateTellSuccessFromFailure)
{
    chip.set(0, 0x11, 0xFF);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), 0);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x11), 0xFF);
    chip.fail_reads(0, 0x10, 1);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), -1);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to read data"), 1u);

    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x1A5, 0x2FF), 0); /* low 8 bits of both */
    chip.set(0, 0x1F, 0xFF);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x1F, 0x60, 0x00), 0);
    chip.set(0, 0x20, 0x81);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x20, 0x0F, 0xF6), 0);
    chip.fail_reads(0, 0x02, 1); /* a failed read leaves the register alone */
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x02, 0x04, 0x04), -1);
    EXPECT_EQ(chip.writes(), (W{{0, 0xA5, 0xFF}, {0, 0x1F, 0x9F}, {0, 0x20, 0x86}}));

    chip.set_offline(true);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), -1);
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x10, 0x01), -1);
    chip.set_offline(false);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to write data"), 1u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to send data"), 1u);
}

TEST_F(I2cAccess, WriteRegsWrapsAfterFFAndGoesOnAfterAFailure)
{
    const uint8_t data[3] = {0x11, 0x22, 0x33};
    i2c_write_regs(chip.fd(), 0xFE, data, 3);
    i2c_write_regs(chip.fd(), 0x15, data, 0);
    i2c_write_regs(chip.fd(), 0x15, data, -4);
    EXPECT_EQ(chip.writes(), (W{{0, 0xFE, 0x11}, {0, 0xFF, 0x22}, {0, 0x00, 0x33}}));
    chip.set_offline(true);
    i2c_write_regs(chip.fd(), 0x15, data, 3);
    chip.set_offline(false);
    EXPECT_EQ(log_count("Unable to send data"), 3u);
}

TEST_F(I2cAccess, SetPageWritesTheSelectValue)
{
    const std::pair<int32_t, uint8_t> cases[] = {{0, 0x00}, {1, 0x01},  {2, 0x02},     {3, 0x03},
                                                 {5, 0x10}, {9, 0x40},  {PAGE_ALL, 4}, {7, 4},
                                                 {6, 4},    {-1, 0x04}, {0x100, 0x04}};
    for (const auto &[page, value] : cases) {
        chip.clear_log();
        EXPECT_EQ(tp28xx_set_page(chip.fd(), page), 0);
        EXPECT_EQ(chip.writes(0x40).size(), 1u);
        EXPECT_EQ(chip.page(), value) << "page identifier " << page;
    }
}

TEST_F(I2cAccess, SetupI2cMakesThreeAttempts)
{
    EXPECT_EQ(setup_i2c(nullptr, 0x88), -1);
    EXPECT_EQ(setup_i2c("/dev/null", 0), -1);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "setup_i2c: Missing input parameters"), 2u);

    log_capture_clear();
    const std::string open = "Can't open /nonexistent/i2c-7";
    const std::string retry = "Retrying setup of /nonexistent/i2c-7";
    EXPECT_EQ(setup_i2c("/nonexistent/i2c-7", 0x88), -1);
    std::vector<std::string> texts;
    for (const auto &m : log_capture_messages())
        texts.push_back(m.text);
    EXPECT_EQ(texts,
              (std::vector<std::string>{open, retry, open, retry, open, "Failed to setup i2c"}));
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, open), 3u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Failed to setup i2c"), 1u);

    /* /dev/null opens but refuses the slave address. */
    EXPECT_EQ(setup_i2c("/dev/null", 0x88), -1);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Failed to set slave addr 0x88: [-25]"), 3u);
}

TEST(Tp28xxProbe, IdentifiesBothChipsOnly)
{
    log_capture_start();
    const std::tuple<uint8_t, int32_t, std::string> cases[] = {
        {0x27, video_tp2827, "Detected TP2827 rev 0x2705"},
        {0x26, video_tp2826, "Detected TP2826 rev 0x2605"},
        {0x25, 0, ""}};
    for (const auto &[id, expected, text] : cases) {
        fakechip::FakeChip chip;
        chip.set_identity(id, 0x05);
        EXPECT_EQ(tp28xx_detect_chip(chip.fd()), expected);
        EXPECT_TRUE(chip.writes().empty());
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, text), expected != 0 ? 1u : 0u);
    }
    EXPECT_EQ(log_capture_messages().size(), 2u);

    fakechip::FakeChip chip;
    chip.set_identity(0x27, 0x05);
    chip.fail_reads(ANY_PAGE, 0xFE, 1);
    EXPECT_EQ(tp28xx_detect_chip(chip.fd()), 0);
    chip.set(ANY_PAGE, 0xFE, 0x29);
    chip.clear_log();
    EXPECT_EQ(tp28xx_detect_chip(chip.fd()), 0);
    EXPECT_EQ(chip.transactions().size(), 1u); /* nothing asked beyond the family */
}

TEST(Tp28xxProbe, SlotsAndNamePerChip)
{
    Rig tp2826(0x26), tp2827(0x27);
    EXPECT_STREQ(tp2826.dec->name, "Techpoint 2826");
    EXPECT_EQ(tp2826.dec->ops.transmit_ptz, nullptr);
    EXPECT_STREQ(tp2827.dec->name, "Techpoint 2827");
    EXPECT_EQ(tp2827.dec->ops.transmit_ptz, tp28xx_transmit_ptz);
    EXPECT_EQ(tp2827.dec->ops.set_video_standard, tp28xx_set_video_standard);
}

TEST(Tp28xxProbe, CreateGivesUpWithoutAChip)
{
    if (access(TP28XX_I2C_DEVICE, F_OK) == 0)
        GTEST_SKIP() << TP28XX_I2C_DEVICE << " exists here";
    log_capture_start();
    EXPECT_EQ(tp28xx_create(), nullptr);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Can't open /dev/i2c-7"), 30u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "can't communicate with tp28xx chip"), 1u);
}

TEST(Tp28xxInit, CommonInitialisationOfEachChip)
{
    const std::pair<uint8_t, std::string> outputs[] = {
        {0x27, "F5=00 F1=00 4F=03 44=47 FA=88 FB=88 F4=00 F6=00 F7=22 F8=11 F9=33 50=00 51=00 "
               "52=00 53=00 F3=77 F2=77 44=07 4D=0F 4E=0F 02=C8"},
        {0x26, "F5=0F F1=04 4D=07 4E=05 4F=03 44=47 FA=88 FB=88 F6=01 F8=23 50=00 51=00 52=00 "
               "53=00 F3=77 F2=77 44=07 4D=07 4E=05 "
               "40=00 02=CF 34=10 40=01 02=CF 34=11 40=02 02=CF 34=10 40=03 02=CF 34=11"}};
    for (const auto &[id, output] : outputs) {
        Rig rig(id);
        rig.chip.set(ANY_PAGE, 0x44, 0x15);
        for (uint8_t reg : {0x06, 0x26, 0x1F, 0x3C}) /* bits that the updates must keep */
            rig.chip.set(ANY_PAGE, reg, reg == 0x1F ? 0x1F : 0xC3);
        rig.chip.clear_log();
        tp28xx_common_init(rig.dec->i2c_fd, rig.dec->dec_chip);
        /* 0x44 gets bit 6 pulsed and then exactly what it held back. */
        EXPECT_SEQ(rig.chip,
                   "40=04 4D=00 4E=00 ?44 44=55 44=15 42=00 43=12 44=07 45=49 BA=00 BB=00 6F=00 "
                   "A7=00 " +
                       DEFAULT_FORMAT + " " + output + " 40=40 1F&60=60 3C&3F=3F 40=04",
                   0x04);
    }
}

TEST(Tp28xxInit, InitialisationRunsToItsEndWhenTheBusFails)
{
    Rig rig(0x27);
    rig.chip.set_offline(true);
    tp28xx_common_init(rig.dec->i2c_fd, rig.dec->dec_chip);
    rig.chip.set_offline(false);
    /* 13 + 18 + 21 + 2 writes (the updates stop at their failed reads), 5 reads. */
    EXPECT_EQ(log_count("Unable to send data"), 54u);
    EXPECT_EQ(log_count("Unable to write data"), 5u);
}

TEST(Tp28xxInit, SetupChannelProgramsTheDefaultsOnItsPage)
{
    Rig rig(0x27);
    Channel *c = rig.ch(2);
    g_free(c->chip_state);
    c->chip_state = nullptr;
    c->brightness = c->contrast = c->hue = 9;
    rig.chip.set(2, 0x14, 0xE5);
    rig.scoped([&] { EXPECT_EQ(tp28xx_setup_channel(c), 1); });
    EXPECT_SEQ(rig.chip,
               "?40 40=02 10=C0 40=04 ?40 40=02 11=40 40=04 ?40 40=02 12=40 40=04 "
               "?40 40=02 13=80 40=04 ?40 40=02 ?14 14=E0 40=04",
               0x04);
    EXPECT_EQ(std::tuple(c->brightness, c->contrast, c->saturation, c->hue, c->sharpness),
              std::tuple(0u, 50u, 50u, 0u, 0u));
    ASSERT_NE(c->chip_state, nullptr);
    EXPECT_EQ(c->chip_state->resolution, VT_AUTO);
    EXPECT_EQ(c->chip_state->lock_state, LS_SEARCH);
    EXPECT_EQ(c->chip_state->channel_mode, 0);
}

TEST(Tp28xxDeathTest, ProgrammingErrorsStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Rig rig(0x27);
    const uint8_t record[6] = {};
    EXPECT_DEATH(tp28xx_transmit_ptz(rig.dec, record, 6), "size == 5");
    EXPECT_DEATH(tp2827_set_ptz_mode(-1, 0, PTZ_HDA_CVBS - 1), "mod == PTZ_HDA_CVBS");
    EXPECT_DEATH(tp28xx_apply_video_format(rig.ch(0), VS_TVI, VT_DISABLED, 0),
                 "resolution != VT_DISABLED");
    EXPECT_DEATH(tp2827_setup_video_output(-1, SDR_2CH), "mode == SDR_1CH");
    EXPECT_DEATH(tp2826_setup_video_output(-1, SDR_1CH), "mode == SDR_2CH");
}

} // namespace
