#include "korvi_log.h"

#include <cstring>
#include <syslog.h>

namespace
{

/* openlog(3) keeps the pointer it is given, so the name lives here. */
char log_ident[64] = "vinmand";

GLogWriterOutput syslog_writer(GLogLevelFlags level, const GLogField *fields, gsize n_fields,
                               gpointer)
{
    const char *message = nullptr;
    for (gsize i = 0; i < n_fields; i++) {
        if (strcmp(fields[i].key, "MESSAGE") == 0) {
            message = static_cast<const char *>(fields[i].value);
            break;
        }
    }
    if (message == nullptr)
        return G_LOG_WRITER_UNHANDLED;
    syslog(korvi_log_priority(korvi_log_level_bits(level)), "%s", message);
    return G_LOG_WRITER_HANDLED;
}

} // namespace

int korvi_log_priority(unsigned level)
{
    if (level & (G_LOG_LEVEL_ERROR | KORVI_LOG_LEVEL_ERROR))
        return LOG_ERR;
    if (level & G_LOG_LEVEL_CRITICAL)
        return LOG_CRIT;
    if (level & G_LOG_LEVEL_WARNING)
        return LOG_WARNING;
    if (level & G_LOG_LEVEL_MESSAGE)
        return LOG_NOTICE;
    if (level & G_LOG_LEVEL_INFO)
        return LOG_INFO;
    return LOG_DEBUG;
}

void korvi_log_syslog(int argc, char **argv)
{
    static bool writer_installed = false;

    if (argc > 0 && argv != nullptr && argv[0] != nullptr) {
        const char *base = strrchr(argv[0], '/');
        base = base ? base + 1 : argv[0];
        if (*base != '\0')
            g_strlcpy(log_ident, base, sizeof log_ident);
    }
    openlog(log_ident, LOG_PID, LOG_DAEMON);
    if (!writer_installed) {
        g_log_set_writer_func(syslog_writer, nullptr, nullptr);
        writer_installed = true;
    }
}

void korvi_log_cleanup(void)
{
    closelog();
}
