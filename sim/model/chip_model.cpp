/* Register-level model of the decoder chip; see chip_model.h for the map and
 * the rules it follows. */
#include "chip_model.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <type_traits>
#include <utility>

namespace vboard
{

namespace
{

constexpr uint8_t REG_STATUS = 0x01;
constexpr uint8_t REG_FORMAT = 0x03;
constexpr uint8_t REG_DATA = 0x04;
constexpr uint8_t REG_LINE_HI = 0x1C;
constexpr uint8_t REG_LINE_LO = 0x1D;
constexpr uint8_t REG_INDEX = 0x2F;
constexpr uint8_t REG_MODE = 0x35;
constexpr uint8_t REG_PAGE = 0x40;
constexpr uint8_t REG_PTZ_CTRL = 0x6F;
constexpr uint8_t REG_PTZ_ENABLE = 0x71;
constexpr uint8_t REG_IRQ_GROUP0 = 0xB4;
constexpr uint8_t REG_IRQ_VIDEO = 0xB5;
constexpr uint8_t REG_IRQ_PTZ = 0xB6;
constexpr uint8_t REG_IRQ_ENABLE = 0xB8;
constexpr uint8_t REG_CHANNEL_MODE = 0xF5;
constexpr uint8_t REG_REVISION = 0xFD;
constexpr uint8_t REG_ID_HI = 0xFE;
constexpr uint8_t REG_ID_LO = 0xFF;

constexpr uint8_t ST_NO_VIDEO = 0x80;
constexpr uint8_t ST_LOCK = 0x60;
constexpr uint8_t ST_SYNC = 0x10;
constexpr uint8_t ST_TVI = 0x04;

/* i2c-dev cuts longer transfers to this size. */
constexpr size_t MAX_TRANSFER = 8192;

bool is_channel_reg(unsigned r)
{
    return r <= 0x3F || (r >= 0x55 && r <= 0xA7) || (r >= 0xC0 && r <= 0xCF);
}

/* Status registers of a channel bank: derived from the camera, not stored. */
bool is_status_reg(unsigned r)
{
    return r == REG_STATUS || r == REG_FORMAT || r == REG_DATA || (r >= 0x91 && r <= 0x93);
}

bool is_readonly_global(unsigned r)
{
    return r == REG_REVISION || r == REG_ID_HI || r == REG_ID_LO;
}

constexpr int BANK_BROADCAST = -2;
constexpr int BANK_NONE = -1;

/* Bank a page value selects: 0..3 channels, 4/5 auxiliary (see header). */
int bank_for_page(uint8_t page)
{
    if (page <= 3)
        return page;
    if (page == 0x04)
        return BANK_BROADCAST;
    if (page == 0x10)
        return 4;
    if (page == 0x40)
        return 5;
    return BANK_NONE;
}

/* What the chip's detector shows for a camera: 0x03 (class and short-line
 * flag), the detail values behind index 0x0E (a) and 0x09 (b). */
struct Signature {
    uint8_t format;
    uint8_t detail_a;
    uint8_t detail_b;
};

Signature signature(const Camera &cam)
{
    switch (cam.resolution) {
    case 0:
        return {0x00, 0x2E, 0x00};
    case 1:
        return {0x01, 0x2E, 0x00};
    case RES_1080P30:
        return {0x02, 0x46, 0x00};
    case RES_1080P25:
        return {0x03, 0x46, 0x00};
    case RES_720P30:
        /* Long lines leave the detail lookup without a match, so the class
         * (4) and the clear short-line bit tell the format. */
        return cam.long_lines ? Signature{0x04, 0x00, 0x00} : Signature{0x0C, 0x2E, 0x67};
    case RES_720P25:
        return cam.long_lines ? Signature{0x05, 0x00, 0x00} : Signature{0x0D, 0x00, 0x7B};
    case 6:
        return {0x06, 0x00, 0x00};
    case 7:
        return {0x07, 0x00, 0x00};
    case RES_PAL:
        return {0x06, 0x00, 0x94};
    case RES_NTSC:
        return {0x06, 0x00, 0x93};
    case RES_4K12:
        return {0x03, 0x8C, 0x00};
    case RES_4K15:
        return {0x02, 0x8C, 0x00};
    case 18:
        return {0x04, 0x00, 0x5C};
    case 21:
        return {0x04, 0x00, 0x75};
    case RES_1440P15:
        return {0x04, 0x5D, 0x67};
    case RES_1440P25:
        return {0x01, 0x5D, 0x00};
    case RES_1440P30:
        return {0x00, 0x5D, 0x00};
    case 28:
        return {0x04, 0x00, 0x38};
    case 29:
        return {0x04, 0x00, 0x2E};
    default:
        return {0x07, 0x00, 0x00};
    }
}

/* Clocks per line the channel must be programmed with; 0 when no
 * programming fits. */
unsigned expected_line_length(const Camera &cam)
{
    const bool cvi = cam.standard == Standard::CVI;
    switch (cam.resolution) {
    case RES_1080P30:
        return cvi ? 2400 : 2200;
    case RES_1080P25:
        return cvi ? 2400 : 2640;
    case RES_720P30:
        return cam.long_lines ? 3300 : 1650;
    case RES_720P25:
        return cam.long_lines ? 3960 : (cvi ? 1658 : 1980);
    case RES_PAL:
        return 2376;
    case RES_NTSC:
        return 2360;
    case RES_4K12:
        return cvi ? 4880 : 5278;
    case RES_4K15:
        return 4398;
    case RES_1440P15:
        return 3300;
    case RES_1440P25:
        return cvi ? 3200 : 3958;
    case RES_1440P30:
        return cvi ? 3200 : 3298;
    default:
        return 0;
    }
}

bool needs_half_rate(const Camera &cam)
{
    switch (cam.resolution) {
    case RES_PAL:
    case RES_NTSC:
        return true;
    case RES_720P30:
    case RES_720P25:
        return !cam.long_lines;
    default:
        return false;
    }
}

/* One data byte from its three transmit registers; none for a bad symbol. */
std::optional<uint8_t> decode_ptz_byte(const uint8_t *regs)
{
    const uint32_t word = uint32_t(regs[0]) << 16 | uint32_t(regs[1]) << 8 | regs[2];
    uint8_t byte = 0;
    for (int i = 0; i < 8; i++) {
        const unsigned symbol = (word >> (21 - 3 * i)) & 7;
        if (symbol == 6)
            byte = uint8_t(byte << 1 | 1);
        else if (symbol == 4)
            byte = uint8_t(byte << 1);
        else
            return std::nullopt;
    }
    return byte;
}

} // namespace

bool camera_is_valid(const Camera &cam)
{
    switch (cam.resolution) {
    case 6:
    case RES_PAL:
    case RES_NTSC:
        return cam.standard == Standard::CVBS;
    case 28:
        return cam.standard == Standard::CVI;
    case 29:
        return cam.standard == Standard::AHD;
    case 0:
    case 1:
    case RES_1080P30:
    case RES_1080P25:
    case RES_720P30:
    case RES_720P25:
    case 7:
    case RES_4K12:
    case RES_4K15:
    case 18:
    case 21:
    case RES_1440P15:
    case RES_1440P25:
    case RES_1440P30:
        return cam.standard != Standard::CVBS;
    default:
        return false;
    }
}

const char *standard_name(Standard s)
{
    switch (s) {
    case Standard::TVI:
        return "tvi";
    case Standard::AHD:
        return "ahd";
    case Standard::CVI:
        return "cvi";
    case Standard::CVBS:
        return "cvbs";
    }
    return "?";
}

std::optional<Standard> standard_from_name(const char *name)
{
    if (!name)
        return std::nullopt;
    for (Standard s : {Standard::TVI, Standard::AHD, Standard::CVI, Standard::CVBS})
        if (strcmp(name, standard_name(s)) == 0)
            return s;
    return std::nullopt;
}

int page_slot(uint8_t page_value)
{
    if (page_value <= 4)
        return page_value;
    if (page_value == 0x10)
        return PAGE_SLOT_AUX10;
    if (page_value == 0x40)
        return PAGE_SLOT_AUX40;
    return PAGE_SLOT_OTHER;
}

uint64_t ChipModel::steady_clock_us()
{
    using namespace std::chrono;
    return uint64_t(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

ChipModel::ChipModel(ChipKind kind, Clock clock_us) : kind_(kind), clock_(std::move(clock_us))
{
    power_on();
}

/* Every public entry: lock, catch up with the clock, act, catch up again (a
 * zero delay takes effect at once), then call the edge callback unlocked. */
template <class F>
auto ChipModel::run(F &&f)
{
    using R = std::invoke_result_t<F, uint64_t>;
    std::function<void()> callback;
    unsigned edges;
    auto finish = [&](uint64_t now) {
        advance(now);
        edges = std::exchange(pending_edges_, 0);
        if (edges)
            callback = on_edge_;
    };
    auto fire = [&] {
        for (unsigned i = 0; callback && i < edges; i++)
            callback();
    };
    if constexpr (std::is_void_v<R>) {
        {
            std::lock_guard lock(mutex_);
            const uint64_t now = clock_();
            advance(now);
            f(now);
            finish(now);
        }
        fire();
    } else {
        std::optional<R> result;
        {
            std::lock_guard lock(mutex_);
            const uint64_t now = clock_();
            advance(now);
            result.emplace(f(now));
            finish(now);
        }
        fire();
        return std::move(*result);
    }
}

void ChipModel::power_on()
{
    global_.fill(0);
    global_[REG_ID_HI] = 0x28;
    global_[REG_ID_LO] = kind_ == ChipKind::TP2826 ? 0x26 : 0x27;
    global_[REG_REVISION] = revision_;
    global_[REG_PAGE] = 0x00;
    for (auto &b : banks_)
        b.fill(0);
    /* The channels wake up in the chip's default format: 720p-class timing in
     * full-rate mode. */
    static const uint8_t timing[9] = {0x13, 0x15, 0x00, 0x19, 0xD0, 0x25, 0x00, 0x06, 0x72};
    for (int ch = 0; ch < NUM_CHANNELS; ch++) {
        auto &b = banks_[ch];
        b[0x07] = 0xC0;
        b[0x0B] = 0xC0;
        b[0x21] = 0x84;
        b[0x39] = 0x1C;
        b[0x3A] = 0x32;
        b[0x3B] = 0x26;
        b[0x35] = 0x05;
        b[0x36] = 0x05;
        std::copy(std::begin(timing), std::end(timing), b.begin() + 0x15);
    }
    pointer_ = 0;
}

bool ChipModel::fits_locked(int ch) const
{
    const auto &cam = inputs_[ch].cam;
    if (!cam)
        return false;
    const unsigned want = expected_line_length(*cam);
    const auto &b = banks_[ch];
    const unsigned line = unsigned(b[REG_LINE_HI] & 0x7F) << 8 | b[REG_LINE_LO];
    if (want == 0 || line != want)
        return false;
    const bool half_rate_mode = global_[REG_CHANNEL_MODE] >> ch & 1;
    if (needs_half_rate(*cam))
        return half_rate_mode && (b[REG_MODE] & 0x20);
    return !half_rate_mode;
}

/* The reserve of a held lock at now: grown on fitting programming (capped at
 * lock_delay), drained on programming that does not fit. */
uint64_t ChipModel::lock_reserve(const Input &in, uint64_t now) const
{
    const uint64_t elapsed = now - in.reserve_at;
    if (in.fits)
        return std::min(lock_delay_us_, in.reserve + elapsed);
    return in.reserve > elapsed ? in.reserve - elapsed : 0;
}

void ChipModel::update_fit(int ch, uint64_t now)
{
    Input &in = inputs_[ch];
    const bool f = fits_locked(ch);
    if (in.locked && f != in.fits) {
        in.reserve = lock_reserve(in, now);
        in.reserve_at = now;
    }
    if (f && !in.fits)
        in.fit_since = now;
    in.fits = f;
    if (!f && in.locked && in.reserve == 0) {
        in.locked = false;
        raise_event(ch);
    }
}

void ChipModel::raise_event(int ch)
{
    if (!(global_[REG_IRQ_ENABLE] >> (2 * ch) & 3))
        return;
    const bool was_high = global_[REG_IRQ_VIDEO] != 0;
    global_[REG_IRQ_VIDEO] |= uint8_t(1u << ch);
    if (!was_high && !absent_) {
        pending_edges_++;
        counters_.irq_edges++;
    }
}

void ChipModel::advance(uint64_t now)
{
    for (int ch = 0; ch < NUM_CHANNELS; ch++) {
        Input &in = inputs_[ch];
        if (in.cam) {
            const uint64_t sync_at = in.plugged_at + sync_delay_us_;
            if (!in.sync && now >= sync_at)
                in.sync = true;
            const uint64_t lock_at = std::max(in.fit_since + lock_delay_us_, sync_at);
            if (in.fits && !in.locked && in.sync && now >= lock_at) {
                in.locked = true;
                in.reserve = 0;
                in.reserve_at = lock_at;
                raise_event(ch);
            }
            if (in.locked && !in.fits && now >= in.reserve_at + in.reserve) {
                in.locked = false;
                raise_event(ch);
            }
        }
        while (!in.ptz_in_flight.empty() && in.ptz_in_flight.front().done_at <= now) {
            const Ptz &p = in.ptz_in_flight.front();
            global_[REG_IRQ_PTZ] |= uint8_t(1u << ch);
            if (!p.valid)
                counters_.ptz_garbled++;
            else if (in.cam)
                in.ptz_received.push_back(p.record);
            in.ptz_in_flight.pop_front();
        }
    }
}

uint64_t ChipModel::deadline_locked() const
{
    uint64_t next = UINT64_MAX;
    for (const Input &in : inputs_) {
        if (in.cam) {
            const uint64_t sync_at = in.plugged_at + sync_delay_us_;
            if (!in.sync)
                next = std::min(next, sync_at);
            if (in.fits && !in.locked)
                next = std::min(next, std::max(in.fit_since + lock_delay_us_, sync_at));
            if (in.locked && !in.fits)
                next = std::min(next, in.reserve_at + in.reserve);
        }
        if (!in.ptz_in_flight.empty())
            next = std::min(next, in.ptz_in_flight.front().done_at);
    }
    return next;
}

uint8_t ChipModel::status_reg(int ch, uint8_t r) const
{
    const Input &in = inputs_[ch];
    if (!in.cam)
        return r == REG_STATUS ? ST_NO_VIDEO : r == REG_FORMAT ? 0x07 : 0x00;
    const Signature sig = signature(*in.cam);
    switch (r) {
    case REG_STATUS: {
        uint8_t v = 0;
        if (in.sync)
            v |= ST_SYNC;
        if (in.locked)
            v |= ST_LOCK;
        if (in.cam->standard == Standard::TVI)
            v |= ST_TVI;
        return v;
    }
    case REG_FORMAT:
        return sig.format;
    case REG_DATA: {
        const uint8_t index = banks_[ch][REG_INDEX];
        return index == 0x0E ? sig.detail_a : index == 0x09 ? sig.detail_b : 0x00;
    }
    default: /* 0x91..0x93: the CVI signature */
        return in.cam->standard == Standard::CVI ? 0xFF : 0x00;
    }
}

uint8_t ChipModel::read_reg(uint8_t page, uint8_t r) const
{
    if (!is_channel_reg(r))
        return global_[r];
    int bank = bank_for_page(page);
    if (bank == BANK_BROADCAST)
        bank = 0;
    if (bank == BANK_NONE)
        return 0x00;
    if (bank < NUM_CHANNELS && is_status_reg(r))
        return status_reg(bank, r);
    return banks_[bank][r];
}

void ChipModel::start_ptz(int ch, uint64_t now)
{
    if (kind_ != ChipKind::TP2827 || !(banks_[ch][REG_PTZ_ENABLE] & 0x20))
        return;
    const auto &b = banks_[ch];
    const auto d1 = decode_ptz_byte(&b[0x58]);
    const auto d2 = decode_ptz_byte(&b[0x55]);
    const auto d3 = decode_ptz_byte(&b[0x5E]);
    const auto d4 = decode_ptz_byte(&b[0x5B]);
    Ptz p{};
    p.valid = d1 && d2 && d3 && d4;
    if (p.valid)
        p.record = {uint8_t(ch), *d1, *d2, *d3, *d4};
    /* One transmitter per channel: a pulse during a transmission queues. */
    const uint64_t start =
        inputs_[ch].ptz_in_flight.empty() ? now : inputs_[ch].ptz_in_flight.back().done_at;
    p.done_at = start + ptz_time_us_;
    inputs_[ch].ptz_in_flight.push_back(p);
    counters_.ptz_transmissions++;
}

void ChipModel::write_bank_reg(int bank, uint8_t r, uint8_t v, uint64_t now)
{
    if (bank < NUM_CHANNELS && is_status_reg(r))
        return;
    const uint8_t old = banks_[bank][r];
    banks_[bank][r] = v;
    if (bank >= NUM_CHANNELS)
        return;
    if (r == REG_PTZ_CTRL && !(old & 1) && (v & 1))
        start_ptz(bank, now);
    if (r == REG_LINE_HI || r == REG_LINE_LO || r == REG_MODE)
        update_fit(bank, now);
}

void ChipModel::write_reg(uint8_t r, uint8_t v, uint64_t now)
{
    if (is_channel_reg(r)) {
        const int bank = bank_for_page(global_[REG_PAGE]);
        if (bank == BANK_BROADCAST) {
            for (int ch = 0; ch < NUM_CHANNELS; ch++)
                write_bank_reg(ch, r, v, now);
        } else if (bank != BANK_NONE) {
            write_bank_reg(bank, r, v, now);
        }
        return;
    }
    if (is_readonly_global(r))
        return;
    if (r >= REG_IRQ_GROUP0 && r <= REG_IRQ_PTZ) {
        global_[r] &= uint8_t(~v);
        return;
    }
    global_[r] = v;
    if (r == REG_CHANNEL_MODE)
        for (int ch = 0; ch < NUM_CHANNELS; ch++)
            update_fit(ch, now);
}

int ChipModel::check_transfer(size_t first_reg, size_t count) const
{
    if (absent_ || in_reset_ || address_ != CHIP_ADDRESS)
        return -ENXIO;
    if (nack_all_)
        return -EREMOTEIO;
    if (nack_reg_ >= 0)
        for (size_t i = 0; i < count; i++)
            if (((first_reg + i) & 0xFF) == unsigned(nack_reg_))
                return -EREMOTEIO;
    return 0;
}

int ChipModel::set_address(unsigned addr7)
{
    return run([&](uint64_t) {
        address_ = addr7;
        counters_.address_sets++;
        return 0;
    });
}

int ChipModel::write(const uint8_t *buf, size_t len)
{
    return run([&](uint64_t now) -> int {
        len = std::min(len, MAX_TRANSFER);
        const uint8_t first = len ? buf[0] : pointer_;
        const int err = check_transfer(first, len > 1 ? len - 1 : 1);
        if (err) {
            counters_.failed++;
            return err;
        }
        if (len == 0)
            return 0;
        if (len == 1) {
            counters_.pointer_writes++;
            pointer_ = first;
            return 1;
        }
        for (size_t i = 1; i < len; i++) {
            const uint8_t r = uint8_t(first + i - 1);
            counters_.register_writes++;
            counters_.reg_writes[page_slot(global_[REG_PAGE])][r]++;
            write_reg(r, buf[i], now);
        }
        pointer_ = uint8_t(first + len - 1);
        return int(len);
    });
}

int ChipModel::read(uint8_t *buf, size_t len)
{
    return run([&](uint64_t) -> int {
        len = std::min(len, MAX_TRANSFER);
        const int err = check_transfer(pointer_, len ? len : 1);
        if (err) {
            counters_.failed++;
            return err;
        }
        if (len == 0)
            return 0;
        counters_.reads++;
        const uint8_t page = global_[REG_PAGE];
        for (size_t i = 0; i < len; i++) {
            buf[i] = read_reg(page, pointer_);
            counters_.reg_reads[page_slot(page)][pointer_]++;
            pointer_++;
        }
        return int(len);
    });
}

void ChipModel::reset_locked(uint64_t now)
{
    power_on();
    for (int ch = 0; ch < NUM_CHANNELS; ch++) {
        Input &in = inputs_[ch];
        in.ptz_in_flight.clear();
        in.fits = false;
        in.locked = false;
        update_fit(ch, now);
    }
}

void ChipModel::reset()
{
    run([&](uint64_t now) { reset_locked(now); });
}

void ChipModel::set_reset_line(bool asserted)
{
    run([&](uint64_t now) {
        if (asserted && !in_reset_)
            reset_locked(now);
        in_reset_ = asserted;
    });
}

bool ChipModel::plug(int ch, const Camera &cam)
{
    if (ch < 0 || ch >= NUM_CHANNELS || !camera_is_valid(cam))
        return false;
    run([&](uint64_t now) {
        Input &in = inputs_[ch];
        in.cam = cam;
        in.plugged_at = now;
        in.sync = false;
        in.locked = false;
        in.fits = false;
        update_fit(ch, now);
        raise_event(ch);
    });
    return true;
}

void ChipModel::unplug(int ch)
{
    if (ch < 0 || ch >= NUM_CHANNELS)
        return;
    run([&](uint64_t) {
        Input &in = inputs_[ch];
        if (!in.cam)
            return;
        in.cam.reset();
        in.sync = false;
        in.fits = false;
        in.locked = false;
        raise_event(ch);
    });
}

std::optional<Camera> ChipModel::camera(int ch)
{
    if (ch < 0 || ch >= NUM_CHANNELS)
        return std::nullopt;
    return run([&](uint64_t) { return inputs_[ch].cam; });
}

void ChipModel::set_sync_delay_us(uint64_t us)
{
    run([&](uint64_t) { sync_delay_us_ = us; });
}

void ChipModel::set_lock_delay_us(uint64_t us)
{
    run([&](uint64_t) { lock_delay_us_ = us; });
}

void ChipModel::set_ptz_time_us(uint64_t us)
{
    run([&](uint64_t) { ptz_time_us_ = us; });
}

void ChipModel::set_revision(uint8_t rev)
{
    run([&](uint64_t) {
        revision_ = rev;
        global_[REG_REVISION] = rev;
    });
}

uint64_t ChipModel::next_deadline_us()
{
    return run([&](uint64_t) { return deadline_locked(); });
}

void ChipModel::poll()
{
    run([](uint64_t) {});
}

void ChipModel::set_irq_callback(std::function<void()> on_edge)
{
    std::lock_guard lock(mutex_);
    on_edge_ = std::move(on_edge);
}

bool ChipModel::irq_pending()
{
    return run([&](uint64_t) { return !absent_ && global_[REG_IRQ_VIDEO] != 0; });
}

void ChipModel::set_absent(bool on)
{
    run([&](uint64_t) { absent_ = on; });
}

void ChipModel::set_nack_all(bool on)
{
    run([&](uint64_t) { nack_all_ = on; });
}

void ChipModel::set_nack_register(int reg)
{
    run([&](uint64_t) { nack_reg_ = reg >= 0 && reg <= 0xFF ? reg : -1; });
}

uint8_t ChipModel::reg(uint8_t page, uint8_t r)
{
    return run([&](uint64_t) { return read_reg(page, r); });
}

std::array<uint8_t, 256> ChipModel::bank(uint8_t page)
{
    return run([&](uint64_t) {
        std::array<uint8_t, 256> out{};
        for (unsigned r = 0; r < 256; r++)
            out[r] = read_reg(page, uint8_t(r));
        return out;
    });
}

ChannelView ChipModel::channel(int ch)
{
    if (ch < 0 || ch >= NUM_CHANNELS)
        return {};
    return run([&](uint64_t) {
        ChannelView v;
        const auto &b = banks_[ch];
        v.camera = inputs_[ch].cam;
        v.line_length = unsigned(b[REG_LINE_HI] & 0x7F) << 8 | b[REG_LINE_LO];
        v.channel_mode = (global_[REG_CHANNEL_MODE] >> ch & 1) ? 1 : 2;
        v.reg35 = b[REG_MODE];
        v.fits = inputs_[ch].fits;
        v.status = status_reg(ch, REG_STATUS);
        v.irq_enabled = global_[REG_IRQ_ENABLE] >> (2 * ch) & 3;
        return v;
    });
}

std::vector<PtzRecord> ChipModel::ptz_received(int ch)
{
    if (ch < 0 || ch >= NUM_CHANNELS)
        return {};
    return run([&](uint64_t) { return inputs_[ch].ptz_received; });
}

Counters ChipModel::counters()
{
    return run([&](uint64_t) { return counters_; });
}

} // namespace vboard
