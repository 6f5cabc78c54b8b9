/* The decoder object: what is known about the chip, the operations its driver
 * implements, and one record per video input. */
#pragma once

#include <cstdint>
#include <glib.h>

#define MAX_SOURCES 4

/* Chip kinds (Decoder.dec_chip). */
enum {
    video_tp2826 = 1,
    video_tp2827 = 2,
};

struct Channel;
struct Decoder;
struct DetectState;
struct EncoderEvents;
struct OverlayHandler;
typedef struct _DbusEncoderVideo DbusEncoderVideo;

/* The chip driver's operations. Any slot may be empty (nullptr): the TP2826
 * has no transmit_ptz. Every call is made with the decoder's lock held. */
struct DecoderOps {
    /* Image control defaults and the channel's chip_state. Non-zero on success. */
    int32_t (*setup_channel)(Channel *channel);
    /* Sends one PTZ record (size is always 5) over the coax link. */
    void (*transmit_ptz)(Decoder *dec, const uint8_t *record, size_t size);
    /* One detection step; reports the detected VideoType and the channel's standard. */
    void (*detect_video_type)(Channel *channel, int32_t *video_type, int32_t *standard);
    int32_t (*set_saturation)(Channel *channel, uint32_t value);
    int32_t (*set_brightness)(Channel *channel, uint32_t value);
    int32_t (*set_contrast)(Channel *channel, uint32_t value);
    int32_t (*set_hue)(Channel *channel, uint8_t value);
    int32_t (*set_sharpness)(Channel *channel, uint32_t value);
    int32_t (*set_xoffset)(Channel *channel, int32_t offset);
    int32_t (*set_yoffset)(Channel *channel, int32_t offset);
    /* 0 on success, -1 when the format can't be programmed. */
    int32_t (*set_video_standard)(Channel *channel, int32_t standard, int32_t video_type,
                                  uint8_t auto_mode, uint8_t internal);
    /* Non-zero when the chip sees locked video on the channel. */
    int32_t (*video_status)(Channel *channel);
    int32_t (*enable_irq)(Channel *channel, int32_t enable);
    /* Reads and clears the interrupt status: bit value 2 is video loss/detect. */
    int32_t (*irq_status)(Decoder *dec);
};

struct Channel {
    int32_t index;
    Decoder *decoder;      /* not owned */
    int32_t video_type;    /* VideoType */
    int32_t detected_type; /* VideoType; -1 until first determined */
    uint8_t configured;
    uint32_t saturation;
    uint32_t brightness;
    uint32_t contrast;
    uint32_t hue;
    uint32_t sharpness;
    int32_t xoffset;
    int32_t yoffset;
    int32_t standard;     /* VideoStandard */
    int32_t capture_mode; /* CaptureMode; negative when it could not be read */
    uint8_t auto_mode;
    uint8_t capture_mode_changed;
    DetectState *chip_state; /* owned */
    uint32_t base_position;  /* chip driver only: hstart and vstart after the last format */
    DbusEncoderVideo *video_object;
};

struct Decoder {
    const char *name;
    int32_t dec_chip;
    int32_t nbr_channels;
    Channel *channels; /* owned, nbr_channels records */
    DecoderOps ops;
    int32_t i2c_fd;
    const char *i2c_device;
    uint32_t i2c_address; /* 8-bit form */
    GMutex *lock;         /* owned; held around every operation slot call */
    GMutex *chip_lock;    /* owned by the chip driver; always taken after lock */
    EncoderEvents *events;
    OverlayHandler *overlay;
};

/* Brings the hardware and every channel up: reset pulse, interrupt line, chip
 * probe and initialisation, events, overlay, configuration, per-channel set-up
 * (fixed channels programmed at once) and one connected = false event per
 * channel. Returns the decoder, or nullptr when any essential step failed. */
Decoder *decoder_create(void);
/* Destroys everything decoder_create made; accepts a partly built decoder. Run
 * only after every other thread has been joined. */
void decoder_exit(Decoder *dec);

/* Enables each channel's interrupt and reports each fixed channel's initial
 * video state. Called with lock held. */
void decoder_enable_irq(Decoder *dec);

/* The image controls, each under lock. -1 when the channel, its decoder or the
 * slot is missing; otherwise the slot's result (0 on success). The value is not
 * stored in the channel. */
int32_t decoder_set_saturation(Channel *channel, uint32_t value);
int32_t decoder_set_brightness(Channel *channel, uint32_t value);
int32_t decoder_set_contrast(Channel *channel, uint32_t value);
int32_t decoder_set_hue(Channel *channel, uint32_t value);
int32_t decoder_set_sharpness(Channel *channel, uint32_t value);
int32_t decoder_set_xoffset(Channel *channel, int32_t value);
int32_t decoder_set_yoffset(Channel *channel, int32_t value);

/* Sets a channel's format (or automatic mode) for a client: the slot under
 * lock, then, for a fixed format, the capture mode, the published video type,
 * the video input type and the capture frequency outside it, and the
 * configuration save under it. -1 when the channel, its decoder or the slot
 * is missing; otherwise the slot's result. */
int32_t decoder_set_video_standard(Channel *channel, int32_t standard, int32_t video_type,
                                   uint8_t auto_mode, uint8_t internal);
