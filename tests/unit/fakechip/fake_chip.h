/* A TP28xx decoder chip played by a thread on the far end of a socketpair.
 *
 * fd() is the driver's i2c-dev descriptor: a 1-byte message {reg} is answered
 * at once with the register's value (an empty answer for a failed read), a
 * 2-byte message {reg, value} is a write. Every transfer is logged with the
 * page (register 0x40) in effect; every other register exists once per page
 * and starts at 0. The accessors first wait until the chip has handled
 * everything the driver sent. */
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace fakechip
{

constexpr int ANY_PAGE = -1;

struct Transaction {
    bool write;
    uint8_t page, reg;
    int value; /* -1: a failed read */
};

class FakeChip
{
  public:
    FakeChip();
    ~FakeChip();

    int fd() const { return driver_fd_; }
    void set_identity(uint8_t chip_id, uint8_t revision = 0x05);
    void set(int page, uint8_t reg, uint8_t value); /* ANY_PAGE: on every page */
    uint8_t get(int page, uint8_t reg)              /* ANY_PAGE: on the selected one */
    {
        return locked([&] { return reg == 0x40 ? page_ : regs_[page < 0 ? page_ : page][reg]; });
    }
    uint8_t page() { return get(ANY_PAGE, 0x40); }
    /* The next reads of the register answer these values (-1 fails them). */
    void script(uint8_t reg, std::vector<int> answers)
    {
        locked([&] { scripts_[reg].assign(answers.begin(), answers.end()); });
    }
    void set_offline(bool offline); /* every transfer fails */
    std::vector<Transaction> log()
    {
        return locked([&] { return log_; });
    }
    void clear_log()
    {
        locked([&] { log_.clear(); });
    }
    size_t count(bool write, uint8_t reg);
    /* A page-scoped operation reads 0x40 first and puts that value back at
     * its end: the reads of 0x40 whose value was not back by the next read of
     * 0x40 (or by now). Setting 0x40 from the test starts afresh. */
    int unrestored_pages()
    {
        return locked([&] { return unrestored_ + (saved_page_ >= 0 && saved_page_ != page_); });
    }

    /* The log as lines "W 01 15=03" (page, register, value) and "R 01 02",
     * and the lines of a sequence in the chip's notation starting on `page`:
     * "0B=C0" writes 0xC0 to 0x0B, "?B6" reads 0xB6, "02&17=00" replaces the
     * bits 0x17 of 0x02: a read, then a write of the value merged with the
     * chip's answer at that place in the log. */
    std::vector<std::string> lines();
    std::vector<std::string> expected(const std::string &sequence, uint8_t page);

  private:
    template <class F>
    auto locked(F f) -> decltype(f())
    {
        sync();
        std::lock_guard lock(mutex_);
        return f();
    }
    void sync();
    void serve();

    int driver_fd_ = -1, chip_fd_ = -1, sync_fd_ = -1, null_fd_ = -1;
    std::mutex mutex_;
    std::array<std::array<uint8_t, 256>, 256> regs_{}; /* [page][reg] */
    uint8_t page_ = 0;
    std::map<uint8_t, std::deque<int>> scripts_;
    std::vector<Transaction> log_;
    int saved_page_ = -1, unrestored_ = 0;
    std::thread thread_;
};

} // namespace fakechip

/* The whole log since the last clear_log() against a sequence in the notation. */
#define EXPECT_SEQ(chip, sequence, start_page)                                                     \
    EXPECT_THAT((chip).lines(),                                                                    \
                ::testing::ElementsAreArray((chip).expected((sequence), (start_page))))
