/* A private message bus in place of the system bus, with fakes of the image
 * control, capture mode and text overlay services, and a journal of what the
 * code under test did. The fakes journal each call that reaches them:
 *   "SetCaptureMode(<channel>)=<argument>", "CaptureFrequency(<channel>)=<text>",
 *   "Overlay(<object number>).Set(<text>,<priority>)", "Overlay(<n>).Unset(<text>)" */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace fake
{

/* Thread-safe: entries come from the manager thread and the services' thread. */
void journal_add(std::string entry);
std::vector<std::string> journal_take();
/* The entries so far that start with `prefix`, without taking them. */
std::vector<std::string> journal_matching(const std::string &prefix);

/* Starts the bus and the services on first use. Then: every CaptureMode 1, no
 * failures, no hook, the bus reachable, journal and log capture cleared. */
void bus_reset();
void bus_set_capture_mode(int channel, int32_t mode);
/* The calls answer with an error while set. */
extern std::atomic<bool> refuse_capture_mode;
extern std::atomic<bool> refuse_overlay;
/* Runs on the services' thread inside every SetCaptureMode and overlay call,
 * before the answer. */
void bus_set_call_hook(std::function<void()> hook);
void bus_make_unreachable(bool unreachable);

} // namespace fake
