/* The board's private mount namespace. Paths the daemon opens that do not
 * exist on the host (/dev/i2c-7, /sys/class/gpio, /etc/encoder, ...) are made
 * inside the namespace only, by "shadowing" their parent: a tmpfs is mounted
 * over the parent and every original entry is bound back onto it (symbolic
 * links copied), except the entries the board replaces, which are bound from
 * the board's own files. The host's directories are never written to: a file
 * created in a shadowed directory lands in the namespace's tmpfs and is gone
 * with it. */
#pragma once

#include <string>
#include <vector>

namespace vboard
{

/* Enters a new mount namespace whose mounts do not propagate back to the
 * host. Without root, a user namespace is entered first (uid and gid mapped
 * to 0). *no_privilege is set when neither is possible. */
bool enter_private_namespace(std::string *error, bool *no_privilege);

struct ShadowEntry {
    std::string name;   /* entry of the shadowed directory */
    std::string source; /* what is bound there */
};

/* Shadows the directory target: the original entries stay visible, the
 * given ones are replaced (or added). */
bool shadow_directory(const std::string &target, const std::vector<ShadowEntry> &replace,
                      std::string *error);

} // namespace vboard
