/* The control socket between a running board and `vboard-ctl`: one request
 * per connection. The client sends its arguments, each ended by a NUL byte,
 * and shuts its side down; the board answers "ok\n" or "error\n" followed by
 * the reply's text, and closes. */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "board.h"

namespace vboard
{

inline constexpr const char *CONTROL_SOCKET = "control.sock";
inline constexpr const char *READY_FILE = "ready";
inline constexpr const char *LOG_FILE = "syslog.log";
inline constexpr const char *LOG_SOCKET = "log.sock";

/* Sends one request; false with *error when the board can't be reached. */
bool control_request(const std::string &socket_path, const std::vector<std::string> &args,
                     CommandReply *reply, std::string *error);

/* Answers one accepted connection. */
void control_serve(int fd,
                   const std::function<CommandReply(const std::vector<std::string> &)> &handle);

/* Parses a request's bytes into its arguments. */
std::vector<std::string> control_parse(const std::string &bytes);

} // namespace vboard
