/* Crash-safe file replacement: exact contents, the requested mode whatever the
 * umask, replacement by rename, and on failure a GError and no temporary file. */
#include <gtest/gtest.h>

#include <unistd.h>

#include "configfile/config_test_support.h"
#include "confutils.h"

namespace
{

TEST(Confutils, ReplacesByRenameWithTheGivenBytesAndModeOrFailsCleanly)
{
    TempDir dir;
    const std::string target = dir.file("settings.conf"), link = dir.file("old-link");
    ASSERT_TRUE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "old\n", -1, 0600, nullptr));
    ASSERT_EQ(::link(target.c_str(), link.c_str()), 0);
    const mode_t old_mask = umask(0077);
    /* An explicit length is taken as it is, NULs included. */
    EXPECT_TRUE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "x\0y\0z", 4, 0644, nullptr));
    umask(old_mask);
    EXPECT_EQ(read_file(target), std::string("x\0y\0", 4));
    EXPECT_EQ(stat_of(target).st_mode & 07777, 0644u);
    EXPECT_EQ(read_file(link), "old\n"); /* whoever had the old file open still reads it */
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"old-link", "settings.conf"}));

    g_autoptr(GError) missing = nullptr;
    EXPECT_FALSE(confutils_set_file_contents_with_sync_mode(
        dir.file("no-such-dir/settings.conf").c_str(), "k=v\n", -1, 0644, &missing));
    EXPECT_TRUE(g_error_matches(missing, G_FILE_ERROR, G_FILE_ERROR_NOENT));
    /* The temporary file is written, then cannot be renamed over a directory. */
    ASSERT_EQ(unlink(target.c_str()), 0);
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "k=v\n", -1, 0644, &error));
    EXPECT_TRUE(error != nullptr && error->domain == G_FILE_ERROR);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"old-link", "settings.conf"}));
}

} // namespace
