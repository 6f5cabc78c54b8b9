/* A process killed while saving never leaves a broken configuration file: the
 * file always parses and holds one complete set of a channel's values, the old
 * one or the new one. */
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config_test_support.h"

namespace
{

using Clock = std::chrono::steady_clock;

/* Two value sets that differ in all four keys, so any mix shows. */
constexpr ChannelValues set_a = {0, 2, 0, 1};
constexpr ChannelValues set_b = {3, 8, 1, 0};

/* Two warm-up saves, a report on report_fd, then B, A, B, A... until killed. */
[[noreturn]] void run_saver(const std::string &path, int report_fd)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(30);
    if (!save_channel(2, set_b, path) || !save_channel(2, set_a, path) ||
        write(report_fd, "S", 1) != 1)
        _exit(3);
    for (unsigned n = 0; save_channel(2, n % 2 == 0 ? set_b : set_a, path); n++) {
    }
    _exit(3);
}

TEST(ConfigFileCrash, KilledSaverLeavesOldOrNewValues)
{
    /* The page cache survives the death of a process: on a memory file system
     * the syncs cost nothing and more kill points fit. */
    TempDir dir(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : nullptr);
    const std::string path = dir.file("video.conf");
    ASSERT_TRUE(config_file_create(path.c_str()));
    ASSERT_TRUE(config_file_load(path.c_str()));

    /* How long one save takes here, to spread the kills over it. Ends on A. */
    const Clock::time_point t0 = Clock::now();
    for (int n = 0; n < 20; n++)
        ASSERT_TRUE(save_channel(2, n % 2 == 0 ? set_b : set_a, path));
    const Clock::duration per_save = (Clock::now() - t0) / 20;

    const std::string with_a = normalized(text_of({new_file[0], new_file[1], set_a, new_file[3]}));
    const std::string with_b = normalized(text_of({new_file[0], new_file[1], set_b, new_file[3]}));
    int tried = 0, left_temporary = 0;
    /* Up to 500 kill points in 12 s; on a loaded machine up to 30 s, until at
     * least 50 were tried and one of them landed inside a write. */
    const Clock::time_point soon = Clock::now() + std::chrono::seconds(12),
                            late = soon + std::chrono::seconds(18);
    for (int i = 0; i < 500 && !HasFailure(); i++, tried++) {
        const Clock::time_point now = Clock::now();
        if (now > late || (now > soon && tried >= 50 && left_temporary > 0))
            break;
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        const pid_t pid = fork();
        if (pid == 0)
            run_saver(path, fds[1]);
        close(fds[1]);
        char started = 0;
        const bool ok = read(fds[0], &started, 1) == 1;
        close(fds[0]);
        /* Up to one save's time in even steps, shifted a little each round. */
        const Clock::time_point until =
            Clock::now() + per_save * (i % 50) / 50 + per_save * (i / 50) / 350;
        while (Clock::now() < until) {
        }
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(ok && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "saver ended on its own, status " << status;

        const std::string found = normalized(read_file(path));
        EXPECT_TRUE(found == with_a || found == with_b) << "kill point " << i << " left\n" << found;
        /* A kill inside a save may leave its temporary file, never a broken one. */
        for (const std::string &name : dir.entries())
            if (name != "video.conf" && unlink(dir.file(name).c_str()) == 0)
                left_temporary++;
    }

    std::cout << "kill points tried " << tried << ", temporary file left behind " << left_temporary
              << ", one save " << per_save / std::chrono::microseconds(1) << " us" << std::endl;
    EXPECT_GE(tried, 50);
    EXPECT_GT(left_temporary, 0) << "no kill landed inside a write";
}

} // namespace
