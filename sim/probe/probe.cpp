/* vboard-probe: touches the encoder's device files through the kernel, as the
 * daemon does, and prints what it saw.
 *
 *   i2c REG VALUE        bind 0x44, print register 0xFF, write REG=VALUE and
 *                        read it back ("id 0x27", "readback 0x5a")
 *   i2c-raw ADDR         bind ADDR and read register 0xFF; prints errno on failure
 *   irq-wait MS -- CMD   enable the chip's interrupts, arm the interrupt line,
 *                        run CMD, then wait up to MS for an edge ("edge"/"timeout")
 *   stats                first byte of each no_video_N ("0: 1", "1: -ENOENT", ...)
 *   cam N VALUE          the no-video ioctl on /dev/camN with VALUE by value
 *   reset                pulse the reset line (1, 10 ms, 0)
 *   loop N               N register reads, for benchmarks; prints reads/s */
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

constexpr unsigned long I2C_SLAVE = 0x0703;
constexpr unsigned long CAM_IOC_SET_NO_VIDEO = 0x80042a03;
constexpr const char *I2C_DEV = "/dev/i2c-7";
constexpr const char *IRQ_DIR = "/sys/class/gpio/decoder_interrupt_0/";

int fail(const char *what)
{
    std::printf("%s: %s\n", what, std::strerror(errno));
    return 1;
}

int open_chip(unsigned long addr)
{
    int fd = open(I2C_DEV, O_RDWR);
    if (fd < 0)
        return -1;
    if (ioctl(fd, I2C_SLAVE, addr) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

int read_reg(int fd, uint8_t reg)
{
    uint8_t v;
    if (write(fd, &reg, 1) != 1 || read(fd, &v, 1) != 1)
        return -1;
    return v;
}

int write_reg(int fd, uint8_t reg, uint8_t value)
{
    uint8_t buf[2] = {reg, value};
    return write(fd, buf, 2) == 2 ? 0 : -1;
}

bool write_text(const std::string &path, const char *text)
{
    int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0)
        return false;
    bool ok = write(fd, text, std::strlen(text)) == static_cast<ssize_t>(std::strlen(text));
    close(fd);
    return ok;
}

int cmd_i2c(unsigned reg, unsigned value)
{
    int fd = open_chip(0x44);
    if (fd < 0)
        return fail("bind");
    int id = read_reg(fd, 0xff);
    if (id < 0)
        return fail("read 0xff");
    std::printf("id 0x%02x\n", id);
    if (write_reg(fd, static_cast<uint8_t>(reg), static_cast<uint8_t>(value)) != 0)
        return fail("write");
    int back = read_reg(fd, static_cast<uint8_t>(reg));
    if (back < 0)
        return fail("read back");
    std::printf("readback 0x%02x\n", back);
    close(fd);
    return 0;
}

int cmd_i2c_raw(unsigned long addr)
{
    int fd = open_chip(addr);
    if (fd < 0)
        return fail("bind");
    int id = read_reg(fd, 0xff);
    if (id < 0)
        return fail("read");
    std::printf("id 0x%02x\n", id);
    close(fd);
    return 0;
}

int cmd_irq_wait(int timeout_ms, char **command)
{
    int chip = open_chip(0x44);
    if (chip < 0)
        return fail("bind");
    /* Interrupts of all channels on, pending ones cleared. */
    if (write_reg(chip, 0xb8, 0xff) != 0 || write_reg(chip, 0xb5, 0xff) != 0)
        return fail("enable interrupts");
    if (!write_text(std::string(IRQ_DIR) + "edge", "rising"))
        return fail("edge");
    int fd = open((std::string(IRQ_DIR) + "value").c_str(), O_RDONLY);
    if (fd < 0)
        return fail("open value");
    char buf[8];
    if (pread(fd, buf, sizeof buf, 0) < 0)
        return fail("arm");
    std::fflush(stdout);
    if (*command && std::system(std::string(*command).c_str()) != 0)
        std::printf("command failed\n");
    pollfd p = {fd, POLLPRI | POLLERR, 0};
    int r = poll(&p, 1, timeout_ms);
    if (r > 0 && (p.revents & (POLLPRI | POLLERR))) {
        ssize_t n = pread(fd, buf, sizeof buf - 1, 0);
        buf[n > 0 ? n : 0] = '\0';
        std::printf("edge value %s", buf);
        /* Acknowledged: no second edge is reported. */
        r = poll(&p, 1, 0);
        std::printf("after read %s\n", r > 0 ? "pending" : "clear");
    } else {
        std::printf("timeout\n");
    }
    close(fd);
    close(chip);
    return 0;
}

int cmd_stats()
{
    for (int ch = 0; ch < 4; ch++) {
        std::string path = "/proc/driver/veltra/stats/no_video_" + std::to_string(ch);
        int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0) {
            std::printf("%d: -%s\n", ch, errno == ENOENT ? "ENOENT" : std::strerror(errno));
            continue;
        }
        char c = 0;
        ssize_t n = read(fd, &c, 1);
        close(fd);
        if (n != 1)
            std::printf("%d: read %zd\n", ch, n);
        else
            std::printf("%d: %c\n", ch, c);
    }
    return 0;
}

int cmd_cam(int n, unsigned long value)
{
    std::string path = "/dev/cam" + std::to_string(n);
    int fd = open(path.c_str(), O_RDWR);
    if (fd < 0)
        return fail("open");
    int r = ioctl(fd, CAM_IOC_SET_NO_VIDEO, value);
    if (r != 0)
        return fail("ioctl");
    std::printf("ioctl ok\n");
    close(fd);
    return 0;
}

int cmd_reset()
{
    std::string v = "/sys/class/gpio/decoder_reset_0/value";
    if (!write_text(v, "1"))
        return fail("write 1");
    usleep(10000);
    if (!write_text(v, "0"))
        return fail("write 0");
    std::printf("reset\n");
    return 0;
}

int cmd_loop(long count)
{
    int fd = open_chip(0x44);
    if (fd < 0)
        return fail("bind");
    auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; i++) {
        if (read_reg(fd, 0xfe) < 0)
            return fail("read");
    }
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%ld register reads in %.3f s: %.0f reads/s\n", count, s, count / s);
    close(fd);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::string cmd = argc > 1 ? argv[1] : "";
    if (cmd == "i2c" && argc == 4)
        return cmd_i2c(std::strtoul(argv[2], nullptr, 0), std::strtoul(argv[3], nullptr, 0));
    if (cmd == "i2c-raw" && argc == 3)
        return cmd_i2c_raw(std::strtoul(argv[2], nullptr, 0));
    if (cmd == "irq-wait" && argc >= 3) {
        char *none[] = {nullptr};
        char **command = argc >= 5 && std::strcmp(argv[3], "--") == 0 ? argv + 4 : none;
        return cmd_irq_wait(std::atoi(argv[2]), command);
    }
    if (cmd == "stats")
        return cmd_stats();
    if (cmd == "cam" && argc == 4)
        return cmd_cam(std::atoi(argv[2]), std::strtoul(argv[3], nullptr, 0));
    if (cmd == "reset")
        return cmd_reset();
    if (cmd == "loop" && argc == 3)
        return cmd_loop(std::atol(argv[2]));
    std::fprintf(stderr, "usage: vboard-probe i2c REG VALUE | i2c-raw ADDR | irq-wait MS [-- CMD] "
                         "| stats | cam N VALUE | reset | loop N\n");
    return 2;
}
