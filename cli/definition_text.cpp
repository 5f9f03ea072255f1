#include <cli/definition_text.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include <support/clp.h>
#include <support/date.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_handle.h>

namespace velia::cli {

namespace {

constexpr size_t line_room = 1900;      // for a value, beside its tag
constexpr size_t piece_bytes = 400;     // of an exact text, which grows fourfold at most
constexpr size_t name_bytes_max = 255;  // of a task or job that is looked up
constexpr size_t description_max = 255; // with its last line feed
constexpr uint32_t last_second = 86399; // of a day, and the default of a last start
constexpr const char *blanks = " \t\v\f\r\n";

std::string text_of(const char *text) {
    return text != nullptr ? text : "";
}

bool fits_a_line(const std::string &text) {
    return text.size() <= line_room && text.find('\n') == std::string::npos;
}

std::string escaped(const std::string &text) {
    std::string all = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        std::array<char, 8> code;
        snprintf(code.data(), code.size(), "\\x%02x", byte);
        if (c == '\n')
            all += "\\n";
        else if (c == '"' || c == '\\')
            all += std::string("\\") + c;
        else if (byte < ' ' || byte == 0x7f)
            all += code.data();
        else
            all += c;
    }
    return all + "\"";
}

// What can stand in no other line.
void add_exact(DefinitionLines &lines, const std::string &field, const std::string &text) {
    lines.push_back({"Job.RunCntl." + field + ":", escaped(text.substr(0, piece_bytes))});
    for (size_t at = piece_bytes; at < text.size(); at += piece_bytes)
        lines.push_back({"Job.RunCntl.More:", escaped(text.substr(at, piece_bytes))});
}

void add_exact(DefinitionLines &lines, const std::string &field, uint32_t number) {
    lines.push_back({"Job.RunCntl." + field + ":", std::to_string(number)});
}

void add_name(DefinitionLines &lines, const std::string &name) {
    if (fits_a_line(name))
        lines.push_back({"Job.Name:", text_of_name(name)});
    else
        add_exact(lines, "Name", name);
}

bool ends_a_description(const std::string &line) {
    const size_t begin = line.find_first_not_of(blanks);
    return begin != std::string::npos &&
           strncasecmp(line.c_str() + begin, description_end, strlen(description_end)) == 0;
}

// Every line has its end, and none looks like the end of all.
bool is_description(const std::string &text) {
    if (text.size() > description_max || text.back() != '\n')
        return false;
    for (size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        if (ends_a_description(text.substr(at, end - at)))
            return false;
    }
    return true;
}

void add_description(DefinitionLines &lines, const std::string &text) {
    if (text.empty())
        return;
    if (is_description(text))
        lines.push_back({description_begin, text});
    else
        add_exact(lines, "Description", text);
}

void add_day_time(DefinitionLines &lines, const char *field, uint32_t time, bool can_be_midnight) {
    if (time <= last_second && (time != 0 || can_be_midnight))
        lines.push_back({std::string("Job.Schedule.") + field + ":", text_of_day_time(time)});
}

void add_common(DefinitionLines &lines, const sched_common_sched_t &common) {
    const auto &[first, last, restart] = common.start_times;
    lines.push_back({"Job.Schedule.StartDate:", text_of_date(common.lifetime.start_date)});
    if (common.lifetime.last_date != 0)
        lines.push_back({"Job.Schedule.LastDate:", text_of_date(common.lifetime.last_date)});
    add_day_time(lines, "FirstStartTime", first, true);
    add_day_time(lines, "StartTimeRestartFrequency", restart, false);
    if (restart != 0 || last != last_second)
        add_day_time(lines, "LastStartTime", last, false);
    if (first > last_second && first != SCHED_TIME_NOT_GIVEN)
        add_exact(lines, "FirstStartTime", first);
    if (restart > last_second)
        add_exact(lines, "StartTimeRestartFrequency", restart);
    if (last == 0 || last > last_second)
        add_exact(lines, "LastStartTime", last);
}

std::string frequency(int32_t number) {
    return std::to_string(static_cast<uint32_t>(number));
}

// The last rows are no values that a definition may give.
bool has_words(const sched_sched_monthly_day_kind_t &day) {
    return day.ordinal < SCHED_MDS_ORDINAL_ROWS - 1 && day.kind < SCHED_MDS_KIND_ROWS - 1;
}

void add_monthly(DefinitionLines &lines, const sched_monthly_sched_t &monthly) {
    constexpr const char *tag = "Job.Schedule.Monthly.Day:";
    lines.push_back({"Job.Schedule.Monthly.Frequency:", frequency(monthly.frequency)});
    const auto &kind = monthly.day.kind;
    const bool is_number = monthly.day_spec_kind == SCHED_MONTHLY_DAY_NUMBER;
    if (is_number)
        lines.push_back({tag, std::to_string(monthly.day.number)});
    else if (has_words(kind))
        lines.push_back(
            {tag, std::string(mds_ordinal_str_map[kind.ordinal].text) + " " + mds_kind_str_map[kind.kind].text});
    else
        lines.push_back({tag, "1"});
    add_common(lines, monthly.common);
    if (!is_number && !has_words(kind))
        lines.push_back({"Job.RunCntl.Day:", std::to_string(kind.ordinal) + " " + std::to_string(kind.kind)});
}

// A name that reads as itself, and not as an id.
bool is_name_of(const std::string &name, int (*is_id)(sched_h_t, const char *)) {
    return !name.empty() && name.size() <= name_bytes_max && fits_a_line(name) && is_id(nullptr, name.c_str()) == 0;
}

std::string name_or_id(const std::string &name, uint32_t id, int (*is_id)(sched_h_t, const char *)) {
    return is_name_of(name, is_id) ? quoted(name) : std::to_string(id);
}

void add_schedule(DefinitionLines &lines, const sched_schedule_t &schedule, const Names &names) {
    switch (schedule.kind) {
    case SCHED_KIND_MONTHLY:
        return add_monthly(lines, schedule.u.monthly);
    case SCHED_KIND_WEEKLY:
        lines.push_back({"Job.Schedule.Weekly.Frequency:", frequency(schedule.u.weekly.frequency)});
        lines.push_back({"Job.Schedule.Weekly.Days:",
                         strutl_flags_to_str(schedule.u.weekly.days, ",", dow_flags, SCHED_DOW_FLAGS)});
        return add_common(lines, schedule.u.weekly.common);
    case SCHED_KIND_DAILY:
        lines.push_back({"Job.Schedule.Daily.Frequency:", frequency(schedule.u.daily.frequency)});
        return add_common(lines, schedule.u.daily.common);
    default: {
        const sched_job_id_t followed = schedule.u.sequential.follows_job;
        const std::string name = names.of_job ? names.of_job(followed) : "";
        lines.push_back({"Job.Schedule.Sequential.FollowsJob:", name_or_id(name, followed, sched_job_is_id_str)});
    }
    }
}

void add_task(DefinitionLines &lines, sched_task_id_t task, const Names &names) {
    const std::string name = names.of_task ? names.of_task(task) : "";
    sched_task_id_str_t id; // with a sign, as it is read
    if (is_name_of(name, sched_task_is_id_str))
        lines.push_back({"Job.Task:", quoted(name)});
    else
        lines.push_back({"Job.Task:", sched_task_id_to_str(nullptr, task, id)});
}

// All arguments on one line; empty where that cannot be.
std::string argument_line(const sched_job_rw_properties_t &job) {
    char *joined = nullptr;
    if (clp_argv_to_string(job.arg_count, job.args, 1, '\\', &joined) != 0)
        return "";
    const std::string text = joined;
    stg_free(joined);
    return fits_a_line(text) ? text : "";
}

void add_arguments(DefinitionLines &lines, const sched_job_rw_properties_t &job) {
    if (job.arg_count == 0)
        return;
    const std::string line = argument_line(job);
    if (!line.empty())
        lines.push_back({"Job.Args:", line});
    else
        for (uint32_t i = 0; i < job.arg_count; ++i)
            add_exact(lines, "Arg", text_of(job.args[i]));
}

// Between commas, from which nothing is stripped but at both ends of the line.
std::string recipient_line(const sched_notify_info_t &notification) {
    std::string line;
    for (int32_t i = 0; i < notification.recipient_count; ++i) {
        const std::string recipient = text_of(notification.recipients[i]);
        if (recipient.empty() || recipient.find_first_of(",\n") != std::string::npos)
            return "";
        line += (i != 0 ? "," : "") + recipient;
    }
    const bool is_stripped = line.empty() || strchr(blanks, line.front()) != nullptr ||
                             strchr(blanks, line.back()) != nullptr || !fits_a_line(line);
    return is_stripped ? "" : line;
}

void add_notification(DefinitionLines &lines, const sched_notify_info_t &notification) {
    lines.push_back({"Job.NotifyInfo.OnEvents:", sched_utl_notify_event_mask_to_str(notification.events)});
    lines.push_back({"Job.NotifyInfo.Using:",
                     strutl_flags_to_str(notification.delivery, ",", delivery_mask_flags, SCHED_DELIVERY_MASK_FLAGS)});
    const std::string line = recipient_line(notification);
    lines.push_back({"Job.NotifyInfo.Recipients:", line});
    for (int32_t i = 0; line.empty() && i < notification.recipient_count; ++i)
        add_exact(lines, "Recipient", text_of(notification.recipients[i]));
}

bool is_description_line(const DefinitionLine &line) {
    return line.tag == description_begin;
}

} // namespace

std::string quoted(const std::string &text) {
    return "\"" + text + "\"";
}

// White space at an end would be stripped, and a quotation mark in front taken for one around it.
std::string text_of_name(const std::string &name) {
    const bool needs_quotes = name.empty() || name.find_first_of(blanks) != std::string::npos || name.front() == '"';
    return needs_quotes ? quoted(name) : name;
}

std::string text_of_date(time_t date) {
    const std::string text = date == SCHED_DATE_NOW ? "<now>" : date_fmt_token_date(date);
    time_t again = 0;
    return date_str_to_time(text.c_str(), &again) != 0 && again == date ? text : "@" + std::to_string(date);
}

std::string text_of_day_time(uint32_t seconds) {
    std::array<char, 48> text;
    snprintf(text.data(), text.size(), "%02u:%02u:%02u", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return text.data();
}

DefinitionLines lines_of(const sched_job_rw_properties_t &job, const Names &names) {
    DefinitionLines lines;
    add_name(lines, text_of(job.name));
    add_description(lines, text_of(job.description));
    add_schedule(lines, job.schedule, names);
    lines.push_back({"Job.DeleteWhenCompleted:", job.delete_when_completed != 0 ? "TRUE" : "FALSE"});
    if (job.run_control.max_run_time != 0)
        add_exact(lines, "MaxRunTime", job.run_control.max_run_time);
    add_task(lines, job.task, names);
    add_arguments(lines, job);
    for (uint32_t i = 0; i < job.notify_count; ++i)
        add_notification(lines, job.notify[i]);
    return lines;
}

std::string definition_of(const DefinitionLines &lines) {
    std::string text = "Job.Begin\n";
    for (const auto &line : lines) {
        const bool has_value = !line.value.empty() && !is_description_line(line);
        text += "    " + line.tag + (has_value ? " " + line.value : "") + "\n";
        if (is_description_line(line))
            text += line.value + "    " + description_end + "\n";
    }
    return text + "Job.End\n";
}

std::vector<DefinitionField> fields_of(const DefinitionLines &lines) {
    std::vector<DefinitionField> fields;
    for (const auto &line : lines) {
        const std::string name =
            is_description_line(line) ? "Job.Description" : line.tag.substr(0, line.tag.size() - 1);
        size_t i = 0;
        while (i < fields.size() && fields[i].name != name)
            ++i;
        if (i == fields.size())
            fields.push_back({name, line.value});
        else
            fields[i].value += "; " + line.value;
    }
    return fields;
}

} // namespace velia::cli
