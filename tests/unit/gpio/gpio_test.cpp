/* The GPIO line functions against a recording stand-in of the GPIO library and
 * of usleep: lines behave as each case scripts them, and every call, sleeps
 * and error messages included, is recorded in one sequence. */
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
std::string calls; /* each call or error message followed by "; " */
int live_handles = 0;

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

/* One successful write: request, open, write, release. */
std::string write_calls(const std::string &line, int value)
{
    return "request " + line + "; full_open " + line + "; set_value " + line + " " +
           std::to_string(value) + "; close " + line + "; free " + line + "; ";
}

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    EXPECT_EQ(guint(level & G_LOG_LEVEL_MASK), guint(KORVI_LOG_LEVEL_ERROR)) << message;
    calls += "error " + std::string(message) + "; ";
}

} // namespace

struct ugpio_t {
    std::string name;
};

ugpio_t *ugpio_request_named(const char *name)
{
    if (step(name, "request") != 0)
        return nullptr;
    live_handles++;
    return new ugpio_t{name};
}

int ugpio_full_open(ugpio_t *ctx)
{
    return step(ctx->name, "full_open");
}

int ugpio_open_ro(ugpio_t *ctx)
{
    return step(ctx->name, "open_ro");
}

int ugpio_set_value(ugpio_t *ctx, int value)
{
    return step(ctx->name, "set_value", " " + std::to_string(value));
}

int ugpio_get_value(ugpio_t *ctx)
{
    return step(ctx->name, "get_value");
}

int ugpio_set_edge(ugpio_t *ctx, int flags)
{
    return step(ctx->name, "set_edge", " " + std::to_string(flags));
}

int ugpio_fd(ugpio_t *ctx)
{
    return step(ctx->name, "fd");
}

void ugpio_close(ugpio_t *ctx)
{
    step(ctx->name, "close");
}

void ugpio_free(ugpio_t *ctx)
{
    step(ctx->name, "free");
    live_handles--;
    delete ctx;
}

int usleep(useconds_t usec) noexcept
{
    calls += "usleep " + std::to_string(usec) + "; ";
    return 0;
}

class Gpio : public testing::Test
{
  protected:
    void SetUp() override { g_log_set_default_handler(capture_log, nullptr); }
    void TearDown() override
    {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        fresh();
    }
    /* A board with no lines again, once every handle was freed. */
    static void fresh()
    {
        EXPECT_EQ(live_handles, 0) << "a line handle was not freed";
        lines.clear();
        calls.clear();
    }
};

TEST_F(Gpio, ResetWriteRetriesAndFailures)
{
    const std::string R = "decoder_reset_0";
    struct Case {
        Script script;
        int result;
        std::string calls;
    } cases[] = {
        /* Any open result other than 0 fails for this line, a positive one too. */
        {{{"request", {-1, -1, 0}}, {"full_open", {-EBUSY, 1, 0}}},
         0,
         attempts("request " + R, 3) + attempts("full_open " + R, 3) + "set_value " + R +
             " 0; close " + R + "; free " + R + "; "},
        {{{"request", {-1}}},
         -1,
         attempts("request " + R, 10) + "error Failed to request named GPIO decoder_reset_0; "},
        {{{"full_open", {1, -EIO, 1}}},
         -1,
         "request " + R + "; " + attempts("full_open " + R, 10) +
             "error Failed to full open GPIO decoder_reset_0; close " + R + "; free " + R + "; "},
    };
    for (auto &c : cases) {
        fresh();
        lines[R] = c.script;
        EXPECT_EQ(gpio_reset_write(0), c.result);
        EXPECT_EQ(calls, c.calls);
    }
}

TEST_F(Gpio, ResetPulseWritesOneThenZeroAndAlwaysSleeps)
{
    lines["decoder_reset_0"];
    EXPECT_EQ(gpio_reset_decoder(), 0);
    EXPECT_EQ(calls, write_calls("decoder_reset_0", 1) + "usleep 10000; " +
                         write_calls("decoder_reset_0", 0) + "usleep 10000; ");

    /* Any non-zero write result is a failure; both writes and sleeps still happen. */
    fresh();
    lines["decoder_reset_0"]["set_value"] = {1};
    EXPECT_EQ(gpio_reset_decoder(), -1);
    EXPECT_EQ(calls, "request decoder_reset_0; full_open decoder_reset_0; set_value "
                     "decoder_reset_0 1; error Failed to set value 1 on GPIO decoder_reset_0; "
                     "close decoder_reset_0; free decoder_reset_0; error FAILED: write 1 to reset "
                     "GPIO; usleep 10000; request decoder_reset_0; full_open decoder_reset_0; "
                     "set_value decoder_reset_0 0; error Failed to set value 0 on GPIO "
                     "decoder_reset_0; close decoder_reset_0; free decoder_reset_0; error FAILED: "
                     "write 0 to reset GPIO; usleep 10000; ");
}

TEST_F(Gpio, TerminationLines)
{
    const std::string T2 = "video_term_2", T3 = "video_term_3";
    struct Case {
        int channel, value;
        std::string line;
        Script script;
        int result;
        std::string calls;
    } cases[] = {
        {0, 1, "video_term_1", {}, 0, write_calls("video_term_1", 1)},
        {3, 7, "video_term_4", {}, 0, write_calls("video_term_4", 7)},
        /* Only a negative open result is a failure here. */
        {2, 1, T3, {{"full_open", {1}}}, 0, write_calls(T3, 1)},
        {1,
         0,
         T2,
         {{"request", {-1, 0}}},
         -1,
         "request " + T2 + "; error Failed to request named GPIO " + T2 + "; "},
        {2,
         1,
         T3,
         {{"full_open", {-EACCES, 0}}},
         -1,
         "request " + T3 + "; full_open " + T3 + "; error Failed to full open GPIO " + T3 +
             "; close " + T3 + "; free " + T3 + "; "},
        {1,
         1,
         T2,
         {{"set_value", {-EIO}}},
         -1,
         "request " + T2 + "; full_open " + T2 + "; set_value " + T2 + " 1; error Failed to set " +
             "value 1 on GPIO " + T2 + "; close " + T2 + "; free " + T2 + "; "},
        {4, 1, "video_term_5", {}, -1, ""},
        {-1, 1, "video_term_0", {}, -1, ""},
    };
    for (auto &c : cases) {
        fresh();
        for (const char *name : {"video_term_1", "video_term_2", "video_term_3", "video_term_4"})
            lines[name];
        lines[c.line] = c.script;
        EXPECT_EQ(gpio_set_video_termination(c.channel, c.value), c.result) << c.channel;
        EXPECT_EQ(calls, c.calls);
    }
}

TEST_F(Gpio, IrqSetupSelectsTheRisingEdge)
{
    const std::string I = "decoder_interrupt_0";
    /* Only 0 is a failed edge selection. */
    for (int edge_result : {1, -1, 0}) {
        fresh();
        lines[I]["set_edge"] = {edge_result};
        EXPECT_EQ(gpio_setup_irq(), edge_result ? 0 : -1);
        EXPECT_EQ(calls, "request " + I + "; full_open " + I + "; set_edge " + I + " 8; " +
                             (edge_result ? "" : "error Failed to set IRQ edge on " + I + "; ") +
                             "close " + I + "; free " + I + "; ");
    }
    fresh();
    EXPECT_EQ(gpio_setup_irq(), -1);
    EXPECT_EQ(calls,
              attempts("request " + I, 10) + "error Failed to request named GPIO " + I + "; ");
}

TEST_F(Gpio, CpuidLinePresenceAlone)
{
    EXPECT_EQ(gpio_has_cpuid_bit0(), 0);
    lines["cpuid_bit0"];
    EXPECT_EQ(gpio_has_cpuid_bit0(), 1);
    EXPECT_EQ(calls, "request cpuid_bit0; request cpuid_bit0; free cpuid_bit0; ");
}

TEST_F(Gpio, IrqHandleIsReadOnlyAndRequestedOnce)
{
    const std::string I = "decoder_interrupt_0";
    lines[I]["request"] = {-1, 0};
    EXPECT_EQ(gpio_irq_open(), nullptr);
    ugpio_t *ctx = gpio_irq_open();
    ASSERT_NE(ctx, nullptr);
    gpio_irq_close(ctx);
    lines[I]["open_ro"] = {-ENOENT};
    EXPECT_EQ(gpio_irq_open(), nullptr);
    EXPECT_EQ(calls, "request " + I + "; error Failed to request named GPIO " + I + "; request " +
                         I + "; open_ro " + I + "; close " + I + "; free " + I + "; request " + I +
                         "; open_ro " + I + "; error Failed to RO open GPIO " + I + "; free " + I +
                         "; ");
}

/* Descriptors stand in for the value file: poll reports a pipe's write end
 * without a reader as POLLERR, its read end without a writer as POLLHUP only,
 * and out-of-band data on a stream socket as POLLPRI. */
TEST_F(Gpio, IrqPollReportsErrorAndPriorityEventsAsEdges)
{
    const std::string I = "decoder_interrupt_0";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    lines[I]["fd"] = {fds[1]};
    ugpio_t *ctx = gpio_irq_open();
    ASSERT_NE(ctx, nullptr);
    calls.clear();
    EXPECT_EQ(gpio_irq_poll(ctx, 0), 0) << "nothing pending: time-out";
    close(fds[0]);
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 1) << "an edge, acknowledged";
    lines[I]["get_value"] = {-EIO};
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 1) << "an edge even when the value can't be read";
    EXPECT_EQ(calls, "fd " + I + "; fd " + I + "; get_value " + I + "; fd " + I + "; get_value " +
                         I + "; error Failed to read GPIO " + I + "; ");
    close(fds[1]);

    ASSERT_EQ(pipe(fds), 0);
    close(fds[1]);
    lines[I]["fd"] = {fds[0]};
    calls.clear();
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 0) << "a hang-up is not an edge";
    EXPECT_EQ(calls, "fd " + I + "; ");
    close(fds[0]);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    lines[I]["fd"] = {fds[1]};
    if (send(fds[0], "!", 1, MSG_OOB) == 1) {
        EXPECT_EQ(gpio_irq_poll(ctx, 1000), 1);
    }
    close(fds[0]);
    close(fds[1]);
    gpio_irq_close(ctx);
}
