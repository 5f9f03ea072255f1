// The schedule of a definition: its kinds, the lines that they share, and their order.
#include <tests/unit/sched_parse/fixture.h>

namespace {

constexpr uint32_t last_second = 86399;

class DefinitionSchedule : public DefinitionTest {
protected:
    // One job with that schedule.
    sched_schedule_t read(const std::string &lines) {
        expect_read(job_with_schedule(lines));
        return job_count == 1 ? jobs[0].rw.schedule : sched_schedule_t{};
    }
    sched_common_sched_t common(const std::string &lines) {
        return read("Job.Schedule.Daily.Frequency: 1\n" + lines).u.daily.common;
    }
    void expect_schedule_refused(const std::string &lines, int line, const std::string &problem) {
        expect_refused(job_with_schedule(lines), syntax_error(first_schedule_line + line, problem));
    }
    int32_t daily_frequency(const std::string &value) {
        return read("Job.Schedule.Daily.Frequency:" + value + "\n").u.daily.frequency;
    }
    sched_monthly_sched_t monthly(const std::string &day) {
        return read("Job.Schedule.Monthly.Frequency: 3\nJob.Schedule.Monthly.Day:" + day + "\n").u.monthly;
    }
};

TEST_F(DefinitionSchedule, HasADefaultForEveryCommonLine) {
    const auto schedule = read("Job.Schedule.Daily.Frequency: 5\n");
    EXPECT_EQ(schedule.kind, SCHED_KIND_DAILY);
    EXPECT_EQ(schedule.u.daily.frequency, 5);
    EXPECT_EQ(schedule.u.daily.common.lifetime.start_date, SCHED_DATE_NOW);
    EXPECT_EQ(schedule.u.daily.common.lifetime.last_date, 0);
    EXPECT_EQ(schedule.u.daily.common.start_times.first_start_time, SCHED_TIME_NOT_GIVEN);
    EXPECT_EQ(schedule.u.daily.common.start_times.restart_frequency, 0u);
    EXPECT_EQ(schedule.u.daily.common.start_times.last_start_time, last_second);
}

TEST_F(DefinitionSchedule, TakesAllCommonLinesInTheirOrder) {
    const auto common_lines = common("Job.Schedule.StartDate: 2026-01-02\n"
                                     "# between\n"
                                     "Job.Schedule.LastDate: 2026-01-03\n"
                                     "Job.Schedule.FirstStartTime: 01:02:03\n"
                                     "Job.Schedule.StartTimeRestartFrequency: 00:10:00\n"
                                     "Job.Schedule.LastStartTime: 23:59:58\n");
    EXPECT_EQ(common_lines.lifetime.start_date, 1767312000);
    EXPECT_EQ(common_lines.lifetime.last_date, 1767312000 + 86400);
    EXPECT_EQ(common_lines.start_times.first_start_time, 3723u);
    EXPECT_EQ(common_lines.start_times.restart_frequency, 600u);
    EXPECT_EQ(common_lines.start_times.last_start_time, last_second - 1);
}

TEST_F(DefinitionSchedule, EachCommonLineMayBeLeftOut) {
    const std::string lines[] = {
        "Job.Schedule.StartDate: 2026-01-02\n",    "Job.Schedule.LastDate: 2026-01-03\n",
        "Job.Schedule.FirstStartTime: 01:02:03\n", "Job.Schedule.StartTimeRestartFrequency: 00:10:00\n",
        "Job.Schedule.LastStartTime: 23:59:58\n",
    };
    for (unsigned chosen = 0; chosen < 32; ++chosen) {
        std::string text;
        for (unsigned i = 0; i < 5; ++i)
            if ((chosen & (1u << i)) != 0)
                text += lines[i];
        const auto read_lines = common(text);
        EXPECT_EQ(read_lines.lifetime.start_date != SCHED_DATE_NOW, (chosen & 1) != 0);
        EXPECT_EQ(read_lines.lifetime.last_date != 0, (chosen & 2) != 0);
        EXPECT_EQ(read_lines.start_times.first_start_time != SCHED_TIME_NOT_GIVEN, (chosen & 4) != 0);
        EXPECT_EQ(read_lines.start_times.restart_frequency != 0, (chosen & 8) != 0);
        EXPECT_EQ(read_lines.start_times.last_start_time != last_second, (chosen & 16) != 0);
    }
}

TEST_F(DefinitionSchedule, CommonLineOutOfItsOrderEndsTheSchedule) {
    expect_schedule_refused("Job.Schedule.Daily.Frequency: 1\nJob.Schedule.LastDate: 2026-01-03\n"
                            "Job.Schedule.StartDate: 2026-01-02\n",
                            2, "Schedule already specified.");
    expect_schedule_refused("Job.Schedule.Daily.Frequency: 1\nJob.Schedule.LastStartTime: 01:00:00\n"
                            "Job.Schedule.FirstStartTime: 00:00:00\n",
                            2, "Schedule already specified.");
    expect_schedule_refused("Job.Schedule.Daily.Frequency: 1\nJob.Schedule.StartDate: <now>\n"
                            "Job.Schedule.StartDate: <now>\n",
                            2, "Schedule already specified.");
}

TEST_F(DefinitionSchedule, CommonLineAheadOfItsKindIsRefused) {
    expect_schedule_refused("Job.Schedule.StartDate: 2026-01-02\nJob.Schedule.Daily.Frequency: 1\n", 0,
                            "Expected tag \"Job.Schedule.StartDate:\".");
    expect_schedule_refused("Job.Schedule.Yearly.Frequency: 1\n", 0,
                            "Expected tag \"Job.Schedule.Yearly.Frequency:\".");
}

TEST_F(DefinitionSchedule, CommonTagIsAWholeWord) {
    expect_schedule_refused("Job.Schedule.Daily.Frequency: 1\nJob.Schedule.StartDate:2026-01-02\n", 1,
                            "Schedule already specified.");
}

TEST_F(DefinitionSchedule, OfASecondKindIsRefused) {
    expect_schedule_refused("Job.Schedule.Daily.Frequency: 1\nJob.Schedule.Daily.Frequency: 1\n", 1,
                            "Schedule already specified.");
    expect_schedule_refused("Job.Schedule.Sequential.FollowsJob: 3\nJob.Schedule.Weekly.Frequency: 1\n", 1,
                            "Schedule already specified.");
}

TEST_F(DefinitionSchedule, IsRequired) {
    EXPECT_EQ(read_jobs(job_with_schedule("")), TBS_ST_INVALID_ARG);
    EXPECT_EQ(told(), "Illegal schedule kind specification \"0\".\n" + bad_jobs);
}

TEST_F(DefinitionSchedule, LinesOfAKindHaveTheirOrder) {
    expect_schedule_refused("Job.Schedule.Monthly.Day: 3\n", 0, "Expected tag \"Job.Schedule.Monthly.Frequency:\".");
    expect_schedule_refused("Job.Schedule.Monthly.Frequency: 3\nJob.Task: 7\n", 1,
                            "Expected tag \"Job.Schedule.Monthly.Day:\".");
    expect_schedule_refused("Job.Schedule.Weekly.Days: Mon\n", 0, "Expected tag \"Job.Schedule.Weekly.Frequency:\".");
    expect_schedule_refused("Job.Schedule.Weekly.Frequency: 3\n# here\nJob.Schedule.Monthly.Day: 3\n", 2,
                            "Expected tag \"Job.Schedule.Weekly.Days:\".");
    expect_schedule_refused("Job.Schedule.Daily.Days: 3\n", 0, "Expected tag \"Job.Schedule.Daily.Frequency:\".");
    expect_schedule_refused("Job.Schedule.Sequential.Follows: 3\n", 0,
                            "Expected tag \"Job.Schedule.Sequential.FollowsJob:\".");
}

// The value begins with a blank, which only the decimal form passes over.
TEST_F(DefinitionSchedule, FrequencyIsDecimalWhateverItLooksLike) {
    EXPECT_EQ(daily_frequency(" 12"), 12);
    EXPECT_EQ(daily_frequency(" 012"), 12);
    EXPECT_EQ(daily_frequency("\t7 days"), 7);
    expect_refused(job_with_schedule("Job.Schedule.Daily.Frequency: 0x10\n"), // 0, which the checks find
                   "Invalid daily frequency specification \"0\".\n", TBS_ST_INVALID_ARG);
    expect_refused(job_with_schedule("Job.Schedule.Daily.Frequency: 4294967295\n"),
                   "Invalid daily frequency specification \"-1\".\n", TBS_ST_INVALID_ARG);
}

TEST_F(DefinitionSchedule, FrequencyIsANumber) {
    for (const char *kind : {"Monthly", "Weekly", "Daily"})
        for (const char *value : {"", " ", " often", " x1"})
            expect_schedule_refused(std::string("Job.Schedule.") + kind + ".Frequency:" + value + "\n", 0,
                                    "Illegal unsigned integer value.");
}

TEST_F(DefinitionSchedule, OfMonthsHasADayByItsNumber) {
    const auto by_number = monthly(" 15 ");
    EXPECT_EQ(by_number.frequency, 3);
    EXPECT_EQ(by_number.day_spec_kind, SCHED_MONTHLY_DAY_NUMBER);
    EXPECT_EQ(by_number.day.number, 15u);
    EXPECT_EQ(monthly(" 2nd Mon").day.number, 2u) << "a number that something stands behind";
    expect_refused(job_with_schedule("Job.Schedule.Monthly.Frequency: 3\nJob.Schedule.Monthly.Day: -1\n"),
                   "Invalid day number in month specification \"-1\".\n", TBS_ST_INVALID_ARG);
}

TEST_F(DefinitionSchedule, OfMonthsHasADayByTwoWords) {
    const auto by_words = monthly(" second WEEKDAY of all");
    EXPECT_EQ(by_words.day_spec_kind, SCHED_MONTHLY_DAY_KIND);
    EXPECT_EQ(by_words.day.kind.ordinal, 2);
    EXPECT_EQ(by_words.day.kind.kind, 8);
    EXPECT_EQ(monthly("\tlast   day").day.kind.kind, 10);
    for (const char *day :
         {"", " Second", " Sixth Mon", " Second Moon", " <unrecognized> Mon", " First <unrecognized>"})
        expect_schedule_refused(std::string("Job.Schedule.Monthly.Frequency: 3\nJob.Schedule.Monthly.Day:") + day +
                                    "\n",
                                1, "Illegal day specification.");
}

TEST_F(DefinitionSchedule, DayThatIsNoneByItsNameFailsInTheChecks) {
    const std::string frequency = "Job.Schedule.Monthly.Frequency: 3\n";
    expect_refused(job_with_schedule(frequency + "Job.Schedule.Monthly.Day: <uninitialized> Mon\n"),
                   "Invalid day of week ordinal specification \"0\".\n", TBS_ST_INVALID_ARG);
    expect_refused(job_with_schedule(frequency + "Job.Schedule.Monthly.Day: First <uninitialized>\n"),
                   "Invalid day of week kind specification \"0\".\n", TBS_ST_INVALID_ARG);
}

TEST_F(DefinitionSchedule, OfWeeksHasASetOfDays) {
    const auto schedule = read("Job.Schedule.Weekly.Frequency: 2\nJob.Schedule.Weekly.Days: mon,Fri , SUN\n");
    EXPECT_EQ(schedule.kind, SCHED_KIND_WEEKLY);
    EXPECT_EQ(schedule.u.weekly.frequency, 2);
    EXPECT_EQ(schedule.u.weekly.days, 0x1u | 0x10u | 0x40u);
    for (const char *days : {"", "Moon", "Mon,Moon"})
        expect_schedule_refused(std::string("Job.Schedule.Weekly.Frequency: 2\nJob.Schedule.Weekly.Days:  ") + days +
                                    "\n",
                                1, std::string("Illegal Day of Week Set specification \"") + days + "\".");
}

TEST_F(DefinitionSchedule, FollowsAJobByNameBesideTheRecord) {
    const auto schedule = read("Job.Schedule.Sequential.FollowsJob: \"the first\"\n");
    EXPECT_EQ(schedule.kind, SCHED_KIND_SEQUENTIAL);
    EXPECT_EQ(schedule.u.sequential.follows_job, 0u);
    EXPECT_STREQ(followed[0], "the first");
}

TEST_F(DefinitionSchedule, FollowsTheJobOfAnId) {
    EXPECT_EQ(read("Job.Schedule.Sequential.FollowsJob: 12\n").u.sequential.follows_job, 12u);
    EXPECT_EQ(followed[0], nullptr);
    EXPECT_EQ(read("Job.Schedule.Sequential.FollowsJob: \"12 monkeys\"\n").u.sequential.follows_job, 12u);
}

// The job that follows is refused in words when its line is wrong, and taken without a name when the value is empty.
TEST_F(DefinitionSchedule, FollowedJobWithoutANameIsTheAlgorithmsToTake) {
    EXPECT_EQ(read("Job.Schedule.Sequential.FollowsJob:\n").u.sequential.follows_job, 0u);
    EXPECT_EQ(followed[0], nullptr);
    expect_schedule_refused("Job.Schedule.Sequential.FollowsJob: \"open\n", 0,
                            "Quoted string is missing a terminating quote.");
}

TEST_F(DefinitionSchedule, SequentialHasNoCommonLines) {
    expect_schedule_refused("Job.Schedule.Sequential.FollowsJob: one\nJob.Schedule.StartDate: <now>\n", 1,
                            "Schedule already specified.");
}

TEST_F(DefinitionSchedule, NameOfAFollowedJobIsCutTo255Characters) {
    read("Job.Schedule.Sequential.FollowsJob: " + std::string(300, 'f') + "\n");
    EXPECT_EQ(followed[0], std::string(255, 'f'));
}

TEST_F(DefinitionSchedule, DatesAreTheFirstWord) {
    EXPECT_EQ(common("Job.Schedule.StartDate: 2026-01-02 and on\n").lifetime.start_date, 1767312000);
    EXPECT_EQ(common("Job.Schedule.StartDate: <now>\n").lifetime.start_date, SCHED_DATE_NOW);
    const std::string daily = "Job.Schedule.Daily.Frequency: 1\n";
    expect_schedule_refused(daily + "Job.Schedule.StartDate:\n", 1, "Missing Date specifier.");
    expect_schedule_refused(daily + "Job.Schedule.StartDate: tomorrow or so\n", 1,
                            "Illegal Date specifier \"tomorrow\".");
    expect_schedule_refused(daily + "Job.Schedule.LastDate: \n", 1, "Missing Date specifier.");
}

TEST_F(DefinitionSchedule, LastDateMayBeThatOfTheStart) {
    EXPECT_EQ(common("Job.Schedule.StartDate: 2026-01-02\nJob.Schedule.LastDate: startdate \n").lifetime.last_date,
              1767312000);
    EXPECT_EQ(common("Job.Schedule.LastDate: StartDate\n").lifetime.last_date, SCHED_DATE_NOW) << "the default";
}

TEST_F(DefinitionSchedule, TimesOfDayAreThreeNumbersBelowTheirBounds) {
    EXPECT_EQ(common("Job.Schedule.FirstStartTime: 00:00:00\n").start_times.first_start_time, 0u);
    EXPECT_EQ(common("Job.Schedule.FirstStartTime: 23:59:59\n").start_times.first_start_time, last_second);
    EXPECT_EQ(common("Job.Schedule.FirstStartTime: 1:2:3 and on\n").start_times.first_start_time, 3723u);
    for (const char *tag : {"FirstStartTime", "StartTimeRestartFrequency", "LastStartTime"})
        for (const char *time : {"", " 24:00:00", " 00:60:00", " 00:00:60", " 00:00", " noon", " 00:00:-1"})
            expect_schedule_refused(std::string("Job.Schedule.Daily.Frequency: 1\nJob.Schedule.") + tag + ":" + time +
                                        "\n",
                                    1, std::string("Illegal Hours-Minutes-Seconds specifier \"") + time + "\".");
}

TEST_F(DefinitionSchedule, MidnightAsLastStartIsTheEndOfTheDay) {
    EXPECT_EQ(common("Job.Schedule.LastStartTime: 00:00:00\n").start_times.last_start_time, last_second);
    EXPECT_EQ(common("Job.Schedule.LastStartTime: 00:00:01\n").start_times.last_start_time, 1u);
}

} // namespace
