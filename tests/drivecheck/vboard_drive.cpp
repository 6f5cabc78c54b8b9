/* vboard-drive: the chip driver on its own against /dev/i2c-7, through the
 * entry points the daemon uses. "identify" prints the chip's name; "lock
 * SECONDS CH..." runs detection passes until each channel has locked ("ch 0
 * locked tvi 1080p25") or time ran out ("ch 0 no lock"); "program CH STD
 * RES..." sets fixed formats and prints what the chip then shows ("ch 0 cvi
 * 4k12 locked line-length 4880 video 1"). Exit status 1 when a format is
 * refused or no chip answers, 2 on bad usage. */
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "decoder.h"
#include "decoder_types.h"
#include "gpio.h"
#include "tp28xx.h"

namespace
{

/* The chip locks a few hundred ms after a format is programmed and the driver
 * gives up after eleven confirmation steps: passes 50 ms apart leave it ample
 * time without the daemon's 2 s interval. */
constexpr gulong PASS_INTERVAL_US = 50000;
constexpr gulong PROGRAM_SETTLE_US = 800000;

void close_decoder(Decoder *dec)
{
    for (int32_t i = 0; dec->channels && i < dec->nbr_channels; i++)
        g_free(dec->channels[i].chip_state);
    g_free(dec->channels);
    g_mutex_clear(dec->lock);
    g_free(dec->lock);
    tp28xx_close(dec);
    g_free(dec);
}
using DecoderPtr = std::unique_ptr<Decoder, decltype(&close_decoder)>;

/* What decoder_create does for the chip, without the services: reset pulse,
 * probe and initialisation, then every channel set up in automatic mode. */
DecoderPtr open_decoder()
{
    gpio_reset_decoder();
    DecoderPtr dec(tp28xx_create(), close_decoder);
    if (!dec)
        return dec;
    dec->lock = g_new0(GMutex, 1);
    g_mutex_init(dec->lock);
    dec->channels = g_new0(Channel, dec->nbr_channels);
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(dec->lock);
    for (int32_t i = 0; i < dec->nbr_channels; i++) {
        Channel &ch = dec->channels[i];
        ch.index = i;
        ch.decoder = dec.get();
        ch.video_type = VT_AUTO;
        ch.detected_type = -1;
        ch.standard = VS_NONE;
        ch.auto_mode = 1;
        dec->ops.setup_channel(&ch);
    }
    return dec;
}

int32_t parse_channel(const char *text)
{
    char *end;
    const long v = std::strtol(text, &end, 10);
    return end != text && *end == '\0' && v >= 0 && v < MAX_SOURCES ? static_cast<int32_t>(v) : -1;
}

int cmd_lock(Decoder *dec, std::vector<int32_t> pending, double seconds)
{
    const gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(seconds * G_USEC_PER_SEC);
    while (!pending.empty() && g_get_monotonic_time() < deadline) {
        std::vector<int32_t> still;
        for (int32_t index : pending) {
            Channel *ch = &dec->channels[index];
            g_autoptr(GMutexLocker) locker = g_mutex_locker_new(dec->lock);
            int32_t type, standard;
            dec->ops.detect_video_type(ch, &type, &standard);
            if (ch->chip_state->lock_state != LS_LOCKED || !video_type_is_valid(type)) {
                still.push_back(index);
                continue;
            }
            /* The manager's acceptance programs the format once more as its own. */
            dec->ops.set_video_standard(ch, standard, type, 1, 1);
            std::printf("ch %d locked %s %s\n", index, video_standard_to_string(standard),
                        video_type_to_string(type));
        }
        pending.swap(still);
        g_usleep(pending.empty() ? 0 : PASS_INTERVAL_US);
    }
    for (int32_t index : pending)
        std::printf("ch %d no lock\n", index);
    return 0;
}

int cmd_program(Decoder *dec, char **args, int count)
{
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(dec->lock);
    for (int i = 0; i < count; i += 3) {
        const int32_t index = parse_channel(args[i]);
        const int32_t standard = video_standard_from_string(args[i + 1]);
        const int32_t type = video_type_from_string(args[i + 2]);
        if (index < 0 || is_valid_combo(dec->dec_chip == video_tp2827, standard, type, index) ||
            dec->ops.set_video_standard(&dec->channels[index], standard, type, 0, 1) != 0) {
            std::printf("ch %s %s %s refused\n", args[i], args[i + 1], args[i + 2]);
            return 1;
        }
    }
    g_usleep(PROGRAM_SETTLE_US);
    for (int i = 0; i < count; i += 3) {
        Channel *ch = &dec->channels[parse_channel(args[i])];
        int32_t length, status;
        {
            /* Full lock is status bits 5 and 6; bit 4, sync, comes with any
             * camera and is all video_status needs. */
            Tp28xxPageScope scope(dec, ch->index);
            length = (i2c_read_reg(scope.fd(), 0x1C) & 0x7F) << 8 | i2c_read_reg(scope.fd(), 0x1D);
            status = i2c_read_reg(scope.fd(), 0x01);
        }
        std::printf("ch %d %s %s %s line-length %d video %d\n", ch->index,
                    video_standard_to_string(ch->standard), video_type_to_string(ch->video_type),
                    status >= 0 && (status & 0xE0) == 0x60 ? "locked" : "no-lock", length,
                    dec->ops.video_status(ch));
    }
    return 0;
}

/* The driver's messages go to stderr: stdout carries the results alone. */
GLogWriterOutput log_to_stderr(GLogLevelFlags level, const GLogField *fields, gsize n_fields,
                               gpointer)
{
    g_autofree char *text = g_log_writer_format_fields(level, fields, n_fields, FALSE);
    std::fprintf(stderr, "%s\n", text);
    return G_LOG_WRITER_HANDLED;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string cmd = argc > 1 ? argv[1] : "";
    std::vector<int32_t> channels;
    for (int i = 3; cmd == "lock" && i < argc; i++)
        channels.push_back(parse_channel(argv[i]));
    const bool lock_ok = argc > 3 && std::atof(argv[2]) > 0 && std::erase(channels, -1) == 0;
    if (!(cmd == "lock" && lock_ok) && !(cmd == "identify" && argc == 2) &&
        !(cmd == "program" && argc >= 5 && (argc - 2) % 3 == 0)) {
        std::fprintf(stderr, "usage: vboard-drive identify | lock SECONDS CH... | "
                             "program CH STANDARD RESOLUTION...\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    g_log_set_writer_func(log_to_stderr, nullptr, nullptr);
    DecoderPtr dec = open_decoder();
    if (!dec) {
        std::printf("no chip\n");
        return 1;
    }
    if (cmd == "identify")
        std::printf("%s\n", dec->name);
    return cmd == "lock"      ? cmd_lock(dec.get(), channels, std::atof(argv[2]))
           : cmd == "program" ? cmd_program(dec.get(), argv + 2, argc - 2)
                              : 0;
}
