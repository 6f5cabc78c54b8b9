/* A private message bus standing in for the system bus, with small fakes of
 * the services the daemon calls: image control (CaptureMode, CaptureFrequency),
 * capture mode (SetCaptureMode) and the prioritized text overlay (Set, Unset).
 * Each call that reaches them is journalled:
 *   "SetCaptureMode(<channel>)=<argument>"
 *   "CaptureFrequency(<channel>)=<text>"
 *   "Overlay(<object number>).Set(<text>,<priority>)", "Overlay(<n>).Unset(<text>)"
 * The bus is started on first use and DBUS_SYSTEM_BUS_ADDRESS points at it. */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace testsupport
{

class FakeServices
{
  public:
    /* Starts the bus and the services on first use, then resets them. */
    static FakeServices &get();

    /* Every channel's CaptureMode back to `capture_mode`, frequencies cleared,
     * no failures, no hook, and the system bus reachable again. */
    void reset(int32_t capture_mode = 1);

    void set_capture_mode(int channel, int32_t mode);
    int32_t capture_mode(int channel);
    std::string capture_frequency(int channel);

    /* Calls to these members answer with an error while set. */
    std::atomic<bool> fail_set_capture_mode{false};
    std::atomic<bool> fail_set_capture_frequency{false};
    std::atomic<bool> fail_overlay{false};

    /* Runs on the services' thread inside every overlay call, before it is
     * answered. */
    void set_overlay_hook(std::function<void()> hook);

    /* Points DBUS_SYSTEM_BUS_ADDRESS at a socket that does not exist, or back
     * at the private bus. */
    void make_system_bus_unreachable(bool unreachable);

    struct State;

  private:
    FakeServices() = default;
};

} // namespace testsupport
