/* What the code under test did, in order: calls that reached the stand-ins and
 * the fake services, and the messages it logged. Thread-safe: entries may come
 * from the manager thread and from the fake services' thread. */
#pragma once

#include <glib.h>

#include <string>
#include <vector>

namespace testsupport
{

void journal_add(std::string entry);
/* The entries so far; journal_take also clears them. */
std::vector<std::string> journal_snapshot();
std::vector<std::string> journal_take();
/* The entries that start with `prefix`. */
std::vector<std::string> journal_matching(const std::string &prefix);

struct LogLine {
    /* A GLogLevelFlags bit; an int, since the user-defined error level lies
     * outside the enumeration's range. */
    int level;
    std::string message;
};

/* Routes every GLib log message of the process into the capture (once per
 * process); errors and criticals are also printed on stderr. */
void log_capture_install();
std::vector<LogLine> logs_take();
/* The captured messages, in order, without clearing them. */
std::vector<std::string> log_messages();
/* How many captured messages at `level` contain `needle`. */
int log_count(int level, const std::string &needle);

} // namespace testsupport
