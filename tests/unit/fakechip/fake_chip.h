/* A TP28xx played by a thread on the far end of a socketpair; fd() is the driver's
 * i2c-dev descriptor: {reg} reads (no answer: failed), {reg, value} writes. Registers
 * but the page (0x40) exist per page. Accessors wait for all the driver sent. */
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "decoder_types.h"
#include "tp28xx.h"

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
    void set_identity(uint8_t chip_id, uint8_t revision = 0x05)
    {
        set(ANY_PAGE, 0xFE, 0x28), set(ANY_PAGE, 0xFF, chip_id), set(ANY_PAGE, 0xFD, revision);
    }
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
    size_t count(bool write, uint8_t reg)
    {
        const auto all = log();
        return std::count_if(all.begin(), all.end(),
                             [&](auto &t) { return t.write == write && t.reg == reg; });
    }
    /* Reads of 0x40 (a page-scoped operation begins) whose value was not back
     * by the next one or by now; setting 0x40 from the test starts afresh. */
    int unrestored_pages()
    {
        return locked([&] { return unrestored_ + (saved_page_ >= 0 && saved_page_ != page_); });
    }

    /* The log as lines "W 01 15=03" (page, register, value) and "R 01 02", and
     * a sequence in the chip's notation from `page` as such lines: "0B=C0"
     * writes, "?B6" reads, "02&17=00" reads and writes back the value with the
     * bits 0x17 replaced, merged with the chip's answer at that place. */
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

/* A decoder as tp28xx_create leaves it but for the bus, channels in auto mode. */
struct FakeDecoder {
    FakeChip chip;
    GMutex chip_lock;
    Channel channels[4] = {};
    Decoder dec = {};

    explicit FakeDecoder(uint8_t chip_id)
    {
        chip.set_identity(chip_id);
        g_mutex_init(&chip_lock);
        dec.chip_lock = &chip_lock;
        dec.channels = channels;
        dec.i2c_fd = chip.fd();
        dec.dec_chip = tp28xx_detect_chip(dec.i2c_fd);
        tp28xx_fill_decoder(&dec);
        for (int i = 0; i < 4; i++) {
            channels[i].index = i;
            channels[i].decoder = &dec;
            channels[i].video_type = VT_AUTO;
            channels[i].auto_mode = 1;
            tp28xx_setup_channel(&channels[i]);
        }
    }
    ~FakeDecoder()
    {
        for (Channel &c : channels)
            g_free(c.chip_state);
        g_mutex_clear(&chip_lock);
    }
};

} // namespace fakechip

/* The whole log since the last clear_log() against a sequence in the notation. */
#define EXPECT_SEQ(chip, sequence, start_page)                                                     \
    EXPECT_THAT((chip).lines(),                                                                    \
                ::testing::ElementsAreArray((chip).expected((sequence), (start_page))))
