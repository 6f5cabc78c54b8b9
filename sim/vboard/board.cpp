#include "board.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "board_services.h"

namespace vboard
{

namespace
{

constexpr std::array<const char *, LINE_COUNT> LINE_NAMES = {
    "decoder_reset_0", "decoder_interrupt_0", "video_term_1", "video_term_2",
    "video_term_3",    "video_term_4",        "cpuid_bit0",
};

std::string trim(std::string_view s)
{
    size_t b = 0, e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\n' || s[b] == '\t'))
        b++;
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\n' || s[e - 1] == '\t'))
        e--;
    return std::string(s.substr(b, e - b));
}

std::string hex2(unsigned v)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02x", v & 0xff);
    return buf;
}

const char *kind_name(ChipKind k)
{
    return k == ChipKind::TP2826 ? "tp2826" : "tp2827";
}

std::string camera_text(const std::optional<Camera> &cam)
{
    if (!cam)
        return "-";
    std::string s =
        std::string(standard_name(cam->standard)) + " " + resolution_text(cam->resolution);
    if (cam->long_lines)
        s += " long";
    return s;
}

std::string ptz_text(const std::vector<PtzRecord> &records)
{
    std::string s;
    for (const auto &r : records) {
        if (!s.empty())
            s += ",";
        for (size_t i = 0; i < r.size(); i++) {
            char buf[4];
            std::snprintf(buf, sizeof buf, "%02x", r[i]);
            s += buf;
        }
    }
    return s.empty() ? "-" : s;
}

} // namespace

const char *line_name(int line)
{
    return LINE_NAMES.at(line);
}

std::optional<int> line_from_name(std::string_view name)
{
    for (int i = 0; i < LINE_COUNT; i++) {
        if (name == LINE_NAMES[i])
            return i;
    }
    return std::nullopt;
}

Board::Board(const BoardOptions &options)
    : chip_(options.kind, options.clock), kind_(options.kind), cpuid_(options.cpuid)
{
    lines_[LINE_INTERRUPT].direction = "in";
    lines_[LINE_CPUID].direction = "in";
    lines_[LINE_CPUID].present = options.cpuid;
    for (const auto &c : options.cameras)
        chip_.plug(c.channel, c.camera);
    chip_.set_irq_callback([this] { on_chip_edge(); });
    if (options.run_timer)
        timer_ = std::thread([this] { timer_loop(); });
}

Board::~Board()
{
    {
        std::lock_guard lk(timer_mutex_);
        timer_stop_ = true;
    }
    timer_cv_.notify_all();
    if (timer_.joinable())
        timer_.join();
    chip_.set_irq_callback(nullptr);
}

void Board::set_irq_notifier(std::function<void()> notify)
{
    std::lock_guard lk(gpio_mutex_);
    notify_ = std::move(notify);
}

void Board::set_services(BoardServices *services)
{
    std::lock_guard lk(gpio_mutex_);
    services_ = services;
}

void Board::set_log_path(std::string path)
{
    std::lock_guard lk(gpio_mutex_);
    log_path_ = std::move(path);
}

/* The chip raised its interrupt output. sysfs reports an edge to pollers only
 * when the line's edge setting asks for it. */
void Board::on_chip_edge()
{
    std::function<void()> notify;
    {
        std::lock_guard lk(gpio_mutex_);
        auto &l = lines_[LINE_INTERRUPT];
        if (!l.present || (l.edge != "rising" && l.edge != "both"))
            return;
        l.events++;
        notify = notify_;
    }
    if (notify)
        notify();
}

void Board::kick_timer()
{
    if (!timer_.joinable())
        return;
    {
        std::lock_guard lk(timer_mutex_);
        timer_kicked_ = true;
    }
    timer_cv_.notify_all();
}

void Board::timer_loop()
{
    std::unique_lock lk(timer_mutex_);
    uint64_t last_due = 0;
    while (!timer_stop_) {
        lk.unlock();
        uint64_t due = chip_.next_deadline_us();
        uint64_t now = ChipModel::steady_clock_us();
        if (due <= now) {
            chip_.poll();
            /* A deadline that poll() does not move must not spin the thread. */
            uint64_t wait_us = due == last_due ? 1000 : 0;
            last_due = due;
            lk.lock();
            if (wait_us)
                timer_cv_.wait_for(lk, std::chrono::microseconds(wait_us));
            continue;
        }
        lk.lock();
        if (timer_stop_)
            break;
        if (!timer_kicked_) {
            uint64_t wait_us = std::min<uint64_t>(due - now, 1000000);
            timer_cv_.wait_for(lk, std::chrono::microseconds(wait_us),
                               [this] { return timer_stop_ || timer_kicked_; });
        }
        timer_kicked_ = false;
    }
}

int Board::i2c_bind(unsigned long address)
{
    /* i2c-dev accepts 7-bit addresses unless ten-bit mode was asked for. */
    if (address > 0x7f)
        return -EINVAL;
    std::lock_guard lk(bus_mutex_);
    int r = chip_.set_address(static_cast<unsigned>(address));
    if (r < 0)
        return r;
    bound_address_ = static_cast<unsigned>(address);
    return 0;
}

int Board::i2c_write(unsigned address, const uint8_t *buf, size_t len)
{
    int r;
    {
        std::lock_guard lk(bus_mutex_);
        if (address != bound_address_) {
            chip_.set_address(address);
            bound_address_ = address;
        }
        r = chip_.write(buf, len);
    }
    kick_timer();
    return r;
}

int Board::i2c_read(unsigned address, uint8_t *buf, size_t len)
{
    std::lock_guard lk(bus_mutex_);
    if (address != bound_address_) {
        chip_.set_address(address);
        bound_address_ = address;
    }
    return chip_.read(buf, len);
}

bool Board::gpio_present(int line)
{
    std::lock_guard lk(gpio_mutex_);
    return lines_.at(line).present;
}

std::string Board::gpio_read(int line, GpioAttr attr)
{
    bool level = line == LINE_INTERRUPT && attr == GpioAttr::Value ? chip_.irq_pending() : false;
    std::lock_guard lk(gpio_mutex_);
    const auto &l = lines_.at(line);
    switch (attr) {
    case GpioAttr::Value:
        return std::to_string(line == LINE_INTERRUPT ? (level ? 1 : 0) : l.value) + "\n";
    case GpioAttr::Direction:
        return l.direction + "\n";
    case GpioAttr::Edge:
        return l.edge + "\n";
    }
    return "";
}

int Board::gpio_write(int line, GpioAttr attr, std::string_view data)
{
    std::string v = trim(data);
    bool do_reset = false;
    {
        std::lock_guard lk(gpio_mutex_);
        auto &l = lines_.at(line);
        switch (attr) {
        case GpioAttr::Value: {
            if (l.direction == "in")
                return -EPERM;
            if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos)
                return -EINVAL;
            int value = v != "0" && v.find_first_not_of('0') != std::string::npos ? 1 : 0;
            /* The chip is held in reset while the line is high and restarts
             * when it is released. */
            if (line == LINE_RESET && l.value != value) {
                do_reset = true;
                if (value)
                    resets_++;
            }
            l.value = value;
            l.value_writes++;
            break;
        }
        case GpioAttr::Direction:
            if (v == "high" || v == "low") {
                l.value = v == "high";
                l.direction = "out";
            } else if (v == "in" || v == "out") {
                l.direction = v;
            } else {
                return -EINVAL;
            }
            break;
        case GpioAttr::Edge:
            if (v != "none" && v != "rising" && v != "falling" && v != "both")
                return -EINVAL;
            /* Only an input can report edges. */
            if (l.direction != "in")
                return -EIO;
            l.edge = v;
            break;
        }
    }
    if (do_reset) {
        {
            std::lock_guard lk(bus_mutex_);
            chip_.set_reset_line(gpio_state(LINE_RESET).value != 0);
            bound_address_ = ~0u;
        }
        kick_timer();
    }
    return 0;
}

uint64_t Board::gpio_events(int line)
{
    std::lock_guard lk(gpio_mutex_);
    return lines_.at(line).events;
}

GpioLineState Board::gpio_state(int line)
{
    std::lock_guard lk(gpio_mutex_);
    return lines_.at(line);
}

uint64_t Board::resets()
{
    std::lock_guard lk(gpio_mutex_);
    return resets_;
}

bool Board::channel_locked(int channel)
{
    ChannelView v = chip_.channel(channel);
    return v.camera && !(v.status & 0x80) && (v.status & 0x60) == 0x60;
}

bool Board::stats_present(int channel)
{
    std::lock_guard lk(gpio_mutex_);
    return stats_faults_.at(channel) != StatsFault::Missing;
}

std::string Board::stats_content(int channel)
{
    {
        std::lock_guard lk(gpio_mutex_);
        if (stats_faults_.at(channel) != StatsFault::None)
            return "";
    }
    return channel_locked(channel) ? "0\n" : "1\n";
}

int Board::cam_ioctl(int cam, uint32_t value)
{
    std::lock_guard lk(gpio_mutex_);
    auto &c = cams_.at(cam);
    if (c.fail)
        return -EIO;
    c.ioctls++;
    c.last_value = value;
    return 0;
}

CamDevice Board::cam_state(int cam)
{
    std::lock_guard lk(gpio_mutex_);
    return cams_.at(cam);
}

void Board::clear_faults()
{
    chip_.set_absent(false);
    chip_.set_nack_all(false);
    chip_.set_nack_register(-1);
    BoardServices *services;
    {
        std::lock_guard lk(gpio_mutex_);
        for (int i = 0; i < LINE_COUNT; i++)
            lines_[i].present = i != LINE_CPUID || cpuid_;
        stats_faults_.fill(StatsFault::None);
        for (auto &c : cams_)
            c.fail = false;
        services = services_;
    }
    if (services)
        services->clear_faults();
}

CommandReply Board::fault_command(const std::vector<std::string> &a)
{
    auto usage = CommandReply{false, "fault: chip absent | chip nack all | chip nack REG | "
                                     "gpio missing NAME | stats missing CH | stats empty CH | "
                                     "cam fail CH | service NAME absent|failing|late [MS] | "
                                     "clear [...]"};
    if (a.size() < 2)
        return usage;
    const std::string &what = a[1];
    if (what == "clear") {
        clear_faults();
        return {true, ""};
    }
    if (what == "chip" && a.size() == 3 && a[2] == "absent") {
        chip_.set_absent(true);
        return {true, ""};
    }
    if (what == "chip" && a.size() == 4 && a[2] == "nack") {
        if (a[3] == "all") {
            chip_.set_nack_all(true);
            return {true, ""};
        }
        auto reg = parse_number(a[3]);
        if (!reg || *reg > 0xff)
            return {false, "fault chip nack: register 0..0xff or 'all'"};
        chip_.set_nack_register(static_cast<int>(*reg));
        return {true, ""};
    }
    if (what == "gpio" && a.size() == 4 && a[2] == "missing") {
        auto line = line_from_name(a[3]);
        if (!line)
            return {false, "fault gpio missing: unknown line " + a[3]};
        std::lock_guard lk(gpio_mutex_);
        lines_[*line].present = false;
        return {true, ""};
    }
    if ((what == "stats" || what == "cam") && a.size() == 4) {
        auto ch = parse_channel(a[3]);
        if (!ch)
            return {false, "fault " + what + ": channel 0..3"};
        std::lock_guard lk(gpio_mutex_);
        if (what == "stats" && a[2] == "missing")
            stats_faults_[*ch] = StatsFault::Missing;
        else if (what == "stats" && a[2] == "empty")
            stats_faults_[*ch] = StatsFault::Empty;
        else if (what == "cam" && a[2] == "fail")
            cams_[*ch].fail = true;
        else
            return usage;
        return {true, ""};
    }
    if (what == "service" && (a.size() == 4 || a.size() == 5)) {
        auto service = service_from_name(a[2]);
        auto fault = fault_from_name(a[3]);
        if (!service)
            return {false, "fault service: unknown service " + a[2] +
                               " (overlay, imagecontrol, capturemode, event, videosystem)"};
        if (!fault)
            return {false, "fault service: none, absent, failing or late"};
        unsigned late_ms = 0;
        if (a.size() == 5) {
            auto ms = parse_number(a[4]);
            if (!ms || *fault != Fault::Late)
                return {false, "fault service: only 'late' takes milliseconds"};
            late_ms = static_cast<unsigned>(*ms);
        } else if (*fault == Fault::Late) {
            late_ms = 5000;
        }
        BoardServices *services;
        {
            std::lock_guard lk(gpio_mutex_);
            services = services_;
        }
        if (!services)
            return {false, "fault service: this board has no services"};
        services->set_fault(*service, *fault, late_ms);
        return {true, ""};
    }
    return usage;
}

std::string Board::read_log()
{
    std::string path;
    {
        std::lock_guard lk(gpio_mutex_);
        path = log_path_;
    }
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

CommandReply Board::get_command(const std::vector<std::string> &a)
{
    if (a.size() < 2)
        return {false, "get: KEY [ARG]"};
    const std::string &key = a[1];
    if (key == "resets")
        return {true, std::to_string(resets())};
    if (key == "irq")
        return {true, chip_.irq_pending() ? "1" : "0"};
    if (key == "irq-edges")
        return {true, std::to_string(gpio_events(LINE_INTERRUPT))};
    if (a.size() != 3)
        return {false, "get " + key + ": one argument"};
    if (key == "term") {
        auto n = parse_number(a[2]);
        if (!n || *n < 1 || *n > 4)
            return {false, "get term: line 1..4"};
        return {true, std::to_string(gpio_state(LINE_TERM1 + static_cast<int>(*n) - 1).value)};
    }
    auto ch = parse_channel(a[2]);
    if (!ch)
        return {false, "get " + key + ": channel 0..3"};
    if (key == "lock")
        return {true, channel_locked(*ch) ? "1" : "0"};
    if (key == "no-video")
        return {true, trim(stats_content(*ch))};
    if (key == "camera")
        return {true, camera_text(chip_.camera(*ch))};
    if (key == "line-length")
        return {true, std::to_string(chip_.channel(*ch).line_length)};
    if (key == "cam-ioctl") {
        auto c = cam_state(*ch);
        return {true, c.last_value ? std::to_string(*c.last_value) : "-"};
    }
    if (key == "ptz")
        return {true, ptz_text(chip_.ptz_received(*ch))};
    BoardServices *services;
    {
        std::lock_guard lk(gpio_mutex_);
        services = services_;
    }
    if (!services)
        return {false, "get " + key + ": unknown key, or no services on this board"};
    if (key == "overlay") {
        std::string s;
        for (const auto &t : services->overlay(*ch).texts)
            s += (s.empty() ? "" : ",") + t.text;
        return {true, s.empty() ? "-" : s};
    }
    if (key == "capture-mode")
        return {true, std::to_string(services->capture(*ch).capture_mode)};
    if (key == "capture-frequency")
        return {true, services->capture(*ch).capture_frequency};
    if (key == "video-type") {
        auto v = services->video_system().video_type(*ch);
        return {true, v ? std::to_string(*v) : "-"};
    }
    if (key == "connected")
        return {true, std::to_string(services->snapshot().last_connected(*ch + 1))};
    if (key == "events")
        return {true, std::to_string(services->snapshot().events_for_channel(*ch + 1).size())};
    return {false, "get: unknown key " + key};
}

std::string Board::regs_text(uint8_t page)
{
    auto bank = chip_.bank(page);
    std::string s = "page " + hex2(page) + "\n     ";
    for (int c = 0; c < 16; c++) {
        char buf[8];
        std::snprintf(buf, sizeof buf, " %x ", c);
        s += buf;
    }
    s += "\n";
    for (int r = 0; r < 16; r++) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "%02x: ", r * 16);
        s += buf;
        for (int c = 0; c < 16; c++) {
            std::snprintf(buf, sizeof buf, " %02x", bank[r * 16 + c]);
            s += buf;
        }
        s += "\n";
    }
    return s;
}

std::string Board::counters_text()
{
    Counters c = chip_.counters();
    std::string s;
    auto line = [&s](const std::string &k, uint64_t v) { s += k + " " + std::to_string(v) + "\n"; };
    line("i2c_address_sets", c.address_sets);
    line("i2c_pointer_writes", c.pointer_writes);
    line("i2c_reads", c.reads);
    line("i2c_register_writes", c.register_writes);
    line("i2c_failed", c.failed);
    line("irq_edges", c.irq_edges);
    line("ptz_transmissions", c.ptz_transmissions);
    line("ptz_garbled", c.ptz_garbled);
    line("resets", resets());
    for (int l = 0; l < LINE_COUNT; l++)
        line(std::string("gpio_value_writes ") + line_name(l), gpio_state(l).value_writes);
    for (int i = 0; i < NUM_CHANNELS; i++)
        line("cam_ioctls cam" + std::to_string(i), cam_state(i).ioctls);
    static const char *slot_names[PAGE_SLOTS] = {"ch0", "ch1",  "ch2",  "ch3",
                                                 "all", "0x10", "0x40", "other"};
    for (int slot = 0; slot < PAGE_SLOTS; slot++) {
        for (int r = 0; r < 256; r++) {
            if (c.reg_reads[slot][r])
                line(std::string("reg_reads ") + slot_names[slot] + " " + hex2(r),
                     c.reg_reads[slot][r]);
            if (c.reg_writes[slot][r])
                line(std::string("reg_writes ") + slot_names[slot] + " " + hex2(r),
                     c.reg_writes[slot][r]);
        }
    }
    return s;
}

std::string Board::status_text()
{
    std::optional<ServicesSnapshot> snap;
    {
        BoardServices *services;
        {
            std::lock_guard lk(gpio_mutex_);
            services = services_;
        }
        if (services)
            snap = services->snapshot();
    }
    std::string s;
    char buf[256];
    auto irq = gpio_state(LINE_INTERRUPT);
    std::snprintf(
        buf, sizeof buf, "chip %s  resets %llu  irq line %d  edge %s  edges %llu  cpuid_bit0 %s\n",
        kind_name(kind_), static_cast<unsigned long long>(resets()), chip_.irq_pending() ? 1 : 0,
        irq.edge.c_str(), static_cast<unsigned long long>(irq.events),
        gpio_state(LINE_CPUID).present ? "present" : "absent");
    s += buf;
    for (int ch = 0; ch < NUM_CHANNELS; ch++) {
        ChannelView v = chip_.channel(ch);
        auto cam = cam_state(ch);
        std::snprintf(buf, sizeof buf, "channel %d\n", ch);
        s += buf;
        s += "  camera          " + camera_text(v.camera) + "\n";
        std::snprintf(buf, sizeof buf, "  timing          line length %u, %s rate (0x35=%02x)%s\n",
                      v.line_length, v.channel_mode == 1 ? "half" : "full", v.reg35,
                      v.fits ? ", fits the camera" : "");
        s += buf;
        std::snprintf(buf, sizeof buf, "  lock            status 0x%02x: %s%s%s\n", v.status,
                      v.status & 0x80 ? "no video" : "video", v.status & 0x10 ? ", sync" : "",
                      (v.status & 0x60) == 0x60 ? ", locked" : "");
        s += buf;
        s += "  no_video        " +
             (stats_present(ch)
                  ? (trim(stats_content(ch)).empty() ? "(empty)" : trim(stats_content(ch)))
                  : "(missing)") +
             "\n";
        s += "  termination     " + std::to_string(gpio_state(LINE_TERM1 + ch).value) + "\n";
        s += "  cam ioctl       " +
             (cam.last_value
                  ? std::to_string(*cam.last_value) + " (" + std::to_string(cam.ioctls) + " calls)"
                  : std::string("-")) +
             (cam.fail ? " [failing]" : "") + "\n";
        s += "  ptz received    " + ptz_text(chip_.ptz_received(ch)) + "\n";
        if (snap) {
            std::string texts;
            for (const auto &t : snap->overlay[ch].texts)
                texts += (texts.empty() ? "" : ", ") + t.text;
            s += "  overlay         " + (texts.empty() ? std::string("-") : texts) + "\n";
            const auto &cap = snap->capture[ch];
            s += "  capture         mode " + std::to_string(cap.capture_mode) + " (" +
                 capture_mode_text(cap.capture_mode) + "), frequency " + cap.capture_frequency +
                 "\n";
            auto vt = snap->video_system.video_type(ch);
            s += "  video_type" + std::to_string(ch + 1) + "     " +
                 (vt ? std::to_string(*vt) : std::string("-")) + "\n";
            s += "  events          " + std::to_string(snap->events_for_channel(ch + 1).size()) +
                 " sent, connected " + std::to_string(snap->last_connected(ch + 1)) + "\n";
        }
    }
    if (snap) {
        s += "services\n";
        for (Service sv : ALL_SERVICES) {
            const auto &st = snap->status[static_cast<int>(sv)];
            std::snprintf(buf, sizeof buf, "  %-13s %s%s, %llu calls\n", service_short_name(sv),
                          fault_name(st.fault), st.name_owned ? "" : " (name not owned)",
                          static_cast<unsigned long long>(st.calls));
            s += buf;
        }
    }
    return s;
}

std::string Board::status_json()
{
    std::optional<ServicesSnapshot> snap;
    {
        BoardServices *services;
        {
            std::lock_guard lk(gpio_mutex_);
            services = services_;
        }
        if (services)
            snap = services->snapshot();
    }
    auto irq = gpio_state(LINE_INTERRUPT);
    std::string s =
        "{\"chip\":" + json_quote(kind_name(kind_)) + ",\"resets\":" + std::to_string(resets()) +
        ",\"irq\":{\"level\":" + (chip_.irq_pending() ? "1" : "0") +
        ",\"edge\":" + json_quote(irq.edge) + ",\"edges\":" + std::to_string(irq.events) +
        "},\"cpuid_bit0\":" + (gpio_state(LINE_CPUID).present ? "true" : "false") +
        ",\"channels\":[";
    for (int ch = 0; ch < NUM_CHANNELS; ch++) {
        ChannelView v = chip_.channel(ch);
        auto cam = cam_state(ch);
        if (ch)
            s += ",";
        s += "{\"index\":" + std::to_string(ch) + ",\"camera\":";
        if (v.camera)
            s += "{\"standard\":" + json_quote(standard_name(v.camera->standard)) +
                 ",\"resolution\":" + json_quote(resolution_text(v.camera->resolution)) +
                 ",\"long\":" + (v.camera->long_lines ? "true" : "false") + "}";
        else
            s += "null";
        s += ",\"line_length\":" + std::to_string(v.line_length) +
             ",\"channel_mode\":" + std::to_string(v.channel_mode) +
             ",\"reg35\":" + std::to_string(v.reg35) + ",\"fits\":" + (v.fits ? "true" : "false") +
             ",\"status\":" + std::to_string(v.status) +
             ",\"locked\":" + (channel_locked(ch) ? "true" : "false");
        s += ",\"no_video\":" +
             (stats_present(ch) ? json_quote(trim(stats_content(ch))) : std::string("null"));
        s += ",\"termination\":" + std::to_string(gpio_state(LINE_TERM1 + ch).value);
        s += ",\"cam_ioctls\":" + std::to_string(cam.ioctls) + ",\"cam_value\":" +
             (cam.last_value ? std::to_string(*cam.last_value) : std::string("null"));
        s += ",\"ptz\":[";
        bool first = true;
        for (const auto &r : chip_.ptz_received(ch)) {
            s += first ? "[" : ",[";
            first = false;
            for (size_t i = 0; i < r.size(); i++) {
                if (i)
                    s += ",";
                s += std::to_string(r[i]);
            }
            s += "]";
        }
        s += "]";
        if (snap) {
            s += ",\"overlay\":[";
            for (size_t i = 0; i < snap->overlay[ch].texts.size(); i++) {
                if (i)
                    s += ",";
                s += json_quote(snap->overlay[ch].texts[i].text);
            }
            s += "],\"capture_mode\":" + std::to_string(snap->capture[ch].capture_mode) +
                 ",\"capture_frequency\":" + json_quote(snap->capture[ch].capture_frequency);
            auto vt = snap->video_system.video_type(ch);
            s += ",\"video_type\":" + (vt ? std::to_string(*vt) : std::string("null"));
            s += ",\"events\":" + std::to_string(snap->events_for_channel(ch + 1).size()) +
                 ",\"connected\":" + std::to_string(snap->last_connected(ch + 1));
        }
        s += "}";
    }
    s += "]";
    if (snap)
        s += ",\"services\":" + snap->to_json();
    s += "}";
    return s;
}

CommandReply Board::command(const std::vector<std::string> &a)
{
    if (a.empty())
        return {false, "no command"};
    const std::string &cmd = a[0];
    if (cmd == "ping")
        return {true, "pong"};
    if (cmd == "plug") {
        if (a.size() < 4 || a.size() > 5)
            return {false, "plug CH STANDARD RESOLUTION [long]"};
        auto ch = parse_channel(a[1]);
        if (!ch)
            return {false, "plug: channel 0..3"};
        std::string error;
        auto cam = parse_camera(a[2], a[3], a.size() == 5 ? a[4] : "", &error);
        if (!cam)
            return {false, "plug: " + error};
        if (!chip_.plug(*ch, *cam))
            return {false, "plug: the chip refused the camera"};
        kick_timer();
        return {true, ""};
    }
    if (cmd == "unplug") {
        auto ch = a.size() == 2 ? parse_channel(a[1]) : std::nullopt;
        if (!ch)
            return {false, "unplug CH (0..3)"};
        chip_.unplug(*ch);
        kick_timer();
        return {true, ""};
    }
    if (cmd == "fault")
        return fault_command(a);
    if (cmd == "status") {
        if (a.size() == 2 && a[1] == "--json")
            return {true, status_json() + "\n"};
        if (a.size() == 1)
            return {true, status_text()};
        return {false, "status [--json]"};
    }
    if (cmd == "regs") {
        auto page = a.size() == 2 ? parse_number(a[1]) : std::nullopt;
        if (!page || *page > 0xff)
            return {false, "regs PAGE (a value of register 0x40: 0..3, 4, 0x10, 0x40)"};
        return {true, regs_text(static_cast<uint8_t>(*page))};
    }
    if (cmd == "counters")
        return {true, counters_text()};
    if (cmd == "log")
        return {true, read_log()};
    if (cmd == "get")
        return get_command(a);
    return {false, "unknown command " + cmd};
}

} // namespace vboard
