/* A recording stand-in of the event producer library for the events module's
 * tests: every call is recorded in order, and results are scripted. */
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace standin
{

/* "producer_new NAME", "declaration_new ARG", "add_key_value KEY VALUE TYPE" (VALUE
 * as s:TEXT or u:NUMBER), "add_key KEY TYPE", "set_name_space KEY NS",
 * "set_nice_names KEY KEYNAME VALUENAME" ("-" for NULL), "add_key_tag KEY TAG",
 * "set_property A B FLAGS", "declare", "declaration_free", "prepare_event ID",
 * "set_value KEY VALUE", "send_event", "event_free", "producer_free". */
extern std::vector<std::string> calls;

extern bool producer_new_fails;
/* Declarations (counted from 1 in order of creation) that fail to be created. */
extern std::set<int> failing_declarations;
/* What event_producer_declare returns for the n-th declare call (1-based);
 * without an entry 100 + n. */
extern std::map<int, int> declare_results;
/* The "channel" value each returned identifier was declared with. */
extern std::map<int, unsigned> channel_of_id;
/* Identifiers for which no event can be prepared. */
extern std::set<int> unpreparable_ids;
/* event_producer_send_event's result; a non-empty error text sets the GError. */
extern int send_result;
extern std::string send_error;

/* One record per event sent: its declaration identifier and "connected" value
 * (-1 when it was never set). */
struct SentEvent {
    int id;
    int connected;
};
extern std::vector<SentEvent> sent;

/* Objects created and not yet freed. */
extern int live_producers;
extern int live_declarations;
extern int live_events;

void reset();
std::vector<std::string> calls_starting(const std::string &prefix);

} // namespace standin
