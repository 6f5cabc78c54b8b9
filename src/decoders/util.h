/* The manager thread with its lock pass, the channel video status, and the
 * capture pipeline's mode and frequency. */
#pragma once

#include <atomic>
#include <cstdint>
#include <glib.h>

struct Channel;
struct Decoder;

/* Capture mode and frequency, through the image control and capture mode
 * services. Results: the sd-bus result, negative on failure. */
int32_t get_capture_mode_index(int32_t channel);
int set_capture_mode(int32_t capture_mode, int32_t channel);
int set_capture_frequency(Channel *video);

/* Channel video status. */
void set_channel_no_video(Decoder *dec, int32_t channel, int no_video);
void update_channel_video_status(Decoder *dec, int32_t channel);

/* The manager thread. manager_stop_requested is 0 while the thread may run and
 * 1 once a stop is requested; every access is sequentially consistent. */
extern std::atomic<int> manager_stop_requested;
GThread *manager_thread_start(Decoder *dec);
void manager_thread_stop(GThread *thread);
gpointer manager_thread_run(gpointer dec);
void update_video_lock(Decoder *dec);
