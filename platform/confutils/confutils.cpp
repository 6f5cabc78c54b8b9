#include "confutils.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

gboolean fail(GError **error, int err, const char *what, const char *path)
{
    g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(err), "%s '%s': %s", what, path,
                g_strerror(err));
    return FALSE;
}

/* Writes all of buf, going on after short writes and interrupted calls. */
bool write_all(int fd, const char *buf, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

gboolean confutils_set_file_contents_with_sync_mode(const gchar *path, const gchar *contents,
                                                    gssize length, mode_t mode, GError **error)
{
    g_return_val_if_fail(path != nullptr, FALSE);
    g_return_val_if_fail(contents != nullptr || length == 0, FALSE);

    size_t len = length < 0 ? strlen(contents) : static_cast<size_t>(length);
    g_autofree gchar *dir = g_path_get_dirname(path);
    g_autofree gchar *base = g_path_get_basename(path);
    /* The temporary file lives beside the target: rename(2) is atomic only
     * within one file system. */
    g_autofree gchar *tmp = g_strdup_printf("%s/.%s.XXXXXX", dir, base);

    int fd = g_mkstemp_full(tmp, O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0)
        return fail(error, errno, "Cannot create a temporary file for", path);

    int err = 0;
    const char *what = nullptr;
    /* The mode is set explicitly: the process umask must not change it. */
    if (fchmod(fd, mode) != 0) {
        err = errno;
        what = "Cannot set the mode of";
    } else if (!write_all(fd, contents, len)) {
        err = errno;
        what = "Cannot write";
    } else if (fsync(fd) != 0) {
        err = errno;
        what = "Cannot sync";
    }
    if (close(fd) != 0 && what == nullptr) {
        err = errno;
        what = "Cannot close";
    }
    if (what == nullptr && rename(tmp, path) != 0) {
        err = errno;
        what = "Cannot rename the temporary file over";
    }
    if (what != nullptr) {
        unlink(tmp);
        return fail(error, err, what, path);
    }

    /* The rename is durable only once the directory entry is on disk. */
    int dfd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0)
        return fail(error, errno, "Cannot open the directory of", path);
    if (fsync(dfd) != 0) {
        err = errno;
        close(dfd);
        return fail(error, err, "Cannot sync the directory of", path);
    }
    close(dfd);
    return TRUE;
}
