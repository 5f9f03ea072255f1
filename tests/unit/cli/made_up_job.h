// Jobs made up at random, of all that the checks let through: what no definition can say as it stands among it.
#pragma once

#include <deque>
#include <random>
#include <string>
#include <vector>

#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_wire.h>

namespace velia::cli_tests {

class MadeUpJob {
public:
    explicit MadeUpJob(std::mt19937 &random) : random_(random) {
        rw.name = text("name", true);
        rw.description = chance(3) ? nullptr : chance(2) ? text("Removes what nobody has used.\n") : text("words");
        make_schedule();
        rw.task = 1 + below(9);
        make_arguments();
        rw.run_control.max_run_time = chance(2) ? 0 : below(100000);
        rw.delete_when_completed = chance(2) ? 1 : 0;
        make_notifications();
    }
    MadeUpJob(const MadeUpJob &) = delete;
    MadeUpJob &operator=(const MadeUpJob &) = delete;

    sched_job_rw_properties_t rw = {};

private:
    uint32_t below(uint32_t count) { return static_cast<uint32_t>(random_() % count); }
    bool chance(uint32_t of) { return below(of) == 0; }

    char *keep(std::string made) { return texts_.emplace_back(std::move(made)).data(); }

    char *text(const char *usual, bool is_needed = false) {
        static constexpr const char *odd[] = {"two words",
                                              " blanks around ",
                                              "\"quoted\"",
                                              "\"",
                                              "a \\ b",
                                              "line\nfeed",
                                              "\ttab\r",
                                              "#no comment",
                                              "Job.End",
                                              "Job.Description.End: x\n",
                                              "a\n  job.description.ENDING\nb\n",
                                              "12 and more",
                                              "0x1f",
                                              "a,b",
                                              "'",
                                              "\x01\x7f\xff",
                                              ""};
        const std::string chosen = odd[below(std::size(odd))];
        if (chance(3))
            return keep(is_needed && chosen.empty() ? usual : chosen);
        if (chance(8))
            return keep(std::string(1 + below(5000), static_cast<char>('a' + below(26))));
        if (chance(8))
            return keep(std::string(250 + below(10), 'x') + (chance(2) ? "\n" : ""));
        return keep(usual + std::to_string(below(100)));
    }

    time_t date() {
        switch (below(4)) {
        case 0:
            return SCHED_DATE_NOW;
        case 1:
            return 86400 * static_cast<time_t>(1 + below(40000));
        default:
            return static_cast<time_t>(below(4000000000));
        }
    }

    uint32_t day_time() { return chance(4) ? 86400 : chance(4) ? 0 : below(86401); }

    void make_common(sched_common_sched_t &common) {
        common.lifetime.start_date = date();
        common.lifetime.last_date = chance(2) ? 0 : std::max(date(), common.lifetime.start_date);
        auto &times = common.start_times;
        times.last_start_time = chance(3) ? 86399 : day_time();
        times.first_start_time = chance(2) ? SCHED_TIME_NOT_GIVEN : std::min(day_time(), times.last_start_time);
        times.restart_frequency = chance(2) ? 0 : day_time();
    }

    int32_t frequency() { return chance(10) ? INT32_MAX : static_cast<int32_t>(1 + below(400)); }

    void make_schedule() {
        auto &schedule = rw.schedule;
        schedule.kind = static_cast<sched_schedule_kind_t>(1 + below(4));
        if (auto *common = sched_utl_get_common_sched(&schedule))
            make_common(*common);
        auto &monthly = schedule.u.monthly;
        switch (schedule.kind) {
        case SCHED_KIND_MONTHLY:
            monthly.frequency = frequency();
            monthly.day_spec_kind = static_cast<int32_t>(below(2));
            if (monthly.day_spec_kind == SCHED_MONTHLY_DAY_NUMBER)
                monthly.day.number = 1 + below(31);
            else
                monthly.day.kind = {static_cast<int32_t>(1 + below(6)), static_cast<int32_t>(1 + below(11))};
            break;
        case SCHED_KIND_WEEKLY:
            schedule.u.weekly.frequency = frequency();
            schedule.u.weekly.days = 1 + below(0x7f);
            break;
        case SCHED_KIND_DAILY:
            schedule.u.daily.frequency = frequency();
            break;
        default:
            schedule.u.sequential.follows_job = below(5);
        }
    }

    void make_arguments() {
        for (uint32_t count = below(4); count != 0; --count)
            arguments_.push_back(text("-argument"));
        rw.arg_count = static_cast<uint32_t>(arguments_.size());
        rw.args = arguments_.data();
    }

    void make_notifications() {
        notifications_.resize(below(3));
        for (auto &notification : notifications_) {
            auto &recipients = recipients_.emplace_back();
            for (uint32_t count = below(4); count != 0; --count)
                recipients.push_back(text("anna"));
            notification = {1 + below(0x3ff), 1, static_cast<int32_t>(recipients.size()), recipients.data()};
        }
        rw.notify_count = static_cast<uint32_t>(notifications_.size());
        rw.notify = notifications_.data();
    }

    std::mt19937 &random_;
    std::deque<std::string> texts_;
    std::vector<char *> arguments_;
    std::vector<sched_notify_info_t> notifications_;
    std::deque<std::vector<char *>> recipients_;
};

} // namespace velia::cli_tests
