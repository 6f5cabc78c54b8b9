#include "board_services.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <set>

namespace vboard
{

namespace
{

struct ServiceNames {
    const char *short_name;
    const char *bus_name;
};

constexpr ServiceNames SERVICE_NAMES[SERVICE_COUNT] = {
    {"overlay", "com.korvi.PrioritizedTextOverlay"}, {"imagecontrol", "com.korvi.ImageControl"},
    {"capturemode", "com.korvi.CaptureMode1"},       {"event", "com.korvi.Event1"},
    {"videosystem", "com.korvi.VideoSystem1"},
};

constexpr const char *FAULT_NAMES[] = {"none", "absent", "failing", "late"};

constexpr const char *PROPERTIES_IFACE = "org.freedesktop.DBus.Properties";
constexpr const char *OVERLAY_IFACE = "com.korvi.PrioritizedTextOverlay";
constexpr const char *IMAGE_CONTROL_IFACE = "com.korvi.ImageControl";
constexpr const char *IMAGE_STREAM_IFACE = "com.korvi.ImageControlStream";
constexpr const char *CAPTURE_MODE_IFACE = "com.korvi.CaptureMode1.Channel";
constexpr const char *EVENT_IFACE = "com.korvi.Event1";
constexpr const char *VIDEO_SYSTEM_IFACE = "com.korvi.VideoSystem1";
constexpr const char *VIDEO_INPUT_IFACE = "com.korvi.VideoSystem1.Input";

constexpr const char *INTROSPECTION_XML = R"XML(
<node>
  <interface name="com.korvi.PrioritizedTextOverlay">
    <method name="Set">
      <arg name="text" type="s" direction="in"/>
      <arg name="priority" type="u" direction="in"/>
    </method>
    <method name="Unset">
      <arg name="text" type="s" direction="in"/>
    </method>
  </interface>
  <interface name="com.korvi.ImageControl">
    <property name="CaptureMode" type="i" access="read"/>
  </interface>
  <interface name="com.korvi.ImageControlStream">
    <property name="CaptureFrequency" type="s" access="readwrite"/>
  </interface>
  <interface name="com.korvi.CaptureMode1.Channel">
    <method name="SetCaptureMode">
      <arg name="mode" type="i" direction="in"/>
    </method>
  </interface>
  <interface name="com.korvi.Event1">
    <method name="Declare">
      <arg name="producer" type="s" direction="in"/>
      <arg name="declaration" type="a{sv}" direction="in"/>
      <arg name="id" type="i" direction="out"/>
    </method>
    <method name="Send">
      <arg name="producer" type="s" direction="in"/>
      <arg name="id" type="i" direction="in"/>
      <arg name="values" type="a{sv}" direction="in"/>
    </method>
  </interface>
  <interface name="com.korvi.VideoSystem1">
    <property name="Started" type="b" access="read"/>
  </interface>
  <interface name="com.korvi.VideoSystem1.Input">
    <method name="SetSettings">
      <arg name="settings" type="a{sv}" direction="in"/>
    </method>
  </interface>
</node>
)XML";

/* Capture modes run from 1 to 6; SetCaptureMode takes them 0-based. */
constexpr int32_t CAPTURE_MODE_MAX = 6;

bool valid_frequency(const char *text)
{
    return g_str_equal(text, "50Hz") || g_str_equal(text, "60Hz");
}

std::string variant_text(GVariant *value)
{
    g_autofree gchar *text = g_variant_print(value, TRUE);
    return text;
}

std::optional<int64_t> variant_to_int(GVariant *value)
{
    if (value == nullptr)
        return std::nullopt;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) {
        g_autoptr(GVariant) inner = g_variant_get_variant(value);
        return variant_to_int(inner);
    }
    const GVariantType *type = g_variant_get_type(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_BOOLEAN))
        return g_variant_get_boolean(value) ? 1 : 0;
    if (g_variant_type_equal(type, G_VARIANT_TYPE_BYTE))
        return g_variant_get_byte(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_INT16))
        return g_variant_get_int16(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_UINT16))
        return g_variant_get_uint16(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_INT32))
        return g_variant_get_int32(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_UINT32))
        return g_variant_get_uint32(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_INT64))
        return g_variant_get_int64(value);
    if (g_variant_type_equal(type, G_VARIANT_TYPE_UINT64)) {
        guint64 v = g_variant_get_uint64(value);
        if (v > static_cast<guint64>(G_MAXINT64))
            return std::nullopt;
        return static_cast<int64_t>(v);
    }
    return std::nullopt;
}

/* Looks a key up in an event a{sv}: at the top level, else one or two levels
 * down in nested a{sv} values. An entry that is itself an a{sv} stands for its
 * "value" member. Returns a new reference or nullptr. */
GVariant *find_event_value(GVariant *dict, const char *key, int depth = 2)
{
    if (dict == nullptr || !g_variant_is_of_type(dict, G_VARIANT_TYPE_VARDICT))
        return nullptr;
    GVariant *found = g_variant_lookup_value(dict, key, nullptr);
    if (found != nullptr) {
        if (g_variant_is_of_type(found, G_VARIANT_TYPE_VARDICT)) {
            GVariant *inner = g_variant_lookup_value(found, "value", nullptr);
            g_variant_unref(found);
            return inner;
        }
        return found;
    }
    if (depth == 0)
        return nullptr;
    GVariantIter iter;
    const gchar *name = nullptr;
    GVariant *child = nullptr;
    g_variant_iter_init(&iter, dict);
    while (g_variant_iter_loop(&iter, "{&sv}", &name, &child)) {
        GVariant *nested = find_event_value(child, key, depth - 1);
        if (nested != nullptr) {
            g_variant_unref(child);
            return nested;
        }
    }
    return nullptr;
}

std::optional<int64_t> event_int(GVariant *dict, const char *key)
{
    g_autoptr(GVariant) value = find_event_value(dict, key);
    return variant_to_int(value);
}

void json_string(std::string &out, std::string_view text)
{
    out += '"';
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
        case '\r':
            out += "\\r";
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
}

void json_key(std::string &out, std::string_view key)
{
    json_string(out, key);
    out += ':';
}

const char *json_bool(bool value)
{
    return value ? "true" : "false";
}

} // namespace

const char *service_short_name(Service service)
{
    return SERVICE_NAMES[static_cast<int>(service)].short_name;
}

const char *service_bus_name(Service service)
{
    return SERVICE_NAMES[static_cast<int>(service)].bus_name;
}

std::optional<Service> service_from_name(std::string_view name)
{
    for (Service s : ALL_SERVICES) {
        if (name == service_short_name(s) || name == service_bus_name(s))
            return s;
    }
    return std::nullopt;
}

const char *fault_name(Fault fault)
{
    return FAULT_NAMES[static_cast<int>(fault)];
}

std::optional<Fault> fault_from_name(std::string_view name)
{
    for (int i = 0; i < 4; i++) {
        if (name == FAULT_NAMES[i])
            return static_cast<Fault>(i);
    }
    return std::nullopt;
}

std::optional<int64_t> VideoSystemState::video_type(int channel_index) const
{
    auto it = settings.find("video_type" + std::to_string(channel_index + 1));
    if (it == settings.end())
        return std::nullopt;
    return it->second.number;
}

std::vector<EventSent> ServicesSnapshot::events_for_channel(int32_t channel) const
{
    std::vector<EventSent> out;
    for (const EventSent &e : events) {
        if (e.channel == channel)
            out.push_back(e);
    }
    return out;
}

int32_t ServicesSnapshot::last_connected(int32_t channel) const
{
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
        if (it->channel == channel && it->connected >= 0)
            return it->connected;
    }
    return -1;
}

std::string ServicesSnapshot::to_json() const
{
    std::string out = "{";
    json_key(out, "overlay");
    out += '[';
    for (int i = 0; i < SERVICES_CHANNELS; i++) {
        const OverlayChannel &o = overlay[i];
        out += i ? ",{" : "{";
        json_key(out, "object");
        out += std::to_string(i + 1) + ',';
        json_key(out, "texts");
        out += '[';
        for (size_t t = 0; t < o.texts.size(); t++) {
            out += t ? ",{" : "{";
            json_key(out, "text");
            json_string(out, o.texts[t].text);
            out += ',';
            json_key(out, "priority");
            out += std::to_string(o.texts[t].priority) + '}';
        }
        out += "],";
        json_key(out, "set_calls");
        out += std::to_string(o.set_calls) + ',';
        json_key(out, "unset_calls");
        out += std::to_string(o.unset_calls) + '}';
    }
    out += "],";
    json_key(out, "capture");
    out += '[';
    for (int i = 0; i < SERVICES_CHANNELS; i++) {
        const CaptureChannel &c = capture[i];
        out += i ? ",{" : "{";
        json_key(out, "index");
        out += std::to_string(i) + ',';
        json_key(out, "capture_mode");
        out += std::to_string(c.capture_mode) + ',';
        json_key(out, "capture_frequency");
        json_string(out, c.capture_frequency);
        out += ',';
        json_key(out, "set_capture_mode_calls");
        out += std::to_string(c.set_capture_mode_calls) + ',';
        json_key(out, "frequency_sets");
        out += std::to_string(c.frequency_sets) + '}';
    }
    out += "],";
    json_key(out, "declarations");
    out += '[';
    for (size_t i = 0; i < declarations.size(); i++) {
        const EventDeclaration &d = declarations[i];
        out += i ? ",{" : "{";
        json_key(out, "id");
        out += std::to_string(d.id) + ',';
        json_key(out, "producer");
        json_string(out, d.producer);
        out += ',';
        json_key(out, "channel");
        out += std::to_string(d.channel) + ',';
        json_key(out, "declaration");
        json_string(out, d.declaration);
        out += '}';
    }
    out += "],";
    json_key(out, "events");
    out += '[';
    for (size_t i = 0; i < events.size(); i++) {
        const EventSent &e = events[i];
        out += i ? ",{" : "{";
        json_key(out, "seq");
        out += std::to_string(e.seq) + ',';
        json_key(out, "producer");
        json_string(out, e.producer);
        out += ',';
        json_key(out, "id");
        out += std::to_string(e.id) + ',';
        json_key(out, "known_id");
        out += json_bool(e.known_id);
        out += ',';
        json_key(out, "channel");
        out += std::to_string(e.channel) + ',';
        json_key(out, "connected");
        out += std::to_string(e.connected) + ',';
        json_key(out, "values");
        json_string(out, e.values);
        out += '}';
    }
    out += "],";
    json_key(out, "events_total");
    out += std::to_string(events_total) + ',';
    json_key(out, "video_system");
    out += '{';
    json_key(out, "started");
    out += json_bool(video_system.started);
    out += ',';
    json_key(out, "settings");
    out += '{';
    bool first = true;
    for (const auto &[key, setting] : video_system.settings) {
        if (!first)
            out += ',';
        first = false;
        json_key(out, key);
        out += '{';
        json_key(out, "type");
        json_string(out, setting.type_string);
        out += ',';
        json_key(out, "text");
        json_string(out, setting.text);
        if (setting.number) {
            out += ',';
            json_key(out, "number");
            out += std::to_string(*setting.number);
        }
        out += '}';
    }
    out += "},";
    json_key(out, "set_settings_calls");
    out += std::to_string(video_system.set_settings_calls) + "},";
    json_key(out, "services");
    out += '{';
    for (Service s : ALL_SERVICES) {
        const ServiceStatus &st = status[static_cast<int>(s)];
        if (s != Service::Overlay)
            out += ',';
        json_key(out, service_short_name(s));
        out += '{';
        json_key(out, "bus_name");
        json_string(out, service_bus_name(s));
        out += ',';
        json_key(out, "fault");
        json_string(out, fault_name(st.fault));
        out += ',';
        json_key(out, "late_ms");
        out += std::to_string(st.late_ms) + ',';
        json_key(out, "name_owned");
        out += json_bool(st.name_owned);
        out += ',';
        json_key(out, "calls");
        out += std::to_string(st.calls) + ',';
        json_key(out, "error_replies");
        out += std::to_string(st.error_replies) + ',';
        json_key(out, "late_replies");
        out += std::to_string(st.late_replies) + '}';
    }
    out += "}}";
    return out;
}

/* One registered object interface. */
struct ExportedObject {
    Service service;
    int channel; /* channel index, -1 for the single objects */
    std::string path;
    GDBusInterfaceInfo *iface; /* owned by State::node */
    guint registration = 0;
};

struct BoardServices::State : std::enable_shared_from_this<State> {
    GMainContext *context = nullptr;
    GDBusConnection *connection = nullptr;
    GDBusNodeInfo *node = nullptr;

    /* Recorded state, counters and faults: guarded by mu. */
    mutable std::mutex mu;
    mutable std::condition_variable cv;
    std::array<OverlayChannel, SERVICES_CHANNELS> overlay;
    std::array<CaptureChannel, SERVICES_CHANNELS> capture;
    std::vector<EventDeclaration> declarations;
    std::deque<EventSent> events;
    uint64_t events_total = 0;
    VideoSystemState video_system;
    std::array<ServiceStatus, SERVICE_COUNT> status;
    int32_t next_declaration_id = 1;

    /* Touched only on the services' context. */
    std::vector<ExportedObject> objects;
    std::array<guint, SERVICE_COUNT> owner_ids{};
    std::set<GSource *> late_sources;

    ~State()
    {
        if (node != nullptr)
            g_dbus_node_info_unref(node);
        if (connection != nullptr)
            g_object_unref(connection);
        if (context != nullptr)
            g_main_context_unref(context);
    }

    ServiceStatus &st(Service s) { return status[static_cast<int>(s)]; }

    void run_on_context(const std::function<void()> &fn);
    void export_service(Service s);
    void unexport_service(Service s);
    void apply_fault(Service s, Fault fault, unsigned late_ms);
    void emit_properties_changed(Service owner, const std::string &path, const char *iface,
                                 const char *property, GVariant *value);
    void teardown();
};

namespace
{

/* User data of every registration, name ownership and late reply: keeps the
 * state alive for callbacks that GDBus runs after we let go. */
struct CallTarget {
    std::shared_ptr<BoardServices::State> state;
    Service service;
    int channel;
    std::string path;
};

struct LateCall {
    CallTarget target;
    GDBusMethodInvocation *invocation; /* owned until answered */
    GSource *source;
};

struct ContextJob {
    const std::function<void()> *fn;
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    GMainContext *context;
};

gboolean run_context_job(gpointer data)
{
    auto *job = static_cast<ContextJob *>(data);
    /* The job lives on the waiting thread's stack: touch it only under its
     * mutex, which that thread needs back before it can return. */
    std::lock_guard lock(job->mu);
    g_main_context_push_thread_default(job->context);
    (*job->fn)();
    g_main_context_pop_thread_default(job->context);
    job->done = true;
    job->cv.notify_all();
    return G_SOURCE_REMOVE;
}

void reply_error(const CallTarget &t, GDBusMethodInvocation *invocation, GDBusError code,
                 const char *format, ...) G_GNUC_PRINTF(4, 5);

void reply_error(const CallTarget &t, GDBusMethodInvocation *invocation, GDBusError code,
                 const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_autofree gchar *message = g_strdup_vprintf(format, args);
    va_end(args);
    {
        std::lock_guard lock(t.state->mu);
        t.state->st(t.service).error_replies++;
    }
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, code, message);
}

/* Properties calls arrive here with interface "org.freedesktop.DBus.Properties";
 * GDBus has already checked that the property exists, is readable or writable,
 * and that a written value has the property's type. */
GVariant *property_value(const CallTarget &t, const char *iface, const char *name)
{
    BoardServices::State &s = *t.state;
    std::lock_guard lock(s.mu);
    if (g_str_equal(iface, IMAGE_CONTROL_IFACE) && g_str_equal(name, "CaptureMode"))
        return g_variant_new_int32(s.capture[t.channel].capture_mode);
    if (g_str_equal(iface, IMAGE_STREAM_IFACE) && g_str_equal(name, "CaptureFrequency"))
        return g_variant_new_string(s.capture[t.channel].capture_frequency.c_str());
    if (g_str_equal(iface, VIDEO_SYSTEM_IFACE) && g_str_equal(name, "Started"))
        return g_variant_new_boolean(s.video_system.started);
    return nullptr;
}

void handle_properties(const CallTarget &t, GDBusMethodInvocation *invocation)
{
    const char *method = g_dbus_method_invocation_get_method_name(invocation);
    GVariant *params = g_dbus_method_invocation_get_parameters(invocation);
    const char *iface = nullptr;
    const char *name = nullptr;

    if (g_str_equal(method, "Get")) {
        g_variant_get(params, "(&s&s)", &iface, &name);
        GVariant *value = property_value(t, iface, name);
        if (value == nullptr) {
            reply_error(t, invocation, G_DBUS_ERROR_UNKNOWN_PROPERTY, "No property %s.%s", iface,
                        name);
            return;
        }
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(v)", value));
        return;
    }
    if (g_str_equal(method, "GetAll")) {
        g_variant_get(params, "(&s)", &iface);
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
        GDBusInterfaceInfo *info = g_dbus_node_info_lookup_interface(t.state->node, iface);
        for (GDBusPropertyInfo **p = info ? info->properties : nullptr; p && *p; p++) {
            GVariant *value = property_value(t, iface, (*p)->name);
            if (value != nullptr)
                g_variant_builder_add(&builder, "{sv}", (*p)->name, value);
        }
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(a{sv})", &builder));
        return;
    }
    if (g_str_equal(method, "Set")) {
        g_autoptr(GVariant) value = nullptr;
        g_variant_get(params, "(&s&sv)", &iface, &name, &value);
        if (g_str_equal(iface, IMAGE_STREAM_IFACE) && g_str_equal(name, "CaptureFrequency")) {
            const char *text = g_variant_get_string(value, nullptr);
            if (!valid_frequency(text)) {
                reply_error(t, invocation, G_DBUS_ERROR_INVALID_ARGS,
                            "Capture frequency '%s' is neither 50Hz nor 60Hz", text);
                return;
            }
            bool changed;
            {
                std::lock_guard lock(t.state->mu);
                CaptureChannel &c = t.state->capture[t.channel];
                changed = c.capture_frequency != text;
                c.capture_frequency = text;
                c.frequency_sets++;
            }
            if (changed)
                t.state->emit_properties_changed(Service::ImageControl, t.path, IMAGE_STREAM_IFACE,
                                                 "CaptureFrequency", g_variant_new_string(text));
            g_dbus_method_invocation_return_value(invocation, nullptr);
            return;
        }
        reply_error(t, invocation, G_DBUS_ERROR_PROPERTY_READ_ONLY, "Property %s.%s is read-only",
                    iface, name);
        return;
    }
    reply_error(t, invocation, G_DBUS_ERROR_UNKNOWN_METHOD, "No method %s.%s", PROPERTIES_IFACE,
                method);
}

void handle_overlay(const CallTarget &t, const char *method, GVariant *params,
                    GDBusMethodInvocation *invocation)
{
    const char *text = nullptr;
    guint32 priority = 0;
    std::lock_guard lock(t.state->mu);
    OverlayChannel &o = t.state->overlay[t.channel];
    if (g_str_equal(method, "Set")) {
        g_variant_get(params, "(&su)", &text, &priority);
        o.set_calls++;
        auto it = std::find_if(o.texts.begin(), o.texts.end(),
                               [&](const OverlayText &x) { return x.text == text; });
        if (it != o.texts.end())
            it->priority = priority;
        else
            o.texts.push_back({text, priority});
    } else {
        g_variant_get(params, "(&s)", &text);
        o.unset_calls++;
        std::erase_if(o.texts, [&](const OverlayText &x) { return x.text == text; });
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void handle_capture_mode(const CallTarget &t, GVariant *params, GDBusMethodInvocation *invocation)
{
    gint32 mode = 0;
    g_variant_get(params, "(i)", &mode);
    if (mode < 0 || mode >= CAPTURE_MODE_MAX) {
        reply_error(t, invocation, G_DBUS_ERROR_INVALID_ARGS, "Capture mode %d out of range 0..%d",
                    mode, CAPTURE_MODE_MAX - 1);
        return;
    }
    bool changed;
    bool image_control_present;
    {
        std::lock_guard lock(t.state->mu);
        CaptureChannel &c = t.state->capture[t.channel];
        changed = c.capture_mode != mode + 1;
        c.capture_mode = mode + 1;
        c.set_capture_mode_calls++;
        image_control_present = t.state->st(Service::ImageControl).fault != Fault::Absent;
    }
    if (changed && image_control_present) {
        std::string path = "/com/korvi/ImageControl/" + std::to_string(t.channel) + "/0";
        t.state->emit_properties_changed(Service::ImageControl, path, IMAGE_CONTROL_IFACE,
                                         "CaptureMode", g_variant_new_int32(mode + 1));
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void handle_event(const CallTarget &t, const char *method, GVariant *params,
                  GDBusMethodInvocation *invocation)
{
    const char *producer = nullptr;
    BoardServices::State &s = *t.state;
    if (g_str_equal(method, "Declare")) {
        g_autoptr(GVariant) declaration = nullptr;
        g_variant_get(params, "(&s@a{sv})", &producer, &declaration);
        EventDeclaration d;
        d.producer = producer;
        d.declaration = variant_text(declaration);
        auto channel = event_int(declaration, "channel");
        d.channel = channel ? static_cast<int32_t>(*channel) : -1;
        {
            std::lock_guard lock(s.mu);
            d.id = s.next_declaration_id++;
            s.declarations.push_back(d);
        }
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", d.id));
        return;
    }

    gint32 id = 0;
    g_autoptr(GVariant) values = nullptr;
    g_variant_get(params, "(&si@a{sv})", &producer, &id, &values);
    EventSent e;
    e.producer = producer;
    e.id = id;
    e.values = variant_text(values);
    auto connected = event_int(values, "connected");
    if (connected)
        e.connected = *connected ? 1 : 0;
    auto channel = event_int(values, "channel");
    {
        std::lock_guard lock(s.mu);
        for (const EventDeclaration &d : s.declarations) {
            if (d.id == id) {
                e.known_id = true;
                e.channel = d.channel;
            }
        }
        if (channel)
            e.channel = static_cast<int32_t>(*channel);
        e.seq = ++s.events_total;
        s.events.push_back(e);
        while (s.events.size() > BoardServices::MAX_EVENTS_KEPT)
            s.events.pop_front();
    }
    if (!e.known_id) {
        reply_error(t, invocation, G_DBUS_ERROR_INVALID_ARGS, "No declaration with id %d", id);
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void handle_video_input(const CallTarget &t, GVariant *params, GDBusMethodInvocation *invocation)
{
    g_autoptr(GVariant) settings = nullptr;
    g_variant_get(params, "(@a{sv})", &settings);
    std::map<std::string, VideoSetting> received;
    GVariantIter iter;
    const gchar *key = nullptr;
    GVariant *value = nullptr;
    g_variant_iter_init(&iter, settings);
    while (g_variant_iter_loop(&iter, "{&sv}", &key, &value)) {
        VideoSetting v;
        v.type_string = g_variant_get_type_string(value);
        v.text = variant_text(value);
        v.number = variant_to_int(value);
        received[key] = v;
    }
    {
        std::lock_guard lock(t.state->mu);
        VideoSystemState &vs = t.state->video_system;
        vs.set_settings_calls++;
        for (auto &[k, v] : received)
            vs.settings[k] = v;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

/* Answers one call the way the service does when it works. */
void handle_call(const CallTarget &t, GDBusMethodInvocation *invocation)
{
    const char *iface = g_dbus_method_invocation_get_interface_name(invocation);
    const char *method = g_dbus_method_invocation_get_method_name(invocation);
    GVariant *params = g_dbus_method_invocation_get_parameters(invocation);

    if (g_str_equal(iface, PROPERTIES_IFACE))
        handle_properties(t, invocation);
    else if (g_str_equal(iface, OVERLAY_IFACE))
        handle_overlay(t, method, params, invocation);
    else if (g_str_equal(iface, CAPTURE_MODE_IFACE))
        handle_capture_mode(t, params, invocation);
    else if (g_str_equal(iface, EVENT_IFACE))
        handle_event(t, method, params, invocation);
    else if (g_str_equal(iface, VIDEO_INPUT_IFACE))
        handle_video_input(t, params, invocation);
    else
        reply_error(t, invocation, G_DBUS_ERROR_UNKNOWN_METHOD, "No method %s.%s", iface, method);
}

gboolean late_call_fire(gpointer data)
{
    auto *late = static_cast<LateCall *>(data);
    late->target.state->late_sources.erase(late->source);
    {
        std::lock_guard lock(late->target.state->mu);
        late->target.state->st(late->target.service).late_replies++;
    }
    GDBusMethodInvocation *invocation = late->invocation;
    late->invocation = nullptr;
    handle_call(late->target, invocation);
    return G_SOURCE_REMOVE;
}

void late_call_free(gpointer data)
{
    auto *late = static_cast<LateCall *>(data);
    if (late->invocation != nullptr) {
        /* The services were torn down before the answer was due. */
        late->target.state->late_sources.erase(late->source);
        reply_error(late->target, late->invocation, G_DBUS_ERROR_NO_REPLY,
                    "The service stopped before answering");
    }
    g_source_unref(late->source);
    delete late;
}

void on_method_call(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                    GVariant *, GDBusMethodInvocation *invocation, gpointer user_data)
{
    const CallTarget &t = *static_cast<CallTarget *>(user_data);
    Fault fault;
    unsigned late_ms;
    {
        std::lock_guard lock(t.state->mu);
        ServiceStatus &st = t.state->st(t.service);
        st.calls++;
        fault = st.fault;
        late_ms = st.late_ms;
    }
    if (fault == Fault::Failing) {
        reply_error(t, invocation, G_DBUS_ERROR_FAILED, "%s is failing",
                    service_bus_name(t.service));
        return;
    }
    if (fault == Fault::Late) {
        auto *late = new LateCall{t, invocation, g_timeout_source_new(late_ms)};
        g_source_set_callback(late->source, late_call_fire, late, late_call_free);
        t.state->late_sources.insert(late->source);
        g_source_attach(late->source, t.state->context);
        return;
    }
    handle_call(t, invocation);
}

const GDBusInterfaceVTable VTABLE = {on_method_call, nullptr, nullptr, {}};

void free_call_target(gpointer data)
{
    delete static_cast<CallTarget *>(data);
}

void on_name_acquired(GDBusConnection *, const gchar *, gpointer user_data)
{
    auto *t = static_cast<CallTarget *>(user_data);
    {
        std::lock_guard lock(t->state->mu);
        t->state->st(t->service).name_owned = true;
    }
    t->state->cv.notify_all();
}

void on_name_lost(GDBusConnection *, const gchar *, gpointer user_data)
{
    auto *t = static_cast<CallTarget *>(user_data);
    {
        std::lock_guard lock(t->state->mu);
        t->state->st(t->service).name_owned = false;
    }
    t->state->cv.notify_all();
}

} // namespace

void BoardServices::State::run_on_context(const std::function<void()> &fn)
{
    bool was_owner = g_main_context_is_owner(context);
    if (g_main_context_acquire(context)) {
        /* This thread iterates the context, or no thread does: run here. In
         * the second case nobody else would run the callbacks that GDBus
         * queued (destroy notifications), so run them now. */
        g_main_context_push_thread_default(context);
        fn();
        while (!was_owner && g_main_context_iteration(context, FALSE)) {
        }
        g_main_context_pop_thread_default(context);
        g_main_context_release(context);
        return;
    }
    ContextJob job;
    job.fn = &fn;
    job.context = context;
    std::unique_lock lock(job.mu);
    g_main_context_invoke_full(context, G_PRIORITY_HIGH, run_context_job, &job, nullptr);
    job.cv.wait(lock, [&] { return job.done; });
}

void BoardServices::State::export_service(Service s)
{
    for (ExportedObject &o : objects) {
        if (o.service != s || o.registration != 0)
            continue;
        g_autoptr(GError) error = nullptr;
        auto *target = new CallTarget{shared_from_this(), s, o.channel, o.path};
        o.registration = g_dbus_connection_register_object(
            connection, o.path.c_str(), o.iface, &VTABLE, target, free_call_target, &error);
        if (o.registration == 0)
            g_warning("Cannot register %s on %s: %s", o.iface->name, o.path.c_str(),
                      error->message);
    }
    if (owner_ids[static_cast<int>(s)] == 0) {
        auto *target = new CallTarget{shared_from_this(), s, -1, {}};
        owner_ids[static_cast<int>(s)] = g_bus_own_name_on_connection(
            connection, service_bus_name(s), G_BUS_NAME_OWNER_FLAGS_NONE, on_name_acquired,
            on_name_lost, target, free_call_target);
    }
}

void BoardServices::State::unexport_service(Service s)
{
    guint &owner = owner_ids[static_cast<int>(s)];
    if (owner != 0) {
        /* Releases the name with a synchronous call: once this returns, the
         * bus answers calls to the name with ServiceUnknown. */
        g_bus_unown_name(owner);
        owner = 0;
    }
    {
        std::lock_guard lock(mu);
        st(s).name_owned = false;
    }
    cv.notify_all();
    for (ExportedObject &o : objects) {
        if (o.service == s && o.registration != 0) {
            g_dbus_connection_unregister_object(connection, o.registration);
            o.registration = 0;
        }
    }
}

void BoardServices::State::apply_fault(Service s, Fault fault, unsigned late_ms)
{
    Fault old;
    {
        std::lock_guard lock(mu);
        old = st(s).fault;
        st(s).fault = fault;
        st(s).late_ms = fault == Fault::Late ? late_ms : 0;
    }
    if (fault == Fault::Absent && old != Fault::Absent)
        unexport_service(s);
    else if (fault != Fault::Absent && old == Fault::Absent)
        export_service(s);
}

void BoardServices::State::emit_properties_changed(Service owner, const std::string &path,
                                                   const char *iface, const char *property,
                                                   GVariant *value)
{
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", property, value);
    g_autoptr(GError) error = nullptr;
    if (!g_dbus_connection_emit_signal(
            connection, nullptr, path.c_str(), PROPERTIES_IFACE, "PropertiesChanged",
            g_variant_new("(sa{sv}as)", iface, &changed, nullptr), &error))
        g_warning("%s: cannot announce %s: %s", service_bus_name(owner), property, error->message);
}

void BoardServices::State::teardown()
{
    for (Service s : ALL_SERVICES)
        unexport_service(s);
    /* Answers every call still waiting for its late reply. */
    std::set<GSource *> pending;
    pending.swap(late_sources);
    for (GSource *source : pending)
        g_source_destroy(source);
}

BoardServices::BoardServices(GDBusConnection *connection, const ServicesOptions &options)
    : state_(std::make_shared<State>())
{
    g_assert(connection != nullptr);
    State &s = *state_;
    s.connection = G_DBUS_CONNECTION(g_object_ref(connection));
    s.context =
        options.context ? g_main_context_ref(options.context) : g_main_context_ref_thread_default();
    g_autoptr(GError) error = nullptr;
    s.node = g_dbus_node_info_new_for_xml(INTROSPECTION_XML, &error);
    g_assert_no_error(error);

    for (int i = 0; i < SERVICES_CHANNELS; i++) {
        g_assert(options.capture_modes[i] >= 1 && options.capture_modes[i] <= CAPTURE_MODE_MAX);
        g_assert(valid_frequency(options.capture_frequencies[i].c_str()));
        s.capture[i].capture_mode = options.capture_modes[i];
        s.capture[i].capture_frequency = options.capture_frequencies[i];
    }
    s.video_system.started = options.video_system_started;

    auto add = [&](Service service, int channel, std::string path, const char *iface) {
        GDBusInterfaceInfo *info = g_dbus_node_info_lookup_interface(s.node, iface);
        g_assert(info != nullptr);
        s.objects.push_back({service, channel, std::move(path), info, 0});
    };
    for (int i = 0; i < SERVICES_CHANNELS; i++) {
        add(Service::Overlay, i, "/com/korvi/PrioritizedTextOverlay/" + std::to_string(i + 1),
            OVERLAY_IFACE);
        std::string image = "/com/korvi/ImageControl/" + std::to_string(i) + "/0";
        add(Service::ImageControl, i, image, IMAGE_CONTROL_IFACE);
        add(Service::ImageControl, i, image, IMAGE_STREAM_IFACE);
        add(Service::CaptureMode, i, "/com/korvi/CaptureMode1/" + std::to_string(i),
            CAPTURE_MODE_IFACE);
    }
    add(Service::Event, -1, "/com/korvi/Event1", EVENT_IFACE);
    add(Service::VideoSystem, -1, "/com/korvi/VideoSystem1", VIDEO_SYSTEM_IFACE);
    add(Service::VideoSystem, -1, "/com/korvi/VideoSystem1/Input/0", VIDEO_INPUT_IFACE);

    s.run_on_context([&s] {
        for (Service service : ALL_SERVICES)
            s.export_service(service);
    });
}

BoardServices::~BoardServices()
{
    State &s = *state_;
    s.run_on_context([&s] { s.teardown(); });
}

void BoardServices::set_fault(Service service, Fault fault, unsigned late_ms)
{
    State &s = *state_;
    s.run_on_context([&] { s.apply_fault(service, fault, late_ms); });
}

void BoardServices::clear_faults()
{
    State &s = *state_;
    s.run_on_context([&s] {
        for (Service service : ALL_SERVICES)
            s.apply_fault(service, Fault::None, 0);
    });
}

bool BoardServices::wait_ready(unsigned timeout_ms) const
{
    State &s = *state_;
    std::unique_lock lock(s.mu);
    return s.cv.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&s] {
        for (const ServiceStatus &st : s.status) {
            if (st.fault != Fault::Absent && !st.name_owned)
                return false;
        }
        return true;
    });
}

void BoardServices::set_video_system_started(bool started)
{
    State &s = *state_;
    s.run_on_context([&s, started] {
        bool changed;
        bool present;
        {
            std::lock_guard lock(s.mu);
            changed = s.video_system.started != started;
            s.video_system.started = started;
            present = s.st(Service::VideoSystem).fault != Fault::Absent;
        }
        if (changed && present)
            s.emit_properties_changed(Service::VideoSystem, "/com/korvi/VideoSystem1",
                                      VIDEO_SYSTEM_IFACE, "Started",
                                      g_variant_new_boolean(started));
    });
}

OverlayChannel BoardServices::overlay(int channel_index) const
{
    g_assert(channel_index >= 0 && channel_index < SERVICES_CHANNELS);
    std::lock_guard lock(state_->mu);
    return state_->overlay[channel_index];
}

CaptureChannel BoardServices::capture(int channel_index) const
{
    g_assert(channel_index >= 0 && channel_index < SERVICES_CHANNELS);
    std::lock_guard lock(state_->mu);
    return state_->capture[channel_index];
}

std::vector<EventDeclaration> BoardServices::declarations() const
{
    std::lock_guard lock(state_->mu);
    return state_->declarations;
}

std::vector<EventSent> BoardServices::events() const
{
    std::lock_guard lock(state_->mu);
    return {state_->events.begin(), state_->events.end()};
}

VideoSystemState BoardServices::video_system() const
{
    std::lock_guard lock(state_->mu);
    return state_->video_system;
}

ServiceStatus BoardServices::status(Service service) const
{
    std::lock_guard lock(state_->mu);
    return state_->status[static_cast<int>(service)];
}

ServicesSnapshot BoardServices::snapshot() const
{
    std::lock_guard lock(state_->mu);
    ServicesSnapshot snap;
    snap.overlay = state_->overlay;
    snap.capture = state_->capture;
    snap.declarations = state_->declarations;
    snap.events.assign(state_->events.begin(), state_->events.end());
    snap.events_total = state_->events_total;
    snap.video_system = state_->video_system;
    snap.status = state_->status;
    return snap;
}

} // namespace vboard
