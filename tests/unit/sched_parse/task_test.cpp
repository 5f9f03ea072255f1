// Files of tasks.
#include <tests/unit/sched_parse/fixture.h>

namespace {

class TaskDefinition : public DefinitionTest {
protected:
    static std::string task(const std::string &lines = "", int id = 7, const std::string &name = "build") {
        return "Task.Begin\nTask.Id: " + std::to_string(id) + "\nTask.Name: " + name + "\nTask.Pathname: /bin/build\n" +
               lines + "Task.End\n";
    }
    static constexpr int first_own_line = 5; // of task()

    void expect_tasks(const std::string &text, uint32_t count) {
        EXPECT_EQ(read_tasks(text), TBS_ST_OK) << text;
        EXPECT_EQ(told(), "") << text;
        ASSERT_EQ(task_count, count) << text;
    }
};

TEST_F(TaskDefinition, HasIdNameAndPathname) {
    expect_tasks(
        "# tasks\n\n  task.begin\n\t# id\nTask.Id: 7 \nTask.Name: \"clean views\"\nTask.Pathname: /bin/clean it \n"
        "Task.End\n",
        1);
    EXPECT_EQ(tasks[0].task_id, 7u);
    EXPECT_STREQ(tasks[0].name, "clean views");
    EXPECT_STREQ(tasks[0].pathname, "/bin/clean it");
    EXPECT_EQ(tasks[0].ui.ui_info, nullptr);
    EXPECT_EQ(tasks[0].run_as.user, CREDUTL_NO_ID);
    EXPECT_EQ(tasks[0].run_as.group, CREDUTL_NO_ID);
    EXPECT_EQ(tasks[0].run_as.group_count, 0u);
}

TEST_F(TaskDefinition, FileWithNothingButCommentsHasNoTasks) {
    tasks = reinterpret_cast<sched_task_properties_t *>(this);
    write("# nothing\n");
    EXPECT_EQ(sched_utl_parse_task_properties(scheduler, path.c_str(), &task_count, &tasks), TBS_ST_OK);
    EXPECT_EQ(task_count, 0u);
    EXPECT_EQ(tasks, nullptr);
}

TEST_F(TaskDefinition, NeedsNoHandle) {
    write(task("", 1, "one") + task("", 2, "two"));
    EXPECT_EQ(sched_utl_parse_task_properties(nullptr, path.c_str(), &task_count, &tasks), TBS_ST_OK);
    EXPECT_EQ(task_count, 2u);
    sched_free_tasks(nullptr, task_count, &tasks);
}

TEST_F(TaskDefinition, LastUserInterfaceTextIsKept) {
    expect_tasks(task("Task.UIInfo: one\nTask.UIInfo: \"two words\"\n"), 1);
    EXPECT_STREQ(tasks[0].ui.ui_info, "two words");
}

TEST_F(TaskDefinition, FirstLinesHaveTheirOrder) {
    expect_tasks_refused("Task.Start\n", syntax_error(1, "Expected tag \"Task.Begin\"."));
    expect_tasks_refused("Task.Begin\nTask.Name: build\n", syntax_error(2, "Expected tag \"Task.Id:\"."));
    expect_tasks_refused("Task.Begin\nTask.Id: 7\nTask.Pathname: /bin/build\n",
                         syntax_error(3, "Expected tag \"Task.Name:\"."));
    expect_tasks_refused("Task.Begin\nTask.Id: 7\nTask.Name: build\n#\nTask.End\n",
                         syntax_error(5, "Expected tag \"Task.Pathname:\"."));
    expect_tasks_refused("Task.Begin\nTask.Id:7\n", syntax_error(2, "Expected tag \"Task.Id:\"."));
}

TEST_F(TaskDefinition, UnknownLineAmongTheOptionalOnesIsNamed) {
    expect_tasks_refused(task("Task.Begin\n"), syntax_error(first_own_line, "Expected tag \"Task.Begin\"."));
    expect_tasks_refused(task("Task.Id: 9\n"), syntax_error(first_own_line, "Expected tag \"Task.Id:\"."));
    expect_tasks_refused(task("Task.UIInfo: \"open\n"),
                         syntax_error(first_own_line, "Quoted string is missing a terminating quote."));
}

TEST_F(TaskDefinition, CutOffByTheEndOfTheFileIsTold) {
    const std::string text = task("Task.UIInfo: x\n");
    for (size_t size = 1; size < text.size() - 2; ++size) {
        EXPECT_EQ(read_tasks(text.substr(0, size)), TBS_ST_ERROR) << size;
        told();
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
    expect_tasks_refused("Task.Begin\nTask.Id: 7\n", syntax_error(2, "Unexpected EOF."));
    expect_tasks_refused("Task.Begin\nTask.Id: 7\nTask.Name: build\nTask.Pathname: /b\n",
                         syntax_error(4, "Unexpected EOF."));
}

TEST_F(TaskDefinition, CredentialsAreNotRead) {
    expect_tasks_refused(task("Task.RunAsCredentials: anna\n"), "NYI: Task.RunAsCredentials\n");
    expect_tasks_refused(task("Task.RunAsCredentials:\n"), "NYI: Task.RunAsCredentials\n");
}

TEST_F(TaskDefinition, IdIsANumberOtherThan0) {
    expect_tasks_refused("Task.Begin\nTask.Id: abc\n", "Not a task id string \"abc\".\n");
    expect_tasks_refused(task("Task.UIInfo: x\n", 0), syntax_error(6, "Illegal Task Id specified."));
    expect_tasks(task("", -5), 1);
    EXPECT_EQ(tasks[0].task_id, static_cast<uint32_t>(-5));
}

std::string duplicate(const std::string &what, int line) {
    return "Duplicate task " + what + " detected in task definition ending on line " + std::to_string(line) +
           ".\nIgnoring task definition.\n";
}

TEST_F(TaskDefinition, SecondTaskOfAnIdOrANameIsPassedOver) {
    EXPECT_EQ(read_tasks(task("", 1, "one") + task("", 2, "two") + task("", 1, "three") + task("", 3, "two")),
              TBS_ST_OK);
    EXPECT_EQ(told(), duplicate("id 1", 15) + duplicate("name \"two\"", 20));
    EXPECT_EQ(task_count, 2u);
    read_tasks(task("", 1, "one") + task("", 2, "two") + task("", 2, "one"));
    EXPECT_EQ(told(), duplicate("name \"one\"", 15)) << "the first task goes before the second";
    read_tasks(task("", 1, "one") + task("", 1, "one"));
    EXPECT_EQ(told(), duplicate("id 1", 10)) << "the id goes before the name";
}

TEST_F(TaskDefinition, BehindADuplicateKeepsItsUserInterfaceTextOnly) {
    EXPECT_EQ(read_tasks(task("", 1, "one") + task("Task.UIInfo: old\n", 1, "two") + task("", 3, "three") +
                         task("", 4, "four")),
              TBS_ST_OK);
    told();
    ASSERT_EQ(task_count, 3u);
    EXPECT_STREQ(tasks[1].name, "three");
    EXPECT_STREQ(tasks[1].ui.ui_info, "old");
    EXPECT_EQ(tasks[2].ui.ui_info, nullptr);
}

TEST_F(TaskDefinition, BadOneLosesTheFile) {
    expect_tasks_refused(task("", 1, "one") + task("Task.UIInfo: x\n", 2, "two") + "wrong\n",
                         syntax_error(12, "Expected tag \"Task.Begin\"."));
}

TEST_F(TaskDefinition, IsUndoneWhenAnyAllocationFails) {
    const std::string text =
        task("Task.UIInfo: x\n", 1, "one") + task("", 2, "two") + task("Task.UIInfo: y\n", 2, "two");
    tbs_status_t status = -1;
    write(text);
    const auto read = [&] { status = sched_utl_parse_task_properties(scheduler, path.c_str(), &task_count, &tasks); };
    sim::sweep_allocations(world, read, [&](int number) {
        EXPECT_TRUE(status == TBS_ST_NO_MEMORY || status == TBS_ST_OK) << number;
        EXPECT_EQ(tasks != nullptr, status == TBS_ST_OK);
        sched_free_tasks(scheduler, status == TBS_ST_OK ? task_count : 0, &tasks);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_EQ(task_count, 2u);
    told();
}

TEST_F(TaskDefinition, HoldsNothingWhenARaiseLandsAnywhere) {
    write(task("Task.UIInfo: x\n", 1, "one") + task("", 2, "two") + task("Task.UIInfo: y\n", 2, "two"));
    tbs_status_t status = -1;
    const auto read = [&] { status = sched_utl_parse_task_properties(scheduler, path.c_str(), &task_count, &tasks); };
    sim::sweep_raises(world, read, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        sched_free_tasks(scheduler, task_count, &tasks);
        task_count = 0;
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
        told();
    });
    EXPECT_EQ(status, TBS_ST_OK);
    told();
}

} // namespace
