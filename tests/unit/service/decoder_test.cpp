/* The decoder object: creation order, what is programmed at start-up,
 * teardown of a partly built decoder, and the locked entry points. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "decoder.h"
#include "decoder_types.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "standins.h"
#include "tp28xx.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

class DecoderCreate : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        standins_reset();
        log_capture_start();
    }
    void TearDown() override
    {
        if (dec_ != nullptr)
            decoder_exit(dec_);
    }
    Decoder *dec_ = nullptr;
};

TEST_F(DecoderCreate, BringsTheHardwareUpInOrder)
{
    standins.config_auto[1] = 0;
    standins.config_type[1] = VT_1080P25;
    standins.config_standard[1] = VS_AHD;
    standins.capture_mode[2] = -110; /* the image control service did not answer */
    dec_ = decoder_create();
    ASSERT_NE(dec_, nullptr);

    EXPECT_THAT(
        standins.calls,
        ElementsAre("gpio_reset_decoder", "gpio_setup_irq", "tp28xx_create",
                    "encoder_events_create(4)", "overlay_init", "config_file_load",
                    "get_capture_mode_index(0)", "setup_channel(0)", "send_video_connected(0,0)",
                    "get_capture_mode_index(1)", "setup_channel(1)",
                    "set_video_standard(1,1,3,0,1)", "send_video_connected(1,0)",
                    "get_capture_mode_index(2)", "setup_channel(2)", "send_video_connected(2,0)",
                    "get_capture_mode_index(3)", "setup_channel(3)", "send_video_connected(3,0)"));
    for (int i = 0; i < 4; i++) {
        const Channel &c = dec_->channels[i];
        EXPECT_EQ(c.index, i);
        EXPECT_EQ(c.decoder, dec_);
        EXPECT_EQ(c.detected_type, -1);
        EXPECT_EQ(c.configured, 0) << "channel " << i;
        EXPECT_EQ(c.capture_mode_changed, 0);
    }
    EXPECT_EQ(dec_->channels[2].capture_mode, -110);
    EXPECT_EQ(dec_->channels[0].auto_mode, 1);
    EXPECT_EQ(dec_->channels[1].auto_mode, 0);
    EXPECT_EQ(dec_->channels[1].video_type, VT_1080P25);
}

TEST_F(DecoderCreate, WithoutAConfigurationFileEveryChannelSearches)
{
    standins.config_loads = false;
    /* What the table holds after the default file is written. */
    for (int i = 0; i < 4; i++)
        standins.config_auto[i] = 0;
    dec_ = decoder_create();
    ASSERT_NE(dec_, nullptr);
    EXPECT_EQ(calls_starting("config_file_create").size(), 1u);
    EXPECT_THAT(calls_starting("set_video_standard"), IsEmpty());
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(dec_->channels[i].auto_mode, 1);
}

TEST_F(DecoderCreate, ProgramsFixedFormatsAndSwitchedOffChannelsOnly)
{
    /* 0: fixed NTSC; 1: fixed with a marker type; 2: disabled in automatic
     * mode; 3: automatic. */
    standins.config_auto[0] = 0;
    standins.config_type[0] = VT_NTSC;
    standins.config_auto[1] = 0;
    standins.config_type[1] = VT_UNKNOWN;
    standins.config_auto[2] = 1;
    standins.config_type[2] = VT_DISABLED;
    standins.config_standard[2] = VS_DISABLED;
    standins.config_type[3] = VT_PAL;
    dec_ = decoder_create();
    ASSERT_NE(dec_, nullptr);
    EXPECT_THAT(calls_starting("set_video_standard"),
                ElementsAre("set_video_standard(0,3,9,0,1)", "set_video_standard(2,4,33,1,1)"));
    EXPECT_EQ(calls_starting("send_video_connected").size(), 4u);
}

TEST_F(DecoderCreate, FailedStartEventIsLoggedAndCreationGoesOn)
{
    standins.send_ok = false;
    dec_ = decoder_create();
    ASSERT_NE(dec_, nullptr);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(
            log_count(G_LOG_LEVEL_WARNING,
                      "Failed to send video connected event for channel " + std::to_string(i)),
            1u);
}

TEST_F(DecoderCreate, NoChipMeansNoDecoder)
{
    standins.chip_present = false;
    EXPECT_EQ(decoder_create(), nullptr);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "still no valid video source"), 1u);
    EXPECT_THAT(calls_starting("encoder_events_create"), IsEmpty());
}

TEST_F(DecoderCreate, MissingModuleTearsDownWhatWasBuilt)
{
    standins.overlay_ok = false;
    EXPECT_EQ(decoder_create(), nullptr);
    EXPECT_THAT(standins.calls,
                ElementsAre("gpio_reset_decoder", "gpio_setup_irq", "tp28xx_create",
                            "encoder_events_create(4)", "overlay_init", "overlay_deinit(null)",
                            "encoder_events_free(handle)", "tp28xx_close"));
}

TEST_F(DecoderCreate, SetupFailureOnThirdChannelAbandonsCreation)
{
    standins.setup_channel_fails_on = 2;
    /* The chip states of channels 0 and 1 are freed by the teardown; the
     * sanitizer build reports them if they leak. */
    EXPECT_EQ(decoder_create(), nullptr);
    EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "setup_channel failed for channel 2"), 1u);
    EXPECT_THAT(calls_starting("setup_channel"),
                ElementsAre("setup_channel(0)", "setup_channel(1)", "setup_channel(2)"));
    EXPECT_EQ(calls_starting("send_video_connected").size(), 2u);
    EXPECT_EQ(calls_starting("overlay_deinit(handle)").size(), 1u);
    EXPECT_EQ(calls_starting("encoder_events_free(handle)").size(), 1u);
    EXPECT_EQ(calls_starting("tp28xx_close").size(), 1u);
}

TEST_F(DecoderCreate, EnableIrqReportsFixedChannelsOnly)
{
    standins.config_auto[3] = 0;
    standins.config_type[3] = VT_PAL;
    dec_ = decoder_create();
    ASSERT_NE(dec_, nullptr);
    standins.calls.clear();
    decoder_enable_irq(dec_);
    EXPECT_THAT(standins.calls,
                ElementsAre("enable_irq(0,1)", "enable_irq(1,1)", "enable_irq(2,1)",
                            "enable_irq(3,1)", "video_status(3)", "set_channel_no_video(3,0)"));
}

TEST_F(DecoderCreate, LockedEntryPointsRefuseMissingPiecesAndCutHue)
{
    dec_ = decoder_create();
    ASSERT_NE(dec_, nullptr);
    Channel *c = &dec_->channels[1];

    EXPECT_EQ(decoder_set_hue(c, 0x1ff), 0);
    EXPECT_EQ(decoder_set_xoffset(c, -56), 0);
    EXPECT_EQ(decoder_set_saturation(c, 77), 0);
    ASSERT_EQ(standins.slot_values.size(), 3u);
    EXPECT_EQ(standins.slot_values[0], (std::pair<std::string, int64_t>{"set_hue", 0xff}));
    EXPECT_EQ(standins.slot_values[1], (std::pair<std::string, int64_t>{"set_xoffset", -56}));
    EXPECT_EQ(standins.slot_values[2], (std::pair<std::string, int64_t>{"set_saturation", 77}));

    EXPECT_EQ(decoder_set_brightness(nullptr, 1), -1);
    Channel orphan = {};
    EXPECT_EQ(decoder_set_contrast(&orphan, 1), -1);
    dec_->ops.set_sharpness = nullptr;
    EXPECT_EQ(decoder_set_sharpness(c, 1), -1);
    EXPECT_EQ(standins.slot_values.size(), 3u);
    /* The lock was left free each time. */
    EXPECT_TRUE(g_mutex_trylock(dec_->lock));
    g_mutex_unlock(dec_->lock);
}

TEST(DecoderExit, AssertsOnMissingDecoder)
{
    EXPECT_DEATH(decoder_exit(nullptr), "decoders/decoder.cpp.*dec");
}

} // namespace
