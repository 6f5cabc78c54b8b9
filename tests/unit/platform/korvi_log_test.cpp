/* Logging reaches syslog with the daemon facility, the level's priority, the
 * program name, PID and text: a child mounts the test's own datagram socket
 * over /dev/log in a private mount namespace, never touching the host's. */
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "configfile/config_test_support.h"
#include "korvi_log.h"

namespace
{

/* Mounts the socket over /dev/log for this process alone (on a private /dev
 * where the system has none). 0 or the errno of the failure. */
int mount_dev_log(const std::string &socket_path)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
        return errno;
    if (access("/dev/log", F_OK) != 0 && (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0 ||
                                          !g_file_set_contents("/dev/log", "", 0, nullptr)))
        return errno ? errno : EIO;
    return mount(socket_path.c_str(), "/dev/log", nullptr, MS_BIND, nullptr) == 0 ? 0 : errno;
}

TEST(KorviLog, EachLevelReachesSyslogWithItsPriority)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to mount a private /dev/log";
    TempDir dir;
    const std::string socket_path = dir.file("log");
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {AF_UNIX, {}};
    g_strlcpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path);
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);

    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        if (int err = mount_dev_log(socket_path))
            _exit(err);
        char program[] = "/usr/sbin/vinmand-logcheck", *argv[] = {program, nullptr};
        korvi_log_syslog(1, argv);
        korvi_error("%sChip probe failed on %s", "/dev/i2c-7");
        korvi_warning("%sUnsupported capturemode %d, defaulting to PAL", -5);
        korvi_info("%sStarting vinmand.");
        korvi_log_cleanup();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    /* All the child sent is queued: "<PRI>timestamp ident[pid]: message". */
    const std::string tag = " vinmand-logcheck[" + std::to_string(pid) + "]: ";
    std::vector<std::string> got;
    char buf[2048];
    for (ssize_t n; got.size() < 4 && (n = recv(sock, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
        const std::string d(buf, size_t(n));
        const size_t end = d.find('>'), at = d.find(tag);
        got.push_back(d[0] == '<' && end != d.npos && at != d.npos
                          ? d.substr(1, end - 1) + " " + d.substr(at + tag.size())
                          : "unexpected datagram " + d);
    }
    close(sock);
    ASSERT_TRUE(WIFEXITED(status)) << "child status " << status;
    if (WEXITSTATUS(status) != 0)
        GTEST_SKIP() << "cannot set up a private /dev/log: " << strerror(WEXITSTATUS(status));
    /* LOG_DAEMON with LOG_ERR, LOG_WARNING and LOG_INFO */
    EXPECT_EQ(got, (std::vector<std::string>{"27 Chip probe failed on /dev/i2c-7",
                                             "28 Unsupported capturemode -5, defaulting to PAL",
                                             "30 Starting vinmand."}));
}

} // namespace
