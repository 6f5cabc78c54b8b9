#include "ptz_ipc.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "decoder.h"
#include "korvi_log.h"

namespace
{

const char *ptz_socket_path = nullptr;
int32_t ptz_poll_timeout_ms = PTZ_POLL_TIMEOUT_MS;
std::atomic<int32_t> ptz_stop_requested{0};

bool stop_requested()
{
    return ptz_stop_requested.load(std::memory_order_seq_cst) != 0;
}

/* True when fd became readable within the poll time-out. */
bool wait_readable(int fd)
{
    struct pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, ptz_poll_timeout_ms) == 1 && (pfd.revents & POLLIN);
}

int listen_socket(void)
{
    unlink(ptz_socket_path);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        korvi_error("%sFailed to create socket");
        return -1;
    }
    int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
        korvi_error("%sFailed to set socket options");
        close(fd);
        return -1;
    }
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, ptz_socket_path, sizeof addr.sun_path - 1);

    /* Owner and group may connect, others may not. */
    mode_t old_mask = umask(002);
    errno = 0;
    int bound = bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    int bind_errno = errno;
    umask(old_mask);
    if (bound != 0) {
        korvi_error("%sFailed to bind(%s)", g_strerror(bind_errno));
        close(fd);
        return -1;
    }
    if (listen(fd, 5) != 0) {
        korvi_error("%sFailed to listen()");
        close(fd);
        return -1;
    }
    return fd;
}

/* Waits for the next client; -1 once a stop was requested. */
int accept_client(int listen_fd)
{
    while (!stop_requested()) {
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK);
        if (fd >= 0)
            return fd;
        wait_readable(listen_fd);
    }
    return -1;
}

void transmit(Decoder *dec, const uint8_t *record)
{
    /* The chip has four coax transmitters; a record for any other input would
     * program a register page that is not a channel's. */
    if (record[0] >= MAX_SOURCES) {
        korvi_warning("%sIgnoring PTZ record for channel %u", record[0]);
        return;
    }
    g_mutex_lock(dec->lock);
    dec->ops.transmit_ptz(dec, record, PTZ_RECORD_SIZE);
    g_mutex_unlock(dec->lock);
}

/* Serves one client until it disconnects, a read fails or a stop is
 * requested. A stream carries records, not reads: bytes are gathered until a
 * whole record is there, so a record written in pieces still arrives whole and
 * the records after it stay aligned. */
void serve_client(Decoder *dec, int fd)
{
    uint8_t record[PTZ_RECORD_SIZE];
    size_t have = 0;

    while (!stop_requested()) {
        if (!wait_readable(fd))
            continue;
        errno = 0;
        ssize_t n = read(fd, record + have, sizeof record - have);
        if (n < 0) {
            if (errno == EAGAIN)
                continue;
            korvi_warning("%sRead from client failed(%s)", g_strerror(errno));
            return;
        }
        if (n == 0)
            return;
        have += static_cast<size_t>(n);
        if (have < sizeof record)
            continue;
        have = 0;
        transmit(dec, record);
    }
}

} // namespace

GThread *ptz_ipc_create(Decoder *dec)
{
    return ptz_ipc_create_impl(dec, PTZ_SOCKET_PATH, PTZ_POLL_TIMEOUT_MS);
}

GThread *ptz_ipc_create_impl(Decoder *dec, const char *socket_path, int32_t poll_timeout_ms)
{
    if (dec == nullptr) {
        korvi_error("%sNo valid video decoder to use");
        return nullptr;
    }
    g_assert(socket_path);
    g_assert(!ptz_socket_path);
    g_assert(poll_timeout_ms > 0);

    korvi_info("%sStarting PTZ thread");
    ptz_socket_path = socket_path;
    ptz_poll_timeout_ms = poll_timeout_ms;
    ptz_stop_requested.store(0, std::memory_order_seq_cst);
    return g_thread_new("vinmand ptz", ptz_ipc_runner, dec);
}

gpointer ptz_ipc_runner(gpointer data)
{
    Decoder *dec = static_cast<Decoder *>(data);

    korvi_info("%sStarting ptz runner");
    int listen_fd = listen_socket();
    if (listen_fd < 0)
        return nullptr;

    while (!stop_requested()) {
        int client = accept_client(listen_fd);
        if (client < 0)
            break;
        serve_client(dec, client);
        close(client);
    }
    close(listen_fd);
    return nullptr;
}

void ptz_ipc_stop(GThread *thread)
{
    if (thread == nullptr)
        return;
    korvi_info("%sStopping PTZ thread");
    ptz_stop_requested.store(1, std::memory_order_seq_cst);
    g_thread_join(thread);
    ptz_socket_path = nullptr;
    korvi_info("%sStopped PTZ thread");
}
