/* vboard-drive: the chip driver on /dev/i2c-7 through the daemon's entry points. It prints the
 * chip's name; "lock SECONDS" detects until every channel locked ("ch 0 locked tvi 1080p25") or
 * time ran out ("ch 0 no lock"); "program STD RES..." sets formats on channels 0, 1, ... and
 * prints whether the chip locks ("ch 0 cvi 4k12 locked video 1"). Exit 1: no chip, or refused. */
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "decoder.h"
#include "decoder_types.h"
#include "korvi_log.h"
#include "tp28xx.h"

namespace
{

/* Passes 50 ms apart, not the daemon's 2 s: the chip locks 300 ms after programming. */
constexpr gulong PASS_INTERVAL_US = 50000;

int lock(Decoder *dec, double seconds)
{
    std::vector<Channel *> pending;
    for (int32_t i = 0; i < dec->nbr_channels; i++)
        pending.push_back(&dec->channels[i]);
    const gint64 deadline = g_get_monotonic_time() + gint64(seconds * G_USEC_PER_SEC);
    while (!pending.empty() && g_get_monotonic_time() < deadline) {
        g_usleep(PASS_INTERVAL_US);
        g_autoptr(GMutexLocker) locker = g_mutex_locker_new(dec->lock);
        std::erase_if(pending, [dec](Channel *ch) {
            int32_t type, standard;
            dec->ops.detect_video_type(ch, &type, &standard);
            if (ch->chip_state->lock_state != LS_LOCKED || !video_type_is_valid(type))
                return false;
            /* The manager's acceptance programs the format once more as its own. */
            dec->ops.set_video_standard(ch, standard, type, 1, 1);
            std::printf("ch %d locked %s %s\n", ch->index, video_standard_to_string(standard),
                        video_type_to_string(type));
            return true;
        });
    }
    for (Channel *ch : pending)
        std::printf("ch %d no lock\n", ch->index);
    return 0;
}

int program(Decoder *dec, char **args, int count)
{
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(dec->lock);
    for (int i = 0; i < count; i++) {
        const int32_t standard = video_standard_from_string(args[2 * i]);
        const int32_t type = video_type_from_string(args[2 * i + 1]);
        if (is_valid_combo(dec->dec_chip == video_tp2827, standard, type, i) ||
            dec->ops.set_video_standard(&dec->channels[i], standard, type, 0, 1) != 0)
            return 1; /* refused */
    }
    g_usleep(800000);
    for (int i = 0; i < count; i++) {
        Channel *ch = &dec->channels[i];
        const int32_t video = dec->ops.video_status(ch);
        Tp28xxPageScope scope(dec, i);
        const int32_t status = i2c_read_reg(scope.fd(), 0x01); /* full lock: bits 5 and 6 */
        std::printf("ch %d %s %s %s video %d\n", i, video_standard_to_string(ch->standard),
                    video_type_to_string(ch->video_type),
                    status >= 0 && (status & 0xE0) == 0x60 ? "locked" : "no-lock", video);
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string cmd = argc > 1 ? argv[1] : "";
    if (!(cmd == "lock" && argc == 3) && !(cmd == "program" && argc % 2 == 0 && argc <= 10))
        return 2; /* usage: lock SECONDS | program STANDARD RESOLUTION... */
    korvi_log_syslog(argc, argv);
    Decoder *dec = decoder_create();
    if (!dec)
        return 1;
    std::printf("%s\n", dec->name);
    const int rc =
        cmd == "lock" ? lock(dec, std::atof(argv[2])) : program(dec, argv + 2, argc / 2 - 1);
    decoder_exit(dec);
    return rc;
}
