#include "fake_chip.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace fakechip
{

namespace
{

constexpr uint8_t PAGE_REG = 0x40;
constexpr char SYNC_MSG[4] = {'S', 'Y', 'N', 'C'};

void check(bool ok, const std::string &what)
{
    if (!ok) {
        perror(("fakechip: " + what).c_str());
        abort();
    }
}

std::string line(unsigned page, unsigned reg, int written = -1)
{
    char text[16];
    snprintf(text, sizeof text, written < 0 ? "R %02X %02X" : "W %02X %02X=%02X", page & 0xFF,
             reg & 0xFF, written & 0xFF);
    return text;
}

} // namespace

FakeChip::FakeChip()
{
    int sv[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) == 0, "socketpair");
    driver_fd_ = sv[0];
    chip_fd_ = sv[1];
    /* The sync barrier goes through the driver's end, after all it sent before. */
    sync_fd_ = fcntl(driver_fd_, F_DUPFD_CLOEXEC, 0);
    null_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    check(sync_fd_ >= 0 && null_fd_ >= 0, "descriptors");
    thread_ = std::thread([this] { serve(); });
}

FakeChip::~FakeChip()
{
    shutdown(sync_fd_, SHUT_WR);
    thread_.join();
    for (int fd : {driver_fd_, sync_fd_, chip_fd_, null_fd_})
        close(fd);
}

void FakeChip::set(int page, uint8_t reg, uint8_t value)
{
    locked([&] {
        if (reg == PAGE_REG)
            page_ = value, saved_page_ = -1;
        for (int p = 0; p < 256; p++)
            regs_[p][reg] = page == ANY_PAGE || p == page ? value : regs_[p][reg];
    });
}

void FakeChip::set_offline(bool offline)
{
    /* /dev/null opened read-only refuses writes and reads 0 bytes. */
    locked([&] { check(dup2(offline ? null_fd_ : sync_fd_, driver_fd_) >= 0, "dup2"); });
}

std::vector<std::string> FakeChip::lines()
{
    std::vector<std::string> out;
    for (const auto &t : log())
        out.push_back(line(t.page, t.reg, t.write ? t.value : -1));
    return out;
}

std::vector<std::string> FakeChip::expected(const std::string &sequence, uint8_t page)
{
    const auto done = log();
    std::vector<std::string> out;
    std::istringstream in(sequence);
    for (std::string step; in >> step;) {
        unsigned reg, mask, value;
        if (sscanf(step.c_str(), "?%2x", &reg) == 1) {
            out.push_back(line(page, reg));
        } else if (sscanf(step.c_str(), "%2x&%2x=%2x", &reg, &mask, &value) == 3) {
            const size_t at = out.size();
            const bool read = at < done.size() && !done[at].write && done[at].reg == reg;
            out.push_back(line(page, reg));
            out.push_back(read ? line(page, reg, (done[at].value & ~mask) | (value & mask))
                               : "W (update without its read)");
        } else {
            check(sscanf(step.c_str(), "%2x=%2x", &reg, &value) == 2, "bad step " + step);
            out.push_back(line(page, reg, value));
            page = reg == PAGE_REG ? static_cast<uint8_t>(value) : page;
        }
    }
    return out;
}

void FakeChip::sync()
{
    check(send(sync_fd_, SYNC_MSG, sizeof SYNC_MSG, MSG_NOSIGNAL) == sizeof SYNC_MSG, "sync");
    char reply[8];
    ssize_t n;
    while ((n = recv(sync_fd_, reply, sizeof reply, 0)) < 0 && errno == EINTR)
        ;
    /* Anything else is a register answer the driver never collected. */
    check(n == sizeof SYNC_MSG, "sync answer");
}

void FakeChip::serve()
{
    for (;;) {
        uint8_t msg[8];
        const ssize_t n = recv(chip_fd_, msg, sizeof msg, 0);
        if (n < 0 && errno == EINTR)
            continue;
        check(n >= 0 && n != 3 && n <= 4, "unexpected message");
        if (n == 0)
            return;
        if (n == sizeof SYNC_MSG) {
            check(send(chip_fd_, SYNC_MSG, n, MSG_NOSIGNAL) == n, "sync answer");
            continue;
        }
        std::lock_guard lock(mutex_);
        const uint8_t reg = msg[0], page = page_;
        uint8_t &cell = reg == PAGE_REG ? page_ : regs_[page][reg];
        auto &script = scripts_[reg];
        const int value = n == 2 ? msg[1] : script.empty() ? cell : script.front();
        log_.push_back({n == 2, page, reg, value});
        if (n == 2) {
            cell = msg[1];
            continue;
        }
        if (!script.empty())
            script.pop_front();
        if (reg == PAGE_REG) { /* a page-scoped operation begins */
            unrestored_ += saved_page_ >= 0 && saved_page_ != page;
            saved_page_ = value;
        }
        const uint8_t byte = static_cast<uint8_t>(value);
        check(send(chip_fd_, &byte, value < 0 ? 0 : 1, MSG_NOSIGNAL) >= 0, "answer");
    }
}

} // namespace fakechip
