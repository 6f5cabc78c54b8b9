/* Crash-safe file replacement: exact contents, the requested mode whatever the
 * umask, replacement by rename, and on failure a GError with the old file and
 * the directory as they were. */
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "confutils.h"

namespace
{

class Confutils : public ::testing::Test
{
  protected:
    std::string dir;
    std::string target;

    void SetUp() override
    {
        std::string tmpl = std::string(g_get_tmp_dir()) + "/vinmand-confutils-XXXXXX";
        ASSERT_NE(g_mkdtemp(tmpl.data()), nullptr) << g_strerror(errno);
        dir = tmpl;
        target = dir + "/settings.conf";
    }
    void TearDown() override
    {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::string contents(const std::string &path)
    {
        gchar *data = nullptr;
        gsize length = 0;
        if (!g_file_get_contents(path.c_str(), &data, &length, nullptr))
            return "<unreadable>";
        std::string text(data, length);
        g_free(data);
        return text;
    }

    static mode_t mode_of(const std::string &path)
    {
        struct stat st {
        };
        EXPECT_EQ(stat(path.c_str(), &st), 0);
        return st.st_mode & 07777;
    }

    static ino_t inode_of(const std::string &path)
    {
        struct stat st {
        };
        EXPECT_EQ(stat(path.c_str(), &st), 0);
        return st.st_ino;
    }

    /* Writes, expecting success. */
    void put(const std::string &text, mode_t mode)
    {
        g_autoptr(GError) error = nullptr;
        ASSERT_TRUE(confutils_set_file_contents_with_sync_mode(
            target.c_str(), text.data(), static_cast<gssize>(text.size()), mode, &error))
            << (error ? error->message : "no error set");
        EXPECT_EQ(error, nullptr);
    }
};

class Umask
{
  public:
    explicit Umask(mode_t mask) : old_(umask(mask)) {}
    ~Umask() { umask(old_); }

  private:
    mode_t old_;
};

TEST_F(Confutils, WritesExactlyTheGivenBytes)
{
    g_autoptr(GError) error = nullptr;
    ASSERT_TRUE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "a=1\nb=2\n", -1, 0644, &error));
    EXPECT_EQ(contents(target), "a=1\nb=2\n");

    /* An explicit length is taken as it is, NUL bytes included. */
    const std::string binary("x\0y\0", 4);
    put(binary, 0644);
    EXPECT_EQ(contents(target), binary);
    ASSERT_TRUE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "abcdef", 3, 0644, &error));
    EXPECT_EQ(contents(target), "abc");

    put("", 0644);
    EXPECT_EQ(contents(target), "");
    EXPECT_EQ(entries(), std::vector<std::string>{"settings.conf"});
}

TEST_F(Confutils, ModeIsTheRequestedOneWhateverTheUmask)
{
    const struct {
        mode_t mask;
        mode_t mode;
    } cases[] = {{0077, 0644}, {0022, 0666}, {0, 0600}, {0777, 0640}};
    for (const auto &c : cases) {
        Umask mask(c.mask);
        put("k=v\n", c.mode);
        EXPECT_EQ(mode_of(target), c.mode) << std::oct << "umask " << c.mask;
    }
}

TEST_F(Confutils, ReplacesTheFileInsteadOfRewritingIt)
{
    put("old\n", 0600);
    const std::string link = dir + "/old-link";
    ASSERT_EQ(::link(target.c_str(), link.c_str()), 0);
    const ino_t old_inode = inode_of(target);

    put("new\n", 0644);
    EXPECT_EQ(contents(target), "new\n");
    EXPECT_NE(inode_of(target), old_inode);
    /* Whoever had the old file open still reads it whole. */
    EXPECT_EQ(contents(link), "old\n");
    EXPECT_EQ(entries(), (std::vector<std::string>{"old-link", "settings.conf"}));
}

TEST_F(Confutils, MissingDirectoryGivesFileError)
{
    const std::string missing = dir + "/no-such-dir/settings.conf";
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(
        confutils_set_file_contents_with_sync_mode(missing.c_str(), "k=v\n", -1, 0644, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, G_FILE_ERROR);
    EXPECT_EQ(error->code, G_FILE_ERROR_NOENT);
    EXPECT_TRUE(entries().empty());
}

TEST_F(Confutils, FailedWriteLeavesTheOldFileAndNoTemporary)
{
    put("old contents\n", 0644);
    const ino_t old_inode = inode_of(target);
    const std::string big(4096, 'n');

    /* Files may not grow past 100 bytes: the write of the temporary file
     * fails with EFBIG, whoever runs the test. */
    struct rlimit old_limit {
    };
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
    struct sigaction ignore {
    }, old_action{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &old_action);
    struct rlimit limit = old_limit;
    limit.rlim_cur = 100;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    g_autoptr(GError) error = nullptr;
    gboolean written = confutils_set_file_contents_with_sync_mode(
        target.c_str(), big.data(), static_cast<gssize>(big.size()), 0644, &error);
    setrlimit(RLIMIT_FSIZE, &old_limit);
    sigaction(SIGXFSZ, &old_action, nullptr);

    EXPECT_FALSE(written);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, G_FILE_ERROR);
    EXPECT_EQ(contents(target), "old contents\n");
    EXPECT_EQ(inode_of(target), old_inode);
    EXPECT_EQ(entries(), std::vector<std::string>{"settings.conf"});
}

TEST_F(Confutils, DirectoryInPlaceOfTheTargetStays)
{
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    const std::string inside = target + "/keep";
    ASSERT_TRUE(g_file_set_contents(inside.c_str(), "x", 1, nullptr));

    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(
        confutils_set_file_contents_with_sync_mode(target.c_str(), "k=v\n", -1, 0644, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, G_FILE_ERROR);
    EXPECT_EQ(contents(inside), "x");
    EXPECT_EQ(entries(), std::vector<std::string>{"settings.conf"});
}

} // namespace
