#include "gpio.h"

#include <cstdio>
#include <poll.h>
#include <unistd.h>

#include "korvi_log.h"
#include "ugpio.h"

namespace
{

constexpr const char *RESET_LINE = "decoder_reset_0";
constexpr const char *IRQ_LINE = "decoder_interrupt_0";
constexpr const char *CPUID_LINE = "cpuid_bit0";

/* Lines of the reset and interrupt set-up may not be exported yet this early
 * in boot: they get 10 tries, half a second apart. */
constexpr int LINE_ATTEMPTS = 10;
constexpr useconds_t LINE_RETRY_SLEEP_US = 500000;
/* The chip needs the reset held for 10 ms and 10 ms after its release. */
constexpr useconds_t RESET_PULSE_SLEEP_US = 10000;
/* The chip's interrupt output is seen on its rising edge. */
constexpr int IRQ_EDGE_FLAGS = UGPIO_EDGE_RISING;

ugpio_t *request_with_retries(const char *name)
{
    for (int attempt = 1;; attempt++) {
        ugpio_t *line = ugpio_request_named(name);
        if (line != nullptr)
            return line;
        if (attempt == LINE_ATTEMPTS)
            return nullptr;
        usleep(LINE_RETRY_SLEEP_US);
    }
}

bool full_open_with_retries(ugpio_t *line)
{
    for (int attempt = 1;; attempt++) {
        if (ugpio_full_open(line) == 0)
            return true;
        if (attempt == LINE_ATTEMPTS)
            return false;
        usleep(LINE_RETRY_SLEEP_US);
    }
}

void release(ugpio_t *line)
{
    ugpio_close(line);
    ugpio_free(line);
}

} // namespace

int gpio_reset_write(int value)
{
    ugpio_t *line = request_with_retries(RESET_LINE);
    if (line == nullptr) {
        korvi_error("%sFailed to request named GPIO decoder_reset_0");
        return -1;
    }
    if (!full_open_with_retries(line)) {
        korvi_error("%sFailed to full open GPIO decoder_reset_0");
        release(line);
        return -1;
    }
    int ret = 0;
    if (ugpio_set_value(line, value) != 0) {
        korvi_error("%sFailed to set value %d on GPIO decoder_reset_0", value);
        ret = -1;
    }
    release(line);
    return ret;
}

int gpio_reset_decoder(void)
{
    int ret = 0;
    if (gpio_reset_write(1) == -1) {
        korvi_error("%sFAILED: write 1 to reset GPIO");
        ret = -1;
    }
    usleep(RESET_PULSE_SLEEP_US);
    if (gpio_reset_write(0) == -1) {
        korvi_error("%sFAILED: write 0 to reset GPIO");
        ret = -1;
    }
    usleep(RESET_PULSE_SLEEP_US);
    return ret;
}

int gpio_set_video_termination(int channel, int value)
{
    if (static_cast<unsigned>(channel) > 3)
        return -1;
    char name[14];
    snprintf(name, sizeof name, "video_term_%d", channel + 1);

    ugpio_t *line = ugpio_request_named(name);
    if (line == nullptr) {
        korvi_error("%sFailed to request named GPIO %s", name);
        return -1;
    }
    if (ugpio_full_open(line) < 0) {
        korvi_error("%sFailed to full open GPIO %s", name);
        release(line);
        return -1;
    }
    if (ugpio_set_value(line, value) != 0) {
        korvi_error("%sFailed to set value %d on GPIO %s", value, name);
        release(line);
        return -1;
    }
    release(line);
    return 0;
}

int gpio_setup_irq(void)
{
    ugpio_t *line = request_with_retries(IRQ_LINE);
    if (line == nullptr) {
        korvi_error("%sFailed to request named GPIO decoder_interrupt_0");
        return -1;
    }
    if (!full_open_with_retries(line)) {
        korvi_error("%sFailed to full open GPIO decoder_interrupt_0");
        release(line);
        return -1;
    }
    int ret = 0;
    if (ugpio_set_edge(line, IRQ_EDGE_FLAGS) == 0) {
        korvi_error("%sFailed to set IRQ edge on decoder_interrupt_0");
        ret = -1;
    }
    /* The edge stays selected on the line once the handle is gone. */
    release(line);
    return ret;
}

int gpio_has_cpuid_bit0(void)
{
    ugpio_t *line = ugpio_request_named(CPUID_LINE);
    if (line == nullptr)
        return 0;
    ugpio_free(line);
    return 1;
}

ugpio_t *gpio_irq_open(void)
{
    ugpio_t *line = ugpio_request_named(IRQ_LINE);
    if (line == nullptr) {
        korvi_error("%sFailed to request named GPIO decoder_interrupt_0");
        return nullptr;
    }
    if (ugpio_open_ro(line) < 0) {
        korvi_error("%sFailed to RO open GPIO decoder_interrupt_0");
        ugpio_free(line);
        return nullptr;
    }
    return line;
}

int gpio_irq_poll(ugpio_t *ctx, int timeout_ms)
{
    g_assert(ctx);

    struct pollfd pfd = {};
    pfd.fd = ugpio_fd(ctx);
    pfd.events = POLLPRI | POLLERR;
    if (poll(&pfd, 1, timeout_ms) <= 0)
        return 0;
    if ((pfd.revents & (POLLPRI | POLLERR)) == 0)
        return 0;
    /* Reading the value acknowledges the edge and re-arms the line. */
    if (ugpio_get_value(ctx) < 0)
        korvi_error("%sFailed to read GPIO decoder_interrupt_0");
    return 1;
}

void gpio_irq_close(ugpio_t *ctx)
{
    if (ctx == nullptr)
        return;
    release(ctx);
}
