/* A decoder built by the test: four channels, the real overlay module, a fake
 * operation table whose answers each test scripts, and the events stand-in.
 * The fake slots journal their calls:
 *   "detect(<ch>)", "video_status(<ch>)", "irq_status",
 *   "set_video_standard(<ch>) std=<S> type=<T> auto=<A> internal=<I> configured=<C>"
 * each with " locked" or " unlocked". Like the chip driver, set_video_standard
 * records the type and standard it programs in the channel. Only one exists at
 * a time. */
#pragma once

#include <atomic>
#include <functional>

#include "decoder.h"
#include "tp28xx.h"

struct DetectScript {
    int32_t type = 30; /* VT_NONE */
    int32_t standard = 5;
    int32_t lock_state = LS_SEARCH;
};

class TestDecoder
{
  public:
    TestDecoder();
    ~TestDecoder();
    TestDecoder(const TestDecoder &) = delete;
    TestDecoder &operator=(const TestDecoder &) = delete;

    Decoder *get() { return &dec_; }
    Channel &channel(int i) { return channels_[i]; }

    /* Channel set-ups of the lock pass. */
    void make_searching(int i, int32_t capture_mode);
    void make_fixed(int i, int32_t video_type, int32_t capture_mode);
    void make_disabled(int i);

    /* What the next detection step on the channel reports. Set before the
     * manager thread starts, or while it is stopped. */
    DetectScript detect[MAX_SOURCES];
    /* The chip's video status per channel. */
    std::atomic<int32_t> video_status[MAX_SOURCES];
    std::atomic<int32_t> irq_mask{2};
    std::atomic<int> detect_calls{0};
    std::atomic<int> video_status_calls{0};
    std::atomic<int> irq_status_calls{0};
    /* Runs on the calling thread at the end of every detection step. */
    std::function<void(Channel *)> on_detect;

  private:
    Decoder dec_{};
    Channel channels_[MAX_SOURCES]{};
    DetectState states_[MAX_SOURCES]{};
    GMutex lock_;
};
