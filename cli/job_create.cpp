// veliactl job create.
#include <cli/commands.h>

#include <array>
#include <cstdio>
#include <sstream>

#include <cli/jobs.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/date.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_runs.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::cli {

namespace {

struct Creation {
    std::string host;
    std::string name;
    std::string task;
    std::string description;
    std::vector<std::string> arguments;
    int32_t days = 0;
    int32_t weeks = 0;
    int32_t months = 0;
    std::string after;
    bool now = false;
    std::string on;
    std::string first;
    std::string again;
    std::string until = "24:00";
    std::string start_date;
    std::string last_date;
    std::vector<std::string> notifications;
    std::string run_host;
    int32_t time_limit_s = 0;
    bool is_deleted_when_completed = false;
    bool is_dry_run = false;
};

// "08:30" in seconds; false for what is no time of a day.
bool seconds_of(const std::string &text, uint32_t &seconds) {
    unsigned hours = 0;
    unsigned minutes = 0;
    char rest = 0;
    if (sscanf(text.c_str(), "%2u:%2u%c", &hours, &minutes, &rest) != 2 || minutes > 59)
        return false;
    seconds = hours * 3600 + minutes * 60;
    return seconds <= 86400;
}

std::string fault_of_time(const std::string &text) {
    uint32_t seconds = 0;
    return seconds_of(text, seconds) ? "" : "'" + text + "' is no time of a day, as 08:30 or 24:00";
}

std::string fault_of_date(const std::string &text) {
    time_t date = 0;
    return date_str_to_time(text.c_str(), &date) != 0 ? "" : "'" + text + "' is no date, as 2026-12-31";
}

// "JobEndFail,JobBegin=anna@example.com,ben@example.com"
struct Notification {
    sched_event_mask_t events = 0;
    std::vector<std::string> recipients;
};

Notification notification_of(const std::string &text) {
    Notification notification;
    const size_t equals = std::min(text.find('='), text.size());
    notification.events = sched_utl_notify_event_mask_from_str(text.substr(0, equals).c_str());
    std::istringstream words(equals < text.size() ? text.substr(equals + 1) : "");
    for (std::string word; std::getline(words, word, ',');)
        if (!word.empty())
            notification.recipients.push_back(word);
    return notification;
}

std::string fault_of_notification(const std::string &text) {
    const Notification notification = notification_of(text);
    if (notification.events != 0 && !notification.recipients.empty())
        return "";
    std::string events;
    for (const auto &row : event_mask_flags)
        events += std::string(events.empty() ? "" : ", ") + row.name;
    return "'" + text + "' is no notification, as JobEndFail=anna@example.com; events are " + events;
}

constexpr Range frequencies = {1, INT32_MAX};

// Exactly one of these.
Options kind_options(Creation &creation) {
    constexpr const char *schedule = "schedule";
    return {{.name = "--now", .help = "run it now, and once", .target = &creation.now, .one_of = schedule},
            {.name = "--days",
             .type = "N",
             .help = "run it every N days",
             .target = &creation.days,
             .range = frequencies,
             .one_of = schedule},
            {.name = "--weeks",
             .type = "N",
             .help = "run it every N weeks, on the days of --on",
             .target = &creation.weeks,
             .range = frequencies,
             .one_of = schedule},
            {.name = "--months",
             .type = "N",
             .help = "run it every N months, on the day of --on",
             .target = &creation.months,
             .range = frequencies,
             .one_of = schedule},
            {.name = "--after",
             .type = "JOB",
             .help = "run it whenever another job has ended",
             .target = &creation.after,
             .one_of = schedule}};
}

Options time_options(Creation &creation) {
    return {{.name = "--on",
             .type = "DAYS",
             .help = "Mon,Fri of weeks; 31 or \"Last Weekday\" of months",
             .target = &creation.on},
            {.name = "--first",
             .type = "HH:MM",
             .help = "first start of a day (default: midnight, and at once today)",
             .target = &creation.first,
             .fault = fault_of_time},
            {.name = "--again",
             .type = "HH:MM",
             .help = "start it again in such steps",
             .target = &creation.again,
             .fault = fault_of_time},
            {.name = "--until",
             .type = "HH:MM",
             .help = "the last of these",
             .target = &creation.until,
             .fault = fault_of_time,
             .shows_default = true},
            {.name = "--start-date",
             .type = "DATE",
             .help = "its first day, as 2026-12-31 (default: now)",
             .target = &creation.start_date,
             .fault = fault_of_date},
            {.name = "--last-date",
             .type = "DATE",
             .help = "its last day (default: none)",
             .target = &creation.last_date,
             .fault = fault_of_date}};
}

Options run_options(Creation &creation) {
    return {{.name = "--time-limit",
             .type = "SECONDS",
             .help = "end a run that takes longer",
             .target = &creation.time_limit_s,
             .range = frequencies},
            {.name = "--notify",
             .type = "EVENTS=RECIPIENTS",
             .help = "by mail, as JobEndFail,JobDeleted=anna,ben; any number of these",
             .target = &creation.notifications,
             .fault = fault_of_notification},
            {.name = "--description", .type = "TEXT", .help = "free text", .target = &creation.description},
            {.name = "--host",
             .type = "HOST",
             .help = "the host whose daemon has to run it, of those that have their jobs together",
             .target = &creation.run_host},
            {.name = "--delete-when-completed",
             .help = "delete it with its last run",
             .target = &creation.is_deleted_when_completed},
            {.name = "--dry-run", .help = "only check it", .target = &creation.is_dry_run}};
}

Options creation_options(Creation &creation) {
    return joined(
        {job_host_options(creation.host),
         {{.name = "NAME", .help = "of the new job", .target = &creation.name, .is_required = true},
          {.name = "ARGUMENT", .help = "of its program, any number", .target = &creation.arguments},
          {.name = "--task", .type = "NAME", .help = "what it runs", .target = &creation.task, .is_required = true}},
         kind_options(creation),
         time_options(creation),
         run_options(creation)});
}

int create_job(const Creation &creation, const Settings &settings);

constexpr Column create_columns[] = {{"action", Type::text, "created; with --dry-run would create"},
                                     {"id", Type::integer, "number of the job", true},
                                     {"name", Type::text, "of the job"}};
constexpr Output create_output = {Output::Shape::one, create_columns};

constexpr Command commands[] = {
    {.path = "job create",
     .help = "Make a job",
     .examples = {"veliactl job create build7 backup --task nightly --days 1 --first 02:30",
                  "veliactl job create build7 report --task mail --months 1 --on \"Last Weekday\" --first 17:00 all",
                  "veliactl job create build7 once --task nightly --now --delete-when-completed",
                  "veliactl job create build7 guard --task watch --days 1 --last-date 2026-12-31 "
                  "--notify JobEndFail=anna@example.com"},
     .make = call_of<create_job, creation_options>,
     .output = &create_output},
};

// "31", or "Last Fri". False for what is neither.
bool set_month_day(const std::string &text, sched_monthly_sched_t &monthly) {
    std::array<char, 16> ordinal = {};
    std::array<char, 16> kind = {};
    if (sscanf(text.c_str(), "%u", &monthly.day.number) == 1)
        return true;
    if (sscanf(text.c_str(), "%15s %15s", ordinal.data(), kind.data()) != 2)
        return false;
    monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
    monthly.day.kind = {sched_utl_mds_ordinal_from_str(ordinal.data()), sched_utl_mds_kind_from_str(kind.data())};
    return monthly.day.kind.ordinal < SCHED_MDS_ORDINAL_ROWS - 1 && monthly.day.kind.kind < SCHED_MDS_KIND_ROWS - 1;
}

bool set_days(const Creation &creation, sched_schedule_t &schedule) {
    if (creation.weeks != 0) {
        schedule.kind = SCHED_KIND_WEEKLY;
        schedule.u.weekly.frequency = creation.weeks;
        schedule.u.weekly.days = sched_utl_dow_mask_from_str(creation.on.c_str());
        return schedule.u.weekly.days != 0;
    }
    if (creation.months != 0) {
        schedule.kind = SCHED_KIND_MONTHLY;
        schedule.u.monthly.frequency = creation.months;
        return set_month_day(creation.on, schedule.u.monthly);
    }
    schedule.kind = SCHED_KIND_DAILY;
    schedule.u.daily.frequency = creation.now ? 1 : creation.days;
    return creation.on.empty();
}

bool set_schedule(const Creation &creation, sched_schedule_t &schedule) {
    if (!set_days(creation, schedule))
        return false;
    auto &common = *sched_utl_get_common_sched(&schedule);
    common.lifetime.start_date = SCHED_DATE_NOW;
    common.lifetime.last_date = creation.now ? SCHED_DATE_NOW : 0;
    if (!creation.start_date.empty())
        date_str_to_time(creation.start_date.c_str(), &common.lifetime.start_date);
    if (!creation.last_date.empty())
        date_str_to_time(creation.last_date.c_str(), &common.lifetime.last_date);
    common.start_times.first_start_time = SCHED_TIME_NOT_GIVEN;
    if (!creation.first.empty())
        seconds_of(creation.first, common.start_times.first_start_time);
    seconds_of(creation.until, common.start_times.last_start_time);
    if (!creation.again.empty())
        seconds_of(creation.again, common.start_times.restart_frequency);
    return true;
}

tbs_status_t create(const SchedulerHandle &scheduler, sched_job_rw_properties_t &rw, sched_job_id_t &id) {
    sched_validate_job_rw_properties_err_mask_t err_mask = 0;
    sched_job_h_t made = nullptr;
    const auto status = sched_job_create(scheduler.get(), &rw, &made, &err_mask);
    if (made != nullptr)
        id = made->job_id;
    sched_job_free_handle(scheduler.get(), &made);
    return status;
}

int send_job(const SchedulerHandle &scheduler, const Creation &creation, sched_job_rw_properties_t &rw, Cell &id) {
    sched_validate_job_rw_properties_err_mask_t err_mask = 0;
    auto status = sched_utl_validate_job_rw_properties(scheduler.get(), 0, &rw, 1, 0, &err_mask);
    sched_job_id_t made = 0;
    if (status == TBS_ST_OK && !creation.is_dry_run)
        status = creation.run_host.empty()
                     ? create(scheduler, rw, made)
                     : sched_job_create_at_host(scheduler.get(), &rw, creation.run_host.c_str(), &made, &err_mask);
    if (made != 0)
        id = made;
    return status == TBS_ST_OK ? int{exit_done} : fail_of_scheduler(status, creation.host, "The job cannot be made");
}

// What of the job only the scheduler knows.
int ask_for_numbers(const SchedulerHandle &scheduler, const Creation &creation, sched_job_rw_properties_t &rw) {
    int exit_status = exit_done;
    if (!creation.after.empty()) {
        rw.schedule.kind = SCHED_KIND_SEQUENTIAL;
        rw.schedule.u.sequential.follows_job = job_of(scheduler, creation.host, creation.after, exit_status);
    }
    if (exit_status != exit_done)
        return exit_status;
    const auto status = sched_task_name_to_id(scheduler.get(), creation.task.c_str(), &rw.task);
    return status == TBS_ST_OK ? int{exit_done}
                               : fail_of_scheduler(status, creation.host, "There is no task '" + creation.task + "'");
}

// What is notified of a job, with the texts that the records point to.
struct Notifications {
    explicit Notifications(const std::vector<std::string> &texts) {
        for (const auto &text : texts)
            made.push_back(notification_of(text));
        pointers.resize(made.size());
        for (size_t i = 0; i < made.size(); ++i) {
            for (auto &recipient : made[i].recipients)
                pointers[i].push_back(recipient.data());
            constexpr sched_notify_delivery_mask_t mail = 1;
            records.push_back({made[i].events, mail, static_cast<int32_t>(pointers[i].size()), pointers[i].data()});
        }
    }
    std::vector<Notification> made;
    std::vector<std::vector<char *>> pointers;
    std::vector<sched_notify_info_t> records;
};

int create_job(const Creation &creation, const Settings &settings) {
    sched_job_rw_properties_t rw = {};
    if (creation.after.empty() && !set_schedule(creation, rw.schedule)) {
        tell_failure(TBS_ST_INVALID_ARG, "", "'%s' is no day of such a schedule\n", creation.on.c_str());
        return exit_usage;
    }
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(creation.host, settings, exit_status);
    if (scheduler != nullptr)
        exit_status = ask_for_numbers(scheduler, creation, rw);
    if (exit_status != exit_done)
        return exit_status;
    Creation texts = creation; // the record's are not constant
    std::vector<char *> arguments;
    for (auto &argument : texts.arguments)
        arguments.push_back(argument.data());
    rw.name = texts.name.data();
    rw.description = texts.description.data();
    rw.arg_count = static_cast<uint32_t>(arguments.size());
    rw.args = arguments.data();
    Notifications notifications(creation.notifications);
    rw.notify_count = static_cast<uint32_t>(notifications.records.size());
    rw.notify = notifications.records.data();
    rw.run_control.max_run_time = static_cast<uint32_t>(creation.time_limit_s);
    rw.delete_when_completed = creation.is_deleted_when_completed ? 1 : 0;
    Cell id;
    exit_status = send_job(scheduler, creation, rw, id);
    if (exit_status != exit_done)
        return exit_status;
    Results results(create_output, settings, creation.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add({creation.is_dry_run ? "would create" : "created", id, creation.name});
    results.finish();
    return exit_done;
}

} // namespace

const Commands job_create_commands = commands;

} // namespace velia::cli
