#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

#include "ugpio.h"

namespace fs = std::filesystem;

namespace
{

/* A directory laid out like the board's line directory, with plain files. */
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

    void add_line(const std::string &name, const std::string &direction,
                  const std::string &value = "0\n", const std::string &edge = "none\n")
    {
        fs::create_directory(base / name);
        write(name, "direction", direction);
        write(name, "value", value);
        write(name, "edge", edge);
    }
    void write(const std::string &name, const std::string &file, const std::string &text)
    {
        std::ofstream(base / name / file, std::ios::trunc) << text;
    }
    std::string read(const std::string &name, const std::string &file)
    {
        std::ifstream in(base / name / file);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    ugpio_t *request(const std::string &name)
    {
        return ugpio_request_named_at(base.c_str(), name.c_str());
    }

    fs::path base;
};

TEST_F(UgpioLines, RequestNeedsTheLineDirectory)
{
    add_line("video_term_1", "out");
    std::ofstream(base / "plain_file") << "x";

    EXPECT_EQ(request("video_term_2"), nullptr);
    EXPECT_EQ(request("plain_file"), nullptr);
    EXPECT_EQ(request(""), nullptr);
    EXPECT_EQ(request(".."), nullptr);
    EXPECT_EQ(request("video_term_1/value"), nullptr);
    EXPECT_EQ(ugpio_request_named_at(base.c_str(), nullptr), nullptr);

    ugpio_t *line = request("video_term_1");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(ugpio_fd(line), -1) << "a request opens nothing";
    ugpio_free(line);
    ugpio_free(nullptr);
}

TEST_F(UgpioLines, OutputLineIsWrittenAndReadBack)
{
    add_line("decoder_reset_0", "out\n");
    ugpio_t *line = request("decoder_reset_0");
    ASSERT_NE(line, nullptr);
    ASSERT_EQ(ugpio_full_open(line), 0);
    EXPECT_GE(ugpio_fd(line), 0);

    EXPECT_EQ(ugpio_set_value(line, 1), 0);
    EXPECT_EQ(read("decoder_reset_0", "value"), "1");
    EXPECT_EQ(ugpio_get_value(line), 1);
    EXPECT_EQ(ugpio_set_value(line, 0), 0);
    EXPECT_EQ(read("decoder_reset_0", "value"), "0");
    EXPECT_EQ(ugpio_get_value(line), 0);
    /* Any non-zero value drives the line high. */
    EXPECT_EQ(ugpio_set_value(line, 7), 0);
    EXPECT_EQ(read("decoder_reset_0", "value"), "1");

    ugpio_close(line);
    EXPECT_EQ(ugpio_fd(line), -1);
    EXPECT_EQ(ugpio_set_value(line, 1), -EBADF);
    EXPECT_EQ(ugpio_get_value(line), -EBADF);
    ugpio_free(line);
}

TEST_F(UgpioLines, HighAndLowAreOutputDirections)
{
    add_line("a", "high");
    add_line("b", "low\n");
    for (const char *name : {"a", "b"}) {
        ugpio_t *line = request(name);
        ASSERT_NE(line, nullptr);
        ASSERT_EQ(ugpio_full_open(line), 0) << name;
        EXPECT_EQ(ugpio_set_value(line, 1), 0) << name;
        ugpio_free(line);
    }
}

TEST_F(UgpioLines, InputLineAndReadOnlyOpenCannotBeWritten)
{
    add_line("decoder_interrupt_0", "in\n", "1\n");
    ugpio_t *line = request("decoder_interrupt_0");
    ASSERT_NE(line, nullptr);

    ASSERT_EQ(ugpio_full_open(line), 0);
    EXPECT_EQ(ugpio_get_value(line), 1);
    EXPECT_LT(ugpio_set_value(line, 0), 0);
    EXPECT_EQ(read("decoder_interrupt_0", "value"), "1\n");

    /* Reading always starts from the beginning, so a new value is seen. */
    ASSERT_EQ(ugpio_open_ro(line), 0);
    EXPECT_EQ(ugpio_get_value(line), 1);
    write("decoder_interrupt_0", "value", "0\n");
    EXPECT_EQ(ugpio_get_value(line), 0);
    EXPECT_EQ(ugpio_get_value(line), 0);
    EXPECT_LT(ugpio_set_value(line, 1), 0);
    ugpio_free(line);
}

TEST_F(UgpioLines, OpenFailures)
{
    add_line("odd", "sideways\n");
    add_line("no_value", "out");
    fs::remove(base / "no_value" / "value");
    fs::create_directory(base / "no_direction");
    std::ofstream(base / "no_direction" / "value") << "0";

    for (const char *name : {"odd", "no_value", "no_direction"}) {
        ugpio_t *line = request(name);
        ASSERT_NE(line, nullptr) << name;
        EXPECT_LT(ugpio_full_open(line), 0) << name;
        EXPECT_EQ(ugpio_fd(line), -1) << name;
        ugpio_free(line);
    }
    ugpio_t *line = request("no_value");
    EXPECT_EQ(ugpio_open_ro(line), -ENOENT);
    ugpio_free(line);
}

TEST_F(UgpioLines, UnreadableValueIsAnError)
{
    add_line("garbage", "in", "x\n");
    add_line("empty", "in", "");
    for (const char *name : {"garbage", "empty"}) {
        ugpio_t *line = request(name);
        ASSERT_EQ(ugpio_open_ro(line), 0);
        EXPECT_EQ(ugpio_get_value(line), -EINVAL) << name;
        ugpio_free(line);
    }
}

TEST_F(UgpioLines, EdgeSelection)
{
    add_line("decoder_interrupt_0", "in");
    ugpio_t *line = request("decoder_interrupt_0");
    ASSERT_NE(line, nullptr);

    /* The edge is the line's, set with or without an open value. */
    EXPECT_NE(ugpio_set_edge(line, UGPIO_EDGE_RISING), 0);
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "rising");
    EXPECT_EQ(UGPIO_EDGE_RISING, 8);
    ASSERT_EQ(ugpio_open_ro(line), 0);
    EXPECT_NE(ugpio_set_edge(line, UGPIO_EDGE_FALLING), 0);
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "falling");
    EXPECT_NE(ugpio_set_edge(line, UGPIO_EDGE_BOTH), 0);
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "both");
    EXPECT_NE(ugpio_set_edge(line, 0), 0);
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "none");

    /* Unknown flags change nothing. */
    EXPECT_EQ(ugpio_set_edge(line, 1), 0);
    EXPECT_EQ(ugpio_set_edge(line, UGPIO_EDGE_RISING | 0x10), 0);
    EXPECT_EQ(read("decoder_interrupt_0", "edge"), "none");

    /* A line without edge support fails. */
    fs::remove(base / "decoder_interrupt_0" / "edge");
    EXPECT_EQ(ugpio_set_edge(line, UGPIO_EDGE_RISING), 0);
    EXPECT_EQ(ugpio_set_edge(nullptr, UGPIO_EDGE_RISING), 0);
    ugpio_free(line);
}

TEST(UgpioText, ValueAndDirectionTexts)
{
    EXPECT_EQ(ugpio_parse_value("0", 1), 0);
    EXPECT_EQ(ugpio_parse_value("1\n", 2), 1);
    EXPECT_EQ(ugpio_parse_value("1 \n", 3), 1);
    EXPECT_EQ(ugpio_parse_value("10", 2), -EINVAL);
    EXPECT_EQ(ugpio_parse_value("2", 1), -EINVAL);
    EXPECT_EQ(ugpio_parse_value("\n", 1), -EINVAL);
    EXPECT_EQ(ugpio_parse_value("", 0), -EINVAL);
    EXPECT_EQ(ugpio_parse_value(nullptr, 0), -EINVAL);
    /* Only the given length counts. */
    EXPECT_EQ(ugpio_parse_value("01", 1), 0);

    EXPECT_EQ(ugpio_direction_is_output("in\n", 3), 0);
    EXPECT_EQ(ugpio_direction_is_output("out\n", 4), 1);
    EXPECT_EQ(ugpio_direction_is_output("output", 6), -EINVAL);
    EXPECT_EQ(ugpio_direction_is_output("i", 1), -EINVAL);
    EXPECT_EQ(ugpio_direction_is_output("", 0), -EINVAL);

    EXPECT_STREQ(ugpio_edge_text(UGPIO_EDGE_RISING), "rising");
    EXPECT_EQ(ugpio_edge_text(-1), nullptr);
}

} // namespace
