// The main function of every test program. With RM_CASES_APART in the environment each case runs in
// a child of its own, as it does where the runner starts the program once a case, but the program
// is started and, where something translates it, translated once only: for valgrind and the
// sanitizers, where a start takes longer than most cases.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fnmatch.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
// True when one of the patterns, with colons between them, matches.
bool isOneOf(const std::string& name, const std::string& patterns)
{
    std::size_t begin = 0;
    while (begin <= patterns.size()) {
        const std::size_t end = std::min(patterns.find(':', begin), patterns.size());
        if (fnmatch(patterns.substr(begin, end - begin).c_str(), name.c_str(), 0) == 0) {
            return true;
        }
        begin = end + 1;
    }
    return false;
}

// As the runner understands --gtest_filter: patterns, and behind a minus those that are left out.
bool isWanted(const std::string& name, const std::string& filter)
{
    const std::size_t minus = std::min(filter.find('-'), filter.size());
    const std::string wanted = minus == 0 ? "*" : filter.substr(0, minus);
    return isOneOf(name, wanted) &&
           (minus == filter.size() || !isOneOf(name, filter.substr(minus + 1)));
}

// In the child: the case, with its output in `output`.
[[noreturn]] void runOne(const std::string& name, FILE* output)
{
    dup2(fileno(output), STDOUT_FILENO);
    dup2(fileno(output), STDERR_FILENO);
    std::fclose(output);
    GTEST_FLAG_SET(filter, name);
    std::exit(RUN_ALL_TESTS());
}

void show(FILE* output)
{
    std::rewind(output);
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) {
        std::putchar(c);
    }
}

// True when the case has passed; else its output is shown, and how to run it alone.
bool passes(const char* path, const std::string& name)
{
    FILE* output = std::tmpfile();
    if (output == nullptr) {
        std::perror("tmpfile");
        return false;
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        runOne(name, output);
    }
    int status = -1;
    const bool ended = child > 0 && waitpid(child, &status, 0) == child;
    const bool passed = ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!passed) {
        show(output);
        std::printf("*** failed, %s %d: %s --gtest_filter=%s\n",
                    WIFSIGNALED(status) ? "signal" : "exit status",
                    WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status), path,
                    name.c_str());
    }
    std::fclose(output);
    return passed;
}

int runApart(const char* path)
{
    const std::string filter = GTEST_FLAG_GET(filter);
    const testing::UnitTest& program = *testing::UnitTest::GetInstance();
    int cases = 0;
    int failed = 0;
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const std::string name = std::string(suite.name()) + '.' + suite.GetTestInfo(j)->name();
            if (isWanted(name, filter)) {
                ++cases;
                failed += passes(path, name) ? 0 : 1;
            }
        }
    }
    std::printf("%d of %d cases failed\n", failed, cases);
    return failed == 0 && cases > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    return std::getenv("RM_CASES_APART") != nullptr ? runApart(argv[0]) : RUN_ALL_TESTS();
}
