/* A private bus in place of the system bus, with fakes of the capture mode,
 * image control and text overlay services that journal each call:
 *   "SetCaptureMode(<channel>)=<argument>", "CaptureFrequency(<channel>)=<text>",
 *   "Overlay(<object number>).Set(<text>,<priority>)", "Overlay(<n>).Unset(<text>)" */
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace fake
{

/* Thread-safe: entries come from the code under test and the services' thread. */
void journal_add(std::string entry);
std::vector<std::string> journal_take();
/* The entries so far that start with `prefix`, without taking them. */
std::vector<std::string> journal_matching(const std::string &prefix);
/* Starts the bus on first use; then no refusals, no hook, journal and log
 * capture cleared. */
void bus_reset();
/* The calls answer with an error while set. */
extern std::atomic<bool> refuse_capture_mode, refuse_overlay;
/* Runs on the services' thread inside every call, before the answer. */
void bus_set_call_hook(std::function<void()> hook);

} // namespace fake
