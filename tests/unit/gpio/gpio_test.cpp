#include <cerrno>
#include <climits>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "gpio.h"
#include "korvi_log.h"
#include "ugpio_standin.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace
{

struct LogLine {
    guint level; /* the daemon's error level is outside the enumeration */
    std::string message;
};

std::vector<LogLine> logged;

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    logged.push_back({static_cast<guint>(level & G_LOG_LEVEL_MASK), message});
}

/* The messages logged at the daemon's error level. */
std::vector<std::string> errors()
{
    std::vector<std::string> out;
    for (const auto &line : logged) {
        EXPECT_EQ(line.level, static_cast<guint>(KORVI_LOG_LEVEL_ERROR)) << line.message;
        out.push_back(line.message);
    }
    return out;
}

std::vector<std::string> repeat(const std::vector<std::string> &block, int times)
{
    std::vector<std::string> out;
    for (int i = 0; i < times; i++)
        out.insert(out.end(), block.begin(), block.end());
    return out;
}

std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts)
{
    std::vector<std::string> out;
    for (const auto &part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

const std::string RETRY_SLEEP = "usleep 500000";
const std::string PULSE_SLEEP = "usleep 10000";

class Gpio : public testing::Test
{
  protected:
    void SetUp() override
    {
        standin::reset();
        logged.clear();
        g_log_set_default_handler(capture_log, nullptr);
    }
    void TearDown() override
    {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        EXPECT_EQ(standin::live_handles, 0) << "a line handle was not freed";
    }
};

/* ---- reset line ---- */

TEST_F(Gpio, ResetWriteUsesTheLineAndReleasesIt)
{
    standin::lines["decoder_reset_0"];
    EXPECT_EQ(gpio_reset_write(1), 0);
    EXPECT_THAT(standin::calls, ElementsAre("request decoder_reset_0", "full_open decoder_reset_0",
                                            "set_value decoder_reset_0 1", "close decoder_reset_0",
                                            "free decoder_reset_0"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, ResetLineAvailableAtTheThirdAttemptIsUsedSilently)
{
    standin::lines["decoder_reset_0"].request_failures = 2;
    standin::lines["decoder_reset_0"].full_open_results = {-EBUSY, 1};
    EXPECT_EQ(gpio_reset_write(0), 0);
    EXPECT_THAT(standin::calls,
                ElementsAre("request decoder_reset_0", RETRY_SLEEP, "request decoder_reset_0",
                            RETRY_SLEEP, "request decoder_reset_0", "full_open decoder_reset_0",
                            RETRY_SLEEP, "full_open decoder_reset_0", RETRY_SLEEP,
                            "full_open decoder_reset_0", "set_value decoder_reset_0 0",
                            "close decoder_reset_0", "free decoder_reset_0"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, ResetLineNeverAvailableGivesUpAfterTenRequests)
{
    standin::lines["decoder_reset_0"].request_failures = -1;
    EXPECT_EQ(gpio_reset_write(1), -1);
    auto expected = repeat({"request decoder_reset_0", RETRY_SLEEP}, 10);
    expected.pop_back(); /* no sleep after the last attempt */
    EXPECT_THAT(standin::calls, ElementsAreArray(expected));
    EXPECT_THAT(errors(), ElementsAre("Failed to request named GPIO decoder_reset_0"));
}

TEST_F(Gpio, ResetLineThatNeverOpensIsReleased)
{
    /* Any result other than 0 is a failed open for the reset line, a positive
     * one included. */
    standin::lines["decoder_reset_0"].full_open_results = {1, -EIO, 1, 1, 1, 1, 1, 1, 1, 1, 0};
    EXPECT_EQ(gpio_reset_write(1), -1);
    auto opens = repeat({"full_open decoder_reset_0", RETRY_SLEEP}, 10);
    opens.pop_back();
    EXPECT_THAT(standin::calls,
                ElementsAreArray(concat({{"request decoder_reset_0"},
                                         opens,
                                         {"close decoder_reset_0", "free decoder_reset_0"}})));
    EXPECT_THAT(errors(), ElementsAre("Failed to full open GPIO decoder_reset_0"));
}

TEST_F(Gpio, ResetValueThatCannotBeWrittenIsReported)
{
    standin::lines["decoder_reset_0"].set_value_result = -EIO;
    EXPECT_EQ(gpio_reset_write(1), -1);
    EXPECT_THAT(standin::calls_starting("close"), ElementsAre("close decoder_reset_0"));
    EXPECT_THAT(errors(), ElementsAre("Failed to set value 1 on GPIO decoder_reset_0"));

    /* A positive result is a failure too. */
    standin::reset();
    logged.clear();
    standin::lines["decoder_reset_0"].set_value_result = 1;
    EXPECT_EQ(gpio_reset_write(0), -1);
    EXPECT_THAT(errors(), ElementsAre("Failed to set value 0 on GPIO decoder_reset_0"));
}

TEST_F(Gpio, ResetPulseWritesOneThenZeroWithTenMillisecondSleeps)
{
    standin::lines["decoder_reset_0"];
    EXPECT_EQ(gpio_reset_decoder(), 0);
    EXPECT_THAT(standin::calls_starting("set_value"),
                ElementsAre("set_value decoder_reset_0 1", "set_value decoder_reset_0 0"));
    /* Each write is a request/open/write/release of its own, followed by a sleep. */
    std::vector<std::string> write1 = {"request decoder_reset_0",     "full_open decoder_reset_0",
                                       "set_value decoder_reset_0 1", "close decoder_reset_0",
                                       "free decoder_reset_0",        PULSE_SLEEP};
    std::vector<std::string> write0 = write1;
    write0[2] = "set_value decoder_reset_0 0";
    EXPECT_THAT(standin::calls, ElementsAreArray(concat({write1, write0})));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, ResetPulseOnAnUnwritableLineReportsBothWritesAndStillSleeps)
{
    standin::lines["decoder_reset_0"].set_value_result = -EPERM;
    EXPECT_EQ(gpio_reset_decoder(), -1);
    EXPECT_THAT(errors(), ElementsAre("Failed to set value 1 on GPIO decoder_reset_0",
                                      "FAILED: write 1 to reset GPIO",
                                      "Failed to set value 0 on GPIO decoder_reset_0",
                                      "FAILED: write 0 to reset GPIO"));
    EXPECT_THAT(standin::calls_starting("usleep"), ElementsAre(PULSE_SLEEP, PULSE_SLEEP));
    EXPECT_THAT(standin::calls_starting("set_value"),
                ElementsAre("set_value decoder_reset_0 1", "set_value decoder_reset_0 0"));
}

TEST_F(Gpio, ResetPulseWithoutTheLineRetriesEachWrite)
{
    EXPECT_EQ(gpio_reset_decoder(), -1);
    auto requests = repeat({"request decoder_reset_0", RETRY_SLEEP}, 10);
    requests.pop_back();
    EXPECT_THAT(standin::calls,
                ElementsAreArray(concat({requests, {PULSE_SLEEP}, requests, {PULSE_SLEEP}})));
    EXPECT_THAT(errors(), ElementsAre("Failed to request named GPIO decoder_reset_0",
                                      "FAILED: write 1 to reset GPIO",
                                      "Failed to request named GPIO decoder_reset_0",
                                      "FAILED: write 0 to reset GPIO"));
}

TEST_F(Gpio, ResetPulseWithOnlyTheSecondWriteFailing)
{
    /* The first write succeeds; the line then disappears. */
    standin::lines["decoder_reset_0"].full_open_results = {0,       -ENOENT, -ENOENT, -ENOENT,
                                                           -ENOENT, -ENOENT, -ENOENT, -ENOENT,
                                                           -ENOENT, -ENOENT, -ENOENT};
    EXPECT_EQ(gpio_reset_decoder(), -1);
    EXPECT_THAT(errors(), ElementsAre("Failed to full open GPIO decoder_reset_0",
                                      "FAILED: write 0 to reset GPIO"));
    EXPECT_THAT(standin::calls_starting("set_value"), ElementsAre("set_value decoder_reset_0 1"));
}

/* ---- termination lines ---- */

TEST_F(Gpio, TerminationChannelOutOfRangeTouchesNoLine)
{
    for (int i = 1; i <= 4; i++)
        standin::lines["video_term_" + std::to_string(i)];
    for (int channel : {4, 5, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(gpio_set_video_termination(channel, 1), -1) << channel;
    EXPECT_THAT(standin::calls, IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, TerminationLinesAreNumberedFromOne)
{
    for (int i = 1; i <= 4; i++)
        standin::lines["video_term_" + std::to_string(i)];
    EXPECT_EQ(gpio_set_video_termination(0, 1), 0);
    EXPECT_THAT(standin::calls,
                ElementsAre("request video_term_1", "full_open video_term_1",
                            "set_value video_term_1 1", "close video_term_1", "free video_term_1"));
    standin::calls.clear();
    /* The value reaches the library unchanged. */
    EXPECT_EQ(gpio_set_video_termination(3, 7), 0);
    EXPECT_THAT(standin::calls,
                ElementsAre("request video_term_4", "full_open video_term_4",
                            "set_value video_term_4 7", "close video_term_4", "free video_term_4"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, TerminationLineIsRequestedOnce)
{
    standin::lines["video_term_2"].request_failures = 1;
    EXPECT_EQ(gpio_set_video_termination(1, 0), -1);
    EXPECT_THAT(standin::calls, ElementsAre("request video_term_2"));
    EXPECT_THAT(errors(), ElementsAre("Failed to request named GPIO video_term_2"));
}

TEST_F(Gpio, TerminationOpenFailsOnlyOnANegativeResult)
{
    standin::lines["video_term_3"].full_open_results = {1};
    EXPECT_EQ(gpio_set_video_termination(2, 1), 0);
    EXPECT_THAT(errors(), IsEmpty());

    standin::calls.clear();
    standin::lines["video_term_3"].full_open_results = {-EACCES, 0};
    EXPECT_EQ(gpio_set_video_termination(2, 1), -1);
    EXPECT_THAT(standin::calls, ElementsAre("request video_term_3", "full_open video_term_3",
                                            "close video_term_3", "free video_term_3"));
    EXPECT_THAT(errors(), ElementsAre("Failed to full open GPIO video_term_3"));
}

TEST_F(Gpio, TerminationWriteFailureIsReportedWithValueAndName)
{
    standin::lines["video_term_2"].set_value_result = -EIO;
    EXPECT_EQ(gpio_set_video_termination(1, 1), -1);
    EXPECT_THAT(standin::calls_starting("close"), ElementsAre("close video_term_2"));
    EXPECT_THAT(errors(), ElementsAre("Failed to set value 1 on GPIO video_term_2"));
}

/* ---- interrupt line set-up ---- */

TEST_F(Gpio, IrqSetupSelectsTheEdgeAndReleasesTheLine)
{
    standin::lines["decoder_interrupt_0"];
    EXPECT_EQ(gpio_setup_irq(), 0);
    EXPECT_THAT(standin::calls,
                ElementsAre("request decoder_interrupt_0", "full_open decoder_interrupt_0",
                            "set_edge decoder_interrupt_0 8", "close decoder_interrupt_0",
                            "free decoder_interrupt_0"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, IrqSetupEdgeFailure)
{
    standin::lines["decoder_interrupt_0"].set_edge_result = 0;
    EXPECT_EQ(gpio_setup_irq(), -1);
    EXPECT_THAT(standin::calls_starting("free"), ElementsAre("free decoder_interrupt_0"));
    EXPECT_THAT(errors(), ElementsAre("Failed to set IRQ edge on decoder_interrupt_0"));

    /* Any non-zero result is success, a negative one included. */
    standin::reset();
    logged.clear();
    standin::lines["decoder_interrupt_0"].set_edge_result = -1;
    EXPECT_EQ(gpio_setup_irq(), 0);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Gpio, IrqLineLateOrMissing)
{
    standin::lines["decoder_interrupt_0"].request_failures = 2;
    standin::lines["decoder_interrupt_0"].full_open_results = {-EAGAIN, -EAGAIN};
    EXPECT_EQ(gpio_setup_irq(), 0);
    EXPECT_EQ(standin::calls_starting("request").size(), 3u);
    EXPECT_EQ(standin::calls_starting("full_open").size(), 3u);
    EXPECT_EQ(standin::calls_starting("usleep").size(), 4u);
    EXPECT_THAT(errors(), IsEmpty());

    standin::reset();
    logged.clear();
    EXPECT_EQ(gpio_setup_irq(), -1);
    EXPECT_EQ(standin::calls_starting("request").size(), 10u);
    EXPECT_EQ(standin::calls_starting("usleep").size(), 9u);
    EXPECT_THAT(errors(), ElementsAre("Failed to request named GPIO decoder_interrupt_0"));

    standin::reset();
    logged.clear();
    standin::lines["decoder_interrupt_0"].full_open_results.assign(10, -EIO);
    EXPECT_EQ(gpio_setup_irq(), -1);
    EXPECT_EQ(standin::calls_starting("full_open").size(), 10u);
    EXPECT_THAT(standin::calls_starting("set_edge"), IsEmpty());
    EXPECT_THAT(standin::calls_starting("close"), ElementsAre("close decoder_interrupt_0"));
    EXPECT_THAT(errors(), ElementsAre("Failed to full open GPIO decoder_interrupt_0"));
}

/* ---- board identity ---- */

TEST_F(Gpio, CpuidLinePresenceAlone)
{
    EXPECT_EQ(gpio_has_cpuid_bit0(), 0);
    EXPECT_THAT(standin::calls, ElementsAre("request cpuid_bit0"));

    standin::calls.clear();
    standin::lines["cpuid_bit0"];
    EXPECT_EQ(gpio_has_cpuid_bit0(), 1);
    EXPECT_THAT(standin::calls, ElementsAre("request cpuid_bit0", "free cpuid_bit0"));
    EXPECT_THAT(errors(), IsEmpty());
}

/* ---- polling handle ---- */

TEST_F(Gpio, IrqOpenIsReadOnlyAndSingleAttempt)
{
    standin::lines["decoder_interrupt_0"];
    ugpio_t *ctx = gpio_irq_open();
    ASSERT_NE(ctx, nullptr);
    EXPECT_THAT(standin::calls,
                ElementsAre("request decoder_interrupt_0", "open_ro decoder_interrupt_0"));
    gpio_irq_close(ctx);
    EXPECT_THAT(standin::calls_starting("close"), ElementsAre("close decoder_interrupt_0"));

    standin::calls.clear();
    standin::lines["decoder_interrupt_0"].request_failures = 1;
    EXPECT_EQ(gpio_irq_open(), nullptr);
    EXPECT_THAT(standin::calls, ElementsAre("request decoder_interrupt_0"));
    EXPECT_THAT(errors(), ElementsAre("Failed to request named GPIO decoder_interrupt_0"));

    standin::calls.clear();
    logged.clear();
    standin::lines["decoder_interrupt_0"].open_ro_result = -ENOENT;
    EXPECT_EQ(gpio_irq_open(), nullptr);
    EXPECT_THAT(standin::calls_starting("free"), ElementsAre("free decoder_interrupt_0"));
    EXPECT_THAT(errors(), ElementsAre("Failed to RO open GPIO decoder_interrupt_0"));
}

TEST_F(Gpio, IrqCloseWithoutHandleDoesNothing)
{
    gpio_irq_close(nullptr);
    EXPECT_THAT(standin::calls, IsEmpty());
}

/* Descriptors that poll(2) reports as the value file would. */
class GpioPoll : public Gpio
{
  protected:
    void SetUp() override
    {
        Gpio::SetUp();
        ASSERT_EQ(pipe(pipe_fds), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sock_fds), 0);
    }
    void TearDown() override
    {
        for (int fd : {pipe_fds[0], pipe_fds[1], sock_fds[0], sock_fds[1]})
            if (fd >= 0)
                close(fd);
        Gpio::TearDown();
    }
    ugpio_t *open_with_fd(int fd)
    {
        standin::lines["decoder_interrupt_0"].fd = fd;
        ugpio_t *ctx = gpio_irq_open();
        standin::calls.clear();
        return ctx;
    }
    int pipe_fds[2] = {-1, -1};
    int sock_fds[2] = {-1, -1};
};

TEST_F(GpioPoll, TimeOutWithoutEdge)
{
    /* A pipe's write end with its reader present has nothing to report. */
    ugpio_t *ctx = open_with_fd(pipe_fds[1]);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(gpio_irq_poll(ctx, 0), 0);
    EXPECT_EQ(gpio_irq_poll(ctx, 20), 0);
    EXPECT_THAT(standin::calls_starting("get_value"), IsEmpty());
    gpio_irq_close(ctx);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(GpioPoll, ErrorEventIsAnEdgeAndIsAcknowledged)
{
    /* Without a reader the write end reports POLLERR. */
    close(pipe_fds[0]);
    pipe_fds[0] = -1;
    ugpio_t *ctx = open_with_fd(pipe_fds[1]);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 1);
    EXPECT_THAT(standin::calls,
                ElementsAre("fd decoder_interrupt_0", "get_value decoder_interrupt_0"));
    EXPECT_THAT(errors(), IsEmpty());

    /* An edge whose value can't be read back is still an edge. */
    standin::lines["decoder_interrupt_0"].get_value_result = -EIO;
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 1);
    EXPECT_THAT(errors(), ElementsAre("Failed to read GPIO decoder_interrupt_0"));
    gpio_irq_close(ctx);
}

TEST_F(GpioPoll, PriorityEventIsAnEdge)
{
    /* Out-of-band data on a stream socket is reported as POLLPRI. */
    if (send(sock_fds[0], "!", 1, MSG_OOB) != 1)
        GTEST_SKIP() << "no out-of-band data on this kernel's Unix sockets";
    ugpio_t *ctx = open_with_fd(sock_fds[1]);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 1);
    EXPECT_THAT(standin::calls_starting("get_value"), ElementsAre("get_value decoder_interrupt_0"));
    gpio_irq_close(ctx);
}

TEST_F(GpioPoll, OtherEventsAreNotEdges)
{
    /* A pipe's read end without writers reports only POLLHUP. */
    close(pipe_fds[1]);
    pipe_fds[1] = -1;
    ugpio_t *ctx = open_with_fd(pipe_fds[0]);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(gpio_irq_poll(ctx, 1000), 0);
    EXPECT_THAT(standin::calls_starting("get_value"), IsEmpty());

    /* A descriptor poll rejects (POLLNVAL) is not an edge either. */
    standin::lines["decoder_interrupt_0"].fd = 1000000;
    EXPECT_EQ(gpio_irq_poll(ctx, 0), 0);
    EXPECT_THAT(standin::calls_starting("get_value"), IsEmpty());
    gpio_irq_close(ctx);
}

TEST(GpioDeathTest, PollWithoutHandleStopsTheProcess)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(gpio_irq_poll(nullptr, 0), "gpio\\.cpp:[0-9]+:.*gpio_irq_poll.*\\(ctx\\)");
}

} // namespace
