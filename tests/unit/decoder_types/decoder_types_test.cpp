/* The video vocabulary: texts, capture-pipeline translations and the rules for
 * which standard, resolution and channel go together on each chip. */
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <tuple>

#include "decoder_types.h"
#include "log_capture.h"

namespace
{

constexpr bool TP2827 = true, TP2826 = false;

TEST(DecoderTypes, TextLookups)
{
    /* Three markers share "none": the first pair wins. Texts are compared
     * exactly; a null text matches nothing. */
    const std::pair<const char *, int32_t> from_text[] = {
        {"pal", 8},     {"ntsc", 9},     {"720p25", 5},    {"720p30", 4},   {"1080p25", 3},
        {"1080p30", 2}, {"1440p15", 24}, {"1440p25", 25},  {"1440p30", 26}, {"4k12", 10},
        {"4k15", 11},   {"none", 30},    {"disabled", 33}, {"PAL", 32},     {"pal ", 32},
        {"", 32},       {nullptr, 32}};
    for (const auto &[text, type] : from_text)
        EXPECT_EQ(video_type_from_string(text), type) << (text ? text : "(null)");
    const std::pair<int32_t, const char *> to_text[] = {
        {8, "pal"}, {26, "1440p30"}, {31, "none"}, {32, "none"}, {14, "none"}, {-1, "none"}};
    for (const auto &[type, text] : to_text)
        EXPECT_STREQ(video_type_to_string(type), text) << type;

    const char *const standards[] = {"tvi", "ahd", "cvi", "cvbs", "disabled", "none"};
    for (int32_t i = 0; i < 6; i++) {
        EXPECT_STREQ(video_standard_to_string(i), standards[i]);
        EXPECT_EQ(video_standard_from_string(standards[i]), i);
    }
    EXPECT_EQ(video_standard_from_string("CVBS"), VS_NONE);
    EXPECT_EQ(video_standard_from_string(nullptr), VS_NONE);
    /* Negative standards are compared unsigned: out of range like 6. */
    for (int32_t bad : {-1, INT32_MIN, 6})
        EXPECT_STREQ(video_standard_to_string(bad), "none") << bad;

    const char *const captures[] = {"none",      "PAL",      "NTSC",    "HDTV720p", "HDTV1080i",
                                    "HDTV1080p", "HDV1080i", "HDTVQHD", "HDTV4K"};
    for (int32_t cs = -2; cs <= 8; cs++)
        EXPECT_STREQ(capture_standard_to_string(cs),
                     cs >= -1 && cs <= 7 ? captures[cs + 1] : "none")
            << cs;
}

TEST(DecoderTypes, PerTypeTranslations)
{
    /* type, capture standard, frame rate; rows 2 to 26 and around them */
    const std::tuple<int32_t, int32_t, double> rows[] = {
        {1, CS_NONE, 20.0},    {2, CS_HDTV1080P, 30.0}, {5, CS_HDTV720P, 25.0},
        {6, CS_NONE, 20.0},    {8, CS_PAL, 25.0},       {9, CS_NTSC, 30.0},
        {10, CS_HDTV4K, 12.5}, {11, CS_HDTV4K, 15.0},   {14, CS_HDTVQHD, 20.0},
        {18, CS_NONE, 20.0},   {24, CS_HDTVQHD, 15.0},  {26, CS_HDTVQHD, 30.0},
        {27, CS_NONE, 20.0},   {-1, CS_NONE, 20.0}};
    for (const auto &[type, capture_standard, frame_rate] : rows) {
        EXPECT_EQ(video_type_to_capture_standard(type), capture_standard) << type;
        EXPECT_DOUBLE_EQ(video_type_to_frame_rate(type), frame_rate) << type;
    }
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
    const std::pair<int32_t, int32_t> modes[] = {{VT_1080P30, CM_1080P}, {VT_720P25, CM_720P},
                                                 {VT_NTSC, CM_NTSC},     {VT_4K12, CM_4K},
                                                 {16, CM_QHD},           {VT_DISABLED, CM_PAL}};
    for (const auto &[type, mode] : modes)
        EXPECT_EQ(video_type_to_capture_mode(type), mode) << type;
    EXPECT_TRUE(log_capture_messages().empty());
    for (int32_t type : {int32_t(VT_AUTO), 13, -3}) {
        log_capture_clear();
        EXPECT_EQ(video_type_to_capture_mode(type), CM_PAL) << type;
        EXPECT_EQ(log_capture_messages().size(), 1u) << type;
        EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Videotype " + std::to_string(type) +
                                                  " not supported, defaulting to PAL"),
                  1u);
    }

    const int32_t standards[] = {CS_PAL, CS_NTSC, CS_HDTV1080P, CS_HDTV720P, CS_HDTV4K, CS_HDTVQHD};
    log_capture_clear();
    for (int32_t mode = 1; mode <= 6; mode++)
        EXPECT_EQ(capture_mode_to_capture_standard(mode), standards[mode - 1]) << mode;
    EXPECT_TRUE(log_capture_messages().empty());
    /* A negative error code from reading the mode lands here too. */
    for (int32_t bad : {-5, 0, 7}) {
        EXPECT_EQ(capture_mode_to_capture_standard(bad), CS_PAL);
        EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Unsupported capturemode " + std::to_string(bad) +
                                                     ", defaulting to PAL"),
                  1u);
    }
}

TEST(DecoderTypes, ValidCombos)
{
    /* 0 may be set, -1 rejects the standard, -ENOENT the resolution. */
    const struct {
        bool chip;
        int32_t standard, resolution, channel, expected;
    } combos[] = {/* TP2826: SD over CVBS only, the pairing judged before the chip; UHD
                   * checks the channel, then CVBS, then the chip. */
                  {TP2826, VS_CVBS, VT_NTSC, 3, 0},
                  {TP2826, VS_TVI, VT_720P25, 0, -ENOENT},
                  {TP2826, VS_AHD, VT_4K15, 0, -ENOENT},
                  {TP2826, VS_CVI, VT_1440P15, 2, -ENOENT},
                  {TP2826, VS_TVI, VT_PAL, 0, -1},
                  {TP2826, VS_CVBS, VT_1080P30, 0, -1},
                  {TP2826, VS_CVBS, VT_4K12, 0, -1},
                  {TP2826, VS_CVBS, VT_4K12, 2, -ENOENT},
                  /* TP2827: UHD only on channel 0. */
                  {TP2827, VS_CVBS, VT_720P25, 0, -1},
                  {TP2827, VS_AHD, VT_NTSC, 3, -1},
                  {TP2827, VS_CVI, VT_4K15, 1, -ENOENT},
                  {TP2827, VS_CVI, VT_4K15, 0, 0},
                  {TP2827, VS_CVBS, VT_1440P30, 0, -1},
                  {TP2827, VS_CVBS, VT_1440P30, 3, -ENOENT},
                  {TP2827, VS_TVI, VT_1440P15, 2, 0},
                  {TP2827, VS_TVI, 0, 1, 0},
                  {TP2827, VS_TVI, VT_DISABLED, 0, -ENOENT},
                  {TP2827, VS_TVI, -1, 0, -ENOENT},
                  /* On both chips the standard is judged before the resolution. */
                  {TP2827, VS_NONE, VT_UNKNOWN, 0, -1},
                  {TP2827, INT32_MIN, -1, 1, -1},
                  {TP2826, 6, VT_DISABLED, 1, -1},
                  {TP2826, -1, VT_1080P30, 0, -1}};
    for (const auto &c : combos)
        EXPECT_EQ(is_valid_combo(c.chip, c.standard, c.resolution, c.channel), c.expected)
            << (c.chip ? "TP2827" : "TP2826") << " standard " << c.standard << " resolution "
            << c.resolution << " channel " << c.channel;
    EXPECT_DEATH(is_valid_combo(TP2827, VS_TVI, VT_1080P30, 4),
                 "decoders/decoder_types\\.cpp:.*is_valid_combo.*assertion failed: "
                 "\\(channel >= 0 && channel < MAX_SOURCES\\)");
}

} // namespace
