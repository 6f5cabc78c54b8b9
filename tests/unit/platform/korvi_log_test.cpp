/* Logging reaches syslog with the daemon facility, the level's priority, the
 * program name and PID, and the message text. The messages go to a private
 * /dev/log in a mount namespace of a child process, never to the host's. */
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "korvi_log.h"

namespace
{

/* What the child reports, in order over a pipe: an int status (0 or the errno
 * of the failed set-up step), then per datagram an int length and the bytes. */
bool write_all(int fd, const void *data, size_t length)
{
    const char *p = static_cast<const char *>(data);
    while (length > 0) {
        ssize_t n = write(fd, p, length);
        if (n <= 0)
            return false;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, void *data, size_t length)
{
    char *p = static_cast<char *>(data);
    while (length > 0) {
        ssize_t n = read(fd, p, length);
        if (n <= 0)
            return false;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

/* Gives this process its own /dev/log: a datagram socket bound in socket_dir,
 * bind-mounted over /dev/log in a private mount namespace. Where the system
 * has no /dev/log to mount over, a private /dev holds the mount point. Returns
 * the socket, or -errno. */
int private_dev_log(const std::string &socket_dir)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
        return -errno;
    const std::string socket_path = socket_dir + "/log";
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0)
        return -errno;
    struct sockaddr_un addr {
    };
    addr.sun_family = AF_UNIX;
    g_strlcpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path);
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return -errno;
    struct stat st {
    };
    if (lstat("/dev/log", &st) != 0) {
        if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0)
            return -errno;
        int fd = open("/dev/log", O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
        if (fd < 0)
            return -errno;
        close(fd);
    }
    if (mount(socket_path.c_str(), "/dev/log", nullptr, MS_BIND, nullptr) != 0)
        return -errno;
    return sock;
}

[[noreturn]] void log_child(const std::string &socket_dir, int report_fd)
{
    alarm(20);
    int sock = private_dev_log(socket_dir);
    int status = sock < 0 ? -sock : 0;
    if (!write_all(report_fd, &status, sizeof status) || status != 0)
        _exit(0);

    char program[] = "/usr/sbin/vinmand-logcheck";
    char *argv[] = {program, nullptr};
    korvi_log_syslog(1, argv);
    korvi_error("%sChip probe failed on %s", "/dev/i2c-7");
    korvi_warning("%sUnsupported capturemode %d, defaulting to PAL", -5);
    korvi_info("%sStarting vinmand.");

    for (int i = 0; i < 3; i++) {
        struct pollfd pfd = {sock, POLLIN, 0};
        if (poll(&pfd, 1, 5000) != 1)
            break;
        char buf[2048];
        ssize_t n = recv(sock, buf, sizeof buf, 0);
        if (n < 0)
            break;
        int length = static_cast<int>(n);
        if (!write_all(report_fd, &length, sizeof length) || !write_all(report_fd, buf, n))
            break;
    }
    korvi_log_cleanup();
    _exit(0);
}

struct Record {
    int priority = -1;
    std::string ident;
    long pid = -1;
    std::string message;
};

/* "<PRI>timestamp ident[pid]: message" as syslog(3) sends it. */
Record parse(const std::string &datagram, const std::string &ident)
{
    Record r;
    size_t close_bracket = datagram.find('>');
    if (datagram.empty() || datagram[0] != '<' || close_bracket == std::string::npos)
        return r;
    r.priority = std::stoi(datagram.substr(1, close_bracket - 1));
    size_t at = datagram.find(" " + ident + "[", close_bracket);
    if (at == std::string::npos)
        return r;
    r.ident = ident;
    size_t pid_start = at + ident.size() + 2;
    size_t pid_end = datagram.find("]: ", pid_start);
    if (pid_end == std::string::npos)
        return r;
    r.pid = std::stol(datagram.substr(pid_start, pid_end - pid_start));
    r.message = datagram.substr(pid_end + 3);
    return r;
}

TEST(KorviLog, EachLevelReachesSyslogWithItsPriority)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to mount a private /dev/log in a mount namespace; "
                        "the host's syslog is never used";

    std::string socket_dir = std::string(g_get_tmp_dir()) + "/vinmand-log-XXXXXX";
    ASSERT_NE(g_mkdtemp(socket_dir.data()), nullptr);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        log_child(socket_dir, fds[1]);
    }
    close(fds[1]);

    int status = -1;
    bool got_status = read_all(fds[0], &status, sizeof status);
    std::vector<std::string> datagrams;
    int length = 0;
    while (got_status && status == 0 && read_all(fds[0], &length, sizeof length)) {
        std::string datagram(static_cast<size_t>(length), '\0');
        if (!read_all(fds[0], datagram.data(), datagram.size()))
            break;
        datagrams.push_back(datagram);
    }
    close(fds[0]);
    int wait_status = 0;
    ASSERT_EQ(waitpid(pid, &wait_status, 0), pid);
    std::error_code ec;
    std::filesystem::remove_all(socket_dir, ec);

    ASSERT_TRUE(WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == 0)
        << "child status " << wait_status;
    ASSERT_TRUE(got_status);
    if (status != 0)
        GTEST_SKIP() << "cannot set up a private /dev/log: " << strerror(status);

    const struct {
        int priority;
        const char *message;
    } expected[] = {
        {LOG_DAEMON | LOG_ERR, "Chip probe failed on /dev/i2c-7"},
        {LOG_DAEMON | LOG_WARNING, "Unsupported capturemode -5, defaulting to PAL"},
        {LOG_DAEMON | LOG_INFO, "Starting vinmand."},
    };
    ASSERT_EQ(datagrams.size(), 3u);
    for (size_t i = 0; i < 3; i++) {
        Record r = parse(datagrams[i], "vinmand-logcheck");
        EXPECT_EQ(r.priority, expected[i].priority) << datagrams[i];
        EXPECT_EQ(r.ident, "vinmand-logcheck") << datagrams[i];
        EXPECT_EQ(r.pid, pid) << datagrams[i];
        EXPECT_EQ(r.message, expected[i].message) << datagrams[i];
    }
}

} // namespace
