/* The PTZ socket server through real Unix sockets, with a decoder whose
 * transmit slot records what reaches the chip. */
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <linux/sockios.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "decoder.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "ptz_ipc.h"

namespace
{

using Record = std::array<uint8_t, 5>;
using Records = std::vector<Record>;

std::mutex sent_mutex;
Records sent;

/* What the chip has seen, once it has seen `count` records (or after 10 s). */
Records wait_sent(size_t count)
{
    for (int i = 0;; i++, g_usleep(2000)) {
        std::lock_guard lock(sent_mutex);
        if (sent.size() >= count || i == 5000)
            return sent;
    }
}

/* Writes the bytes and, unless told not to, waits until the server has read them. */
void send_bytes(int fd, const std::vector<uint8_t> &bytes, bool wait_read = true)
{
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    int queued = 1;
    for (int i = 0; wait_read && i < 10000 && ioctl(fd, SIOCOUTQ, &queued) == 0 && queued; i++)
        g_usleep(1000);
    EXPECT_TRUE(!wait_read || queued == 0) << "bytes never read by the server";
}

struct PtzServer : ::testing::Test {
    PtzServer()
    {
        log_capture_start();
        sent.clear();
        g_mutex_init(&lock_);
        dec_.lock = &lock_;
        dec_.ops.transmit_ptz = [](Decoder *dec, const uint8_t *data, size_t size) {
            const bool unlocked = g_mutex_trylock(dec->lock);
            if (unlocked)
                g_mutex_unlock(dec->lock);
            EXPECT_FALSE(unlocked) << "sent without the decoder's lock";
            ASSERT_EQ(size, 5u);
            std::lock_guard lock(sent_mutex);
            sent.push_back({data[0], data[1], data[2], data[3], data[4]});
        };
    }
    ~PtzServer() override
    {
        ptz_ipc_stop(thread_);
        unlink(path_.c_str());
        rmdir(dir_);
        g_free(dir_);
        g_mutex_clear(&lock_);
    }
    void start(const std::string &path) { thread_ = ptz_ipc_create_impl(&dec_, path.c_str(), 20); }
    void stop() { ptz_ipc_stop(std::exchange(thread_, nullptr)); }
    /* Connects once the server listens (it binds on its own thread). */
    int connect_client()
    {
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        for (int i = 0; i < 5000; i++, g_usleep(2000)) {
            int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
                return fd;
            close(fd);
        }
        ADD_FAILURE() << "the server never listened";
        return -1;
    }

    Decoder dec_ = {};
    GMutex lock_;
    gchar *dir_ = g_dir_make_tmp("ptz-XXXXXX", nullptr);
    std::string path_ = std::string(dir_) + "/coax.socket";
    GThread *thread_ = nullptr;
};

TEST_F(PtzServer, ChipSeesExactlyTheWholeRecordsSent)
{
    start(path_);
    int a = connect_client();
    send_bytes(a, {1, 1, 2, 3, 4, 2, 5, 6, 7, 8}); /* two in one write */
    /* A record in three pieces, each read before the next is written. */
    send_bytes(a, {3, 0x11});
    send_bytes(a, {0x22, 0x33});
    EXPECT_EQ(wait_sent(0).size(), 2u) << "a partial record reached the chip";
    send_bytes(a, {0x44});
    /* Inputs 4 and 7 do not exist; the record after them still arrives. */
    send_bytes(a, {7, 1, 2, 3, 4, 4, 1, 1, 1, 1, 2, 1, 2, 3, 4});
    ASSERT_EQ(wait_sent(4).size(), 4u);

    /* A second client waits while the first one's records keep coming. */
    int b = connect_client();
    send_bytes(b, {1, 2, 2, 2, 2}, false);
    send_bytes(a, {0, 3, 3, 3, 3});
    EXPECT_EQ(wait_sent(5).back(), (Record{0, 3, 3, 3, 3}));
    /* The first leaves mid-record: only its partial record is lost. */
    send_bytes(a, {2, 0xaa});
    close(a);
    send_bytes(b, {3, 9, 9, 9, 9}, false);
    close(b);

    const Records want = {{1, 1, 2, 3, 4}, {2, 5, 6, 7, 8}, {3, 0x11, 0x22, 0x33, 0x44},
                          {2, 1, 2, 3, 4}, {0, 3, 3, 3, 3}, {1, 2, 2, 2, 2},
                          {3, 9, 9, 9, 9}};
    EXPECT_EQ(wait_sent(want.size()), want);
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Ignoring PTZ record for channel 7"), 1u);
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Ignoring PTZ record for channel 4"), 1u);
}

TEST_F(PtzServer, StopsWithAClientConnectedAndSurvivesAMissingDirectory)
{
    start(path_);
    int fd = connect_client();
    send_bytes(fd, {0, 1, 2, 3, 4});
    stop(); /* a client is connected */
    close(fd);
    /* The socket stays for the next server; owner and group may connect. */
    struct stat st;
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0775u);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Stopped PTZ thread"), 1u);

    /* Without its directory the thread ends on its own; stopping still joins. */
    const std::string missing = std::string(dir_) + "/no-such-dir/coax.socket";
    start(missing); /* the server keeps the path */
    stop();
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Failed to bind(No such file or directory)"), 1u);
}

} // namespace
