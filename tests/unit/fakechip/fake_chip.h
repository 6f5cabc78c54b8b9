/* A TP28xx decoder chip played by a thread on the far end of a socketpair.
 *
 * The driver uses fd() as an i2c-dev descriptor: a 1-byte message {reg} is a
 * register pointer, answered at once with the value (an empty answer for an
 * injected read failure); a 2-byte message {reg, value} is a write. Every
 * transfer is logged. The page register 0x40 and the chip-global registers
 * have one value each, every other register one per value of 0x40 (0x04
 * writes pages 0 to 4). Registers start at 0x00. The accessors first wait
 * until the chip has handled everything the driver sent. */
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace fakechip
{

constexpr int ANY_PAGE = -1; /* on every page; for get: the selected one */

struct Transaction {
    enum Kind { READ, WRITE } kind;
    uint8_t page, reg; /* page: the value of 0x40 at the time */
    int value;         /* -1 for a failed read */
};

struct RegWrite {
    uint8_t page, reg, value;
    bool operator==(const RegWrite &) const = default;
};

class FakeChip
{
  public:
    FakeChip();
    ~FakeChip();

    int fd() const { return driver_fd_; }
    int release_fd() /* for a driver that closes it itself */
    {
        fd_owned_ = false;
        return driver_fd_;
    }
    void set_identity(uint8_t chip_id, uint8_t revision);
    void set(int page, uint8_t reg, uint8_t value);
    uint8_t get(int page, uint8_t reg);
    /* The next reads of the register on that page (or any) return these
     * values, or fail, before the stored value is read again. */
    void script_reads(int page, uint8_t reg, std::vector<uint8_t> values);
    void fail_reads(int page, uint8_t reg, int count);
    /* Every transfer fails, without reaching the chip. */
    void set_offline(bool offline);
    uint8_t page() { return get(0, 0x40); }

    std::vector<Transaction> transactions();
    std::vector<RegWrite> writes(int reg = -1); /* of one register, or all */
    size_t count_reads(uint8_t reg);
    void clear_log();

    /* One line per transfer: "W 01 15=03" (page, register, value), "R 01 02". */
    std::vector<std::string> log_lines();
    /* The lines of a sequence in the chip's notation starting on `page`:
     * "0B=C0" writes 0xC0 to 0x0B (to 0x40: a page change), "?B6" reads 0xB6,
     * "02&17=00" replaces the bits 0x17 of 0x02: a read, then a write of the
     * merged value, taken from the chip's answer at that place in the log. */
    std::vector<std::string> expected_lines(const std::string &sequence, uint8_t page);

  private:
    using Key = std::pair<int, uint8_t>; /* page (or ANY_PAGE), register */

    void sync();
    void serve();
    int answer_read(uint8_t reg);
    uint8_t &cell(int page, uint8_t reg);

    int driver_fd_ = -1, chip_fd_ = -1, sync_fd_ = -1, null_fd_ = -1;
    bool fd_owned_ = true;

    std::mutex mutex_;
    std::array<std::array<uint8_t, 256>, 256> regs_{}; /* [page][reg]; page 0 for globals */
    std::map<Key, std::deque<uint8_t>> scripts_;
    std::map<Key, int> failures_;
    std::vector<Transaction> log_;
    std::thread thread_;
};

} // namespace fakechip

/* The whole log since the last clear_log() against a sequence in the notation. */
#define EXPECT_SEQ(chip, sequence, start_page)                                                     \
    EXPECT_THAT((chip).log_lines(),                                                                \
                ::testing::ElementsAreArray((chip).expected_lines((sequence), (start_page))))
