/* Register primitives, page select, probe, channel defaults and the common
 * initialisation. */
#include "tp28xx_rig.h"

namespace
{

TEST(I2cAccess, PrimitivesAndPageSelect)
{
    log_capture_start();
    fakechip::FakeChip chip;
    chip.set(0, 0x1F, 0xFF);
    chip.script(0x10, {-1});
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), -1);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), 0); /* a value of 0 is no failure */
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x1A5, 0x2FF), 0);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x1F, 0x60, 0x00), 0);
    const uint8_t data[3] = {0x11, 0x22, 0x33};
    i2c_write_regs(chip.fd(), 0xFE, data, 3);
    i2c_write_regs(chip.fd(), 0x15, data, 0);
    EXPECT_SEQ(chip, "?10 ?10 A5=FF ?1F 1F=9F FE=11 FF=22 00=33", 0);
    chip.set_offline(true);
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x10, 0x01), -1);
    i2c_write_regs(chip.fd(), 0x15, data, 3); /* goes on after each failure */
    chip.set_offline(false);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to read data"), 1u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to send data"), 4u);

    for (const auto &[page, value] :
         {std::pair{3, 0x03}, {PAGE_ALL, 0x04}, {5, 0x10}, {9, 0x40}, {7, 0x04}, {-1, 0x04}}) {
        tp28xx_set_page(chip.fd(), page);
        EXPECT_EQ(chip.page(), value) << "page identifier " << page;
    }
}

TEST(Tp28xxProbe, IdentifiesBothChipsAndFillsTheSlots)
{
    log_capture_start();
    const std::tuple<uint8_t, uint8_t, int32_t, const char *> cases[] = {
        {0x28, 0x27, video_tp2827, "Detected TP2827 rev 0x2705"},
        {0x28, 0x26, video_tp2826, "Detected TP2826 rev 0x2605"},
        {0x28, 0x25, 0, nullptr},
        {0x29, 0x27, 0, nullptr}};
    for (const auto &[family, id, expected, text] : cases) {
        fakechip::FakeChip chip;
        chip.set_identity(id);
        chip.set(ANY_PAGE, 0xFE, family);
        log_capture_clear();
        EXPECT_EQ(tp28xx_detect_chip(chip.fd()), expected);
        EXPECT_SEQ(chip, family == 0x28 ? "?FE ?FF ?FF ?FD" : "?FE", 0);
        EXPECT_EQ(log_capture_messages().size(), text ? 1u : 0u);
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, text ? text : "-"), text ? 1u : 0u);
    }
    Rig tp2826(0x26), tp2827(0x27);
    EXPECT_STREQ(tp2826.dec.name, "Techpoint 2826");
    EXPECT_EQ(tp2826.dec.ops.transmit_ptz, nullptr);
    EXPECT_STREQ(tp2827.dec.name, "Techpoint 2827");
    EXPECT_EQ(tp2827.dec.ops.transmit_ptz, tp28xx_transmit_ptz);
    /* Channel defaults: brightness 0, contrast and saturation 50, hue 0, sharpness 0. */
    std::vector<int> image;
    for (uint8_t reg = 0x10; reg <= 0x14; reg++)
        image.push_back(tp2827.chip.get(2, reg));
    EXPECT_EQ(image, (std::vector<int>{0xC0, 0x40, 0x40, 0x80, 0x00}));
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
        rig.chip.set(ANY_PAGE, 0x44, 0x15); /* 0x44 gets bit 6 pulsed, then exactly this back */
        for (uint8_t reg : {0x06, 0x26, 0x1F, 0x3C}) /* bits that the updates must keep */
            rig.chip.set(ANY_PAGE, reg, 0xC3);
        tp28xx_common_init(rig.dec.i2c_fd, rig.dec.dec_chip);
        EXPECT_SEQ(rig.chip,
                   "40=04 4D=00 4E=00 ?44 44=55 44=15 42=00 43=12 44=07 45=49 BA=00 BB=00 6F=00 "
                   "A7=00 " +
                       DEFAULT_FORMAT + " " + output + " 40=40 1F&60=60 3C&3F=3F 40=04",
                   0x04);
    }
}

} // namespace
