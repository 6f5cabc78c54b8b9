/* The TP2826/TP2827 chip driver. */
#pragma once

#include <cstddef>
#include <cstdint>

#include "decoder.h"

/* Detection state of a channel (DetectState.lock_state). */
enum {
    LS_SEARCH = 0,
    LS_CONFIRM = 1,
    LS_LOCKED = 2,
    LS_REJECTED = 3,
};

/* The driver's per-channel detection record, behind Channel.chip_state. */
struct DetectState {
    int32_t lock_state;
    int32_t confirm_count; /* steps left in LS_CONFIRM before giving up */
    int32_t settle_count;  /* steps that only count down */
    int32_t recheck_count; /* steps until the standard is read again */
    int32_t resolution;    /* VideoType programmed; saved as "resolution" */
    int32_t last_detected; /* VideoType last detected; VT_NONE after a loss */
    int32_t channel_mode;  /* 0 (none yet), 1 or 2 */
};

/* ---- Register access -------------------------------------------------------
 *
 * The chip sits on an i2c-dev bus. A register read is a one-byte write (the
 * register number) followed by a one-byte read; a register write is one
 * two-byte write (register, value). The functions take the open descriptor so
 * that they work before the decoder record is complete. They take no lock:
 * callers serialise through the decoder's lock and, around page switches,
 * chip_lock. */

/* The page register: per-channel registers answer for the page it selects. */
#define TP28XX_PAGE_REG 0x40
/* tp28xx_set_page identifier selecting all four channels at once. */
#define PAGE_ALL 4

/* The register's value 0..255, or -1 (logged) when a transfer fails. */
int32_t i2c_read_reg(int32_t fd, uint32_t reg);
/* 0, or -1 (logged) when the write fails. Only the low 8 bits are sent. */
int32_t i2c_write_reg(int32_t fd, uint32_t reg, uint32_t value);
/* Replaces the bits `mask` of the register with those of `value`. 0, or -1
 * when the write fails; a failed read is not reported (see the .cpp). */
int32_t i2c_update_bits(int32_t fd, uint32_t reg, uint32_t mask, uint32_t value);
/* Writes data[i] to register (first + i) & 0xFF, one write each; failures are
 * logged and the run goes on. count <= 0 writes nothing; at most 255. */
void i2c_write_regs(int32_t fd, uint32_t first, const uint8_t *data, int32_t count);
/* Opens `path`, binds it to the 8-bit `address` (>> 1 for i2c-dev) and probes
 * register 0xFF. Three attempts. The descriptor, or -1. */
int32_t setup_i2c(const char *path, uint32_t address);
/* Selects a page: 0..3 one channel, 5 -> 0x10, 9 -> 0x40, anything else 0x04. */
int32_t tp28xx_set_page(int32_t fd, int32_t page);

/* Page-scoped access on behalf of one channel: takes chip_lock, saves register
 * 0x40, selects `page`; the destructor writes the saved value back and
 * unlocks. Every operation that touches per-channel registers runs inside one,
 * so the page register is unchanged across it. */
class Tp28xxPageScope
{
  public:
    Tp28xxPageScope(Decoder *dec, int32_t page);
    ~Tp28xxPageScope();
    Tp28xxPageScope(const Tp28xxPageScope &) = delete;
    Tp28xxPageScope &operator=(const Tp28xxPageScope &) = delete;

    int32_t fd() const { return fd_; }

  private:
    Decoder *dec_;
    int32_t fd_;
    int32_t saved_page_;
};

/* ---- Probe and initialisation ---------------------------------------------- */

#define TP28XX_I2C_DEVICE "/dev/i2c-7"
#define TP28XX_I2C_ADDRESS 0x88

/* Opens the bus, identifies the chip, fills the chip fields and operation
 * slots and runs the common initialisation. None when no chip answers. */
Decoder *tp28xx_create(void);
/* video_tp2826, video_tp2827 or 0. */
int32_t tp28xx_detect_chip(int32_t fd);
/* Fills name, nbr_channels and the operation slots for dec->dec_chip. */
void tp28xx_fill_decoder(Decoder *dec);
/* Brings a freshly reset chip into the daemon's initial register state. Leaves
 * page 0x04 selected. */
void tp28xx_common_init(int32_t fd, int32_t dec_chip);
/* The registers of the undetected state, on the page currently selected. */
void tp28xx_set_default_format(int32_t fd);
/* Closes the descriptor and frees chip_lock. Safe on a partial decoder. */
void tp28xx_close(Decoder *dec);

/* ---- Detection and lock status --------------------------------------------- */

/* format_code_to_video_type's answer for a code without a type. */
#define TP28XX_NO_TYPE 34

int32_t tp28xx_setup_channel(Channel *channel);
void tp28xx_detect_video_type(Channel *channel, int32_t *video_type, int32_t *standard);
int32_t tp28xx_video_status(Channel *channel);
int32_t tp28xx_irq_status(Decoder *dec);
int32_t tp28xx_enable_irq(Channel *channel, int32_t enable);
/* What the chip detects on the selected page. Each output may be null; only
 * those asked for are read and written. */
void tp28xx_read_format(int32_t fd, int32_t *video_type, int32_t *standard, uint8_t *short_line);
int32_t format_code_to_video_type(int32_t code, uint8_t *short_line);
/* Channel mode 1 (SD and short-line 720p) or 2; acts on the selected page. */
void tp28xx_set_channel_mode(Channel *channel, int32_t mode);

/* ---- Format programming ---------------------------------------------------- */

int32_t tp28xx_set_video_standard(Channel *channel, int32_t standard, int32_t video_type,
                                  uint8_t auto_mode, uint8_t internal);
/* Programs `resolution` on the selected page (chip_lock held). 0, or -1 for a
 * type the chip can't be programmed for. */
int32_t tp28xx_apply_video_format(Channel *channel, int32_t standard, int32_t resolution,
                                  uint8_t short_line);

/* ---- Image controls -------------------------------------------------------- */

/* Channel.base_position: the horizontal start (signed, 11 bits) and vertical
 * start (8 bits) that the last programmed format left in the chip. */
int32_t tp28xx_base_hstart(uint32_t base_position);
uint32_t tp28xx_base_vstart(uint32_t base_position);
uint32_t tp28xx_make_base_position(int32_t hstart, uint32_t vstart);

void tp28xx_read_base_position(int32_t fd, int32_t index, uint32_t *base_position);
int32_t tp28xx_apply_xoffset(int32_t fd, int32_t index, uint32_t base_position, int32_t offset);
int32_t tp28xx_apply_yoffset(int32_t fd, int32_t index, uint32_t base_position, int32_t offset);

int32_t tp28xx_set_saturation(Channel *channel, uint32_t value);
int32_t tp28xx_set_brightness(Channel *channel, uint32_t value);
int32_t tp28xx_set_contrast(Channel *channel, uint32_t value);
int32_t tp28xx_set_hue(Channel *channel, uint8_t value);
int32_t tp28xx_set_sharpness(Channel *channel, uint32_t value);
int32_t tp28xx_set_xoffset(Channel *channel, int32_t offset);
int32_t tp28xx_set_yoffset(Channel *channel, int32_t offset);

/* ---- PTZ ------------------------------------------------------------------- */

/* Sends one 5-byte record (channel, four data bytes) up the coax cable. */
void tp28xx_transmit_ptz(Decoder *dec, const uint8_t *data, size_t size);
