/* The GPIO line functions against a recording stand-in of the GPIO library and
 * of usleep: lines behave as each case scripts them, and every call, sleep,
 * release and error message is recorded in one sequence. */
#include <cerrno>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <unistd.h>

#include "gpio.h"
#include "korvi_log.h"
#include "ugpio.h"

namespace
{

/* Per operation of a line, the results of successive calls, the last one
 * repeating; without an entry, 0 (set_edge: 1). Lines not on the board fail. */
using Board = std::map<std::string, std::map<std::string, std::deque<int>>>;
Board lines;
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

/* A fresh board with these lines. */
void fresh(const Board &board)
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

// clang-format off
/* n attempts of a call with the half-second retry sleep between them. */
std::string attempts(const std::string &call, int n)
{
    std::string out = call + "; ";
    for (int i = 1; i < n; i++)
        out += "usleep 500000; " + call + "; ";
    return out;
}
std::string release(const std::string &line) { return "close " + line + "; free " + line + "; "; }
/* A write up to the value, with the value's result, then the release. */
std::string write(const std::string &line, int value, const std::string &failure = "")
{
    return "request " + line + "; full_open " + line + "; set_value " + line + " " + std::to_string(value) + "; " + failure + release(line);
}
// clang-format on

const std::string R = "decoder_reset_0", I = "decoder_interrupt_0", T = "video_term_3";

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

TEST(Gpio, EachFunctionsAttemptsSleepsReleasesAndMessages)
{
    const auto write0 = [] { return gpio_reset_write(0); };
    const auto term2 = [] { return gpio_set_video_termination(2, 1); };
    const auto irq_open_close = [] {
        ugpio_t *line = gpio_irq_open();
        gpio_irq_close(line);
        return line != nullptr ? 1 : 0;
    };
    const std::string open_failed = "error Failed to full open GPIO ";
    const std::string no_line = "error Failed to request named GPIO ";
    const struct {
        Board board;
        std::function<int()> call;
        std::string want;
        // clang-format off
    } cases[] = {
        /* The reset line is retried; any open result but 0 fails, a positive one too. */
        {{{R, {{"request", {-1, -1, 0}}, {"full_open", {-EBUSY, 1, 0}}}}}, write0,
         "0: " + attempts("request " + R, 3) + attempts("full_open " + R, 3) + "set_value " + R + " 0; " + release(R)},
        {{}, write0, "-1: " + attempts("request " + R, 10) + no_line + R + "; "},
        {{{R, {{"full_open", {1, -EIO, 1}}}}}, write0,
         "-1: request " + R + "; " + attempts("full_open " + R, 10) + open_failed + R + "; " + release(R)},
        {{{R, {}}}, gpio_reset_decoder, "0: " + write(R, 1) + "usleep 10000; " + write(R, 0) + "usleep 10000; "},
        /* Any non-zero write result fails; both writes and sleeps still happen. */
        {{{R, {{"set_value", {1}}}}}, gpio_reset_decoder,
         "-1: " + write(R, 1, "error Failed to set value 1 on GPIO " + R + "; ") + "error FAILED: write 1 to reset GPIO; "
         "usleep 10000; " + write(R, 0, "error Failed to set value 0 on GPIO " + R + "; ") +
         "error FAILED: write 0 to reset GPIO; usleep 10000; "},
        /* Only 0 is a failed edge selection. */
        {{{I, {{"set_edge", {-1}}}}}, gpio_setup_irq, "0: request " + I + "; full_open " + I + "; set_edge " + I + " 8; " + release(I)},
        {{{I, {{"set_edge", {0}}}}}, gpio_setup_irq, "-1: request " + I + "; full_open " + I + "; set_edge " + I + " 8; "
         "error Failed to set IRQ edge on " + I + "; " + release(I)},
        /* Termination lines are tried once; only a negative open result fails. */
        {{{T, {}}}, [] { return gpio_set_video_termination(4, 1) + gpio_set_video_termination(-1, 1); }, "-2: "},
        {{{T, {{"full_open", {1}}}}}, term2, "0: " + write(T, 1)},
        {{{T, {{"request", {-1, 0}}}}}, term2, "-1: request " + T + "; " + no_line + T + "; "},
        {{{T, {{"full_open", {-EACCES, 0}}}}}, term2, "-1: request " + T + "; full_open " + T + "; " + open_failed + T + "; " + release(T)},
        {{{T, {{"set_value", {-EIO}}}}}, term2, "-1: " + write(T, 1, "error Failed to set value 1 on GPIO " + T + "; ")},
        /* The manager's handle: read-only, requested once, released on failure. */
        {{}, irq_open_close, "0: request " + I + "; " + no_line + I + "; "},
        {{{I, {{"open_ro", {-ENOENT}}}}}, irq_open_close, "0: request " + I + "; open_ro " + I + "; error Failed to RO open GPIO " + I + "; free " + I + "; "},
    };
    // clang-format on
    for (const auto &c : cases) {
        fresh(c.board);
        EXPECT_EQ(std::to_string(c.call()) + ": " + calls, c.want);
    }
}

/* A pipe stands in for the value file: poll reports its write end without a
 * reader as POLLERR, as the value file reports an edge. */
TEST(Gpio, InterruptPollWaitsForAnEdgeAndAcknowledgesIt)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fresh({{I, {{"fd", {fds[1]}}, {"get_value", {0, -EIO}}}}});
    ugpio_t ctx{I};
    EXPECT_EQ(gpio_irq_poll(&ctx, 0), 0) << "nothing pending: time-out";
    close(fds[0]);
    EXPECT_EQ(gpio_irq_poll(&ctx, 1000), 1) << "an edge, acknowledged";
    EXPECT_EQ(gpio_irq_poll(&ctx, 1000), 1) << "an edge even when the value can't be read";
    EXPECT_EQ(calls, "fd " + I + "; fd " + I + "; get_value " + I + "; fd " + I + "; get_value " +
                         I + "; error Failed to read GPIO " + I + "; ");
    close(fds[1]);
}
