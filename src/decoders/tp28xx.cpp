#include "tp28xx.h"

#include <cerrno>
#include <fcntl.h>
#include <glib.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "korvi_log.h"

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
