// Rows wait in memory until their test has ended: only then is it known
// whether what they say was seen.
#include "tests/support/fault_row.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include <gtest/gtest.h>

namespace
{

// Opened before main(): a test may leave the machine's root directory, and
// compares its descriptors before and after.
int open_directory()
{
    const char *directory = getenv("TTYLINE_FAULT_ROWS");

    return directory == nullptr
               ? -1
               : open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

const int g_directory = open_directory();
// Of the running test, one line each.
std::string g_rows;

std::string escaped(const char *text)
{
    std::string out;

    for (const char *at = text; *at != '\0'; at++) {
        switch (*at) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\\':
            out += "\\\\";
            break;
        default:
            out += *at;
            break;
        }
    }
    return out;
}

class writer : public testing::EmptyTestEventListener
{
    void OnTestEnd(const testing::TestInfo &test) override
    {
        if (test.result()->Passed() && !g_rows.empty()) {
            append();
        }
        g_rows.clear();
    }

    static void append()
    {
        const std::string name = "rows." + std::to_string(getpid());
        const int fd = openat(g_directory, name.c_str(),
                              O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0 || dprintf(fd, "%s", g_rows.c_str()) < 0) {
            perror("fault_row");
            abort();
        }
        close(fd);
    }
};

} // namespace

void fault_row(const char *function, const char *call, const char *error,
               const char *caller, const char *log, const char *left)
{
    static bool listening;

    if (g_directory < 0) {
        return;
    }
    if (!listening) {
        // The framework deletes it.
        testing::UnitTest::GetInstance()->listeners().Append(new writer);
        listening = true;
    }
    const testing::TestInfo *test =
        testing::UnitTest::GetInstance()->current_test_info();
    g_rows += std::string(test->test_suite_name()) + "." + test->name();
    for (const char *field : {function, call, error, caller, log, left}) {
        g_rows += "\t" + escaped(field);
    }
    g_rows += "\n";
}
