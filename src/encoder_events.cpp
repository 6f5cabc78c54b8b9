#include "encoder_events.h"

#include "decoder.h"
#include "event_producer.h"
#include "korvi_log.h"

struct EncoderEvents {
    EventProducer *producer;
    uint32_t nbr_channels;
    /* Per channel index: the declaration's identifier, -1 when it could not be
     * built. */
    int32_t declaration_ids[MAX_SOURCES];
};

namespace
{

constexpr const char *PRODUCER_NAME = "vidhostd";

/* Declares the "video connected" property event of channel number n
 * (1-based) and returns the service's identifier, -1 without a declaration. */
int32_t declare_channel(EventProducer *producer, uint32_t n)
{
    EventDeclaration *decl = event_declaration_new(nullptr);
    if (decl == nullptr) {
        korvi_error("%sFailed to declare event for channel %d", static_cast<int>(n));
        return -1;
    }

    event_declaration_add_key_value(decl, "topic0", "VideoEncoder", EVENT_VALUE_TYPE_STRING);
    event_declaration_set_name_space(decl, "topic0", "tns1");
    event_declaration_set_nice_names(decl, "topic0", nullptr, "Video encoder");

    event_declaration_add_key_value(decl, "topic1", "Connections", EVENT_VALUE_TYPE_STRING);
    event_declaration_set_name_space(decl, "topic1", "tnskorvi");
    event_declaration_set_nice_names(decl, "topic1", nullptr, "Video connected");

    uint32_t channel = n;
    event_declaration_add_key_value(decl, "channel", &channel, EVENT_VALUE_TYPE_UINT32);
    event_declaration_set_nice_names(decl, "channel", "Channel", nullptr);
    event_declaration_add_key_tag(decl, "channel", "onvif-source");

    event_declaration_add_key(decl, "connected", EVENT_VALUE_TYPE_BOOLEAN);
    event_declaration_set_nice_names(decl, "connected", "Connected", nullptr);
    event_declaration_add_key_tag(decl, "connected", "onvif-data");
    event_declaration_add_key_tag(decl, "connected", "property-state");

    event_declaration_set_property(decl, nullptr, nullptr, 0);

    int32_t id = event_producer_declare(producer, decl);
    event_declaration_free(decl);
    return id;
}

} // namespace

EncoderEvents *encoder_events_create(uint32_t nbr_channels)
{
    g_assert(nbr_channels <= MAX_SOURCES);

    EncoderEvents *events = g_try_new0(EncoderEvents, 1);
    if (events == nullptr)
        return nullptr;
    events->nbr_channels = nbr_channels;

    events->producer = event_producer_new(PRODUCER_NAME);
    if (events->producer == nullptr) {
        g_free(events);
        return nullptr;
    }

    /* A channel whose declaration fails keeps -1 and the others still get
     * theirs. */
    for (uint32_t n = 1; n <= nbr_channels; n++)
        events->declaration_ids[n - 1] = declare_channel(events->producer, n);
    return events;
}

void encoder_events_free(EncoderEvents *events)
{
    if (events == nullptr)
        return;
    if (events->producer != nullptr)
        event_producer_free(events->producer);
    g_free(events);
}

int encoder_events_send_video_connected(EncoderEvents *events, uint32_t channel, gboolean connected)
{
    if (events == nullptr || events->producer == nullptr || channel >= events->nbr_channels)
        g_assert(FALSE);

    Event *event = event_producer_prepare_event(events->producer, events->declaration_ids[channel]);
    if (event == nullptr) {
        korvi_error("%sFailed to create Video Connected event");
        return 0;
    }

    gboolean value = connected ? TRUE : FALSE;
    event_set_value(event, "connected", &value);

    GError *error = nullptr;
    int ret = event_producer_send_event(events->producer, event, &error);
    if (error != nullptr) {
        korvi_error("%sFailed to send Video Connected event: %s", error->message);
        g_error_free(error);
    }
    event_free(event);
    return ret;
}
