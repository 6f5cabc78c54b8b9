/* Owners for the sd-bus objects of one call to another service: the
 * connection is flushed and closed, the messages and the error released, on
 * every path. */
#pragma once

#include <cstring>
#include <memory>
#include <systemd/sd-bus.h>

struct BusUnref {
    void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using BusPtr = std::unique_ptr<sd_bus, BusUnref>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

struct BusError {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    BusError() = default;
    BusError(const BusError &) = delete;
    BusError &operator=(const BusError &) = delete;
    ~BusError() { sd_bus_error_free(&error); }

    /* The error's text; a failure that came without one is named by its code. */
    const char *message(int r) const
    {
        return error.message != nullptr ? error.message : strerror(-r);
    }
};
