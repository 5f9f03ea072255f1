// A job that passes every check, to be spoiled by a test; its texts are constants, so it is never freed.
#pragma once

#include <veliaxdr/sched_wire.h>

namespace {

struct Job {
    sched_job_rw_properties_t rw = {};
    char *args[2] = {text("-all"), text("two words")};
    char *recipients[2] = {text("anna"), text("ben")};
    sched_notify_info_t notifications[2] = {{0x2 | 0x10, 0x1, 2, recipients}, {0x40, 0x1, 0, nullptr}};

    Job() {
        rw.name = text("nightly");
        rw.task = 7;
        set_daily();
    }
    Job(const Job &) = delete;
    Job &operator=(const Job &) = delete;

    static char *text(const char *constant) { return const_cast<char *>(constant); }

    sched_common_sched_t &set_common(sched_schedule_kind_t kind) {
        rw.schedule = {};
        rw.schedule.kind = kind;
        sched_common_sched_t &common = rw.schedule.u.daily.common;
        common = {{SCHED_DATE_NOW, 0}, {3600, 7200, 600}};
        return common;
    }
    sched_common_sched_t &set_daily(int32_t frequency = 1) {
        auto &common = set_common(SCHED_KIND_DAILY);
        rw.schedule.u.daily.frequency = frequency;
        return common;
    }
    sched_weekly_sched_t &set_weekly() {
        set_common(SCHED_KIND_WEEKLY);
        rw.schedule.u.weekly.frequency = 2;
        rw.schedule.u.weekly.days = 0x1 | 0x10;
        return rw.schedule.u.weekly;
    }
    sched_monthly_sched_t &set_monthly_day(uint32_t number = 15) {
        set_common(SCHED_KIND_MONTHLY);
        rw.schedule.u.monthly.frequency = 3;
        rw.schedule.u.monthly.day_spec_kind = SCHED_MONTHLY_DAY_NUMBER;
        rw.schedule.u.monthly.day.number = number;
        return rw.schedule.u.monthly;
    }
    sched_monthly_sched_t &set_monthly_kind(int32_t ordinal = 1, int32_t kind = 1) {
        set_monthly_day();
        rw.schedule.u.monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
        rw.schedule.u.monthly.day.kind = {ordinal, kind};
        return rw.schedule.u.monthly;
    }
    void set_sequential(sched_job_id_t follows = 9) {
        rw.schedule = {};
        rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        rw.schedule.u.sequential.follows_job = follows;
    }
    void add_args() {
        rw.arg_count = 2;
        rw.args = args;
    }
    void add_notifications() {
        rw.notify_count = 2;
        rw.notify = notifications;
    }
};

} // namespace
