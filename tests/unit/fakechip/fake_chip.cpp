#include "fake_chip.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fakechip
{

namespace
{

constexpr uint8_t PAGE_REG = 0x40;
constexpr uint8_t PAGE_ALL_VALUE = 0x04;
constexpr char SYNC_MSG[4] = {'S', 'Y', 'N', 'C'};
constexpr char STOP_MSG[5] = {'S', 'T', 'O', 'P', '!'};

[[noreturn]] void die(const char *what)
{
    perror(what);
    abort();
}

} // namespace

FakeChip::FakeChip()
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0)
        die("fakechip: socketpair");
    driver_fd_ = sv[0];
    chip_fd_ = sv[1];
    sync_fd_ = fcntl(driver_fd_, F_DUPFD_CLOEXEC, 0);
    null_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (sync_fd_ < 0 || null_fd_ < 0)
        die("fakechip: descriptors");

    /* The registers that exist once for the whole chip: page select, output
     * and clock set-up, interrupt status and enable, identification. */
    global_[PAGE_REG] = true;
    for (int reg = 0x42; reg <= 0x45; reg++)
        global_[reg] = true;
    for (int reg = 0x4D; reg <= 0x53; reg++)
        global_[reg] = true;
    for (int reg = 0xB4; reg <= 0xBB; reg++)
        global_[reg] = true;
    for (int reg = 0xF0; reg <= 0xFF; reg++)
        global_[reg] = true;

    thread_ = std::thread([this] { serve(); });
}

FakeChip::~FakeChip()
{
    if (send(sync_fd_, STOP_MSG, sizeof STOP_MSG, MSG_NOSIGNAL) < 0)
        die("fakechip: stop");
    thread_.join();
    if (fd_owned_)
        close(driver_fd_);
    close(sync_fd_);
    close(chip_fd_);
    close(null_fd_);
}

int FakeChip::release_fd()
{
    fd_owned_ = false;
    return driver_fd_;
}

void FakeChip::set_identity(uint8_t chip_id, uint8_t revision)
{
    set(ANY_PAGE, 0xFE, 0x28);
    set(ANY_PAGE, 0xFF, chip_id);
    set(ANY_PAGE, 0xFD, revision);
}

FakeChip::Key FakeChip::key_for(int page, uint8_t reg) const
{
    return Key{global_[reg] ? ANY_PAGE : page, reg};
}

void FakeChip::set(int page, uint8_t reg, uint8_t value)
{
    sync();
    std::lock_guard lock(mutex_);
    if (global_[reg]) {
        global_regs_[reg] = value;
        if (reg == PAGE_REG)
            page_ = value;
    } else if (page == ANY_PAGE) {
        for (auto &bank : regs_)
            bank[reg] = value;
    } else {
        regs_[page & 0xFF][reg] = value;
    }
}

uint8_t FakeChip::get(int page, uint8_t reg)
{
    sync();
    std::lock_guard lock(mutex_);
    if (global_[reg])
        return global_regs_[reg];
    return regs_[page == ANY_PAGE ? page_ : page & 0xFF][reg];
}

void FakeChip::set_global(uint8_t reg, bool global)
{
    std::lock_guard lock(mutex_);
    global_[reg] = global;
}

bool FakeChip::is_global(uint8_t reg) const
{
    return global_[reg];
}

void FakeChip::script_reads(int page, uint8_t reg, std::vector<uint8_t> values)
{
    sync();
    std::lock_guard lock(mutex_);
    scripts_[key_for(page, reg)] = std::deque<uint8_t>(values.begin(), values.end());
}

void FakeChip::fail_reads(int page, uint8_t reg, int count)
{
    sync();
    std::lock_guard lock(mutex_);
    failures_[key_for(page, reg)] = count;
}

void FakeChip::fail_next_reads(int count)
{
    sync();
    std::lock_guard lock(mutex_);
    fail_next_ = count;
}

void FakeChip::set_offline(bool offline)
{
    sync();
    if (offline == offline_)
        return;
    /* Swapping what the descriptor number refers to: a read-only /dev/null
     * refuses writes (EBADF) and reads return 0 bytes. */
    if (dup2(offline ? null_fd_ : sync_fd_, driver_fd_) < 0)
        die("fakechip: dup2");
    offline_ = offline;
}

uint8_t FakeChip::page()
{
    sync();
    std::lock_guard lock(mutex_);
    return page_;
}

std::vector<Transaction> FakeChip::transactions()
{
    sync();
    std::lock_guard lock(mutex_);
    return log_;
}

std::vector<RegWrite> FakeChip::writes()
{
    std::vector<RegWrite> out;
    for (const auto &t : transactions())
        if (t.kind == Transaction::WRITE)
            out.push_back({t.page, t.reg, static_cast<uint8_t>(t.value)});
    return out;
}

std::vector<RegWrite> FakeChip::writes_of(uint8_t reg)
{
    std::vector<RegWrite> out;
    for (const auto &w : writes())
        if (w.reg == reg)
            out.push_back(w);
    return out;
}

size_t FakeChip::count_reads(uint8_t reg)
{
    size_t n = 0;
    for (const auto &t : transactions())
        if (t.kind == Transaction::READ && t.reg == reg)
            n++;
    return n;
}

void FakeChip::clear_log()
{
    sync();
    std::lock_guard lock(mutex_);
    log_.clear();
}

void FakeChip::sync()
{
    /* The barrier travels through the same socket as the driver's messages,
     * so the chip thread answers it only after handling all of them. */
    if (send(sync_fd_, SYNC_MSG, sizeof SYNC_MSG, MSG_NOSIGNAL) != sizeof SYNC_MSG)
        die("fakechip: sync send");
    char reply[8];
    for (;;) {
        const ssize_t n = recv(sync_fd_, reply, sizeof reply, 0);
        if (n == sizeof SYNC_MSG)
            return;
        if (n < 0 && errno != EINTR)
            die("fakechip: sync recv");
        /* Anything else is a register answer the driver never collected:
         * the protocol was broken by the code under test. */
        if (n >= 0 && n != sizeof SYNC_MSG) {
            fprintf(stderr, "fakechip: uncollected answer of %zd bytes\n", n);
            abort();
        }
    }
}

int FakeChip::answer_read(uint8_t reg)
{
    const Key key = key_for(page_, reg);
    const Key any{ANY_PAGE, reg};
    if (fail_next_ > 0) {
        fail_next_--;
        return -1;
    }
    for (const Key &k : {key, any}) {
        auto it = failures_.find(k);
        if (it != failures_.end() && it->second != 0) {
            if (it->second > 0)
                it->second--;
            return -1;
        }
    }
    for (const Key &k : {key, any}) {
        auto it = scripts_.find(k);
        if (it != scripts_.end() && !it->second.empty()) {
            const uint8_t v = it->second.front();
            it->second.pop_front();
            return v;
        }
    }
    return global_[reg] ? global_regs_[reg] : regs_[page_][reg];
}

void FakeChip::store(uint8_t reg, uint8_t value)
{
    if (global_[reg]) {
        global_regs_[reg] = value;
        if (reg == PAGE_REG)
            page_ = value;
        return;
    }
    regs_[page_][reg] = value;
    if (page_ == PAGE_ALL_VALUE)
        for (int p = 0; p < PAGE_ALL_VALUE; p++)
            regs_[p][reg] = value;
}

void FakeChip::serve()
{
    for (;;) {
        uint8_t msg[16];
        const ssize_t n = recv(chip_fd_, msg, sizeof msg, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            die("fakechip: recv");
        }
        if (n == sizeof STOP_MSG)
            return;
        if (n == sizeof SYNC_MSG) {
            if (send(chip_fd_, SYNC_MSG, sizeof SYNC_MSG, MSG_NOSIGNAL) < 0)
                die("fakechip: sync answer");
            continue;
        }
        if (n == 1) {
            int value;
            {
                std::lock_guard lock(mutex_);
                value = answer_read(msg[0]);
                log_.push_back({Transaction::READ, page_, msg[0], value});
            }
            const uint8_t byte = static_cast<uint8_t>(value);
            if (send(chip_fd_, &byte, value < 0 ? 0 : 1, MSG_NOSIGNAL) < 0)
                die("fakechip: answer");
            continue;
        }
        if (n == 2) {
            std::lock_guard lock(mutex_);
            log_.push_back({Transaction::WRITE, page_, msg[0], msg[1]});
            store(msg[0], msg[1]);
            continue;
        }
        fprintf(stderr, "fakechip: unexpected message of %zd bytes\n", n);
        abort();
    }
}

} // namespace fakechip
