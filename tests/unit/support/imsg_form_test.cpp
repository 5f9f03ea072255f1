// The forms in which messages are written: objects, priorities for a journal, and no less than is of interest.
#include <array>
#include <cstdio>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <support/imsg_form.h>

using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr const char *texts[] = {"first %s\n"};
constexpr uint16_t numbers[] = {10};
constexpr imsg_table_t table = {"rvzd_lib", "xdr/rvzd", 64, 1, texts, numbers};

struct Form : testing::Test {
    Form() { imsg_set_app_name("tool"); }
    ~Form() override { imsg_set_form(0, IMSG_TRACE); }

    template <class Body>
    static std::string errors_of(Body &&body) {
        testing::internal::CaptureStderr();
        body();
        return testing::internal::GetCapturedStderr();
    }
    static void say_all() {
        imsg_print(IMSG_ERROR, "error\n", IMSG_FORMAT);
        imsg_print(IMSG_CONTINUATION, "of error\n", IMSG_FORMAT);
        imsg_print(IMSG_WARNING, "warning\n", IMSG_FORMAT);
        imsg_print(IMSG_CONTINUATION, "of warning\n", IMSG_FORMAT);
        imsg_print(IMSG_TRACE, "trace\n", IMSG_FORMAT);
    }
    // The text of one message as an object has it.
    static std::string in_json(const std::string &text) {
        const std::string line = errors_of([&] { imsg_print(IMSG_TRACE, "%s", IMSG_FORMAT, text.c_str()); });
        const std::string before = "\"message\":";
        const auto begin = line.find(before) + before.size();
        return line.substr(begin, line.size() - begin - 2); // the brace and the newline
    }
};

} // namespace

TEST_F(Form, OfAnObjectHasTimeSeverityAndSubsystem) {
    imsg_set_form(IMSG_FORM_JSON, IMSG_TRACE);
    const std::string time = R"("time":"[0-9-]+T[0-9:]+\.[0-9]+Z")";
    EXPECT_THAT(
        errors_of([] { imsg_print(IMSG_ERROR, &table, 0, "e"); }),
        MatchesRegex("\\{" + time + R"(,"severity":"error","subsystem":"xdr/rvzd","message":"first e")" + "\\}\n"));
    EXPECT_THAT(errors_of([] { imsg_print(IMSG_WARNING, "two\nlines\n", IMSG_FORMAT); }),
                MatchesRegex("\\{" + time + R"(,"severity":"warning","message":"two\\u000alines")" + "\\}\n"));
    EXPECT_THAT(errors_of([] { imsg_print(IMSG_TRACE, "t", IMSG_FORMAT); }), HasSubstr(R"("severity":"trace")"));
    testing::internal::CaptureStdout();
    imsg_print(IMSG_PLAIN, "plain\n", IMSG_FORMAT);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(R"("severity":"info","message":"plain"})"));
}

TEST_F(Form, OfAnObjectIsJsonWhateverTheTextHolds) {
    imsg_set_form(IMSG_FORM_JSON, IMSG_TRACE);
    EXPECT_EQ(in_json("q\"b\\t\tbell\x07 del\x7f"), R"("q\"b\\t\u0009bell\u0007 del\u007f")");
    EXPECT_EQ(in_json("\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "\"\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
    for (const char *none : {"\x80", "\xc0", "\xc1", "\xe2\x82", "\xf5", "\xff", "\xc3"})
        EXPECT_THAT(in_json(none), testing::StartsWith("\"\\ufffd")) << none;
    EXPECT_EQ(in_json("\xc3x"), "\"\\ufffdx\"");
    for (const char *overlong : {"\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80", "\xf4\x90\x80\x80"})
        EXPECT_THAT(in_json(overlong), testing::StartsWith("\"\\ufffd\\ufffd\\ufffd")) << overlong;
    EXPECT_EQ(in_json(std::string(5000, 'x')), "\"" + std::string(5000, 'x') + "\"");
    EXPECT_EQ(in_json(""), "\"\"");
}

TEST_F(Form, WithPrioritiesHeadsEachLine) {
    imsg_set_form(IMSG_FORM_PRIORITIES, IMSG_TRACE);
    EXPECT_EQ(errors_of([] {
                  imsg_print(IMSG_ERROR, "one\ntwo\n", IMSG_FORMAT);
                  imsg_print(IMSG_WARNING, "three\n", IMSG_FORMAT);
                  imsg_print(IMSG_TRACE, "four, ", IMSG_FORMAT);
                  imsg_print(IMSG_TRACE, "goes on\n", IMSG_FORMAT);
              }),
              "<3>tool: Error: one\n<3>two\n<4>tool: Warning: three\n<7>four, goes on\n");
    testing::internal::CaptureStdout();
    imsg_print(IMSG_PLAIN, "plain\n", IMSG_FORMAT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "<6>plain\n");
    imsg_set_form(IMSG_FORM_PRIORITIES | IMSG_FORM_JSON, IMSG_TRACE);
    EXPECT_THAT(errors_of([] { imsg_print(IMSG_ERROR, "e\n", IMSG_FORMAT); }), testing::StartsWith("<3>{\"time\":"));
}

// A log file is read by nobody who knows priorities.
TEST_F(Form, OfALogFileHasNoPriorities) {
    std::string path = testing::TempDir() + "/velia-log-XXXXXX";
    close(mkstemp(path.data()));
    const pid_t child = fork(); // a log that was begun is not given up
    if (child == 0) {
        const int status = imsg_init_daemon(path.c_str());
        imsg_set_form(IMSG_FORM_PRIORITIES, IMSG_TRACE);
        imsg_print(IMSG_ERROR, "one\n", IMSG_FORMAT);
        imsg_set_form(IMSG_FORM_PRIORITIES | IMSG_FORM_JSON, IMSG_TRACE);
        imsg_print(IMSG_ERROR, "two\n", IMSG_FORMAT);
        _exit(status);
    }
    int status = 1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    std::array<char, 4096> text = {};
    FILE *file = fopen(path.c_str(), "r");
    ASSERT_GT(fread(text.data(), 1, text.size() - 1, file), 0u);
    fclose(file);
    unlink(path.c_str());
    EXPECT_THAT(text.data(), MatchesRegex("[0-9T:.Z-]+ tool: Error: one\n\\{\"time\":.*\"two\"\\}\n"));
}

TEST_F(Form, LeavesOutWhatIsOfLessInterestWithWhatGoesOnWithIt) {
    imsg_set_form(0, IMSG_ERROR);
    EXPECT_EQ(errors_of(say_all), "tool: Error: error\nof error\n");
    imsg_set_form(0, IMSG_WARNING);
    EXPECT_EQ(errors_of(say_all), "tool: Error: error\nof error\ntool: Warning: warning\nof warning\n");
    imsg_set_form(0, IMSG_PLAIN);
    EXPECT_THAT(errors_of(say_all), testing::Not(HasSubstr("trace")));
    imsg_set_form(0, IMSG_TRACE);
    EXPECT_THAT(errors_of(say_all), HasSubstr("trace\n"));
    testing::internal::CaptureStdout();
    imsg_set_form(0, IMSG_WARNING);
    imsg_print(IMSG_PLAIN, "plain\n", IMSG_FORMAT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
