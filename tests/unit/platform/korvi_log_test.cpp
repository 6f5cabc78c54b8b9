/* A child binds its own datagram socket at /dev/log on a private /dev. */
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "korvi_log.h"

TEST(KorviLog, EachLevelReachesSyslogWithItsPriority)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for a private /dev";
    const pid_t pid = fork();
    if (pid == 0) {
        sockaddr_un addr = {AF_UNIX, "/dev/log"};
        const int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
        if (unshare(CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) ||
            bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr))
            _exit(77);
        char program[] = "/usr/sbin/vinmand-logcheck", *argv[] = {program, nullptr};
        korvi_log_syslog(1, argv);
        korvi_error("%sChip probe failed on %s", "/dev/i2c-7");
        korvi_warning("%sUnsupported capturemode %d", -5);
        korvi_info("%sStarting vinmand.");
        const std::string tag = " vinmand-logcheck[" + std::to_string(getpid()) + "]: ";
        std::string got; /* "<PRI>timestamp ident[pid]: text" as "PRItext|" */
        char buf[512];
        for (ssize_t n; (n = recv(sock, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
            const std::string d(buf, size_t(n));
            got += d.substr(1, d.find('>') - 1) + d.substr(d.find(tag) + tag.size()) + "|";
        }
        EXPECT_EQ(got, "27Chip probe failed on /dev/i2c-7|28Unsupported capturemode -5|"
                       "30Starting vinmand.|");
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "cannot set up a private /dev/log";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}
