// The scheduler behind its procedures, in one process: what is under way at once is in the hand of the test, which lets
// the thread and the loop go on.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <server/scheduler/procedures.h>

namespace server_tests {

using namespace velia::server;
using velia::Procedure;
namespace procedures = velia::procedures;

// Administrator is who is known as the superuser.
class AdministratorsGuard : public Guard {
public:
    bool permits(const Demand &demand, const Caller &caller) const override {
        return demand.procedure != RVZD_PROC_SCHED_SET_ACL || (caller.known && caller.known->uid == 0);
    }
};
inline const AdministratorsGuard administrators_guard;

// A job as a client makes it, that is due in no test by itself.
struct DoorJob {
    explicit DoorJob(std::string of_name) : name(std::move(of_name)) {
        rw.schedule.kind = SCHED_KIND_DAILY;
        rw.schedule.u.daily.frequency = 1;
        rw.schedule.u.daily.common.lifetime.start_date = 4102444800; // in the year 2100
        rw.schedule.u.daily.common.start_times.first_start_time = SCHED_TIME_NOT_GIVEN;
        rw.task = 1;
    }
    DoorJob &after(sched_job_id_t followed) {
        rw.schedule = {};
        rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        rw.schedule.u.sequential.follows_job = followed;
        return *this;
    }
    // Of which no start is left, and which goes with its last run.
    DoorJob &completed() {
        rw.schedule.u.daily.common.lifetime = {86400, 86400};
        rw.delete_when_completed = 1;
        return *this;
    }
    sched_job_rw_properties_t *record() {
        rw.name = name.data();
        return &rw;
    }

    std::string name;
    sched_job_rw_properties_t rw = {};
};

class SchedulerDoor : public testing::Test {
protected:
    struct Answered {
        tbs_status_t status = TBS_ST_OK;
        uint32_t err_mask = 0;
        sched_job_id_t job = 0;
        uint64_t set = 0;
        uint64_t state = 0;
    };
    using Awaited = std::shared_ptr<std::optional<Answered>>;

    using Opening = std::function<void(Scheduler &)>;
    static void open_file(Scheduler &scheduler) { scheduler.open(); }

    explicit SchedulerDoor(Opening opening = open_file) : opening_(std::move(opening)) {
        setenv("VELIA_ROOT", root_.path.c_str(), 1);
        std::ofstream(root_.path / "host/priv/.here").flush();
        std::filesystem::permissions(root_.path / "host/priv", std::filesystem::perms::owner_all);
        reopen();
    }
    ~SchedulerDoor() override { close(); }

    // As the next daemon would.
    void reopen() {
        close();
        uv_loop_init(&loop_);
        scheduler_ = std::make_unique<Scheduler>(&loop_);
        procedures_ = std::make_unique<SchedulerProcedures>(*scheduler_, administrators_guard);
        opening_(*scheduler_);
        ASSERT_TRUE(scheduler_->is_open());
    }

    template <class Request, class Record>
    Awaited ask(const Procedure<Request, Record> &procedure, Request request) {
        const auto answered = std::make_shared<std::optional<Answered>>();
        const ReplySink sink = [answered, &procedure](const MessageBytes &reply) {
            *answered = decoded<Record>(reply, procedure.reply_routine());
        };
        std::vector<char> bytes(65536);
        XDR stream;
        xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_ENCODE);
        EXPECT_TRUE(procedure.request_routine()(&stream, &request));
        xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
        for (const auto &row : procedures_->rows())
            if (row.number == procedure.number) {
                EXPECT_TRUE(row.run(row.owner, stream, {1, caller_, sink, &administrators_guard}));
            }
        return answered;
    }
    Answered await(const Awaited &answered) {
        while (!*answered)
            uv_run(&loop_, UV_RUN_ONCE);
        return **answered;
    }

    Awaited create(DoorJob job) { return ask(procedures::sched_job_create, {{}, job.record()}); }
    Awaited change(sched_job_id_t id, DoorJob job) {
        sched_job_handle handle = {id};
        return ask(procedures::sched_job_set_properties, {{}, &handle, job.record()});
    }
    Awaited run(sched_job_id_t id) {
        sched_job_handle handle = {id};
        return ask(procedures::sched_rjob_run_job, {{}, &handle});
    }
    sched_job_id_t created(const DoorJob &job) {
        const auto answered = await(create(job));
        EXPECT_EQ(answered.status, TBS_ST_OK);
        return answered.job;
    }

    // What has been asked for is done in the thread, and told to nobody. One sender's work is done in its order.
    void let_thread_work() {
        std::promise<void> has_come_so_far;
        EXPECT_TRUE(scheduler_->ask(
            sender_of(caller_), [&](JobStore & /*store*/) { has_come_so_far.set_value(); }, [](tbs_status_t) {}));
        has_come_so_far.get_future().wait();
    }
    // Until nothing is under way.
    void settle() {
        for (int i = 0; i < 4; ++i) {
            bool has_come_so_far = false;
            scheduler_->ask(
                sender_of(caller_), [](JobStore & /*store*/) {}, [&](tbs_status_t) { has_come_so_far = true; });
            while (!has_come_so_far)
                uv_run(&loop_, UV_RUN_ONCE);
        }
    }
    // The thread waits until it is let.
    std::promise<void> hold_thread() {
        auto is_held = std::make_shared<std::promise<void>>();
        std::promise<void> let;
        scheduler_->ask(
            sender_of(caller_),
            [is_held, until = std::make_shared<std::future<void>>(let.get_future())](JobStore & /*store*/) {
                is_held->set_value();
                until->wait();
            },
            [](tbs_status_t) {});
        is_held->get_future().wait();
        return let;
    }

    // Who calls from now on: this user of the host, or with none a stranger.
    void call_as(std::optional<uid_t> uid) {
        caller_.known = uid ? std::optional(KnownCaller{500, *uid, *uid}) : std::nullopt;
    }
    void let_everybody_do_all() {
        char nobody[] = "";
        tbs_acl_entry_t everyone = {TBS_ACL_EVERYONE, nobody, ~tbs_acl_permission_set_t{0}};
        tbs_acl_t list = {1, &everyone};
        tbs_acl_h_t handle = &list;
        scheduler_->access().take(xdr_bytes(xdr_tbs_acl_h_t, handle));
    }

    Jobs &jobs() { return scheduler_->jobs(); }
    uv_loop_t *loop() { return &loop_; }

private:
    template <class Record>
    static Answered decoded(const MessageBytes &reply, xdrproc_t routine) {
        constexpr size_t reply_message_bytes = 24; // in front of the results
        std::vector<char> bytes(reply.begin() + reply_message_bytes, reply.end());
        XDR stream;
        xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
        Record record = {};
        EXPECT_TRUE(routine(&stream, &record));
        Answered answered;
        answered.status = record.status;
        if constexpr (requires { record.err_mask; })
            answered.err_mask = record.err_mask != nullptr ? *record.err_mask : 0;
        if constexpr (requires { record.set; })
            answered.set = record.set;
        if constexpr (requires { record.state; })
            answered.state = record.state;
        if constexpr (requires { (*record.job)->job_id; })
            answered.job = record.job != nullptr && *record.job != nullptr ? (*record.job)->job_id : 0;
        xdr_free(routine, reinterpret_cast<char *>(&record));
        return answered;
    }

    void close() {
        if (!scheduler_)
            return;
        scheduler_->stop();
        procedures_.reset();
        scheduler_.reset();
        uv_run(&loop_, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop_), 0);
    }

    static Caller local_caller() {
        Caller caller;
        caller.transport = RVZD_PROTOCOL_TCP;
        caller.peer.ipv4.sin_family = caller.local.ipv4.sin_family = AF_INET;
        caller.peer.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        caller.known = KnownCaller{500, 0, 0};
        return caller;
    }

    struct Root {
        Root() {
            std::string name = (std::filesystem::temp_directory_path() / "velia-door-XXXXXX").string();
            path = mkdtemp(name.data());
            std::filesystem::create_directories(path / "host/priv");
        }
        ~Root() { std::filesystem::remove_all(path); }
        std::filesystem::path path;
    } root_;
    const Opening opening_;
    uv_loop_t loop_ = {};
    Caller caller_ = local_caller();
    std::unique_ptr<Scheduler> scheduler_;
    std::unique_ptr<SchedulerProcedures> procedures_;
};

} // namespace server_tests
