/* Every format setter with every transmission standard, against register
 * sequences transcribed from the chip's programming tables. */
#include <sstream>
#include <unistd.h>

#include "tp2826.h"
#include "tp2827.h"
#include "tp28xx_rig.h"

namespace
{

/* Nine timing bytes as writes to 0x15..0x1D. */
std::string timing(const std::string &bytes)
{
    std::istringstream in(bytes);
    std::string out, byte;
    char reg[4];
    for (unsigned r = 0x15; in >> byte; r++) {
        snprintf(reg, sizeof reg, "%02X", r);
        out += reg + ("=" + byte) + " ";
    }
    return out;
}

/* "As base but": each changed register keeps its place in base. */
std::string but(std::string base, const std::string &changes)
{
    std::istringstream in(changes);
    base = " " + base;
    for (std::string change; in >> change;)
        base.replace(base.find(" " + change.substr(0, 3)) + 1, change.size(), change);
    return base;
}

/* ---- Shared blocks ---- */
const std::string HD = "0B=C0 0C=03 0D=50 20=30 21=84 22=36 23=3C 25=FF 26=05 27=2D 28=00 2B=60 "
                       "2C=0A 2D=30 2E=70 30=48 31=BB 32=2E 33=90 38=00 39=1C 3A=32 3B=26 "
                       "13=00 14&60=00";
const std::string HD720 = but(HD, "0C=13 39=18");
const std::string BLOCK_4K = but(HD, "20=60 27=AD 2D=58 30=74 31=59 32=BD 33=60 38=40 39=48 3A=12");
const std::string QHD = "13=00 14&60=00 0B=C0 0C=03 0D=50 15=23 16=1B 18=38 20=50 21=84 22=36 "
                        "23=3C 25=FF 26=05 27=AD 28=00 2B=60 2C=0A 2D=58 2E=70 30=74 31=58 32=9F "
                        "33=60 38=40 39=48 3A=12 3B=26";
const std::string NTSC = "0B=C0 0C=13 0D=50 20=40 21=84 22=36 23=3C 25=FF 26=05 27=2D 28=00 "
                         "2B=70 2C=2A 2D=68 2E=57 30=62 31=BB 32=96 33=C0 38=00 39=04 3A=32 "
                         "3B=26 18=12 13=00 14&60=00";
const std::string PAL =
    but(NTSC, "0D=51 20=48 22=37 23=3F 2D=64 2E=56 30=7A 31=4A 32=4D 33=F0 18=17");
const std::string QHD15 = "13=00 14&60=00 0B=C0 0C=03 15=23 16=18 17=00 18=37 19=A0 1A=5A 1C=0C "
                          "1D=E4 20=50 21=84 22=36 23=3C 25=FF 26=05 27=2D 28=00 2B=60 2C=0A "
                          "2D=48 2E=70 30=48 31=BA 32=2E 33=90 38=00 39=1C 3A=32 3B=25 80=52 "
                          "81=18 82=38 83=D8 84=28 88=58";

/* ---- Standard blocks ---- */
const std::string AHD_1080P25 = "02&04=04 15=01 16=F0 18=2A 0D=73 20=3C 21=46 25=FE 26=0D 2C=3A "
                                "2D=54 2E=40 30=A5 31=86 32=FB 33=60";
const std::string CVI_1080P25 = "13=40 20=50 26=01 27=5A 28=04 2B=60 2D=54 2E=40 30=41 31=82 "
                                "32=27 33=A2 15=13 16=60 17=80 18=29 19=38 1A=47 1C=09 1D=60";
const std::string AHD_720P25 = "02&04=04 0D=71 18=1B 20=40 21=46 25=FE 26=01 2C=3A 2D=5A 2E=40 "
                               "30=9E 31=20 32=10 33=90";
const std::string CVI_720P25 = "13=40 20=3A 26=01 27=5A 28=04 2B=60 2D=36 2E=40 30=48 31=67 "
                               "32=6F 33=33 15=13 16=0A 17=00 18=19 19=D0 1A=25 1C=06 1D=7A";
const std::string AHD_QHDP25 = "14&60=00 1C&80=80 0D=70 13=00 15=23 16=16 18=32 20=80 21=86 22=36 "
                               "25=FF 26=05 27=AD 2B=60 2D=A0 2E=40 30=48 31=6F 32=B5 33=80 39=40";
const std::string CVI_QHDP25 = "14&60=00 13=40 15=13 16=D8 18=30 1C=0C 1D=80 20=50 21=86 22=38 "
                               "26=05 27=DA 2D=6C 2E=50 30=75 31=39 32=C0 33=3B 39=48";
const std::string UHD = "02&88=08 F6=00 F7=44 FA&07=00 FA&70=00 F4&04=04";

using Setter = void (*)(int32_t fd, int32_t channel, uint8_t standard);

struct SetterDef {
    const char *name;
    Setter set;
    std::string head; /* first writes, timing table with the 0x02 update, shared block */
    std::string ahd, cvi;
    enum Closing { NONE, CLOCK_0, CLOCK_1, OUTPUT_UHD } closing;
};

template <void (*SD)(int32_t, int32_t)>
void sd(int32_t fd, int32_t channel, uint8_t)
{
    SD(fd, channel);
}

const std::string T_1080 = "03 D3 80 29 38 47 00 ", T_720 = "13 16 00 19 D0 25 00 ";
const std::string T_NTSC = timing("13 4E BC 15 F0 07 00 09 38");
const std::string T_PAL = timing("13 5F BC 17 20 17 00 09 48");
const std::string T_4K = "13 BD 00 50 70 8F 00 ", T_QHD = "23 1B 00 38 A0 5A 00 ";

const SetterDef setters[] = {
    {"1080P30", tp2827_video_mode_set_1080P30,
     "35=05 " + timing(T_1080 + "08 98") + "02&17=00 " + HD,
     but(AHD_1080P25, "0D=72 20=38 31=95 32=E0"), but(CVI_1080P25, "20=3C 2D=4C 33=A4"),
     SetterDef::CLOCK_0},
    {"1080P25", tp2827_video_mode_set_1080P25,
     "35=05 " + timing(T_1080 + "0A 50") + "02&17=00 " + HD, AHD_1080P25, CVI_1080P25,
     SetterDef::CLOCK_0},
    {"720P30V2", tp2827_video_mode_set_720P30V2,
     "35=25 " + timing(T_720 + "0C E4") + "02&17=02 " + HD, "", "", SetterDef::CLOCK_0},
    {"720P25V2", tp2827_video_mode_set_720P25V2,
     "35=05 " + timing(T_720 + "0F 78") + "02&17=02 " + HD, "", "", SetterDef::CLOCK_0},
    {"720P30", tp2827_video_mode_set_720P30,
     "35=25 " + timing(T_720 + "06 72") + "02&17=02 " + HD720,
     but(AHD_720P25, "0D=70 30=9D 31=CA 32=01 33=D0"),
     but(CVI_720P25, "20=30 2D=37 33=30 16=08 1D=72"), SetterDef::CLOCK_1},
    {"720P25", tp2827_video_mode_set_720P25,
     "35=25 " + timing(T_720 + "07 BC") + "02&17=02 " + HD720, AHD_720P25, CVI_720P25,
     SetterDef::CLOCK_1},
    {"NTSC", sd<tp2827_video_mode_set_NTSC>, "35=25 " + T_NTSC + "02&17=07 " + NTSC, "", "",
     SetterDef::CLOCK_1},
    {"PAL", sd<tp2827_video_mode_set_PAL>, "35=25 " + T_PAL + "02&17=07 " + PAL, "", "",
     SetterDef::CLOCK_1},
    /* The TP2826's SD setters update 0x07 instead of 0x02 and have no clock step. */
    {"PAL_2826", sd<tp2826_video_mode_set_PAL>, "35=25 " + T_PAL + "07&07=07 " + PAL, "", "",
     SetterDef::NONE},
    {"4K12", tp2827_video_mode_set_4K12,
     "35=18 36=CA 02&17=10 " + timing(T_4K + "14 9E") + BLOCK_4K, "",
     "0C=03 0D=50 14&60=00 13=40 15=23 16=F8 18=50 20=68 21=84 22=36 23=3C 25=FF 26=05 27=DA "
     "28=00 2B=60 2C=0A 2D=84 2E=50 30=75 31=39 32=C0 33=32 38=40 39=48 3A=12 3B=26 1C=13 1D=10",
     SetterDef::OUTPUT_UHD},
    {"4K15", tp2827_video_mode_set_4K15,
     "35=18 36=CA 02&17=10 " + timing(T_4K + "11 2E") + BLOCK_4K,
     "14&40=40 13=00 15=13 16=74 20=50 26=05 27=AD 2B=60 2D=58 2E=48 30=48 31=68 32=43 33=00 39=40",
     "14&60=00 13=40 20=50 21=86 22=38 26=05 27=DA 2D=84 2E=50 30=75 31=39 32=C0 33=31 39=48",
     SetterDef::OUTPUT_UHD},
    {"QHDP15", tp2827_video_mode_set_QHDP15,
     "35=15 36=DC " + timing("13 0F 00 32 A0 5A 00 0C E4") + "02&17=00 " + QHD15,
     "14&40=40 13=00 20=38 21=46 25=FE 26=01 2D=44 2E=40 30=29 31=68 32=78 33=10 38=40 39=40 3A=12",
     "", SetterDef::CLOCK_0},
    {"QHDP25", tp2827_video_mode_set_QHDP25,
     "35=15 36=DC 02&17=10 " + timing(T_QHD + "0F 76") + QHD, AHD_QHDP25, CVI_QHDP25,
     SetterDef::OUTPUT_UHD},
    {"QHDP30", tp2827_video_mode_set_QHDP30,
     "35=15 36=DC 02&17=10 " + timing(T_QHD + "0C E2") + QHD, but(AHD_QHDP25, "31=6A 32=BE"),
     but(CVI_QHDP25, "16=FA 18=38 33=31"), SetterDef::OUTPUT_UHD},
};

/* Each setter with TVI, AHD, CVI and CVBS, the channels taken in turn so that
 * every output clock register is used. The 4K and QHD 25/30 setters run on
 * channel 0 only: on the others they write nothing, not even the page. */
TEST(Setters, WriteTheFormatsRegisterSequence)
{
    log_capture_start();
    const char *const clock0[] = {"FA&07=00", "FB&07=00", "FA&70=00", "FB&70=00"};
    const char *const clock1[] = {"FA&07=01", "FB&07=01", "FA&70=10", "FB&70=10"};
    int turn = 0;
    for (const SetterDef &def : setters) {
        for (int standard : {VS_TVI, VS_AHD, VS_CVI, VS_CVBS}) {
            const bool uhd = def.closing == SetterDef::OUTPUT_UHD;
            const int ch = uhd ? 0 : turn++ % 4;
            SCOPED_TRACE(std::string(def.name) + " " + video_standard_to_string(standard) +
                         " channel " + std::to_string(ch));
            fakechip::FakeChip chip;
            /* Distinct values everywhere show which bits each update replaced. */
            for (int reg = 0; reg < 256; reg++)
                chip.set(ANY_PAGE, uint8_t(reg), uint8_t(reg == 0x40 ? 4 : reg ^ 0x5A));
            log_capture_clear();
            def.set(chip.fd(), ch, uint8_t(standard));
            const std::string closing[] = {"", clock0[ch], clock1[ch], UHD};
            const std::string block = standard == VS_AHD   ? def.ahd
                                      : standard == VS_CVI ? def.cvi
                                                           : "";
            EXPECT_SEQ(chip,
                       "40=0" + std::to_string(ch) + " " + def.head + " " + block + " " +
                           closing[def.closing],
                       0x04);
            EXPECT_EQ(chip.page(), ch); /* left selected */
            if (!uhd)
                continue;
            /* The UHD output flags capture device 2, missing on a build machine. */
            if (access("/dev/cam2", F_OK) != 0) {
                EXPECT_EQ(log_count(G_LOG_LEVEL_WARNING, "Failed to open /dev/cam2, code: 2:" +
                                                             std::string(g_strerror(ENOENT))),
                          1u);
            }
            const int other = 1 + standard % 3;
            chip.clear_log();
            def.set(chip.fd(), other, uint8_t(standard));
            EXPECT_TRUE(chip.log().empty());
            EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR,
                                "4K/QHD input is not allowed on channel " + std::to_string(other)),
                      1u);
        }
    }
}

} // namespace
