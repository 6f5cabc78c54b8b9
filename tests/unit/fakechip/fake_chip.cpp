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
constexpr uint8_t PAGE_ALL = 0x04;
constexpr char SYNC_MSG[4] = {'S', 'Y', 'N', 'C'};

void check(bool ok, const std::string &what)
{
    if (!ok) {
        perror(("fakechip: " + what).c_str());
        abort();
    }
}

/* Page select, output and clock set-up, interrupt status and enable,
 * identification: one register for the whole chip. */
bool is_global(uint8_t reg)
{
    return reg == PAGE_REG || (reg >= 0x42 && reg <= 0x45) || (reg >= 0x4D && reg <= 0x53) ||
           (reg >= 0xB4 && reg <= 0xBB) || reg >= 0xF0;
}

std::string line(int page, unsigned reg, int written = -1)
{
    char text[32];
    snprintf(text, sizeof text, "%c %02X %02X", written < 0 ? 'R' : 'W', page & 0xFF, reg & 0xFF);
    if (written >= 0)
        snprintf(text + 7, sizeof text - 7, "=%02X", written & 0xFF);
    return text;
}

} // namespace

FakeChip::FakeChip()
{
    int sv[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) == 0, "socketpair");
    driver_fd_ = sv[0];
    chip_fd_ = sv[1];
    /* A second descriptor on the driver's end carries the sync barrier, so
     * the chip answers it only after everything the driver sent before. */
    sync_fd_ = fcntl(driver_fd_, F_DUPFD_CLOEXEC, 0);
    null_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    check(sync_fd_ >= 0 && null_fd_ >= 0, "descriptors");
    thread_ = std::thread([this] { serve(); });
}

FakeChip::~FakeChip()
{
    shutdown(sync_fd_, SHUT_WR); /* the chip reads the end */
    thread_.join();
    for (int fd : {fd_owned_ ? driver_fd_ : -1, sync_fd_, chip_fd_, null_fd_})
        if (fd >= 0)
            close(fd);
}

void FakeChip::set_identity(uint8_t chip_id, uint8_t revision)
{
    set(ANY_PAGE, 0xFE, 0x28);
    set(ANY_PAGE, 0xFF, chip_id);
    set(ANY_PAGE, 0xFD, revision);
}

uint8_t &FakeChip::cell(int page, uint8_t reg)
{
    return regs_[is_global(reg) ? 0 : page == ANY_PAGE ? regs_[0][PAGE_REG] : page & 0xFF][reg];
}

void FakeChip::set(int page, uint8_t reg, uint8_t value)
{
    sync();
    std::lock_guard lock(mutex_);
    for (int p = 0; p < 256; p++)
        if (page == ANY_PAGE ? !is_global(reg) || p == 0 : p == page)
            cell(p, reg) = value;
}

uint8_t FakeChip::get(int page, uint8_t reg)
{
    sync();
    std::lock_guard lock(mutex_);
    return cell(page, reg);
}

void FakeChip::script_reads(int page, uint8_t reg, std::vector<uint8_t> values)
{
    sync();
    std::lock_guard lock(mutex_);
    scripts_[{page, reg}].assign(values.begin(), values.end());
}

void FakeChip::fail_reads(int page, uint8_t reg, int count)
{
    sync();
    std::lock_guard lock(mutex_);
    failures_[{page, reg}] = count;
}

void FakeChip::set_offline(bool offline)
{
    sync();
    /* /dev/null opened read-only refuses writes and reads 0 bytes. */
    check(dup2(offline ? null_fd_ : sync_fd_, driver_fd_) >= 0, "dup2");
}

std::vector<Transaction> FakeChip::transactions()
{
    sync();
    std::lock_guard lock(mutex_);
    return log_;
}

std::vector<RegWrite> FakeChip::writes(int reg)
{
    std::vector<RegWrite> out;
    for (const auto &t : transactions())
        if (t.kind == Transaction::WRITE && (reg < 0 || t.reg == reg))
            out.push_back({t.page, t.reg, static_cast<uint8_t>(t.value)});
    return out;
}

size_t FakeChip::count_reads(uint8_t reg)
{
    size_t n = 0;
    for (const auto &t : transactions())
        n += t.kind == Transaction::READ && t.reg == reg;
    return n;
}

void FakeChip::clear_log()
{
    sync();
    std::lock_guard lock(mutex_);
    log_.clear();
}

std::vector<std::string> FakeChip::log_lines()
{
    std::vector<std::string> lines;
    for (const auto &t : transactions())
        lines.push_back(line(t.page, t.reg, t.kind == Transaction::WRITE ? t.value : -1));
    return lines;
}

std::vector<std::string> FakeChip::expected_lines(const std::string &sequence, uint8_t page)
{
    const auto log = transactions();
    std::vector<std::string> lines;
    std::istringstream in(sequence);
    std::string step;
    for (size_t at = 0; in >> step;) { /* at: the place in the log of the step's first transfer */
        unsigned reg, mask, value;
        int used = 0;
        const int length = static_cast<int>(step.size());
        if (sscanf(step.c_str(), "?%2x%n", &reg, &used) == 1 && used == length) {
            lines.push_back(line(page, reg));
            at++;
        } else if (sscanf(step.c_str(), "%2x&%2x=%2x%n", &reg, &mask, &value, &used) == 3 &&
                   used == length) {
            lines.push_back(line(page, reg));
            const bool read = at < log.size() && log[at].kind == Transaction::READ &&
                              log[at].reg == reg && log[at].page == page && log[at].value >= 0;
            lines.push_back(read ? line(page, reg, (log[at].value & ~mask) | (value & mask))
                                 : "W (update without its read)");
            at += 2;
        } else {
            check(sscanf(step.c_str(), "%2x=%2x%n", &reg, &value, &used) == 2 && used == length,
                  "bad step " + step);
            lines.push_back(line(page, reg, value));
            page = reg == PAGE_REG ? static_cast<uint8_t>(value) : page;
            at++;
        }
    }
    return lines;
}

void FakeChip::sync()
{
    check(send(sync_fd_, SYNC_MSG, sizeof SYNC_MSG, MSG_NOSIGNAL) == sizeof SYNC_MSG, "sync");
    char reply[8];
    ssize_t n;
    while ((n = recv(sync_fd_, reply, sizeof reply, 0)) < 0 && errno == EINTR)
        ;
    /* Anything else is a register answer that the driver never collected. */
    check(n == sizeof SYNC_MSG, "sync answer");
}

int FakeChip::answer_read(uint8_t reg)
{
    for (const Key &k : {Key{regs_[0][PAGE_REG], reg}, Key{ANY_PAGE, reg}}) {
        if (failures_[k] > 0) {
            failures_[k]--;
            return -1;
        }
        if (auto &script = scripts_[k]; !script.empty()) {
            const uint8_t v = script.front();
            script.pop_front();
            return v;
        }
    }
    return cell(ANY_PAGE, reg);
}

void FakeChip::serve()
{
    for (;;) {
        uint8_t msg[16];
        const ssize_t n = recv(chip_fd_, msg, sizeof msg, 0);
        if (n < 0 && errno == EINTR)
            continue;
        check(n >= 0 && n != 3 && n <= 4, "unexpected message");
        if (n == 0) /* shut down */
            return;
        if (n == sizeof SYNC_MSG) {
            check(send(chip_fd_, SYNC_MSG, n, MSG_NOSIGNAL) == n, "sync answer");
            continue;
        }
        std::lock_guard lock(mutex_);
        const uint8_t page = regs_[0][PAGE_REG];
        const int value = n == 1 ? answer_read(msg[0]) : msg[1];
        log_.push_back({n == 1 ? Transaction::READ : Transaction::WRITE, page, msg[0], value});
        if (n == 2) /* while 0x04 is selected, a write lands on every channel's page */
            for (int p = page == PAGE_ALL ? 0 : page; p <= page; p++)
                cell(p, msg[0]) = msg[1];
        const uint8_t byte = static_cast<uint8_t>(value);
        if (n == 1)
            check(send(chip_fd_, &byte, value < 0 ? 0 : 1, MSG_NOSIGNAL) >= 0, "answer");
    }
}

} // namespace fakechip
