/* Link-time stand-ins for the modules that the manager and the status logic
 * call: video objects, events, video input type, configuration file, the
 * capture driver's statistic, the GPIO interrupt line and the decoder's
 * interrupt enabling. Each call is journalled (see support/journal.h), with
 * " locked" or " unlocked" for whether the decoder's lock was held:
 *   "detected(<ch>)=<detected_type>", "video_type(<ch>)", "input_type(<ch>)=<video_type>",
 *   "event(<ch>)=<connected>", "save(<ch>) configured=<configured>",
 *   "check_no_video(<ch>)", "enable_irq"
 * The GPIO stand-ins are not journalled; they count. */
#pragma once

#include <atomic>
#include <string>

#include "decoder.h"

namespace stand_in
{

/* check_no_video's answer per channel (0 video, 1 no video, -1 no file). */
extern std::atomic<int> check_no_video_result[MAX_SOURCES];
/* encoder_events_send_video_connected answers 0 while set. */
extern std::atomic<bool> events_fail;
extern std::atomic<bool> irq_open_fails;
/* What gpio_irq_poll answers, at once. */
extern std::atomic<int> irq_poll_result;
extern std::atomic<int> irq_polls;
/* The time-out of the last gpio_irq_poll, in ms. */
extern std::atomic<int> irq_last_timeout_ms;
extern std::atomic<int> irq_opens;
extern std::atomic<int> irq_closes;
/* Set when gpio_irq_close got a handle other than the one gpio_irq_open gave. */
extern std::atomic<bool> irq_close_wrong_handle;
/* The calling thread's name, as decoder_enable_irq saw it. */
std::string enable_irq_thread_name();

/* Back to the defaults: video on every channel for the capture driver, events
 * succeed, the interrupt line opens and polls time out. */
void reset();

/* True when some thread holds the decoder's lock. */
bool lock_held(Decoder *dec);

EncoderEvents *events_handle();
/* The decoder under test, for the stand-ins that are not given a channel. */
extern Decoder *decoder;

} // namespace stand_in
