// The checks of a job: every limit, in the order in which they come.
#include <tests/unit/sched/fixture.h>
#include <tests/unit/sched/job.h>
#include <veliaxdr/sched_check.h>

using testing::ElementsAre;

namespace {

class Validation : public SchedulerTest {
protected:
    Validation() { answer_all_is_well(); }

    void answer_all_is_well() {
        tbs_boolean_t yes = 1;
        answer(row::sched_job_lookup_by_name, sched_job_reply_t{TBS_ST_NOT_FOUND, nullptr});
        sched_job_handle followed = {9};
        sched_job_h_t handle = &followed;
        answer(row::sched_job_lookup_by_id, sched_job_reply_t{TBS_ST_OK, &handle});
        answer(row::sched_task_exists, sched_boolean_reply_t{TBS_ST_OK, &yes});
    }

    tbs_status_t validate(bool check_server = false, bool quiet = false, sched_job_id_t job_id = 0) {
        mask = 0xFFFFFFFF;
        return sched_utl_validate_job_rw_properties(scheduler, job_id, &job.rw, check_server, quiet, &mask);
    }

    // The job as it stands is refused with this bit and this message, and in silence where it is to be quiet.
    template <class... Arguments>
    void expect_refused(uint32_t bit, int position, Arguments... arguments) {
        EXPECT_EQ(validate(), TBS_ST_INVALID_ARG);
        EXPECT_EQ(mask, bit);
        EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, position, arguments...)));
        EXPECT_EQ(validate(false, true), TBS_ST_INVALID_ARG);
        EXPECT_EQ(mask, bit);
        EXPECT_THAT(world.take_messages(), ElementsAre());
    }
    void expect_passed() {
        EXPECT_EQ(validate(), TBS_ST_OK);
        EXPECT_EQ(mask, 0u);
        EXPECT_THAT(world.take_messages(), ElementsAre());
    }

    Job job;
    uint32_t mask = 0;
};

TEST_F(Validation, OfAGoodJobPassesWithoutTraffic) {
    expect_passed();
    EXPECT_TRUE(world.peer.calls.empty());
}

TEST_F(Validation, WithTheServerAsksForNameAndTask) {
    EXPECT_EQ(validate(true), TBS_ST_OK);
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(count(row::sched_job_lookup_by_name), 1u);
    EXPECT_EQ(count(row::sched_task_exists), 1u);
    EXPECT_EQ(world.peer.calls.size(), 2u);
}

TEST_F(Validation, EmptyNameFailsAtOnceAlsoWithTheServer) {
    for (char *name : {static_cast<char *>(nullptr), Job::text("")}) {
        job.rw.name = name;
        job.rw.task = 0;
        expect_refused(SCHED_ERR_NAME_NIL, 103);
        EXPECT_EQ(validate(true, true), TBS_ST_INVALID_ARG);
        EXPECT_TRUE(world.peer.calls.empty());
    }
}

TEST_F(Validation, NameOfAnotherJobIsADuplicate) {
    sched_job_handle holder = {21};
    sched_job_h_t handle = &holder;
    answer(row::sched_job_lookup_by_name, sched_job_reply_t{TBS_ST_OK, &handle});
    EXPECT_EQ(validate(true, false, 20), TBS_ST_INVALID_ARG);
    EXPECT_EQ(mask, uint32_t{SCHED_ERR_NAME_DUPLICATE});
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 104, "nightly", "21")));
    EXPECT_EQ(validate(true, true, 20), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre());
    EXPECT_EQ(validate(true, false, 21), TBS_ST_OK) << "the job itself has it";
}

TEST_F(Validation, FailedCallsArePrintedAlsoWhereItIsToBeQuiet) {
    answer(row::sched_job_lookup_by_name, sched_job_reply_t{TBS_ST_NO_ACCESS, nullptr});
    EXPECT_EQ(validate(true, true), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 54, "nightly", tbs_strerror(TBS_ST_NO_ACCESS))));
    answer_all_is_well();
    answer(row::sched_task_exists, sched_boolean_reply_t{TBS_ST_NO_ACCESS, nullptr});
    EXPECT_EQ(validate(true, true), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 55, "7", tbs_strerror(TBS_ST_NO_ACCESS))));
    job.set_sequential();
    answer(row::sched_job_lookup_by_id, sched_job_reply_t{TBS_ST_NO_ACCESS, nullptr});
    EXPECT_EQ(validate(true, true), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 99, 9u, tbs_strerror(TBS_ST_NO_ACCESS))));
}

TEST_F(Validation, FollowedJobMustExist) {
    job.set_sequential();
    EXPECT_EQ(validate(true), TBS_ST_OK);
    answer(row::sched_job_lookup_by_id, sched_job_reply_t{TBS_ST_NOT_FOUND, nullptr});
    EXPECT_EQ(validate(true), TBS_ST_INVALID_ARG);
    EXPECT_EQ(mask, uint32_t{SCHED_ERR_FOLLOWS});
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 98, 9u)));
    EXPECT_EQ(validate(true, true), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre());
    expect_passed();
}

TEST_F(Validation, TaskThatIsNotThereIsToldAndNoFailure) {
    tbs_boolean_t no = 0;
    answer(row::sched_task_exists, sched_boolean_reply_t{TBS_ST_OK, &no});
    EXPECT_EQ(validate(true), TBS_ST_OK);
    EXPECT_EQ(mask, uint32_t{SCHED_ERR_TASK});
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 105, "7", tbs_strerror(TBS_ST_INVALID_ARG))));
    EXPECT_EQ(validate(true, true), TBS_ST_OK);
    EXPECT_EQ(mask, uint32_t{SCHED_ERR_TASK});
    EXPECT_THAT(world.take_messages(), ElementsAre());
}

TEST_F(Validation, TaskThatIsNotThereIsForgottenWithNotifications) {
    tbs_boolean_t no = 0;
    answer(row::sched_task_exists, sched_boolean_reply_t{TBS_ST_OK, &no});
    job.add_notifications();
    EXPECT_EQ(validate(true), TBS_ST_OK);
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(world.take_messages().size(), 1u);
}

TEST_F(Validation, NilTask) {
    job.rw.task = 0;
    expect_refused(SCHED_ERR_TASK, 107);
}

TEST_F(Validation, LastDateBelowStartDate) {
    auto &lifetime = job.set_daily().lifetime;
    lifetime = {1000000, 999999};
    expect_refused(SCHED_ERR_LAST_DATE, 86, date_fmt_token_date(999999));
    lifetime = {1000000, 1000000};
    expect_passed();
    lifetime = {1000000, 0};
    expect_passed();
    lifetime = {SCHED_DATE_NOW, 1000000};
    expect_passed();
    lifetime = {1, -5};
    expect_refused(SCHED_ERR_LAST_DATE, 86, date_fmt_token_date(-5));
    lifetime = {-5, -5};
    expect_passed();
}

TEST_F(Validation, TimesOfDayMayBeAWholeDay) {
    auto &times = job.set_daily().start_times;
    times = {86400, 86400, 86400};
    expect_passed();
    times.first_start_time = 86401;
    expect_refused(SCHED_ERR_FIRST_START, 87, 86401u);
    times = {SCHED_TIME_NOT_GIVEN, 0, 0};
    expect_passed();
    times.first_start_time = SCHED_TIME_NOT_GIVEN - 1;
    expect_refused(SCHED_ERR_FIRST_START, 87, SCHED_TIME_NOT_GIVEN - 1);
    times = {0, 86401, 0};
    expect_refused(SCHED_ERR_LAST_START, 88, 86401u);
    times = {0, SCHED_TIME_NOT_GIVEN, 0};
    expect_refused(SCHED_ERR_LAST_START, 88, SCHED_TIME_NOT_GIVEN);
    times = {0, 0, 86401};
    expect_refused(SCHED_ERR_RESTART_FREQ, 89, 86401u);
}

TEST_F(Validation, FirstStartBehindTheLastAndEqualTimesPass) {
    auto &times = job.set_daily().start_times;
    times = {3601, 3600, 0};
    expect_refused(SCHED_ERR_DAILY_OR_TIME_ORDER, 148, "01:00:01", "01:00:00");
    times = {3600, 3600, 0};
    expect_passed();
}

TEST_F(Validation, CommonChecksComeInTheirOrder) {
    auto &common = job.set_daily(0);
    common = {{5, 2}, {90000, 90001, 90000}};
    expect_refused(SCHED_ERR_LAST_DATE, 86, date_fmt_token_date(2));
    common.lifetime = {1, 2};
    expect_refused(SCHED_ERR_FIRST_START, 87, 90000u);
    common.start_times.first_start_time = 86400;
    expect_refused(SCHED_ERR_LAST_START, 88, 90001u);
    common.start_times.last_start_time = 1;
    expect_refused(SCHED_ERR_RESTART_FREQ, 89, 90000u);
    common.start_times.restart_frequency = 1;
    expect_refused(SCHED_ERR_DAILY_OR_TIME_ORDER, 148, "24:00:00", "00:00:01");
    common.start_times.first_start_time = 0;
    expect_refused(SCHED_ERR_DAILY_OR_TIME_ORDER, 97, 0);
}

TEST_F(Validation, CommonChecksAreMadeOfWeeklyAndMonthlyToo) {
    job.set_weekly().common.start_times.last_start_time = 86401;
    expect_refused(SCHED_ERR_LAST_START, 88, 86401u);
    job.set_monthly_day().common.start_times.last_start_time = 86401;
    expect_refused(SCHED_ERR_LAST_START, 88, 86401u);
}

TEST_F(Validation, DailyFrequency) {
    for (const int32_t frequency : {0, -1, INT32_MIN}) {
        job.set_daily(frequency);
        expect_refused(SCHED_ERR_DAILY_OR_TIME_ORDER, 97, frequency);
    }
    job.set_daily(INT32_MAX);
    expect_passed();
}

TEST_F(Validation, WeeklyFrequencyAndDays) {
    job.set_weekly().frequency = 0;
    expect_refused(SCHED_ERR_WEEKLY_FREQ, 95, 0);
    job.set_weekly().frequency = -1;
    expect_refused(SCHED_ERR_WEEKLY_FREQ, 95, -1);
    job.set_weekly().frequency = 1;
    expect_passed();
    job.set_weekly().days = 0;
    expect_refused(SCHED_ERR_DOW_SET, 96, 0);
    job.set_weekly().days = 0x80;
    expect_refused(SCHED_ERR_DOW_SET, 96, 0x80);
    job.set_weekly().days = 0x81;
    expect_refused(SCHED_ERR_DOW_SET, 96, 0x81);
    job.set_weekly().days = 0x7F;
    expect_passed();
}

TEST_F(Validation, MonthlyFrequencyAndDay) {
    job.set_monthly_day(0).frequency = 0;
    expect_refused(SCHED_ERR_MONTHLY_FREQ, 90, 0);
    job.set_monthly_day(0);
    expect_refused(SCHED_ERR_MONTH_DAY, 91, 0);
    job.set_monthly_day(32);
    expect_refused(SCHED_ERR_MONTH_DAY, 91, 32);
    job.set_monthly_day(1).frequency = 1;
    expect_passed();
    job.set_monthly_day(31);
    expect_passed();
    for (const int32_t kind : {2, -1}) {
        job.set_monthly_day(1).day_spec_kind = kind;
        expect_refused(SCHED_ERR_DAY_KIND, 94, kind);
    }
}

TEST_F(Validation, OrdinalAndKindOfADayMayBeOneAboveTheLastRealOnes) {
    job.set_monthly_kind(0, 0);
    expect_refused(SCHED_ERR_MDS_ORDINAL, 92, 0);
    job.set_monthly_kind(7, 0);
    expect_refused(SCHED_ERR_MDS_ORDINAL, 92, 7);
    job.set_monthly_kind(1, 0);
    expect_refused(SCHED_ERR_MDS_KIND, 93, 0);
    job.set_monthly_kind(1, 12);
    expect_refused(SCHED_ERR_MDS_KIND, 93, 12);
    job.set_monthly_kind(1, 1);
    expect_passed();
    job.set_monthly_kind(6, 11);
    expect_passed();
}

TEST_F(Validation, KindOfSchedule) {
    for (const int32_t kind : {0, 5, -1}) {
        job.rw.schedule.kind = kind;
        expect_refused(SCHED_ERR_KIND, 100, kind);
    }
}

TEST_F(Validation, EventsOfANotification) {
    job.add_notifications();
    expect_passed();
    for (const uint32_t events : {0u, 0x400u, 0x402u}) {
        job.notifications[1].events = events;
        expect_refused(SCHED_ERR_EVENT_MASK, 101, events);
    }
    for (const uint32_t events : {0x1u, 0x200u, 0x3FFu}) {
        job.notifications[1].events = events;
        expect_passed();
    }
}

TEST_F(Validation, DeliveryOfANotification) {
    job.add_notifications();
    for (const uint32_t delivery : {0u, 0x2u, 0x3u}) {
        job.notifications[0].delivery = delivery;
        expect_refused(SCHED_ERR_DELIVERY_MASK, 102, delivery);
    }
}

TEST_F(Validation, FirstOffenderAmongNotificationsEndsIt) {
    job.add_notifications();
    job.notifications[0].delivery = 0;
    job.notifications[1].events = 0;
    expect_refused(SCHED_ERR_DELIVERY_MASK, 102, 0);
}

TEST_F(Validation, OrderIsNameScheduleTaskNotifications) {
    job.add_notifications();
    job.notifications[0].events = 0;
    job.rw.task = 0;
    job.rw.schedule.kind = 0;
    job.rw.name = nullptr;
    expect_refused(SCHED_ERR_NAME_NIL, 103);
    job.rw.name = Job::text("n");
    expect_refused(SCHED_ERR_KIND, 100, 0);
    job.set_daily();
    expect_refused(SCHED_ERR_TASK, 107);
    job.rw.task = 1;
    expect_refused(SCHED_ERR_EVENT_MASK, 101, 0);
}

TEST_F(Validation, HoldsNothingWhenARaiseLandsAnywhere) {
    job.set_sequential();
    sim::sweep_raises(
        world, [&] { validate(true); }, [&](int) { sim::release_lock(rvzd_call_lock); });
    world.take_messages();
}

TEST_F(Validation, OfAPredefinedJobHoldsItsName) {
    Job after;
    mask = 7;
    EXPECT_EQ(sched_utl_validate_predef_job_rw_properties(nullptr, &job.rw, &after.rw, 0, &mask), TBS_ST_OK);
    EXPECT_EQ(mask, 0u);
    after.rw.task = 99;
    after.rw.name = nullptr;
    EXPECT_EQ(sched_utl_validate_predef_job_rw_properties(nullptr, &job.rw, &after.rw, 0, &mask), TBS_ST_INVALID_ARG);
    EXPECT_EQ(mask, uint32_t{SCHED_ERR_PREDEF_NAME});
    EXPECT_THAT(world.take_messages(), ElementsAre(message(IMSG_ERROR, 106)));
    EXPECT_EQ(sched_utl_validate_predef_job_rw_properties(nullptr, &job.rw, &after.rw, 1, &mask), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre());
    job.rw.name = Job::text("");
    EXPECT_EQ(sched_utl_validate_predef_job_rw_properties(nullptr, &job.rw, &after.rw, 0, &mask), TBS_ST_OK);
}

// ---- equality ----

class Equality : public testing::Test {
protected:
    bool equal() {
        tbs_boolean_t is_equal = 7;
        EXPECT_EQ(sched_utl_equal_job_rw_properties(nullptr, &left.rw, &right.rw, &is_equal), TBS_ST_OK);
        tbs_boolean_t turned = 7;
        EXPECT_EQ(sched_utl_equal_job_rw_properties(nullptr, &right.rw, &left.rw, &turned), TBS_ST_OK);
        EXPECT_EQ(is_equal, turned);
        return is_equal == 1;
    }
    // A change of the right job makes them differ.
    template <class Value>
    void expect_counts(Value &value, Value other) {
        EXPECT_TRUE(equal());
        const Value as_it_was = value;
        value = other;
        EXPECT_FALSE(equal());
        value = as_it_was;
    }
    void expect_common_counts(sched_common_sched_t &common) {
        expect_counts(common.lifetime.start_date, time_t{5});
        expect_counts(common.lifetime.last_date, time_t{5});
        expect_counts(common.start_times.first_start_time, 5u);
        expect_counts(common.start_times.last_start_time, 5u);
        expect_counts(common.start_times.restart_frequency, 5u);
    }
    Job left;
    Job right;
};

TEST_F(Equality, LooksAtEverythingThatAClientMaySet) {
    for (Job *job : {&left, &right}) {
        job->add_args();
        job->add_notifications();
    }
    expect_counts(right.rw.name, Job::text("other"));
    expect_counts(right.rw.description, Job::text("other"));
    expect_counts(right.rw.task, 8u);
    expect_counts(right.rw.arg_count, 1u);
    expect_counts(right.args[1], Job::text("other"));
    expect_counts(right.rw.run_control.max_run_time, 8u);
    expect_counts(right.rw.delete_when_completed, tbs_boolean_t{1});
    expect_counts(right.rw.notify_count, 1u);
    expect_counts(right.notifications[1].events, 1u);
    expect_counts(right.notifications[1].delivery, 7u);
    expect_counts(right.notifications[0].recipient_count, 1);
    expect_counts(right.recipients[1], Job::text("other"));
}

TEST_F(Equality, NullTextsAreEmptyOnes) {
    left.rw.description = nullptr;
    right.rw.description = Job::text("");
    left.rw.name = Job::text("");
    right.rw.name = nullptr;
    EXPECT_TRUE(equal());
}

TEST_F(Equality, OfDailySchedules) {
    expect_common_counts(right.rw.schedule.u.daily.common);
    expect_counts(right.rw.schedule.u.daily.frequency, 5);
}

TEST_F(Equality, OfWeeklySchedules) {
    left.set_weekly();
    auto &weekly = right.set_weekly();
    expect_common_counts(weekly.common);
    expect_counts(weekly.frequency, 5);
    expect_counts(weekly.days, 5u);
}

TEST_F(Equality, OfMonthlySchedules) {
    left.set_monthly_day();
    auto &monthly = right.set_monthly_day();
    expect_common_counts(monthly.common);
    expect_counts(monthly.frequency, 5);
    expect_counts(monthly.day.number, 5u);
    expect_counts(monthly.day_spec_kind, sched_sched_monthly_day_spec_kind_t{SCHED_MONTHLY_DAY_KIND});
    left.set_monthly_kind();
    auto &kind = right.set_monthly_kind().day.kind;
    expect_counts(kind.ordinal, 2);
    expect_counts(kind.kind, 2);
}

TEST_F(Equality, OfSequentialSchedulesLooksAtTheFollowedJobAlone) {
    left.set_sequential();
    right.set_sequential();
    expect_counts(right.rw.schedule.u.sequential.follows_job, 5u);
    right.set_daily();
    EXPECT_FALSE(equal());
}

TEST_F(Equality, OfKindsThatThereAreNotIsNoneEvenOfTheSameJob) {
    left.rw.schedule.kind = right.rw.schedule.kind = 0;
    EXPECT_FALSE(equal());
    left.set_monthly_day().day_spec_kind = 2;
    right.set_monthly_day().day_spec_kind = 2;
    EXPECT_FALSE(equal());
}

TEST(CommonSchedule, StandsFirstInThreeKinds) {
    Job job;
    for (const int32_t kind : {SCHED_KIND_MONTHLY, SCHED_KIND_WEEKLY, SCHED_KIND_DAILY}) {
        job.rw.schedule.kind = kind;
        EXPECT_EQ(static_cast<void *>(sched_utl_get_common_sched(&job.rw.schedule)),
                  static_cast<void *>(&job.rw.schedule.u));
    }
    for (const int32_t kind : {0, int32_t{SCHED_KIND_SEQUENTIAL}, 5}) {
        job.rw.schedule.kind = kind;
        EXPECT_EQ(sched_utl_get_common_sched(&job.rw.schedule), nullptr);
    }
}

// ---- names ----

TEST(Names, OfMasks) {
    const sim::World world;
    EXPECT_STREQ(sched_utl_notify_event_mask_to_str(0x2 | 0x10), "JobBegin,JobEndFail");
    EXPECT_STREQ(sched_utl_notify_event_mask_to_str(0), "<none>");
    EXPECT_EQ(sched_utl_notify_event_mask_from_str("JobBegin,JobModified"), 0x42u);
    EXPECT_EQ(sched_utl_notify_event_mask_from_str("JobBegin,Nothing"), 0u);
    EXPECT_EQ(sched_utl_notify_delivery_mask_from_str("email"), 1u);
    EXPECT_EQ(sched_utl_notify_delivery_mask_from_str("pigeon"), 0u);
    EXPECT_EQ(sched_utl_dow_mask_from_str("Mon,Sun"), 0x41u);
    EXPECT_EQ(sched_utl_dow_mask_from_str("Someday"), 0u);
}

TEST(Names, OfDaysAreRowsFromTheFirstOn) {
    EXPECT_EQ(sched_utl_mds_ordinal_from_str("<uninitialized>"), 0);
    EXPECT_EQ(sched_utl_mds_ordinal_from_str("first"), 1);
    EXPECT_EQ(sched_utl_mds_ordinal_from_str("LAST"), 5);
    EXPECT_EQ(sched_utl_mds_ordinal_from_str("Sixth"), 6);
    EXPECT_EQ(sched_utl_mds_kind_from_str("<Uninitialized>"), 0);
    EXPECT_EQ(sched_utl_mds_kind_from_str("mon"), 1);
    EXPECT_EQ(sched_utl_mds_kind_from_str("Day"), 10);
    EXPECT_EQ(sched_utl_mds_kind_from_str("Noday"), 11);
    EXPECT_EQ(sched_utl_mds_kind_from_str(nullptr), 11);
}

} // namespace
