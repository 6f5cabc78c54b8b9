/* The PTZ socket server, through real Unix sockets, with a decoder whose
 * transmit slot records what reaches the chip. */
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <linux/sockios.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "decoder.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "ptz_ipc.h"

namespace
{

using Record = std::array<uint8_t, 5>;

std::mutex sent_mutex;
std::condition_variable sent_cv;
std::vector<Record> sent;

void record_transmit(Decoder *, const uint8_t *data, size_t size)
{
    ASSERT_EQ(size, 5u);
    Record r;
    memcpy(r.data(), data, 5);
    std::lock_guard lock(sent_mutex);
    sent.push_back(r);
    sent_cv.notify_all();
}

class PtzServer : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        log_capture_start();
        {
            std::lock_guard lock(sent_mutex);
            sent.clear();
        }
        g_mutex_init(&lock_);
        dec_.lock = &lock_;
        dec_.ops.transmit_ptz = record_transmit;
        dir_ = g_dir_make_tmp("ptz-XXXXXX", nullptr);
        path_ = std::string(dir_) + "/coax.socket";
    }

    void TearDown() override
    {
        stop();
        unlink(path_.c_str());
        rmdir(dir_);
        g_free(dir_);
        g_mutex_clear(&lock_);
    }

    void start(const std::string &path)
    {
        thread_ = ptz_ipc_create_impl(&dec_, path.c_str(), 20);
        ASSERT_NE(thread_, nullptr);
    }
    void start() { start(path_); }
    void stop()
    {
        ptz_ipc_stop(thread_);
        thread_ = nullptr;
    }

    /* Connects once the server listens (it binds on its own thread). */
    int connect_client()
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            struct sockaddr_un addr = {};
            addr.sun_family = AF_UNIX;
            strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
            if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
                return fd;
            close(fd);
            g_usleep(2000);
        }
        ADD_FAILURE() << "the server never listened";
        return -1;
    }

    static void send_bytes(int fd, const std::vector<uint8_t> &bytes)
    {
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }

    /* Waits until the server has read everything this client wrote. */
    static void wait_consumed(int fd)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        int queued = 1;
        while (std::chrono::steady_clock::now() < deadline) {
            ASSERT_EQ(ioctl(fd, SIOCOUTQ, &queued), 0);
            if (queued == 0)
                return;
            g_usleep(1000);
        }
        ADD_FAILURE() << queued << " bytes never read by the server";
    }

    static std::vector<Record> wait_sent(size_t count)
    {
        std::unique_lock lock(sent_mutex);
        sent_cv.wait_for(lock, std::chrono::seconds(10), [&] { return sent.size() >= count; });
        return sent;
    }

    Decoder dec_ = {};
    GMutex lock_;
    gchar *dir_ = nullptr;
    std::string path_;
    GThread *thread_ = nullptr;
};

TEST_F(PtzServer, RecordsReachTheChipWholeAndInOrder)
{
    start();
    int fd = connect_client();
    /* One record, then two in one write. */
    send_bytes(fd, {0, 0xb5, 0x00, 0x29, 0x00});
    EXPECT_EQ(wait_sent(1), (std::vector<Record>{{0, 0xb5, 0x00, 0x29, 0x00}}));
    send_bytes(fd, {1, 1, 2, 3, 4, 2, 5, 6, 7, 8});
    auto got = wait_sent(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[1], (Record{1, 1, 2, 3, 4}));
    EXPECT_EQ(got[2], (Record{2, 5, 6, 7, 8}));
    close(fd);
}

TEST_F(PtzServer, RecordInPiecesIsReassembled)
{
    start();
    int fd = connect_client();
    /* Each piece is read by the server before the next is written, so the
     * record really arrives in three reads. */
    send_bytes(fd, {3, 0x11});
    wait_consumed(fd);
    send_bytes(fd, {0x22, 0x33});
    wait_consumed(fd);
    {
        std::lock_guard lock(sent_mutex);
        EXPECT_TRUE(sent.empty()) << "a partial record reached the chip";
    }
    send_bytes(fd, {0x44, 1, 9, 9, 9, 9});
    auto got = wait_sent(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], (Record{3, 0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(got[1], (Record{1, 9, 9, 9, 9}));
    close(fd);
}

TEST_F(PtzServer, RecordForUnknownInputIsRefused)
{
    start();
    int fd = connect_client();
    send_bytes(fd, {7, 1, 2, 3, 4, 2, 1, 2, 3, 4});
    auto got = wait_sent(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], (Record{2, 1, 2, 3, 4}));
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Ignoring PTZ record for channel 7"), 1u);
    close(fd);
}

TEST_F(PtzServer, ClientLeavingMidRecordDropsOnlyItsPartialRecord)
{
    start();
    int a = connect_client();
    send_bytes(a, {1, 0xaa, 0xbb});
    wait_consumed(a);
    close(a);
    int b = connect_client();
    send_bytes(b, {2, 1, 2, 3, 4});
    auto got = wait_sent(1);
    EXPECT_EQ(got, (std::vector<Record>{{2, 1, 2, 3, 4}}));
    close(b);
}

TEST_F(PtzServer, SecondClientWaitsForTheFirst)
{
    start();
    int a = connect_client();
    send_bytes(a, {0, 1, 1, 1, 1});
    wait_sent(1);
    int b = connect_client();
    send_bytes(b, {1, 2, 2, 2, 2});
    /* While the first client stays, its records keep coming and the second
     * one's does not. */
    send_bytes(a, {0, 3, 3, 3, 3});
    auto got = wait_sent(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1], (Record{0, 3, 3, 3, 3}));
    close(a);
    got = wait_sent(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[2], (Record{1, 2, 2, 2, 2}));
    close(b);
}

TEST_F(PtzServer, ManyClientsOneAfterAnother)
{
    start();
    constexpr int clients = 50;
    for (int i = 0; i < clients; i++) {
        int fd = connect_client();
        send_bytes(fd, {uint8_t(i % 4), uint8_t(i), 0, 0, uint8_t(255 - i)});
        close(fd);
    }
    auto got = wait_sent(clients);
    ASSERT_EQ(got.size(), size_t(clients));
    for (int i = 0; i < clients; i++)
        EXPECT_EQ(got[i], (Record{uint8_t(i % 4), uint8_t(i), 0, 0, uint8_t(255 - i)}));
}

TEST_F(PtzServer, StopsWithAndWithoutClientAndRestarts)
{
    start();
    int fd = connect_client();
    send_bytes(fd, {0, 1, 2, 3, 4});
    wait_sent(1);
    stop(); /* a client is connected */
    close(fd);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Stopped PTZ thread"), 1u);

    /* The socket file stays until the next server replaces it. */
    struct stat st;
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    /* Owner and group may connect, others may not. */
    EXPECT_EQ(st.st_mode & 0777, 0775u);

    start();
    stop(); /* no client */
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Stopped PTZ thread"), 2u);

    start();
    fd = connect_client();
    send_bytes(fd, {3, 4, 3, 2, 1});
    EXPECT_EQ(wait_sent(2).back(), (Record{3, 4, 3, 2, 1}));
    close(fd);
}

TEST_F(PtzServer, MissingSocketDirectoryEndsOnlyTheThread)
{
    std::string missing = std::string(dir_) + "/no-such-dir/coax.socket";
    start(missing);
    /* The thread ends on its own; stopping it still joins cleanly. */
    stop();
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Failed to bind(No such file or directory)"), 1u);
}

TEST(PtzServerDeath, CreationChecksItsArguments)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Decoder dec = {};
    EXPECT_DEATH(ptz_ipc_create_impl(&dec, nullptr, 100), "socket_path");
    EXPECT_DEATH(ptz_ipc_create_impl(&dec, "/tmp/x", 0), "poll_timeout_ms > 0");
    EXPECT_EQ(ptz_ipc_create_impl(nullptr, "/tmp/x", 100), nullptr);
}

} // namespace
