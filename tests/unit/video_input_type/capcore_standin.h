/* A recording stand-in of the video system library for the video input type
 * tests: results are scripted and every call is recorded in order. */
#pragma once

#include <string>
#include <vector>

namespace standin
{

/* How a scripted operation fails. */
enum class Outcome {
    Ok,
    FailWithError,    /* failure result and a GError */
    FailWithoutError, /* failure result, no GError */
};

extern Outcome system_new;
extern Outcome wait_for_started;
extern Outcome input_new;
extern Outcome set_settings;
/* The message of the GErrors the stand-in sets. */
extern std::string error_text;

/* "system_new", "wait_for_started", "map_new", "input_new INDEX",
 * "map_set_uint32 KEY VALUE", "set_settings", "unref system|map|input". */
extern std::vector<std::string> calls;
/* Objects created and not yet finalized. */
extern int live_objects;

void reset();

} // namespace standin
