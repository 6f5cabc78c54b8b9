/* Shared fixture for the chip model tests: a hand-driven clock and the bus
 * transfers a driver would make. */
#pragma once

#include "chip_model.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

namespace vboard_test
{

struct FakeClock {
    uint64_t now = 1000000;
    vboard::ChipModel::Clock fn()
    {
        return [this] { return now; };
    }
};

/* One register read as the driver does it: pointer write, 1-byte read. */
inline int bus_read(vboard::ChipModel &m, uint8_t reg)
{
    if (m.write(&reg, 1) != 1)
        return -1;
    uint8_t v = 0;
    if (m.read(&v, 1) != 1)
        return -1;
    return v;
}

inline bool bus_write(vboard::ChipModel &m, uint8_t reg, uint8_t value)
{
    const uint8_t buf[2] = {reg, value};
    return m.write(buf, 2) == 2;
}

inline void bus_update(vboard::ChipModel &m, uint8_t reg, uint8_t mask, uint8_t value)
{
    const int old = bus_read(m, reg);
    ASSERT_GE(old, 0);
    bus_write(m, reg, uint8_t((old & ~mask) | (value & mask)));
}

inline void bus_write_run(vboard::ChipModel &m, uint8_t first, const std::vector<uint8_t> &bytes)
{
    for (size_t i = 0; i < bytes.size(); i++)
        bus_write(m, uint8_t(first + i), bytes[i]);
}

class ModelTest : public ::testing::Test
{
  protected:
    void make(vboard::ChipKind kind)
    {
        model = std::make_unique<vboard::ChipModel>(kind, clock.fn());
        ASSERT_EQ(model->set_address(vboard::CHIP_ADDRESS), 0);
    }
    void SetUp() override { make(vboard::ChipKind::TP2827); }

    void advance_us(uint64_t us)
    {
        clock.now += us;
        model->poll();
    }

    FakeClock clock;
    std::unique_ptr<vboard::ChipModel> model;
};

} // namespace vboard_test
