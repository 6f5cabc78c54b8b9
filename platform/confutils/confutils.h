/* Writing configuration files so that a crash or power cut never leaves a
 * half-written file behind. */
#pragma once

#include <glib.h>
#include <sys/types.h>

G_BEGIN_DECLS

/* Replaces the file at path with the given contents (length bytes, or up to the
 * terminating NUL when length is -1) and permission mode: the text goes to a
 * temporary file in the same directory, which is synced and renamed over the
 * target, and the directory is synced. Readers see the old file or the new one,
 * never a mix. Returns TRUE on success; FALSE with error set on failure, in
 * which case the old file is untouched and no temporary file is left. */
gboolean confutils_set_file_contents_with_sync_mode(const gchar *path, const gchar *contents,
                                                    gssize length, mode_t mode, GError **error);

G_END_DECLS
