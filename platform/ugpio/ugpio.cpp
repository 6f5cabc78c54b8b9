#include "ugpio.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

struct ugpio_t {
    std::string dir; /* the line's directory */
    int fd = -1;     /* its open value file */
};

namespace
{

/* Length of the text once trailing white space is dropped. */
long trimmed_length(const char *text, long length)
{
    while (length > 0 && isspace(static_cast<unsigned char>(text[length - 1])))
        length--;
    return length;
}

bool text_is(const char *text, long length, const char *word)
{
    return length == static_cast<long>(strlen(word)) && memcmp(text, word, length) == 0;
}

/* Reads a small attribute file whole. Returns its length or -errno. */
long read_attribute(const std::string &path, char *buf, size_t size)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    ssize_t n;
    do {
        n = read(fd, buf, size - 1);
    } while (n < 0 && errno == EINTR);
    int err = errno;
    close(fd);
    if (n < 0)
        return -err;
    buf[n] = '\0';
    return n;
}

/* Writes the text at offset 0 of an open attribute file in one write. A plain
 * file (a line directory that is not served by the kernel or the board) is cut
 * to the text, so that it reads back as what was written. Returns 0 or -errno. */
int write_attribute_fd(int fd, const char *text)
{
    size_t len = strlen(text);
    if (lseek(fd, 0, SEEK_SET) < 0 && errno != ESPIPE)
        return -errno;
    ssize_t n;
    do {
        n = write(fd, text, len);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return -errno;
    if (static_cast<size_t>(n) != len)
        return -EIO;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && ftruncate(fd, n) < 0)
        return -errno;
    return 0;
}

int write_attribute(const std::string &path, const char *text)
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    int ret = write_attribute_fd(fd, text);
    close(fd);
    return ret;
}

int open_value(ugpio_t *ctx, int flags)
{
    if (ctx == nullptr)
        return -EINVAL;
    ugpio_close(ctx);
    int fd = open((ctx->dir + "/value").c_str(), flags | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    ctx->fd = fd;
    return 0;
}

} // namespace

const char *ugpio_edge_text(int flags)
{
    switch (flags) {
    case 0:
        return "none";
    case UGPIO_EDGE_RISING:
        return "rising";
    case UGPIO_EDGE_FALLING:
        return "falling";
    case UGPIO_EDGE_BOTH:
        return "both";
    default:
        return nullptr;
    }
}

int ugpio_parse_value(const char *text, long length)
{
    if (text == nullptr)
        return -EINVAL;
    length = trimmed_length(text, length);
    if (text_is(text, length, "0"))
        return 0;
    if (text_is(text, length, "1"))
        return 1;
    return -EINVAL;
}

int ugpio_direction_is_output(const char *text, long length)
{
    if (text == nullptr)
        return -EINVAL;
    length = trimmed_length(text, length);
    if (text_is(text, length, "in"))
        return 0;
    if (text_is(text, length, "out") || text_is(text, length, "high") ||
        text_is(text, length, "low"))
        return 1;
    return -EINVAL;
}

ugpio_t *ugpio_request_named_at(const char *base_dir, const char *name)
{
    if (base_dir == nullptr || name == nullptr || *name == '\0' || strchr(name, '/') != nullptr ||
        strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return nullptr;
    std::string dir = std::string(base_dir) + "/" + name;
    struct stat st;
    if (stat(dir.c_str(), &st) < 0 || !S_ISDIR(st.st_mode))
        return nullptr;
    auto *ctx = new (std::nothrow) ugpio_t;
    if (ctx == nullptr)
        return nullptr;
    ctx->dir = std::move(dir);
    return ctx;
}

ugpio_t *ugpio_request_named(const char *name)
{
    return ugpio_request_named_at(UGPIO_SYSFS_DIR, name);
}

int ugpio_full_open(ugpio_t *ctx)
{
    if (ctx == nullptr)
        return -EINVAL;
    char buf[16];
    long n = read_attribute(ctx->dir + "/direction", buf, sizeof buf);
    if (n < 0)
        return static_cast<int>(n);
    int output = ugpio_direction_is_output(buf, n);
    if (output < 0)
        return output;
    return open_value(ctx, output ? O_RDWR : O_RDONLY);
}

int ugpio_open_ro(ugpio_t *ctx)
{
    return open_value(ctx, O_RDONLY);
}

int ugpio_set_value(ugpio_t *ctx, int value)
{
    if (ctx == nullptr || ctx->fd < 0)
        return -EBADF;
    return write_attribute_fd(ctx->fd, value ? "1" : "0");
}

int ugpio_get_value(ugpio_t *ctx)
{
    if (ctx == nullptr || ctx->fd < 0)
        return -EBADF;
    if (lseek(ctx->fd, 0, SEEK_SET) < 0)
        return -errno;
    char buf[16];
    ssize_t n;
    do {
        n = read(ctx->fd, buf, sizeof buf - 1);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return -errno;
    buf[n] = '\0';
    return ugpio_parse_value(buf, n);
}

int ugpio_set_edge(ugpio_t *ctx, int flags)
{
    const char *text = ugpio_edge_text(flags);
    if (ctx == nullptr || text == nullptr)
        return 0;
    return write_attribute(ctx->dir + "/edge", text) == 0 ? 1 : 0;
}

int ugpio_fd(ugpio_t *ctx)
{
    return ctx != nullptr ? ctx->fd : -1;
}

void ugpio_close(ugpio_t *ctx)
{
    if (ctx != nullptr && ctx->fd >= 0) {
        close(ctx->fd);
        ctx->fd = -1;
    }
}

void ugpio_free(ugpio_t *ctx)
{
    if (ctx == nullptr)
        return;
    ugpio_close(ctx);
    delete ctx;
}
