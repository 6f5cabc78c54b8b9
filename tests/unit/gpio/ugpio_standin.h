/* A recording stand-in of the GPIO library and of usleep for the GPIO line
 * tests: lines behave as each test scripts them, and every call is recorded in
 * one sequence, sleeps included. */
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace standin
{

struct LineScript {
    /* Failed requests before one succeeds; a negative count never succeeds. */
    int request_failures = 0;
    /* Results of successive full opens; once used up, 0. */
    std::deque<int> full_open_results;
    int open_ro_result = 0;
    int set_value_result = 0;
    int get_value_result = 0;
    int set_edge_result = 1;
    /* What ugpio_fd returns for the line's handles. */
    int fd = -1;
};

/* Lines the board has, by name; any other name cannot be requested. */
extern std::map<std::string, LineScript> lines;
/* Every call: "request NAME", "full_open NAME", "open_ro NAME", "set_value NAME V",
 * "get_value NAME", "set_edge NAME F", "fd NAME", "close NAME", "free NAME",
 * "usleep US". */
extern std::vector<std::string> calls;
/* Handles requested and not yet freed. */
extern int live_handles;

void reset();
/* The calls whose text starts with the prefix. */
std::vector<std::string> calls_starting(const std::string &prefix);

} // namespace standin
