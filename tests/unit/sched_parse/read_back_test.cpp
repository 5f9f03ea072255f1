// What the printers write and the grammars read: real jobs and tasks are printed, read, and compared.
#include <tests/unit/sched/job.h>
#include <tests/unit/sched_parse/fixture.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_print.h>

namespace {

constexpr int generated_jobs = 400;

class ReadBack : public DefinitionTest {
protected:
    ReadBack() {
        answer_task("build all");
        uint32_t id = 7;
        answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &id});
        printed.rw = source.rw;
        printed.ro.job_id = 17;
    }
    // Texts that the printers make once and keep.
    ~ReadBack() override {
        EXPECT_LE(world.live_blocks(), before.blocks + 8 + blocks_of_results());
        before.blocks = world.live_blocks() - blocks_of_results();
    }
    size_t blocks_of_results() {
        const size_t with_results = world.live_blocks();
        sched_free_jobs(scheduler, job_count, &jobs);
        sched_utl_free_extra_job_infos(scheduler, job_count, &followed);
        sched_free_tasks(scheduler, task_count, &tasks);
        job_count = task_count = 0;
        return with_results - world.live_blocks();
    }

    void answer_task(const char *name, tbs_status_t status = TBS_ST_OK) {
        answer(row::sched_task_id_to_name, sched_task_name_reply_t{status, 0, const_cast<char *>(name)});
    }
    void answer_followed(const char *name, tbs_status_t status = TBS_ST_OK) {
        sched_job_handle handle = {9};
        sched_job_h_t job = &handle;
        answer(row::sched_job_lookup_by_id, sched_job_reply_t{status, status == TBS_ST_OK ? &job : nullptr});
        sched_job_properties_t properties = {};
        properties.rw.name = const_cast<char *>(name);
        properties.rw.schedule.kind = SCHED_KIND_DAILY;
        answer(row::sched_job_get_properties, sched_properties_reply_t{TBS_ST_OK, &properties});
    }

    static std::string text_of(const std::vector<sim::Message> &messages) {
        std::string text;
        for (const auto &each : messages)
            text += each.text;
        return text;
    }
    std::string print(sched_job_properties_t &job) {
        world.take_messages();
        sched_utl_print_job_props(scheduler, &job);
        return text_of(world.take_messages());
    }

    // Prints and reads; the job that came of it, or none.
    const sched_job_properties_t *read_again() {
        text = print(printed);
        EXPECT_EQ(read_jobs(text), TBS_ST_OK) << text;
        EXPECT_EQ(told(), "");
        return job_count == 1 ? &jobs[0] : nullptr;
    }
    void expect_same() {
        const auto *again = read_again();
        ASSERT_NE(again, nullptr);
        tbs_boolean_t is_equal = 0;
        sched_utl_equal_job_rw_properties(scheduler, &printed.rw, &jobs[0].rw, &is_equal);
        EXPECT_TRUE(is_equal) << text;
    }
    int line_of(const std::string &tag) const {
        const auto at = text.find(tag);
        return at == std::string::npos
                   ? -1
                   : 1 + static_cast<int>(std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(at), '\n'));
    }
    void expect_printed_refused(const std::string &tag, const std::string &problem) {
        text = print(printed);
        ASSERT_GT(line_of(tag), 0) << text;
        expect_refused_but_for_kept_texts(syntax_error(line_of(tag), problem));
    }
    void expect_refused_but_for_kept_texts(const std::string &words, tbs_status_t status = TBS_ST_ERROR) {
        EXPECT_EQ(read_jobs(text), status) << text;
        EXPECT_EQ(told(), words + bad_jobs) << text;
    }

    Job source;
    sched_job_properties_t printed = {};
    std::string text;
};

TEST_F(ReadBack, IdIsACommentAndLost) {
    EXPECT_EQ(read_again()->ro.job_id, 0u);
}

TEST_F(ReadBack, NameIsTheSameWithAndWithoutBlanks) {
    for (const char *name : {"nightly", "by night", "by\tnight", "a \"b\" c", "#1", "Job.End"}) {
        printed.rw.name = const_cast<char *>(name);
        EXPECT_STREQ(read_again()->rw.name, name);
    }
}

TEST_F(ReadBack, DescriptionIsTheSameAndItsLastLineGetsAnEnd) {
    printed.rw.description = Job::text("one\n\n  # two\n");
    EXPECT_STREQ(read_again()->rw.description, "one\n\n  # two\n");
    printed.rw.description = Job::text("one\ntwo");
    EXPECT_STREQ(read_again()->rw.description, "one\ntwo\n");
}

TEST_F(ReadBack, FollowedJobComesBackByItsName) {
    source.set_sequential(9);
    printed.rw.schedule = source.rw.schedule;
    answer_followed("the first");
    EXPECT_EQ(read_again()->rw.schedule.u.sequential.follows_job, 0u);
    EXPECT_STREQ(followed[0], "the first");
}

TEST_F(ReadBack, FollowedJobWhoseNameIsNotFoundIsNoSchedule) {
    source.set_sequential(9);
    printed.rw.schedule = source.rw.schedule;
    answer_followed("", TBS_ST_NOT_FOUND);
    text = print(printed);
    // The comment is passed over, and nothing else tells of a schedule.
    expect_refused_but_for_kept_texts("Illegal schedule kind specification \"0\".\n", TBS_ST_INVALID_ARG);
}

TEST_F(ReadBack, FollowedJobWithAnEmptyNameIsTakenWithout) {
    source.set_sequential(9);
    printed.rw.schedule = source.rw.schedule;
    answer_followed("");
    EXPECT_EQ(read_again()->rw.schedule.kind, SCHED_KIND_SEQUENTIAL);
    EXPECT_EQ(followed[0], nullptr);
}

TEST_F(ReadBack, TaskComesBackByItsName) {
    EXPECT_EQ(read_again()->rw.task, 7u);
    EXPECT_EQ(count(row::sched_task_name_to_id), 1u);
}

TEST_F(ReadBack, TaskWhoseNameIsNotFoundFailsTheChecks) {
    answer_task("", TBS_ST_NOT_FOUND);
    text = print(printed);
    expect_refused_but_for_kept_texts("\"nil\" task id.\n", TBS_ST_INVALID_ARG);
}

TEST_F(ReadBack, LimitOfTheRunTimeIsRefused) {
    printed.rw.run_control.max_run_time = 60;
    expect_printed_refused("Job.RunControl.", "Expected tag \"Job.RunControl.MaxRunTime:\".");
}

TEST_F(ReadBack, StartDateOfNowComesBack) {
    EXPECT_EQ(read_again()->rw.schedule.u.daily.common.lifetime.start_date, SCHED_DATE_NOW);
    EXPECT_NE(text.find("Job.Schedule.StartDate: <now>\n"), std::string::npos);
}

TEST_F(ReadBack, StartTimeThatIsNotGivenIsRefused) {
    printed.rw.schedule.u.daily.common.start_times.first_start_time = SCHED_TIME_NOT_GIVEN;
    expect_printed_refused("Job.Schedule.FirstStartTime:", "Illegal Hours-Minutes-Seconds specifier \" 00:00:-1\".");
}

TEST_F(ReadBack, RunThatHasNotEndedIsRefused) {
    printed.ro.last_completion = {Job::text("4"), 100, 0, 0, nullptr};
    text = print(printed);
    expect_refused_but_for_kept_texts(
        syntax_error(line_of("Job.End\n"), "Expected tag \"Job.LastCompletionInfo.Ended:\"."));
}

TEST_F(ReadBack, RunThatHasEndedIsIgnored) {
    printed.ro.last_completion = {Job::text("4"), 100, 200, 0, Job::text("done\nJob.End\n")};
    EXPECT_EQ(read_again()->ro.last_completion.started, 0);
    printed.ro.last_completion.messages = nullptr;
    EXPECT_EQ(read_again()->ro.last_completion.ended, 0);
}

TEST_F(ReadBack, WhoWhenAndWhereAreIgnored) {
    printed.ro.created = printed.ro.last_modified = {Job::text("anna"), nullptr, Job::text("alpha"), 86400};
    printed.ro.next_run_time = 86400;
    printed.ro.running_status = {Job::text("12"), 86400};
    EXPECT_EQ(read_again()->ro.next_run_time, 0);
    EXPECT_EQ(jobs[0].ro.created.who, nullptr);
}

TEST_F(ReadBack, PredefinedComesBack) {
    printed.ro.predefined = 1;
    EXPECT_TRUE(read_again()->ro.predefined);
}

TEST_F(ReadBack, ArgumentsComeBackWhateverTheyHold) {
    char *args[] = {Job::text("-all"), Job::text("two words"), Job::text(""), Job::text("a\"b'c\\d"), Job::text("#")};
    printed.rw.args = args;
    printed.rw.arg_count = std::size(args);
    expect_same();
}

TEST_F(ReadBack, NotificationsComeBack) {
    source.add_notifications();
    printed.rw = source.rw;
    expect_same();
}

TEST_F(ReadBack, SchedulesOfEveryKindComeBack) {
    source.set_weekly();
    printed.rw.schedule = source.rw.schedule;
    expect_same();
    source.set_monthly_day(31);
    printed.rw.schedule = source.rw.schedule;
    expect_same();
    source.set_monthly_kind(5, 10);
    printed.rw.schedule = source.rw.schedule;
    expect_same();
    source.set_daily(400).lifetime = {86400, 2 * 86400};
    printed.rw.schedule = source.rw.schedule;
    expect_same();
}

// A time of 86400 passes the checks, and no clock shows it.
TEST_F(ReadBack, EndOfTheDayAsATimeIsRefused) {
    printed.rw.schedule.u.daily.common.start_times = {3600, 86400, 600};
    expect_printed_refused("Job.Schedule.LastStartTime:", "Illegal Hours-Minutes-Seconds specifier \" 24:00:00\".");
}

// Without a restart the last start is not printed, and comes back as the default.
TEST_F(ReadBack, LastStartIsTheDefaultWhereThereIsNoRestart) {
    printed.rw.schedule.u.daily.common.start_times = {3600, 7200, 0};
    EXPECT_EQ(read_again()->rw.schedule.u.daily.common.start_times.last_start_time, 86399u);
}

// Jobs that the table of what is read back has no exception for.
class Generated : public ReadBack {
protected:
    std::string words(size_t longest) {
        static constexpr char letters[] = "abcxyz019_-./@ \t\"'\\#:";
        std::string made(1, 'w');
        for (size_t i = sampler.number(longest); i > 0; --i)
            made += letters[sampler.number(sizeof letters - 2)];
        return made + 'w';
    }
    char *kept(std::string made) {
        texts.push_back(std::move(made));
        return texts.back().data();
    }
    uint32_t day_time() { return static_cast<uint32_t>(sampler.number(86399)); }

    sched_common_sched_t common() {
        const uint32_t first = day_time();
        const uint32_t restart = sampler.coin() ? 1 + day_time() % 86399 : 0;
        const uint32_t last = restart != 0 ? first + static_cast<uint32_t>(sampler.number(86399 - first)) : 86399;
        const time_t start =
            sampler.coin() ? time_t{SCHED_DATE_NOW} : static_cast<time_t>(86400 * (1 + sampler.number(20000)));
        const time_t end = sampler.coin() ? 0 : static_cast<time_t>(86400 * (20001 + sampler.number(20000)));
        return {{start, end}, {first, last == 0 ? 86399 : last, restart}};
    }
    sched_schedule_t schedule() {
        sched_schedule_t made = {};
        made.kind = static_cast<int32_t>(SCHED_KIND_MONTHLY + sampler.number(2));
        made.u.daily.common = common();
        const auto frequency = static_cast<int32_t>(1 + sampler.number(1000));
        if (made.kind == SCHED_KIND_DAILY)
            made.u.daily.frequency = frequency;
        if (made.kind == SCHED_KIND_WEEKLY) {
            made.u.weekly.frequency = frequency;
            made.u.weekly.days = static_cast<uint32_t>(1 + sampler.number(0x7E));
        }
        if (made.kind == SCHED_KIND_MONTHLY)
            set_day(made.u.monthly, frequency);
        return made;
    }
    void set_day(sched_monthly_sched_t &monthly, int32_t frequency) {
        monthly.frequency = frequency;
        monthly.day_spec_kind = sampler.coin() ? SCHED_MONTHLY_DAY_NUMBER : SCHED_MONTHLY_DAY_KIND;
        if (monthly.day_spec_kind == SCHED_MONTHLY_DAY_NUMBER)
            monthly.day.number = static_cast<uint32_t>(1 + sampler.number(30));
        else
            monthly.day.kind = {static_cast<int32_t>(1 + sampler.number(4)),
                                static_cast<int32_t>(1 + sampler.number(9))};
    }
    void generate() {
        sched_job_rw_properties_t &rw = printed.rw;
        rw = {};
        rw.name = kept(words(60));
        rw.description = sampler.coin() ? kept(words(100) + "\n" + words(100) + "\n") : nullptr;
        rw.schedule = schedule();
        rw.task = 7;
        rw.delete_when_completed = sampler.coin();
        rw.arg_count = static_cast<uint32_t>(sampler.number(4));
        for (uint32_t i = 0; i < rw.arg_count; ++i)
            args[i] = kept(words(30));
        rw.args = args;
        rw.notify_count = static_cast<uint32_t>(sampler.number(3));
        for (uint32_t i = 0; i < rw.notify_count; ++i)
            notifications[i] = notification(i);
        rw.notify = notifications;
    }
    sched_notify_info_t notification(uint32_t number) {
        const auto recipient_count = static_cast<int32_t>(sampler.number(3));
        for (int32_t i = 0; i < recipient_count; ++i)
            recipients[number][i] = kept("r" + std::to_string(sampler.number(1000)) + "@example.com");
        return {static_cast<uint32_t>(1 + sampler.number(0x3FE)), 1, recipient_count, recipients[number]};
    }

    std::deque<std::string> texts;
    char *args[4] = {};
    char *recipients[3][3] = {};
    sched_notify_info_t notifications[3] = {};
};

TEST_F(Generated, JobsComeBackAndPrintTheSameAgain) {
    for (int i = 0; i < generated_jobs; ++i) {
        generate();
        expect_same();
        ASSERT_EQ(job_count, 1u) << text;
        jobs[0].ro.job_id = printed.ro.job_id; // a comment
        ASSERT_EQ(print(jobs[0]), text);
    }
}

TEST_F(Generated, DefinitionsWithChangesDoNoHarm) {
    for (int i = 0; i < generated_jobs; ++i) {
        generate();
        std::string changed = print(printed);
        for (uint64_t changes = 1 + sampler.number(5); changes > 0; --changes) {
            const size_t place = sampler.number(changed.size() - 1);
            switch (sampler.number(2)) {
            case 0:
                changed[place] = static_cast<char>(sampler.number(255));
                break;
            case 1:
                changed.erase(place, 1 + sampler.number(40));
                break;
            default:
                changed.insert(place, changed.substr(sampler.number(changed.size() - 1), 1 + sampler.number(80)));
            }
        }
        const tbs_status_t status = read_jobs(changed);
        EXPECT_EQ(status == TBS_ST_OK, told().find(bad_jobs) == std::string::npos) << changed;
    }
}

// ---- tasks ----

TEST_F(ReadBack, TasksComeBackUnlessTheyHaveCredentials) {
    sched_task_properties_t task = {};
    task.task_id = static_cast<uint32_t>(-5);
    task.name = Job::text("clean \"all\" views");
    task.pathname = Job::text("/usr/lib/clean views");
    task.ui.ui_info = Job::text("x=1, y=2 ");
    task.run_as.user = CREDUTL_NO_ID;
    world.take_messages();
    sched_utl_print_task_properties(&task);
    ASSERT_EQ(read_tasks(text_of(world.take_messages())), TBS_ST_OK);
    ASSERT_EQ(task_count, 1u);
    EXPECT_EQ(tasks[0].task_id, static_cast<uint32_t>(-5)) << "printed without a sign, and read with one";
    EXPECT_STREQ(tasks[0].name, task.name);
    EXPECT_STREQ(tasks[0].pathname, task.pathname);
    EXPECT_STREQ(tasks[0].ui.ui_info, task.ui.ui_info);
    task.run_as.user = 1000;
    sched_utl_print_task_properties(&task);
    EXPECT_EQ(read_tasks(text_of(world.take_messages())), TBS_ST_ERROR);
    EXPECT_EQ(told(), "NYI: Task.RunAsCredentials\n" + bad_tasks);
}

} // namespace
