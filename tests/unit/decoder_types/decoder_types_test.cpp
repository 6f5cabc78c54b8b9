/* The video vocabulary: texts, capture-pipeline translations and the rules for
 * which standard, resolution and channel go together on each chip. */
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <glib.h>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "decoder_types.h"
#include "korvi_log.h"

namespace
{

struct Logged {
    unsigned level; /* GLogLevelFlags bits */
    std::string text;
};

std::mutex logged_mutex;
std::vector<Logged> logged;

/* Records every message and still hands it to GLib's default writer, so that
 * warnings stay visible in the test output. */
GLogWriterOutput recording_writer(GLogLevelFlags level, const GLogField *fields, gsize n_fields,
                                  gpointer user_data)
{
    for (gsize i = 0; i < n_fields; i++) {
        if (g_strcmp0(fields[i].key, "MESSAGE") == 0) {
            std::lock_guard<std::mutex> guard(logged_mutex);
            logged.push_back({korvi_log_level_bits(level) & G_LOG_LEVEL_MASK,
                              static_cast<const char *>(fields[i].value)});
            break;
        }
    }
    return g_log_writer_default(level, fields, n_fields, user_data);
}

/* GLib accepts one writer per process, so it is installed once for the whole
 * binary, before the first test runs. */
class LogCaptureEnvironment : public ::testing::Environment
{
  public:
    void SetUp() override { g_log_set_writer_func(recording_writer, nullptr, nullptr); }
};

[[maybe_unused]] ::testing::Environment *const log_environment =
    ::testing::AddGlobalTestEnvironment(new LogCaptureEnvironment);

std::vector<Logged> take_logged()
{
    std::lock_guard<std::mutex> guard(logged_mutex);
    std::vector<Logged> out;
    out.swap(logged);
    return out;
}

class DecoderTypesLog : public ::testing::Test
{
  protected:
    void SetUp() override { take_logged(); }
};

constexpr bool TP2827 = true;
constexpr bool TP2826 = false;

TEST(DecoderTypesText, ResolutionTextLookupTakesFirstMatchingPair)
{
    /* Three markers share "none": the lookup walks from the top. */
    EXPECT_EQ(video_type_from_string("none"), VT_NONE);
    EXPECT_EQ(video_type_from_string("disabled"), VT_DISABLED);
    /* Texts are lower case and compared exactly. */
    EXPECT_EQ(video_type_from_string("PAL"), VT_UNKNOWN);
    EXPECT_EQ(video_type_from_string("pal "), VT_UNKNOWN);
    EXPECT_EQ(video_type_from_string(""), VT_UNKNOWN);
    EXPECT_EQ(video_type_from_string(nullptr), VT_UNKNOWN);

    EXPECT_STREQ(video_type_to_string(VT_AUTO), "none");
    EXPECT_STREQ(video_type_to_string(VT_UNKNOWN), "none");
    EXPECT_STREQ(video_type_to_string(0), "none");
    EXPECT_STREQ(video_type_to_string(14), "none");
    EXPECT_STREQ(video_type_to_string(-1), "none");
    EXPECT_STREQ(video_type_to_string(VT_DISABLED), "disabled");
}

TEST(DecoderTypesText, NamedTypesRoundTrip)
{
    const std::vector<std::pair<int32_t, const char *>> named = {
        {2, "1080p30"},  {3, "1080p25"},  {4, "720p30"},   {5, "720p25"},
        {8, "pal"},      {9, "ntsc"},     {10, "4k12"},    {11, "4k15"},
        {24, "1440p15"}, {25, "1440p25"}, {26, "1440p30"},
    };
    for (const auto &[value, text] : named) {
        EXPECT_STREQ(video_type_to_string(value), text) << value;
        EXPECT_EQ(video_type_from_string(text), value) << text;
    }
}

TEST(DecoderTypesText, Standards)
{
    const char *const texts[] = {"tvi", "ahd", "cvi", "cvbs", "disabled", "none"};
    for (int32_t i = 0; i < 6; i++) {
        EXPECT_STREQ(video_standard_to_string(i), texts[i]);
        EXPECT_EQ(video_standard_from_string(texts[i]), i);
    }
    EXPECT_EQ(video_standard_from_string("CVBS"), VS_NONE);
    EXPECT_EQ(video_standard_from_string("tvi\n"), VS_NONE);
    EXPECT_EQ(video_standard_from_string(nullptr), VS_NONE);
    /* Negative values are compared unsigned, so they are out of range too. */
    EXPECT_STREQ(video_standard_to_string(-1), "none");
    EXPECT_STREQ(video_standard_to_string(INT32_MIN), "none");
    EXPECT_STREQ(video_standard_to_string(6), "none");
}

TEST(DecoderTypesText, CaptureStandards)
{
    EXPECT_STREQ(capture_standard_to_string(video_type_to_capture_standard(VT_NONE)), "none");
    EXPECT_STREQ(capture_standard_to_string(video_type_to_capture_standard(VT_1440P15)), "HDTVQHD");
    EXPECT_STREQ(capture_standard_to_string(CS_NONE), "none");
    EXPECT_STREQ(capture_standard_to_string(CS_PAL), "PAL");
    EXPECT_STREQ(capture_standard_to_string(CS_HDTV1080I), "HDTV1080i");
    EXPECT_STREQ(capture_standard_to_string(CS_HDV1080I), "HDV1080i");
    EXPECT_STREQ(capture_standard_to_string(CS_HDTV4K), "HDTV4K");
    EXPECT_STREQ(capture_standard_to_string(-2), "none");
    EXPECT_STREQ(capture_standard_to_string(8), "none");

    EXPECT_EQ(video_type_to_capture_standard(VT_1080P25), CS_HDTV1080P);
    EXPECT_EQ(video_type_to_capture_standard(VT_720P30), CS_HDTV720P);
    EXPECT_EQ(video_type_to_capture_standard(VT_NTSC), CS_NTSC);
    EXPECT_EQ(video_type_to_capture_standard(VT_4K15), CS_HDTV4K);
    /* The unnamed 14 to 17 belong to the QHD class; their neighbours do not. */
    EXPECT_EQ(video_type_to_capture_standard(13), CS_NONE);
    EXPECT_EQ(video_type_to_capture_standard(14), CS_HDTVQHD);
    EXPECT_EQ(video_type_to_capture_standard(17), CS_HDTVQHD);
    EXPECT_EQ(video_type_to_capture_standard(18), CS_NONE);
    EXPECT_EQ(video_type_to_capture_standard(VT_1440P30), CS_HDTVQHD);
    EXPECT_EQ(video_type_to_capture_standard(27), CS_NONE);
    EXPECT_EQ(video_type_to_capture_standard(1), CS_NONE);
    EXPECT_EQ(video_type_to_capture_standard(VT_DISABLED), CS_NONE);
    EXPECT_EQ(video_type_to_capture_standard(-1), CS_NONE);
    EXPECT_EQ(video_type_to_capture_standard(INT32_MAX), CS_NONE);
}

TEST(DecoderTypesRates, FrameRates)
{
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_4K12), 12.5);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_NTSC), 30.0);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_PAL), 25.0);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_1080P30), 30.0);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_720P25), 25.0);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_4K15), 15.0);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_1440P15), 15.0);
    EXPECT_DOUBLE_EQ(video_type_to_frame_rate(VT_1440P30), 30.0);
    for (int32_t other :
         std::initializer_list<int32_t>{-1, 0, 1, 6, 15, 23, 27, VT_NONE, VT_DISABLED, 1000})
        EXPECT_DOUBLE_EQ(video_type_to_frame_rate(other), 20.0) << other;
}

TEST(DecoderTypesRates, MainsFrequency)
{
    /* Exactly the 25 and 12.5 frame/s formats belong to the 50 Hz family. */
    const std::set<int32_t> fifty = {VT_1080P25, VT_720P25, VT_PAL, VT_4K12, VT_1440P25};
    for (int32_t t = -40; t <= 70; t++)
        EXPECT_EQ(video_type_to_mains_frequency(t), fifty.count(t) ? 50 : 60) << t;
    EXPECT_EQ(video_type_to_mains_frequency(INT32_MIN), 60);
    EXPECT_EQ(video_type_to_mains_frequency(INT32_MAX), 60);
}

TEST_F(DecoderTypesLog, CaptureModeOfTypes)
{
    EXPECT_EQ(video_type_to_capture_mode(VT_1080P30), CM_1080P);
    EXPECT_EQ(video_type_to_capture_mode(VT_720P25), CM_720P);
    EXPECT_EQ(video_type_to_capture_mode(VT_PAL), CM_PAL);
    EXPECT_EQ(video_type_to_capture_mode(VT_NTSC), CM_NTSC);
    EXPECT_EQ(video_type_to_capture_mode(VT_4K12), CM_4K);
    EXPECT_EQ(video_type_to_capture_mode(16), CM_QHD);
    EXPECT_EQ(video_type_to_capture_mode(VT_1440P15), CM_QHD);
    /* A switched-off channel maps to PAL without a word. */
    EXPECT_EQ(video_type_to_capture_mode(VT_DISABLED), CM_PAL);
    EXPECT_TRUE(take_logged().empty());
}

TEST_F(DecoderTypesLog, CaptureModeFallbackIsLoggedAtInfo)
{
    const std::vector<std::pair<int32_t, std::string>> unsupported = {
        {VT_AUTO, "Videotype 31 not supported, defaulting to PAL"},
        {0, "Videotype 0 not supported, defaulting to PAL"},
        {13, "Videotype 13 not supported, defaulting to PAL"},
        {-3, "Videotype -3 not supported, defaulting to PAL"},
    };
    for (const auto &[type, text] : unsupported) {
        EXPECT_EQ(video_type_to_capture_mode(type), CM_PAL) << type;
        std::vector<Logged> got = take_logged();
        ASSERT_EQ(got.size(), 1u) << type;
        EXPECT_EQ(got[0].text, text);
        EXPECT_EQ(got[0].level, static_cast<unsigned>(G_LOG_LEVEL_INFO));
    }
}

TEST_F(DecoderTypesLog, CaptureModeToCaptureStandard)
{
    const std::pair<int32_t, int32_t> modes[] = {
        {CM_PAL, CS_PAL},       {CM_NTSC, CS_NTSC}, {CM_1080P, CS_HDTV1080P},
        {CM_720P, CS_HDTV720P}, {CM_4K, CS_HDTV4K}, {CM_QHD, CS_HDTVQHD},
    };
    for (const auto &[mode, standard] : modes)
        EXPECT_EQ(capture_mode_to_capture_standard(mode), standard) << mode;
    EXPECT_TRUE(take_logged().empty());

    /* A negative error code from reading the mode lands here too. */
    for (int32_t bad : {-5, 0, 7}) {
        EXPECT_EQ(capture_mode_to_capture_standard(bad), CS_PAL);
        std::vector<Logged> got = take_logged();
        ASSERT_EQ(got.size(), 1u) << bad;
        EXPECT_EQ(got[0].text,
                  "Unsupported capturemode " + std::to_string(bad) + ", defaulting to PAL");
        EXPECT_EQ(got[0].level, static_cast<unsigned>(G_LOG_LEVEL_WARNING));
    }
}

TEST(DecoderTypesClass, Predicates)
{
    EXPECT_TRUE(video_type_is_valid(0));
    EXPECT_TRUE(video_type_is_valid(29));
    EXPECT_FALSE(video_type_is_valid(VT_NONE));
    EXPECT_FALSE(video_type_is_valid(VT_DISABLED));
    EXPECT_FALSE(video_type_is_valid(-1));
    EXPECT_FALSE(video_type_is_valid(INT32_MIN));

    for (int32_t t = -2; t < 40; t++) {
        EXPECT_EQ(video_type_is_sd(t), t == VT_PAL || t == VT_NTSC) << t;
        EXPECT_EQ(video_type_is_uhd(t),
                  t == VT_4K12 || t == VT_4K15 || t == VT_1440P25 || t == VT_1440P30)
            << t;
    }
}

TEST(DecoderTypesResolutions, SupportedLists)
{
    int32_t count = -1;
    const char *const *list = get_supported_resolutions(TP2827, &count);
    ASSERT_EQ(count, 10);
    const std::vector<std::string> expected_2827 = {"pal",     "ntsc",    "720p25",  "720p30",
                                                    "1080p25", "1080p30", "1440p25", "1440p30",
                                                    "4k12",    "4k15"};
    EXPECT_EQ(std::vector<std::string>(list, list + count), expected_2827);

    count = -1;
    list = get_supported_resolutions(TP2826, &count);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(std::vector<std::string>(list, list + count),
              (std::vector<std::string>{"pal", "ntsc"}));
}

TEST(DecoderTypesResolutions, EveryOfferedResolutionCanBeSet)
{
    for (bool chip : {TP2827, TP2826}) {
        int32_t count = 0;
        const char *const *list = get_supported_resolutions(chip, &count);
        for (int32_t i = 0; i < count; i++) {
            int32_t type = video_type_from_string(list[i]);
            ASSERT_TRUE(video_type_is_valid(type)) << list[i];
            int32_t standard = video_type_is_sd(type) ? VS_CVBS : VS_TVI;
            EXPECT_EQ(is_valid_combo(chip, standard, type, 0), 0) << list[i] << " chip " << chip;
        }
    }
}

struct Combo {
    bool chip;
    int32_t standard;
    int32_t resolution;
    int32_t channel;
    int32_t expected;
};

void expect_combos(const std::vector<Combo> &combos)
{
    for (const Combo &c : combos)
        EXPECT_EQ(is_valid_combo(c.chip, c.standard, c.resolution, c.channel), c.expected)
            << (c.chip ? "TP2827" : "TP2826") << " standard " << c.standard << " resolution "
            << c.resolution << " channel " << c.channel;
}

TEST(DecoderTypesCombo, Tp2826)
{
    expect_combos({
        {TP2826, VS_CVBS, VT_NTSC, 3, 0},
        {TP2826, VS_CVBS, VT_PAL, 1, 0},
        {TP2826, VS_TVI, VT_720P25, 0, -ENOENT},
        {TP2826, VS_AHD, VT_4K15, 0, -ENOENT},
        {TP2826, VS_CVI, VT_1440P15, 2, -ENOENT},
        /* The CVBS/SD pairing is judged before the chip. */
        {TP2826, VS_TVI, VT_PAL, 0, -1},
        {TP2826, VS_CVBS, VT_1080P30, 0, -1},
        /* UHD: channel, then CVBS, then chip. */
        {TP2826, VS_CVBS, VT_4K12, 0, -1},
        {TP2826, VS_CVBS, VT_4K12, 2, -ENOENT},
    });
}

TEST(DecoderTypesCombo, Tp2827)
{
    expect_combos({
        {TP2827, VS_CVBS, VT_720P25, 0, -1},
        {TP2827, VS_TVI, VT_PAL, 0, -1},
        {TP2827, VS_AHD, VT_NTSC, 3, -1},
        {TP2827, VS_CVI, VT_4K15, 1, -ENOENT},
        {TP2827, VS_CVI, VT_4K15, 0, 0},
        {TP2827, VS_CVBS, VT_1440P30, 0, -1},
        {TP2827, VS_CVBS, VT_1440P30, 3, -ENOENT},
        {TP2827, VS_TVI, VT_1440P15, 2, 0},
        {TP2827, VS_AHD, VT_1440P25, 0, 0},
        {TP2827, VS_TVI, VT_4K12, 3, -ENOENT},
        {TP2827, VS_CVBS, VT_NTSC, 2, 0},
        {TP2827, VS_AHD, VT_1080P25, 3, 0},
        {TP2827, VS_TVI, 0, 1, 0},
        {TP2827, VS_CVBS, 29, 1, -1},
        {TP2827, VS_TVI, VT_DISABLED, 0, -ENOENT},
        {TP2827, VS_TVI, VT_NONE, 0, -ENOENT},
        {TP2827, VS_CVBS, VT_AUTO, 0, -ENOENT},
        {TP2827, VS_TVI, -1, 0, -ENOENT},
    });
}

TEST(DecoderTypesCombo, StandardIsJudgedBeforeResolution)
{
    expect_combos({
        {TP2827, VS_NONE, VT_UNKNOWN, 0, -1},
        {TP2827, VS_DISABLED, VT_DISABLED, 0, -1},
        {TP2827, VS_DISABLED, VT_PAL, 0, -1},
        {TP2827, -1, VT_PAL, 0, -1},
        {TP2827, INT32_MIN, -1, 1, -1},
        {TP2826, 6, VT_4K12, 1, -1},
        {TP2826, VS_NONE, VT_NTSC, 3, -1},
    });
}

TEST(DecoderTypesComboDeathTest, ChannelOutOfRangeAsserts)
{
    const char *message = "decoders/decoder_types\\.cpp:.*is_valid_combo.*assertion failed: "
                          "\\(channel >= 0 && channel < MAX_SOURCES\\)";
    EXPECT_DEATH(is_valid_combo(TP2827, VS_TVI, VT_1080P30, 4), message);
    EXPECT_DEATH(is_valid_combo(TP2826, VS_CVBS, VT_PAL, -1), message);
}

} // namespace
