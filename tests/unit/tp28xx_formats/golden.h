/* Expected register sequences, written in the chip's notation:
 *   "0B=C0"     write 0xC0 to register 0x0B
 *   "02&17=00"  replace the bits 0x17 of register 0x02 with those of 0x00
 *               (one read, then one write of the merged value)
 *   "?B6"       read register 0xB6
 * and checked against the fake chip's transaction log. */
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "fake_chip.h"

namespace golden
{

struct Step {
    enum Kind { WRITE, UPDATE, READ };
    uint8_t reg;
    uint8_t mask; /* meaningful for updates only */
    uint8_t value;
    Kind kind;
};

using Seq = std::vector<Step>;

/* Parses steps separated by spaces or commas; an unreadable token fails the
 * running test. */
Seq parse(const std::string &text);
/* A nine-byte timing table as writes to 0x15..0x1D. */
Seq timing(const std::string &bytes);
/* "Like base but with these values": every register named in changes must
 * occur once in base; its value is replaced in place. */
Seq but(Seq base, const std::string &changes);
Seq cat(std::initializer_list<Seq> parts);

/* One line per bus transfer: "W 01 15=03" (page, register, value), "R 01 02"
 * (page, register). render_expected computes the written value of an update
 * from the value that the chip actually answered to its read, so the two lists
 * agree exactly when the driver did the right transfers. */
std::vector<std::string> render_actual(const std::vector<fakechip::Transaction> &log);
std::vector<std::string> render_expected(const Seq &expected,
                                         const std::vector<fakechip::Transaction> &log,
                                         uint8_t start_page);

} // namespace golden
