#include "tp28xx_rig.h"

#include "decoder_types.h"

Rig::Rig(uint8_t chip_id, bool init, uint8_t revision)
{
    log_capture_start();
    chip.set_identity(chip_id, revision);
    dec = g_new0(Decoder, 1);
    dec->chip_lock = g_new0(GMutex, 1);
    g_mutex_init(dec->chip_lock);
    dec->i2c_fd = chip.release_fd();
    dec->i2c_device = TP28XX_I2C_DEVICE;
    dec->i2c_address = TP28XX_I2C_ADDRESS;
    dec->dec_chip = tp28xx_detect_chip(dec->i2c_fd);
    tp28xx_fill_decoder(dec);
    if (init)
        tp28xx_common_init(dec->i2c_fd, dec->dec_chip);
    dec->channels = g_new0(Channel, dec->nbr_channels);
    for (int i = 0; i < dec->nbr_channels; i++) {
        Channel *c = &dec->channels[i];
        c->index = i;
        c->decoder = dec;
        c->auto_mode = 1;
        c->video_type = VT_AUTO;
        c->standard = VS_NONE;
        c->detected_type = -1;
        EXPECT_EQ(dec->ops.setup_channel(c), 1);
    }
    chip.clear_log();
    log_capture_clear();
}

Rig::~Rig()
{
    for (int i = 0; i < dec->nbr_channels; i++)
        g_free(dec->channels[i].chip_state);
    g_free(dec->channels);
    tp28xx_close(dec);
    g_free(dec);
}

void Rig::scoped(const std::function<void()> &op)
{
    const uint8_t before = chip.page();
    op();
    EXPECT_EQ(chip.page(), before) << "page register not restored";
}
