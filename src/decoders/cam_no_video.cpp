/* The capture driver's view of whether a channel carries video. */
#include "cam_no_video.h"

#include <cerrno>
#include <fcntl.h>
#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "korvi_log.h"

static_assert(CAM_IOC_SET_NO_VIDEO == 0x80042a03);

int32_t cam_set_no_video(int32_t device, uint32_t value)
{
    g_autofree char *path = g_strdup_printf("/dev/cam%d", device);
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        korvi_warning("%sFailed to open %s, code: %d:%s", path, err, g_strerror(err));
        return -1;
    }

    /* The driver takes the flag by value, not through a pointer. */
    int32_t result = 0;
    if (ioctl(fd, CAM_IOC_SET_NO_VIDEO, static_cast<unsigned long>(value)) != 0) {
        korvi_warning("%sioctl CAM_IOC_SET_NO_VIDEO failed");
        result = -1;
    }
    close(fd);
    return result;
}

int check_no_video(int32_t channel)
{
    g_autofree gchar *path = g_strdup_printf("/proc/driver/veltra/stats/no_video_%d", channel);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        korvi_error("%s%s: Failed to open %s\n", "check_no_video", path);
        return -1;
    }
    char first = 0;
    ssize_t n = read(fd, &first, 1);
    close(fd);
    if (n != 1)
        korvi_error("%s%s: Failed to read ret=%d %s\n", "check_no_video", static_cast<int>(n),
                    path);
    return first == '0' ? 0 : 1;
}
