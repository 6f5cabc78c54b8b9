/* Command-line vocabulary shared by `vboard run` and `vboard-ctl`: camera
 * descriptions ("tvi 1080p25", "ahd:720p30:long"), capture modes, service
 * faults. Pure functions, no state. */
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "chip_model.h"

namespace vboard
{

/* The daemon's resolution texts: "pal", "ntsc", "720p25", "720p30", "1080p25",
 * "1080p30", "1440p15", "1440p25", "1440p30", "4k12", "4k15". */
std::optional<int> resolution_from_text(std::string_view text);
/* The text of a resolution, or "type N" for the unnamed ones. */
std::string resolution_text(int resolution);

/* A camera from its standard, resolution and an optional "long" flag; an
 * error text in *error when the words don't make a camera that can be
 * plugged. */
std::optional<Camera> parse_camera(std::string_view standard, std::string_view resolution,
                                   std::string_view flag, std::string *error);

struct CameraOption {
    int channel = 0;
    Camera camera;
};
/* "CH:STANDARD:RESOLUTION[:long]", channel 0..3. */
std::optional<CameraOption> parse_camera_option(std::string_view text, std::string *error);

/* Capture modes 1..6, by number or by name: pal, ntsc, 1080p, 720p, 4k, qhd. */
std::optional<int> capture_mode_from_text(std::string_view text);
const char *capture_mode_text(int mode);

struct CaptureModeOption {
    int channel = 0;
    int mode = 1;
};
/* "CH:MODE". */
std::optional<CaptureModeOption> parse_capture_mode_option(std::string_view text,
                                                           std::string *error);

/* A channel index 0..3 from its decimal text. */
std::optional<int> parse_channel(std::string_view text);
/* A non-negative decimal number (or 0x-prefixed hexadecimal). */
std::optional<long> parse_number(std::string_view text);

std::vector<std::string> split(std::string_view text, char separator);

/* Text for JSON string literals. */
std::string json_quote(std::string_view text);

} // namespace vboard
