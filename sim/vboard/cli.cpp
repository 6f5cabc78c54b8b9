#include "cli.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace vboard
{

namespace
{

struct ResolutionName {
    const char *text;
    int resolution;
};

constexpr std::array<ResolutionName, 11> RESOLUTIONS = {{
    {"1080p30", RES_1080P30},
    {"1080p25", RES_1080P25},
    {"720p30", RES_720P30},
    {"720p25", RES_720P25},
    {"pal", RES_PAL},
    {"ntsc", RES_NTSC},
    {"4k12", RES_4K12},
    {"4k15", RES_4K15},
    {"1440p15", RES_1440P15},
    {"1440p25", RES_1440P25},
    {"1440p30", RES_1440P30},
}};

constexpr std::array<const char *, 6> CAPTURE_MODES = {"pal", "ntsc", "1080p", "720p", "4k", "qhd"};

} // namespace

std::optional<int> resolution_from_text(std::string_view text)
{
    for (const auto &r : RESOLUTIONS) {
        if (text == r.text)
            return r.resolution;
    }
    return std::nullopt;
}

std::string resolution_text(int resolution)
{
    for (const auto &r : RESOLUTIONS) {
        if (r.resolution == resolution)
            return r.text;
    }
    return "type " + std::to_string(resolution);
}

std::optional<Camera> parse_camera(std::string_view standard, std::string_view resolution,
                                   std::string_view flag, std::string *error)
{
    std::string std_text(standard);
    auto s = standard_from_name(std_text.c_str());
    if (!s) {
        *error = "unknown standard '" + std_text + "' (tvi, ahd, cvi, cvbs)";
        return std::nullopt;
    }
    auto r = resolution_from_text(resolution);
    if (!r) {
        *error = "unknown resolution '" + std::string(resolution) + "'";
        return std::nullopt;
    }
    Camera cam;
    cam.standard = *s;
    cam.resolution = *r;
    if (!flag.empty()) {
        if (flag != "long") {
            *error = "unknown camera flag '" + std::string(flag) + "' (only 'long')";
            return std::nullopt;
        }
        if (*r != RES_720P25 && *r != RES_720P30) {
            *error = "long lines exist only for 720p";
            return std::nullopt;
        }
        cam.long_lines = true;
    }
    if (!camera_is_valid(cam)) {
        *error = "no " + std_text + " camera sends " + std::string(resolution);
        return std::nullopt;
    }
    return cam;
}

std::optional<CameraOption> parse_camera_option(std::string_view text, std::string *error)
{
    auto parts = split(text, ':');
    if (parts.size() < 3 || parts.size() > 4) {
        *error = "camera '" + std::string(text) + "' is not CH:STANDARD:RESOLUTION[:long]";
        return std::nullopt;
    }
    auto ch = parse_channel(parts[0]);
    if (!ch) {
        *error = "bad channel '" + parts[0] + "' (0..3)";
        return std::nullopt;
    }
    auto cam = parse_camera(parts[1], parts[2], parts.size() == 4 ? parts[3] : "", error);
    if (!cam)
        return std::nullopt;
    return CameraOption{*ch, *cam};
}

std::optional<int> capture_mode_from_text(std::string_view text)
{
    for (size_t i = 0; i < CAPTURE_MODES.size(); i++) {
        if (text == CAPTURE_MODES[i])
            return static_cast<int>(i) + 1;
    }
    auto n = parse_number(text);
    if (n && *n >= 1 && *n <= 6)
        return static_cast<int>(*n);
    return std::nullopt;
}

const char *capture_mode_text(int mode)
{
    if (mode >= 1 && mode <= 6)
        return CAPTURE_MODES[mode - 1];
    return "?";
}

std::optional<CaptureModeOption> parse_capture_mode_option(std::string_view text,
                                                           std::string *error)
{
    auto parts = split(text, ':');
    if (parts.size() != 2) {
        *error = "capture mode '" + std::string(text) + "' is not CH:MODE";
        return std::nullopt;
    }
    auto ch = parse_channel(parts[0]);
    auto mode = capture_mode_from_text(parts[1]);
    if (!ch || !mode) {
        *error = "bad capture mode '" + std::string(text) +
                 "' (channel 0..3, mode 1..6 or pal, ntsc, 1080p, 720p, 4k, qhd)";
        return std::nullopt;
    }
    return CaptureModeOption{*ch, *mode};
}

std::optional<long> parse_number(std::string_view text)
{
    if (text.empty() || text.size() > 20)
        return std::nullopt;
    std::string s(text);
    int base = 10;
    size_t start = 0;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        start = 2;
    }
    if (s[start] == '-' || s[start] == '+')
        return std::nullopt;
    char *end = nullptr;
    long v = std::strtol(s.c_str() + start, &end, base);
    if (end == s.c_str() + start || *end != '\0' || v < 0)
        return std::nullopt;
    return v;
}

std::optional<int> parse_channel(std::string_view text)
{
    auto n = parse_number(text);
    if (!n || *n >= NUM_CHANNELS || text.starts_with("0x"))
        return std::nullopt;
    return static_cast<int>(*n);
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (true) {
        size_t pos = text.find(separator, start);
        if (pos == std::string_view::npos) {
            out.emplace_back(text.substr(start));
            return out;
        }
        out.emplace_back(text.substr(start, pos - start));
        start = pos + 1;
    }
}

std::string json_quote(std::string_view text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
    return out;
}

} // namespace vboard
