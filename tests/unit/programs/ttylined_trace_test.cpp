#include "programs/ttylined/trace.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

// Each test is a process of its own, as there is one trace in each.
class Trace : public testing::Test
{
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/trace_test.XXXXXX";

        ASSERT_NE(mkdtemp(name), nullptr);
        directory = name;
    }

    void TearDown() override
    {
        std::filesystem::remove_all(directory);
    }

    std::string content() const
    {
        std::ifstream file(directory + "/trace");
        std::ostringstream text;

        text << file.rdbuf();
        return text.str();
    }

    std::string directory;
    std::string error;
};

// The form of "2026-11-22T03:55:57.120Z ", with 9 for each digit.
static std::string form_of_stamp(std::string line)
{
    line = line.substr(0, 25);
    for (char &c : line) {
        c = c >= '0' && c <= '9' ? '9' : c;
    }
    return line;
}

TEST_F(Trace, says_nothing_before_it_is_wanted)
{
    EXPECT_FALSE(trace_wanted());
    trace_note("unheard");
    EXPECT_EQ(trace_file().fd, -1);
}

TEST_F(Trace, puts_the_time_before_each_line)
{
    ASSERT_TRUE(trace_open(directory + "/trace", error)) << error;
    EXPECT_TRUE(trace_wanted());
    trace_line("from client 1: permit");
    EXPECT_EQ(form_of_stamp(content()), "9999-99-99T99:99:99.999Z ");
    EXPECT_EQ(content().substr(25), "from client 1: permit\n");
}

TEST_F(Trace, tells_its_own_words_from_what_was_sent)
{
    ASSERT_TRUE(trace_open(directory + "/trace", error)) << error;
    trace_note("end");
    EXPECT_EQ(content().substr(25), "note end\n");
}

TEST_F(Trace, says_why_its_file_cannot_be)
{
    EXPECT_FALSE(trace_open(directory + "/none/trace", error));
    EXPECT_EQ(error, directory + "/none/trace: No such file or directory");
    EXPECT_FALSE(trace_wanted());
}

TEST_F(Trace, counts_the_lines_that_nobody_read)
{
    int ends[2];
    text_out out;
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    out.fd = ends[1];
    trace_to(out);
    const std::string line(100000, 'x');
    // A pipe holds 64 KiB and a mebibyte may be pending: eleven lines fit.
    for (int i = 0; i < 15; i++) {
        trace_line(line);
    }
    const std::size_t kept = out.pending.size();
    EXPECT_LT(kept, std::size_t{1200} * 1024);
    trace_line(line);
    EXPECT_EQ(out.pending.size(), kept);

    // There is room again.
    out.pending.clear();
    trace_note("room");
    EXPECT_NE(out.pending.find(" lines lost, the trace was not read\n"),
              std::string::npos);
    EXPECT_NE(out.pending.find(" note room\n"), std::string::npos);
    close(ends[0]);
    close(ends[1]);
}

// With the stamp and the line feed 128 bytes each.
static void trace_mib(int count)
{
    for (int i = 0; i < count * 8192; i++) {
        trace_line(std::string(102, 'x'));
    }
}

TEST_F(Trace, is_at_most_two_files_of_a_limited_size)
{
    const std::string path = directory + "/trace";

    ASSERT_TRUE(trace_open(path, error)) << error;
    trace_line("first");
    trace_mib(8);
    EXPECT_EQ(content().find("first"), std::string::npos);
    trace_mib(9);
    EXPECT_LE(std::filesystem::file_size(path), TRACE_FILE_MAX);
    EXPECT_LE(std::filesystem::file_size(path + ".1"), TRACE_FILE_MAX);
    EXPECT_GT(std::filesystem::file_size(path + ".1"), TRACE_FILE_MAX - 4096);
    EXPECT_FALSE(std::filesystem::exists(path + ".2"));
}

TEST_F(Trace, counts_what_was_in_the_file_before)
{
    const std::string path = directory + "/trace";

    std::ofstream(path) << "";
    std::filesystem::resize_file(path, TRACE_FILE_MAX);
    ASSERT_TRUE(trace_open(path, error)) << error;
    trace_line("next");
    EXPECT_EQ(std::filesystem::file_size(path + ".1"), TRACE_FILE_MAX);
    EXPECT_EQ(std::filesystem::file_size(path), 30U);
}

TEST_F(Trace, is_emptied_where_it_cannot_be_put_aside)
{
    const std::string path = directory + "/trace";

    std::filesystem::create_directories(path + ".1/full");
    ASSERT_TRUE(trace_open(path, error)) << error;
    trace_mib(9);
    EXPECT_LE(std::filesystem::file_size(path), TRACE_FILE_MAX);
}

TEST_F(Trace, goes_on_in_the_old_file_when_the_path_leads_to_none)
{
    const std::string path = directory + "/trace";

    ASSERT_TRUE(trace_open(path, error)) << error;
    std::filesystem::rename(path, directory + "/old");
    std::filesystem::create_symlink("/dev/null", path);
    trace_reopen();
    std::filesystem::remove(path);
    std::filesystem::rename(directory + "/old", path);
    EXPECT_NE(content().find("note " + path + ": "), std::string::npos);
    trace_line("goes on");
    EXPECT_NE(content().find("goes on"), std::string::npos);
}
