/* Register-level model of the four-input HD-over-coax decoder chip (the 2826
 * and 2827 variants) as it sits on the virtual board's I2C bus, with a camera
 * (or nothing) on each input.
 *
 * Bus
 *   The chip answers only at the 7-bit address 0x44. i2c-dev semantics: binding
 *   an address always succeeds; a transfer to any other address fails with
 *   -ENXIO. A 1-byte write sets the register pointer, an N-byte write stores
 *   bytes 1..N-1 from the pointer on (auto-increment), a read returns registers
 *   from the pointer on (auto-increment). The pointer wraps at 0xFF.
 *
 * Register map
 *   Page register 0x40 (global, always readable). Its value selects the bank
 *   that the per-channel registers address:
 *     0x00..0x03  the bank of channel 0..3
 *     0x04        writes go to all four channel banks; reads come from channel 0
 *     0x10, 0x40  two auxiliary banks (the chip's own set-up pages)
 *     any other   unmapped: per-channel writes are dropped, reads give 0x00
 *   Per-channel registers: 0x00..0x3F (status, format, timing, picture,
 *   channel mode 0x35/0x36, index/data 0x2F/0x04), 0x55..0x7F (PTZ transmit
 *   buffer 0x55..0x6C, PTZ control 0x6F..0x71), 0x80..0xA7 (0x80..0x88
 *   picture tuning, 0x8A..0xA1 signal signature), 0xC0..0xCF (PTZ mode).
 *   Everything else is global: 0x41..0x54 (output port set-up, 0x44 control),
 *   0xA8..0xBF (interrupt status 0xB4..0xB6, enable 0xB8), 0xD0..0xFF (output
 *   set-up 0xF1..0xFB, channel mode 0xF5, identification 0xFD..0xFF).
 *
 *   Identification: 0xFE = 0x28, 0xFF = 0x26 / 0x27 by kind, 0xFD = revision.
 *   These and the status registers below are read-only; writes to them are
 *   counted and ignored.
 *
 *   Status registers of a channel bank, derived from the camera:
 *     0x01  bit 7 no video; bit 4 sync seen (sync delay after plug-in); bits 5
 *           and 6 full lock (see Lock); bit 2 TVI signal
 *     0x03  format class in bits 0..2 (6 for standard definition), bit 3 the
 *           short-line flag; 0x07 with no signal
 *     0x04  data port: index 0x2F = 0x0E gives the first detail value, 0x09 the
 *           second, any other index 0x00
 *     0x91..0x93  0xFF for a CVI signal, else 0x00
 *   They are encoded so that the usual reading of the status (format class,
 *   then the detail lookups, then the class/short-line fallback; standard
 *   from class 6, the TVI bit or the CVI signature) gives back the camera's
 *   type, standard and short-line flag. The 4K and 1440p formats are encoded
 *   the way the extended-identity reading expects (detail values 0x8C / 0x5D);
 *   a 26/27 chip never has that identity, so its reading classifies them as a
 *   lower format (1080p, 720p short-line or the unnamed types 0 and 1).
 *
 * Lock
 *   Sync (bit 4) comes up sync_delay after plug-in whatever is programmed.
 *   The full lock (bits 5 and 6) comes up lock_delay after the channel's
 *   programming started to fit the camera (and not before sync), and drops at
 *   once when the camera goes. A held lock rides out programming that stops
 *   fitting for a while, the way the decoder flywheels through a disturbance:
 *   its reserve grows with the time the lock is held on fitting programming,
 *   up to lock_delay, and drains while the programming does not fit; the lock
 *   drops when the reserve is used up, so a lock just gained drops at once.
 *   A settled lock thus survives a driver rewriting the channel's format,
 *   where the line length passes through the timing table's value before the
 *   CVI block writes the CVI one. Fitting:
 *   - line length, (0x1C & 0x7F) << 8 | 0x1D (bit 7 of 0x1C is a mode flag,
 *     not part of the length), equals the camera's: 1080p30 2200 (CVI 2400),
 *     1080p25 2640 (CVI 2400), 720p30 1650 / long lines 3300, 720p25 1980
 *     (CVI 1658) / long lines 3960, PAL 2376, NTSC 2360, 4K12 5278 (CVI 4880),
 *     4K15 4398, 1440p15 3300, 1440p25 3958 (CVI 3200), 1440p30 3298 (CVI 3200);
 *   - channel mode: standard definition and short-line 720p need the
 *     half-rate mode, 0xF5 bit n and 0x35 bit 5 both set; every other format
 *     needs 0xF5 bit n clear (0x35 bit 5 is then free).
 *   The unnamed formats have no fitting programming and never fully lock.
 *
 * Interrupts
 *   0xB8 bits 2n and 2n+1 enable channel n (either bit). While enabled, a
 *   plug, unplug, full lock or loss of full lock on channel n sets bit n of
 *   0xB5. 0xB4..0xB6 are write-one-to-clear (0xFF clears a group). The
 *   interrupt line is high while 0xB5 is non-zero; its rising edge calls the
 *   irq callback. The callback runs after the model's lock is released, on the
 *   thread that caused the edge (a bus transfer, plug, poll, ...).
 *
 * PTZ (2827 only)
 *   Per channel: a rising bit 0 of 0x6F in a channel bank, with the
 *   transmitter enabled (0x71 bit 5), sends that bank's transmit buffer. Each
 *   data byte is eight 3-bit symbols, 110 for a 1 and 100 for a 0, MSB first,
 *   in three registers: 0x55..0x57 carry data byte 2, 0x58..0x5A byte 1,
 *   0x5B..0x5D byte 4, 0x5E..0x60 byte 3. ptz_time after the pulse the
 *   transmission is complete: bit n of 0xB6 is set (no interrupt line edge)
 *   and, with a camera present, the decoded record (channel, data 1..4) is
 *   added to what that camera received. A buffer with an invalid symbol is
 *   sent but not understood (counted, not recorded). Pulses in a broadcast
 *   bank send on all four channels; in an auxiliary bank nothing.
 *
 * Reset
 *   reset() (or asserting the reset line) restores the power-on registers (channel banks hold the
 * default format: 720p-class timing, line length 1650, full-rate mode), clears the interrupts and
 * transmissions in flight; cameras, PTZ history, faults and counters stay.
 *
 * Time: an injectable monotonic clock in microseconds. Every public call first
 * brings the model up to clock(); next_deadline_us() tells when the next
 * spontaneous change (sync, lock, PTZ completion) is due so the board can arm
 * a timer and call poll().
 *
 * Thread safety: every public member takes one internal mutex.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace vboard
{

enum class ChipKind { TP2826, TP2827 };
enum class Standard { TVI, AHD, CVI, CVBS };

/* Numeric video types the inputs accept (the daemon's VideoType numbers). */
enum : int {
    RES_1080P30 = 2,
    RES_1080P25 = 3,
    RES_720P30 = 4,
    RES_720P25 = 5,
    RES_PAL = 8,
    RES_NTSC = 9,
    RES_4K12 = 10,
    RES_4K15 = 11,
    RES_1440P15 = 24,
    RES_1440P25 = 25,
    RES_1440P30 = 26,
};

struct Camera {
    Standard standard = Standard::TVI;
    int resolution = RES_1080P30;
    /* 720p only: the long-line variant (3300 / 3960 clocks per line). */
    bool long_lines = false;
    bool operator==(const Camera &) const = default;
};

/* True when a camera of this standard and type can be plugged in: the named
 * types and the unnamed 0, 1, 6, 7, 18, 21, 28 (CVI only), 29 (AHD only);
 * CVBS exactly for the standard-definition types 6, 8 and 9. */
bool camera_is_valid(const Camera &cam);
const char *standard_name(Standard s); /* "tvi", "ahd", "cvi", "cvbs" */
std::optional<Standard> standard_from_name(const char *name);

inline constexpr unsigned CHIP_ADDRESS = 0x44;
inline constexpr int NUM_CHANNELS = 4;

/* Slots of the per-page counters: channels 0..3, broadcast, 0x10, 0x40, other. */
enum : int {
    PAGE_SLOT_BROADCAST = 4,
    PAGE_SLOT_AUX10 = 5,
    PAGE_SLOT_AUX40 = 6,
    PAGE_SLOT_OTHER = 7,
    PAGE_SLOTS = 8,
};
int page_slot(uint8_t page_value);

struct Counters {
    uint64_t address_sets = 0;
    uint64_t pointer_writes = 0;  /* 1-byte writes */
    uint64_t reads = 0;           /* read transfers */
    uint64_t register_writes = 0; /* registers written by writes of 2+ bytes */
    uint64_t failed = 0;          /* transfers that failed */
    uint64_t irq_edges = 0;
    uint64_t ptz_transmissions = 0;
    uint64_t ptz_garbled = 0;
    /* Per register, indexed by the page slot in force at the access. */
    std::array<std::array<uint64_t, 256>, PAGE_SLOTS> reg_reads{};
    std::array<std::array<uint64_t, 256>, PAGE_SLOTS> reg_writes{};
};

struct ChannelView {
    std::optional<Camera> camera;
    unsigned line_length = 0; /* from 0x1C/0x1D of the channel's bank */
    int channel_mode = 2;     /* 1: 0xF5 bit n set, 2: clear */
    uint8_t reg35 = 0;
    bool fits = false;     /* programming fits the camera */
    uint8_t status = 0x80; /* register 0x01 as read now */
    bool irq_enabled = false;
};

using PtzRecord = std::array<uint8_t, 5>;

class ChipModel
{
  public:
    using Clock = std::function<uint64_t()>;

    static uint64_t steady_clock_us();

    explicit ChipModel(ChipKind kind, Clock clock_us = steady_clock_us);
    ChipModel(const ChipModel &) = delete;
    ChipModel &operator=(const ChipModel &) = delete;

    ChipKind kind() const { return kind_; }

    /* Bus side. Results: bytes transferred, or -errno. */
    int set_address(unsigned addr7);
    int write(const uint8_t *buf, size_t len);
    int read(uint8_t *buf, size_t len);

    void reset();
    /* The reset input: asserting it resets the chip and keeps it off the bus
     * (transfers fail with -ENXIO) until it is released. */
    void set_reset_line(bool asserted);

    /* Cameras. plug() replaces any camera on the input; false for an invalid
     * camera or channel. */
    bool plug(int ch, const Camera &cam);
    void unplug(int ch);
    std::optional<Camera> camera(int ch);

    void set_sync_delay_us(uint64_t us);
    void set_lock_delay_us(uint64_t us);
    void set_ptz_time_us(uint64_t us);
    void set_revision(uint8_t rev); /* also a power-on value */

    /* Absolute clock time of the next spontaneous change, UINT64_MAX if none. */
    uint64_t next_deadline_us();
    /* Bring the model up to clock(); fires due edges. */
    void poll();

    void set_irq_callback(std::function<void()> on_edge);
    bool irq_pending(); /* the interrupt line's level */

    /* Faults. Absent: every transfer fails with -ENXIO and the interrupt line
     * stays low. NACK all: every transfer fails with -EREMOTEIO. NACK register:
     * transfers that address that register fail with -EREMOTEIO (-1: off). */
    void set_absent(bool on);
    void set_nack_all(bool on);
    void set_nack_register(int reg);

    /* Read-only views; they do not count as bus traffic. page is a value of
     * register 0x40 (0x04 shows channel 0). */
    uint8_t reg(uint8_t page, uint8_t reg);
    std::array<uint8_t, 256> bank(uint8_t page);
    ChannelView channel(int ch);
    std::vector<PtzRecord> ptz_received(int ch);
    Counters counters();

  private:
    struct Ptz {
        uint64_t done_at;
        bool valid;
        PtzRecord record;
    };
    struct Input {
        std::optional<Camera> cam;
        uint64_t plugged_at = 0;
        bool fits = false;
        uint64_t fit_since = 0;
        bool sync = false;
        bool locked = false;
        /* Misfit time the held lock can still ride out, as it stood at
         * reserve_at (see Lock in the header comment). */
        uint64_t reserve = 0;
        uint64_t reserve_at = 0;
        std::deque<Ptz> ptz_in_flight;
        std::vector<PtzRecord> ptz_received;
    };

    /* Bank indexes: 0..3 channels, 4 and 5 the auxiliary banks. */
    static constexpr int AUX10_BANK = 4;
    static constexpr int AUX40_BANK = 5;
    static constexpr int NUM_BANKS = 6;

    template <class F>
    auto run(F &&f);
    void power_on();
    void reset_locked(uint64_t now);
    void advance(uint64_t now);
    void raise_event(int ch);
    void update_fit(int ch, uint64_t now);
    uint64_t lock_reserve(const Input &in, uint64_t now) const;
    uint64_t deadline_locked() const;
    int check_transfer(size_t first_reg, size_t count) const;
    uint8_t read_reg(uint8_t page, uint8_t r) const;
    void write_reg(uint8_t r, uint8_t v, uint64_t now);
    void write_bank_reg(int bank, uint8_t r, uint8_t v, uint64_t now);
    uint8_t status_reg(int ch, uint8_t r) const;
    bool fits_locked(int ch) const;
    void start_ptz(int ch, uint64_t now);

    mutable std::mutex mutex_;
    const ChipKind kind_;
    const Clock clock_;
    std::function<void()> on_edge_;
    unsigned pending_edges_ = 0;

    unsigned address_ = 0;
    uint8_t pointer_ = 0;
    uint8_t revision_ = 0x01;
    std::array<uint8_t, 256> global_{};
    std::array<std::array<uint8_t, 256>, NUM_BANKS> banks_{};
    std::array<Input, NUM_CHANNELS> inputs_{};

    uint64_t sync_delay_us_ = 50000;
    uint64_t lock_delay_us_ = 300000;
    uint64_t ptz_time_us_ = 1000;

    bool absent_ = false;
    bool in_reset_ = false;
    bool nack_all_ = false;
    int nack_reg_ = -1;

    Counters counters_{};
};

} // namespace vboard
