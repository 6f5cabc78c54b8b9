/* The daemon's vocabulary of video formats: video types, transmission
 * standards, and their translation into the capture pipeline's terms. Constant
 * tables and pure functions, safe from any thread. */
#pragma once

#include <cstdint>

/* VideoType: 0 to 29 are formats (valid types), 30 to 33 markers. The unnamed
 * values are valid types with no text and no chip programming. */
enum {
    VT_1080P30 = 2,
    VT_1080P25 = 3,
    VT_720P30 = 4,
    VT_720P25 = 5,
    VT_PAL = 8,
    VT_NTSC = 9,
    VT_4K12 = 10,
    VT_4K15 = 11,
    VT_1440P15 = 24,
    VT_1440P25 = 25,
    VT_1440P30 = 26,
    VT_NONE = 30,
    VT_AUTO = 31,
    VT_UNKNOWN = 32,
    VT_DISABLED = 33,
};

/* VideoStandard. */
enum {
    VS_TVI = 0,
    VS_AHD = 1,
    VS_CVI = 2,
    VS_CVBS = 3,
    VS_DISABLED = 4,
    VS_NONE = 5,
};

/* CaptureStandard: the capture pipeline's name for a video system. */
enum {
    CS_NONE = -1,
    CS_PAL = 0,
    CS_NTSC = 1,
    CS_HDTV720P = 2,
    CS_HDTV1080I = 3,
    CS_HDTV1080P = 4,
    CS_HDV1080I = 5,
    CS_HDTVQHD = 6,
    CS_HDTV4K = 7,
};

/* CaptureMode: the capture pipeline's mode number. */
enum {
    CM_PAL = 1,
    CM_NTSC = 2,
    CM_1080P = 3,
    CM_720P = 4,
    CM_4K = 5,
    CM_QHD = 6,
};

const char *video_type_to_string(int32_t video_type);
int32_t video_type_from_string(const char *text);
const char *video_standard_to_string(int32_t standard);
int32_t video_standard_from_string(const char *text);
const char *capture_standard_to_string(int32_t capture_standard);
int32_t video_type_to_capture_standard(int32_t video_type);
double video_type_to_frame_rate(int32_t video_type);
int32_t video_type_to_mains_frequency(int32_t video_type);
int32_t video_type_to_capture_mode(int32_t video_type);
int32_t capture_mode_to_capture_standard(int32_t capture_mode);
bool video_type_is_valid(int32_t video_type);
bool video_type_is_sd(int32_t video_type);
bool video_type_is_uhd(int32_t video_type);
/* The resolutions a client may choose: ten on a TP2827, two on other chips. */
const char *const *get_supported_resolutions(bool is_tp2827, int32_t *count);
/* 0 when the combination may be set, -1 for an unacceptable standard, -ENOENT
 * for an unacceptable resolution. The channel must be 0 to 3. */
int32_t is_valid_combo(bool is_tp2827, int32_t standard, int32_t resolution, int32_t channel);
