#include "log_capture.h"

#include <mutex>

#include "korvi_log.h"

namespace
{

std::mutex log_mutex;
std::vector<LoggedMessage> log_messages;

GLogWriterOutput capture_writer(GLogLevelFlags level, const GLogField *fields, gsize n_fields,
                                gpointer)
{
    for (gsize i = 0; i < n_fields; i++) {
        if (g_strcmp0(fields[i].key, "MESSAGE") != 0)
            continue;
        const char *text = static_cast<const char *>(fields[i].value);
        std::string s =
            fields[i].length < 0 ? std::string(text) : std::string(text, size_t(fields[i].length));
        std::lock_guard lock(log_mutex);
        log_messages.push_back({korvi_log_level_bits(level), s});
    }
    return G_LOG_WRITER_HANDLED;
}

} // namespace

void log_capture_start()
{
    static std::once_flag once;
    std::call_once(once, [] { g_log_set_writer_func(capture_writer, nullptr, nullptr); });
    log_capture_clear();
}

void log_capture_clear()
{
    std::lock_guard lock(log_mutex);
    log_messages.clear();
}

std::vector<LoggedMessage> log_capture_messages()
{
    std::lock_guard lock(log_mutex);
    return log_messages;
}

size_t log_count(const std::string &text)
{
    size_t n = 0;
    for (const auto &m : log_capture_messages())
        if (m.text == text)
            n++;
    return n;
}

size_t log_count(unsigned level, const std::string &text)
{
    size_t n = 0;
    for (const auto &m : log_capture_messages())
        if (m.text == text && (m.level & level) != 0)
            n++;
    return n;
}
