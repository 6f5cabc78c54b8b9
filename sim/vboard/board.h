/* The virtual board's state behind its device files: the decoder chip model
 * with its cameras, the GPIO lines around it, the capture driver's per-channel
 * statistics and capture devices, the injected faults, and the services on the
 * board's bus. The FUSE file system, the deadline timer, the control socket
 * and the D-Bus services all reach the board from their own threads; every
 * member takes the lock that guards what it touches. Lock order: the bus lock,
 * then the GPIO lock; the chip model has its own lock, taken last. */
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "chip_model.h"
#include "cli.h"

namespace vboard
{

class BoardServices;

enum Line : int {
    LINE_RESET,
    LINE_INTERRUPT,
    LINE_TERM1,
    LINE_TERM2,
    LINE_TERM3,
    LINE_TERM4,
    LINE_CPUID,
    LINE_COUNT,
};

enum class GpioAttr { Value, Direction, Edge };

/* "decoder_reset_0", "decoder_interrupt_0", "video_term_1".."video_term_4", "cpuid_bit0". */
const char *line_name(int line);
std::optional<int> line_from_name(std::string_view name);

struct BoardOptions {
    ChipKind kind = ChipKind::TP2827;
    bool cpuid = true;
    std::vector<CameraOption> cameras;
    /* Timer thread for the chip's spontaneous changes (sync, lock, PTZ). Off
     * only in tests that drive the model's clock themselves. */
    bool run_timer = true;
    ChipModel::Clock clock = ChipModel::steady_clock_us;
};

struct GpioLineState {
    bool present = true;
    int value = 0;
    std::string direction = "out";
    std::string edge = "none";
    uint64_t events = 0;       /* edges seen with the configured edge setting */
    uint64_t value_writes = 0; /* writes to value */
};

struct CamDevice {
    uint64_t ioctls = 0;
    std::optional<uint32_t> last_value;
    bool fail = false;
};

enum class StatsFault { None, Missing, Empty };

struct CommandReply {
    bool ok = true;
    std::string text;
};

class Board
{
  public:
    explicit Board(const BoardOptions &options);
    ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    ChipModel &chip() { return chip_; }

    /* Called (from any thread, no board lock held) when the interrupt line's
     * value file has a new edge for its pollers. */
    void set_irq_notifier(std::function<void()> notify);
    /* The services on the board's bus, or none; not owned. */
    void set_services(BoardServices *services);
    /* The file where the board's syslog sink writes, for `log`. */
    void set_log_path(std::string path);

    /* i2c-dev. Results: bytes transferred or -errno. */
    int i2c_bind(unsigned long address);
    int i2c_write(unsigned address, const uint8_t *buf, size_t len);
    int i2c_read(unsigned address, uint8_t *buf, size_t len);

    /* sysfs GPIO. */
    bool gpio_present(int line);
    std::string gpio_read(int line, GpioAttr attr);
    /* 0 or -errno. */
    int gpio_write(int line, GpioAttr attr, std::string_view data);
    /* Edge counter of the line: a poller whose last read saw an older count
     * has an edge to report. */
    uint64_t gpio_events(int line);
    GpioLineState gpio_state(int line);

    /* Capture driver. */
    bool stats_present(int channel);
    /* The no_video file's content: "0\n" while the channel carries locked
     * video, "1\n" otherwise, "" when emptied by a fault. */
    std::string stats_content(int channel);
    /* 0 or -errno. */
    int cam_ioctl(int cam, uint32_t value);
    CamDevice cam_state(int cam);

    uint64_t resets();

    /* Control commands ("plug 1 tvi 1080p25", "status --json", ...). */
    CommandReply command(const std::vector<std::string> &args);

    std::string status_text();
    std::string status_json();

  private:
    void on_chip_edge();
    void kick_timer();
    void timer_loop();
    bool channel_locked(int channel);
    CommandReply fault_command(const std::vector<std::string> &args);
    CommandReply get_command(const std::vector<std::string> &args);
    std::string counters_text();
    std::string regs_text(uint8_t page);
    std::string read_log();
    void clear_faults();

    ChipModel chip_;
    ChipKind kind_;
    bool cpuid_;

    std::mutex bus_mutex_;
    unsigned bound_address_ = ~0u; /* address the model was last given */

    std::mutex gpio_mutex_;
    std::array<GpioLineState, LINE_COUNT> lines_;
    uint64_t resets_ = 0;
    std::array<StatsFault, NUM_CHANNELS> stats_faults_{};
    std::array<CamDevice, NUM_CHANNELS> cams_{};
    std::string log_path_;
    std::function<void()> notify_;
    BoardServices *services_ = nullptr;

    std::mutex timer_mutex_;
    std::condition_variable timer_cv_;
    bool timer_stop_ = false;
    bool timer_kicked_ = false;
    std::thread timer_;
};

} // namespace vboard
