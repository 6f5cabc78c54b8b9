/* The board's GPIO lines around the decoder chip. */
#pragma once

#include <cstdint>

struct ugpio_t;

int gpio_reset_decoder(void);
int gpio_reset_write(int value);
int gpio_set_video_termination(int channel, int value);
int gpio_setup_irq(void);
int gpio_has_cpuid_bit0(void);
ugpio_t *gpio_irq_open(void);
int gpio_irq_poll(ugpio_t *ctx, int timeout_ms);
void gpio_irq_close(ugpio_t *ctx);
