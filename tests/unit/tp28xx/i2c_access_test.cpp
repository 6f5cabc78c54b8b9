/* Register primitives and page select against the fake chip. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "fake_chip.h"
#include "korvi_log.h"
#include "log_capture.h"
#include "tp28xx.h"

using fakechip::ANY_PAGE;
using fakechip::FakeChip;
using fakechip::RegWrite;
using fakechip::Transaction;

namespace
{

class I2cAccess : public ::testing::Test
{
  protected:
    void SetUp() override { log_capture_start(); }
    FakeChip chip;
};

TEST_F(I2cAccess, ReadTellsZeroFromFailure)
{
    chip.set(0, 0x10, 0x00);
    chip.set(0, 0x11, 0xFF);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), 0);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x11), 0xFF);
    EXPECT_EQ(log_capture_messages().size(), 0u);

    chip.fail_reads(ANY_PAGE, 0x10, 1);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), -1);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to read data"), 1u);
    /* Only the next read was to fail. */
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), 0);

    chip.set_offline(true);
    EXPECT_EQ(i2c_read_reg(chip.fd(), 0x10), -1);
    chip.set_offline(false);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to write data"), 1u);
}

TEST_F(I2cAccess, WriteSendsLowEightBitsAndReportsFailure)
{
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x1A5, 0x2FF), 0);
    EXPECT_EQ(chip.writes(), (std::vector<RegWrite>{{0x00, 0xA5, 0xFF}}));

    chip.set_offline(true);
    EXPECT_EQ(i2c_write_reg(chip.fd(), 0x10, 0x01), -1);
    chip.set_offline(false);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Unable to send data"), 1u);
    EXPECT_EQ(chip.writes().size(), 1u);
}

TEST_F(I2cAccess, UpdateBitsReplacesOnlyTheMaskedBits)
{
    chip.set(0, 0x1F, 0xFF);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x1F, 0x60, 0x00), 0);
    chip.set(0, 0x20, 0x81);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x20, 0x0F, 0xF6), 0);
    EXPECT_EQ(chip.writes(), (std::vector<RegWrite>{{0x00, 0x1F, 0x9F}, {0x00, 0x20, 0x86}}));
    /* One read and one write each. */
    EXPECT_EQ(chip.transactions().size(), 4u);
}

TEST_F(I2cAccess, UpdateBitsAfterFailedReadLeavesRegisterAlone)
{
    chip.set(0, 0x02, 0x48);
    chip.fail_reads(ANY_PAGE, 0x02, 1);
    EXPECT_EQ(i2c_update_bits(chip.fd(), 0x02, 0x04, 0x04), -1);
    EXPECT_TRUE(chip.writes().empty());
    EXPECT_EQ(chip.get(0, 0x02), 0x48);
}

TEST_F(I2cAccess, WriteRegsWritesEachByteAndWrapsAfterFF)
{
    const uint8_t data[3] = {0x11, 0x22, 0x33};
    i2c_write_regs(chip.fd(), 0xFE, data, 3);
    EXPECT_EQ(chip.writes(),
              (std::vector<RegWrite>{{0x00, 0xFE, 0x11}, {0x00, 0xFF, 0x22}, {0x00, 0x00, 0x33}}));

    chip.clear_log();
    i2c_write_regs(chip.fd(), 0x15, data, 0);
    i2c_write_regs(chip.fd(), 0x15, data, -4);
    EXPECT_TRUE(chip.transactions().empty());

    /* A failed byte is logged and the run goes on. */
    chip.set_offline(true);
    i2c_write_regs(chip.fd(), 0x15, data, 3);
    chip.set_offline(false);
    EXPECT_EQ(log_count("Unable to send data"), 3u);
}

TEST_F(I2cAccess, SetPageSelectsTheDocumentedValues)
{
    const std::pair<int32_t, uint8_t> cases[] = {
        {0, 0x00}, {1, 0x01},  {2, 0x02}, {3, 0x03}, {PAGE_ALL, 0x04}, {5, 0x10},     {7, 0x04},
        {9, 0x40}, {-1, 0x04}, {6, 0x04}, {8, 0x04}, {10, 0x04},       {0x100, 0x04},
    };
    for (const auto &[page, value] : cases) {
        chip.clear_log();
        EXPECT_EQ(tp28xx_set_page(chip.fd(), page), 0);
        EXPECT_EQ(chip.writes_of(0x40).size(), 1u);
        EXPECT_EQ(chip.page(), value) << "page identifier " << page;
    }
}

TEST_F(I2cAccess, SetupI2cMissingParameters)
{
    EXPECT_EQ(setup_i2c(nullptr, 0x88), -1);
    EXPECT_EQ(setup_i2c("/dev/null", 0), -1);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "setup_i2c: Missing input parameters"), 2u);
}

TEST_F(I2cAccess, SetupI2cGivesUpAfterThreeAttempts)
{
    const std::string path = "/nonexistent-vinmand-test/i2c-7";
    EXPECT_EQ(setup_i2c(path.c_str(), 0x88), -1);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Can't open " + path), 3u);
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, "Retrying setup of " + path), 2u);
    EXPECT_EQ(log_count(KORVI_LOG_LEVEL_ERROR, "Failed to setup i2c"), 1u);
    /* In this order: open, retry, open, retry, open, give up. */
    std::vector<std::string> texts;
    for (const auto &m : log_capture_messages())
        texts.push_back(m.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"Can't open " + path, "Retrying setup of " + path,
                                               "Can't open " + path, "Retrying setup of " + path,
                                               "Can't open " + path, "Failed to setup i2c"}));
}

TEST_F(I2cAccess, SetupI2cRejectsADeviceThatIsNotABus)
{
    /* /dev/null opens but refuses the slave address request. */
    EXPECT_EQ(setup_i2c("/dev/null", 0x88), -1);
    const std::string refused = "Failed to set slave addr 0x88: [-25]";
    EXPECT_EQ(log_count(G_LOG_LEVEL_INFO, refused), 3u);
    EXPECT_EQ(log_count("Failed to setup i2c"), 1u);
}

} // namespace
