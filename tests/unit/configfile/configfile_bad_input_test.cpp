/* The configuration file module facing files it cannot use: unreadable,
 * unparsable, huge, a directory in its place, a directory it cannot write.
 * Load reports false and leaves the table alone; create replaces what can be
 * replaced; nothing crashes or hangs. */
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config_test_support.h"

namespace
{

constexpr ChannelValues known = {2, 11, 0, 1};

class ConfigFileBadInput : public ::testing::Test
{
  protected:
    TempDir dir;
    std::string path = dir.file("video.conf");

    /* Puts a recognisable state into the table, loaded from a side file. */
    void load_known_table()
    {
        std::string text;
        for (int i = 0; i < MAX_SOURCES; i++)
            text += "[Channel " + std::to_string(i) + "]\nstandard=2\nresolution=11\n" +
                    "auto=false\nconfigured=true\n";
        const std::string side = dir.file("known.conf");
        write_file(side, text);
        ASSERT_TRUE(config_file_load(side.c_str()));
        ASSERT_EQ(unlink(side.c_str()), 0);
    }

    void expect_table(const ChannelValues &v)
    {
        for (uint32_t i = 0; i < MAX_SOURCES; i++)
            EXPECT_EQ(table_row(i), v) << "channel " << i;
    }

    /* Create replaced the file with the default one. */
    void expect_default_file()
    {
        for (int i = 0; i < MAX_SOURCES; i++) {
            g_autoptr(GKeyFile) key_file = parse_file(path);
            ASSERT_NE(key_file, nullptr);
            EXPECT_EQ(group_keys(key_file, group_of(i)), written_group(new_file_values));
        }
        EXPECT_EQ(stat_of(path).st_mode & 07777, 0644u);
        expect_table(new_table_values);
        EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
    }

    void garbage_file(size_t size, uint32_t seed)
    {
        std::mt19937 random(seed);
        std::string bytes(size, '\0');
        for (char &c : bytes)
            c = static_cast<char>(random() & 0xff);
        /* Make sure it holds what a key-file reader likes least. */
        bytes[0] = '\xff';
        bytes[1] = '\0';
        write_file(path, bytes);
    }
};

TEST_F(ConfigFileBadInput, UnreadableFile)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads a mode 000 file regardless of its permissions";
    write_file(path, "[Channel 0]\nstandard=1\n");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    load_known_table();

    EXPECT_FALSE(config_file_load(path.c_str()));
    expect_table(known);
    EXPECT_TRUE(config_file_create(path.c_str()));
    expect_default_file();
}

TEST_F(ConfigFileBadInput, RandomBytes)
{
    garbage_file(4096, 20240611);
    load_known_table();
    EXPECT_FALSE(config_file_load(path.c_str()));
    expect_table(known);
    EXPECT_TRUE(config_file_create(path.c_str()));
    expect_default_file();
}

TEST_F(ConfigFileBadInput, SaveOverAnUnparsableFileKeepsOnlyThatChannel)
{
    garbage_file(4096, 99);
    load_known_table();
    TestChannel ch(3, {1, 4, 0, 1});
    EXPECT_TRUE(config_file_save_channel(&ch.channel, path.c_str()));
    EXPECT_EQ(table_row(3), (ChannelValues{1, 4, 0, 1}));

    g_autoptr(GKeyFile) key_file = parse_file(path);
    ASSERT_NE(key_file, nullptr);
    g_auto(GStrv) groups = g_key_file_get_groups(key_file, nullptr);
    EXPECT_EQ(std::vector<std::string>(groups, groups + g_strv_length(groups)),
              std::vector<std::string>{"Channel 3"});
    EXPECT_EQ(group_keys(key_file, "Channel 3"), written_group({1, 4, 0, 1}));
}

TEST_F(ConfigFileBadInput, TenMegabytesOfGarbage)
{
    garbage_file(10 << 20, 7);
    load_known_table();
    EXPECT_FALSE(config_file_load(path.c_str()));
    expect_table(known);
    EXPECT_TRUE(config_file_create(path.c_str()));
    expect_default_file();
}

TEST_F(ConfigFileBadInput, TenMegabyteValueIsKeptThroughCompletion)
{
    const std::string blob(10 << 20, 'x');
    write_file(path, "[Notes]\nblob=" + blob + "\n[Channel 2]\nstandard=0\nresolution=2\n" +
                         "auto=false\nconfigured=true\n");
    ASSERT_TRUE(config_file_load(path.c_str()));
    EXPECT_EQ(table_row(2), (ChannelValues{0, 2, 0, 1}));
    EXPECT_EQ(table_row(0), (ChannelValues{3, 8, 1, 0}));

    g_autoptr(GKeyFile) key_file = parse_file(path);
    ASSERT_NE(key_file, nullptr);
    g_autofree gchar *kept = g_key_file_get_value(key_file, "Notes", "blob", nullptr);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(strlen(kept), blob.size());
    EXPECT_EQ(group_keys(key_file, "Channel 3"), written_group({3, 8, 1, 0}));
}

TEST_F(ConfigFileBadInput, DirectoryInPlaceOfTheFile)
{
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    load_known_table();

    EXPECT_FALSE(config_file_load(path.c_str()));
    expect_table(known);

    /* A directory cannot be replaced: create fails but still resets the table,
     * and no temporary file stays behind. */
    EXPECT_FALSE(config_file_create(path.c_str()));
    expect_table(new_table_values);
    TestChannel ch(1, known);
    EXPECT_FALSE(config_file_save_channel(&ch.channel, path.c_str()));

    struct stat st = stat_of(path);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
}

/* What a child with a read-only view of the directory saw. */
struct ReadOnlyReport {
    int setup_error; /* errno of the step that failed, 0 when the view was set up */
    int load_complete;
    ChannelValues after_complete[MAX_SOURCES];
    int load_partial;
    ChannelValues after_partial[MAX_SOURCES];
    int create;
};

/* Makes the directory read-only for this process alone: a read-only bind
 * mount in a private mount namespace for root (whom permissions don't stop),
 * the permission bits otherwise. */
int make_read_only(const std::string &dir)
{
    if (geteuid() != 0)
        return chmod(dir.c_str(), 0555) == 0 ? 0 : errno;
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, dir.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
        return errno;
    return 0;
}

TEST_F(ConfigFileBadInput, ReadOnlyDirectory)
{
    const std::string complete = dir.file("video.conf");
    const std::string partial = dir.file("partial.conf");
    std::string complete_text;
    for (int i = 0; i < MAX_SOURCES; i++)
        complete_text += "[Channel " + std::to_string(i) +
                         "]\nstandard=1\nresolution=" + std::to_string(2 + i) +
                         "\nauto=false\nconfigured=false\n";
    const std::string partial_text = "[Channel 1]\nstandard=0\nresolution=4\n";
    write_file(complete, complete_text);
    write_file(partial, partial_text);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(20); /* a hang ends as a signal the parent reports */
        close(fds[0]);
        ReadOnlyReport report{};
        report.setup_error = make_read_only(dir.path());
        if (report.setup_error == 0) {
            report.load_complete = config_file_load(complete.c_str());
            for (uint32_t i = 0; i < MAX_SOURCES; i++)
                report.after_complete[i] = table_row(i);
            report.load_partial = config_file_load(partial.c_str());
            for (uint32_t i = 0; i < MAX_SOURCES; i++)
                report.after_partial[i] = table_row(i);
            report.create = config_file_create(complete.c_str());
        }
        ssize_t n = write(fds[1], &report, sizeof report);
        _exit(n == sizeof report ? 0 : 1);
    }
    close(fds[1]);
    ReadOnlyReport report{};
    ssize_t got = read(fds[0], &report, sizeof report);
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    chmod(dir.path().c_str(), 0700);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    ASSERT_EQ(got, static_cast<ssize_t>(sizeof report));
    if (report.setup_error != 0)
        GTEST_SKIP() << "cannot make a read-only view of the directory: "
                     << strerror(report.setup_error);

    /* A complete file needs no write-back. */
    EXPECT_TRUE(report.load_complete);
    for (int i = 0; i < MAX_SOURCES; i++)
        EXPECT_EQ(report.after_complete[i], (ChannelValues{1, 2 + i, 0, 0})) << i;
    /* A file that needs completing can't be written back: false, with the
     * values read and the defaults in the table all the same. */
    EXPECT_FALSE(report.load_partial);
    EXPECT_EQ(report.after_partial[0], (ChannelValues{3, 8, 1, 0}));
    EXPECT_EQ(report.after_partial[1], (ChannelValues{0, 4, 1, 0}));
    EXPECT_FALSE(report.create);

    EXPECT_EQ(read_file(complete), complete_text);
    EXPECT_EQ(read_file(partial), partial_text);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"partial.conf", "video.conf"}));
}

} // namespace
