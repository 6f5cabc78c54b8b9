#include "sandbox.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vboard
{

namespace
{

bool write_file(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

std::string errtext(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

/* Makes the mount point for source at path: a directory for a directory, an
 * empty file for anything else. */
bool make_mountpoint(const std::string &source, const std::string &path, std::string *error)
{
    struct stat st;
    if (stat(source.c_str(), &st) != 0) {
        *error = errtext("stat " + source);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        if (mkdir(path.c_str(), st.st_mode & 07777) != 0) {
            *error = errtext("mkdir " + path);
            return false;
        }
    } else {
        int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0) {
            *error = errtext("create " + path);
            return false;
        }
        close(fd);
    }
    return true;
}

bool bind(const std::string &source, const std::string &path, std::string *error)
{
    if (!make_mountpoint(source, path, error))
        return false;
    if (mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        *error = errtext("bind " + source + " on " + path);
        return false;
    }
    return true;
}

} // namespace

bool enter_private_namespace(std::string *error, bool *no_privilege)
{
    *no_privilege = false;
    if (unshare(CLONE_NEWNS) != 0) {
        int first = errno;
        uid_t uid = geteuid();
        gid_t gid = getegid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            *no_privilege = true;
            *error = std::string("needs root or unprivileged user namespaces (") +
                     std::strerror(first) + ")";
            return false;
        }
        if (!write_file("/proc/self/setgroups", "deny") ||
            !write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
            !write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")) {
            *error = errtext("mapping the user namespace");
            return false;
        }
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *error = errtext("making / private");
        return false;
    }
    return true;
}

bool shadow_directory(const std::string &target, const std::vector<ShadowEntry> &replace,
                      std::string *error)
{
    std::map<std::string, std::string> replaced;
    for (const auto &e : replace)
        replaced[e.name] = e.source;

    /* The original stays reachable through this descriptor once covered. */
    int dirfd = open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd < 0) {
        *error = errtext("open " + target);
        return false;
    }
    struct stat st;
    fstat(dirfd, &st);
    std::vector<std::string> names;
    {
        int listfd = dup(dirfd);
        DIR *d = fdopendir(listfd);
        if (!d) {
            close(listfd);
            close(dirfd);
            *error = errtext("list " + target);
            return false;
        }
        while (dirent *de = readdir(d)) {
            std::string name = de->d_name;
            if (name != "." && name != ".." && !replaced.count(name))
                names.push_back(name);
        }
        closedir(d);
    }
    char opts[64];
    std::snprintf(opts, sizeof opts, "mode=%o,size=8m", st.st_mode & 07777);
    if (mount("vboard", target.c_str(), "tmpfs", MS_NOSUID, opts) != 0) {
        *error = errtext("tmpfs on " + target);
        close(dirfd);
        return false;
    }
    std::string hidden = "/proc/self/fd/" + std::to_string(dirfd) + "/";
    bool ok = true;
    for (const auto &name : names) {
        std::string from = hidden + name;
        std::string to = target + "/" + name;
        struct stat est;
        if (lstat(from.c_str(), &est) != 0)
            continue; /* gone meanwhile */
        if (S_ISLNK(est.st_mode)) {
            char link[4096];
            ssize_t n = readlink(from.c_str(), link, sizeof link - 1);
            if (n < 0)
                continue;
            link[n] = '\0';
            if (symlink(link, to.c_str()) != 0) {
                *error = errtext("symlink " + to);
                ok = false;
                break;
            }
            continue;
        }
        if (!bind(from, to, error)) {
            ok = false;
            break;
        }
    }
    for (const auto &[name, source] : replaced) {
        if (!ok)
            break;
        ok = bind(source, target + "/" + name, error);
    }
    close(dirfd);
    return ok;
}

} // namespace vboard
