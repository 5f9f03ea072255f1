// The scheduler's routines against code that rpcgen made of doc/protocol/scheduler.x: what the one sends the other
// takes whole and sends again as it was, and both refuse it cut anywhere.
#include <scheduler.h>
#include <scheduler_routines.h>

#include <gtest/gtest.h>

#include <tests/unit/sched/job.h>
#include <tests/unit/sched/samples.h>
#include <tests/wire/both_sides.h>
#include <tests/wire/stub_records.h>

using namespace wire_tests;

namespace {

// The language names only the beginning and the end of what stands around the rights of an application.
struct AppPermsTwin {
    scheduler_app_perms_begin begin;
    std::vector<scheduler_flag_item> *items;
    scheduler_app_perms_end end;
};

bool_t code_items(XDR *xdrs, AppPermsTwin *twin) {
    if (xdrs->x_op == XDR_DECODE) {
        twin->items = new std::vector<scheduler_flag_item>;
        const u_int announced = twin->begin.count != nullptr ? *twin->begin.count : 0;
        for (u_int i = 0; i < announced; ++i)
            if (!xdr_scheduler_flag_item(xdrs, &twin->items->emplace_back()))
                return FALSE;
        return TRUE;
    }
    bool_t done = TRUE;
    if (twin->items != nullptr)
        for (scheduler_flag_item &item : *twin->items)
            done = done && xdr_scheduler_flag_item(xdrs, &item);
    if (xdrs->x_op == XDR_FREE) {
        delete twin->items;
        twin->items = nullptr;
    }
    return done;
}

bool_t xdr_app_perms_twin(XDR *xdrs, AppPermsTwin *twin) {
    return xdr_scheduler_app_perms_begin(xdrs, &twin->begin) && code_items(xdrs, twin) &&
           xdr_scheduler_app_perms_end(xdrs, &twin->end);
}

template <class Twin>
auto routine_of_reply() {
    if constexpr (std::is_same_v<Twin, scheduler_app_perms_begin>)
        return xdr_app_perms_twin;
    else
        return routine_of_twin<Twin>();
}

// Every kind as visit(name, our routine, the routine of its twin).
template <class Visit>
void for_each_pair(Visit &&visit) {
#define PROCEDURE(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                  \
    {                                                                                                                  \
        using Twins = StubRecords<decltype(NAME##_3)>;                                                                 \
        visit(#NAME " request", velia::procedures::NAME.xdr_request, routine_of_twin<Twins::Request>());               \
        visit(#NAME " reply", velia::procedures::NAME.xdr_reply, routine_of_reply<Twins::Reply>());                    \
    }
    RVZD_SCHEDULER_PROCEDURES(PROCEDURE)
#undef PROCEDURE
}

class SchedulerAgreement : public testing::Test {
protected:
    Sampler sampler{20261122};

    template <class Record>
    Bytes sample(bool_t (*routine)(XDR *, Record *)) {
        Record record = {};
        fill(sampler, record);
        return sent(routine, record);
    }

    // A record as it went out from us and came in as its twin, which is released behind the test.
    template <class Record, class Twin>
    void send(bool_t (*routine)(XDR *, Record *), const Record &record, bool_t (*twin_routine)(XDR *, Twin *),
              Twin &twin) {
        twin = {};
        EXPECT_TRUE(decode(twin_routine, sent(routine, record), twin));
    }
};

TEST_F(SchedulerAgreement, OfTheProgramsNumbers) {
    EXPECT_EQ(SCHEDULER_PROGRAM, uint32_t{RVZD_PROGRAM});
    EXPECT_EQ(SCHEDULER_VERSION, uint32_t{RVZD_VERSION});
#define EXPECT_NUMBER(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                              \
    EXPECT_EQ(CONSTANT, uint32_t{NUMBER}) << #NAME;
    RVZD_SCHEDULER_PROCEDURES(EXPECT_NUMBER)
#undef EXPECT_NUMBER
}

TEST_F(SchedulerAgreement, BothSidesTakeTheBytesWholeAndSendThemAgainAsTheyWere) {
    expect_both_sides_take_bytes_whole([](auto &&visit) { for_each_pair(visit); },
                                       [&](auto routine) { return sample(routine); });
}

TEST_F(SchedulerAgreement, BothSidesRefuseTheBytesCutAnywhere) {
    expect_both_sides_refuse_bytes_cut_anywhere([](auto &&visit) { for_each_pair(visit); },
                                                [&](auto routine) { return sample(routine); });
}

TEST_F(SchedulerAgreement, AbsentObjectsComeInAsZeros) {
    scheduler_created_reply twin = {7, nullptr, nullptr};
    sched_job_create_reply_t reply = {};
    ASSERT_TRUE(decode(xdr_sched_job_create_V2_back, sent(xdr_scheduler_created_reply, twin), reply));
    EXPECT_EQ(reply.status, 7);
    ASSERT_NE(reply.job, nullptr);
    EXPECT_EQ(*reply.err_mask, 0u);
    release(xdr_sched_job_create_V2_back, reply);
}

TEST_F(SchedulerAgreement, AbsentListsComeInEmpty) {
    scheduler_jobs_reply twin = {7, nullptr};
    sched_get_jobs_reply_t reply = {};
    ASSERT_TRUE(decode(xdr_sched_get_jobs_V2_back, sent(xdr_scheduler_jobs_reply, twin), reply));
    EXPECT_EQ(reply.count, nullptr);
    release(xdr_sched_get_jobs_V2_back, reply);
    AppPermsTwin perms = {{nullptr, 7}, nullptr, {nullptr}};
    sched_app_perms_reply_t perms_reply = {};
    ASSERT_TRUE(decode(xdr_sched_get_app_perms_V2_back, sent(xdr_app_perms_twin, perms), perms_reply));
    EXPECT_EQ(perms_reply.status, 7);
    release(xdr_sched_get_app_perms_V2_back, perms_reply);
}

// With more behind it than any of them needs, so that nothing else can be what is refused.
TEST_F(SchedulerAgreement, BothSidesRefuseASchedulesKindAndADayThatThereIsNot) {
    const Bytes rest(64, '\0');
    for (const char kind : {'\0', '\1', '\4', '\5', '\x7f'}) {
        const Bytes bytes = Bytes(3, '\0') + kind + rest;
        const bool is_none = kind == '\0' || kind > '\4';
        EXPECT_EQ(is_refused(xdr_sched_schedule_t, bytes), is_none) << static_cast<int>(kind);
        EXPECT_EQ(is_refused(xdr_scheduler_schedule, bytes), is_none) << static_cast<int>(kind);
    }
    const Bytes common_and_frequency(2 * 8 + 4 * 4, '\0');
    for (const char spec : {'\0', '\1', '\2', '\x7f'}) {
        const Bytes bytes = common_and_frequency + Bytes(3, '\0') + spec + rest;
        EXPECT_EQ(is_refused(xdr_sched_monthly_sched_t, bytes), spec > '\1') << static_cast<int>(spec);
        EXPECT_EQ(is_refused(xdr_scheduler_monthly, bytes), spec > '\1') << static_cast<int>(spec);
    }
}

TEST_F(SchedulerAgreement, BothSidesRefuseOneGroupTooMany) {
    scheduler_credentials twin = {1, 2, {}};
    std::vector<u_int> groups(CREDUTL_GROUPS_MAX + 1);
    twin.groups = {CREDUTL_GROUPS_MAX, groups.data()};
    Bytes bytes = sent(xdr_scheduler_credentials, twin);
    EXPECT_FALSE(is_refused(xdr_credutl_credentials_t, bytes));
    bytes[11]++;
    bytes += Bytes(4, '\0');
    EXPECT_TRUE(is_refused(xdr_credutl_credentials_t, bytes));
    EXPECT_TRUE(is_refused(xdr_scheduler_credentials, bytes));
}

TEST_F(SchedulerAgreement, AFieldOfAJobMeansTheSameOnBothSides) {
    sched_job_utc_props_t ours = {};
    fill(sampler, ours);
    Job job;
    job.set_monthly_kind(2, 9);
    job.add_args();
    job.add_notifications();
    job.rw.run_control.max_run_time = 60;
    job.rw.delete_when_completed = 1;
    ours.props.rw = job.rw;
    scheduler_utc_properties twin;
    send(xdr_sched_job_utc_props_t, ours, xdr_scheduler_utc_properties, twin);

    EXPECT_EQ(twin.utc.utc_time, ours.utc.utc_time);
    EXPECT_EQ(twin.utc.utc_int, ours.utc.utc_int);
    EXPECT_EQ(twin.utc.utc_uint, ours.utc.utc_uint);
    const scheduler_job &rw = twin.properties.job;
    EXPECT_STREQ(rw.name, "nightly");
    EXPECT_STREQ(rw.description, "");
    EXPECT_EQ(rw.task, 7u);
    EXPECT_STREQ(rw.args.args_val[1], "two words");
    EXPECT_EQ(rw.max_run_time, 60u);
    EXPECT_TRUE(rw.delete_when_completed);
    ASSERT_EQ(rw.notifications.notifications_len, 2u);
    EXPECT_EQ(rw.notifications.notifications_val[0].events, 0x12u);
    EXPECT_EQ(rw.notifications.notifications_val[0].delivery, 1u);
    EXPECT_STREQ(rw.notifications.notifications_val[0].recipients.recipients_val[1], "ben");
    EXPECT_EQ(rw.notifications.notifications_val[1].recipients.recipients_len, 0u);
    ASSERT_EQ(rw.schedule.kind, SCHEDULER_MONTHLY);
    const scheduler_monthly &monthly = rw.schedule.scheduler_schedule_u.monthly;
    EXPECT_EQ(monthly.frequency, 3);
    EXPECT_EQ(monthly.day.spec, SCHEDULER_DAY_KIND);
    EXPECT_EQ(monthly.day.scheduler_day_u.kind.ordinal, 2);
    EXPECT_EQ(monthly.day.scheduler_day_u.kind.kind, 9);
    EXPECT_EQ(monthly.common.lifetime.start_date, SCHED_DATE_NOW);
    EXPECT_EQ(monthly.common.lifetime.last_date, 0);
    EXPECT_EQ(monthly.common.start_times.first_start_time, 3600u);
    EXPECT_EQ(monthly.common.start_times.last_start_time, 7200u);
    EXPECT_EQ(monthly.common.start_times.restart_frequency, 600u);

    const scheduler_job_state &state = twin.properties.state;
    const sched_job_ro_properties_t &ro = ours.props.ro;
    EXPECT_EQ(state.predefined, ro.predefined);
    EXPECT_EQ(state.job, ro.job_id);
    EXPECT_EQ(state.next_run_time, ro.next_run_time);
    EXPECT_STREQ(state.created.who, ro.created.who);
    EXPECT_STREQ(state.created.who_extra, ro.created.who_extra);
    EXPECT_STREQ(state.created.where, ro.created.where);
    EXPECT_EQ(state.created.when, ro.created.when);
    EXPECT_EQ(state.last_modified.when, ro.last_modified.when);
    EXPECT_STREQ(state.running.process_id, ro.running_status.process_id);
    EXPECT_EQ(state.running.started, ro.running_status.started);
    EXPECT_STREQ(state.last_completion.process_id, ro.last_completion.process_id);
    EXPECT_EQ(state.last_completion.started, ro.last_completion.started);
    EXPECT_EQ(state.last_completion.ended, ro.last_completion.ended);
    EXPECT_EQ(state.last_completion.exit_status, ro.last_completion.exit_status);
    EXPECT_STREQ(state.last_completion.messages, ro.last_completion.messages);
    release(xdr_scheduler_utc_properties, twin);
}

TEST_F(SchedulerAgreement, AFieldOfATaskMeansTheSameOnBothSides) {
    sched_task_properties_t ours = {};
    fill(sampler, ours);
    scheduler_task twin;
    send(xdr_sched_task_properties_t, ours, xdr_scheduler_task, twin);
    EXPECT_EQ(twin.task, ours.task_id);
    EXPECT_STREQ(twin.name, ours.name);
    EXPECT_STREQ(twin.ui_info, ours.ui.ui_info);
    EXPECT_STREQ(twin.pathname, ours.pathname);
    EXPECT_EQ(twin.run_as.user, ours.run_as.user);
    EXPECT_EQ(twin.run_as.group, ours.run_as.group);
    EXPECT_EQ(twin.run_as.groups.groups_len, ours.run_as.group_count);
    release(xdr_scheduler_task, twin);
}

TEST_F(SchedulerAgreement, TheRestOfEachRequestMeansTheSameOnBothSides) {
    sched_handle handle = {};
    fill(sampler, handle);
    sched_running_job_handle run = {4, 99};
    sched_running_job_request_t ours = {{0, &handle}, &run};
    scheduler_running_job_req twin;
    send(xdr_sched_rjob_terminate_V2_over, ours, xdr_scheduler_running_job_req, twin);
    EXPECT_EQ(twin.head.handle.handle_word, handle.handle_word);
    EXPECT_EQ(twin.head.handle.auth.flavour, handle.auth.flavour);
    EXPECT_EQ(twin.head.handle.auth.credentials.user, handle.auth.credentials.user);
    EXPECT_EQ(twin.job.job, 4u);
    EXPECT_EQ(twin.job.started, 99);
    release(xdr_scheduler_running_job_req, twin);
    sched_app_perms_reply_t perms = {};
    fill(sampler, perms);
    AppPermsTwin perms_twin;
    send(xdr_sched_get_app_perms_V2_back, perms, xdr_app_perms_twin, perms_twin);
    EXPECT_EQ(perms_twin.begin.status, perms.status);
    EXPECT_EQ(*perms_twin.begin.count, *perms.count);
    EXPECT_EQ(perms_twin.end.map->read, perms.map->read);
    EXPECT_EQ(perms_twin.end.map->change, perms.map->change);
    release(xdr_app_perms_twin, perms_twin);
}

} // namespace
