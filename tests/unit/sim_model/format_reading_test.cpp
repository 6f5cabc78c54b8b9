/* Cameras read back through the driver's reading of the detector status:
 * format class, detail lookups, class/short-line fallback, and the standard
 * from class 6, the TVI bit or the CVI signature. The reading is written here
 * on its own, from the register description, not taken from the model. */
#include "model_fixture.h"

#include <optional>
#include <string>

using namespace vboard;
using namespace vboard_test;

namespace
{

enum { VS_TVI = 0, VS_AHD = 1, VS_CVI = 2, VS_CVBS = 3 };
constexpr int NO_TYPE = 34;

struct Reading {
    int type;
    int standard;
    int short_line;
};

int code_to_type(int code, int *short_line)
{
    *short_line = 0;
    switch (code) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 8:
    case 9:
        return code;
    case 12:
        *short_line = 1;
        return 4;
    case 13:
        *short_line = 1;
        return 5;
    case 32:
        return 12;
    case 33:
        return 18;
    case 34:
        return 15;
    case 35:
        return 13;
    case 36:
        return 14;
    case 37:
        return 21;
    case 38:
        return 26;
    case 39:
        return 25;
    case 40:
        return 24;
    case 41:
        return 27;
    case 42:
        return 29;
    case 43:
        return 28;
    case 44:
        return 17;
    case 45:
        return 16;
    case 46:
        return 20;
    case 47:
        return 11;
    case 48:
        return 10;
    default:
        return NO_TYPE;
    }
}

/* The extended identity can be forced to check how the 4K and 1440p formats
 * are encoded; otherwise it comes from 0xFF/0xFD as on the bus. */
Reading read_format(ChipModel &m, std::optional<bool> force_x = std::nullopt)
{
    int word = bus_read(m, 0xFF) << 8 | bus_read(m, 0xFD);
    if (word == 0x3200)
        word = 0x3000;
    const bool x = force_x ? *force_x : (word & ~0x100) == 0x3601;

    const int s = bus_read(m, 0x03);
    bus_write(m, 0x2F, 0x0E);
    const int a = bus_read(m, 0x04);
    int code = -1;
    int fixed_standard = -1;
    auto in = [&](int v, int lo, int hi) { return v == lo || v == hi; };
    if (!(s & 4)) {
        switch (s & 7) {
        case 0:
            code = !x ? 0 : in(a, 0x5D, 0x5E) ? 38 : in(a, 0x2E, 0x2F) ? 0 : a == 0x6D ? 71 : -1;
            break;
        case 1:
            code = !x ? 1 : in(a, 0x5D, 0x5E) ? 39 : in(a, 0x2E, 0x2F) ? 1 : -1;
            break;
        case 2:
            code = !x                  ? 2
                   : in(a, 0x8C, 0x8D) ? 47
                   : in(a, 0x46, 0x47) ? 2
                   : in(a, 0x67, 0x68) ? 70
                                       : -1;
            break;
        case 3:
            code = !x                  ? 3
                   : in(a, 0x8C, 0x8D) ? 48
                   : in(a, 0x46, 0x47) ? 3
                   : in(a, 0x55, 0x56) ? 60
                                       : -1;
            break;
        }
    } else {
        bus_write(m, 0x2F, 0x09);
        const int b = bus_read(m, 0x04);
        switch (b) {
        case 0x22:
            code = 50;
            break;
        case 0x29:
            code = 53;
            break;
        case 0x2E:
            code = 42;
            fixed_standard = VS_AHD;
            break;
        case 0x38:
            code = 43;
            fixed_standard = VS_CVI;
            break;
        case 0x42:
            code = 58;
            break;
        case 0x46:
            code = 70;
            break;
        case 0x4E:
            code = 69;
            break;
        case 0x5C:
            code = 33;
            break;
        case 0x5D:
            if (x && in(a, 0x7B, 0x7C)) {
                code = 33;
                fixed_standard = VS_AHD;
            } else if (x && in(a, 0x67, 0x68)) {
                code = 34;
            }
            break;
        case 0x67:
            code = !x ? 12 : in(a, 0x5D, 0x5E) ? 40 : in(a, 0x2E, 0x2F) ? 12 : -1;
            break;
        case 0x6A:
            code = 66;
            break;
        case 0x75:
            code = 37;
            break;
        case 0x7B:
            code = 13;
            break;
        case 0x7C:
        case 0x7D:
            code = 59;
            fixed_standard = VS_AHD;
            break;
        case 0x84:
            code = 72;
            break;
        case 0x89:
            code = !x ? 49 : in(a, 0x8C, 0x8D) ? 67 : in(a, 0x46, 0x47) ? 49 : -1;
            break;
        case 0x93:
            code = 9;
            fixed_standard = VS_CVBS;
            break;
        case 0x94:
            code = 8;
            fixed_standard = VS_CVBS;
            break;
        case 0xA4:
            code = 65;
            break;
        case 0xCE:
            code = 68;
            break;
        default:
            break;
        }
    }

    Reading r{};
    r.type = code < 0 ? NO_TYPE : code_to_type(code, &r.short_line);
    if (r.type == NO_TYPE) {
        const int v = bus_read(m, 0x03);
        r.type = v & 7;
        r.short_line = v >> 3 & 1;
    }
    if (fixed_standard >= 0) {
        r.standard = fixed_standard;
    } else {
        const int status = bus_read(m, 0x01);
        if ((bus_read(m, 0x03) & 7) == 6) {
            r.standard = VS_CVBS;
        } else if (status & 4) {
            r.standard = VS_TVI;
        } else {
            bool cvi = false;
            for (int reg = 0x8A; reg <= 0xA1; reg++) {
                const int v = bus_read(m, uint8_t(reg));
                if (reg >= 0x91 && reg <= 0x93 && v == 0xFF)
                    cvi = true;
            }
            r.standard = cvi ? VS_CVI : VS_AHD;
        }
    }
    return r;
}

int standard_number(Standard s)
{
    return s == Standard::TVI   ? VS_TVI
           : s == Standard::AHD ? VS_AHD
           : s == Standard::CVI ? VS_CVI
                                : VS_CVBS;
}

std::string describe(const Camera &c)
{
    return std::string(standard_name(c.standard)) + " type " + std::to_string(c.resolution) +
           (c.long_lines ? " long" : "");
}

class FormatReading : public ModelTest
{
  protected:
    /* Plug the camera on channel 2 and read it back with page 2 selected. */
    Reading plug_and_read(const Camera &cam, std::optional<bool> force_x = std::nullopt)
    {
        EXPECT_TRUE(model->plug(2, cam)) << describe(cam);
        bus_write(*model, 0x40, 0x02);
        return read_format(*model, force_x);
    }
};

const Standard kHdStandards[] = {Standard::TVI, Standard::AHD, Standard::CVI};

TEST_F(FormatReading, HdFormatsReadBackAsPlugged)
{
    for (int res : {2, 3, 0, 1, 7, 18, 21}) {
        for (Standard st : kHdStandards) {
            const Camera cam{st, res, false};
            const Reading r = plug_and_read(cam);
            EXPECT_EQ(r.type, res) << describe(cam);
            EXPECT_EQ(r.standard, standard_number(st)) << describe(cam);
            EXPECT_EQ(r.short_line, 0) << describe(cam);
        }
    }
}

TEST_F(FormatReading, Hd720CarriesTheShortLineFlag)
{
    for (int res : {4, 5}) {
        for (Standard st : kHdStandards) {
            for (bool long_lines : {false, true}) {
                const Camera cam{st, res, long_lines};
                const Reading r = plug_and_read(cam);
                EXPECT_EQ(r.type, res) << describe(cam);
                EXPECT_EQ(r.standard, standard_number(st)) << describe(cam);
                EXPECT_EQ(r.short_line, long_lines ? 0 : 1) << describe(cam);
            }
        }
    }
}

TEST_F(FormatReading, StandardDefinitionAndFixedStandards)
{
    struct Case {
        Camera cam;
        int type;
        int standard;
    } cases[] = {
        {{Standard::CVBS, 8}, 8, VS_CVBS}, {{Standard::CVBS, 9}, 9, VS_CVBS},
        {{Standard::CVBS, 6}, 6, VS_CVBS}, {{Standard::CVI, 28}, 28, VS_CVI},
        {{Standard::AHD, 29}, 29, VS_AHD},
    };
    for (const auto &c : cases) {
        const Reading r = plug_and_read(c.cam);
        EXPECT_EQ(r.type, c.type) << describe(c.cam);
        EXPECT_EQ(r.standard, c.standard) << describe(c.cam);
        EXPECT_EQ(r.short_line, 0) << describe(c.cam);
    }
}

TEST_F(FormatReading, UhdFormatsNeedTheExtendedIdentity)
{
    /* The encoding matches the extended reading ... */
    for (int res : {10, 11, 24, 25, 26}) {
        for (Standard st : kHdStandards) {
            const Camera cam{st, res, false};
            const Reading r = plug_and_read(cam, true);
            EXPECT_EQ(r.type, res) << describe(cam);
            EXPECT_EQ(r.standard, standard_number(st)) << describe(cam);
        }
    }
    /* ... and this chip's own identity gives the lower class. */
    const std::pair<int, int> seen_as[] = {{10, 3}, {11, 2}, {24, 4}, {25, 1}, {26, 0}};
    for (auto [res, lower] : seen_as) {
        const Reading r = plug_and_read({Standard::TVI, res, false});
        EXPECT_EQ(r.type, lower) << "type " << res;
    }
}

TEST_F(FormatReading, EachChannelShowsItsOwnCamera)
{
    ASSERT_TRUE(model->plug(0, {Standard::CVBS, 8}));
    ASSERT_TRUE(model->plug(3, {Standard::CVI, 3}));
    bus_write(*model, 0x40, 0x00);
    EXPECT_EQ(read_format(*model).type, 8);
    bus_write(*model, 0x40, 0x03);
    const Reading r = read_format(*model);
    EXPECT_EQ(r.type, 3);
    EXPECT_EQ(r.standard, VS_CVI);
    bus_write(*model, 0x40, 0x01);
    EXPECT_EQ(bus_read(*model, 0x01), 0x80) << "empty input reports no video";
}

TEST(CameraValidity, ImpossibleCamerasAreRefused)
{
    FakeClock clock;
    ChipModel m(ChipKind::TP2826, clock.fn());
    EXPECT_FALSE(m.plug(0, {Standard::TVI, 8}));  /* SD is CVBS only */
    EXPECT_FALSE(m.plug(0, {Standard::CVBS, 2})); /* and CVBS is SD only */
    EXPECT_FALSE(m.plug(0, {Standard::TVI, 28})); /* 28 is a CVI format */
    EXPECT_FALSE(m.plug(0, {Standard::AHD, 12})); /* not a detectable type */
    EXPECT_FALSE(m.plug(0, {Standard::AHD, 31})); /* a marker, not a format */
    EXPECT_FALSE(m.plug(4, {Standard::AHD, 2}));  /* no such input */
    EXPECT_FALSE(m.camera(0).has_value());
    EXPECT_TRUE(m.plug(0, {Standard::AHD, 2}));
    EXPECT_EQ(m.camera(0), (Camera{Standard::AHD, 2, false}));
}

TEST(CameraValidity, StandardNamesRoundTrip)
{
    for (Standard s : {Standard::TVI, Standard::AHD, Standard::CVI, Standard::CVBS})
        EXPECT_EQ(standard_from_name(standard_name(s)), s);
    EXPECT_FALSE(standard_from_name("pal").has_value());
    EXPECT_FALSE(standard_from_name(nullptr).has_value());
}

} // namespace
