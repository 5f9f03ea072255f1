// A main for tests of code whose state lasts as long as its process: each test runs in a child, forked from a program
// that has been loaded once, since loading it takes longer than most of the tests. What a child says is told if it
// fails. Chosen are tests by --gtest_filter; gtest's shards and order are not for this main.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <fnmatch.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

enum class Outcome { passed, skipped, failed };

constexpr int exit_of_skipped = 77;

// gtest's own notation: patterns between colons, behind the first dash those that are left out.
bool matches_one_of(const std::string &name, std::string_view patterns) {
    while (!patterns.empty()) {
        const std::string pattern(patterns.substr(0, patterns.find(':')));
        if (fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0)
            return true;
        patterns.remove_prefix(std::min(pattern.size() + 1, patterns.size()));
    }
    return false;
}

bool is_chosen(const std::string &name, const std::string &filter) {
    const size_t dash = std::min(filter.find('-'), filter.size());
    const std::string wanted = filter.substr(0, dash);
    return matches_one_of(name, wanted.empty() ? "*" : wanted) &&
           !matches_one_of(name, std::string_view(filter).substr(std::min(dash + 1, filter.size())));
}

Names chosen_tests(const std::string &filter) {
    Names names;
    const testing::UnitTest &all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite &suite = *all.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(j)->name();
            if (is_chosen(name, filter))
                names.push_back(name);
        }
    }
    return names;
}

// What tests record of what they did is shown, however they end.
void tell_properties(int fd) {
    const auto &unit = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < unit.total_test_suite_count(); ++suite)
        for (int test = 0; test < unit.GetTestSuite(suite)->total_test_count(); ++test) {
            const auto &result = *unit.GetTestSuite(suite)->GetTestInfo(test)->result();
            for (int i = 0; i < result.test_property_count(); ++i)
                dprintf(fd, "             %s: %s\n", result.GetTestProperty(i).key(),
                        result.GetTestProperty(i).value());
        }
}

[[noreturn]] void run_here(const std::string &name, FILE *words) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int shown_fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(fileno(words), STDOUT_FILENO);
    dup2(fileno(words), STDERR_FILENO);
    GTEST_FLAG_SET(filter, name);
    const int status = RUN_ALL_TESTS();
    tell_properties(shown_fd);
    const bool is_skipped = status == 0 && testing::UnitTest::GetInstance()->skipped_test_count() > 0;
    exit(is_skipped ? exit_of_skipped : status);
}

void tell(FILE *words) {
    rewind(words);
    char piece[4096];
    for (size_t bytes; (bytes = fread(piece, 1, sizeof piece, words)) > 0;)
        fwrite(piece, 1, bytes, stdout);
}

Outcome outcome_of(int status) {
    if (status == 0)
        return Outcome::passed;
    return WIFEXITED(status) && WEXITSTATUS(status) == exit_of_skipped ? Outcome::skipped : Outcome::failed;
}

const char *word_of(Outcome outcome) {
    if (outcome == Outcome::skipped)
        return "[  SKIPPED ]";
    return outcome == Outcome::passed ? "[       OK ]" : "[  FAILED  ]";
}

Outcome run_in_child(const std::string &name) {
    printf("[ RUN      ] %s\n", name.c_str());
    fflush(nullptr);
    FILE *words = tmpfile();
    const pid_t child = words != nullptr ? fork() : -1;
    if (child == 0)
        run_here(name, words);
    int status = -1;
    const bool has_ended = child > 0 && waitpid(child, &status, 0) == child;
    const Outcome outcome = has_ended ? outcome_of(status) : Outcome::failed;
    if (outcome == Outcome::failed && words != nullptr)
        tell(words);
    if (words != nullptr)
        fclose(words);
    printf("%s %s\n", word_of(outcome), name.c_str());
    if (WIFSIGNALED(status))
        printf("Its process was ended by signal %d.\n", WTERMSIG(status));
    return outcome;
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleMock(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    const Names names = chosen_tests(GTEST_FLAG_GET(filter));
    Names failed;
    size_t skipped = 0;
    for (const std::string &name : names) {
        const Outcome outcome = run_in_child(name);
        skipped += outcome == Outcome::skipped ? 1 : 0;
        if (outcome == Outcome::failed)
            failed.push_back(name);
        if (!failed.empty() && GTEST_FLAG_GET(fail_fast))
            break;
    }
    printf("%zu of %zu tests passed, each in a process of its own.\n", names.size() - failed.size() - skipped,
           names.size());
    if (skipped > 0)
        printf("%zu tests were skipped.\n", skipped);
    for (const std::string &name : failed)
        printf("[  FAILED  ] %s\n", name.c_str());
    return failed.empty() && !names.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
