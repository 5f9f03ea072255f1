// The scheduler's client over real connections, with a peer that answers by a script: every call, every reply cut and
// refused, a peer that is silent or goes, and a job whose run never ends.
#include <gmock/gmock.h>

#include <thread>

#include <support/imsg.h>
#include <support/ks.h>
#include <tests/system/support/scripted_broker.h>
#include <tests/system/support/site.h>
#include <tests/unit/sched/every_call.h>
#include <tests/unit/sched/job.h>
#include <veliaxdr/sched_run.h>

using namespace velia::system_test;
using testing::HasSubstr;
using wire_tests::Case;
namespace row = velia::procedures;

namespace {

using Results = std::map<uint32_t, std::string>;

template <class Reply>
std::string results_of(bool_t (*routine)(XDR *, Reply *), const Reply &reply) {
    std::string bytes;
    EXPECT_TRUE(wire_tests::encode(routine, reply, bytes));
    return bytes;
}

std::string contact_results(uint32_t interface_version, tbs_status_t status = TBS_ST_OK) {
    uint32_t second = 9;
    return results_of(row::sched_contact.xdr_reply, {status, &interface_version, &second});
}

// A sample for each procedure, and what the broker's handle asks first.
Results good_results(wire_tests::Sampler &sampler) {
    Results results;
    velia::for_each_scheduler_procedure([&]<class Request, class Reply>(const velia::Procedure<Request, Reply> &each) {
        Reply reply = {};
        fill(sampler, reply);
        reply.status = TBS_ST_OK;
        results[each.number] = results_of(each.xdr_reply, reply);
    });
    results[RVZD_PROC_SCHED_CONTACT] = contact_results(SCHED_INTERFACE_VERSION);
    rvzd_contact_reply_t contact = {};
    contact.protocol_version = RVZD_PROTOCOL_CURRENT;
    results[RVZD_PROC_CONTACT] = results_of(xdr_rvzd_contact_reply_t, contact);
    return results;
}

// What stands behind the header of a call and its credentials.
std::string arguments_of(const std::string &request) {
    constexpr size_t fixed_bytes = 40;
    constexpr size_t credentials_length_word = 7;
    const size_t credentials = velia::hostile::word_of(request, credentials_length_word);
    return request.size() < fixed_bytes + credentials ? "" : request.substr(fixed_bytes + credentials);
}

class SchedulerPeer : public testing::Test, protected wire_tests::EveryCall {
protected:
    SchedulerPeer() : peer(RVZD_PROTOCOL_TCP, good_results(sampler)) {
        site.write("config/services.conf", "rvzd " + std::to_string(peer.port()) + "\n");
        site.write("config/hosts.conf", "alpha 127.0.0.1\npeer 127.0.0.1\n");
        imsg_set_sink([](void *self, int, const char *, const imsg_table_t *, int,
                         const char *text) { static_cast<SchedulerPeer *>(self)->told += text; },
                      this);
    }
    ~SchedulerPeer() override {
        sched_free_handle(&scheduler);
        imsg_set_sink(nullptr, nullptr);
    }

    void open() { ASSERT_EQ(sched_get_handle("peer", &scheduler), TBS_ST_OK) << told; }

    tbs_status_t run(const Case &each) {
        out = {};
        told.clear();
        return each.call(scheduler, true);
    }

    // As each of the calls it fails once, is told under the stub's name, and leaves the outputs alone.
    void expect_failure_at_each_call(const Spoiling &spoiling) {
        for (const Case &each : cases()) {
            SCOPED_TRACE(each.name);
            peer.spoil(each.procedure, spoiling);
            EXPECT_EQ(run(each), TBS_ST_RPC_FAILED);
            EXPECT_EQ(peer.asked(), 1u);
            EXPECT_THAT(told, HasSubstr(std::string(each.name) + "_V2"));
            const wire_tests::Outputs untouched = {};
            EXPECT_EQ(memcmp(&out, &untouched, sizeof out), 0);
        }
    }

    Site site;
    wire_tests::Sampler sampler{20261122};
    std::string told;
    ScriptedBroker peer;
    sched_h_t scheduler = nullptr;
};

TEST_F(SchedulerPeer, IsAskedByEachCallAndItsAnswerTaken) {
    open();
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(run(each), TBS_ST_OK);
        each.release(scheduler);
        EXPECT_EQ(told, "");
    }
    velia::for_each_scheduler_procedure([&]<class Request, class Reply>(const velia::Procedure<Request, Reply> &each) {
        SCOPED_TRACE(each.name);
        const std::string sent_bytes = arguments_of(peer.request(each.number));
        Request request = {};
        ASSERT_TRUE(wire_tests::decode(each.xdr_request, sent_bytes, request));
        EXPECT_EQ(results_of(each.xdr_request, request), sent_bytes);
        wire_tests::release(each.xdr_request, request);
    });
}

TEST_F(SchedulerPeer, GivesAListOfJobsAsItHasIt) {
    open();
    sched_get_jobs_reply_t reply = {};
    do
        fill(sampler, reply);
    while (*reply.count < 2);
    peer.answer(RVZD_PROC_SCHED_GET_JOBS, results_of(row::sched_get_jobs.xdr_reply, reply));
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    ASSERT_EQ(sched_get_jobs(scheduler, &count, &jobs), reply.status);
    ASSERT_EQ(count, *reply.count);
    for (uint32_t i = 0; i < count; ++i)
        EXPECT_EQ(results_of(xdr_sched_job_properties_t, jobs[i]),
                  results_of(xdr_sched_job_properties_t, (*reply.jobs)[i]));
    sched_free_jobs(scheduler, count, &jobs);
}

TEST_F(SchedulerPeer, OfAnotherInterfaceVersionIsUnsupported) {
    for (const uint32_t version : {0u, 2u, 0x80000001u}) {
        peer.answer(RVZD_PROC_SCHED_CONTACT, contact_results(version));
        EXPECT_EQ(sched_get_handle("peer", &scheduler), TBS_ST_UNSUPPORTED) << version;
        EXPECT_EQ(scheduler, nullptr);
        EXPECT_EQ(told, "");
    }
}

TEST_F(SchedulerPeer, ThatRefusesTheFirstWordsIsTold) {
    peer.answer(RVZD_PROC_SCHED_CONTACT, contact_results(SCHED_INTERFACE_VERSION, TBS_ST_NO_ACCESS));
    EXPECT_EQ(sched_get_handle("peer", &scheduler), TBS_ST_NO_ACCESS);
    EXPECT_EQ(scheduler, nullptr);
    EXPECT_THAT(told, HasSubstr("sched_contact"));
}

TEST_F(SchedulerPeer, WhoseReplyIsCutAnywhereIsAFailureOfTheCall) {
    open();
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        const size_t whole = peer.reply_bytes(each.procedure);
        for (size_t cut = ScriptedBroker::reply_header_bytes; cut < whole; ++cut) {
            peer.spoil(each.procedure, {Spoiling::Kind::cut, cut, 0});
            ASSERT_EQ(run(each), TBS_ST_RPC_FAILED) << cut;
        }
        peer.spoil(each.procedure, {});
        EXPECT_EQ(run(each), TBS_ST_OK) << "the next call is none the worse for it";
        each.release(scheduler);
    }
}

TEST_F(SchedulerPeer, WithAnyWordOfAReplyOutOfItsBoundsDoesNoHarm) {
    open();
    for (const Case &each : cases())
        for (size_t word = ScriptedBroker::reply_header_bytes / ScriptedBroker::word_bytes;
             word < peer.reply_bytes(each.procedure) / ScriptedBroker::word_bytes; ++word)
            for (const uint32_t value : {0u, 0x7fffffffu, 0xffffffffu}) {
                peer.spoil(each.procedure, {Spoiling::Kind::word, word, value});
                run(each);
                each.release(scheduler);
                EXPECT_EQ(peer.asked(), 1u) << each.name << ' ' << word;
            }
}

// As a broker without a scheduler does, and one that finds something wrong with the call.
TEST_F(SchedulerPeer, WithoutTheProcedureFailsEachCall) {
    constexpr size_t outcome_word = 5;
    open();
    for (const uint32_t outcome : {PROG_UNAVAIL, PROC_UNAVAIL, GARBAGE_ARGS, SYSTEM_ERR})
        expect_failure_at_each_call({Spoiling::Kind::word, outcome_word, outcome});
}

TEST_F(SchedulerPeer, ThatHangsUpFailsEachCall) {
    open();
    expect_failure_at_each_call({Spoiling::Kind::hung_up, 0, 0});
}

TEST_F(SchedulerPeer, ThatIsSilentFailsEachCallAfterTheSchedulersTimeOut) {
    open();
    sched_change_timeout(nullptr, 0, 20'000);
    expect_failure_at_each_call({Spoiling::Kind::unanswered, 0, 0});
}

// A job that always runs: the first look finds it, and the caller is held until something ends the looking.
class EndlessRun : public SchedulerPeer {
protected:
    EndlessRun() {
        uint32_t task = 7;
        peer.answer(RVZD_PROC_SCHED_TASK_NAME_TO_ID,
                    results_of(row::sched_task_name_to_id.xdr_reply, {TBS_ST_OK, &task}));
        Job job;
        sched_job_properties_t properties = {};
        properties.rw = job.rw;
        properties.ro.running_status.started = 5;
        peer.answer(RVZD_PROC_SCHED_JOB_GET_PROPERTIES,
                    results_of(row::sched_job_get_properties.xdr_reply, {TBS_ST_OK, &properties}));
        peer.spoil(RVZD_PROC_SCHED_JOB_GET_PROPERTIES, {}); // counts the looks
    }

    tbs_status_t run_now() { return sched_utl_run_job_now("peer", "build", "by hand", nullptr, 0); }

    void expect_given_up() {
        EXPECT_THAT(told, HasSubstr("Job is running on host (\"peer\")"));
        EXPECT_THAT(told, HasSubstr("Too many failures"));
        EXPECT_EQ(peer.request(RVZD_PROC_SCHED_JOB_DELETE), "") << "the job is left at the scheduler";
        EXPECT_GE(peer.asked(), 1u);
    }
};

TEST_F(EndlessRun, EndsWithTheThreadsLimit) {
    constexpr int64_t limit_ms = 1500;
    ks_set_deadline(limit_ms);
    EXPECT_EQ(run_now(), TBS_ST_RPC_FAILED);
    ks_set_deadline(-1);
    expect_given_up();
}

TEST_F(EndlessRun, EndsWhenItsThreadIsInterrupted) {
    ks_interrupt_t *interrupter = ks_interrupt_open();
    std::thread other([&] {
        EXPECT_TRUE(eventually([&] { return peer.asked() > 0; }));
        ks_interrupt(interrupter);
    });
    EXPECT_EQ(run_now(), TBS_ST_RPC_FAILED);
    other.join();
    ks_interrupt_close(interrupter);
    expect_given_up();
}

TEST_F(EndlessRun, EndsWhenThePeerIsGone) {
    std::thread other([&] {
        EXPECT_TRUE(eventually([&] { return peer.asked() > 0; }));
        peer.spoil(RVZD_PROC_SCHED_JOB_GET_PROPERTIES, {Spoiling::Kind::hung_up, 0, 0});
    });
    EXPECT_EQ(run_now(), TBS_ST_RPC_FAILED);
    other.join();
    expect_given_up();
}

} // namespace
