// Whole sets of jobs. They travel in pieces: the list of them as the scheduler cuts it, the changes as fits a request.
#include <cstring>

#include <rvzd/client/sched_c_clnt/call.h>
#include <support/stg.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_sets.h>

using namespace velia;
using namespace velia::scheduler;
namespace row = velia::procedures;

namespace {

constexpr uint32_t piece_bytes_max = 60000; // of what a scheduler takes as one request
constexpr int passes_max = 10;

// Jobs as they come, piece by piece.
struct Gathered {
    uint64_t state;
    uint32_t count;
    sched_job_properties_t *jobs;
    bool has_more;
    bool is_stale; // the jobs have changed since the first piece
};

// Moves what a piece has behind what there is. The jobs are the reply's if that fails.
bool gather(Gathered &all, sched_set_get_jobs_reply_t &piece) {
    const size_t size = (size_t{all.count} + piece.count) * sizeof(sched_job_properties_t);
    auto *grown = static_cast<sched_job_properties_t *>(stg_realloc(all.jobs, size));
    if (grown == nullptr)
        return false;
    memcpy(static_cast<void *>(grown + all.count), piece.jobs, piece.count * sizeof(sched_job_properties_t));
    all.jobs = grown;
    all.count += piece.count;
    stg_free(piece.jobs);
    piece.jobs = nullptr;
    piece.count = 0;
    return true;
}

tbs_status_t take_piece(Gathered &all, sched_set_get_jobs_reply_t &piece) {
    const bool is_first = all.count == 0;
    all.is_stale = !is_first && piece.state != all.state;
    all.state = piece.state;
    all.has_more = piece.has_more != 0 && piece.count != 0;
    if (all.is_stale || piece.count == 0 || piece.jobs == nullptr)
        return TBS_ST_OK;
    return with_inhibit([&] { return gather(all, piece); }) ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t get_piece(sched_h_t handle, Gathered &all) {
    const sched_job_id_t after = all.count != 0 ? all.jobs[all.count - 1].ro.job_id : 0;
    tbs_status_t taken = TBS_ST_OK;
    const tbs_status_t status = call_own<row::sched_set_get_jobs>(handle, sched_set_get_jobs_request_t{after},
                                                                  [&](sched_set_get_jobs_reply_t &piece) {
                                                                      if (piece.status == TBS_ST_OK)
                                                                          taken = take_piece(all, piece);
                                                                  });
    if (taken == TBS_ST_NO_MEMORY)
        trace_no_memory();
    return status == TBS_ST_OK ? taken : status;
}

// Everything once more when it is stale; what had been gathered is released.
tbs_status_t get_all(sched_h_t handle, Gathered &all) {
    for (int pass = 0; pass < passes_max; ++pass) {
        tbs_status_t status = TBS_ST_OK;
        do
            status = get_piece(handle, all);
        while (status == TBS_ST_OK && all.has_more && !all.is_stale);
        if (status != TBS_ST_OK || !all.is_stale)
            return status;
        sched_free_jobs(handle, all.count, &all.jobs);
        all = {};
    }
    return TBS_ST_TRY_AGAIN;
}

// How many of the changes go as one piece; 0: the first is too large for any.
uint32_t piece_of(const sched_set_change_t *changes, uint32_t count) {
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const auto routine = reinterpret_cast<xdrproc_t>(xdr_sched_set_change_t);
        const unsigned long size = xdr_sizeof(routine, const_cast<sched_set_change_t *>(&changes[i]));
        bytes += size != 0 ? size : uint64_t{piece_bytes_max} + 1; // one that cannot be encoded fits nowhere
        if (bytes > piece_bytes_max)
            return i;
    }
    return count;
}

void note_created(sched_set_change_t *changes, uint32_t count, sched_job_id_t first) {
    for (uint32_t i = 0; i < count; ++i)
        if (changes[i].what == SCHED_SET_CREATE)
            changes[i].job_id = first++;
}

// A set on its way.
struct Sending {
    uint64_t set;
    sched_set_fault_t fault;
    sched_job_id_t first_created;
};

tbs_status_t send_piece(sched_h_t handle, uint64_t state, uint32_t before, bool is_last, uint32_t count,
                        sched_set_change_t *changes, Sending &sending) {
    const sched_set_apply_request_t request = {sending.set, state, before, is_last ? 1 : 0, count, changes};
    return call_own<row::sched_set_apply>(handle, request, [&](const sched_set_apply_reply_t &reply) {
        sending = {reply.set, reply.fault, reply.first_created};
    });
}

tbs_status_t send_all(sched_h_t handle, uint64_t state, uint32_t count, sched_set_change_t *changes, Sending &sending) {
    uint32_t sent = 0;
    do {
        const uint32_t piece = piece_of(changes + sent, count - sent);
        if (piece == 0 && count != 0) {
            sending.fault = {sent + 1, 0};
            return TBS_ST_INVALID_ARG;
        }
        const bool is_last = sent + piece == count;
        const tbs_status_t status = send_piece(handle, state, sent, is_last, piece, changes + sent, sending);
        if (status != TBS_ST_OK)
            return status;
        sent += piece;
    } while (sent < count);
    note_created(changes, count, sending.first_created);
    return TBS_ST_OK;
}

} // namespace

tbs_status_t sched_set_get_jobs(sched_h_t handle, uint64_t *state, uint32_t *count, sched_job_properties_t **jobs) {
    Gathered all = {};
    return with_cleanup(
        [&] {
            const tbs_status_t status = get_all(handle, all);
            if (status != TBS_ST_OK) {
                sched_free_jobs(handle, all.count, &all.jobs);
                all = {};
            }
            *state = all.state;
            *count = all.count;
            *jobs = all.jobs;
            return status;
        },
        [&] { sched_free_jobs(handle, all.count, &all.jobs); });
}

tbs_status_t sched_set_apply(sched_h_t handle, uint64_t state, uint32_t count, sched_set_change_t *changes,
                             sched_set_fault_t *fault) {
    Sending sending = {};
    const tbs_status_t status = send_all(handle, state, count, changes, sending);
    if (fault != nullptr)
        *fault = sending.fault;
    return status;
}
