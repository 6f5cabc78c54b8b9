/* Link-time stand-ins for the modules the manager and the status logic call,
 * and a four-channel decoder with the real overlay module and an operation
 * table the tests script. Calls are journalled (support/fake_bus.h), most with
 * " locked" or " unlocked" for whether the decoder's lock was held:
 *   "detected(<ch>)=<detected_type>", "video_type(<ch>)", "input_type(<ch>)=<video_type>",
 *   "event(<ch>)=<connected>", "save(<ch>) configured=<configured>", "check_no_video(<ch>)",
 *   "enable_irq <locked> <thread name>", "irq_open", "irq_poll(<ms>)", "irq_close",
 *   "detect(<ch>)", "video_status(<ch>)", "irq_status",
 *   "set_video_standard(<ch>) std=<S> type=<T> auto=<A> internal=<I> configured=<C>" */
#pragma once

#include <atomic>
#include <functional>

#include "decoder.h"
#include "support/fake_bus.h"
#include "tp28xx.h"

namespace stand_in
{
/* check_no_video's answer per channel: 0 video, 1 no video, -1 no file. */
extern std::atomic<int> no_video[MAX_SOURCES];
extern std::atomic<bool> events_fail;
extern std::atomic<bool> irq_open_fails;
/* What gpio_irq_poll answers, at once. */
extern std::atomic<int> irq_poll_result;
} // namespace stand_in

struct DetectScript {
    int32_t type, standard, lock_state;
};

/* Only one exists at a time; it resets the stand-ins and the fake bus. */
class TestDecoder
{
  public:
    TestDecoder();
    ~TestDecoder();

    Decoder *get() { return &dec_; }
    Channel &channel(int i) { return channels_[i]; }
    /* auto_mode, video_type and capture_mode; not configured, no change made. */
    void set(int i, uint8_t auto_mode, int32_t video_type, int32_t capture_mode);
    bool lock_held();
    /* One status pass as the manager runs it. */
    void status_pass();

    /* What the next detection step reports; set while no thread runs. */
    DetectScript detect[MAX_SOURCES];
    std::atomic<int32_t> video_status[MAX_SOURCES];
    std::atomic<int32_t> irq_mask{2};
    /* Runs at the end of every detection step. */
    std::function<void(Channel *)> on_detect;

  private:
    Decoder dec_{};
    Channel channels_[MAX_SOURCES]{};
    DetectState states_[MAX_SOURCES]{};
    GMutex lock_;
};
