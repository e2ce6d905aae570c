// Runs each test of a program in a forked process of its own: the libraries
// keep state per process, and to start a program in an emulator takes longer
// than most tests do.
//
//     PROGRAM [gtest options]          as any test program
//     PROGRAM --each                   every test; says how each ended. Those
//                                      that cannot hold here (see
//                                      tests/support/machine.h) are to fail.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/wait.h"

// For a machine that has more to do than this.
constexpr int TEST_MILLISECONDS = 120000;

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

static std::string slurp(FILE *output)
{
    std::string text;
    char part[4096];
    size_t length;

    rewind(output);
    while ((length = fread(part, 1, sizeof part, output)) > 0) {
        text.append(part, length);
    }
    return text;
}

static void report(const std::string &name, int status,
                   const std::string &output)
{
    const bool left_out = output.find("\ncannot hold here: ") != output.npos;

    if (left_out && status != 0) {
        printf("left out %s\n", name.c_str());
    } else if (left_out) {
        printf("failed %s, as it holds and is left out\n", name.c_str());
    } else if (status == 0) {
        printf("passed %s\n", name.c_str());
    } else {
        printf("failed %s (status %d)\n", name.c_str(), status);
        fwrite(output.data(), 1, output.size(), stdout);
    }
}

static void run(const std::string &name)
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
    const int status = support::wait_child(pid, TEST_MILLISECONDS);
    report(name, status, slurp(output));
    fclose(output);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc != 2 || strcmp(argv[1], "--each") != 0) {
        return RUN_ALL_TESTS();
    }
    setenv("TTYLINE_MACHINE", "emulator", 1);
    const testing::UnitTest *all = testing::UnitTest::GetInstance();
    for (int i = 0; i < all->total_test_suite_count(); i++) {
        const testing::TestSuite *suite = all->GetTestSuite(i);
        for (int j = 0; j < suite->total_test_count(); j++) {
            run(std::string(suite->name()) + "." +
                suite->GetTestInfo(j)->name());
        }
    }
    return 0;
}
