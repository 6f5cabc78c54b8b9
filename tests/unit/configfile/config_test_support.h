/* Helpers for the tests of the configuration file and the file layer under it. */
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <glib.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "configfile.h"
#include "decoder.h"
#include "tp28xx.h"

/* A fresh directory, under base or $TMPDIR, removed with everything in it. */
struct TempDir {
    std::string path;
    explicit TempDir(const char *base = nullptr)
        : path(std::string(base ? base : g_get_tmp_dir()) + "/vinmand-conf-XXXXXX")
    {
        if (g_mkdtemp(path.data()) == nullptr)
            ADD_FAILURE() << "cannot make " << path;
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
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

inline bool save_channel(int32_t index, const ChannelValues &v, const std::string &path)
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

/* The rows behind the getters. */
inline Table table()
{
    Table t;
    for (uint32_t i = 0; i < MAX_SOURCES; i++)
        t[i] = {config_file_get_video_standard(i), config_file_get_video_type(i),
                config_file_get_auto(i), config_file_get_channel_configured(i)};
    return t;
}

inline std::string read_file(const std::string &path)
{
    g_autofree gchar *data = nullptr;
    gsize length = 0;
    return g_file_get_contents(path.c_str(), &data, &length, nullptr) ? std::string(data, length)
                                                                      : std::string();
}

inline void write_file(const std::string &path, const std::string &text)
{
    ASSERT_TRUE(g_file_set_contents(path.c_str(), text.data(), gssize(text.size()), nullptr));
}

inline struct stat stat_of(const std::string &path)
{
    struct stat st {
    };
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

/* A channel's group as the daemon writes it. */
inline std::string group_text(int channel, const ChannelValues &v)
{
    return "[Channel " + std::to_string(channel) + "]\nstandard=" + std::to_string(v.standard) +
           "\nresolution=" + std::to_string(v.resolution) +
           "\nauto=" + (v.auto_mode ? "true" : "false") +
           "\nconfigured=" + (v.configured ? "true" : "false") + "\n";
}

inline std::string text_of(const Table &t)
{
    std::string text;
    for (int i = 0; i < MAX_SOURCES; i++)
        text += group_text(i, t[i]);
    return text;
}

/* The same for two key-file texts with the same groups, keys and values in the
 * same order, whatever the comments and spacing. */
inline std::string normalized(const std::string &text)
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
