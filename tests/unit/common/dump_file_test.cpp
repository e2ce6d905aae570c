#include "common/dump_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include "tests/support/descriptors.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

class DumpFile : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        file = path("/dump.txt");
        shared_file = file;
    }

    int append(const char *line) const
    {
        return dump_file_append(file.c_str(), line);
    }

    mode_t mode() const
    {
        struct stat status = {};
        EXPECT_EQ(stat(file.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    std::string file;
    static std::string shared_file;
    static int seen_flags;
    static int seen_descriptor_flags;

    // The flags of the descriptor that the file is open on.
    static void note_flags()
    {
        for (const std::string &each : support::open_descriptors()) {
            if (each.find(" -> " + shared_file) != std::string::npos) {
                const int fd = atoi(each.c_str());
                seen_flags = fcntl(fd, F_GETFL);
                seen_descriptor_flags = fcntl(fd, F_GETFD);
            }
        }
    }

    static void append_from_elsewhere()
    {
        const int fd = open(shared_file.c_str(), O_WRONLY | O_APPEND);
        EXPECT_EQ(write(fd, "other\n", 6), 6);
        close(fd);
    }
};

std::string DumpFile::shared_file;
int DumpFile::seen_flags = -1;
int DumpFile::seen_descriptor_flags = -1;

TEST_F(DumpFile, is_created_open_to_all_under_the_creation_mask)
{
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file), "one\n");
    EXPECT_EQ(mode(), 0755u);
    unlink(file.c_str());
    umask(0);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(mode(), 0777u);
}

TEST_F(DumpFile, lines_are_appended_as_they_are)
{
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(append("no end"), 0);
    EXPECT_EQ(append(""), 0);
    EXPECT_EQ(append("|%s\r\n"), 0);
    EXPECT_EQ(support::slurp(file), "one\nno end|%s\r\n");
}

TEST_F(DumpFile, of1048577_bytes_is_emptied_before_the_line)
{
    support::spill(file, std::string(1048577, 'x'));
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file), "one\n");
}

TEST_F(DumpFile, larger_than4_gibibytes_is_emptied_too)
{
    support::spill(file, "");
    ASSERT_EQ(truncate(file.c_str(), 0x100000005), 0);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file), "one\n");
}

TEST_F(DumpFile, written_after2038_is_emptied_too)
{
    constexpr time_t IN_2040 = 2208988800;
    const struct timespec times[2] = {{IN_2040, 0}, {IN_2040, 0}};
    support::spill(file, std::string(1048577, 'x'));
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file), "one\n");
}

TEST_F(DumpFile, of1048576_bytes_is_not_emptied)
{
    support::spill(file, std::string(1048576, 'x'));
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_TRUE(support::slurp(file) == std::string(1048576, 'x') + "one\n");
    EXPECT_EQ(append("two\n"), 0);
    EXPECT_EQ(support::slurp(file), "two\n");
}

TEST_F(DumpFile, that_cannot_be_emptied_takes_the_line)
{
    fault_row("dump_file_append", "ftruncate", "EIO", "0", "",
              "the file above its limit, the line behind the others");
    support::spill(file, std::string(1048577, 'x'));
    fault::fail("ftruncate", 1, EIO);
    fault::fail("truncate", 1, EIO);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_TRUE(support::slurp(file) == std::string(1048577, 'x') + "one\n");
}

TEST_F(DumpFile, whose_size_is_unknown_takes_the_line)
{
    fault_row("dump_file_append", "stat", "EACCES", "0", "",
              "the file above its limit, the line behind the others");
    support::spill(file, std::string(1048577, 'x'));
    fault::fail("stat", 1, EACCES);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file).size(), 1048577u + 4);
}

TEST_F(DumpFile, failure_to_open_is_reported_with_its_errno)
{
    fault_row("dump_file_append", "open", "ENOENT, EISDIR, EMFILE",
              "-1 and the errno", "", "nothing written, nothing closed");
    EXPECT_EQ(dump_file_append(path("/absent/dump").c_str(), "x"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(dump_file_append(runtime_dir.c_str(), "x"), -1);
    EXPECT_EQ(errno, EISDIR);
    fault::fail("open", 1, EMFILE);
    EXPECT_EQ(append("x"), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(fault::calls("write") + fault::calls("close"), 0);
}

TEST_F(DumpFile, failure_to_write_is_not_reported)
{
    fault_row("dump_file_append", "write", "ENOSPC", "0", "",
              "the line is lost, the file is closed");
    fault::fail("write", 1, ENOSPC);
    EXPECT_EQ(append("x"), 0);
    EXPECT_EQ(fault::calls("close"), 1);
    EXPECT_EQ(support::slurp(file), "");
}

TEST_F(DumpFile, short_writes_are_completed)
{
    fault_row("dump_file_append", "write", "short", "0", "", "the whole line");
    fault::shorten("write", 1, 1, fault::ALWAYS);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file), "one\n");
}

TEST_F(DumpFile, is_opened_write_only_for_appending_and_not_for_children)
{
    fault::run("write", 1, note_flags);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(seen_flags & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(seen_flags & O_APPEND, O_APPEND);
    EXPECT_EQ(seen_descriptor_flags, FD_CLOEXEC);
}

TEST_F(DumpFile, line_goes_behind_what_others_wrote_meanwhile)
{
    fault::run("write", 1, append_from_elsewhere);
    EXPECT_EQ(append("one\n"), 0);
    EXPECT_EQ(support::slurp(file), "other\none\n");
}

TEST_F(DumpFile, lines_of_many_processes_stay_whole)
{
    constexpr int PROCESSES = 8;
    constexpr int LINES = 50;
    pid_t pids[PROCESSES];

    for (int i = 0; i < PROCESSES; i++) {
        const std::string line(300, static_cast<char>('a' + i));
        pids[i] = fork();
        if (pids[i] == 0) {
            int failed = 0;
            for (int n = 0; n < LINES; n++) {
                failed |= append((line + "\n").c_str());
            }
            _exit(failed == 0 ? 0 : 1);
        }
    }
    for (const pid_t pid : pids) {
        EXPECT_EQ(support::wait_child(pid), 0);
    }
    std::map<std::string, int> count;
    for (const std::string &line : support::lines_of(file)) {
        count[line]++;
    }
    ASSERT_EQ(count.size(), static_cast<size_t>(PROCESSES));
    for (const auto &[line, times] : count) {
        EXPECT_EQ(line, std::string(300, line[0]) + "\n");
        EXPECT_EQ(times, LINES);
    }
}
