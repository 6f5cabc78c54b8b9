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
constexpr int saved_channel = 2;

/* The child warms up with two saves (B, then A: the first save of a new
 * process is slow), says it has started, then saves B, A, B, A... and reports
 * each completed save with a byte. */
[[noreturn]] void run_saver(const std::string &path, int report_fd)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(30);
    TestChannel ch(saved_channel, set_b);
    if (!config_file_save_channel(&ch.channel, path.c_str()))
        _exit(3);
    ch.set(set_a);
    if (!config_file_save_channel(&ch.channel, path.c_str()))
        _exit(3);
    if (write(report_fd, "S", 1) != 1)
        _exit(2);
    for (unsigned n = 0;; n++) {
        ch.set(n % 2 == 0 ? set_b : set_a);
        if (!config_file_save_channel(&ch.channel, path.c_str()))
            _exit(3);
        if (write(report_fd, "w", 1) != 1)
            _exit(4);
    }
}

/* One saver process, from fork to SIGKILL. */
class Saver
{
  public:
    explicit Saver(const std::string &path)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            run_saver(path, fds[1]);
        }
        close(fds[1]);
        fd_ = fds[0];
        char started = 0;
        started_ = pid_ > 0 && read(fd_, &started, 1) == 1 && started == 'S';
    }
    ~Saver()
    {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0)
            close(fd_);
    }
    Saver(const Saver &) = delete;
    Saver &operator=(const Saver &) = delete;

    bool started() const { return started_; }
    /* Blocks until n more saves have completed; false if the saver stopped. */
    bool wait_saves(int n)
    {
        for (; n > 0; n--) {
            char byte = 0;
            if (read(fd_, &byte, 1) != 1)
                return false;
            completed_++;
        }
        return true;
    }
    /* Kills the saver; true when it was still running. */
    bool kill_now()
    {
        kill(pid_, SIGKILL);
        int status = 0;
        reaped_ = waitpid(pid_, &status, 0) == pid_;
        char buf[256];
        ssize_t n;
        fcntl(fd_, F_SETFL, O_NONBLOCK);
        while ((n = read(fd_, buf, sizeof buf)) > 0)
            completed_ += static_cast<int>(n);
        return reaped_ && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }
    /* Saves completed after the start report. */
    int completed() const { return completed_; }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
    bool started_ = false;
    bool reaped_ = false;
    int completed_ = 0;
};

/* Busy-waits: the point is to land the kill at many different moments of a
 * save, not to wait for anything. */
void spin_for(Clock::duration d)
{
    const Clock::time_point until = Clock::now() + d;
    while (Clock::now() < until) {
    }
}

TEST(ConfigFileCrash, KilledSaverLeavesOldOrNewValues)
{
    /* Process death is what is tested here, and the page cache survives it:
     * a memory file system, where the syncs cost nothing, lets many more kill
     * points fit in the time. */
    struct stat shm {
    };
    const bool use_shm =
        stat("/dev/shm", &shm) == 0 && S_ISDIR(shm.st_mode) && access("/dev/shm", W_OK) == 0;
    TempDir dir(use_shm ? "/dev/shm" : nullptr);
    const std::string path = dir.file("video.conf");
    ASSERT_TRUE(config_file_create(path.c_str()));
    ASSERT_TRUE(config_file_load(path.c_str()));
    TestChannel ch(saved_channel, set_a);
    ASSERT_TRUE(config_file_save_channel(&ch.channel, path.c_str()));

    int tried = 0, passed = 0, mid_write = 0, before_first_save = 0, saw_a = 0, saw_b = 0;
    /* Checks the file after a saver was killed; false (with a failure) when
     * it is broken. */
    auto check_after_kill = [&](int point, int completed) {
        tried++;
        before_first_save += completed == 0;
        /* Completed saves 1, 3, ... wrote B: the file holds the last completed
         * set or, when the kill came after the rename, the next one. */
        const ChannelValues last = completed % 2 == 1 ? set_b : set_a;
        const ChannelValues next = completed % 2 == 1 ? set_a : set_b;
        if (read_file(path).empty()) {
            ADD_FAILURE() << "empty file at kill point " << point;
            return false;
        }
        g_autoptr(GKeyFile) key_file = parse_file(path);
        if (key_file == nullptr)
            return false;
        bool ok = true;
        auto found = group_keys(key_file, group_of(saved_channel));
        if (found == written_group(last) || found == written_group(next)) {
            (found == written_group(set_a) ? saw_a : saw_b)++;
        } else {
            ok = false;
            ADD_FAILURE() << "kill point " << point << " after " << completed
                          << " saves left a mixed group";
        }
        for (int other : {0, 1, 3})
            if (group_keys(key_file, group_of(other)) != written_group(new_file_values)) {
                ok = false;
                ADD_FAILURE() << "kill point " << point << " changed " << group_of(other);
            }
        /* A kill inside a save may leave its temporary file behind; it is never
         * the configuration file itself. */
        for (const std::string &name : dir.entries()) {
            if (name == "video.conf")
                continue;
            mid_write++;
            unlink(dir.file(name).c_str());
        }
        passed += ok;
        return ok;
    };

    /* How long one save takes here, to spread the kills over it. Measured in
     * this process: a saver's reports can pile up in the pipe while the test
     * waits for the processor. */
    constexpr int calibration_saves = 20;
    const Clock::time_point t0 = Clock::now();
    for (int n = 0; n < calibration_saves; n++) {
        ch.set(n % 2 == 0 ? set_b : set_a);
        ASSERT_TRUE(config_file_save_channel(&ch.channel, path.c_str()));
    }
    const Clock::duration per_save = (Clock::now() - t0) / calibration_saves;
    /* Calibration ended on A, which the savers start from. */
    ASSERT_EQ(table_row(saved_channel), set_a);

    /* Up to 500 kill points, as many as fit in the budget: forking is slow on a
     * loaded machine. */
    constexpr int max_kill_points = 500;
    constexpr int delay_steps = 50;
    const Clock::time_point budget_end = Clock::now() + std::chrono::seconds(12);
    for (int i = 0; i < max_kill_points && Clock::now() < budget_end; i++) {
        Saver saver(path);
        ASSERT_TRUE(saver.started()) << "saver did not start";
        /* Let 0 to 2 saves complete, then spin for up to one save's time in
         * even steps, shifted a little each round. */
        ASSERT_TRUE(saver.wait_saves(i % 3)) << "saver stopped";
        spin_for(per_save * (i % delay_steps) / delay_steps +
                 per_save * (i / delay_steps) / (7 * delay_steps));
        ASSERT_TRUE(saver.kill_now()) << "saver ended on its own";
        if (!check_after_kill(i, saver.completed()))
            break;
    }

    std::cout << "in " << dir.path() << ": kill points tried " << tried << ", passed " << passed
              << "; killed in the first save after start " << before_first_save
              << ", temporary file left behind " << mid_write << ", file held A " << saw_a << ", B "
              << saw_b << " (one save about "
              << std::chrono::duration_cast<std::chrono::microseconds>(per_save).count() << " us)"
              << std::endl;
    RecordProperty("kill_points_tried", tried);
    RecordProperty("kill_points_passed", passed);
    EXPECT_EQ(passed, tried);
    /* Enough kills to mean something, and some of them inside a write. */
    EXPECT_GE(tried, 50);
    EXPECT_GT(mid_write, 0);
}

} // namespace
