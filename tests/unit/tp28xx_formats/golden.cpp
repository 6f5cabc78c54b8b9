#include "golden.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <sstream>

namespace golden
{

Seq parse(const std::string &text)
{
    std::string cleaned = text;
    for (char &c : cleaned)
        if (c == ',')
            c = ' ';
    std::istringstream in(cleaned);
    Seq steps;
    std::string token;
    while (in >> token) {
        unsigned reg = 0, mask = 0, value = 0;
        int used = 0;
        if (std::sscanf(token.c_str(), "%2x&%2x=%2x%n", &reg, &mask, &value, &used) == 3 &&
            used == static_cast<int>(token.size())) {
            steps.push_back({uint8_t(reg), uint8_t(mask), uint8_t(value), Step::UPDATE});
        } else if (std::sscanf(token.c_str(), "%2x=%2x%n", &reg, &value, &used) == 2 &&
                   used == static_cast<int>(token.size())) {
            steps.push_back({uint8_t(reg), 0, uint8_t(value), Step::WRITE});
        } else if (std::sscanf(token.c_str(), "?%2x%n", &reg, &used) == 1 &&
                   used == static_cast<int>(token.size())) {
            steps.push_back({uint8_t(reg), 0, 0, Step::READ});
        } else {
            ADD_FAILURE() << "bad step '" << token << "'";
        }
    }
    return steps;
}

Seq timing(const std::string &bytes)
{
    std::istringstream in(bytes);
    Seq steps;
    unsigned value;
    uint8_t reg = 0x15;
    while (in >> std::hex >> value)
        steps.push_back({reg++, 0, uint8_t(value), Step::WRITE});
    EXPECT_EQ(steps.size(), 9u) << "timing table " << bytes;
    return steps;
}

Seq but(Seq base, const std::string &changes)
{
    for (const Step &change : parse(changes)) {
        int found = 0;
        for (Step &step : base) {
            if (step.reg == change.reg && step.kind == change.kind) {
                step.value = change.value;
                found++;
            }
        }
        EXPECT_EQ(found, 1) << "register " << std::hex << int(change.reg);
    }
    return base;
}

Seq cat(std::initializer_list<Seq> parts)
{
    Seq all;
    for (const Seq &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

namespace
{

std::string write_line(int page, int reg, int value)
{
    char line[32];
    std::snprintf(line, sizeof line, "W %02X %02X=%02X", page & 0xFF, reg & 0xFF, value & 0xFF);
    return line;
}

std::string read_line(int page, int reg)
{
    char line[32];
    std::snprintf(line, sizeof line, "R %02X %02X", page & 0xFF, reg & 0xFF);
    return line;
}

} // namespace

std::vector<std::string> render_actual(const std::vector<fakechip::Transaction> &log)
{
    std::vector<std::string> lines;
    for (const fakechip::Transaction &t : log) {
        if (t.kind == fakechip::Transaction::WRITE)
            lines.push_back(write_line(t.page, t.reg, t.value));
        else
            lines.push_back(read_line(t.page, t.reg));
    }
    return lines;
}

std::vector<std::string> render_expected(const Seq &expected,
                                         const std::vector<fakechip::Transaction> &log,
                                         uint8_t start_page)
{
    std::vector<std::string> lines;
    int page = start_page;
    size_t at = 0; /* position in the actual log */
    for (const Step &step : expected) {
        if (step.kind == Step::WRITE) {
            lines.push_back(write_line(page, step.reg, step.value));
            if (step.reg == 0x40)
                page = step.value;
            at++;
            continue;
        }
        if (step.kind == Step::READ) {
            lines.push_back(read_line(page, step.reg));
            at++;
            continue;
        }
        lines.push_back(read_line(page, step.reg));
        /* The merged value depends on what the chip answered; without a
         * matching read in the log, expect something no write can be. */
        if (at < log.size() && log[at].kind == fakechip::Transaction::READ &&
            log[at].reg == step.reg && log[at].page == page) {
            const int old = log[at].value;
            const int merged = ((old & ~step.mask) | (step.value & step.mask)) & 0xFF;
            lines.push_back(write_line(page, step.reg, merged));
        } else {
            lines.push_back("W (update without its read)");
        }
        at += 2;
    }
    return lines;
}

} // namespace golden
