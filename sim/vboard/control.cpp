#include "control.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace vboard
{

namespace
{

bool write_all(int fd, const std::string &data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, std::string *out)
{
    char buf[4096];
    while (true) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        out->append(buf, static_cast<size_t>(n));
    }
}

} // namespace

std::vector<std::string> control_parse(const std::string &bytes)
{
    std::vector<std::string> args;
    size_t start = 0;
    while (start < bytes.size()) {
        size_t end = bytes.find('\0', start);
        if (end == std::string::npos)
            end = bytes.size();
        args.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return args;
}

bool control_request(const std::string &socket_path, const std::vector<std::string> &args,
                     CommandReply *reply, std::string *error)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path) {
        *error = "socket path too long: " + socket_path;
        return false;
    }
    std::strcpy(addr.sun_path, socket_path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        *error = "cannot reach the board at " + socket_path + ": " + std::strerror(errno);
        close(fd);
        return false;
    }
    std::string request;
    for (const auto &a : args) {
        request += a;
        request += '\0';
    }
    std::string answer;
    bool ok = write_all(fd, request) && shutdown(fd, SHUT_WR) == 0 && read_all(fd, &answer);
    close(fd);
    if (!ok) {
        *error = "the board closed the connection";
        return false;
    }
    size_t nl = answer.find('\n');
    if (nl == std::string::npos) {
        *error = "the board gave no answer";
        return false;
    }
    reply->ok = answer.compare(0, nl, "ok") == 0;
    reply->text = answer.substr(nl + 1);
    return true;
}

void control_serve(int fd,
                   const std::function<CommandReply(const std::vector<std::string> &)> &handle)
{
    /* A client that never finishes its request must not stall the board. */
    timeval tv = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    std::string request;
    if (!read_all(fd, &request))
        return;
    CommandReply reply = handle(control_parse(request));
    write_all(fd, (reply.ok ? "ok\n" : "error\n") + reply.text);
}

} // namespace vboard
