#include "tp28xx.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <glib.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "configfile.h"
#include "decoder_types.h"
#include "korvi_log.h"
#include "tp2826.h"
#include "tp2827.h"

/* ---- Register access ------------------------------------------------------- */

int32_t i2c_read_reg(int32_t fd, uint32_t reg)
{
    uint8_t byte = static_cast<uint8_t>(reg);
    if (write(fd, &byte, 1) != 1) {
        korvi_error("%sUnable to write data");
        return -1;
    }
    if (read(fd, &byte, 1) != 1) {
        korvi_error("%sUnable to read data");
        return -1;
    }
    return byte;
}

static int32_t write_pair(int32_t fd, uint32_t reg, uint32_t value)
{
    const uint8_t msg[2] = {static_cast<uint8_t>(reg), static_cast<uint8_t>(value)};
    if (write(fd, msg, 2) != 2) {
        korvi_error("%sUnable to send data");
        return -1;
    }
    return 0;
}

int32_t i2c_write_reg(int32_t fd, uint32_t reg, uint32_t value)
{
    return write_pair(fd, reg, value);
}

int32_t i2c_update_bits(int32_t fd, uint32_t reg, uint32_t mask, uint32_t value)
{
    const int32_t old = i2c_read_reg(fd, reg);
    /* A failed read leaves the bits outside the mask unknown. Writing them
     * anyway would set all of them (the -1 read as 0xFF), which on registers
     * such as 0x02 or 0x35 would switch unrelated decoder functions. The
     * register is left alone instead, and the failure (already logged by the
     * read) is returned to the callers that look at it. */
    if (old < 0)
        return -1;
    const uint32_t next = (static_cast<uint32_t>(old) & ~mask) | (value & mask);
    return write_pair(fd, reg, next & 0xFF);
}

void i2c_write_regs(int32_t fd, uint32_t first, const uint8_t *data, int32_t count)
{
    if (count <= 0)
        return;
    g_assert(data);
    /* The chip's register numbers are 8 bits: a run that passes 0xFF goes on
     * at 0x00. */
    for (int32_t i = 0; i < count && i < 255; i++)
        write_pair(fd, (first + static_cast<uint32_t>(i)) & 0xFF, data[i]);
}

int32_t setup_i2c(const char *path, uint32_t address)
{
    if (address == 0 || path == nullptr) {
        korvi_error("%s%s: Missing input parameters", "setup_i2c");
        return -1;
    }
    for (int attempt = 1;; attempt++) {
        const int fd = open(path, O_RDWR);
        if (fd < 0) {
            korvi_info("%sCan't open %s", path);
        } else if (ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(address >> 1)) < 0) {
            korvi_info("%sFailed to set slave addr 0x%.2X: [%d]", address, -errno);
            close(fd);
        } else if (i2c_read_reg(fd, 0xFF) == -1) {
            close(fd);
        } else {
            return fd;
        }
        if (attempt == 3) {
            korvi_error("%sFailed to setup i2c");
            return -1;
        }
        g_usleep(500);
        korvi_info("%sRetrying setup of %s", path);
    }
}

int32_t tp28xx_set_page(int32_t fd, int32_t page)
{
    uint32_t value;
    switch (page) {
    case 0:
    case 1:
    case 2:
    case 3:
        value = static_cast<uint32_t>(page);
        break;
    case 5:
        value = 0x10;
        break;
    case 9:
        value = 0x40;
        break;
    default: /* PAGE_ALL and anything unknown: all four channels */
        value = 0x04;
        break;
    }
    return i2c_write_reg(fd, TP28XX_PAGE_REG, value);
}

Tp28xxPageScope::Tp28xxPageScope(Decoder *dec, int32_t page)
    : dec_(dec), fd_(dec->i2c_fd), saved_page_(0)
{
    g_mutex_lock(dec_->chip_lock);
    saved_page_ = i2c_read_reg(fd_, TP28XX_PAGE_REG);
    tp28xx_set_page(fd_, page);
}

Tp28xxPageScope::~Tp28xxPageScope()
{
    /* A failed read of the page leaves -1: its low 8 bits go back, as for
     * any other value, so that the sequence is the same on every path. */
    i2c_write_reg(fd_, TP28XX_PAGE_REG, static_cast<uint32_t>(saved_page_) & 0xFF);
    g_mutex_unlock(dec_->chip_lock);
}

/* ---- Probe and initialisation ---------------------------------------------- */

namespace
{

/* Register 0xFF in the high byte, 0xFD in the low one; revision 0x3200 of the
 * silicon reports what 0x3000 does. */
int32_t identity_word(int32_t id, int32_t revision)
{
    const int32_t word = id * 256 + revision;
    return word == 0x3200 ? 0x3000 : word;
}

/* Registers 0x15 to 0x1D of the undetected state. */
constexpr uint8_t default_timing[9] = {0x13, 0x15, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x06, 0x72};

} // namespace

int32_t tp28xx_detect_chip(int32_t fd)
{
    if (i2c_read_reg(fd, 0xFE) != 0x28)
        return 0;
    const int32_t chip_id = i2c_read_reg(fd, 0xFF);
    const int32_t id = i2c_read_reg(fd, 0xFF);
    const int32_t revision = i2c_read_reg(fd, 0xFD);
    const int32_t identity = identity_word(id, revision);
    if (chip_id == 0x26) {
        korvi_info("%sDetected TP2826 rev 0x%x", identity);
        return video_tp2826;
    }
    if (chip_id == 0x27) {
        korvi_info("%sDetected TP2827 rev 0x%x", identity);
        return video_tp2827;
    }
    return 0;
}

void tp28xx_fill_decoder(Decoder *dec)
{
    g_assert(dec);
    const int32_t dec_chip = dec->dec_chip;
    g_assert(dec_chip == video_tp2827 || dec_chip == video_tp2826);
    dec->nbr_channels = 4;
    dec->name = dec_chip == video_tp2827 ? "Techpoint 2827" : "Techpoint 2826";
    DecoderOps &ops = dec->ops;
    ops.setup_channel = tp28xx_setup_channel;
    ops.transmit_ptz = dec_chip == video_tp2827 ? tp28xx_transmit_ptz : nullptr;
    ops.detect_video_type = tp28xx_detect_video_type;
    ops.set_saturation = tp28xx_set_saturation;
    ops.set_brightness = tp28xx_set_brightness;
    ops.set_contrast = tp28xx_set_contrast;
    ops.set_hue = tp28xx_set_hue;
    ops.set_sharpness = tp28xx_set_sharpness;
    ops.set_xoffset = tp28xx_set_xoffset;
    ops.set_yoffset = tp28xx_set_yoffset;
    ops.set_video_standard = tp28xx_set_video_standard;
    ops.video_status = tp28xx_video_status;
    ops.enable_irq = tp28xx_enable_irq;
    ops.irq_status = tp28xx_irq_status;
}

void tp28xx_set_default_format(int32_t fd)
{
    i2c_write_reg(fd, 0x07, 0xC0);
    i2c_write_reg(fd, 0x0B, 0xC0);
    i2c_write_reg(fd, 0x21, 0x84);
    i2c_write_reg(fd, 0x38, 0x00);
    i2c_write_reg(fd, 0x39, 0x1C);
    i2c_write_reg(fd, 0x3A, 0x32);
    i2c_write_reg(fd, 0x3B, 0x26);
    i2c_update_bits(fd, 0x26, 0x01, 0x00);
    i2c_update_bits(fd, 0x06, 0x04, 0x00);
    i2c_write_reg(fd, 0x35, 0x05);
    i2c_write_reg(fd, 0x36, 0x05);
    i2c_write_regs(fd, 0x15, default_timing, sizeof default_timing);
}

void tp28xx_common_init(int32_t fd, int32_t dec_chip)
{
    i2c_write_reg(fd, 0x40, 0x04);
    i2c_write_reg(fd, 0x4D, 0x00);
    i2c_write_reg(fd, 0x4E, 0x00);
    /* Pulse bit 6 of 0x44 for 10 ms and put back exactly what was there. */
    const int32_t v = i2c_read_reg(fd, 0x44);
    i2c_write_reg(fd, 0x44, static_cast<uint32_t>(v | 0x40));
    g_usleep(10000);
    i2c_write_reg(fd, 0x44, static_cast<uint32_t>(v));
    i2c_write_reg(fd, 0x42, 0x00);
    i2c_write_reg(fd, 0x43, 0x12);
    i2c_write_reg(fd, 0x44, 0x07);
    i2c_write_reg(fd, 0x45, 0x49);
    i2c_write_reg(fd, 0xBA, 0x00);
    i2c_write_reg(fd, 0xBB, 0x00);
    i2c_write_reg(fd, 0x6F, 0x00);
    i2c_write_reg(fd, 0xA7, 0x00);
    tp28xx_set_default_format(fd);
    if (dec_chip == video_tp2826)
        tp2826_setup_video_output(fd, SDR_2CH);
    else
        tp2827_setup_video_output(fd, SDR_1CH);
    i2c_write_reg(fd, 0x40, 0x40);
    i2c_update_bits(fd, 0x1F, 0x60, 0x60);
    i2c_update_bits(fd, 0x3C, 0x3F, 0x3F);
    i2c_write_reg(fd, 0x40, 0x04);
}

Decoder *tp28xx_create(void)
{
    Decoder *dec = static_cast<Decoder *>(g_try_malloc0(sizeof(Decoder)));
    if (!dec) {
        korvi_error("%sFailed to allocate\n");
        return nullptr;
    }
    dec->i2c_fd = -1;
    dec->chip_lock = static_cast<GMutex *>(g_try_malloc0(sizeof(GMutex)));
    if (!dec->chip_lock) {
        korvi_error("%sFailed to allocate mutex\n");
        g_free(dec);
        return nullptr;
    }
    g_mutex_init(dec->chip_lock);
    dec->i2c_device = TP28XX_I2C_DEVICE;
    dec->i2c_address = TP28XX_I2C_ADDRESS;

    int32_t dec_chip = 0;
    for (int attempt = 1;; attempt++) {
        dec->i2c_fd = setup_i2c(dec->i2c_device, dec->i2c_address & 0xFF);
        if (dec->i2c_fd != -1) {
            dec_chip = tp28xx_detect_chip(dec->i2c_fd);
            if (dec_chip != 0)
                break;
            close(dec->i2c_fd);
            dec->i2c_fd = -1;
        }
        if (attempt == 10) {
            korvi_error("%scan't communicate with tp28xx chip");
            tp28xx_close(dec);
            g_free(dec);
            return nullptr;
        }
        g_usleep(400000);
    }
    dec->dec_chip = dec_chip;
    tp28xx_fill_decoder(dec);
    tp28xx_common_init(dec->i2c_fd, dec->dec_chip);
    return dec;
}

void tp28xx_close(Decoder *dec)
{
    g_assert(dec);
    if (dec->i2c_fd >= 0) {
        close(dec->i2c_fd);
        dec->i2c_fd = -1;
    }
    if (dec->chip_lock) {
        g_mutex_clear(dec->chip_lock);
        g_free(dec->chip_lock);
        dec->chip_lock = nullptr;
    }
}

/* ---- Detection and lock status --------------------------------------------- */

int32_t tp28xx_setup_channel(Channel *channel)
{
    g_assert(channel && channel->decoder);
    const DecoderOps &ops = channel->decoder->ops;
    channel->brightness = 0;
    ops.set_brightness(channel, channel->brightness);
    channel->contrast = 50;
    ops.set_contrast(channel, channel->contrast);
    channel->saturation = 50;
    ops.set_saturation(channel, channel->saturation);
    channel->hue = 0;
    ops.set_hue(channel, static_cast<uint8_t>(channel->hue));
    channel->sharpness = 0;
    ops.set_sharpness(channel, channel->sharpness);
    DetectState *state = g_new0(DetectState, 1);
    state->resolution = VT_AUTO;
    channel->chip_state = state;
    return 1;
}

int32_t format_code_to_video_type(int32_t code, uint8_t *short_line)
{
    struct CodeType {
        int32_t code;
        int32_t video_type;
    };
    /* Codes 32 and up are the chip's extended formats. */
    static constexpr CodeType extended[] = {
        {32, 12},      {33, 18},         {34, 15},         {35, 13},         {36, 14},
        {37, 21},      {38, VT_1440P30}, {39, VT_1440P25}, {40, VT_1440P15}, {41, 27},
        {42, 29},      {43, 28},         {44, 17},         {45, 16},         {46, 20},
        {47, VT_4K15}, {48, VT_4K12},
    };
    if (short_line)
        *short_line = 0;
    switch (code) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 8:
    case 9:
        return code;
    case 12:
    case 13:
        /* The 720p formats with the short line (1650/1980 clocks). */
        if (short_line)
            *short_line = 1;
        return code == 12 ? VT_720P30 : VT_720P25;
    default:
        break;
    }
    for (const auto &e : extended)
        if (e.code == code)
            return e.video_type;
    return TP28XX_NO_TYPE;
}

namespace
{

constexpr int32_t NO_CODE = -1;

/* The format code from the basic class (bit 2 of 0x03 clear). With the newer
 * silicon (x), the first detail value a tells the class's variants apart. */
int32_t basic_format_code(int32_t format_class, bool x, int32_t a)
{
    switch (format_class) {
    case 0:
        if (!x)
            return 0;
        if (a == 0x5D || a == 0x5E)
            return 38;
        if (a == 0x2E || a == 0x2F)
            return 0;
        if (a == 0x6D)
            return 71;
        return NO_CODE;
    case 1:
        if (!x)
            return 1;
        if (a == 0x5D || a == 0x5E)
            return 39;
        if (a == 0x2E || a == 0x2F)
            return 1;
        return NO_CODE;
    case 2:
        if (!x)
            return 2;
        if (a == 0x8C || a == 0x8D)
            return 47;
        if (a == 0x46 || a == 0x47)
            return 2;
        if (a == 0x67 || a == 0x68)
            return 70;
        return NO_CODE;
    default: /* 3 */
        if (!x)
            return 3;
        if (a == 0x8C || a == 0x8D)
            return 48;
        if (a == 0x46 || a == 0x47)
            return 3;
        if (a == 0x55 || a == 0x56)
            return 60;
        return NO_CODE;
    }
}

/* The format code from the second detail value b (bit 2 of 0x03 set). Some
 * values also settle the standard. */
int32_t extended_format_code(int32_t b, bool x, int32_t a, int32_t *standard)
{
    switch (b) {
    case 0x22:
        return 50;
    case 0x29:
        return 53;
    case 0x2E:
        *standard = VS_AHD;
        return 42;
    case 0x38:
        *standard = VS_CVI;
        return 43;
    case 0x42:
        return 58;
    case 0x46:
        return 70;
    case 0x4E:
        return 69;
    case 0x5C:
        return 33;
    case 0x5D:
        if (!x)
            return NO_CODE;
        if (a == 0x7B || a == 0x7C) {
            *standard = VS_AHD;
            return 33;
        }
        if (a == 0x67 || a == 0x68)
            return 34;
        return NO_CODE;
    case 0x67:
        if (!x)
            return 12;
        if (a == 0x5D || a == 0x5E)
            return 40;
        if (a == 0x2E || a == 0x2F)
            return 12;
        return NO_CODE;
    case 0x6A:
        return 66;
    case 0x75:
        return 37;
    case 0x7B:
        return 13;
    case 0x7C:
    case 0x7D:
        *standard = VS_AHD;
        return 59;
    case 0x84:
        return 72;
    case 0x89:
        if (!x)
            return 49;
        if (a == 0x8C || a == 0x8D)
            return 67;
        if (a == 0x46 || a == 0x47)
            return 49;
        return NO_CODE;
    case 0x93:
        *standard = VS_CVBS;
        return 9;
    case 0x94:
        *standard = VS_CVBS;
        return 8;
    case 0xA4:
        return 65;
    case 0xCE:
        return 68;
    default:
        return NO_CODE;
    }
}

/* The transmission standard from the status registers. A CVI signal reads
 * 0xFF in 0x91 to 0x93 once its sync has been sampled, which takes 100 ms. */
int32_t read_standard_from_status(int32_t fd)
{
    const int32_t status = i2c_read_reg(fd, 0x01);
    if ((i2c_read_reg(fd, 0x03) & 7) == 6)
        return VS_CVBS;
    if (status & 0x04)
        return VS_TVI;
    g_usleep(100000);
    bool cvi = false;
    for (uint32_t reg = 0x8A; reg <= 0xA1; reg++) {
        const int32_t v = i2c_read_reg(fd, reg);
        if (reg >= 0x91 && reg <= 0x93 && v == 0xFF)
            cvi = true;
    }
    return cvi ? VS_CVI : VS_AHD;
}

} // namespace

void tp28xx_read_format(int32_t fd, int32_t *video_type, int32_t *standard, uint8_t *short_line)
{
    const int32_t id = i2c_read_reg(fd, 0xFF);
    const int32_t identity = identity_word(id, i2c_read_reg(fd, 0xFD));
    const bool x = (identity & ~0x100) == 0x3601;

    const int32_t s = i2c_read_reg(fd, 0x03);
    i2c_write_reg(fd, 0x2F, 0x0E);
    const int32_t a = i2c_read_reg(fd, 0x04);

    int32_t code;
    int32_t fixed_standard = -1;
    if ((s & 0x04) == 0) {
        code = basic_format_code(s & 3, x, a);
    } else {
        i2c_write_reg(fd, 0x2F, 0x09);
        const int32_t b = i2c_read_reg(fd, 0x04);
        code = extended_format_code(b, x, a, &fixed_standard);
    }

    uint8_t line = 0;
    int32_t type = code == NO_CODE ? TP28XX_NO_TYPE : format_code_to_video_type(code, &line);
    if (type == TP28XX_NO_TYPE) {
        /* No code of ours: the chip's own class and line flag. */
        line = 0;
        if (video_type || short_line) {
            const int32_t v = i2c_read_reg(fd, 0x03);
            type = v & 7;
            line = (v >> 3) & 1;
        }
    }
    if (video_type)
        *video_type = type;
    if (short_line)
        *short_line = line;
    if (standard)
        *standard = fixed_standard >= 0 ? fixed_standard : read_standard_from_status(fd);
}

void tp28xx_set_channel_mode(Channel *channel, int32_t mode)
{
    g_assert(channel && channel->chip_state);
    DetectState *state = channel->chip_state;
    if (state->channel_mode == mode)
        return;
    const int32_t fd = channel->decoder->i2c_fd;
    const uint32_t bit = 1u << channel->index;
    if (mode == 2) {
        i2c_update_bits(fd, 0x35, 0x20, 0x00);
        i2c_update_bits(fd, 0xF5, bit, 0x00);
    } else {
        i2c_update_bits(fd, 0x35, 0x20, 0x20);
        i2c_update_bits(fd, 0xF5, bit, bit);
    }
    state->channel_mode = mode;
}

namespace
{

bool no_video(int32_t status)
{
    return status < 0 || (status & 0x80) != 0;
}
bool lock_bits(int32_t status)
{
    return (status & 0x70) != 0;
}

/* Back to the undetected state after the video went away or changed. */
int32_t detect_loss(Channel *channel, int32_t fd)
{
    DetectState *p = channel->chip_state;
    p->lock_state = LS_SEARCH;
    p->resolution = VT_AUTO;
    p->last_detected = VT_NONE;
    channel->standard = VS_NONE;
    tp28xx_set_channel_mode(channel, 2);
    tp28xx_set_default_format(fd);
    return VT_AUTO;
}

/* One settle or recheck step; true when the step was spent counting. */
bool detect_countdown(Channel *channel, int32_t fd)
{
    DetectState *p = channel->chip_state;
    if (p->settle_count != 0) {
        p->settle_count--;
        return true;
    }
    if (p->recheck_count != 0) {
        p->recheck_count--;
        if (p->recheck_count == 0)
            tp28xx_read_format(fd, nullptr, &channel->standard, nullptr);
        return true;
    }
    return false;
}

int32_t detect_search(Channel *channel, int32_t fd, int32_t result)
{
    DetectState *p = channel->chip_state;
    int32_t type;
    int32_t standard;
    uint8_t short_line;
    tp28xx_read_format(fd, &type, &standard, &short_line);
    const int32_t dec_ctrl = i2c_read_reg(fd, 0x02);
    korvi_info("%schannel %d detect: %02X dec_ctrl %02X", channel->index,
               static_cast<unsigned>(type), static_cast<unsigned>(dec_ctrl));

    p->lock_state = LS_CONFIRM;
    p->resolution = VT_UNKNOWN;
    p->last_detected = type;
    p->confirm_count = 10;
    p->settle_count = 3;
    p->recheck_count = 4;
    channel->standard = standard;

    const bool tp2826 = channel->decoder->dec_chip == video_tp2826;
    /* Detection on the TP2826 programs only the SD formats. */
    if (!tp2826 || type == VT_PAL || type == VT_NTSC) {
        if (type == 0 || type == 1) {
            p->lock_state = LS_REJECTED;
            return VT_UNKNOWN;
        }
        if (tp28xx_apply_video_format(channel, standard, type, short_line) == 0)
            p->resolution = type;
    }
    if (tp2826 && result == VT_UNKNOWN)
        p->lock_state = LS_REJECTED;
    return result;
}

int32_t detect_confirm(Channel *channel, int32_t fd, int32_t status, int32_t result)
{
    DetectState *p = channel->chip_state;
    if ((status & 0x60) == 0x60) {
        int32_t standard;
        tp28xx_read_format(fd, nullptr, &standard, nullptr);
        if (standard == channel->standard) {
            p->lock_state = LS_LOCKED;
            return p->resolution;
        }
        p->lock_state = LS_SEARCH;
        return result;
    }
    if (p->confirm_count-- <= 0) {
        /* The chip never locked on what it reported: start again from the
         * undetected state. */
        tp28xx_set_channel_mode(channel, 2);
        tp28xx_set_default_format(fd);
        p->resolution = VT_UNKNOWN;
        p->lock_state = LS_REJECTED;
        return VT_UNKNOWN;
    }
    return result;
}

} // namespace

void tp28xx_detect_video_type(Channel *channel, int32_t *video_type, int32_t *standard)
{
    g_assert(channel && channel->decoder && channel->chip_state);
    DetectState *p = channel->chip_state;
    int32_t result;
    {
        Tp28xxPageScope scope(channel->decoder, channel->index);
        const int32_t fd = scope.fd();
        g_usleep(100);
        result = channel->video_type;

        /* Wait for the chip to report the same format twice: with video and a
         * lock bit, read the type until it matches the one last seen. */
        int32_t status = -1;
        int32_t detected = VT_NONE;
        bool read_any = false;
        for (int tries = 0; tries < 11; tries++) {
            status = i2c_read_reg(fd, 0x01);
            if (!no_video(status) && lock_bits(status)) {
                tp28xx_read_format(fd, &detected, nullptr, nullptr);
                read_any = true;
                if (detected == p->last_detected)
                    break;
            }
            g_usleep(10000);
        }

        if (no_video(status)) {
            if (p->lock_state != LS_SEARCH)
                result = detect_loss(channel, fd);
        } else {
            switch (p->lock_state) {
            case LS_LOCKED:
                /* A locked channel whose chip shows video but no lock bit for
                 * the whole wait has lost the format it was locked on (the
                 * camera may have switched to another one): nothing read
                 * counts as a different type, so it is detected afresh rather
                 * than left locked on a format the chip no longer follows. */
                if (!read_any || detected != p->last_detected)
                    result = detect_loss(channel, fd);
                else
                    detect_countdown(channel, fd);
                break;
            case LS_REJECTED:
                result = detect_loss(channel, fd);
                break;
            case LS_SEARCH:
                if (!detect_countdown(channel, fd) && channel->auto_mode)
                    result = detect_search(channel, fd, result);
                break;
            case LS_CONFIRM:
                if (!detect_countdown(channel, fd) && channel->auto_mode)
                    result = detect_confirm(channel, fd, status, result);
                break;
            default:
                g_assert_not_reached();
            }
        }
    }
    *video_type = result;
    *standard = channel->standard;
}

int32_t tp28xx_video_status(Channel *channel)
{
    g_assert(channel && channel->decoder);
    int32_t status;
    {
        Tp28xxPageScope scope(channel->decoder, channel->index);
        status = i2c_read_reg(scope.fd(), 0x01);
    }
    if (no_video(status))
        return 0;
    return lock_bits(status) ? 1 : 0;
}

int32_t tp28xx_irq_status(Decoder *dec)
{
    g_assert(dec);
    const int32_t fd = dec->i2c_fd;
    const int32_t g0 = i2c_read_reg(fd, 0xB4);
    const int32_t g1 = i2c_read_reg(fd, 0xB5);
    const int32_t g2 = i2c_read_reg(fd, 0xB6);
    for (int n = 0; n < 4; n++)
        if (g1 & (1 << n))
            korvi_info("%sGot video loss/detect on channel %d", n);
    i2c_write_reg(fd, 0xB4, 0xFF);
    i2c_write_reg(fd, 0xB5, 0xFF);
    i2c_write_reg(fd, 0xB6, 0xFF);
    return (g0 != 0 ? 1 : 0) + 2 * (g1 != 0 ? 1 : 0) + 4 * (g2 != 0 ? 1 : 0);
}

int32_t tp28xx_enable_irq(Channel *channel, int32_t enable)
{
    g_assert(channel && channel->decoder);
    const uint32_t bits = (3u << (2 * channel->index)) & 0xFF;
    return i2c_update_bits(channel->decoder->i2c_fd, 0xB8, bits, enable ? bits : 0x00);
}

/* ---- Format programming ---------------------------------------------------- */

int32_t tp28xx_apply_video_format(Channel *channel, int32_t standard, int32_t resolution,
                                  uint8_t short_line)
{
    g_assert(channel && channel->decoder);
    g_assert(resolution != VT_DISABLED);
    Decoder *dec = channel->decoder;
    const int32_t fd = dec->i2c_fd;
    const int32_t ch = channel->index;
    const uint8_t std8 = static_cast<uint8_t>(standard);
    const bool tp2826 = dec->dec_chip == video_tp2826;

    if (resolution == VT_PAL || resolution == VT_NTSC) {
        tp28xx_set_channel_mode(channel, 1);
    } else if ((resolution == VT_720P30 || resolution == VT_720P25) && (short_line & 1)) {
        tp28xx_set_channel_mode(channel, 1);
    } else {
        tp28xx_set_channel_mode(channel, 2);
    }

    switch (resolution) {
    case VT_1080P30:
        tp2827_video_mode_set_1080P30(fd, ch, std8);
        break;
    case VT_1080P25:
        tp2827_video_mode_set_1080P25(fd, ch, std8);
        break;
    case VT_720P30:
        if (short_line & 1)
            tp2827_video_mode_set_720P30(fd, ch, std8);
        else
            tp2827_video_mode_set_720P30V2(fd, ch, std8);
        break;
    case VT_720P25:
        if (short_line & 1)
            tp2827_video_mode_set_720P25(fd, ch, std8);
        else
            tp2827_video_mode_set_720P25V2(fd, ch, std8);
        break;
    case VT_PAL:
        if (tp2826)
            tp2826_video_mode_set_PAL(fd, ch);
        else
            tp2827_video_mode_set_PAL(fd, ch);
        break;
    case VT_NTSC:
        if (tp2826)
            tp2826_video_mode_set_NTSC(fd, ch);
        else
            tp2827_video_mode_set_NTSC(fd, ch);
        break;
    case VT_4K12:
        tp2827_video_mode_set_4K12(fd, ch, std8);
        break;
    case VT_4K15:
        tp2827_video_mode_set_4K15(fd, ch, std8);
        break;
    case VT_1440P15:
        tp2827_video_mode_set_QHDP15(fd, ch, std8);
        break;
    case VT_1440P25:
        tp2827_video_mode_set_QHDP25(fd, ch, std8);
        break;
    case VT_1440P30:
        tp2827_video_mode_set_QHDP30(fd, ch, std8);
        break;
    default:
        return -1;
    }

    /* The format moved the picture start: keep the client's offsets relative
     * to the new position. */
    tp28xx_read_base_position(fd, ch, &channel->base_position);
    tp28xx_apply_xoffset(fd, ch, channel->base_position,
                         static_cast<int8_t>(channel->xoffset & 0xFF));
    tp28xx_apply_yoffset(fd, ch, channel->base_position,
                         static_cast<int8_t>(channel->yoffset & 0xFF));
    return 0;
}

int32_t tp28xx_set_video_standard(Channel *channel, int32_t standard, int32_t video_type,
                                  uint8_t auto_mode, uint8_t internal)
{
    g_assert(channel && channel->decoder && channel->chip_state);
    DetectState *p = channel->chip_state;
    Tp28xxPageScope scope(channel->decoder, channel->index);
    const int32_t fd = scope.fd();

    korvi_info("%sSet Video Standard, channel: %d, auto: %d, resolution: %d, standard: %d",
               channel->index, auto_mode, video_type, standard);
    channel->auto_mode = auto_mode;

    if (auto_mode && !internal) {
        /* A client hands the channel back to automatic detection. */
        channel->video_type = VT_AUTO;
        channel->configured = 0;
        p->lock_state = LS_SEARCH;
        config_file_save_channel(channel);
        tp28xx_set_channel_mode(channel, 2);
        tp28xx_set_default_format(fd);
        return 0;
    }

    int32_t result = 0;
    if (!auto_mode)
        channel->configured = 0;
    if (video_type == VT_DISABLED) {
        p->resolution = VT_DISABLED;
        p->lock_state = LS_LOCKED;
        channel->standard = VS_DISABLED;
        channel->video_type = VT_DISABLED;
        channel->configured = 1;
        config_file_save_channel(channel);
    } else {
        uint8_t short_line = 0;
        tp28xx_read_format(fd, nullptr, nullptr, &short_line);
        if (tp28xx_apply_video_format(channel, standard, video_type, short_line) != 0) {
            p->resolution = VT_UNKNOWN;
            result = -1;
        } else {
            p->last_detected = video_type;
            p->confirm_count = 10;
            channel->standard = standard;
            channel->video_type = video_type;
            p->resolution = video_type;
            p->lock_state = LS_LOCKED;
        }
    }
    if (!auto_mode && !internal && video_type_is_valid(channel->video_type))
        config_file_save_channel(channel);
    return result;
}

/* ---- Image controls -------------------------------------------------------- */

/* base_position: hstart in bits 0 to 10 (two's complement), vstart in bits
 * 16 to 23. */
int32_t tp28xx_base_hstart(uint32_t base_position)
{
    const int32_t h = static_cast<int32_t>(base_position & 0x7FF);
    return h >= 1024 ? h - 2048 : h;
}

uint32_t tp28xx_base_vstart(uint32_t base_position)
{
    return (base_position >> 16) & 0xFF;
}

uint32_t tp28xx_make_base_position(int32_t hstart, uint32_t vstart)
{
    return (static_cast<uint32_t>(hstart) & 0x7FF) | ((vstart & 0xFF) << 16);
}

void tp28xx_read_base_position(int32_t fd, int32_t index, uint32_t *base_position)
{
    (void)index;
    g_assert(base_position);
    const int32_t r15 = i2c_read_reg(fd, 0x15);
    const int32_t r16 = i2c_read_reg(fd, 0x16);
    const int32_t r18 = i2c_read_reg(fd, 0x18);
    const int32_t raw = (((r15 >> 4) & 0x07) << 8) | (r16 & 0xFF);
    *base_position = tp28xx_make_base_position(raw, static_cast<uint32_t>(r18));
}

int32_t tp28xx_apply_xoffset(int32_t fd, int32_t index, uint32_t base_position, int32_t offset)
{
    (void)index;
    const int32_t h =
        std::clamp(tp28xx_base_hstart(base_position) + offset, int32_t{-1024}, int32_t{1023});
    const int32_t hi = i2c_update_bits(fd, 0x15, 0x70, static_cast<uint32_t>((h >> 4) & 0x70));
    const int32_t lo = i2c_write_reg(fd, 0x16, static_cast<uint32_t>(h & 0xFF));
    return hi | lo;
}

int32_t tp28xx_apply_yoffset(int32_t fd, int32_t index, uint32_t base_position, int32_t offset)
{
    (void)index;
    const int32_t y = std::clamp(static_cast<int32_t>(tp28xx_base_vstart(base_position)) - offset,
                                 int32_t{0}, int32_t{255});
    return i2c_write_reg(fd, 0x18, static_cast<uint32_t>(y));
}

namespace
{

int32_t write_control(Channel *channel, uint32_t reg, uint32_t value)
{
    g_assert(channel && channel->decoder);
    Tp28xxPageScope scope(channel->decoder, channel->index);
    return i2c_write_reg(scope.fd(), reg, value & 0xFF);
}

/* 0..100 onto the chip's 0..127 gain, rounded to nearest. */
uint32_t gain_value(uint32_t value)
{
    return static_cast<uint32_t>(value * 127.0 / 100.0 + 0.5) & 0xFF;
}

} // namespace

int32_t tp28xx_set_saturation(Channel *channel, uint32_t value)
{
    return write_control(channel, 0x12, gain_value(value));
}

int32_t tp28xx_set_contrast(Channel *channel, uint32_t value)
{
    return write_control(channel, 0x11, gain_value(value));
}

int32_t tp28xx_set_brightness(Channel *channel, uint32_t value)
{
    /* The register is a signed offset, 0x00 neutral. The scale 0..100 maps to
     * q = 0..127 and the register takes q - 64, so 51 is neutral, 50 is -1
     * (0xFF) and 100 is +63 (0x3F). The lower half uses the same line: 0 is
     * -64 (0xC0) and 49 is -2 (0xFE), one step below 50, so the whole scale,
     * the default 0 included, moves the picture evenly without a jump. */
    const int32_t q = static_cast<int32_t>(value * 127 / 100);
    return write_control(channel, 0x10, static_cast<uint32_t>(q - 64) & 0xFF);
}

int32_t tp28xx_set_hue(Channel *channel, uint8_t value)
{
    const uint32_t scaled = (static_cast<uint32_t>(value) * 255 / 100) & 0xFF;
    return write_control(channel, 0x13, scaled ^ 0x80);
}

int32_t tp28xx_set_sharpness(Channel *channel, uint32_t value)
{
    g_assert(channel && channel->decoder);
    Tp28xxPageScope scope(channel->decoder, channel->index);
    /* Bits 5 to 7 belong to other functions; a failed read keeps them as all
     * ones, the same as any other read value. */
    const int32_t old = i2c_read_reg(scope.fd(), 0x14);
    const uint32_t next = (static_cast<uint32_t>(old) & 0xE0) | ((value * 31 / 100) & 0x1F);
    return i2c_write_reg(scope.fd(), 0x14, next & 0xFF);
}

int32_t tp28xx_set_xoffset(Channel *channel, int32_t offset)
{
    g_assert(channel && channel->decoder);
    Tp28xxPageScope scope(channel->decoder, channel->index);
    return tp28xx_apply_xoffset(scope.fd(), channel->index, channel->base_position, offset);
}

int32_t tp28xx_set_yoffset(Channel *channel, int32_t offset)
{
    g_assert(channel && channel->decoder);
    Tp28xxPageScope scope(channel->decoder, channel->index);
    return tp28xx_apply_yoffset(scope.fd(), channel->index, channel->base_position, offset);
}

/* ---- PTZ ------------------------------------------------------------------- */

void tp28xx_transmit_ptz(Decoder *dec, const uint8_t *data, size_t size)
{
    g_assert(dec);
    g_assert(data);
    g_assert(size == 5);
    const int32_t channel = data[0];
    const int32_t fd = dec->i2c_fd;
    /* The PTZ mode selects the channel's page itself; only the restore is
     * done here. */
    g_mutex_lock(dec->chip_lock);
    const int32_t saved_page = i2c_read_reg(fd, TP28XX_PAGE_REG);
    tp2827_set_ptz_mode(fd, channel, PTZ_HDA_CVBS);
    tp2827_ptz_send(fd, channel, data + 1);
    i2c_write_reg(fd, TP28XX_PAGE_REG, static_cast<uint32_t>(saved_page) & 0xFF);
    g_mutex_unlock(dec->chip_lock);
}
