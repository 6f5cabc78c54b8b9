/* The GPIO line functions against a recording stand-in of the GPIO library and
 * of usleep: lines behave as each case scripts them, and every call, sleep,
 * release and error message is recorded in one sequence. */
#include <cerrno>
#include <deque>
#include <gtest/gtest.h>
#include <map>
#include <sys/socket.h>
#include <unistd.h>

#include "gpio.h"
#include "korvi_log.h"
#include "ugpio.h"

namespace
{

/* Per operation of a line, the results of successive calls, the last one
 * repeating; without an entry, 0 (set_edge: 1). Lines not on the board fail. */
using Script = std::map<std::string, std::deque<int>>;
std::map<std::string, Script> lines;
std::string calls;

int step(const std::string &line, const char *op, const std::string &args = "")
{
    calls += op + (" " + line) + args + "; ";
    auto it = lines.find(line);
    if (it == lines.end())
        return -1;
    auto &results = it->second[op];
    if (results.empty())
        return std::string(op) == "set_edge";
    int ret = results.front();
    if (results.size() > 1)
        results.pop_front();
    return ret;
}

/* n attempts of a call with the half-second retry sleep between them. */
std::string attempts(const std::string &call, int n)
{
    std::string out = call + "; ";
    for (int i = 1; i < n; i++)
        out += "usleep 500000; " + call + "; ";
    return out;
}

/* A write up to the value, with the value's result, then the release. */
std::string write_calls(const std::string &line, int value, const std::string &failure = "")
{
    return "request " + line + "; full_open " + line + "; set_value " + line + " " +
           std::to_string(value) + "; " + failure + "close " + line + "; free " + line + "; ";
}

/* A fresh board with these lines. */
void fresh(const std::map<std::string, Script> &board)
{
    lines = board;
    calls.clear();
    g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
            EXPECT_EQ(guint(level & G_LOG_LEVEL_MASK), guint(KORVI_LOG_LEVEL_ERROR)) << message;
            calls += "error " + std::string(message) + "; ";
        },
        nullptr);
}

/* The result and the calls of one function on a fresh board with these lines. */
std::string run(const std::map<std::string, Script> &board, int (*call)())
{
    fresh(board);
    return std::to_string(call()) + ": " + calls;
}

const std::string R = "decoder_reset_0", I = "decoder_interrupt_0";

} // namespace

struct ugpio_t {
    std::string name;
};
ugpio_t *ugpio_request_named(const char *name)
{
    return step(name, "request") == 0 ? new ugpio_t{name} : nullptr;
}
// clang-format off
#define LINE_OP(ret, fn, op) ret fn(ugpio_t *ctx) { return ret(step(ctx->name, op)); }
#define LINE_OP_ARG(fn, op) int fn(ugpio_t *ctx, int arg) { return step(ctx->name, op, " " + std::to_string(arg)); }
LINE_OP(int, ugpio_full_open, "full_open")
LINE_OP(int, ugpio_open_ro, "open_ro")
LINE_OP(int, ugpio_get_value, "get_value")
LINE_OP(int, ugpio_fd, "fd")
LINE_OP(void, ugpio_close, "close")
LINE_OP_ARG(ugpio_set_value, "set_value")
LINE_OP_ARG(ugpio_set_edge, "set_edge")
void ugpio_free(ugpio_t *ctx) { step(ctx->name, "free"); delete ctx; }
int usleep(useconds_t usec) noexcept { calls += "usleep " + std::to_string(usec) + "; "; return 0; }
// clang-format on

TEST(Gpio, ResetLineRetriesAndPulse)
{
    auto write0 = [] { return gpio_reset_write(0); };
    /* Any open result other than 0 fails for this line, a positive one too. */
    EXPECT_EQ(run({{R, {{"request", {-1, -1, 0}}, {"full_open", {-EBUSY, 1, 0}}}}}, write0),
              "0: " + attempts("request " + R, 3) + attempts("full_open " + R, 3) + "set_value " +
                  R + " 0; close " + R + "; free " + R + "; ");
    EXPECT_EQ(run({}, write0), "-1: " + attempts("request " + R, 10) +
                                   "error Failed to request named GPIO decoder_reset_0; ");
    EXPECT_EQ(run({{R, {{"full_open", {1, -EIO, 1}}}}}, write0),
              "-1: request " + R + "; " + attempts("full_open " + R, 10) +
                  "error Failed to full open GPIO decoder_reset_0; close " + R + "; free " + R +
                  "; ");
    EXPECT_EQ(run({{R, {}}}, gpio_reset_decoder),
              "0: " + write_calls(R, 1) + "usleep 10000; " + write_calls(R, 0) + "usleep 10000; ");
    /* Any non-zero write result is a failure; both writes and sleeps still happen. */
    EXPECT_EQ(run({{R, {{"set_value", {1}}}}}, gpio_reset_decoder),
              "-1: " + write_calls(R, 1, "error Failed to set value 1 on GPIO decoder_reset_0; ") +
                  "error FAILED: write 1 to reset GPIO; usleep 10000; " +
                  write_calls(R, 0, "error Failed to set value 0 on GPIO decoder_reset_0; ") +
                  "error FAILED: write 0 to reset GPIO; usleep 10000; ");
}

TEST(Gpio, TerminationLinesAreTriedOnce)
{
    const std::string T = "video_term_3";
    auto board = [&](const Script &line3) {
        return std::map<std::string, Script>{
            {"video_term_1", {}}, {"video_term_2", {}}, {T, line3}, {"video_term_4", {}}};
    };
    EXPECT_EQ(run(board({}), [] { return gpio_set_video_termination(3, 7); }),
              "0: " + write_calls("video_term_4", 7));
    EXPECT_EQ(run(board({}), [] { return gpio_set_video_termination(4, 1); }), "-1: ");
    EXPECT_EQ(run(board({}), [] { return gpio_set_video_termination(-1, 1); }), "-1: ");
    /* Only a negative open result is a failure here. */
    auto set3 = [] { return gpio_set_video_termination(2, 1); };
    EXPECT_EQ(run(board({{"full_open", {1}}}), set3), "0: " + write_calls(T, 1));
    EXPECT_EQ(run(board({{"request", {-1, 0}}}), set3),
              "-1: request " + T + "; error Failed to request named GPIO video_term_3; ");
    EXPECT_EQ(run(board({{"full_open", {-EACCES, 0}}}), set3),
              "-1: request " + T + "; full_open " + T +
                  "; error Failed to full open GPIO video_term_3; close " + T + "; free " + T +
                  "; ");
    EXPECT_EQ(run(board({{"set_value", {-EIO}}}), set3),
              "-1: " + write_calls(T, 1, "error Failed to set value 1 on GPIO video_term_3; "));
}

TEST(Gpio, InterruptLineAndCpuid)
{
    /* Only 0 is a failed edge selection. */
    for (int edge_result : {1, -1, 0})
        EXPECT_EQ(run({{I, {{"set_edge", {edge_result}}}}}, gpio_setup_irq),
                  (edge_result ? "0: " : "-1: ") +
                      ("request " + I + "; full_open " + I + "; set_edge " + I + " 8; ") +
                      (edge_result ? "" : "error Failed to set IRQ edge on " + I + "; ") +
                      "close " + I + "; free " + I + "; ");
    EXPECT_EQ(run({}, gpio_setup_irq), "-1: " + attempts("request " + I, 10) +
                                           "error Failed to request named GPIO " + I + "; ");
    /* The cpuid line is only looked for, once, without a word. */
    EXPECT_EQ(run({}, gpio_has_cpuid_bit0), "0: request cpuid_bit0; ");
    EXPECT_EQ(run({{"cpuid_bit0", {}}}, gpio_has_cpuid_bit0),
              "1: request cpuid_bit0; free cpuid_bit0; ");

    /* The manager's handle: read-only, requested once, released on failure. */
    auto open_close = [] {
        ugpio_t *line = gpio_irq_open();
        gpio_irq_close(line);
        return line != nullptr ? 1 : 0;
    };
    EXPECT_EQ(run({{I, {{"request", {-1}}}}}, open_close),
              "0: request " + I + "; error Failed to request named GPIO " + I + "; ");
    EXPECT_EQ(run({{I, {}}}, open_close),
              "1: request " + I + "; open_ro " + I + "; close " + I + "; free " + I + "; ");
    EXPECT_EQ(run({{I, {{"open_ro", {-ENOENT}}}}}, open_close),
              "0: request " + I + "; open_ro " + I + "; error Failed to RO open GPIO " + I +
                  "; free " + I + "; ");
}

/* Descriptors stand in for the value file: poll reports a pipe's write end
 * without a reader as POLLERR, its read end without a writer as POLLHUP only,
 * and out-of-band data on a stream socket as POLLPRI. */
TEST(Gpio, InterruptPollTakesErrorAndPriorityEventsAsEdges)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fresh({{I, {{"fd", {fds[1]}}}}});
    ugpio_t ctx{I};
    EXPECT_EQ(gpio_irq_poll(&ctx, 0), 0) << "nothing pending: time-out";
    close(fds[0]);
    EXPECT_EQ(gpio_irq_poll(&ctx, 1000), 1) << "an edge, acknowledged";
    lines[I]["get_value"] = {-EIO};
    EXPECT_EQ(gpio_irq_poll(&ctx, 1000), 1) << "an edge even when the value can't be read";
    EXPECT_EQ(calls, "fd " + I + "; fd " + I + "; get_value " + I + "; fd " + I + "; get_value " +
                         I + "; error Failed to read GPIO " + I + "; ");
    close(fds[1]);

    ASSERT_EQ(pipe(fds), 0);
    close(fds[1]);
    lines[I]["fd"] = {fds[0]};
    EXPECT_EQ(gpio_irq_poll(&ctx, 1000), 0) << "a hang-up is not an edge";
    close(fds[0]);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    lines[I]["fd"] = {fds[1]};
    if (send(fds[0], "!", 1, MSG_OOB) == 1) {
        EXPECT_EQ(gpio_irq_poll(&ctx, 1000), 1);
    }
    close(fds[0]);
    close(fds[1]);
}
