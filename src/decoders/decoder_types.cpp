#include "decoder_types.h"

#include <cerrno>
#include <cstring>
#include <glib.h>

#include "decoder.h"
#include "korvi_log.h"

namespace
{

struct TypeName {
    int32_t video_type;
    const char *text;
};

/* Both directions of lookup walk this table from the top: the first pair with
 * a matching value or text wins ("none" is VT_NONE). */
constexpr TypeName type_names[] = {
    {VT_PAL, "pal"},         {VT_NTSC, "ntsc"},       {VT_720P25, "720p25"},
    {VT_720P30, "720p30"},   {VT_1080P25, "1080p25"}, {VT_1080P30, "1080p30"},
    {VT_1440P15, "1440p15"}, {VT_1440P25, "1440p25"}, {VT_1440P30, "1440p30"},
    {VT_4K12, "4k12"},       {VT_4K15, "4k15"},       {VT_NONE, "none"},
    {VT_AUTO, "none"},       {VT_UNKNOWN, "none"},    {VT_DISABLED, "disabled"},
};

constexpr const char *standard_names[] = {"tvi", "ahd", "cvi", "cvbs", "disabled", "none"};

/* Indexed by CaptureStandard + 1. */
constexpr const char *capture_standard_names[] = {
    "none", "PAL", "NTSC", "HDTV720p", "HDTV1080i", "HDTV1080p", "HDV1080i", "HDTVQHD", "HDTV4K",
};

/* Indexed by CaptureMode - 1. */
constexpr int32_t capture_mode_standards[] = {
    CS_PAL, CS_NTSC, CS_HDTV1080P, CS_HDTV720P, CS_HDTV4K, CS_HDTVQHD,
};

/* Per-type row for the types 2 to 26; every other type has capture standard
 * CS_NONE, no capture mode and frame rate 20.0. A capture mode of 0 means the
 * type has none. */
struct TypeRow {
    int32_t capture_standard;
    int32_t capture_mode;
    double frame_rate;
};

constexpr TypeRow no_format = {CS_NONE, 0, 20.0};
constexpr TypeRow qhd_unnamed = {CS_HDTVQHD, CM_QHD, 20.0};

constexpr TypeRow type_rows[] = {
    /*  2 */ {CS_HDTV1080P, CM_1080P, 30.0},
    /*  3 */ {CS_HDTV1080P, CM_1080P, 25.0},
    /*  4 */ {CS_HDTV720P, CM_720P, 30.0},
    /*  5 */ {CS_HDTV720P, CM_720P, 25.0},
    /*  6 */ no_format,
    /*  7 */ no_format,
    /*  8 */ {CS_PAL, CM_PAL, 25.0},
    /*  9 */ {CS_NTSC, CM_NTSC, 30.0},
    /* 10 */ {CS_HDTV4K, CM_4K, 12.5},
    /* 11 */ {CS_HDTV4K, CM_4K, 15.0},
    /* 12 */ no_format,
    /* 13 */ no_format,
    /* 14 */ qhd_unnamed,
    /* 15 */ qhd_unnamed,
    /* 16 */ qhd_unnamed,
    /* 17 */ qhd_unnamed,
    /* 18 */ no_format,
    /* 19 */ no_format,
    /* 20 */ no_format,
    /* 21 */ no_format,
    /* 22 */ no_format,
    /* 23 */ no_format,
    /* 24 */ {CS_HDTVQHD, CM_QHD, 15.0},
    /* 25 */ {CS_HDTVQHD, CM_QHD, 25.0},
    /* 26 */ {CS_HDTVQHD, CM_QHD, 30.0},
};
constexpr int32_t first_row_type = 2;
constexpr int32_t last_row_type = 26;

const TypeRow &type_row(int32_t video_type)
{
    if (video_type < first_row_type || video_type > last_row_type)
        return no_format;
    return type_rows[video_type - first_row_type];
}

/* Over the types 3 to 25, bit (type - 3) set means the 50 Hz family. */
constexpr uint32_t mains_50hz_mask = 0x4000a5;

constexpr const char *resolutions_tp2827[] = {
    "pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p25", "1440p30", "4k12", "4k15",
};
constexpr const char *resolutions_other[] = {"pal", "ntsc"};

} // namespace

const char *video_type_to_string(int32_t video_type)
{
    for (const TypeName &pair : type_names)
        if (pair.video_type == video_type)
            return pair.text;
    return "none";
}

int32_t video_type_from_string(const char *text)
{
    if (text == nullptr)
        return VT_UNKNOWN;
    for (const TypeName &pair : type_names)
        if (strcmp(pair.text, text) == 0)
            return pair.video_type;
    return VT_UNKNOWN;
}

const char *video_standard_to_string(int32_t standard)
{
    if (static_cast<uint32_t>(standard) > VS_NONE)
        return "none";
    return standard_names[standard];
}

int32_t video_standard_from_string(const char *text)
{
    if (text == nullptr)
        return VS_NONE;
    for (int32_t i = 0; i <= VS_NONE; i++)
        if (strcmp(standard_names[i], text) == 0)
            return i;
    return VS_NONE;
}

const char *capture_standard_to_string(int32_t capture_standard)
{
    if (capture_standard < CS_NONE || capture_standard > CS_HDTV4K)
        return "none";
    return capture_standard_names[capture_standard + 1];
}

int32_t video_type_to_capture_standard(int32_t video_type)
{
    return type_row(video_type).capture_standard;
}

double video_type_to_frame_rate(int32_t video_type)
{
    return type_row(video_type).frame_rate;
}

int32_t video_type_to_mains_frequency(int32_t video_type)
{
    if (video_type < 3 || video_type > 25)
        return 60;
    return (mains_50hz_mask >> (video_type - 3)) & 1 ? 50 : 60;
}

int32_t video_type_to_capture_mode(int32_t video_type)
{
    /* A switched-off channel keeps its pipeline in PAL mode; that is not worth
     * a message. */
    if (video_type == VT_DISABLED)
        return CM_PAL;
    int32_t mode = type_row(video_type).capture_mode;
    if (mode == 0) {
        korvi_info("%sVideotype %d not supported, defaulting to PAL", video_type);
        return CM_PAL;
    }
    return mode;
}

int32_t capture_mode_to_capture_standard(int32_t capture_mode)
{
    if (capture_mode < CM_PAL || capture_mode > CM_QHD) {
        korvi_warning("%sUnsupported capturemode %d, defaulting to PAL", capture_mode);
        return CS_PAL;
    }
    return capture_mode_standards[capture_mode - 1];
}

bool video_type_is_valid(int32_t video_type)
{
    return static_cast<uint32_t>(video_type) < VT_NONE;
}

bool video_type_is_sd(int32_t video_type)
{
    return video_type == VT_PAL || video_type == VT_NTSC;
}

bool video_type_is_uhd(int32_t video_type)
{
    return video_type == VT_4K12 || video_type == VT_4K15 || video_type == VT_1440P25 ||
           video_type == VT_1440P30;
}

const char *const *get_supported_resolutions(bool is_tp2827, int32_t *count)
{
    if (is_tp2827) {
        *count = G_N_ELEMENTS(resolutions_tp2827);
        return resolutions_tp2827;
    }
    *count = G_N_ELEMENTS(resolutions_other);
    return resolutions_other;
}

int32_t is_valid_combo(bool is_tp2827, int32_t standard, int32_t resolution, int32_t channel)
{
    g_assert(channel >= 0 && channel < MAX_SOURCES);

    /* The standard is judged first: a request with both wrong reports the
     * standard. Negative values count as too large. */
    if (static_cast<uint32_t>(standard) > VS_CVBS)
        return -1;
    if (static_cast<uint32_t>(resolution) >= VT_NONE)
        return -ENOENT;

    if (video_type_is_uhd(resolution)) {
        /* 4K and QHD take the whole chip and come only through channel 0. */
        if (channel != 0)
            return -ENOENT;
        if (standard == VS_CVBS)
            return -1;
        return is_tp2827 ? 0 : -ENOENT;
    }

    /* CVBS carries PAL and NTSC only, and PAL and NTSC come only over CVBS. */
    if ((standard == VS_CVBS) != video_type_is_sd(resolution))
        return -1;
    if (video_type_is_sd(resolution))
        return 0;
    return is_tp2827 ? 0 : -ENOENT;
}
