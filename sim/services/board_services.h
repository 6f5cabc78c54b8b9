/* The virtual board's system services: the five D-Bus services that the daemon
 * and its platform layers call on the system bus, served with GDBus on a
 * connection the board hands in. Each records what it was told, so that the
 * board can show it, and each can be made absent, failing or late.
 *
 * Bus names, objects and members:
 *   com.korvi.PrioritizedTextOverlay  /com/korvi/PrioritizedTextOverlay/N   (N = 1..4)
 *       com.korvi.PrioritizedTextOverlay: Set(s text, u priority), Unset(s text)
 *   com.korvi.ImageControl            /com/korvi/ImageControl/N/0           (N = 0..3)
 *       com.korvi.ImageControl: property CaptureMode "i" (read, 1-based mode)
 *       com.korvi.ImageControlStream: property CaptureFrequency "s" (read/write,
 *       "50Hz" or "60Hz")
 *   com.korvi.CaptureMode1            /com/korvi/CaptureMode1/N             (N = 0..3)
 *       com.korvi.CaptureMode1.Channel: SetCaptureMode(i mode) with the mode
 *       0-based (0..5); afterwards the channel's CaptureMode property reads mode + 1
 *   com.korvi.Event1                  /com/korvi/Event1
 *       com.korvi.Event1: Declare(s producer, a{sv} declaration) -> (i id),
 *       Send(s producer, i id, a{sv} values)
 *   com.korvi.VideoSystem1            /com/korvi/VideoSystem1
 *       com.korvi.VideoSystem1: property Started "b" (read)
 *                                     /com/korvi/VideoSystem1/Input/0
 *       com.korvi.VideoSystem1.Input: SetSettings(a{sv} settings)
 *
 * Properties are reached through org.freedesktop.DBus.Properties (Get, GetAll,
 * Set); a change of CaptureMode, CaptureFrequency or Started is announced with
 * PropertiesChanged.
 *
 * Event payloads. Declare returns ids 1, 2, 3, ... in order. A declaration is
 * an a{sv} keyed by the event's key names ("topic0", "channel", "connected",
 * ...); each entry is either the key's fixed value itself or an a{sv} that
 * holds it under "value" (next to "type", "namespace", "tags", ...). The keys
 * may also sit one level down, e.g. under "keys". The same holds for the
 * values of Send. The board reads the integer "channel" (1-based) of the
 * declaration and the boolean "connected" (b, or any integer type) of each
 * send; everything else is kept as text.
 *
 * Threads and main context. All D-Bus work (object registration, name
 * ownership, method calls, late replies) runs on one GMainContext: the one
 * given in ServicesOptions::context, or else the thread-default context of the
 * thread that constructs BoardServices. Some thread must iterate that context
 * for the services to answer. The constructor, set_fault, clear_faults,
 * set_video_system_started and the destructor may be called from any thread:
 * they run their D-Bus work on the services' context (directly when the
 * calling thread can own it, otherwise by handing it to the thread that
 * iterates it and waiting until it is done; so never call them from a thread
 * that the context's loop is waiting for). After the destructor has run on
 * a context that another thread iterates, let that thread iterate it once
 * more (or unref the context) so that GDBus can free what it held for the
 * services. The recorded state sits behind a mutex and every accessor
 * returns a copy. */
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gio/gio.h>

namespace vboard
{

inline constexpr int SERVICES_CHANNELS = 4;

enum class Service {
    Overlay,      /* com.korvi.PrioritizedTextOverlay */
    ImageControl, /* com.korvi.ImageControl */
    CaptureMode,  /* com.korvi.CaptureMode1 */
    Event,        /* com.korvi.Event1 */
    VideoSystem,  /* com.korvi.VideoSystem1 */
};
inline constexpr int SERVICE_COUNT = 5;
inline constexpr std::array<Service, SERVICE_COUNT> ALL_SERVICES = {
    Service::Overlay, Service::ImageControl, Service::CaptureMode, Service::Event,
    Service::VideoSystem};

enum class Fault {
    None,    /* normal service */
    Absent,  /* bus name not owned, objects not registered: callers get ServiceUnknown */
    Failing, /* every call and property access answers org.freedesktop.DBus.Error.Failed */
    Late,    /* every answer comes late_ms after the call */
};

/* Short names for people and command lines: "overlay", "imagecontrol",
 * "capturemode", "event", "videosystem". */
const char *service_short_name(Service service);
/* The service's bus name, e.g. "com.korvi.Event1". */
const char *service_bus_name(Service service);
/* Accepts a short name or a bus name. */
std::optional<Service> service_from_name(std::string_view name);
/* "none", "absent", "failing", "late". */
const char *fault_name(Fault fault);
std::optional<Fault> fault_from_name(std::string_view name);

struct ServicesOptions {
    /* Capture mode (1-based, 1..6) of each channel index 0..3 at start. */
    std::array<int32_t, SERVICES_CHANNELS> capture_modes = {1, 1, 1, 1};
    /* Capture frequency of each channel index at start. */
    std::array<std::string, SERVICES_CHANNELS> capture_frequencies = {"50Hz", "50Hz", "50Hz",
                                                                      "50Hz"};
    /* Value of the video system's Started property at start. */
    bool video_system_started = true;
    /* Context the services run on; nullptr: the constructing thread's
     * thread-default context. Not owned (a reference is kept). */
    GMainContext *context = nullptr;
};

struct OverlayText {
    std::string text;
    uint32_t priority = 0;
    bool operator==(const OverlayText &) const = default;
};

/* One overlay object; channel index i is the object path .../PrioritizedTextOverlay/(i + 1). */
struct OverlayChannel {
    std::vector<OverlayText> texts; /* shown now, in the order they were first set */
    uint64_t set_calls = 0;
    uint64_t unset_calls = 0;
};

struct CaptureChannel {
    int32_t capture_mode = 0; /* 1-based, as the CaptureMode property reads */
    std::string capture_frequency;
    uint64_t set_capture_mode_calls = 0; /* accepted SetCaptureMode calls */
    uint64_t frequency_sets = 0;         /* accepted CaptureFrequency writes */
};

struct EventDeclaration {
    int32_t id = 0;
    std::string producer;
    int32_t channel = -1;    /* the declared "channel" (1-based), -1 when it has none */
    std::string declaration; /* the whole a{sv}, in GVariant text form */
};

struct EventSent {
    uint64_t seq = 0; /* 1, 2, ... in order of arrival */
    std::string producer;
    int32_t id = 0;
    bool known_id = false;  /* the id was returned by an earlier Declare */
    int32_t channel = -1;   /* "channel" of the send, else of its declaration; -1: none */
    int32_t connected = -1; /* "connected": 1 or 0, -1 when the send carries none */
    std::string values;     /* the whole a{sv}, in GVariant text form */
};

struct VideoSetting {
    std::string type_string;       /* the value's D-Bus type, e.g. "u" */
    std::string text;              /* the value in GVariant text form */
    std::optional<int64_t> number; /* integer values */
    bool operator==(const VideoSetting &) const = default;
};

struct VideoSystemState {
    bool started = true;
    std::map<std::string, VideoSetting> settings; /* latest value of every key set */
    uint64_t set_settings_calls = 0;

    /* The "video_type%d" setting of channel index 0..3 (key video_type(index + 1)). */
    std::optional<int64_t> video_type(int channel_index) const;
};

struct ServiceStatus {
    Fault fault = Fault::None;
    unsigned late_ms = 0;
    bool name_owned = false;    /* the bus confirmed the name is ours */
    uint64_t calls = 0;         /* method calls and property accesses received */
    uint64_t error_replies = 0; /* answered with a D-Bus error (failing fault, bad arguments) */
    uint64_t late_replies = 0;  /* answered late */
};

struct ServicesSnapshot {
    std::array<OverlayChannel, SERVICES_CHANNELS> overlay;
    std::array<CaptureChannel, SERVICES_CHANNELS> capture;
    std::vector<EventDeclaration> declarations;
    std::vector<EventSent> events; /* the latest MAX_EVENTS_KEPT sends */
    uint64_t events_total = 0;     /* sends ever received */
    VideoSystemState video_system;
    std::array<ServiceStatus, SERVICE_COUNT> status; /* indexed by Service */

    /* The events sent for one channel (1-based "channel"), oldest first. */
    std::vector<EventSent> events_for_channel(int32_t channel) const;
    /* The last "connected" value sent for a channel, -1 when none was. */
    int32_t last_connected(int32_t channel) const;
    /* The whole snapshot as one JSON object. */
    std::string to_json() const;
};

class BoardServices
{
  public:
    static constexpr size_t MAX_EVENTS_KEPT = 1000;

    /* Registers the objects and asks for the bus names on the connection
     * (which must be a message bus connection). The names are owned once the
     * bus answers: see wait_ready. */
    explicit BoardServices(GDBusConnection *connection, const ServicesOptions &options = {});
    /* Releases the names and objects; late calls still pending are answered
     * with an error. */
    ~BoardServices();
    BoardServices(const BoardServices &) = delete;
    BoardServices &operator=(const BoardServices &) = delete;

    /* Sets one service's fault. late_ms is used with Fault::Late only. Going
     * to Absent releases the name before returning (a call made afterwards
     * gets ServiceUnknown); leaving Absent asks for the name again (see
     * wait_ready). Calls already delayed keep their delay. */
    void set_fault(Service service, Fault fault, unsigned late_ms = 0);
    void clear_faults();

    /* Waits up to timeout_ms until every service that is not absent owns its
     * bus name. Call it from a thread other than the one iterating the
     * services' context (or while no thread iterates it). */
    bool wait_ready(unsigned timeout_ms) const;

    void set_video_system_started(bool started);

    /* Copies of the recorded state. Channel arguments are channel indexes 0..3. */
    OverlayChannel overlay(int channel_index) const;
    CaptureChannel capture(int channel_index) const;
    std::vector<EventDeclaration> declarations() const;
    std::vector<EventSent> events() const;
    VideoSystemState video_system() const;
    ServiceStatus status(Service service) const;
    ServicesSnapshot snapshot() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

} // namespace vboard
