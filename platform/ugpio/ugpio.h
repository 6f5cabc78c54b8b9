/* Named GPIO lines of the board.
 *
 * A line is a directory /sys/class/gpio/<name>/ holding three files:
 *   direction  "in" or "out" ("high" and "low" are outputs too)
 *   value      "0" or "1"
 *   edge       "none", "rising", "falling" or "both"
 * The board names its lines (e.g. "decoder_reset_0"), so callers ask for a line
 * by name and never deal with line numbers.
 *
 * Edge notification: once an edge is selected, the open value file reports an
 * edge as POLLPRI (and POLLERR) to poll(2); reading the value (from offset 0)
 * acknowledges it and re-arms the notification. The edge setting belongs to
 * the line, not to a handle: it stays in force after the handle that set it is
 * closed.
 *
 * Results: the open, set and get operations return 0 (or the value read) on
 * success and a negative errno value on failure; ugpio_set_edge returns
 * non-zero on success and 0 on failure. No function aborts the process. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ugpio_t ugpio_t;

/* Edge flags of ugpio_set_edge. 0 turns edge notification off. */
#define UGPIO_EDGE_FALLING 0x04
#define UGPIO_EDGE_RISING 0x08
#define UGPIO_EDGE_BOTH (UGPIO_EDGE_FALLING | UGPIO_EDGE_RISING)

/* The directory that holds the board's lines. */
#define UGPIO_SYSFS_DIR "/sys/class/gpio"

/* A handle on the named line, or NULL when there is no such line (its
 * directory does not exist, e.g. not yet exported) or the name is not a plain
 * file name. Nothing is opened yet. */
ugpio_t *ugpio_request_named(const char *name);
/* The same for lines under another directory laid out like UGPIO_SYSFS_DIR. */
ugpio_t *ugpio_request_named_at(const char *base_dir, const char *name);

/* Opens the line's value for use in its direction: read-write for an output,
 * read-only for an input. Reopens when already open. */
int ugpio_full_open(ugpio_t *ctx);
/* Opens the line's value read-only, for reading and polling. */
int ugpio_open_ro(ugpio_t *ctx);
/* Writes 1 (any non-zero value) or 0; the line must be open for writing. */
int ugpio_set_value(ugpio_t *ctx, int value);
/* Reads the value (0 or 1) from the start of the file; re-arms edge
 * notification. */
int ugpio_get_value(ugpio_t *ctx);
/* Selects the edges to report (UGPIO_EDGE_* flags, 0 for none). Works whether
 * or not the line is open. Non-zero on success; 0 on failure, including flags
 * outside UGPIO_EDGE_BOTH. */
int ugpio_set_edge(ugpio_t *ctx, int flags);
/* The open value file's descriptor, -1 when the line is not open. */
int ugpio_fd(ugpio_t *ctx);
/* Closes what the open operations opened; the handle stays valid. */
void ugpio_close(ugpio_t *ctx);
/* Closes the line if open and releases the handle. NULL is ignored. */
void ugpio_free(ugpio_t *ctx);

/* Pure helpers behind the operations above. */

/* The edge file's text for the flags, NULL for flags outside UGPIO_EDGE_BOTH. */
const char *ugpio_edge_text(int flags);
/* The value in a value file's text ("0" or "1", optionally followed by white
 * space), or -EINVAL. */
int ugpio_parse_value(const char *text, long length);
/* 1 for an output direction text ("out", "high", "low"), 0 for "in", -EINVAL
 * otherwise; a trailing newline is ignored. */
int ugpio_direction_is_output(const char *text, long length);

#ifdef __cplusplus
}
#endif
