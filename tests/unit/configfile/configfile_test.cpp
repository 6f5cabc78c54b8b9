/* The configuration file: default file, completion at load, change-only saves,
 * and the process-wide table behind the getters. The table outlives each test,
 * so every test first puts it into a known state with create or load. */
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config_test_support.h"
#include "decoder_types.h"

namespace
{

constexpr ChannelValues fixed_720p = {0, 5, 0, 1}; /* TVI 720p25, fixed, configured */
constexpr ChannelValues fixed_ntsc = {3, 9, 0, 1}; /* CVBS NTSC, fixed, configured */
constexpr ChannelValues auto_4k = {2, 10, 1, 0};   /* CVI 4k12, automatic */
constexpr ChannelValues auto_1440 = {1, 26, 1, 1}; /* AHD 1440p30, automatic, configured */

std::string group_text(int channel, const ChannelValues &v)
{
    std::string text = "[" + group_of(channel) + "]\n";
    for (const auto &[key, value] : written_group(v))
        text += key + "=" + value + "\n";
    return text;
}

/* A complete file with a different set of values for each channel. */
std::string distinct_file()
{
    return group_text(0, fixed_720p) + group_text(1, fixed_ntsc) + group_text(2, auto_4k) +
           group_text(3, auto_1440);
}

void expect_distinct_table()
{
    EXPECT_EQ(table_row(0), fixed_720p);
    EXPECT_EQ(table_row(1), fixed_ntsc);
    EXPECT_EQ(table_row(2), auto_4k);
    EXPECT_EQ(table_row(3), auto_1440);
}

void expect_groups(const std::string &path, const std::vector<std::string> &groups)
{
    g_autoptr(GKeyFile) key_file = parse_file(path);
    ASSERT_NE(key_file, nullptr);
    g_auto(GStrv) names = g_key_file_get_groups(key_file, nullptr);
    EXPECT_EQ(std::vector<std::string>(names, names + g_strv_length(names)), groups);
}

void expect_group(const std::string &path, int channel, const ChannelValues &v)
{
    g_autoptr(GKeyFile) key_file = parse_file(path);
    ASSERT_NE(key_file, nullptr);
    EXPECT_EQ(group_keys(key_file, group_of(channel)), written_group(v)) << group_of(channel);
}

/* Lets a write fail while reading still works, whoever runs the test: files
 * may grow to `bytes` only, and going past that fails with EFBIG instead of
 * raising SIGXFSZ. */
class FileSizeLimit
{
  public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &old_limit_);
        struct sigaction ignore {
        };
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignore, &old_action_);
        struct rlimit limit = old_limit_;
        limit.rlim_cur = bytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old_limit_);
        sigaction(SIGXFSZ, &old_action_, nullptr);
    }

  private:
    struct rlimit old_limit_ {
    };
    struct sigaction old_action_ {
    };
};

class Umask
{
  public:
    explicit Umask(mode_t mask) : old_(umask(mask)) {}
    ~Umask() { umask(old_); }

  private:
    mode_t old_;
};

class ConfigFile : public ::testing::Test
{
  protected:
    TempDir dir;
    std::string path = dir.file("video.conf");
};

TEST_F(ConfigFile, MissingFileFailsLoadAndCreateWritesTheDefaults)
{
    write_file(dir.file("other.conf"), distinct_file());
    ASSERT_TRUE(config_file_load(dir.file("other.conf").c_str()));
    expect_distinct_table();

    EXPECT_FALSE(config_file_load(path.c_str()));
    expect_distinct_table();

    EXPECT_TRUE(config_file_create(path.c_str()));
    expect_groups(path, {"Channel 0", "Channel 1", "Channel 2", "Channel 3"});
    for (int i = 0; i < MAX_SOURCES; i++) {
        expect_group(path, i, new_file_values);
        /* The table starts from PAL over CVBS, not from what the file says. */
        EXPECT_EQ(table_row(i), new_table_values) << i;
    }
}

TEST_F(ConfigFile, CompleteFileIsReadWithoutRewriting)
{
    const std::string text = "# cameras on the east side\n" + distinct_file();
    write_file(path, text);
    struct stat before = stat_of(path);
    ASSERT_TRUE(config_file_load(path.c_str()));
    expect_distinct_table();
    EXPECT_TRUE(same_file_version(before, stat_of(path)));
    EXPECT_EQ(read_file(path), text);
}

TEST_F(ConfigFile, LoadCompletesMissingGroupsAndLeavesThePresentOneAlone)
{
    write_file(path, group_text(1, fixed_720p));
    ASSERT_TRUE(config_file_load(path.c_str()));

    const ChannelValues completed = {3, 8, 1, 0};
    for (int i : {0, 2, 3}) {
        expect_group(path, i, completed);
        EXPECT_EQ(table_row(i), completed) << i;
    }
    expect_group(path, 1, fixed_720p);
    EXPECT_EQ(table_row(1), fixed_720p);

    /* Once complete, a second load has nothing to add. */
    struct stat before = stat_of(path);
    ASSERT_TRUE(config_file_load(path.c_str()));
    EXPECT_TRUE(same_file_version(before, stat_of(path)));
}

TEST_F(ConfigFile, LoadTakesValuesAsReadAndReplacesWhatIsUnreadable)
{
    const std::string text = "# kept until the first rewrite\n"
                             "[Channel 0]\nstandard=abc\nresolution=2\nauto=false\n"
                             "configured=false\n"
                             "[Channel 1]\nstandard=1\nresolution=99\nauto=true\n"
                             "configured=true\n"
                             "[Channel 2]\nstandard=2\nresolution=4\nauto=false\n"
                             "[Channel 3]\nstandard=0\nresolution=3\n"
                             "[Extra]\nowner=lab\n";
    write_file(path, text);
    ASSERT_TRUE(config_file_load(path.c_str()));

    /* A standard that is not an integer counts as missing. */
    EXPECT_EQ(table_row(0), (ChannelValues{3, 2, 0, 0}));
    expect_group(path, 0, {3, 2, 0, 0});
    /* No range test: 99 is taken as it is. */
    EXPECT_EQ(table_row(1), (ChannelValues{1, 99, 1, 1}));
    expect_group(path, 1, {1, 99, 1, 1});
    /* A fixed channel without a word on it counts as configured... */
    EXPECT_EQ(table_row(2), (ChannelValues{2, 4, 0, 1}));
    expect_group(path, 2, {2, 4, 0, 1});
    /* ...an automatic one (auto itself defaulted) as not configured. */
    EXPECT_EQ(table_row(3), (ChannelValues{0, 3, 1, 0}));
    expect_group(path, 3, {0, 3, 1, 0});

    std::string rewritten = read_file(path);
    EXPECT_EQ(rewritten.find('#'), std::string::npos) << rewritten;
    EXPECT_NE(rewritten.find("owner=lab"), std::string::npos) << rewritten;
}

TEST_F(ConfigFile, SaveWritesOnlyWhenTheChannelChanged)
{
    const std::string text = "# comment\n" + distinct_file() + "[Extra]\nowner=lab\n";
    write_file(path, text);
    ASSERT_TRUE(config_file_load(path.c_str()));

    TestChannel ch2(2, auto_4k);
    struct stat before = stat_of(path);
    EXPECT_TRUE(config_file_save_channel(&ch2.channel, path.c_str()));
    EXPECT_TRUE(same_file_version(before, stat_of(path)));
    EXPECT_EQ(read_file(path), text);

    /* Any one of the four values counts as a change. */
    const ChannelValues changes[] = {
        {auto_4k.standard + 1, auto_4k.resolution, auto_4k.auto_mode, auto_4k.configured},
        {auto_4k.standard + 1, VT_1440P25, auto_4k.auto_mode, auto_4k.configured},
        {auto_4k.standard + 1, VT_1440P25, 0, auto_4k.configured},
        {auto_4k.standard + 1, VT_1440P25, 0, 1},
    };
    for (const ChannelValues &v : changes) {
        before = stat_of(path);
        ch2.set(v);
        EXPECT_TRUE(config_file_save_channel(&ch2.channel, path.c_str()));
        EXPECT_FALSE(same_file_version(before, stat_of(path))) << v;
        EXPECT_EQ(table_row(2), v);
        expect_group(path, 2, v);
    }

    /* The other channels, the foreign group and the table rows stay; the
     * comment went with the first rewrite. */
    expect_group(path, 0, fixed_720p);
    expect_group(path, 1, fixed_ntsc);
    expect_group(path, 3, auto_1440);
    EXPECT_EQ(table_row(0), fixed_720p);
    EXPECT_EQ(table_row(3), auto_1440);
    std::string rewritten = read_file(path);
    EXPECT_EQ(rewritten.find('#'), std::string::npos);
    EXPECT_NE(rewritten.find("owner=lab"), std::string::npos);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
}

TEST_F(ConfigFile, SaveAfterTheFileWasDeletedWritesNothing)
{
    ASSERT_TRUE(config_file_create(path.c_str()));
    ASSERT_TRUE(config_file_load(path.c_str()));
    ASSERT_EQ(unlink(path.c_str()), 0);

    TestChannel ch1(1, fixed_ntsc);
    EXPECT_FALSE(config_file_save_channel(&ch1.channel, path.c_str()));
    EXPECT_TRUE(dir.entries().empty());
    /* The table only follows what was written. */
    EXPECT_EQ(table_row(1), new_file_values);
    EXPECT_FALSE(config_file_save_channel(&ch1.channel, path.c_str()));
    EXPECT_TRUE(dir.entries().empty());
}

TEST_F(ConfigFile, FailedWriteIsNotRetriedForTheSameValues)
{
    write_file(path, distinct_file());
    ASSERT_TRUE(config_file_load(path.c_str()));
    const std::string text = read_file(path);
    struct stat before = stat_of(path);

    TestChannel ch0(0, fixed_ntsc);
    {
        FileSizeLimit limit(16);
        EXPECT_FALSE(config_file_save_channel(&ch0.channel, path.c_str()));
    }
    EXPECT_TRUE(same_file_version(before, stat_of(path)));
    EXPECT_EQ(read_file(path), text);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"video.conf"});
    /* The row records the request anyway... */
    EXPECT_EQ(table_row(0), fixed_ntsc);

    /* ...so the same values are not written again, though writing works now. */
    EXPECT_TRUE(config_file_save_channel(&ch0.channel, path.c_str()));
    EXPECT_TRUE(same_file_version(before, stat_of(path)));
    expect_group(path, 0, fixed_720p);

    /* A later change writes the file again. */
    ch0.set(auto_1440);
    EXPECT_TRUE(config_file_save_channel(&ch0.channel, path.c_str()));
    expect_group(path, 0, auto_1440);
}

TEST_F(ConfigFile, EveryWriteHasMode0644WhateverTheUmask)
{
    Umask mask(0077);
    auto mode_of = [&] { return stat_of(path).st_mode & 07777; };

    ASSERT_TRUE(config_file_create(path.c_str()));
    EXPECT_EQ(mode_of(), 0644u);

    write_file(path, group_text(2, auto_4k));
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    ASSERT_TRUE(config_file_load(path.c_str()));
    EXPECT_EQ(mode_of(), 0644u);

    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    TestChannel ch3(3, fixed_720p);
    ASSERT_TRUE(config_file_save_channel(&ch3.channel, path.c_str()));
    EXPECT_EQ(mode_of(), 0644u);
}

TEST(ConfigFileDeathTest, GettersAssertOnChannelOutOfRange)
{
    EXPECT_DEATH(config_file_get_video_type(MAX_SOURCES),
                 "decoders/configfile\\.cpp:.*config_file_get_video_type.*channel < MAX_SOURCES");
    EXPECT_DEATH(config_file_get_video_standard(MAX_SOURCES),
                 "decoders/configfile\\.cpp:.*config_file_get_video_standard.*"
                 "channel < MAX_SOURCES");
    EXPECT_DEATH(config_file_get_auto(MAX_SOURCES),
                 "decoders/configfile\\.cpp:.*config_file_get_auto.*channel < MAX_SOURCES");
    EXPECT_DEATH(config_file_get_channel_configured(UINT32_MAX),
                 "decoders/configfile\\.cpp:.*config_file_get_channel_configured.*"
                 "channel < MAX_SOURCES");
}

} // namespace
