// Lists of jobs made in rounds of the loop: whole, in turn, and within their bounds.
#include <server/scheduler/job_lister.h>

#include <optional>

#include <gtest/gtest.h>

using namespace velia::server;

namespace {

constexpr Sender anna = {{1, 0}, 1};
constexpr Sender ben = {{2, 0}, 1};
const MessageBytes head = {9, 9, 9, 9, 0, 0, 0, 0};

size_t bytes_of_a_job = 4;

bool encode(XDR &stream, const Job &job) {
    uint32_t id = job.row.id;
    std::string rest(bytes_of_a_job - 4, 'x');
    return id != 4711 && xdr_u_int(&stream, &id) != FALSE &&
           xdr_opaque(&stream, rest.data(), static_cast<u_int>(rest.size())) != FALSE;
}

struct JobLists : testing::Test {
    JobLists() {
        bytes_of_a_job = 4;
        uv_loop_init(&loop);
        lister.emplace(&loop, jobs, encode);
    }
    ~JobLists() override {
        lister.reset();
        uv_run(&loop, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
    }
    void add_jobs(sched_job_id_t count) {
        sched_job_utc_rw_props_t props = {};
        char name[] = "job";
        props.rw.name = name;
        props.rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        JobRow row;
        row.body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
        for (sched_job_id_t i = 0; i < count; ++i) {
            ++row.id;
            ASSERT_TRUE(jobs.add(row));
        }
    }
    bool make(const Sender &sender, std::optional<MessageBytes> &into) {
        return lister->make(sender, head, [&into](MessageBytes message) { into = std::move(message); });
    }
    void run_until_made(const std::optional<MessageBytes> &message) {
        while (!message)
            uv_run(&loop, UV_RUN_NOWAIT);
    }

    uv_loop_t loop;
    Jobs jobs;
    std::optional<JobLister> lister;
};

uint32_t word_at(const MessageBytes &bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i)
        word = word << 8 | bytes[at + i];
    return word;
}

} // namespace

TEST_F(JobLists, HaveTheirHeadTheCountAndEachJobInOrder) {
    add_jobs(1000);
    std::optional<MessageBytes> made;
    ASSERT_TRUE(make(anna, made));
    EXPECT_FALSE(made);
    run_until_made(made);
    ASSERT_EQ(made->size(), head.size() + 4 * 1000);
    EXPECT_EQ(word_at(*made, 0), 0x09090909U);
    EXPECT_EQ(word_at(*made, 4), 1000U);
    for (uint32_t i = 0; i < 1000; ++i)
        ASSERT_EQ(word_at(*made, head.size() + 4 * i), i + 1);
}

TEST_F(JobLists, OfNoJobsAreTheirHead) {
    std::optional<MessageBytes> made;
    ASSERT_TRUE(make(anna, made));
    run_until_made(made);
    EXPECT_EQ(*made, head);
}

TEST_F(JobLists, LeaveOutWhatGoesMeanwhileAndTakeWhatComes) {
    add_jobs(200);
    std::optional<MessageBytes> made;
    ASSERT_TRUE(make(anna, made));
    uv_run(&loop, UV_RUN_NOWAIT);
    jobs.remove(200);
    jobs.remove(199);
    jobs.remove(1); // which is in it already
    JobRow row = jobs.all().begin()->second.row;
    row.id = 300;
    ASSERT_TRUE(jobs.add(row));
    run_until_made(made);
    EXPECT_EQ(word_at(*made, 4), 199U);
    for (uint32_t i = 0; i < 198; ++i)
        ASSERT_EQ(word_at(*made, head.size() + 4 * i), i + 1);
    EXPECT_EQ(word_at(*made, made->size() - 4), 300U);
}

TEST_F(JobLists, AreMadeInTurn) {
    add_jobs(1000);
    std::optional<MessageBytes> first;
    std::optional<MessageBytes> second;
    std::optional<MessageBytes> of_ben;
    ASSERT_TRUE(make(anna, first));
    ASSERT_TRUE(make(anna, second));
    ASSERT_TRUE(make(ben, of_ben));
    uv_run(&loop, UV_RUN_NOWAIT);
    EXPECT_FALSE(first) << "of which a round makes a part";
    run_until_made(of_ben);
    EXPECT_FALSE(second) << "whose maker has two waits for himself";
    run_until_made(second);
    EXPECT_TRUE(first);
    EXPECT_EQ(*first, *of_ben);
    EXPECT_EQ(*second, *of_ben);
}

TEST_F(JobLists, AreRefusedBeyondTheSendersShare) {
    add_jobs(100);
    std::optional<MessageBytes> made;
    ASSERT_TRUE(make(anna, made));
    ASSERT_TRUE(make(anna, made));
    EXPECT_FALSE(make(anna, made));
    std::optional<MessageBytes> of_ben;
    EXPECT_TRUE(make(ben, of_ben));
    run_until_made(of_ben);
    run_until_made(made);
}

TEST_F(JobLists, AreGivenUpWhereTheyBecomeTooLong) {
    add_jobs(260);
    bytes_of_a_job = 250000;
    std::optional<MessageBytes> made;
    ASSERT_TRUE(make(anna, made));
    run_until_made(made);
    EXPECT_TRUE(made->empty());
}

TEST_F(JobLists, AreGivenUpWhereAJobCannotBeSent) {
    add_jobs(1);
    JobRow row = jobs.all().begin()->second.row;
    row.id = 4711;
    ASSERT_TRUE(jobs.add(row));
    std::optional<MessageBytes> made;
    ASSERT_TRUE(make(anna, made));
    run_until_made(made);
    EXPECT_TRUE(made->empty());
}
