#include "journal.h"

#include <cstdio>
#include <mutex>

namespace testsupport
{
namespace
{

std::mutex journal_mutex;
std::vector<std::string> journal_entries;

std::mutex log_mutex;
std::vector<LogLine> log_lines;

GLogWriterOutput capture_writer(GLogLevelFlags level, const GLogField *fields, gsize n_fields,
                                gpointer)
{
    std::string message;
    for (gsize i = 0; i < n_fields; i++) {
        if (g_strcmp0(fields[i].key, "MESSAGE") != 0)
            continue;
        if (fields[i].length < 0)
            message = static_cast<const char *>(fields[i].value);
        else
            message.assign(static_cast<const char *>(fields[i].value),
                           static_cast<size_t>(fields[i].length));
    }
    if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL))
        std::fprintf(stderr, "%s\n", message.c_str());
    std::lock_guard guard(log_mutex);
    log_lines.push_back({static_cast<int>(level), std::move(message)});
    return G_LOG_WRITER_HANDLED;
}

} // namespace

void journal_add(std::string entry)
{
    std::lock_guard guard(journal_mutex);
    journal_entries.push_back(std::move(entry));
}

std::vector<std::string> journal_snapshot()
{
    std::lock_guard guard(journal_mutex);
    return journal_entries;
}

std::vector<std::string> journal_take()
{
    std::lock_guard guard(journal_mutex);
    std::vector<std::string> taken;
    taken.swap(journal_entries);
    return taken;
}

std::vector<std::string> journal_matching(const std::string &prefix)
{
    std::vector<std::string> found;
    for (auto &entry : journal_snapshot())
        if (entry.rfind(prefix, 0) == 0)
            found.push_back(entry);
    return found;
}

void log_capture_install()
{
    static std::once_flag once;
    std::call_once(once, [] { g_log_set_writer_func(capture_writer, nullptr, nullptr); });
}

std::vector<LogLine> logs_take()
{
    std::lock_guard guard(log_mutex);
    std::vector<LogLine> taken;
    taken.swap(log_lines);
    return taken;
}

std::vector<std::string> log_messages()
{
    std::lock_guard guard(log_mutex);
    std::vector<std::string> messages;
    for (auto &line : log_lines)
        messages.push_back(line.message);
    return messages;
}

int log_count(int level, const std::string &needle)
{
    std::lock_guard guard(log_mutex);
    int count = 0;
    for (auto &line : log_lines)
        if ((line.level & level) && line.message.find(needle) != std::string::npos)
            count++;
    return count;
}

} // namespace testsupport
