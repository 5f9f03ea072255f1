// Every call of the scheduler's client as one table: what it is called with, what it gives, and how that is released.
#pragma once

#include <functional>
#include <vector>

#include <tests/unit/sched/samples.h>
#include <veliaxdr/sched_access.h>
#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

namespace wire_tests {

// A call with all that it gives, and how that is released.
struct Case {
    const char *name;
    uint32_t procedure;
    // With `wanted` false no output is given.
    std::function<tbs_status_t(sched_h_t handle, bool wanted)> call;
    std::function<void(sched_h_t handle)> release;
};

// Outputs of all cases; what a test fills it releases.
struct Outputs {
    uint32_t count;
    uint32_t word;
    tbs_boolean_t boolean;
    time_t time;
    char name[80];
    tbs_acl_h_t acl;
    tbs_acl_generic_map_t map;
    strutl_flag_item_t *items;
    sched_job_properties_t *jobs;
    sched_task_properties_t *tasks;
    sched_job_h_t job;
    sched_running_job_h_t run;
    sched_job_properties_t properties;
    sched_job_utc_props_t utc;
    sched_job_completion_info_t info;
};

class EveryCall {
protected:
    EveryCall() {
        fill(inputs, sent);
        fill(inputs, sent_utc);
        sent_acl = sampled_object<tbs_acl_t>(inputs);
    }

    const std::vector<Case> &cases() {
        namespace row = velia::procedures;
        if (!all.empty())
            return all;
        const auto none = [](sched_h_t) {};
        const auto free_job = [this](sched_h_t h) { sched_job_free_handle(h, &out.job); };
        const auto free_run = [this](sched_h_t h) { sched_rjob_free_handle(h, &out.run); };
        auto &o = out;
        const auto add = [&](const auto &procedure, auto call, std::function<void(sched_h_t)> release) {
            all.push_back({procedure.name, procedure.number, call, release});
        };
        const auto if_wanted = [](bool wanted, auto *output) { return wanted ? output : nullptr; };
        add(
            row::sched_get_jobs,
            [&, if_wanted](sched_h_t h, bool w) {
                return sched_get_jobs(h, if_wanted(w, &o.count), if_wanted(w, &o.jobs));
            },
            [&](sched_h_t h) { sched_free_jobs(h, o.count, &o.jobs); });
        add(
            row::sched_get_tasks,
            [&, if_wanted](sched_h_t h, bool w) {
                return sched_get_tasks(h, if_wanted(w, &o.count), if_wanted(w, &o.tasks));
            },
            [&](sched_h_t h) { sched_free_tasks(h, o.count, &o.tasks); });
        add(
            row::sched_get_app_perms,
            [&, if_wanted](sched_h_t h, bool w) {
                return sched_get_app_perms(h, if_wanted(w, &o.items), if_wanted(w, &o.count), if_wanted(w, &o.map));
            },
            [&](sched_h_t h) { sched_free_app_perms(h, &o.items, o.count, &o.map); });
        add(
            row::sched_has_info_changed,
            [&, if_wanted](sched_h_t h, bool w) { return sched_has_info_changed(h, if_wanted(w, &o.boolean)); }, none);
        add(
            row::sched_get_acl, [&, if_wanted](sched_h_t h, bool w) { return sched_get_acl(h, if_wanted(w, &o.acl)); },
            [&](sched_h_t) { xdr_free(reinterpret_cast<xdrproc_t>(xdr_tbs_acl_h_t), &o.acl); });
        add(
            row::sched_set_acl, [this](sched_h_t h, bool) { return sched_set_acl(h, sent_acl); }, none);
        add(
            row::sched_check_acc, [](sched_h_t h, bool) { return sched_check_acc(h, 5); }, none);
        add(
            row::sched_job_create,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_create(h, &sent, if_wanted(w, &o.job), if_wanted(w, &o.word));
            },
            free_job);
        add(
            row::sched_job_create_utc,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_create_utc(h, &sent_utc, if_wanted(w, &o.job), if_wanted(w, &o.word));
            },
            free_job);
        add(
            row::sched_job_delete,
            [&, this](sched_h_t h, bool) {
                o.job = &held_job;
                const auto outcome = sched_job_delete(h, &o.job, 1);
                if (o.job == &held_job)
                    o.job = nullptr;
                return outcome;
            },
            [this, free_job](sched_h_t h) {
                if (out.job == &held_job)
                    out.job = nullptr;
                free_job(h);
            });
        add(
            row::sched_job_lookup_by_id,
            [&, if_wanted](sched_h_t h, bool w) { return sched_job_lookup_by_id(h, 17, if_wanted(w, &o.job)); },
            free_job);
        add(
            row::sched_job_lookup_by_name,
            [&, if_wanted](sched_h_t h, bool w) {
                return sched_job_lookup_by_name(h, "nightly", if_wanted(w, &o.job));
            },
            free_job);
        add(
            row::sched_job_get_properties,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_get_properties(h, &held_job, if_wanted(w, &o.properties));
            },
            [&](sched_h_t h) { sched_free_job_properties(h, &o.properties); });
        add(
            row::sched_job_get_properties_utc,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_get_properties_utc(h, &held_job, if_wanted(w, &o.utc));
            },
            [&](sched_h_t h) { sched_free_job_properties(h, &o.utc.props); });
        add(
            row::sched_job_set_properties,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_set_properties(h, &held_job, &sent, if_wanted(w, &o.word));
            },
            none);
        add(
            row::sched_job_set_properties_utc,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_set_properties_utc(h, &held_job, &sent_utc, if_wanted(w, &o.word));
            },
            none);
        add(
            row::sched_job_has_info_changed,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_job_has_info_changed(h, &held_job, if_wanted(w, &o.boolean));
            },
            none);
        add(
            row::sched_rjob_get_handle,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_rjob_get_handle(h, &held_job, if_wanted(w, &o.run));
            },
            free_run);
        add(
            row::sched_rjob_run_job,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_rjob_run_job(h, &held_job, if_wanted(w, &o.run));
            },
            free_run);
        add(
            row::sched_rjob_get_completion_info,
            [&, this, if_wanted](sched_h_t h, bool w) {
                return sched_rjob_get_completion_info(h, &held_run, if_wanted(w, &o.info));
            },
            [&](sched_h_t h) { sched_free_job_completion_info(h, &o.info); });
        add(
            row::sched_rjob_terminate, [this](sched_h_t h, bool) { return sched_rjob_terminate(h, &held_run); }, none);
        add(
            row::sched_task_exists,
            [&, if_wanted](sched_h_t h, bool w) { return sched_task_exists(h, 7, if_wanted(w, &o.boolean)); }, none);
        add(
            row::sched_task_name_to_id,
            [&, if_wanted](sched_h_t h, bool w) { return sched_task_name_to_id(h, "build", if_wanted(w, &o.word)); },
            none);
        add(
            row::sched_task_id_to_name,
            [&](sched_h_t h, bool w) { return sched_task_id_to_name(h, 7, sizeof o.name, w ? o.name : nullptr); },
            none);
        add(
            row::sched_get_time,
            [&, if_wanted](sched_h_t h, bool w) { return sched_get_time(h, if_wanted(w, &o.time)); }, none);
        add(
            row::sched_contact,
            [&, if_wanted](sched_h_t h, bool w) {
                return sched_contact(h, 1, if_wanted(w, &o.word), if_wanted(w, &o.count));
            },
            none);
        return all;
    }

    Outputs out = {};
    sched_job_rw_properties_t sent = {};
    sched_job_utc_rw_props_t sent_utc = {};
    tbs_acl_h_t sent_acl = nullptr;
    sched_job_handle held_job = {17};
    sched_running_job_handle held_run = {17, 1700000000};

private:
    Sampler inputs{20261123};
    std::vector<Case> all;
};

} // namespace wire_tests
