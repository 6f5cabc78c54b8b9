/* The configuration file and the file replacement under it. The table behind
 * the getters outlives each test. */
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "configfile.h"
#include "confutils.h"
#include "decoder.h"
#include "tp28xx.h"

namespace
{

struct TempDir { /* under base or $TMPDIR, removed with everything in it */
    std::string path;
    explicit TempDir(const char *base = nullptr)
        : path(std::string(base ? base : g_get_tmp_dir()) + "/vinmand-conf-XXXXXX")
    {
        if (g_mkdtemp(path.data()) == nullptr)
            ADD_FAILURE() << "cannot make " << path;
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string file(const std::string &name) const { return path + "/" + name; }
    std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(path))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
};

struct ChannelValues {
    int32_t standard, resolution;
    uint8_t auto_mode, configured;
    bool operator==(const ChannelValues &) const = default;
};
using Table = std::array<ChannelValues, MAX_SOURCES>;

bool save_channel(int32_t index, const ChannelValues &v, const std::string &path)
{
    DetectState state{};
    state.resolution = v.resolution;
    Channel channel{};
    channel.index = index;
    channel.chip_state = &state;
    channel.standard = v.standard;
    channel.auto_mode = v.auto_mode;
    channel.configured = v.configured;
    return config_file_save_channel(&channel, path.c_str());
}

Table table() /* the rows behind the getters */
{
    Table t;
    for (uint32_t i = 0; i < MAX_SOURCES; i++)
        t[i] = {config_file_get_video_standard(i), config_file_get_video_type(i),
                config_file_get_auto(i), config_file_get_channel_configured(i)};
    return t;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

struct stat stat_of(const std::string &path)
{
    struct stat st {
    };
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

std::string group_text(int channel, const ChannelValues &v)
{
    return "[Channel " + std::to_string(channel) + "]\nstandard=" + std::to_string(v.standard) +
           "\nresolution=" + std::to_string(v.resolution) +
           "\nauto=" + (v.auto_mode ? "true" : "false") +
           "\nconfigured=" + (v.configured ? "true" : "false") + "\n";
}

std::string text_of(const Table &t)
{
    std::string text;
    for (int i = 0; i < MAX_SOURCES; i++)
        text += group_text(i, t[i]);
    return text;
}

/* The same for key-file texts with the same groups, keys and values in order. */
std::string normalized(const std::string &text)
{
    g_autoptr(GKeyFile) key_file = g_key_file_new();
    if (!g_key_file_load_from_data(key_file, text.data(), text.size(), G_KEY_FILE_NONE, nullptr))
        return "(does not parse)";
    g_autofree gchar *data = g_key_file_to_data(key_file, nullptr, nullptr);
    return data;
}

/* What a new file holds for every channel, and what the table holds after it. */
constexpr Table new_file = {{{5, 31, 1, 0}, {5, 31, 1, 0}, {5, 31, 1, 0}, {5, 31, 1, 0}}};
constexpr Table new_table = {{{3, 8, 1, 0}, {3, 8, 1, 0}, {3, 8, 1, 0}, {3, 8, 1, 0}}};

/* TVI 720p25 fixed; CVBS NTSC fixed; CVI 4k12 automatic; AHD 1440p30 automatic, configured. */
constexpr Table distinct = {{{0, 5, 0, 1}, {3, 9, 0, 1}, {2, 10, 1, 0}, {1, 26, 1, 1}}};

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

    /* The file differs from the table on purpose. */
    void expect_default_file()
    {
        EXPECT_EQ(normalized(read_file(path)), normalized(text_of(new_file)));
        EXPECT_EQ(stat_of(path).st_mode & 07777, 0644u);
        EXPECT_EQ(table(), new_table);
        EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
    }

    /* Runs body in a child as nobody, able to write the directory or not. */
    void run_unprivileged(bool dir_writable, const std::function<void()> &body)
    {
        chmod(dir.path.c_str(), dir_writable ? 0777 : 0555);
        fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(20);
            if ((geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) ||
                (access(dir.path.c_str(), W_OK) == 0) != dir_writable)
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

TEST_F(ConfigFile, FilesThatCannotBeLoaded)
{
    /* Random bytes (the first never text) and no file: load fails, table kept. */
    std::independent_bits_engine<std::mt19937, 8, unsigned> random{7};
    std::string bytes(10 << 20, '\xff');
    std::generate(bytes.begin() + 1, bytes.end(), [&] { return char(random()); });
    load_distinct();
    write_file(path, bytes);
    for (int pass = 0; pass < 2; pass++) {
        EXPECT_FALSE(config_file_load(path.c_str()));
        EXPECT_EQ(table(), distinct);
        unlink(path.c_str());
    }
    const mode_t old_mask = umask(0077);
    EXPECT_TRUE(config_file_create(path.c_str()));
    umask(old_mask);
    expect_default_file();
    /* A save over an unparsable file keeps only its own channel. */
    write_file(path, bytes.substr(0, 100));
    EXPECT_TRUE(save_channel(3, {1, 4, 0, 1}, path));
    EXPECT_EQ(normalized(read_file(path)), normalized(group_text(3, {1, 4, 0, 1})));

    /* A directory: create fails but resets the table; a failed save is recorded. */
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    load_distinct();
    EXPECT_FALSE(config_file_load(path.c_str()));
    EXPECT_EQ(table(), distinct);
    EXPECT_FALSE(config_file_create(path.c_str()));
    EXPECT_EQ(table(), new_table);
    g_autoptr(GError) error = nullptr; /* the file layer says why */
    EXPECT_FALSE(confutils_set_file_contents_with_sync_mode(path.c_str(), "k", -1, 0644, &error));
    EXPECT_TRUE(error != nullptr && error->domain == G_FILE_ERROR);
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
    /* A non-integer is missing; "configured" defaults to the opposite of "auto". */
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
    Table expected = distinct; /* each of the four values on its own is a change */
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

    /* Deleted behind the daemon's back: nothing written, nothing recorded. */
    ASSERT_TRUE(config_file_create(path.c_str()) && config_file_load(path.c_str()));
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

    const std::string partial = dir.file("partial.conf"),
                      partial_text = "[Channel 1]\nresolution=4\n";
    write_file(path, text_of(distinct));
    write_file(partial, partial_text);
    run_unprivileged(false, [&] {
        EXPECT_TRUE(config_file_load(path.c_str())) << "a complete file needs no write-back";
        EXPECT_EQ(table(), distinct);
        /* One that needs completing: false, the table filled all the same. */
        EXPECT_FALSE(config_file_load(partial.c_str()));
        EXPECT_EQ(table(), (Table{new_table[0], {3, 4, 1, 0}, new_table[2], new_table[3]}));
        EXPECT_FALSE(config_file_create(path.c_str()));
    });
    EXPECT_EQ(read_file(path), text_of(distinct));
    EXPECT_EQ(read_file(partial), partial_text);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"partial.conf", "video.conf"}));
}

using Clock = std::chrono::steady_clock;

/* A killed save leaves all old or all new values: these differ in every key. */
constexpr ChannelValues set_a = {0, 2, 0, 1}, set_b = {3, 8, 1, 0};

TEST(ConfigFileCrash, KilledSaverLeavesOldOrNewValues)
{
    /* On a memory file system the syncs cost nothing and more kill points fit. */
    TempDir dir(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : nullptr);
    const std::string path = dir.file("video.conf");
    ASSERT_TRUE(config_file_create(path.c_str()) && config_file_load(path.c_str()));
    const Clock::time_point t0 = Clock::now(); /* ends on A */
    for (int n = 0; n < 20; n++)
        ASSERT_TRUE(save_channel(2, n % 2 == 0 ? set_b : set_a, path));
    const Clock::duration per_save = (Clock::now() - t0) / 20;

    const std::string with_a = normalized(text_of({new_file[0], new_file[1], set_a, new_file[3]}));
    const std::string with_b = normalized(text_of({new_file[0], new_file[1], set_b, new_file[3]}));
    constexpr int kill_points = 300;
    int left_temporary = 0;
    for (int i = 0; i < kill_points && !HasFailure(); i++) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        const pid_t pid = fork();
        if (pid == 0) { /* two warm-up saves, a sign, then B, A, B... until killed */
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            alarm(30);
            if (save_channel(2, set_b, path) && save_channel(2, set_a, path) &&
                write(fds[1], "S", 1) == 1)
                for (unsigned n = 0; save_channel(2, n % 2 == 0 ? set_b : set_a, path); n++) {
                }
            _exit(3);
        }
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
        for (const std::string &name : dir.entries()) /* a temporary file may stay */
            left_temporary += name != "video.conf" && unlink(dir.file(name).c_str()) == 0;
    }
    std::cout << "kill points tried " << kill_points << ", temporary file left " << left_temporary
              << ", one save " << per_save / std::chrono::microseconds(1) << " us\n";
    EXPECT_GT(left_temporary, 0) << "no kill landed inside a write";
}

} // namespace
