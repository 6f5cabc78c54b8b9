/* Helpers shared by the configuration file tests: a private directory per test,
 * channel records to save, and readers for what ended up on disk. */
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <glib.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "configfile.h"
#include "decoder.h"
#include "tp28xx.h"

/* A fresh directory under $TMPDIR, removed with everything in it at the end. */
class TempDir
{
  public:
    /* Under base when given (it must exist), else under $TMPDIR. */
    explicit TempDir(const char *base = nullptr)
    {
        std::string tmpl = std::string(base ? base : g_get_tmp_dir()) + "/vinmand-conf-XXXXXX";
        if (g_mkdtemp(tmpl.data()) == nullptr)
            ADD_FAILURE() << "cannot make a temporary directory " << tmpl << ": "
                          << g_strerror(errno);
        else
            path_ = tmpl;
    }
    ~TempDir()
    {
        if (path_.empty())
            return;
        /* Tests may leave the directory read-only or a file unreadable. */
        chmod(path_.c_str(), 0700);
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    /* Every entry of the directory, sorted. */
    std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        std::error_code ec;
        for (const auto &entry : std::filesystem::directory_iterator(path_, ec))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string path_;
};

/* The values one channel is saved with. */
struct ChannelValues {
    int32_t standard;
    int32_t resolution;
    uint8_t auto_mode;
    uint8_t configured;
};

/* A channel record with the detection record the save reads the resolution from. */
struct TestChannel {
    Channel channel{};
    DetectState state{};

    TestChannel(int32_t index, const ChannelValues &v)
    {
        channel.index = index;
        channel.chip_state = &state;
        set(v);
    }
    void set(const ChannelValues &v)
    {
        channel.standard = v.standard;
        state.resolution = v.resolution;
        channel.auto_mode = v.auto_mode;
        channel.configured = v.configured;
    }
};

inline ChannelValues table_row(uint32_t channel)
{
    return {config_file_get_video_standard(channel), config_file_get_video_type(channel),
            config_file_get_auto(channel), config_file_get_channel_configured(channel)};
}

inline bool operator==(const ChannelValues &a, const ChannelValues &b)
{
    return a.standard == b.standard && a.resolution == b.resolution && a.auto_mode == b.auto_mode &&
           a.configured == b.configured;
}

inline std::ostream &operator<<(std::ostream &os, const ChannelValues &v)
{
    return os << "{standard " << v.standard << ", resolution " << v.resolution << ", auto "
              << int(v.auto_mode) << ", configured " << int(v.configured) << "}";
}

inline std::string read_file(const std::string &path)
{
    gchar *data = nullptr;
    gsize length = 0;
    if (!g_file_get_contents(path.c_str(), &data, &length, nullptr))
        return {};
    std::string text(data, length);
    g_free(data);
    return text;
}

inline void write_file(const std::string &path, const std::string &text)
{
    ASSERT_TRUE(
        g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()), nullptr))
        << path;
}

inline std::string group_of(int channel)
{
    return "Channel " + std::to_string(channel);
}

/* The raw texts of a group's keys, in file order. */
inline std::vector<std::pair<std::string, std::string>> group_keys(GKeyFile *key_file,
                                                                   const std::string &group)
{
    std::vector<std::pair<std::string, std::string>> out;
    gsize n = 0;
    g_auto(GStrv) keys = g_key_file_get_keys(key_file, group.c_str(), &n, nullptr);
    for (gsize i = 0; i < n; i++) {
        g_autofree gchar *value = g_key_file_get_value(key_file, group.c_str(), keys[i], nullptr);
        out.emplace_back(keys[i], value ? value : "");
    }
    return out;
}

/* The group written for a channel, as the file spells it. */
inline std::vector<std::pair<std::string, std::string>> written_group(const ChannelValues &v)
{
    return {{"standard", std::to_string(v.standard)},
            {"resolution", std::to_string(v.resolution)},
            {"auto", v.auto_mode ? "true" : "false"},
            {"configured", v.configured ? "true" : "false"}};
}

/* The file parsed as a key file, or nullptr (with a test failure) when it
 * does not parse. */
inline GKeyFile *parse_file(const std::string &path)
{
    GKeyFile *key_file = g_key_file_new();
    g_autoptr(GError) error = nullptr;
    if (!g_key_file_load_from_file(key_file, path.c_str(), G_KEY_FILE_NONE, &error)) {
        ADD_FAILURE() << path << " does not parse: " << error->message;
        g_key_file_unref(key_file);
        return nullptr;
    }
    return key_file;
}

inline struct stat stat_of(const std::string &path)
{
    struct stat st {
    };
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

inline bool same_file_version(const struct stat &a, const struct stat &b)
{
    return a.st_ino == b.st_ino && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && a.st_size == b.st_size;
}

/* What a new file holds for every channel, and what the table holds after it. */
constexpr ChannelValues new_file_values = {5, 31, 1, 0};
constexpr ChannelValues new_table_values = {3, 8, 1, 0};
