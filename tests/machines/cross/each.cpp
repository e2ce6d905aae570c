// Runs each test of a program in a forked process of its own: the libraries
// keep state per process, and to start a program in an emulator takes longer
// than most tests do.
//
//     PROGRAM [gtest options]          as any test program
//     PROGRAM LEFT_OUT                 every test; says how each ended. Those
//                                      that the file names, a line each, are to
//                                      fail.
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/wait.h"

// For a machine that has more to do than this.
constexpr int TEST_MILLISECONDS = 120000;

static std::set<std::string> read_names(const char *path)
{
    std::set<std::string> names;
    std::ifstream file(path);

    if (!file.is_open()) {
        perror(path);
        exit(2);
    }
    for (std::string line; std::getline(file, line);) {
        names.insert(line);
    }
    return names;
}

// A test that skips itself has not passed.
[[noreturn]] static void become(const std::string &name, int output)
{
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    GTEST_FLAG_SET(filter, name);
    const int result = RUN_ALL_TESTS();
    const bool passed =
        result == 0 &&
        testing::UnitTest::GetInstance()->successful_test_count() == 1;
    exit(passed ? 0 : 1);
}

static void show(FILE *output)
{
    char text[4096];
    size_t length;

    rewind(output);
    while ((length = fread(text, 1, sizeof text, output)) > 0) {
        fwrite(text, 1, length, stdout);
    }
}

static void report(const std::string &name, int status, bool left_out,
                   FILE *output)
{
    if (left_out && status != 0) {
        printf("left out %s\n", name.c_str());
    } else if (left_out) {
        printf("failed %s, as it holds and is left out\n", name.c_str());
    } else if (status == 0) {
        printf("passed %s\n", name.c_str());
    } else {
        printf("failed %s (status %d)\n", name.c_str(), status);
        show(output);
    }
}

static void run(const std::string &name, bool left_out)
{
    FILE *output = tmpfile();

    if (output == nullptr) {
        perror("tmpfile");
        exit(2);
    }
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        become(name, fileno(output));
    }
    report(name, support::wait_child(pid, TEST_MILLISECONDS), left_out, output);
    fclose(output);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc != 2) {
        return RUN_ALL_TESTS();
    }
    const std::set<std::string> left_out = read_names(argv[1]);
    const testing::UnitTest *all = testing::UnitTest::GetInstance();
    for (int i = 0; i < all->total_test_suite_count(); i++) {
        const testing::TestSuite *suite = all->GetTestSuite(i);
        for (int j = 0; j < suite->total_test_count(); j++) {
            const std::string name = std::string(suite->name()) + "." +
                                     suite->GetTestInfo(j)->name();
            run(name, left_out.count(name) != 0);
        }
    }
    return 0;
}
