/* Logging for the board's daemons: every GLib log message goes to syslog. */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/* The daemons' "error" level. G_LOG_LEVEL_ERROR aborts the process, so error
 * messages use the first user-defined GLib level instead; the syslog writer
 * maps it to LOG_ERR. */
#define KORVI_LOG_LEVEL_ERROR ((GLogLevelFlags)(1 << G_LOG_LEVEL_USER_SHIFT))

/* Every message format starts with "%s", filled with this prefix. */
#define KORVI_LOG_PREFIX ""

/* Opens syslog under the program's name (argv[0]'s base name) with LOG_PID and
 * LOG_DAEMON and installs the GLib log writer that sends every message there.
 * Call it first thing in main(); argc and argv may be 0 and NULL. */
void korvi_log_syslog(int argc, char **argv);

/* Closes syslog. The writer stays installed (GLib allows one per process) and
 * keeps working: syslog(3) reopens the connection on the next message. */
void korvi_log_cleanup(void);

/* Syslog priority for the bits of a GLib level (the highest-priority bit wins). */
int korvi_log_priority(unsigned level);

G_END_DECLS

#ifdef __cplusplus
#include <cstring>
/* The bits of a level as GLib passes it to a writer. A user-defined level lies
 * outside the values C++ allows in a GLogLevelFlags, so the parameter is
 * copied, never read as the enumeration. */
static inline unsigned korvi_log_level_bits(const GLogLevelFlags &level)
{
    unsigned bits;
    memcpy(&bits, &level, sizeof bits);
    return bits;
}
#endif

/* The helpers the modules log with. The format's leading "%s" takes the
 * prefix; formats that start with "%s%s" take the caller's name next. */
#define korvi_error(fmt, ...)                                                                      \
    g_log(G_LOG_DOMAIN, KORVI_LOG_LEVEL_ERROR, fmt, KORVI_LOG_PREFIX __VA_OPT__(, ) __VA_ARGS__)
#define korvi_warning(fmt, ...)                                                                    \
    g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, fmt, KORVI_LOG_PREFIX __VA_OPT__(, ) __VA_ARGS__)
#define korvi_info(fmt, ...)                                                                       \
    g_log(G_LOG_DOMAIN, G_LOG_LEVEL_INFO, fmt, KORVI_LOG_PREFIX __VA_OPT__(, ) __VA_ARGS__)
