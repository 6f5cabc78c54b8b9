/* Crash-safe file replacement: exact contents, the requested mode whatever the
 * umask, replacement by rename, and on failure a GError with the old state
 * and no temporary file left. */
#include <gtest/gtest.h>

#include <unistd.h>

#include "configfile/config_test_support.h"
#include "confutils.h"

namespace
{

TEST(Confutils, WritesTheGivenBytesWithTheGivenMode)
{
    TempDir dir;
    const std::string target = dir.file("settings.conf");
    /* Length -1 means up to the NUL; an explicit length is taken as it is. */
    const struct {
        const char *text;
        gssize length;
        std::string expected;
        mode_t umask, mode;
    } cases[] = {
        {"a=1\nb=2\n", -1, "a=1\nb=2\n", 0077, 0644},
        {"x\0y\0", 4, std::string("x\0y\0", 4), 0022, 0666},
        {"abcdef", 3, "abc", 0, 0600},
        {"", 0, "", 0777, 0640},
    };
    for (const auto &c : cases) {
        const mode_t old_mask = umask(c.umask);
        EXPECT_TRUE(confutils_set_file_contents_with_sync_mode(target.c_str(), c.text, c.length,
                                                               c.mode, nullptr));
        umask(old_mask);
        EXPECT_EQ(read_file(target), c.expected);
        EXPECT_EQ(stat_of(target).st_mode & 07777, c.mode) << std::oct << c.mode;
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"settings.conf"});
}

TEST(Confutils, ReplacesTheFileInsteadOfRewritingIt)
{
    TempDir dir;
    const std::string target = dir.file("settings.conf"), link = dir.file("old-link");
    ASSERT_TRUE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "old\n", -1, 0600, nullptr));
    ASSERT_EQ(::link(target.c_str(), link.c_str()), 0);
    ASSERT_TRUE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "new\n", -1, 0644, nullptr));
    EXPECT_EQ(read_file(target), "new\n");
    /* Whoever had the old file open still reads it whole. */
    EXPECT_EQ(read_file(link), "old\n");
    EXPECT_NE(stat_of(target).st_ino, stat_of(link).st_ino);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"old-link", "settings.conf"}));
}

TEST(Confutils, FailuresSetAFileErrorAndLeaveNoTemporary)
{
    TempDir dir;
    g_autoptr(GError) missing = nullptr;
    EXPECT_FALSE(confutils_set_file_contents_with_sync_mode(
        dir.file("no-such-dir/settings.conf").c_str(), "k=v\n", -1, 0644, &missing));
    EXPECT_TRUE(g_error_matches(missing, G_FILE_ERROR, G_FILE_ERROR_NOENT));

    /* The temporary file is written, then cannot be renamed over a directory. */
    const std::string target = dir.file("settings.conf");
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    write_file(target + "/keep", "x");
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "k=v\n", -1, 0644, &error));
    EXPECT_TRUE(error != nullptr && error->domain == G_FILE_ERROR);
    EXPECT_EQ(read_file(target + "/keep"), "x");
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"settings.conf"});
}

} // namespace
