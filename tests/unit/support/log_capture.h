/* Records the messages logged through GLib, for checking the driver's texts. */
#pragma once

#include <glib.h>

#include <string>
#include <vector>

struct LoggedMessage {
    unsigned level; /* the GLogLevelFlags bits */
    std::string text;
};

/* Installs (once per process) a GLib log writer that records every message,
 * and forgets what was recorded so far. */
void log_capture_start();
void log_capture_clear();
std::vector<LoggedMessage> log_capture_messages();
/* Messages whose text equals `text` exactly. */
size_t log_count(const std::string &text);
/* Messages of that level whose text equals `text`. */
size_t log_count(unsigned level, const std::string &text);
