// The scheduler's records on the wire.
#include <tests/unit/sched/samples.h>
#include <tests/unit/xdr/wire_test.h>

using namespace wire_tests;

namespace {

constexpr int samples_of_a_kind = 40;
constexpr int samples_cut = 2;

class SchedulerRecords : public WireTest {
protected:
    template <class Record>
    Record sample() {
        Record record = {};
        fill(sampler, record);
        return record;
    }
    // A job that goes out, with nothing in it but a schedule.
    static sched_job_rw_properties_t bare_job() {
        sched_job_rw_properties_t job = {};
        job.schedule.kind = SCHED_KIND_SEQUENTIAL;
        job.schedule.u.sequential.follows_job = 9;
        return job;
    }
    // Request word and a null handle.
    static WireBytes request_head(uint32_t word = 0) {
        return WireBytes().word(word).word(0).word(0).word(0).word(0).word(0);
    }
};

TEST_F(SchedulerRecords, ComeBackAsTheyWereSent) {
    for_each_scheduler_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_of_a_kind; ++i) {
            const auto sent = sample<Record>();
            const Bytes bytes = encoded(routine, sent);
            Record received = decoded(routine, bytes);
            EXPECT_EQ(encoded(routine, received), bytes);
            EXPECT_TRUE(release(routine, received));
            ASSERT_EQ(world.live_blocks(), 0u);
        }
    });
}

TEST_F(SchedulerRecords, AreRefusedWhenCutAtAnyByteAndLeakNothing) {
    for_each_scheduler_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_cut; ++i) {
            const Bytes bytes = encoded(routine, sample<Record>());
            for (size_t size = 0; size < bytes.size(); ++size)
                expect_refused(routine, bytes.substr(0, size));
        }
    });
}

TEST_F(SchedulerRecords, DoNotGoOutWithoutRoomForTheirLastByte) {
    for_each_scheduler_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        const auto sent = sample<Record>();
        const Bytes bytes = encoded(routine, sent);
        for (size_t room = 0; room < bytes.size(); room += 4) {
            Bytes part;
            EXPECT_FALSE(encode(routine, sent, part, room));
        }
    });
}

TEST_F(SchedulerRecords, AreReleasedWholeWhenAnyAllocationOfTheirDecodingFails) {
    for_each_scheduler_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        const Bytes bytes = encoded(routine, sample<Record>());
        Record record;
        bool done = false;
        const auto run = [&] {
            record = {};
            done = decode(routine, bytes, record);
        };
        sim::sweep_allocations(world, run, [&](int) {
            EXPECT_FALSE(done);
            EXPECT_TRUE(release(routine, record));
            EXPECT_EQ(world.live_blocks(), 0u);
        });
        EXPECT_TRUE(done);
        release(routine, record);
    });
}

// Words that say how much follows are believed only as far as it does.
TEST_F(SchedulerRecords, WithAnyWordOutOfItsBoundsNeitherCrashNorLeak) {
    for_each_scheduler_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        const Bytes bytes = encoded(routine, sample<Record>());
        for (size_t place = 0; place + 4 <= bytes.size(); place += 4)
            for (const uint32_t word : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
                const Bytes spoiled = bytes.substr(0, place) + static_cast<const Bytes &>(WireBytes().word(word)) +
                                      bytes.substr(place + 4);
                Record record = {};
                decode(routine, spoiled, record);
                EXPECT_TRUE(release(routine, record));
                ASSERT_EQ(world.live_blocks(), 0u) << place << ": " << word;
            }
    });
}

TEST_F(SchedulerRecords, RequestWhoseFirstWordHasALowByteIsRefusedAtOnce) {
    expect_refused(xdr_sched_get_time_V2_over, request_head(1));
    expect_refused(xdr_sched_get_time_V2_over, request_head(0xFF));
    sched_request_t request = {};
    EXPECT_TRUE(decode(xdr_sched_get_time_V2_over, request_head(0x100), request)) << "higher bytes are not looked at";
    EXPECT_TRUE(release(xdr_sched_get_time_V2_over, request));
}

TEST_F(SchedulerRecords, RequestWithALowByteIsRefusedBeforeItsHandleIsRead) {
    sched_request_t request = {};
    size_t consumed = 0;
    EXPECT_FALSE(decode(xdr_sched_get_time_V2_over, request_head(1), request, &consumed));
    EXPECT_EQ(consumed, 4u);
    EXPECT_EQ(request.handle, nullptr);
}

TEST_F(SchedulerRecords, RequestGoesOutWithAnyWord) {
    const sched_request_t request = {0x55, nullptr};
    EXPECT_EQ(encoded(xdr_sched_get_time_V2_over, request), request_head(0x55));
}

TEST_F(SchedulerRecords, HandleGoesOutAsItsWordAndTheAuthentication) {
    sched_handle handle = {};
    handle.handle_word = 3;
    handle.auth = {1, {1000, 100, 2, {4, 24}}};
    const sched_h_t sent = &handle;
    EXPECT_EQ(encoded(xdr_sched_h_t, sent), WireBytes().word(3).word(1).word(1000).word(100).word(2).word(4).word(24));
}

TEST_F(SchedulerRecords, NullHandlesGoOutAsZeros) {
    EXPECT_EQ(encoded(xdr_sched_h_t, sched_h_t{}), WireBytes().word(0).word(0).word(0).word(0).word(0));
    EXPECT_EQ(encoded(xdr_sched_job_h_t, sched_job_h_t{}), WireBytes().word(0));
    EXPECT_EQ(encoded(xdr_sched_running_job_h_t, sched_running_job_h_t{}), WireBytes().word(0).hyper(0));
}

TEST_F(SchedulerRecords, DecodedHandlesClientAreaIsItsOwnAuthentication) {
    sched_h_t handle = decoded(xdr_sched_h_t, WireBytes().word(3).word(1).word(7).word(8).word(0));
    EXPECT_EQ(handle->handle_word, 3u);
    EXPECT_EQ(handle->client.count, 1);
    EXPECT_EQ(handle->client.auth, &handle->auth);
    EXPECT_EQ(handle->auth.credentials.user, 7u);
    EXPECT_EQ(handle->hostname, nullptr);
    EXPECT_EQ(handle->rvzd_handle, nullptr);
    EXPECT_TRUE(release(xdr_sched_h_t, handle));
    EXPECT_EQ(handle, nullptr);
}

TEST_F(SchedulerRecords, DecodingFillsTheHandleThatIsThere) {
    sched_running_job_handle mine = {1, 2};
    sched_running_job_h_t handle = &mine;
    EXPECT_TRUE(decode(xdr_sched_running_job_h_t, WireBytes().word(5).hyper(6), handle));
    EXPECT_EQ(handle, &mine);
    EXPECT_EQ(mine.job_id, 5u);
    EXPECT_EQ(mine.started, 6);
    EXPECT_FALSE(decode(xdr_sched_running_job_h_t, WireBytes().word(7).word(8), handle));
    EXPECT_EQ(mine.job_id, 5u) << "a handle that is cut leaves the record as it was";
}

TEST_F(SchedulerRecords, TimesThatMeanSomethingElseSurvive) {
    for (const time_t time : {time_t{0}, time_t{SCHED_DATE_NOW}, time_t{-1}}) {
        const sched_sched_lifetime_t sent = {time, time};
        const auto received = decoded(xdr_sched_sched_lifetime_t, encoded(xdr_sched_sched_lifetime_t, sent));
        EXPECT_EQ(received.start_date, time);
        EXPECT_EQ(received.last_date, time);
    }
}

TEST_F(SchedulerRecords, ScheduleOfAKindThatThereIsNotNeitherGoesOutNorComesIn) {
    for (const int32_t kind : {0, 5, -1, INT32_MAX}) {
        sched_schedule_t schedule = {};
        schedule.kind = kind;
        Bytes bytes;
        EXPECT_FALSE(encode(xdr_sched_schedule_t, schedule, bytes)) << kind;
        expect_refused(xdr_sched_schedule_t,
                       WireBytes().word(static_cast<uint32_t>(kind)).hyper(0).hyper(0).hyper(0).hyper(0).hyper(0));
    }
}

TEST_F(SchedulerRecords, MonthlyDayOfAKindThatThereIsNotNeitherGoesOutNorComesIn) {
    const WireBytes common = WireBytes().hyper(0).hyper(0).word(0).word(0).word(0).word(1);
    for (const int32_t kind : {2, -1}) {
        sched_monthly_sched_t monthly = {};
        monthly.day_spec_kind = kind;
        Bytes bytes;
        EXPECT_FALSE(encode(xdr_sched_monthly_sched_t, monthly, bytes)) << kind;
        expect_refused(xdr_sched_monthly_sched_t, WireBytes(common).word(static_cast<uint32_t>(kind)).word(1).word(1));
    }
}

TEST_F(SchedulerRecords, EachKindOfScheduleHasItsArm) {
    const WireBytes common = WireBytes().hyper(1).hyper(2).word(3).word(4).word(5);
    const sched_common_sched_t shared = {{1, 2}, {3, 4, 5}};
    sched_schedule_t schedule = {};
    schedule.kind = SCHED_KIND_MONTHLY;
    schedule.u.monthly = {shared, 6, SCHED_MONTHLY_DAY_NUMBER, {7}};
    EXPECT_EQ(encoded(xdr_sched_schedule_t, schedule),
              WireBytes().word(1).raw(static_cast<const Bytes &>(common)).word(6).word(0).word(7));
    schedule.u.monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
    schedule.u.monthly.day.kind = {2, 8};
    EXPECT_EQ(encoded(xdr_sched_schedule_t, schedule),
              WireBytes().word(1).raw(static_cast<const Bytes &>(common)).word(6).word(1).word(2).word(8));
    schedule.kind = SCHED_KIND_WEEKLY;
    schedule.u.weekly = {shared, 6, 0x41};
    EXPECT_EQ(encoded(xdr_sched_schedule_t, schedule),
              WireBytes().word(2).raw(static_cast<const Bytes &>(common)).word(6).word(0x41));
    schedule.kind = SCHED_KIND_DAILY;
    schedule.u.daily = {shared, 6};
    EXPECT_EQ(encoded(xdr_sched_schedule_t, schedule),
              WireBytes().word(3).raw(static_cast<const Bytes &>(common)).word(6));
    schedule.kind = SCHED_KIND_SEQUENTIAL;
    schedule.u.sequential.follows_job = 11;
    EXPECT_EQ(encoded(xdr_sched_schedule_t, schedule), WireBytes().word(4).word(11));
}

TEST_F(SchedulerRecords, JobWithoutArgumentsAndNotificationsSendsCountsAlone) {
    auto job = bare_job();
    job.task = 5;
    job.run_control.max_run_time = 60;
    job.delete_when_completed = 1;
    EXPECT_EQ(encoded(xdr_sched_job_rw_properties_t, job),
              WireBytes().word(0).word(0).word(4).word(9).word(5).word(0).word(60).word(1).word(0));
}

TEST_F(SchedulerRecords, CountsTravelOnceAheadOfTheirElements) {
    char name[] = "n";
    char argument[] = "a";
    char *arguments[] = {argument, argument};
    char recipient[] = "r";
    char *recipients[] = {recipient};
    sched_notify_info_t notifications[] = {{0x2, 0x1, 1, recipients}, {0x4, 0x1, 0, nullptr}};
    auto job = bare_job();
    job.name = name;
    job.arg_count = 2;
    job.args = arguments;
    job.notify_count = 2;
    job.notify = notifications;
    EXPECT_EQ(encoded(xdr_sched_job_rw_properties_t, job), WireBytes()
                                                               .text("n")
                                                               .text("")
                                                               .word(4)
                                                               .word(9)
                                                               .word(0)
                                                               .word(2)
                                                               .text("a")
                                                               .text("a")
                                                               .word(0)
                                                               .word(0)
                                                               .word(2)
                                                               .word(0x2)
                                                               .word(0x1)
                                                               .word(1)
                                                               .text("r")
                                                               .word(0x4)
                                                               .word(0x1)
                                                               .word(0));
}

TEST_F(SchedulerRecords, RecordWhoseScheduleWasNeverGivenIsReleasedWhole) {
    sched_job_rw_properties_t job = {};
    job.name = stg_strdup("name");
    job.arg_count = 1;
    job.args = static_cast<char **>(stg_malloc(sizeof(char *)));
    job.args[0] = stg_strdup("argument");
    job.notify_count = 1;
    job.notify = static_cast<sched_notify_info_t *>(stg_malloc(sizeof(sched_notify_info_t)));
    job.notify[0] = {};
    EXPECT_TRUE(release(xdr_sched_job_rw_properties_t, job));
    EXPECT_EQ(world.live_blocks(), 0u);
    job.schedule.kind = SCHED_KIND_MONTHLY;
    job.schedule.u.monthly.day_spec_kind = 7;
    job.description = stg_strdup("text");
    job.notify_count = 0;
    job.arg_count = 1;
    job.args = static_cast<char **>(stg_malloc(sizeof(char *)));
    job.args[0] = stg_strdup("argument");
    EXPECT_TRUE(release(xdr_sched_job_rw_properties_t, job));
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(SchedulerRecords, ApplicationPermissionsSendTheirCountAheadOfTheStatus) {
    uint32_t count = 1;
    strutl_flag_item_t item = {"read", 4};
    strutl_flag_item_t *items = &item;
    tbs_acl_generic_map_t map = {5, 6};
    const sched_app_perms_reply_t reply = {1063, &count, &items, &map};
    EXPECT_EQ(encoded(xdr_sched_get_app_perms_V2_back, reply),
              WireBytes().word(1).word(1).word(1063).text("read").word(4).word(1).word(5).word(6));
}

TEST_F(SchedulerRecords, AbsentCountIsZeroAndAnAbsentObjectIsThereAllTheSame) {
    auto jobs = decoded(xdr_sched_get_jobs_V2_back, WireBytes().word(1063).word(0));
    EXPECT_EQ(jobs.count, nullptr);
    ASSERT_NE(jobs.jobs, nullptr);
    EXPECT_EQ(*jobs.jobs, nullptr);
    release(xdr_sched_get_jobs_V2_back, jobs);
    auto created = decoded(xdr_sched_job_create_V2_back, WireBytes().word(1063).word(0).word(0));
    ASSERT_NE(created.job, nullptr);
    EXPECT_EQ(*created.job, nullptr);
    ASSERT_NE(created.err_mask, nullptr);
    EXPECT_EQ(*created.err_mask, 0u);
    release(xdr_sched_job_create_V2_back, created);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(SchedulerRecords, TextWithAZeroByteInsideIsRefused) {
    expect_refused(xdr_sched_task_name_to_id_V2_over,
                   WireBytes(request_head()).word(4).raw(std::string_view("a\0bc", 4)));
}

TEST_F(SchedulerRecords, TextsHaveNoMaximum) {
    constexpr size_t size = 1 << 20;
    const std::string text(size, 'x');
    sched_task_name_reply_t reply = {0, 0, const_cast<char *>(text.c_str())};
    Bytes bytes;
    ASSERT_TRUE(encode(xdr_sched_task_id_to_name_V2_back, reply, bytes, 2 * size));
    auto received = decoded(xdr_sched_task_id_to_name_V2_back, bytes);
    EXPECT_EQ(received.name, text);
    release(xdr_sched_task_id_to_name_V2_back, received);
}

TEST_F(SchedulerRecords, NegativeCountOfRecipientsIsRefused) {
    expect_refused(xdr_sched_notify_info_t, WireBytes().word(2).word(1).word(0xFFFFFFFF).text("r"));
    sched_notify_info_t notification = {2, 1, -1, nullptr};
    Bytes bytes;
    EXPECT_FALSE(encode(xdr_sched_notify_info_t, notification, bytes));
}

TEST_F(SchedulerRecords, IdTextsAreSixtyFourWords) {
    sched_job_id_str_t text = "42";
    Bytes bytes;
    EXPECT_TRUE(encode(xdr_sched_job_id_str_t, text, bytes));
    EXPECT_EQ(bytes, WireBytes().word('4').word('2').repeated(62 * 4, '\0'));
    sched_task_id_str_t received = {};
    size_t consumed = 0;
    EXPECT_TRUE(decode(xdr_sched_task_id_str_t, bytes, received, &consumed));
    EXPECT_EQ(consumed, 256u);
    EXPECT_STREQ(received, "42");
}

TEST_F(SchedulerRecords, ExportedRoutinesThatDoNothingDoNothing) {
    sched_xdr_makeprocs();
    sched_xdr_freeprocs();
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST(SchedulerProcedures, HaveTheirNumbers) {
    std::map<std::string, uint32_t> numbers;
    velia::for_each_scheduler_procedure([&](const auto &row) { numbers[row.name] = row.number; });
    const std::map<std::string, uint32_t> expected = {{"sched_get_jobs", 36},
                                                      {"sched_has_info_changed", 37},
                                                      {"sched_get_tasks", 38},
                                                      {"sched_get_acl", 39},
                                                      {"sched_set_acl", 40},
                                                      {"sched_job_create", 41},
                                                      {"sched_job_delete", 42},
                                                      {"sched_job_lookup_by_id", 43},
                                                      {"sched_job_get_properties", 44},
                                                      {"sched_job_set_properties", 45},
                                                      {"sched_job_has_info_changed", 46},
                                                      {"sched_rjob_get_handle", 47},
                                                      {"sched_rjob_get_completion_info", 48},
                                                      {"sched_rjob_run_job", 49},
                                                      {"sched_rjob_terminate", 50},
                                                      {"sched_job_lookup_by_name", 51},
                                                      {"sched_task_exists", 52},
                                                      {"sched_task_name_to_id", 53},
                                                      {"sched_check_acc", 54},
                                                      {"sched_task_id_to_name", 55},
                                                      {"sched_get_app_perms", 56},
                                                      {"sched_get_time", 58},
                                                      {"sched_contact", 59},
                                                      {"sched_job_create_utc", 68},
                                                      {"sched_job_get_properties_utc", 69},
                                                      {"sched_job_set_properties_utc", 70}};
    EXPECT_EQ(numbers, expected);
}

template <size_t Count>
std::vector<std::pair<int, std::string>> rows_of(const sched_str_map_t (&map)[Count]) {
    std::vector<std::pair<int, std::string>> rows;
    for (const auto &row : map)
        rows.emplace_back(row.value, row.text);
    return rows;
}

template <size_t Count>
std::vector<std::pair<std::string, uint32_t>> rows_of(const strutl_flag_item_t (&table)[Count]) {
    std::vector<std::pair<std::string, uint32_t>> rows;
    for (const auto &row : table)
        rows.emplace_back(row.name, row.value);
    return rows;
}

TEST(SchedulerMaps, SayWhatValuesAreCalled) {
    EXPECT_THAT(rows_of(mds_ordinal_str_map),
                testing::ElementsAre(std::pair(0, "<uninitialized>"), std::pair(1, "First"), std::pair(2, "Second"),
                                     std::pair(3, "Third"), std::pair(4, "Fourth"), std::pair(5, "Last"),
                                     std::pair(6, "<unrecognized>")));
    EXPECT_THAT(rows_of(mds_kind_str_map),
                testing::ElementsAre(std::pair(0, "<uninitialized>"), std::pair(1, "Mon"), std::pair(2, "Tue"),
                                     std::pair(3, "Wed"), std::pair(4, "Thu"), std::pair(5, "Fri"), std::pair(6, "Sat"),
                                     std::pair(7, "Sun"), std::pair(8, "Weekday"), std::pair(9, "Weekendday"),
                                     std::pair(10, "Day"), std::pair(11, "<unrecognized>")));
    EXPECT_THAT(rows_of(dow_flags),
                testing::ElementsAre(std::pair("Mon", 0x1u), std::pair("Tue", 0x2u), std::pair("Wed", 0x4u),
                                     std::pair("Thu", 0x8u), std::pair("Fri", 0x10u), std::pair("Sat", 0x20u),
                                     std::pair("Sun", 0x40u)));
    EXPECT_THAT(rows_of(event_mask_flags),
                testing::ElementsAre(std::pair("<none>", 0u), std::pair("JobBegin", 0x2u), std::pair("JobEndOK", 0x4u),
                                     std::pair("JobEndOKWithMsgs", 0x8u), std::pair("JobEndFail", 0x10u),
                                     std::pair("JobDeleted", 0x20u), std::pair("JobModified", 0x40u)));
    EXPECT_THAT(rows_of(delivery_mask_flags), testing::ElementsAre(std::pair("<none>", 0u), std::pair("email", 0x1u)));
}

} // namespace
