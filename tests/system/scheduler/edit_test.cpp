// veliactl job edit, validate, status and list against a real daemon, and what create takes of dates and notifications.
#include <filesystem>

#include <gmock/gmock.h>
#include <unistd.h>

#include "tool_fixture.h"

using namespace velia::system_test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

struct SchedulerEdit : SchedulerTool {
    // With an editor that is a command of the stream editor.
    static Told edit(const std::string &command, const std::string &words) {
        return tool("job edit alpha " + words, "VISUAL= EDITOR=\"sed -i '" + command + "'\" ");
    }
    static size_t place(const std::string &text, const std::string &part) {
        const size_t at = text.find(part);
        EXPECT_NE(at, std::string::npos) << part << " in " << text;
        return at;
    }
};

} // namespace

TEST_F(SchedulerEdit, ChangesAJob) {
    create(NewJob("nightly"));
    const Told told = edit("s/Daily.Frequency: 1/Daily.Frequency: 3/", "nightly --output jsonl");
    EXPECT_EQ(told.status, 0);
    EXPECT_THAT(told.text, HasSubstr(R"("field":"Job.Schedule.Daily.Frequency","before":"1","after":"3")"));
    EXPECT_THAT(tool("job dump alpha nightly").text, HasSubstr("Job.Schedule.Daily.Frequency: 3\n"));
}

TEST_F(SchedulerEdit, RenamesAJob) {
    create(NewJob("nightly"));
    EXPECT_EQ(edit("s/Job.Name: .*/Job.Name: daily/", "1 --dry-run").status, 0);
    EXPECT_EQ(tool("job status alpha nightly").status, 0);
    EXPECT_EQ(edit("s/Job.Name: .*/Job.Name: daily/", "1").status, 0);
    EXPECT_THAT(json("job status alpha daily"), HasSubstr("\"id\":1"));
}

TEST_F(SchedulerEdit, KeepsWhatIsWrong) {
    create(NewJob("nightly"));
    for (const char *command : {"s/Job.Name:/Job.Nome:/", "s/Frequency: 1/Frequency: 0/", "d", "p"}) {
        const Told told = edit(command, "nightly");
        EXPECT_EQ(told.status, 1) << command;
        const size_t begin = place(told.text, "what was written is in ") + strlen("what was written is in ");
        const std::string path = told.text.substr(begin, told.text.find('\n', begin) - begin);
        EXPECT_EQ(access(path.c_str(), R_OK), 0) << path;
        std::filesystem::remove_all(std::filesystem::path(path).parent_path());
    }
    create(NewJob("other"));
    EXPECT_THAT(edit("s/nightly/other/", "nightly").text, HasSubstr("its name is another job's"));
}

TEST_F(SchedulerEdit, DoesNothingWhereTheEditorFails) {
    create(NewJob("nightly"));
    EXPECT_EQ(tool("job edit alpha nightly", "VISUAL=false ").status, 1);
    EXPECT_EQ(tool("job edit alpha none", "VISUAL=true ").status, 1);
    EXPECT_EQ(tool("job edit alpha nightly", "VISUAL=true TMPDIR=/no/such/folder ").status, 1);
    const Told unchanged = tool("job edit alpha nightly --output jsonl", "VISUAL=true ");
    EXPECT_EQ(unchanged.status, 0);
    EXPECT_THAT(unchanged.text, HasSubstr("\"action\":\"unchanged\""));
}

TEST_F(SchedulerEdit, JobsAreValidatedWithTheTasksOfTheMoment) {
    create(NewJob("good"));
    create(NewJob("bad", {}, 2));
    EXPECT_EQ(tool("job validate alpha").status, 0);
    kill_daemon();
    restart("task 1 script /bin/sh\n");
    const Told told = tool("job validate alpha --output jsonl");
    EXPECT_EQ(told.status, 1);
    EXPECT_THAT(told.text,
                AllOf(HasSubstr(R"("name":"good","is_good":"yes")"), HasSubstr(R"("name":"bad","is_good":"no")")));
    EXPECT_EQ(tool("job validate alpha good").status, 0);
    EXPECT_EQ(tool("job validate alpha none").status, 1);
}

TEST_F(SchedulerEdit, StatusAndListTellHowItStands) {
    const auto done = create(NewJob("done", {"-c", "exit 4"}).now());
    ran(done);
    const auto sleeps = create(NewJob("asleep", {"-c", "sleep 100"}));
    run(sleeps);
    EXPECT_THAT(json("job status alpha done"),
                AllOf(HasSubstr("\"state\":\"completed\""), HasSubstr("\"last_status\":4")));
    EXPECT_THAT(json("job status alpha asleep"), HasSubstr("\"state\":\"running\""));
    EXPECT_THAT(json("job list alpha"), AllOf(HasSubstr("asleep"), Not(HasSubstr("done"))));
    const std::string all = json("job list alpha --all --durations --sort name");
    EXPECT_LT(place(all, "asleep"), place(all, "done"));
    EXPECT_THAT(all, HasSubstr("\"duration_s\":"));
    for (const char *order : {"id", "last", "status", "duration"}) {
        const std::string sorted = json(std::string("job list alpha --all --sort ") + order);
        EXPECT_LT(place(sorted, "done"), place(sorted, "asleep")) << order;
    }
    const std::string next = json("job list alpha --all --sort next");
    EXPECT_LT(place(next, "asleep"), place(next, "done"));
    EXPECT_EQ(tool("job list alpha --sort colour").status, 2);
    EXPECT_EQ(tool("job stop alpha asleep").status, 0);
}

TEST_F(SchedulerEdit, CreateTakesDatesAndNotifications) {
    EXPECT_EQ(tool("job create alpha dated --task script --days 1 --start-date 2100-01-01 --last-date 2101-12-31 "
                   "--notify JobEndFail,JobDeleted=anna,ben --notify JobBegin=chris")
                  .status,
              0);
    EXPECT_THAT(tool("job dump alpha dated").text,
                AllOf(HasSubstr("StartDate: 2100-01-01\n"), HasSubstr("LastDate: 2101-12-31\n"),
                      HasSubstr("OnEvents: JobEndFail,JobDeleted\n"), HasSubstr("Recipients: anna,ben\n"),
                      HasSubstr("OnEvents: JobBegin\n"), HasSubstr("Recipients: chris\n")));
    const std::string create = "job create alpha dated --task script --days 1 ";
    for (const char *wrong : {"--start-date 2100-02-30", "--last-date tomorrow", "--notify JobEndFail",
                              "--notify JobEndFail=", "--notify =anna", "--notify JobSneezed=anna"})
        EXPECT_EQ(tool(create + wrong).status, 2) << wrong;
    EXPECT_EQ(
        tool("job create alpha early --task script --days 1 --start-date 2100-01-01 --last-date 2099-01-01").status, 1);
}

TEST_F(SchedulerEdit, TasksAreShownByNameOrNumber) {
    EXPECT_THAT(json("task show alpha script"), HasSubstr(R"("id":1,"name":"script","program":"/bin/sh")"));
    EXPECT_EQ(json("task show alpha 2"), json("task show alpha missing"));
    EXPECT_EQ(tool("task show alpha none").status, 1);
}
