/* The configuration file: default file, completion at load, change-only saves,
 * and files it cannot use. The table behind the getters outlives each test, so
 * every test first puts it into a known state. */
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#include "config_test_support.h"

namespace
{

/* TVI 720p25 fixed; CVBS NTSC fixed; CVI 4k12 automatic; AHD 1440p30
 * automatic and configured. */
constexpr Table distinct = {{{0, 5, 0, 1}, {3, 9, 0, 1}, {2, 10, 1, 0}, {1, 26, 1, 1}}};

/* A rewrite by rename changes the inode and the modification time. */
std::tuple<ino_t, time_t, long> version_of(const std::string &path)
{
    const struct stat st = stat_of(path);
    return {st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
}

class ConfigFile : public ::testing::Test
{
  protected:
    TempDir dir;
    std::string path = dir.file("video.conf");

    void load_distinct()
    {
        write_file(dir.file("side.conf"), text_of(distinct));
        ASSERT_TRUE(config_file_load(dir.file("side.conf").c_str()));
        ASSERT_EQ(unlink(dir.file("side.conf").c_str()), 0);
    }

    void expect_default_file()
    {
        EXPECT_EQ(normalized(read_file(path)), normalized(text_of(new_file)));
        EXPECT_EQ(stat_of(path).st_mode & 07777, 0644u);
        EXPECT_EQ(table(), new_table);
        EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
    }

    /* Runs body in a child without privileges over files (root becomes
     * nobody) that may write the directory only when dir_writable. */
    void run_unprivileged(bool dir_writable, const std::function<void()> &body)
    {
        fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(20);
            const char *d = dir.path.c_str();
            const bool ready = geteuid() == 0 ? chmod(d, dir_writable ? 0777 : 0755) == 0 &&
                                                    setgid(65534) == 0 && setuid(65534) == 0
                                              : chmod(d, dir_writable ? 0700 : 0500) == 0;
            if (!ready || (access(d, W_OK) == 0) != dir_writable)
                _exit(77);
            body();
            fflush(stdout);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        chmod(dir.path.c_str(), 0700);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
            GTEST_SKIP() << "cannot take the privileges away from a child";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    }
};

/* Load fails and leaves the table alone; create writes the default file (mode
 * 0644 whatever the umask) while the table gets other defaults. */
TEST_F(ConfigFile, FilesThatCannotBeLoaded)
{
    auto random_bytes = [&](size_t size) {
        std::independent_bits_engine<std::mt19937, 8, unsigned> random{uint32_t(size)};
        std::string bytes(size, '\xff'); /* the first byte is never text */
        std::generate(bytes.begin() + 1, bytes.end(), [&] { return char(random()); });
        write_file(path, bytes);
    };
    for (size_t size : {0, 10 << 20}) { /* no file; 10 MB of random bytes */
        SCOPED_TRACE(size);
        load_distinct();
        if (size)
            random_bytes(size);
        EXPECT_FALSE(config_file_load(path.c_str()));
        EXPECT_EQ(table(), distinct);
        const mode_t old_mask = umask(0077);
        EXPECT_TRUE(config_file_create(path.c_str()));
        umask(old_mask);
        expect_default_file();
        /* A save over an unparsable file keeps only its own channel. */
        random_bytes(100);
        EXPECT_TRUE(save_channel(3, {1, 4, 0, 1}, path));
        EXPECT_EQ(normalized(read_file(path)), normalized(group_text(3, {1, 4, 0, 1})));
        ASSERT_EQ(unlink(path.c_str()), 0);
    }

    /* A directory cannot be replaced: create fails but still resets the table,
     * and a failed save records its values all the same, so they are not
     * retried. */
    load_distinct();
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_FALSE(config_file_load(path.c_str()));
    EXPECT_EQ(table(), distinct);
    EXPECT_FALSE(config_file_create(path.c_str()));
    EXPECT_EQ(table(), new_table);
    EXPECT_FALSE(save_channel(1, distinct[1], path));
    EXPECT_TRUE(save_channel(1, distinct[1], path));
    EXPECT_TRUE(S_ISDIR(stat_of(path).st_mode));
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
}

TEST_F(ConfigFile, LoadCompletesTheFileAndTakesValuesAsRead)
{
    /* One group: the others are added, that one is left as it was. */
    write_file(path, group_text(1, distinct[0]));
    ASSERT_TRUE(config_file_load(path.c_str()));
    const ChannelValues completed = {3, 8, 1, 0};
    EXPECT_EQ(normalized(read_file(path)),
              normalized(group_text(1, distinct[0]) + group_text(0, completed) +
                         group_text(2, completed) + group_text(3, completed)));
    EXPECT_EQ(table(), (Table{completed, distinct[0], completed, completed}));
    const auto before = version_of(path);
    ASSERT_TRUE(config_file_load(path.c_str()));
    EXPECT_EQ(version_of(path), before) << "a complete file is not rewritten";

    write_file(path, "# gone at the first rewrite\n"
                     "[Channel 0]\nstandard=abc\nresolution=2\nauto=false\nconfigured=false\n"
                     "[Channel 1]\nstandard=1\nresolution=99\nauto=true\nconfigured=true\n"
                     "[Channel 2]\nstandard=2\nresolution=4\nauto=false\n"
                     "[Channel 3]\nstandard=0\nresolution=3\n"
                     "[Extra]\nowner=lab\n");
    ASSERT_TRUE(config_file_load(path.c_str()));
    /* A non-integer standard counts as missing; 99 is taken as it is;
     * "configured" defaults to the opposite of "auto", read or defaulted. */
    const Table expected = {{{3, 2, 0, 0}, {1, 99, 1, 1}, {2, 4, 0, 1}, {0, 3, 1, 0}}};
    EXPECT_EQ(table(), expected);
    EXPECT_EQ(normalized(read_file(path)), normalized(text_of(expected) + "[Extra]\nowner=lab\n"));
    EXPECT_EQ(read_file(path).find('#'), std::string::npos) << read_file(path);
}

TEST_F(ConfigFile, SaveWritesOnlyWhenTheChannelChanged)
{
    write_file(path, text_of(distinct));
    const auto loaded = version_of(path);
    ASSERT_TRUE(config_file_load(path.c_str()));
    EXPECT_TRUE(save_channel(2, distinct[2], path));
    EXPECT_EQ(version_of(path), loaded);
    /* Each of the four values on its own counts as a change. */
    Table expected = distinct;
    for (const ChannelValues &v : {ChannelValues{3, 10, 1, 0}, ChannelValues{3, 25, 1, 0},
                                   ChannelValues{3, 25, 0, 0}, ChannelValues{3, 25, 0, 1}}) {
        const auto before = version_of(path);
        EXPECT_TRUE(save_channel(2, v, path));
        EXPECT_NE(version_of(path), before) << v.resolution;
        expected[2] = v;
        EXPECT_EQ(table(), expected);
        EXPECT_EQ(normalized(read_file(path)), normalized(text_of(expected)));
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});

    /* Deleted behind the daemon's back: nothing is written, and the values are
     * not recorded either, so the next save fails the same way. */
    ASSERT_TRUE(config_file_create(path.c_str()));
    ASSERT_TRUE(config_file_load(path.c_str()));
    ASSERT_EQ(unlink(path.c_str()), 0);
    for (int attempt = 0; attempt < 2; attempt++) {
        EXPECT_FALSE(save_channel(1, distinct[1], path));
        EXPECT_TRUE(dir.entries().empty());
        EXPECT_EQ(table(), new_file);
    }
}

TEST_F(ConfigFile, UnreadableFileAndReadOnlyDirectory)
{
    load_distinct();
    write_file(path, "[Channel 0]\nstandard=1\n");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    run_unprivileged(true, [&] {
        EXPECT_FALSE(config_file_load(path.c_str()));
        EXPECT_EQ(table(), distinct);
        EXPECT_TRUE(config_file_create(path.c_str()));
        expect_default_file();
    });

    const std::string partial = dir.file("partial.conf");
    const std::string partial_text = "[Channel 1]\nstandard=0\nresolution=4\n";
    write_file(path, text_of(distinct));
    write_file(partial, partial_text);
    run_unprivileged(false, [&] {
        EXPECT_TRUE(config_file_load(path.c_str())) << "a complete file needs no write-back";
        EXPECT_EQ(table(), distinct);
        /* One that needs completing can't be written back: false, with what
         * was read and the defaults in the table all the same. */
        EXPECT_FALSE(config_file_load(partial.c_str()));
        EXPECT_EQ(table(), (Table{new_table[0], {0, 4, 1, 0}, new_table[2], new_table[3]}));
        EXPECT_FALSE(config_file_create(path.c_str()));
    });
    EXPECT_EQ(read_file(path), text_of(distinct));
    EXPECT_EQ(read_file(partial), partial_text);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"partial.conf", "video.conf"}));
}

} // namespace
