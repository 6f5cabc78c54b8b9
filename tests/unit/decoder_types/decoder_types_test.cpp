/* The video vocabulary: lookups, translations and the allowed combinations. */
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <tuple>

#include "decoder_types.h"
#include "log_capture.h"

namespace
{

constexpr bool TP2827 = true, TP2826 = false;

TEST(DecoderTypes, LookupQuirks)
{
    /* "none": the first of three pairs wins; exact texts only, null matches nothing. */
    const std::pair<const char *, int32_t> texts[] = {
        {"none", 30}, {"disabled", 33}, {"1440p25", 25}, {"PAL", 32},
        {"pal ", 32}, {"", 32},         {nullptr, 32}};
    for (const auto &[text, type] : texts)
        EXPECT_EQ(video_type_from_string(text), type) << (text ? text : "(null)");
    for (const auto &[type, text] : {std::pair{8, "pal"}, {32, "none"}, {14, "none"}, {-1, "none"}})
        EXPECT_STREQ(video_type_to_string(type), text) << type;
    EXPECT_EQ(video_standard_from_string(nullptr), VS_NONE);
    /* Negative values are compared unsigned: out of range like 6. */
    for (int32_t bad : {-1, INT32_MIN, 6})
        EXPECT_STREQ(video_standard_to_string(bad), "none") << bad;
    for (const auto &[cs, text] : {std::pair{-2, "none"}, {-1, "none"}, {7, "HDTV4K"}, {8, "none"}})
        EXPECT_STREQ(capture_standard_to_string(cs), text) << cs;
}

TEST(DecoderTypes, MainsFrequencyAndValidTypes)
{
    /* Exactly these five formats belong to the 50 Hz family. */
    const std::set<int32_t> fifty = {VT_1080P25, VT_720P25, VT_PAL, VT_4K12, VT_1440P25};
    for (int32_t t = -40; t <= 70; t++) {
        EXPECT_EQ(video_type_to_mains_frequency(t), fifty.count(t) ? 50 : 60) << t;
        EXPECT_EQ(video_type_is_valid(t), t >= 0 && t <= 29) << t;
    }
}

TEST(DecoderTypes, CaptureModeFallsBackToPal)
{
    log_capture_start();
    /* A switched-off channel maps to PAL without a word. */
    const std::pair<int32_t, int32_t> modes[] = {
        {VT_1080P30, CM_1080P}, {VT_4K12, CM_4K}, {16, CM_QHD}, {VT_DISABLED, CM_PAL}};
    for (const auto &[type, mode] : modes)
        EXPECT_EQ(video_type_to_capture_mode(type), mode) << type;
    EXPECT_EQ(capture_mode_to_capture_standard(CM_4K), CS_HDTV4K);
    EXPECT_TRUE(log_capture_messages().empty());
    for (int32_t type : {int32_t(VT_AUTO), 13, -3}) {
        EXPECT_EQ(video_type_to_capture_mode(type), CM_PAL) << type;
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Videotype " + std::to_string(type) +
                                                  " not supported, defaulting to PAL"),
                  1u);
    }
    /* A negative error code from reading the mode lands here too. */
    for (int32_t bad : {-5, 0, 7}) {
        EXPECT_EQ(capture_mode_to_capture_standard(bad), CS_PAL);
        EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Unsupported capturemode " + std::to_string(bad) +
                                                     ", defaulting to PAL"),
                  1u);
    }
    EXPECT_EQ(log_capture_messages().size(), 6u);
}

TEST(DecoderTypes, ValidCombos)
{
    /* 0 may be set, -1 rejects the standard, -ENOENT the resolution. */
    const struct {
        bool chip;
        int32_t standard, resolution, channel, expected;
    } combos[] = {
        /* clang-format off */
        /* TP2826: SD over CVBS, pairing before chip; UHD: channel, CVBS, chip. */
        {TP2826, VS_CVBS, VT_NTSC, 3, 0}, {TP2826, VS_TVI, VT_720P25, 0, -ENOENT},
        {TP2826, VS_CVI, VT_1440P15, 2, -ENOENT}, {TP2826, VS_TVI, VT_PAL, 0, -1},
        {TP2826, VS_CVBS, VT_1080P30, 0, -1}, {TP2826, VS_CVBS, VT_4K12, 0, -1},
        {TP2826, VS_CVBS, VT_4K12, 2, -ENOENT},
        /* TP2827: UHD only on channel 0. */
        {TP2827, VS_AHD, VT_NTSC, 3, -1}, {TP2827, VS_CVI, VT_4K15, 1, -ENOENT},
        {TP2827, VS_CVI, VT_4K15, 0, 0}, {TP2827, VS_CVBS, VT_1440P30, 0, -1},
        {TP2827, VS_CVBS, VT_1440P30, 3, -ENOENT}, {TP2827, VS_TVI, VT_1440P15, 2, 0},
        {TP2827, VS_TVI, 0, 1, 0}, {TP2827, VS_TVI, VT_DISABLED, 0, -ENOENT},
        /* On both chips the standard is judged before the resolution. */
        {TP2827, VS_NONE, VT_UNKNOWN, 0, -1}, {TP2827, INT32_MIN, -1, 1, -1},
        {TP2826, 6, VT_DISABLED, 1, -1}, {TP2826, -1, VT_1080P30, 0, -1},
        /* clang-format on */
    };
    for (const auto &c : combos)
        EXPECT_EQ(is_valid_combo(c.chip, c.standard, c.resolution, c.channel), c.expected)
            << (c.chip ? "TP2827" : "TP2826") << " standard " << c.standard << " resolution "
            << c.resolution << " channel " << c.channel;
    EXPECT_DEATH(is_valid_combo(TP2827, VS_TVI, VT_1080P30, 4),
                 "decoders/decoder_types\\.cpp:.*is_valid_combo.*assertion failed: "
                 "\\(channel >= 0 && channel < MAX_SOURCES\\)");
}

} // namespace
