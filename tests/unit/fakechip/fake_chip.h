/* A TP28xx decoder chip played on the far end of a socketpair, for the chip
 * driver's tests and benches.
 *
 * The driver gets fd(), one end of a socketpair(AF_UNIX, SOCK_SEQPACKET), and
 * uses it exactly as it uses an i2c-dev descriptor. A thread on the other end
 * plays the chip. Message protocol (SEQPACKET keeps message boundaries):
 *
 *   driver -> chip  1 byte  {reg}         register pointer. The chip answers
 *                                         at once with a 1-byte message, the
 *                                         register's value, which the driver's
 *                                         following 1-byte read() receives; an
 *                                         injected read failure answers with an
 *                                         empty message, so that read() returns
 *                                         0. Logged as one READ.
 *   driver -> chip  2 bytes {reg, value}  register write, no answer. Logged as
 *                                         one WRITE.
 *   harness <-> chip 4 bytes              sync barrier (see sync()), not logged.
 *
 * Every 1-byte write must therefore be followed by a 1-byte read, which is
 * what a register read does; the driver never writes a bare pointer.
 *
 * Registers: the page register 0x40 and the chip-global registers (see
 * is_global) have one value each; every other register has one value per
 * value of 0x40 (the page in effect). A write while 0x40 holds 0x04 (all
 * channels) lands on pages 0x00 to 0x04. Every register starts at 0x00.
 *
 * Use from one test thread: the accessors synchronise with the chip thread
 * first, so everything the driver has written is visible. Don't call them
 * while a driver call runs on another thread. */
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace fakechip
{

/* Page argument meaning "on every page" (scripting only). */
constexpr int ANY_PAGE = -1;

struct Transaction {
    enum Kind { READ, WRITE };
    Kind kind;
    uint8_t page; /* the value of 0x40 when the transfer happened */
    uint8_t reg;
    int value; /* written, or answered to a read; -1 for a failed read */

    bool operator==(const Transaction &) const = default;
};

/* A register write as (page in effect, register, value). */
struct RegWrite {
    uint8_t page;
    uint8_t reg;
    uint8_t value;

    bool operator==(const RegWrite &) const = default;
};

class FakeChip
{
  public:
    FakeChip();
    ~FakeChip();
    FakeChip(const FakeChip &) = delete;
    FakeChip &operator=(const FakeChip &) = delete;

    /* The driver's descriptor. The harness closes it in its destructor unless
     * release_fd() was called (for a driver that closes it itself). */
    int fd() const { return driver_fd_; }
    int release_fd();

    /* Chip identity: 0xFE = 0x28, 0xFF = 0x26/0x27, 0xFD = revision. */
    void set_identity(uint8_t chip_id, uint8_t revision);

    /* Stored register value (page ANY_PAGE: on every page). */
    void set(int page, uint8_t reg, uint8_t value);
    uint8_t get(int page, uint8_t reg);
    /* Marks a register as chip-global (one value for all pages) or not. */
    void set_global(uint8_t reg, bool global);
    bool is_global(uint8_t reg) const;

    /* Successive reads of the register on that page (or on any page) return
     * these values in turn; once they are used up, reads return the stored
     * value. A later script for the same register replaces the remaining one. */
    void script_reads(int page, uint8_t reg, std::vector<uint8_t> values);
    /* The next `count` reads of the register (page or ANY_PAGE) fail; count
     * -1: every read from now on. */
    void fail_reads(int page, uint8_t reg, int count);
    /* The next `count` reads of any register fail. */
    void fail_next_reads(int count);
    /* While offline the driver's descriptor refuses every transfer (writes
     * fail, reads return nothing); nothing reaches the chip or the log. */
    void set_offline(bool offline);

    /* The value of the page register. */
    uint8_t page();

    /* The log since construction or the last clear_log(). */
    std::vector<Transaction> transactions();
    std::vector<RegWrite> writes();
    /* Writes whose register is `reg` (any page). */
    std::vector<RegWrite> writes_of(uint8_t reg);
    size_t count_reads(uint8_t reg);
    void clear_log();

    /* Waits until the chip thread has handled every message written so far. */
    void sync();

  private:
    struct Key {
        int page;
        uint8_t reg;
        auto operator<=>(const Key &) const = default;
    };

    void serve();
    int answer_read(uint8_t reg);
    void store(uint8_t reg, uint8_t value);
    Key key_for(int page, uint8_t reg) const;

    int driver_fd_ = -1;
    int chip_fd_ = -1;
    int sync_fd_ = -1; /* a second descriptor on the driver end */
    int null_fd_ = -1;
    bool fd_owned_ = true;
    bool offline_ = false;

    std::mutex mutex_;
    uint8_t page_ = 0;
    std::array<bool, 256> global_{};
    std::array<std::array<uint8_t, 256>, 256> regs_{}; /* [page][reg] */
    std::array<uint8_t, 256> global_regs_{};
    std::map<Key, std::deque<uint8_t>> scripts_;
    std::map<Key, int> failures_;
    int fail_next_ = 0;
    std::vector<Transaction> log_;
    std::thread thread_;
};

} // namespace fakechip
