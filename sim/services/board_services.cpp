#include "board_services.h"

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

} // namespace vboard
