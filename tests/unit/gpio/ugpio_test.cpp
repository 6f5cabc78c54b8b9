/* The GPIO library on line directories made of plain files. */
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "ugpio.h"

namespace fs = std::filesystem;

namespace
{

class UgpioLines : public testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/ugpio_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        base = tmpl;
    }
    void TearDown() override { fs::remove_all(base); }

    ugpio_t *add_line(const std::string &name, const std::string &direction,
                      const std::string &value)
    {
        fs::create_directory(base / name);
        write(name, "direction", direction);
        write(name, "value", value);
        write(name, "edge", "none\n");
        return ugpio_request_named_at(base.c_str(), name.c_str());
    }
    void write(const std::string &name, const std::string &file, const std::string &text)
    {
        std::ofstream(base / name / file, std::ios::trunc) << text;
    }
    std::string read(const std::string &name, const std::string &file)
    {
        return (std::stringstream() << std::ifstream(base / name / file).rdbuf()).str();
    }

    fs::path base;
};

TEST_F(UgpioLines, OutputLineIsWrittenAndReadBack)
{
    EXPECT_EQ(ugpio_request_named_at(base.c_str(), "decoder_reset_0"), nullptr) << "no line yet";
    ugpio_t *line = add_line("decoder_reset_0", "out\n", "0\n");
    ASSERT_NE(line, nullptr);
    ASSERT_EQ(ugpio_full_open(line), 0);
    EXPECT_EQ(ugpio_set_value(line, 7), 0);
    EXPECT_EQ(read("decoder_reset_0", "value"), "1");
    EXPECT_EQ(ugpio_get_value(line), 1);
    EXPECT_EQ(ugpio_set_value(line, 0), 0);
    EXPECT_EQ(read("decoder_reset_0", "value"), "0");
    ugpio_free(line);
}

TEST_F(UgpioLines, InputValueIsReReadFromTheStartAndNeverWritten)
{
    ugpio_t *line = add_line("decoder_interrupt_0", "in\n", "1\n");
    ASSERT_NE(line, nullptr);
    ASSERT_EQ(ugpio_full_open(line), 0);
    EXPECT_LT(ugpio_set_value(line, 0), 0);
    ASSERT_EQ(ugpio_open_ro(line), 0);
    EXPECT_EQ(ugpio_get_value(line), 1) << "not written";
    /* Each read starts at offset 0, which is what re-arms edge notification. */
    write("decoder_interrupt_0", "value", "0\n");
    EXPECT_EQ(ugpio_get_value(line), 0);
    EXPECT_EQ(ugpio_get_value(line), 0);
    write("decoder_interrupt_0", "value", "x\n");
    EXPECT_EQ(ugpio_get_value(line), -EINVAL);
    ugpio_free(line);
}

TEST_F(UgpioLines, EdgeBelongsToTheLine)
{
    ugpio_t *line = add_line("decoder_interrupt_0", "in", "0");
    ASSERT_NE(line, nullptr);
    EXPECT_NE(ugpio_set_edge(line, 8), 0) << "without an open value";
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "rising");
    ASSERT_EQ(ugpio_open_ro(line), 0);
    for (auto [flags, text] :
         {std::pair{UGPIO_EDGE_FALLING, "falling"}, {UGPIO_EDGE_BOTH, "both"}, {0, "none"}}) {
        EXPECT_NE(ugpio_set_edge(line, flags), 0);
        EXPECT_EQ(read("decoder_interrupt_0", "edge"), text);
    }
    EXPECT_EQ(ugpio_set_edge(line, UGPIO_EDGE_RISING | 0x10), 0) << "unknown flag";
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "none");
    fs::remove(base / "decoder_interrupt_0" / "edge");
    EXPECT_EQ(ugpio_set_edge(line, UGPIO_EDGE_RISING), 0) << "line without edge support";
    ugpio_free(line);
}

} // namespace
