// A list of 10,000 jobs decoded and released, against the same bytes copied (with and without the allocations that the
// jobs need) and against XDR written by hand for these records; a job checked and printed.
#include <bench/support/answering_peer.h>
#include <bench/support/check.h>
#include <bench/support/ratio.h>
#include <bench/support/scheduler_results.h>
#include <bench/support/usual_job.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <support/imsg.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_print.h>
#include <veliaxdr/sched_tasks.h>
#include <veliaxdr/sched_wire.h>

namespace {

using bench::check;
using bench::text;

constexpr uint32_t job_count = 10000;

std::vector<char> wire_bytes;
std::vector<size_t> blocks; // the sizes of what decoding allocates

// One that has run.
sched_job_properties_t one_job() {
    sched_job_properties_t job = {};
    job.rw = bench::usual_job();
    job.ro.job_id = 17;
    job.ro.next_run_time = 1700003600;
    job.ro.created = job.ro.last_modified = {text("marian"), text(""), text("build7"), 1700000000};
    job.ro.running_status.process_id = text("");
    job.ro.last_completion = {text("4711"), 1700000000, 1700000060, 0, text("")};
    return job;
}

void make_reply() {
    std::vector<sched_job_properties_t> jobs(job_count, one_job());
    sched_job_properties_t *array = jobs.data();
    uint32_t count = job_count;
    sched_get_jobs_reply_t reply = {TBS_ST_OK, &count, &array};
    wire_bytes.resize(size_t{job_count} * 1024);
    XDR xdrs;
    xdrmem_create(&xdrs, wire_bytes.data(), static_cast<u_int>(wire_bytes.size()), XDR_ENCODE);
    check(xdr_sched_get_jobs_V2_back(&xdrs, &reply), "encoding");
    wire_bytes.resize(xdr_getpos(&xdrs));
}

void list_blocks() {
    const sched_job_properties_t job = one_job();
    blocks = {sizeof(uint32_t), sizeof(void *), sizeof(sched_job_properties_t) * job_count};
    for (uint32_t i = 0; i < job_count; ++i) {
        for (const char *each :
             {job.rw.name, job.rw.description, job.rw.args[0], job.rw.args[1], job.rw.notify->recipients[0],
              job.ro.created.who, job.ro.created.who_extra, job.ro.created.where, job.ro.last_modified.who,
              job.ro.last_modified.who_extra, job.ro.last_modified.where, job.ro.running_status.process_id,
              job.ro.last_completion.process_id, job.ro.last_completion.messages})
            blocks.push_back(strlen(each) + 1);
        blocks.insert(blocks.end(), {2 * sizeof(char *), sizeof(char *), sizeof(sched_notify_info_t)});
    }
}

XDR reading() {
    XDR xdrs;
    xdrmem_create(&xdrs, wire_bytes.data(), static_cast<u_int>(wire_bytes.size()), XDR_DECODE);
    return xdrs;
}

void DecodeAndRelease(benchmark::State &state) {
    for (auto _ : state) {
        sched_get_jobs_reply_t reply = {};
        XDR xdrs = reading();
        check(xdr_sched_get_jobs_V2_back(&xdrs, &reply), "decoding");
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_sched_get_jobs_V2_back), &reply);
    }
}

// The RPC library's own routines, field after field, as somebody would write them who has these records only.
bool_t by_hand(XDR *xdrs, char **cell) {
    return xdr_wrapstring(xdrs, cell);
}
bool_t by_hand(XDR *xdrs, time_t *cell) {
    return xdr_int64_t(xdrs, cell);
}
bool_t texts_by_hand(XDR *xdrs, char ***array, u_int *count) {
    return xdr_array(xdrs, reinterpret_cast<char **>(array), count, UINT32_MAX, sizeof(char *),
                     reinterpret_cast<xdrproc_t>(xdr_wrapstring));
}
bool_t notification_by_hand(XDR *xdrs, sched_notify_info_t *info) {
    return xdr_u_int(xdrs, &info->events) && xdr_u_int(xdrs, &info->delivery) &&
           texts_by_hand(xdrs, &info->recipients, reinterpret_cast<u_int *>(&info->recipient_count));
}
bool_t weekly_by_hand(XDR *xdrs, sched_weekly_sched_t *weekly) {
    return by_hand(xdrs, &weekly->common.lifetime.start_date) && by_hand(xdrs, &weekly->common.lifetime.last_date) &&
           xdr_u_int(xdrs, &weekly->common.start_times.first_start_time) &&
           xdr_u_int(xdrs, &weekly->common.start_times.last_start_time) &&
           xdr_u_int(xdrs, &weekly->common.start_times.restart_frequency) && xdr_int(xdrs, &weekly->frequency) &&
           xdr_u_int(xdrs, &weekly->days);
}
bool_t who_by_hand(XDR *xdrs, sched_www_info_t *www) {
    return by_hand(xdrs, &www->who) && by_hand(xdrs, &www->who_extra) && by_hand(xdrs, &www->where) &&
           by_hand(xdrs, &www->when);
}
bool_t job_by_hand(XDR *xdrs, sched_job_properties_t *job) {
    sched_job_rw_properties_t &rw = job->rw;
    sched_job_ro_properties_t &ro = job->ro;
    return by_hand(xdrs, &rw.name) && by_hand(xdrs, &rw.description) && xdr_int(xdrs, &rw.schedule.kind) &&
           weekly_by_hand(xdrs, &rw.schedule.u.weekly) && xdr_u_int(xdrs, &rw.task) &&
           texts_by_hand(xdrs, &rw.args, &rw.arg_count) && xdr_u_int(xdrs, &rw.run_control.max_run_time) &&
           xdr_int(xdrs, &rw.delete_when_completed) &&
           xdr_array(xdrs, reinterpret_cast<char **>(&rw.notify), &rw.notify_count, UINT32_MAX,
                     sizeof(sched_notify_info_t), reinterpret_cast<xdrproc_t>(notification_by_hand)) &&
           xdr_int(xdrs, &ro.predefined) && xdr_u_int(xdrs, &ro.job_id) && by_hand(xdrs, &ro.next_run_time) &&
           who_by_hand(xdrs, &ro.created) && who_by_hand(xdrs, &ro.last_modified) &&
           by_hand(xdrs, &ro.running_status.process_id) && by_hand(xdrs, &ro.running_status.started) &&
           by_hand(xdrs, &ro.last_completion.process_id) && by_hand(xdrs, &ro.last_completion.started) &&
           by_hand(xdrs, &ro.last_completion.ended) && xdr_u_int(xdrs, &ro.last_completion.exit_status) &&
           by_hand(xdrs, &ro.last_completion.messages);
}

struct ReplyByHand {
    int status;
    bool_t is_present;
    u_int count;
    sched_job_properties_t *jobs;
};
bool_t reply_by_hand(XDR *xdrs, ReplyByHand *reply) {
    return xdr_int(xdrs, &reply->status) && xdr_bool(xdrs, &reply->is_present) &&
           xdr_array(xdrs, reinterpret_cast<char **>(&reply->jobs), &reply->count, job_count,
                     sizeof(sched_job_properties_t), reinterpret_cast<xdrproc_t>(job_by_hand));
}

void DecodeByHandAndRelease(benchmark::State &state) {
    for (auto _ : state) {
        ReplyByHand reply = {};
        XDR xdrs = reading();
        check(reply_by_hand(&xdrs, &reply) && reply.count == job_count, "decoding by hand");
        xdr_free(reinterpret_cast<xdrproc_t>(reply_by_hand), &reply);
    }
}

void CopyBytes(benchmark::State &state) {
    std::vector<char> buffer(wire_bytes.size());
    for (auto _ : state) {
        memcpy(buffer.data(), wire_bytes.data(), wire_bytes.size());
        benchmark::ClobberMemory();
    }
}

void CopyBytesAndAllocate(benchmark::State &state) {
    std::vector<char> buffer(wire_bytes.size());
    std::vector<void *> made(blocks.size());
    for (auto _ : state) {
        memcpy(buffer.data(), wire_bytes.data(), wire_bytes.size());
        for (size_t i = 0; i < blocks.size(); ++i)
            made[i] = malloc(blocks[i]);
        benchmark::ClobberMemory();
        for (void *block : made)
            free(block);
    }
}

void ValidateJob(benchmark::State &state) {
    sched_job_properties_t job = one_job();
    sched_validate_job_rw_properties_err_mask_t mask = 0;
    for (auto _ : state)
        check(sched_utl_validate_job_rw_properties(nullptr, 17, &job.rw, 0, 0, &mask) == TBS_ST_OK, "validation");
}

void CopyRecord(benchmark::State &state) {
    const sched_job_properties_t job = one_job();
    sched_job_properties_t copy;
    for (auto _ : state) {
        memcpy(&copy, &job, sizeof job);
        benchmark::ClobberMemory();
    }
}

// ---- printing: the lines go to a sink; a job asks for the name of its task ----

sched_h_t scheduler;
std::vector<std::string> printed_lines;
bool keeps_lines = true;

void take_line(void *, int, const char *, const imsg_table_t *, int, const char *line) {
    if (keeps_lines)
        printed_lines.emplace_back(line);
    benchmark::DoNotOptimize(line);
}

void PrintJob(benchmark::State &state) {
    sched_job_properties_t job = one_job();
    for (auto _ : state)
        check(sched_utl_print_job_props(scheduler, &job) == TBS_ST_OK, "printing");
}

void AskForTaskName(benchmark::State &state) {
    char name[80];
    for (auto _ : state)
        check(sched_task_id_to_name(scheduler, 7, sizeof name, name) == TBS_ST_OK, "name");
}

// The same lines through the one operation that prints, as they are.
void PrintSameLines(benchmark::State &state) {
    for (auto _ : state)
        for (const std::string &line : printed_lines)
            imsg_print(IMSG_PLAIN, "%s", IMSG_FORMAT, line.c_str());
}

BENCHMARK(DecodeAndRelease)->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeByHandAndRelease)->Unit(benchmark::kMillisecond);
BENCHMARK(CopyBytes)->Unit(benchmark::kMillisecond);
BENCHMARK(CopyBytesAndAllocate)->Unit(benchmark::kMillisecond);
BENCHMARK(ValidateJob);
BENCHMARK(CopyRecord);
BENCHMARK(PrintJob);
BENCHMARK(PrintSameLines);
BENCHMARK(AskForTaskName);

} // namespace

int main(int argc, char **argv) {
    const bench::AnsweringPeer peer(
        {{RVZD_PROC_SCHED_CONTACT, bench::scheduler_contact()},
         {RVZD_PROC_SCHED_TASK_ID_TO_NAME,
          bench::encoded(velia::procedures::sched_task_id_to_name.xdr_reply, {TBS_ST_OK, 12, text("clean views")})}});
    check(sched_get_handle(bench::AnsweringPeer::host, &scheduler) == TBS_ST_OK, "handle");
    make_reply();
    list_blocks();
    printf("%u jobs: %zu bytes on the wire, %zu blocks\n", job_count, wire_bytes.size(), blocks.size());
    imsg_set_sink(take_line, nullptr);
    sched_job_properties_t job = one_job();
    sched_utl_print_job_props(scheduler, &job);
    keeps_lines = false;
    const int missed = bench::run(argc, argv,
                                  {{"DecodeAndRelease", "CopyBytesAndAllocate", 5},
                                   {"DecodeAndRelease", "DecodeByHandAndRelease", 1.5},
                                   {"DecodeAndRelease", "CopyBytes", 0},
                                   {"ValidateJob", "CopyRecord", 0},
                                   {"PrintJob", "AskForTaskName", 0},
                                   {"PrintJob", "PrintSameLines", 0}});
    sched_free_handle(&scheduler);
    return missed;
}
