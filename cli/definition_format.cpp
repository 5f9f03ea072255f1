#include <cli/definition_format.h>

#include <algorithm>
#include <cstring>
#include <strings.h>
#include <utility>

#include <cli/definition_text.h>
#include <support/clp.h>
#include <support/date.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_handle.h>

namespace velia::cli {

namespace {

constexpr const char *blanks = " \t\v\f\r";
constexpr const char *messages_begin = "Job.LastCompletionInfo.Messages.Begin:";
constexpr const char *messages_end = "Job.LastCompletionInfo.Messages.End:";

std::string stripped(const std::string &text) {
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

std::string unquoted(const std::string &text) {
    return text.size() >= 2 && text.front() == '"' && text.back() == '"' ? text.substr(1, text.size() - 2) : text;
}

// Each makes the printer's value of one that has been read already, so that it is known to be good.

std::string as_it_is(const std::string &value) {
    return value;
}

std::string name_value(const std::string &value) {
    return text_of_name(unquoted(value));
}

std::string task_value(const std::string &value) {
    const std::string name = unquoted(value);
    return sched_task_is_id_str(nullptr, name.c_str()) != 0 ? name : quoted(name);
}

std::string number_value(const std::string &value) {
    return std::to_string(static_cast<uint32_t>(strtoul(value.c_str(), nullptr, 10)));
}

std::string boolean_value(const std::string &value) {
    return strncasecmp(value.c_str(), "TRUE", 4) == 0 ? "TRUE" : "FALSE";
}

std::string days_value(const std::string &value) {
    return strutl_flags_to_str(sched_utl_dow_mask_from_str(value.c_str()), ",", dow_flags, SCHED_DOW_FLAGS);
}

std::string events_value(const std::string &value) {
    return sched_utl_notify_event_mask_to_str(sched_utl_notify_event_mask_from_str(value.c_str()));
}

std::string delivery_value(const std::string &value) {
    return strutl_flags_to_str(sched_utl_notify_delivery_mask_from_str(value.c_str()), ",", delivery_mask_flags,
                               SCHED_DELIVERY_MASK_FLAGS);
}

std::string day_value(const std::string &value) {
    unsigned number = 0;
    char ordinal[256];
    char kind[256];
    if (sscanf(value.c_str(), "%u", &number) == 1) // NOLINT(cert-err34-c): as it was read
        return std::to_string(number);
    if (sscanf(value.c_str(), "%255s %255s", ordinal, kind) != 2)
        return value;
    return std::string(mds_ordinal_str_map[sched_utl_mds_ordinal_from_str(ordinal)].text) + " " +
           mds_kind_str_map[sched_utl_mds_kind_from_str(kind)].text;
}

std::string date_value(const std::string &value) {
    if (strcasecmp(value.c_str(), "StartDate") == 0)
        return "StartDate";
    time_t date = 0;
    return date_str_to_time(value.substr(0, value.find_first_of(blanks)).c_str(), &date) != 0 ? text_of_date(date)
                                                                                              : value;
}

std::string day_time_value(const std::string &value) {
    unsigned hours = 0;
    unsigned minutes = 0;
    unsigned seconds = 0;
    // NOLINTNEXTLINE(cert-err34-c): as it was read
    if (sscanf(value.c_str(), "%u:%u:%u", &hours, &minutes, &seconds) != 3)
        return value;
    return text_of_day_time((hours * 60 + minutes) * 60 + seconds);
}

std::string arguments_value(const std::string &value) {
    uint32_t count = 0;
    char **words = nullptr;
    char *joined = nullptr;
    clp_parse_string(value.c_str(), 1, &count, &words, nullptr, STG_HEAP_AREA);
    clp_argv_to_string(count, words, 1, '\\', &joined);
    std::string text = joined != nullptr ? joined : value;
    stg_free(joined);
    for (uint32_t i = 0; i < count; ++i)
        stg_free(words[i]);
    stg_free(words);
    return text;
}

// In the printer's order. Lines of one group stay in the order in which they stand.
struct Tag {
    const char *tag;
    int group;
    std::string (*value)(const std::string &);
};
enum Group {
    group_id,
    group_name,
    group_description,
    group_schedule,
    group_delete,
    group_task,
    group_args,
    group_notify,
    group_exact,
    group_created,
    group_modified,
    group_predefined,
    group_running,
    group_next_run,
    group_completion,
    group_of_line_before
};
constexpr Tag tags[] = {
    {"Job.Id:", group_id, number_value},
    {"Job.Name:", group_name, name_value},
    {description_begin, group_description, as_it_is},
    {"Job.Schedule.Monthly.Frequency:", group_schedule, number_value},
    {"Job.Schedule.Monthly.Day:", group_schedule, day_value},
    {"Job.Schedule.Weekly.Frequency:", group_schedule, number_value},
    {"Job.Schedule.Weekly.Days:", group_schedule, days_value},
    {"Job.Schedule.Daily.Frequency:", group_schedule, number_value},
    {"Job.Schedule.Sequential.FollowsJob:", group_schedule, task_value},
    {"Job.Schedule.StartDate:", group_schedule, date_value},
    {"Job.Schedule.LastDate:", group_schedule, date_value},
    {"Job.Schedule.FirstStartTime:", group_schedule, day_time_value},
    {"Job.Schedule.StartTimeRestartFrequency:", group_schedule, day_time_value},
    {"Job.Schedule.LastStartTime:", group_schedule, day_time_value},
    {"Job.DeleteWhenCompleted:", group_delete, boolean_value},
    {"Job.Task:", group_task, task_value},
    {"Job.Args:", group_args, arguments_value},
    {"Job.NotifyInfo.OnEvents:", group_notify, events_value},
    {"Job.NotifyInfo.Using:", group_notify, delivery_value},
    {"Job.NotifyInfo.Recipients:", group_notify, as_it_is},
    {"Job.RunCntl.Recipient:", group_notify, as_it_is},
    {"Job.RunCntl.More:", group_of_line_before, as_it_is},
    {"Job.RunCntl.MaxRunTime:", group_exact, as_it_is},
    {"Job.RunCntl.Name:", group_exact, as_it_is},
    {"Job.RunCntl.Description:", group_exact, as_it_is},
    {"Job.RunCntl.Arg:", group_exact, as_it_is},
    {"Job.RunCntl.Day:", group_exact, as_it_is},
    {"Job.RunCntl.FirstStartTime:", group_exact, as_it_is},
    {"Job.RunCntl.StartTimeRestartFrequency:", group_exact, as_it_is},
    {"Job.RunCntl.LastStartTime:", group_exact, as_it_is},
    {"Job.Created:", group_created, as_it_is},
    {"Job.LastModified:", group_modified, as_it_is},
    {"Job.Predefined:", group_predefined, boolean_value},
    {"Job.RunningStatus.ProcessId:", group_running, as_it_is},
    {"Job.RunningStatus.Started:", group_running, as_it_is},
    {"Job.NextRunTime:", group_next_run, as_it_is},
    {"Job.LastCompletionInfo.ProcessId:", group_completion, as_it_is},
    {"Job.LastCompletionInfo.Started:", group_completion, as_it_is},
    {"Job.LastCompletionInfo.Ended:", group_completion, as_it_is},
    {"Job.LastCompletionInfo.ExitStatus:", group_completion, as_it_is},
    {messages_begin, group_completion, as_it_is},
};

struct Words {
    std::string tag;
    std::string value;
};

Words words_of(std::string_view line) {
    const std::string text = stripped(std::string(line));
    const size_t end = std::min(text.find_first_of(blanks), text.size());
    return {text.substr(0, end), stripped(text.substr(end))};
}

// Null for one that the tables know only by its beginning.
const Tag *tag_of(const std::string &word) {
    for (const Tag &tag : tags)
        if (strcasecmp(tag.tag, word.c_str()) == 0)
            return &tag;
    return nullptr;
}

bool begins_with(const std::string &word, const char *beginning) {
    return strncasecmp(word.c_str(), beginning, strlen(beginning)) == 0;
}

bool is_comment(std::string_view line) {
    const Words words = words_of(line);
    return words.tag.empty() || words.tag.front() == '#';
}

std::string comment_of(std::string_view line, const char *indentation) {
    const std::string text = stripped(std::string(line));
    return (text.empty() ? "" : indentation + text) + "\n";
}

// A line of a definition with the comments in front of it and, of a block, all up to its end.
struct Piece {
    int group = group_of_line_before;
    std::string text;
};

// The lines of a block as they stand; moves `at` to its end, whose line is written by its tag.
std::string block_of(const TextLines &lines, size_t &at, const char *end_tag) {
    std::string text;
    for (++at; !begins_with(words_of(lines[at]).tag, end_tag); ++at)
        text += std::string(lines[at]) + "\n";
    return text + "    " + end_tag + "\n";
}

Piece piece_of(const TextLines &lines, size_t &at) {
    const Words words = words_of(lines[at]);
    const Tag *tag = tag_of(words.tag);
    Piece piece;
    if (tag == nullptr) {
        piece.text = "    " + words.tag + (words.value.empty() ? "" : " " + words.value) + "\n";
        return piece;
    }
    const std::string value = words.value.empty() ? "" : tag->value(words.value);
    piece.group = tag->group;
    piece.text = std::string("    ") + tag->tag + (value.empty() ? "" : " " + value) + "\n";
    if (tag->tag == description_begin)
        piece.text += block_of(lines, at, description_end);
    else if (tag->tag == messages_begin)
        piece.text += block_of(lines, at, messages_end);
    return piece;
}

// One that is known by its beginning only stays behind the line before it.
std::vector<Piece> pieces_of(const TextLines &lines, size_t first, size_t last, std::string &trailing) {
    std::vector<Piece> pieces;
    std::string comments;
    for (size_t at = first + 1; at < last; ++at) {
        if (is_comment(lines[at])) {
            comments += comment_of(lines[at], "    ");
            continue;
        }
        Piece piece = piece_of(lines, at);
        piece.text = std::exchange(comments, {}) + piece.text;
        if (piece.group == group_of_line_before)
            piece.group = pieces.empty() ? group_id : pieces.back().group;
        pieces.push_back(std::move(piece));
    }
    trailing = comments;
    return pieces;
}

std::string framed(const char *tag, std::string_view line) {
    const std::string value = words_of(line).value;
    return tag + (value.empty() ? "" : " " + value) + "\n";
}

std::string definition_text(const TextLines &lines, size_t first, size_t last, bool is_sorted) {
    std::string trailing;
    auto pieces = pieces_of(lines, first, last, trailing);
    if (is_sorted)
        std::stable_sort(pieces.begin(), pieces.end(),
                         [](const Piece &left, const Piece &right) { return left.group < right.group; });
    std::string text = framed("Job.Begin", lines[first]);
    for (const auto &piece : pieces)
        text += piece.text;
    return text + trailing + framed("Job.End", lines[last]);
}

std::string file_text(const JobFile &file, bool is_sorted) {
    const TextLines &lines = file.lines();
    std::string text;
    size_t at = 0;
    for (const auto &job : file.jobs()) {
        for (; at + 1 < job.first_line; ++at)
            text += comment_of(lines[at], "");
        text += definition_text(lines, job.first_line - 1, job.last_line - 1, is_sorted);
        at = job.last_line;
    }
    for (; at < lines.size(); ++at)
        text += comment_of(lines[at], "");
    return text;
}

bool same_job(const JobDefinition &left, const JobDefinition &right) {
    tbs_boolean_t is_equal = 0;
    sched_utl_equal_job_rw_properties(nullptr, &left.job->rw, &right.job->rw, &is_equal);
    return is_equal != 0 && left.follows == right.follows && left.job->ro.job_id == right.job->ro.job_id &&
           left.job->ro.predefined == right.job->ro.predefined;
}

bool same_jobs(const JobFile &left, const JobFile &right) {
    return right.findings().empty() &&
           std::equal(left.jobs().begin(), left.jobs().end(), right.jobs().begin(), right.jobs().end(), same_job);
}

} // namespace

std::vector<std::string> definition_tags() {
    std::vector<std::string> all = {"Job.Begin", "Job.End", description_end, messages_end};
    for (const Tag &tag : tags)
        all.emplace_back(tag.tag);
    return all;
}

// A file whose lines mean something else in another order keeps its own.
std::string formatted(const JobFile &file, Findings &findings) {
    for (const bool is_sorted : {true, false}) {
        std::string text = file_text(file, is_sorted);
        if (same_jobs(file, JobFile(file.path(), text, any_task)))
            return text;
    }
    findings.push_back({file.path(), 0, 0, "the file cannot be formatted without a change of what it means"});
    return "";
}

} // namespace velia::cli
