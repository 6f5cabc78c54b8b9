#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoder_events.h"
#include "event_producer_standin.h"
#include "korvi_log.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace
{

struct LogLine {
    guint level;
    std::string message;
};
std::vector<LogLine> logged;

void capture_log(const gchar *, GLogLevelFlags level, const gchar *message, gpointer)
{
    logged.push_back({static_cast<guint>(level & G_LOG_LEVEL_MASK), message});
}

std::vector<std::string> errors()
{
    std::vector<std::string> out;
    for (const auto &line : logged) {
        EXPECT_EQ(line.level, static_cast<guint>(KORVI_LOG_LEVEL_ERROR)) << line.message;
        out.push_back(line.message);
    }
    return out;
}

/* The calls that declare channel number n. */
std::vector<std::string> declaration_calls(unsigned n)
{
    return {
        "declaration_new NULL",
        "add_key_value topic0 s:VideoEncoder 4",
        "set_name_space topic0 tns1",
        "set_nice_names topic0 - Video encoder",
        "add_key_value topic1 s:Connections 4",
        "set_name_space topic1 tnskorvi",
        "set_nice_names topic1 - Video connected",
        "add_key_value channel u:" + std::to_string(n) + " 1",
        "set_nice_names channel Channel -",
        "add_key_tag channel onvif-source",
        "add_key connected 2",
        "set_nice_names connected Connected -",
        "add_key_tag connected onvif-data",
        "add_key_tag connected property-state",
        "set_property - - 0",
        "declare",
        "declaration_free",
    };
}

class EncoderEventsTest : public testing::Test
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
        EXPECT_EQ(standin::live_producers, 0);
        EXPECT_EQ(standin::live_declarations, 0);
        EXPECT_EQ(standin::live_events, 0);
    }
};

TEST_F(EncoderEventsTest, CreationDeclaresEveryChannelInOrder)
{
    EncoderEvents *events = encoder_events_create(4);
    ASSERT_NE(events, nullptr);
    std::vector<std::string> expected = {"producer_new vidhostd"};
    for (unsigned n = 1; n <= 4; n++) {
        auto calls = declaration_calls(n);
        expected.insert(expected.end(), calls.begin(), calls.end());
    }
    EXPECT_THAT(standin::calls, ElementsAreArray(expected));
    EXPECT_THAT(errors(), IsEmpty());

    standin::calls.clear();
    encoder_events_free(events);
    EXPECT_THAT(standin::calls, ElementsAre("producer_free"));
}

TEST_F(EncoderEventsTest, CreationWithoutChannelsHasOnlyTheProducer)
{
    EncoderEvents *events = encoder_events_create(0);
    ASSERT_NE(events, nullptr);
    EXPECT_THAT(standin::calls, ElementsAre("producer_new vidhostd"));
    encoder_events_free(events);
}

TEST_F(EncoderEventsTest, CreationFailsWithoutProducer)
{
    standin::producer_new_fails = true;
    EXPECT_EQ(encoder_events_create(4), nullptr);
    EXPECT_THAT(standin::calls, ElementsAre("producer_new vidhostd"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(EncoderEventsTest, FailedDeclarationLeavesTheOtherChannels)
{
    standin::failing_declarations = {2};
    EncoderEvents *events = encoder_events_create(3);
    ASSERT_NE(events, nullptr);
    EXPECT_THAT(errors(), ElementsAre("Failed to declare event for channel 2"));
    EXPECT_EQ(standin::calls_starting("declare").size(), 2u);
    EXPECT_EQ(standin::channel_of_id[101], 1u);
    EXPECT_EQ(standin::channel_of_id[102], 3u);

    /* The channel without a declaration prepares from -1; the stand-in
     * refuses it like the library does. */
    standin::unpreparable_ids = {-1};
    standin::calls.clear();
    logged.clear();
    EXPECT_EQ(encoder_events_send_video_connected(events, 1, TRUE), 0);
    EXPECT_THAT(standin::calls, ElementsAre("prepare_event -1"));
    EXPECT_THAT(errors(), ElementsAre("Failed to create Video Connected event"));

    /* Channel index 2 still sends on its own declaration. */
    standin::calls.clear();
    EXPECT_NE(encoder_events_send_video_connected(events, 2, TRUE), 0);
    EXPECT_THAT(standin::calls_starting("prepare_event"), ElementsAre("prepare_event 102"));
    encoder_events_free(events);
}

TEST_F(EncoderEventsTest, SendingUsesTheChannelsDeclaration)
{
    EncoderEvents *events = encoder_events_create(4);
    ASSERT_NE(events, nullptr);
    standin::calls.clear();

    EXPECT_NE(encoder_events_send_video_connected(events, 2, TRUE), 0);
    EXPECT_THAT(standin::calls, ElementsAre("prepare_event 103", "set_value connected 1",
                                            "send_event", "event_free"));
    EXPECT_NE(encoder_events_send_video_connected(events, 2, FALSE), 0);
    EXPECT_NE(encoder_events_send_video_connected(events, 0, TRUE), 0);

    ASSERT_EQ(standin::sent.size(), 3u);
    EXPECT_EQ(standin::channel_of_id[standin::sent[0].id], 3u);
    EXPECT_EQ(standin::sent[0].connected, 1);
    EXPECT_EQ(standin::channel_of_id[standin::sent[1].id], 3u);
    EXPECT_EQ(standin::sent[1].connected, 0);
    EXPECT_EQ(standin::channel_of_id[standin::sent[2].id], 1u);
    EXPECT_EQ(standin::sent[2].connected, 1);
    EXPECT_THAT(errors(), IsEmpty());
    encoder_events_free(events);
}

TEST_F(EncoderEventsTest, DeclaredIdentifierIsKeptWhateverItsValue)
{
    standin::declare_results = {{1, 0}, {2, -7}};
    EncoderEvents *events = encoder_events_create(2);
    ASSERT_NE(events, nullptr);
    standin::calls.clear();
    encoder_events_send_video_connected(events, 0, FALSE);
    encoder_events_send_video_connected(events, 1, FALSE);
    EXPECT_THAT(standin::calls_starting("prepare_event"),
                ElementsAre("prepare_event 0", "prepare_event -7"));
    encoder_events_free(events);
}

TEST_F(EncoderEventsTest, SendFailures)
{
    EncoderEvents *events = encoder_events_create(1);
    ASSERT_NE(events, nullptr);

    standin::send_result = FALSE;
    standin::send_error = "The name is not activatable";
    EXPECT_EQ(encoder_events_send_video_connected(events, 0, TRUE), 0);
    EXPECT_THAT(errors(),
                ElementsAre("Failed to send Video Connected event: The name is not activatable"));
    EXPECT_THAT(standin::calls_starting("event_free"), ElementsAre("event_free"));

    /* A failure without a GError is returned without a message. */
    logged.clear();
    standin::send_error.clear();
    EXPECT_EQ(encoder_events_send_video_connected(events, 0, TRUE), 0);
    EXPECT_THAT(errors(), IsEmpty());

    /* An event that can't be prepared is neither set nor sent. */
    standin::calls.clear();
    standin::unpreparable_ids = {101};
    EXPECT_EQ(encoder_events_send_video_connected(events, 0, TRUE), 0);
    EXPECT_THAT(standin::calls, ElementsAre("prepare_event 101"));
    EXPECT_THAT(errors(), ElementsAre("Failed to create Video Connected event"));
    encoder_events_free(events);
}

TEST_F(EncoderEventsTest, FreeingNothing)
{
    encoder_events_free(nullptr);
    EXPECT_THAT(standin::calls, IsEmpty());
}

using EncoderEventsDeathTest = EncoderEventsTest;

TEST_F(EncoderEventsDeathTest, ProgrammingErrorsStopTheProcess)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(encoder_events_create(5),
                 "encoder_events\\.cpp:.*assertion failed: \\(nbr_channels <= MAX_SOURCES\\)");

    EncoderEvents *events = encoder_events_create(4);
    ASSERT_NE(events, nullptr);
    EXPECT_DEATH(encoder_events_send_video_connected(events, 4, TRUE),
                 "encoder_events\\.cpp:.*assertion failed: \\(FALSE\\)");
    EXPECT_DEATH(encoder_events_send_video_connected(nullptr, 0, TRUE),
                 "assertion failed: \\(FALSE\\)");
    encoder_events_free(events);
}

} // namespace
