/* Chip identification, common initialisation, channel set-up and close. */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "decoder_types.h"
#include "korvi_log.h"
#include "tp28xx_rig.h"

using fakechip::ANY_PAGE;
using fakechip::FakeChip;
using fakechip::RegWrite;
using W = std::vector<RegWrite>;

namespace
{

TEST(Tp28xxProbe, IdentifiesBothChipsAndLogsTheIdentityWord)
{
    log_capture_start();
    {
        FakeChip chip;
        chip.set_identity(0x27, 0x05);
        EXPECT_EQ(tp28xx_detect_chip(chip.fd()), video_tp2827);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Detected TP2827 rev 0x2705"), 1u);
        EXPECT_TRUE(chip.writes().empty());
    }
    {
        FakeChip chip;
        chip.set_identity(0x26, 0x11);
        EXPECT_EQ(tp28xx_detect_chip(chip.fd()), video_tp2826);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Detected TP2826 rev 0x2611"), 1u);
    }
}

TEST(Tp28xxProbe, RejectsUnknownChipsSilently)
{
    log_capture_start();
    FakeChip chip;
    chip.set_identity(0x25, 0x05); /* right family, unknown member */
    EXPECT_EQ(tp28xx_detect_chip(chip.fd()), 0);

    chip.set(ANY_PAGE, 0xFE, 0x29);
    chip.clear_log();
    EXPECT_EQ(tp28xx_detect_chip(chip.fd()), 0);
    /* Nothing beyond the family register is asked. */
    EXPECT_EQ(chip.transactions().size(), 1u);

    chip.set(ANY_PAGE, 0xFE, 0x28);
    chip.set(ANY_PAGE, 0xFF, 0x27);
    chip.fail_reads(ANY_PAGE, 0xFE, 1);
    EXPECT_EQ(tp28xx_detect_chip(chip.fd()), 0);
    for (const auto &m : log_capture_messages())
        EXPECT_EQ(m.text.find("Detected"), std::string::npos) << m.text;
}

TEST(Tp28xxProbe, FillsSlotsPerChip)
{
    Rig tp2826(0x26);
    EXPECT_STREQ(tp2826.dec->name, "Techpoint 2826");
    EXPECT_EQ(tp2826.dec->nbr_channels, 4);
    EXPECT_EQ(tp2826.dec->ops.transmit_ptz, nullptr);
    EXPECT_NE(tp2826.dec->ops.detect_video_type, nullptr);

    Rig tp2827(0x27);
    EXPECT_STREQ(tp2827.dec->name, "Techpoint 2827");
    EXPECT_EQ(tp2827.dec->ops.transmit_ptz, tp28xx_transmit_ptz);
    const DecoderOps &ops = tp2827.dec->ops;
    for (auto slot :
         {(void *)ops.setup_channel, (void *)ops.set_saturation, (void *)ops.set_brightness,
          (void *)ops.set_contrast, (void *)ops.set_hue, (void *)ops.set_sharpness,
          (void *)ops.set_xoffset, (void *)ops.set_yoffset, (void *)ops.set_video_standard,
          (void *)ops.video_status, (void *)ops.enable_irq, (void *)ops.irq_status})
        EXPECT_NE(slot, nullptr);
}

TEST(Tp28xxProbe, CreateGivesUpWithoutAChip)
{
    if (access(TP28XX_I2C_DEVICE, F_OK) == 0)
        GTEST_SKIP() << TP28XX_I2C_DEVICE << " exists here";
    log_capture_start();
    EXPECT_EQ(tp28xx_create(), nullptr);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Can't open /dev/i2c-7"), 30u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Failed to setup i2c"), 10u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "can't communicate with tp28xx chip"), 1u);
}

/* The registers of the undetected state, on page `p`, as the chip must see
 * them with 0x26 and 0x06 holding 0xFF before. */
W default_format(uint8_t p)
{
    return {{p, 0x07, 0xC0}, {p, 0x0B, 0xC0}, {p, 0x21, 0x84}, {p, 0x38, 0x00}, {p, 0x39, 0x1C},
            {p, 0x3A, 0x32}, {p, 0x3B, 0x26}, {p, 0x26, 0xFE}, {p, 0x06, 0xFB}, {p, 0x35, 0x05},
            {p, 0x36, 0x05}, {p, 0x15, 0x13}, {p, 0x16, 0x15}, {p, 0x17, 0x00}, {p, 0x18, 0x19},
            {p, 0x19, 0xD0}, {p, 0x1A, 0x25}, {p, 0x1B, 0x00}, {p, 0x1C, 0x06}, {p, 0x1D, 0x72}};
}

W init_head()
{
    return {{0x00, 0x40, 0x04}, {0x04, 0x4D, 0x00}, {0x04, 0x4E, 0x00}, {0x04, 0x44, 0x55},
            {0x04, 0x44, 0x15}, {0x04, 0x42, 0x00}, {0x04, 0x43, 0x12}, {0x04, 0x44, 0x07},
            {0x04, 0x45, 0x49}, {0x04, 0xBA, 0x00}, {0x04, 0xBB, 0x00}, {0x04, 0x6F, 0x00},
            {0x04, 0xA7, 0x00}};
}

W init_tail(uint8_t p)
{
    return {{p, 0x40, 0x40}, {0x40, 0x1F, 0x7F}, {0x40, 0x3C, 0xFF}, {0x40, 0x40, 0x04}};
}

W concat(std::initializer_list<W> parts)
{
    W out;
    for (const auto &part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

void prepare_init(Rig &rig)
{
    rig.chip.set(ANY_PAGE, 0x44, 0x15);
    rig.chip.set(0x04, 0x26, 0xFF);
    rig.chip.set(0x04, 0x06, 0xFF);
    rig.chip.set(0x40, 0x1F, 0x1F);
    rig.chip.set(0x40, 0x3C, 0xC0);
    rig.chip.set(ANY_PAGE, 0x40, 0x00);
    rig.chip.clear_log();
}

TEST(Tp28xxInit, CommonInitialisationOfTheTp2827)
{
    Rig rig(0x27);
    prepare_init(rig);
    tp28xx_common_init(rig.dec->i2c_fd, rig.dec->dec_chip);
    const uint8_t p = 0x04;
    const W output = {{p, 0xF5, 0x00}, {p, 0xF1, 0x00}, {p, 0x4F, 0x03}, {p, 0x44, 0x47},
                      {p, 0xFA, 0x88}, {p, 0xFB, 0x88}, {p, 0xF4, 0x00}, {p, 0xF6, 0x00},
                      {p, 0xF7, 0x22}, {p, 0xF8, 0x11}, {p, 0xF9, 0x33}, {p, 0x50, 0x00},
                      {p, 0x51, 0x00}, {p, 0x52, 0x00}, {p, 0x53, 0x00}, {p, 0xF3, 0x77},
                      {p, 0xF2, 0x77}, {p, 0x44, 0x07}, {p, 0x4D, 0x0F}, {p, 0x4E, 0x0F},
                      {p, 0x02, 0xC8}};
    EXPECT_EQ(rig.chip.writes(), concat({init_head(), default_format(p), output, init_tail(p)}));
    EXPECT_EQ(rig.chip.page(), 0x04);
}

TEST(Tp28xxInit, CommonInitialisationOfTheTp2826)
{
    Rig rig(0x26);
    prepare_init(rig);
    tp28xx_common_init(rig.dec->i2c_fd, rig.dec->dec_chip);
    const uint8_t p = 0x04;
    const W output = {
        {p, 0xF5, 0x0F},    {p, 0xF1, 0x04},    {p, 0x4D, 0x07},    {p, 0x4E, 0x05},
        {p, 0x4F, 0x03},    {p, 0x44, 0x47},    {p, 0xFA, 0x88},    {p, 0xFB, 0x88},
        {p, 0xF6, 0x01},    {p, 0xF8, 0x23},    {p, 0x50, 0x00},    {p, 0x51, 0x00},
        {p, 0x52, 0x00},    {p, 0x53, 0x00},    {p, 0xF3, 0x77},    {p, 0xF2, 0x77},
        {p, 0x44, 0x07},    {p, 0x4D, 0x07},    {p, 0x4E, 0x05},    {p, 0x40, 0x00},
        {0x00, 0x02, 0xCF}, {0x00, 0x34, 0x10}, {0x00, 0x40, 0x01}, {0x01, 0x02, 0xCF},
        {0x01, 0x34, 0x11}, {0x01, 0x40, 0x02}, {0x02, 0x02, 0xCF}, {0x02, 0x34, 0x10},
        {0x02, 0x40, 0x03}, {0x03, 0x02, 0xCF}, {0x03, 0x34, 0x11}};
    EXPECT_EQ(rig.chip.writes(), concat({init_head(), default_format(p), output, init_tail(0x03)}));
    EXPECT_EQ(rig.chip.get(0x02, 0x34), 0x10);
    EXPECT_EQ(rig.chip.get(0x03, 0x34), 0x11);
}

TEST(Tp28xxInit, InitialisationRunsToItsEndWhenTheBusFails)
{
    Rig rig(0x27);
    rig.chip.set_offline(true);
    tp28xx_common_init(rig.dec->i2c_fd, rig.dec->dec_chip);
    rig.chip.set_offline(false);
    /* Every step was tried: 13 + 18 + 21 + 2 plain writes (the updates stop
     * at their failed reads) and 5 reads. */
    EXPECT_EQ(log_count("Unable to send data"), 54u);
    EXPECT_EQ(log_count("Unable to write data"), 5u);
}

TEST(Tp28xxInit, SetupChannelWritesDefaultsOnItsPage)
{
    Rig rig(0x27);
    Channel *c = rig.ch(2);
    g_free(c->chip_state);
    c->chip_state = nullptr;
    rig.chip.set(0x02, 0x14, 0xE5);
    rig.chip.set(ANY_PAGE, 0x40, 0x04);
    rig.chip.clear_log();
    rig.scoped([&] { EXPECT_EQ(tp28xx_setup_channel(c), 1); });

    W on_page;
    for (const auto &w : rig.chip.writes())
        if (w.reg != 0x40)
            on_page.push_back(w);
    EXPECT_EQ(
        on_page,
        (W{{2, 0x10, 0xC0}, {2, 0x11, 0x40}, {2, 0x12, 0x40}, {2, 0x13, 0x80}, {2, 0x14, 0xE0}}));
    EXPECT_EQ(c->brightness, 0u);
    EXPECT_EQ(c->contrast, 50u);
    EXPECT_EQ(c->saturation, 50u);
    EXPECT_EQ(c->hue, 0u);
    EXPECT_EQ(c->sharpness, 0u);
    ASSERT_NE(c->chip_state, nullptr);
    EXPECT_EQ(c->chip_state->resolution, VT_AUTO);
    EXPECT_EQ(c->chip_state->lock_state, LS_SEARCH);
    EXPECT_EQ(c->chip_state->channel_mode, 0);
    EXPECT_EQ(c->chip_state->last_detected, 0);
}

TEST(Tp28xxInit, CloseReleasesOnceAndToleratesPartialDecoders)
{
    Decoder *dec = g_new0(Decoder, 1);
    dec->i2c_fd = open("/dev/null", O_RDONLY);
    const int fd = dec->i2c_fd;
    dec->chip_lock = g_new0(GMutex, 1);
    g_mutex_init(dec->chip_lock);
    tp28xx_close(dec);
    EXPECT_EQ(dec->i2c_fd, -1);
    EXPECT_EQ(dec->chip_lock, nullptr);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    tp28xx_close(dec); /* nothing left to release */
    g_free(dec);
}

} // namespace
